#include <atomic>

#include <QMetaMethod>
#include <QThread>
#include <gtest/gtest.h>

#include "ChannelHarness.h"
#include "TestUtil.h"
#include "filters/BeautyFilterBase.h"
#include "scene/TextureBuffer.h"

namespace {

QImage picture(int w = 64, int h = 48, QColor c = Qt::red)
{
    QImage img(w, h, QImage::Format_RGBA8888);
    img.fill(c);
    return img;
}

// Counts emissions of fpsChangedForPerformance with their values.
struct RateSignals {
    explicit RateSignals(ImageFilters& f)
    {
        QObject::connect(&f, &ImageFilters::fpsChangedForPerformance, [this](int fps) { values.push_back(fps); });
    }
    std::vector<int> values;
};

}  // namespace

TEST(ImageFiltersMetaObject, SignalsAndSlotsKeepTheirOrder)
{
    const QMetaObject& mo = ImageFilters::staticMetaObject;
    const std::vector<std::pair<QMetaMethod::MethodType, const char*>> expected = {
        {QMetaMethod::Signal, "clearFin()"},
        {QMetaMethod::Signal, "clearFrame()"},
        {QMetaMethod::Signal, "UpdateBgImg(ImageFilterType,std::string,bool,bool,bool)"},
        {QMetaMethod::Signal, "finished()"},
        {QMetaMethod::Signal, "SendImage(QImage)"},
        {QMetaMethod::Signal, "Start()"},
        {QMetaMethod::Signal, "AddImageFilter(ImageFilterType,bool)"},
        {QMetaMethod::Signal, "RemoveImageFilter(ImageFilterType)"},
        {QMetaMethod::Signal, "SetFilterParameter(ImageFilterType,std::map<std::string,double>)"},
        {QMetaMethod::Signal, "StopAllFilters()"},
        {QMetaMethod::Signal, "RestartAllFilters()"},
        {QMetaMethod::Signal, "doPauseWork(bool)"},
        {QMetaMethod::Signal, "bgHwNotSupport()"},
        {QMetaMethod::Signal, "fpsChangedForPerformance(int)"},
        {QMetaMethod::Signal, "sigDoFilterWork()"},
        {QMetaMethod::Slot, "onClearFrame()"},
        {QMetaMethod::Slot, "onSetFilterParameter(ImageFilterType,std::map<std::string,double>)"},
        {QMetaMethod::Slot, "onAddImageFilter(ImageFilterType,bool)"},
        {QMetaMethod::Slot, "onRemoveImageFilter(ImageFilterType)"},
        {QMetaMethod::Slot, "onUpdateBgImg(ImageFilterType,std::string,bool,bool,bool)"},
        {QMetaMethod::Slot, "onStopAllFilters()"},
        {QMetaMethod::Slot, "onRestartAllFilters()"},
        {QMetaMethod::Slot, "writeDstImage(QImage)"},
        {QMetaMethod::Slot, "writeSrcImage(QImage,bool)"},
        {QMetaMethod::Slot, "writeSrcImage(QImage)"},
        {QMetaMethod::Slot, "process()"},
        {QMetaMethod::Slot, "stop()"},
        {QMetaMethod::Slot, "waitThreadStop()"},
        {QMetaMethod::Slot, "closeAll()"},
        {QMetaMethod::Slot, "onDoPauseWork(bool)"},
    };
    ASSERT_EQ(mo.methodCount() - mo.methodOffset(), int(expected.size()));
    for (size_t i = 0; i < expected.size(); ++i) {
        const QMetaMethod m = mo.method(mo.methodOffset() + int(i));
        EXPECT_EQ(m.methodType(), expected[i].first) << "index " << i;
        EXPECT_EQ(m.methodSignature().toStdString(), expected[i].second) << "index " << i;
    }
}

TEST(ImageFiltersPacing, SleepsTheRestOfTheIntervalOrFiveMilliseconds)
{
    ChannelHarness ch;
    ch.startClock();
    ch.clock += 10 * 1000000LL;  // 10 ms of work in a 66 ms tick
    ch.pace();
    ASSERT_EQ(ch.sleeps.size(), 1u);
    EXPECT_EQ(ch.sleeps[0], 56);
    EXPECT_EQ(ch.tickStamp(), ch.clock);

    ch.clock += 80 * 1000000LL;  // an overrun still gives up 5 ms
    ch.pace();
    ASSERT_EQ(ch.sleeps.size(), 2u);
    EXPECT_EQ(ch.sleeps[1], 5);

    ch.clock += 66 * 1000000LL;  // exactly the interval counts as an overrun
    ch.pace();
    EXPECT_EQ(ch.sleeps.back(), 5);
}

TEST(ImageFiltersPacing, ClockThatRanBackwardsNeverSleeps)
{
    ChannelHarness ch;
    ch.startClock();
    ch.clock -= 3 * 1000000LL;
    const int64_t before = ch.clock;
    ch.pace();
    EXPECT_TRUE(ch.sleeps.empty());
    EXPECT_EQ(ch.tickStamp(), before);
}

TEST(ImageFiltersPacing, FrameRateSetsTheInterval)
{
    ChannelHarness ch;
    EXPECT_EQ(ch.configuredFrameRate(), 15);
    EXPECT_EQ(ch.frameInterval(), 66);
    ch.setFrameRate(30);
    EXPECT_EQ(ch.configuredFrameRate(), 30);
    EXPECT_EQ(ch.currentFrameRate(), 30);
    EXPECT_EQ(ch.frameInterval(), 33);
    // A rate of 0 (or below) is a host mistake: ignored, nothing changes.
    ch.setFrameRate(0);
    ch.setFrameRate(-5);
    EXPECT_EQ(ch.currentFrameRate(), 30);
    EXPECT_EQ(ch.frameInterval(), 33);
}

TEST(ImageFiltersAdaptation, OverrunsDropTo15AfterTheTwoHundredAndSecondFrame)
{
    ChannelHarness ch;
    RateSignals sig(ch);
    ch.setFrameRate(30);
    for (int i = 0; i < 201; ++i)
        ch.adaptFps(70);
    EXPECT_EQ(ch.currentFrameRate(), 30);
    EXPECT_EQ(ch.downCount(), 201);
    ch.adaptFps(70);
    EXPECT_EQ(ch.currentFrameRate(), 15);
    EXPECT_EQ(ch.frameInterval(), 66);
    EXPECT_EQ(ch.downCount(), 0);
    EXPECT_EQ(sig.values, std::vector<int>({15}));
    EXPECT_EQ(ch.configuredFrameRate(), 30);
}

TEST(ImageFiltersAdaptation, OverrunWithTarget30HoldsTheRateAndResetsTheCount)
{
    ChannelHarness ch;
    RateSignals sig(ch);
    ch.setFrameRate(30);
    for (int i = 0; i < 50; ++i)
        ch.adaptFps(70);
    EXPECT_EQ(ch.downCount(), 50);
    ch.adaptFps(40);  // overrun, but 1000/40 = 25 gives target 30
    EXPECT_EQ(ch.downCount(), 0);
    for (int i = 0; i < 300; ++i)
        ch.adaptFps(40);
    EXPECT_EQ(ch.currentFrameRate(), 30);
    EXPECT_TRUE(sig.values.empty());
}

TEST(ImageFiltersAdaptation, ClimbsBackTo30AfterADrop)
{
    ChannelHarness ch;
    RateSignals sig(ch);
    ch.setFrameRate(30);
    for (int i = 0; i < 202; ++i)
        ch.adaptFps(70);
    ASSERT_EQ(ch.currentFrameRate(), 15);
    for (int i = 0; i < 201; ++i)
        ch.adaptFps(20);
    EXPECT_EQ(ch.currentFrameRate(), 15);
    ch.adaptFps(20);
    EXPECT_EQ(ch.currentFrameRate(), 30);
    EXPECT_EQ(ch.frameInterval(), 33);
    EXPECT_EQ(sig.values, std::vector<int>({15, 30}));
}

TEST(ImageFiltersAdaptation, SixtyDropsToThirtyWithoutASignal)
{
    ChannelHarness ch;
    RateSignals sig(ch);
    ch.setFrameRate(60);
    ASSERT_EQ(ch.frameInterval(), 16);
    for (int i = 0; i < 202; ++i)
        ch.adaptFps(40);
    EXPECT_EQ(ch.currentFrameRate(), 30);
    EXPECT_EQ(ch.frameInterval(), 33);
    EXPECT_TRUE(sig.values.empty());
}

TEST(ImageFiltersAdaptation, ZeroMillisecondFramesChangeNothing)
{
    ChannelHarness ch;
    ch.setFrameRate(30);
    for (int i = 0; i < 10; ++i)
        ch.adaptFps(70);
    for (int i = 0; i < 500; ++i)
        ch.adaptFps(0);
    EXPECT_EQ(ch.downCount(), 10);
    EXPECT_EQ(ch.upCount(), 0);
    EXPECT_EQ(ch.currentFrameRate(), 30);
}

TEST(ImageFiltersAdaptation, LoopAdaptsOnlyAfterThirtySecondsAndAboveFifteen)
{
    // Drives the real loop with frames that take 70 ms on the test's clock.
    ChannelHarness ch;
    RateSignals sig(ch);
    ch.setFrameRate(30);
    ch.startClock();
    ch.frameCostMs = 70;
    const QImage img = picture();
    int frames = 0;
    // Keep the channel busy: each frame is a changed frame.
    while (ch.clock + 70 * 1000000LL - ch.lastRateChange() < 30001000000LL) {
        ch.writeFrame(img, false, true, false);
        ch.tick();
        ++frames;
    }
    EXPECT_EQ(ch.currentFrameRate(), 30) << "no adaptation within the first 30.001 s";
    EXPECT_EQ(ch.downCount(), 0);
    for (int i = 0; i < 202; ++i) {
        ch.writeFrame(img, false, true, false);
        ch.tick();
    }
    EXPECT_EQ(ch.currentFrameRate(), 15);
    EXPECT_EQ(sig.values, std::vector<int>({15}));
    EXPECT_GT(frames, 300);
}

TEST(ImageFiltersAdaptation, DefaultRateNeverAdapts)
{
    ChannelHarness ch;  // the facade's default of 15
    RateSignals sig(ch);
    ch.startClock();
    ch.frameCostMs = 200;
    const QImage img = picture();
    for (int i = 0; i < 600; ++i) {
        ch.writeFrame(img, false, true, false);
        ch.tick();
    }
    EXPECT_GT(ch.clock - ch.lastRateChange(), 60 * 1000000000LL);
    EXPECT_EQ(ch.currentFrameRate(), 15);
    EXPECT_EQ(ch.downCount(), 0);
    EXPECT_TRUE(sig.values.empty());
}

TEST(ImageFiltersFrames, ChangedFrameWorksTwentyTicksThenIdles)
{
    ChannelHarness ch;
    ch.startClock();
    ch.writeFrame(picture(), false, true, false);
    EXPECT_EQ(ch.refreshFrameCount(), 20);
    for (int i = 0; i < 50; ++i)
        ch.tick();
    EXPECT_EQ(ch.runs, 20);
    EXPECT_EQ(ch.refreshFrameCount(), 0);
    // Idle ticks still pace: one sleep per tick.
    EXPECT_EQ(ch.sleeps.size(), 50u);
    // An unchanged frame does not wake the channel.
    ch.writeFrame(picture(), false, false, false);
    for (int i = 0; i < 10; ++i)
        ch.tick();
    EXPECT_EQ(ch.runs, 20);
    ch.writeFrame(picture(), false, true, false);
    ch.tick();
    EXPECT_EQ(ch.runs, 21);
}

TEST(ImageFiltersFrames, FreshChannelIgnoresUnchangedFrames)
{
    ChannelHarness ch;
    ch.startClock();
    ch.writeFrame(picture(), false, false, false);
    EXPECT_EQ(ch.refreshFrameCount(), 0);
    for (int i = 0; i < 5; ++i)
        ch.tick();
    EXPECT_EQ(ch.runs, 0);
    // writeSrcImage ignores isChanged.
    ch.writeSrcImage(picture(), true);
    ch.tick();
    EXPECT_EQ(ch.runs, 0);
    EXPECT_EQ(ch.refreshFrameCount(), 0);
}

TEST(ImageFiltersFrames, NewestFrameWinsAndIsNotCopied)
{
    ChannelHarness ch;
    ch.startClock();
    const QImage first = picture(64, 48, Qt::red);
    const QImage second = picture(64, 48, Qt::blue);
    ch.writeFrame(first, false, true, false);
    ch.writeFrame(second, false, true, false);
    // The channel holds the host's picture itself: no pixel was copied.
    EXPECT_EQ(ch.sourceImage().constBits(), second.constBits());
    ch.tick();
    ASSERT_EQ(ch.runs, 1);
    EXPECT_EQ(ch.lastRunSource.constBits(), second.constBits());
}

TEST(ImageFiltersFrames, EmptyFilterSetGetsTheNoFilterMarker)
{
    ChannelHarness ch;
    ch.startClock();
    ch.writeFrame(picture(), false, true, false);
    ch.tick();
    EXPECT_TRUE(ch.holdsNoFilterMarker());
    EXPECT_EQ(ch.runs, 1);
}

TEST(ImageFiltersFrames, NonSceneChannelKeepsTheResultAsItsOwnPicture)
{
    ChannelHarness ch(false);
    ch.startClock();
    const QImage img = picture();
    ch.writeFrame(img, false, true, false);
    ch.tick();
    EXPECT_EQ(ch.destinationImage().constBits(), img.constBits());
}

TEST(ImageFiltersFrames, DirectFrameGoesToTheBufferWithoutFilters)
{
    ChannelHarness ch(false);
    ch.startClock();
    const QImage img = picture(32, 32, Qt::green);
    ch.writeFrame(img, false, true, true);
    ch.tick();
    EXPECT_EQ(ch.runs, 0);
    QImage out;
    ASSERT_TRUE(ch.textureBuffer()->getImage(out));
    EXPECT_EQ(out.constBits(), img.constBits());
    EXPECT_TRUE(ch.textureBuffer()->isImageMode());
    // The direct path does not count frames down: it goes on ticking.
    EXPECT_EQ(ch.refreshFrameCount(), 20);
}

TEST(ImageFiltersFrames, SceneChannelWaitsForTheSceneWithoutPacing)
{
    ChannelHarness ch(true, 3, 7);
    ch.startClock();
    ch.writeFrame(picture(), false, true, false);
    for (int i = 0; i < 3; ++i)
        ch.tick();
    // Three 50 ms waits, no frame worked on, nothing counted down.
    EXPECT_EQ(ch.sleeps, std::vector<int>({50, 50, 50}));
    EXPECT_EQ(ch.runs, 0);
    EXPECT_EQ(ch.refreshFrameCount(), 20);
}

TEST(ImageFiltersThread, DirectFrameReachesTheBufferOnTheChannelThread)
{
    auto* channel = new ImageFilters(0, 0, false, nullptr);
    const QImage img = picture(40, 30, Qt::yellow);
    channel->writeFrame(img, false, true, true);
    QImage out;
    EXPECT_TRUE(testutil::waitFor([&] { return channel->textureBuffer()->getImage(out); }, 3000));
    EXPECT_EQ(out.constBits(), img.constBits());
}

TEST(ImageFiltersThread, StopEndsTheThreadAndReleasesTheWaiter)
{
    auto* channel = new ImageFilters(0, 0, false, nullptr);
    std::atomic<bool> cleared{false};
    std::atomic<bool> ended{false};
    QObject::connect(channel, &ImageFilters::clearFin, channel, [&] { cleared = true; }, Qt::DirectConnection);
    QObject::connect(static_cast<QObject*>(channel)->thread(), &QThread::finished, channel, [&] { ended = true; }, Qt::DirectConnection);
    channel->stop();  // queued to the channel's own thread
    EXPECT_TRUE(testutil::waitFor([&] { return ended.load(); }, 3000));
    EXPECT_TRUE(cleared.load());
}

TEST(ImageFiltersBadInput, NullRecordsAndTypeZeroAreDropped)
{
    ChannelHarness ch;
    int added = 0;
    int params = 0;
    QObject::connect(&ch, &ImageFilters::AddImageFilter, [&](ImageFilterType, bool) { ++added; });
    QObject::connect(&ch, &ImageFilters::SetFilterParameter,
                     [&](ImageFilterType, std::map<std::string, double>) { ++params; });
    ch.addImageFilter(SMOOTH, nullptr);
    ch.addImageFilter(BASICIMAGE, nullptr);
    ch.addImageFilter(STICKER, nullptr);
    ch.setFilterPara(SMOOTH, SMOOTHPARA, nullptr);
    _strength_param rec{50.0, true};
    ch.addImageFilter(NOFILTER, &rec);
    ch.setFilterPara(NOFILTER, SMOOTHPARA, &rec);
    EXPECT_EQ(added, 0);
    EXPECT_EQ(params, 0);
    // Type 0 reaching the marker's null entry does no harm either.
    ch.startClock();
    ch.writeFrame(picture(), false, true, false);
    ch.tick();
    ASSERT_TRUE(ch.holdsNoFilterMarker());
    ch.onSetFilterParameter(NOFILTER, {{smooth_strength, 1.0}});
    EXPECT_TRUE(ch.holdsNoFilterMarker());
}

TEST(ImageFiltersRouting, RecordsBecomeParameterMaps)
{
    ChannelHarness ch;
    std::vector<std::pair<ImageFilterType, std::map<std::string, double>>> sent;
    std::vector<std::pair<ImageFilterType, bool>> added;
    // Each signal is delivered at once, as the channel's thread would.
    QObject::connect(&ch, &ImageFilters::SetFilterParameter, [&](ImageFilterType t, std::map<std::string, double> p) {
        sent.emplace_back(t, p);
        ch.onSetFilterParameter(t, p);
    });
    QObject::connect(&ch, &ImageFilters::AddImageFilter, [&](ImageFilterType t, bool f) {
        added.emplace_back(t, f);
        ch.onAddImageFilter(t, f);
    });

    _strength_param smooth{42.0, false};
    ch.addImageFilter(SMOOTH, &smooth);
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].second, (std::map<std::string, double>{{smooth_strength, 42.0}}));
    EXPECT_EQ(added.back(), std::make_pair(SMOOTH, false));

    // The setter of red lips always asks for face detection.
    _strength_param lips{30.0, false};
    ch.setFilterPara(REDLIPS, REDLIPSPARA, &lips);
    EXPECT_EQ(added.back(), std::make_pair(REDLIPS, true));
    EXPECT_EQ(sent.back().second.at(redlips_strength), 30.0);

    // A mismatched pair never reads the record and sends an empty map.
    const size_t before = added.size();
    ch.setFilterPara(SMOOTH, WHITENINGPARA, &smooth);
    EXPECT_EQ(added.size(), before);
    EXPECT_TRUE(sent.back().second.empty());

    // Values that are no filter type at all are dropped: each would leave an entry behind.
    const size_t sentBefore = sent.size();
    ch.addImageFilter(static_cast<ImageFilterType>(15), nullptr);
    ch.setFilterPara(static_cast<ImageFilterType>(-3), SMOOTHPARA, &smooth);
    EXPECT_EQ(sent.size(), sentBefore);

    // Integer fields arrive as doubles, all 21 keys present.
    _basic_image_param basic{};
    basic.isMirrored = 1;
    basic.scale = 2.5;
    ch.addImageFilter(BASICIMAGE, &basic);
    EXPECT_EQ(sent.back().second.size(), 21u);
    EXPECT_EQ(sent.back().second.at(is_mirrored), 1.0);
    EXPECT_EQ(sent.back().second.at(scale_strength), 2.5);
}

TEST(ImageFiltersRouting, AFloodQueuesOneCallPerTypeAndTheNewestValuesArrive)
{
    ChannelHarness ch;
    int adds = 0;
    int params = 0;
    int paths = 0;
    QObject::connect(&ch, &ImageFilters::AddImageFilter, [&](ImageFilterType, bool) { ++adds; });
    QObject::connect(&ch, &ImageFilters::SetFilterParameter,
                     [&](ImageFilterType, std::map<std::string, double>) { ++params; });
    QObject::connect(&ch, &ImageFilters::UpdateBgImg, [&](ImageFilterType, std::string, bool, bool, bool) { ++paths; });
    // Nothing is delivered meanwhile, as while the channel waits for its scene.
    for (int i = 1; i <= 1000; ++i) {
        _strength_param smooth{double(i), true};
        ch.setFilterPara(SMOOTH, SMOOTHPARA, &smooth);
        std::string path = "sticker" + std::to_string(i) + ".png";
        ch.setFilterPara(STICKER, STICKERPARA, &path);
    }
    EXPECT_EQ(adds, 2);
    EXPECT_EQ(params, 2);
    EXPECT_EQ(paths, 1);

    // The queued call, when it runs, carries the newest values, and the next
    // host call queues again.
    ch.onAddImageFilter(SMOOTH, true);
    ch.onSetFilterParameter(SMOOTH, {{smooth_strength, 1.0}});
    EXPECT_EQ(ch.filterObject(SMOOTH)->paras().at(smooth_strength), 1000.0);
    _strength_param next{7.0, true};
    ch.setFilterPara(SMOOTH, SMOOTHPARA, &next);
    EXPECT_EQ(adds, 3);
    EXPECT_EQ(params, 3);
}

TEST(ImageFiltersRouting, IsClipChangeLeavesFiveFramesOut)
{
    ChannelHarness ch;
    ch.onSetFilterParameter(BASICIMAGE, {{is_clip, 0.0}});
    EXPECT_EQ(ch.clipSettleCount(), 0) << "equal to the last value: untouched";
    ch.onSetFilterParameter(BASICIMAGE, {{is_clip, 1.0}});
    EXPECT_EQ(ch.clipSettleCount(), 5);
    ch.startClock();
    ch.writeFrame(picture(), false, true, false);
    for (int i = 0; i < 5; ++i)
        ch.tick();
    EXPECT_EQ(ch.runs, 0);
    EXPECT_EQ(ch.clipSettleCount(), 0);
    ch.tick();
    EXPECT_EQ(ch.runs, 1);
}

TEST(ImageFiltersLifecycle, PauseIdlesAndDropsPicturesResumeWorksAgain)
{
    ChannelHarness ch;
    ch.startClock();
    ch.writeFrame(picture(), false, true, false);
    ch.onDoPauseWork(true);
    EXPECT_TRUE(ch.areFiltersStopped());
    EXPECT_TRUE(ch.sourceImage().isNull());
    for (int i = 0; i < 5; ++i)
        ch.tick();
    EXPECT_EQ(ch.runs, 0);
    ch.onDoPauseWork(false);
    EXPECT_FALSE(ch.areFiltersStopped());
    ch.writeFrame(picture(), false, true, false);
    ch.tick();
    EXPECT_EQ(ch.runs, 1);
}

TEST(ImageFiltersLifecycle, StopAndRestartAllFilters)
{
    ChannelHarness ch;
    ch.startClock();
    ch.writeFrame(picture(), false, false, false);
    ch.onStopAllFilters();
    EXPECT_EQ(ch.refreshFrameCount(), 20);
    ch.tick();
    EXPECT_EQ(ch.runs, 0);
    ch.onRestartAllFilters();
    ch.tick();
    EXPECT_EQ(ch.runs, 1);
}

// The slots run on the channel's thread; here they are called directly, as the
// queued connection would deliver them.
TEST(ImageFiltersRouting, FilterSetFollowsAddSetAndRemove)
{
    ChannelHarness ch;
    ch.onAddImageFilter(SMOOTH, true);
    BeautyFilterBase* smooth = ch.filterObject(SMOOTH);
    ASSERT_NE(smooth, nullptr);
    ch.onSetFilterParameter(SMOOTH, {{smooth_strength, 10.0}});
    // Adding SMOOTH again keeps the object and replaces its parameters.
    ch.onAddImageFilter(SMOOTH, true);
    ch.onSetFilterParameter(SMOOTH, {{smooth_strength, 70.0}});
    EXPECT_EQ(ch.filterObject(SMOOTH), smooth);
    EXPECT_EQ(smooth->paras().at(smooth_strength), 70.0);
    EXPECT_EQ(ch.lastParameters(SMOOTH).at(smooth_strength), 70.0);

    // SMOOTH and REDLIPS are the same class but get objects of their own.
    ch.onAddImageFilter(REDLIPS, true);
    ASSERT_NE(ch.filterObject(REDLIPS), nullptr);
    EXPECT_NE(ch.filterObject(REDLIPS), smooth);
    EXPECT_EQ(ch.features(), 1u);
    ch.onAddImageFilter(SLIMFACE, true);
    EXPECT_EQ(ch.features(), 3u);

    // Types without a filter object add nothing.
    ch.onAddImageFilter(HSVBACKGROUND, false);
    ch.onAddImageFilter(UNUSEDFILTER, false);
    EXPECT_EQ(ch.filterCount(), 3u);

    // Removing a filter that isn't there only wakes the channel.
    ch.onRemoveImageFilter(WHITENING);
    EXPECT_EQ(ch.filterCount(), 3u);
    ch.onRemoveImageFilter(SMOOTH);
    ch.onRemoveImageFilter(REDLIPS);
    ch.onRemoveImageFilter(SLIMFACE);
    EXPECT_EQ(ch.filterCount(), 0u);

    // The next frame inserts the marker and is drawn plain.
    ch.startClock();
    ch.writeFrame(picture(), false, true, false);
    ch.tick();
    EXPECT_TRUE(ch.holdsNoFilterMarker());

    // A filter added while frames run replaces the marker.
    ch.onAddImageFilter(WHITENING, true);
    EXPECT_EQ(ch.filterCount(), 1u);
    EXPECT_NE(ch.filterObject(WHITENING), nullptr);
}

TEST(ImageFiltersRouting, ParametersForAMissingFilterAreKeptUntilItComes)
{
    ChannelHarness ch;
    ch.onSetFilterParameter(WHITENING, {{whitening_strength, 40.0}});
    EXPECT_EQ(ch.filterObject(WHITENING), nullptr);
    EXPECT_EQ(ch.lastParameters(WHITENING).at(whitening_strength), 40.0);
    EXPECT_EQ(ch.refreshFrameCount(), 20);
    // The setter of the host emits AddImageFilter before the parameters, so the
    // filter exists when they arrive.
    _strength_param rec{55.0, true};
    std::vector<ImageFilterType> order;
    QObject::connect(&ch, &ImageFilters::AddImageFilter, [&](ImageFilterType t, bool f) {
        order.push_back(t);
        ch.onAddImageFilter(t, f);
    });
    QObject::connect(&ch, &ImageFilters::SetFilterParameter,
                     [&](ImageFilterType t, std::map<std::string, double> p) { ch.onSetFilterParameter(t, p); });
    ch.setFilterPara(WHITENING, WHITENINGPARA, &rec);
    ASSERT_NE(ch.filterObject(WHITENING), nullptr);
    EXPECT_EQ(ch.filterObject(WHITENING)->paras().at(whitening_strength), 55.0);
    EXPECT_EQ(order, std::vector<ImageFilterType>({WHITENING}));
}
