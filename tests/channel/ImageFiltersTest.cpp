// The channel's loop driven one tick at a time on the test's clock: pacing,
// rate adaptation, which frames are worked on, and how the host's calls reach
// the filters.
#include <functional>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "ChannelHarness.h"
#include "base/DriverLock.h"
#include "filters/BeautyFilterBase.h"
#include "scene/TextureBuffer.h"

namespace {

QImage picture(QColor c = Qt::red)
{
    QImage img(64, 48, QImage::Format_RGBA8888);
    img.fill(c);
    return img;
}

// A changed frame and a tick, `n` times.
void changedTicks(ChannelHarness& ch, int n)
{
    const QImage img = picture();
    for (int i = 0; i < n; ++i) {
        ch.writeFrame(img, false, true, false);
        ch.tick();
    }
}

// What the host's calls queue for the channel's thread, in order: 'A' an add
// with face detection, 'a' one without, 'p' parameters, 'b' a picture path.
using Queued = std::tuple<char, int, FilterParaMap>;
struct QueueRecorder {
    explicit QueueRecorder(ImageFilters& ch)
    {
        QObject::connect(&ch, &ImageFilters::AddImageFilter,
                         [this](ImageFilterType t, bool face) { calls.push_back(Queued(face ? 'A' : 'a', t, {})); });
        QObject::connect(&ch, &ImageFilters::SetFilterParameter,
                         [this](ImageFilterType t, FilterParaMap p) { calls.emplace_back('p', t, p); });
        QObject::connect(&ch, &ImageFilters::UpdateBgImg, [this](ImageFilterType t, std::string, bool, bool, bool) {
            calls.emplace_back('b', t, FilterParaMap());
        });
    }
    std::vector<Queued> calls;
};

}  // namespace

TEST(ImageFiltersPacing, SleepsTheRestOfTheIntervalOrFiveMilliseconds)
{
    // The frame rate set (0 and below are ignored), the work in the tick, the sleep (-1: none).
    const struct { int fps, workMs, sleepMs; } cases[] = {{15, 10, 56}, {15, 80, 5}, {15, 66, 5}, {15, -3, -1},
                                                          {30, 10, 23}, {60, 10, 6}, {0, 10, 56}, {-5, 10, 56}};
    for (const auto& c : cases) {
        ChannelHarness ch;
        ch.setFrameRate(c.fps);
        ch.startClock();
        ch.clock += c.workMs * 1000000LL;
        ch.pace();
        EXPECT_EQ(ch.sleeps, c.sleepMs < 0 ? std::vector<int>() : std::vector<int>{c.sleepMs})
            << c.fps << " fps, " << c.workMs << " ms";
        EXPECT_EQ(ch.tickStamp(), ch.clock) << "the tick is stamped after the sleep";
    }
}

TEST(ImageFiltersAdaptation, TheRateMovesAtTheTwoHundredAndSecondFrameInARow)
{
    // Runs of frames of one duration, and the rate after each run.
    struct Run { int frames, ms, rate; };
    const struct { const char* what; int fps; std::vector<Run> runs; std::vector<int> signalled; } cases[] = {
        {"overruns drop to 15, fast frames climb back", 30, {{201, 70, 30}, {1, 70, 15}, {201, 20, 15}, {1, 20, 30}},
         {15, 30}},
        {"an overrun aiming at 30 holds the rate and restarts the count", 30,
         {{50, 70, 30}, {1, 40, 30}, {300, 40, 30}, {201, 70, 30}, {1, 70, 15}}, {15}},
        {"frames of 0 ms neither count nor restart the count", 30,
         {{10, 70, 30}, {500, 0, 30}, {191, 70, 30}, {1, 70, 15}}, {15}},
        {"60 drops to 30 without a signal", 60, {{201, 40, 60}, {1, 40, 30}}, {}},
    };
    for (const auto& c : cases) {
        ChannelHarness ch;
        std::vector<int> signalled;
        QObject::connect(&ch, &ImageFilters::fpsChangedForPerformance, [&](int fps) { signalled.push_back(fps); });
        ch.setFrameRate(c.fps);
        for (size_t i = 0; i < c.runs.size(); ++i) {
            for (int f = 0; f < c.runs[i].frames; ++f)
                ch.adaptFps(c.runs[i].ms);
            EXPECT_EQ(ch.currentFrameRate(), c.runs[i].rate) << c.what << ", run " << i;
            EXPECT_EQ(ch.frameInterval(), 1000 / c.runs[i].rate) << c.what << ", run " << i;
        }
        EXPECT_EQ(signalled, c.signalled) << c.what;
    }
}

TEST(ImageFiltersAdaptation, LoopAdaptsOnlyAfterThirtySecondsAndAboveFifteen)
{
    // The rate set, what a frame costs, the rate until 30.001 s have passed, the rate 202 frames later.
    const struct { int fps, costMs, before, after; } cases[] = {{30, 70, 30, 15}, {15, 20, 15, 15}};
    for (const auto& c : cases) {
        ChannelHarness ch;
        ch.setFrameRate(c.fps);
        ch.startClock();
        ch.frameCostMs = c.costMs;
        while (ch.clock + c.costMs * 1000000LL - ch.lastRateChange() < 30001000000LL)
            changedTicks(ch, 1);
        EXPECT_EQ(ch.currentFrameRate(), c.before) << c.fps << " fps";
        changedTicks(ch, 202);
        EXPECT_EQ(ch.currentFrameRate(), c.after) << c.fps << " fps";
    }
}

TEST(ImageFiltersFrames, AChangedFrameWakesTheChannelForTwentyTicks)
{
    ChannelHarness ch;
    ch.startClock();
    // Unchanged frames, also through writeSrcImage, don't wake a fresh channel.
    ch.writeFrame(picture(), false, false, false);
    ch.writeSrcImage(picture(), true);
    ch.writeSrcImage(picture());
    ch.ticks(5);
    EXPECT_EQ(ch.runs, 0);
    // Twenty ticks awake; while its faces move, each works on the frame.
    ch.facesMove = true;
    changedTicks(ch, 1);
    ch.ticks(49);
    EXPECT_EQ(ch.runs, 20);
    EXPECT_EQ(ch.sleeps.size(), 55u) << "idle ticks pace too";
    EXPECT_TRUE(ch.holdsNoFilterMarker()) << "an empty filter set runs with the plain-picture marker";
    ch.writeFrame(picture(), false, false, false);
    ch.tick();
    EXPECT_EQ(ch.runs, 20);
    changedTicks(ch, 1);
    EXPECT_EQ(ch.runs, 21);
}

// A channel goes first at the driver until its first frame shows, and a
// scene channel whose scene never comes for a bounded number of ticks only.
// The flag a tick leaves is what that tick found when it began.
TEST(ImageFiltersFrames, AChannelGoesFirstUntilItsFirstFrameShows)
{
    const int limit = kFirstPictureUrgentTries;
    // After so many ticks in all, urgent or not.
    const struct { const char* name; bool sceneChannel, direct; std::vector<std::pair<int, bool>> ticksAndUrgent; }
    cases[] = {
        {"filtered frame", false, false, {{1, true}, {2, false}, {5, false}}},
        {"direct frame", false, true, {{1, true}, {2, false}}},
        {"scene never comes", true, false, {{2, true}, {limit, true}, {limit + 1, false}, {limit + 3, false}}},
    };
    for (const auto& c : cases) {
        ChannelHarness ch(c.sceneChannel, 3, 7);
        ch.startClock();
        ch.tick();
        EXPECT_TRUE(isGlDriverUrgent()) << c.name << ": before any frame";
        ch.writeFrame(picture(), false, true, c.direct);
        int ticks = 0;
        for (const auto& [after, urgent] : c.ticksAndUrgent) {
            ch.ticks(after - std::exchange(ticks, after));
            EXPECT_EQ(isGlDriverUrgent(), urgent) << c.name << " after " << after << " ticks";
        }
    }
    setGlDriverUrgent(false);
}

TEST(ImageFiltersFrames, AFrameThatWouldComeOutAsTheLastIsLeftOut)
{
    // Awake for twenty ticks on one picture: once the faces of two frames in a
    // row agree, the output stands until the picture, a setting, the faces'
    // skipping or the exchange buffer changes, or a picture is handed in as
    // changed. The runs after each step.
    ChannelHarness ch(true);
    ch.setSceneShareEnabled(false);  // delivers into the exchange buffer's picture
    ch.startClock();
    const QImage img = picture();
    ch.writeFrame(img, false, true, false);
    const struct { const char* step; std::function<void()> change; int runs; } steps[] = {
        {"the first frame, its faces as the last (none)", [] {}, 1},
        {"the picture handed in again as changed", [&] { ch.writeFrame(img, false, true, false); }, 2},
        {"another picture, not flagged", [&] { ch.writeFrame(picture(Qt::blue), false, false, false); }, 3},
        {"a parameter", [&] { ch.onSetFilterParameter(WHITENING, {{whitening_strength, 0.4}}); }, 4},
        {"face passes skipped", [&] { ch.writeFrame(picture(Qt::blue), true, false, false); }, 5},
        {"the exchange buffer changed by another", [&] { ch.textureBuffer()->setImage(picture(Qt::green)); }, 6},
        {"nothing", [] {}, 6},
        // Faces that move: every frame is worked on, and the first frame whose
        // faces repeat the last settles the output.
        {"faces that move", [&] { ch.facesMove = true, ch.writeFrame(img, false, true, false); }, 9},
        {"faces that settle", [&] { ch.facesMove = false; }, 10},
        // A sticker may animate: with one, every awake tick works.
        {"a sticker", [&] { ch.onAddImageFilter(STICKER, true); }, 13},
    };
    for (const auto& step : steps) {
        step.change();
        ch.ticks(3);
        EXPECT_EQ(ch.runs, step.runs) << step.step;
    }
}

TEST(ImageFiltersFrames, NewestFrameWinsAndNoPixelIsCopied)
{
    ChannelHarness ch(false);
    ch.startClock();
    const QImage first = picture(Qt::red), second = picture(Qt::blue);
    ch.writeFrame(first, false, true, false);
    ch.writeFrame(second, false, true, false);
    ch.tick();
    ASSERT_EQ(ch.runs, 1);
    EXPECT_EQ(ch.lastRunSource.constBits(), second.constBits());
    EXPECT_EQ(ch.destinationImage().constBits(), second.constBits()) << "a channel outside a scene keeps its result";
}

TEST(ImageFiltersFrames, DirectFramesSkipTheFiltersAndSceneChannelsWaitForTheirScene)
{
    ChannelHarness direct(false), scene(true, 3, 7);
    const QImage img = picture(Qt::green);
    direct.textureBuffer()->setImageMode(false);
    for (ChannelHarness* ch : {&direct, &scene}) {
        ch->startClock();
        ch->writeFrame(img, false, true, ch == &direct);
        ch->ticks(3);
        EXPECT_EQ(ch->runs, 0);
        EXPECT_EQ(ch->refreshFrameCount(), 20) << "neither counts frames down";
    }
    EXPECT_EQ(scene.sleeps, std::vector<int>({50, 50, 50})) << "a wait for the scene, without pacing";
    // The direct picture, not a copy, in image mode; a null frame after it leaves it there.
    direct.writeFrame(QImage(), false, true, true);
    direct.tick();
    QImage out;
    ASSERT_TRUE(direct.textureBuffer()->getImage(out));
    EXPECT_EQ(out.constBits(), img.constBits());
    EXPECT_TRUE(direct.textureBuffer()->isImageMode());
}

TEST(ImageFiltersRouting, HostCallsQueueTheAddBeforeTheRecordAsAMap)
{
    _strength_param s42{42.0, false}, s30{30.0, false};
    std::string sticker = "sticker.png";
    const struct { const char* what; std::function<void(ImageFilters&)> call; std::vector<Queued> queued; } cases[] = {
        {"a strength record", [&](ImageFilters& c) { c.addImageFilter(SMOOTH, &s42); },
         {Queued('a', SMOOTH, {}), Queued('p', SMOOTH, {{smooth_strength, 42.0}})}},
        {"red lips always ask for faces", [&](ImageFilters& c) { c.setFilterPara(REDLIPS, REDLIPSPARA, &s30); },
         {Queued('A', REDLIPS, {}), Queued('p', REDLIPS, {{redlips_strength, 30.0}})}},
        {"a sticker path", [&](ImageFilters& c) { c.setFilterPara(STICKER, STICKERPARA, &sticker); },
         {Queued('A', STICKER, {}), Queued('b', STICKER, {}), Queued('p', STICKER, {})}},
        {"a mismatched pair reads nothing", [&](ImageFilters& c) { c.setFilterPara(SMOOTH, WHITENINGPARA, &s42); },
         {Queued('p', SMOOTH, {})}},
        // Null records, and values that are no filter type, are dropped.
        {"null strength", [&](ImageFilters& c) { c.addImageFilter(SMOOTH, nullptr); }, {}},
        {"null basic", [&](ImageFilters& c) { c.addImageFilter(BASICIMAGE, nullptr); }, {}},
        {"null path", [&](ImageFilters& c) { c.addImageFilter(STICKER, nullptr); }, {}},
        {"null to the setter", [&](ImageFilters& c) { c.setFilterPara(SMOOTH, SMOOTHPARA, nullptr); }, {}},
        {"type 0", [&](ImageFilters& c) { c.addImageFilter(NOFILTER, &s42); }, {}},
        {"type 0 to the setter", [&](ImageFilters& c) { c.setFilterPara(NOFILTER, SMOOTHPARA, &s42); }, {}},
        {"type 15", [&](ImageFilters& c) { c.addImageFilter(static_cast<ImageFilterType>(15), &s42); }, {}},
        {"type -3", [&](ImageFilters& c) { c.setFilterPara(static_cast<ImageFilterType>(-3), SMOOTHPARA, &s42); }, {}},
    };
    for (const auto& c : cases) {
        ChannelHarness ch;
        QueueRecorder recorder(ch);
        c.call(ch);
        EXPECT_EQ(recorder.calls, c.queued) << c.what;
    }
}

TEST(ImageFiltersRouting, AFloodQueuesOneCallPerTypeAndTheNewestValuesArrive)
{
    ChannelHarness ch;
    QueueRecorder recorder(ch);
    // Nothing is delivered meanwhile, as while the channel waits for its scene.
    for (int i = 1; i <= 1000; ++i) {
        _strength_param smooth{double(i), true};
        ch.setFilterPara(SMOOTH, SMOOTHPARA, &smooth);
        std::string path = "sticker" + std::to_string(i) + ".png";
        ch.setFilterPara(STICKER, STICKERPARA, &path);
    }
    const std::vector<Queued> once = {Queued('A', SMOOTH, {}), Queued('p', SMOOTH, {{smooth_strength, 1.0}}),
                                      Queued('A', STICKER, {}), Queued('b', STICKER, {}), Queued('p', STICKER, {})};
    EXPECT_EQ(recorder.calls, once);
    // The queued call, when it runs, carries the newest values, and the next host call queues again.
    ch.onAddImageFilter(SMOOTH, true);
    ch.onSetFilterParameter(SMOOTH, {{smooth_strength, 1.0}});
    EXPECT_EQ(ch.filterObject(SMOOTH)->paras().at(smooth_strength), 1000.0);
    _strength_param next{7.0, true};
    ch.setFilterPara(SMOOTH, SMOOTHPARA, &next);
    ASSERT_EQ(recorder.calls.size(), 7u);
    EXPECT_EQ(recorder.calls[6], Queued('p', SMOOTH, {{smooth_strength, 7.0}}));
}

// The slots run on the channel's thread; here they are called directly, as the
// queued connections would deliver them.
TEST(ImageFiltersRouting, FilterSetFollowsAddSetAndRemove)
{
    ChannelHarness ch;
    ch.onAddImageFilter(SMOOTH, true);
    BeautyFilterBase* smooth = ch.filterObject(SMOOTH);
    ASSERT_NE(smooth, nullptr);
    ch.onAddImageFilter(SMOOTH, true);
    ch.onSetFilterParameter(SMOOTH, {{smooth_strength, 70.0}});
    EXPECT_EQ(ch.filterObject(SMOOTH), smooth) << "adding again keeps the object";
    EXPECT_EQ(smooth->paras().at(smooth_strength), 70.0);
    ch.onAddImageFilter(REDLIPS, true);  // the class of SMOOTH, an object of its own
    EXPECT_NE(ch.filterObject(REDLIPS), smooth);
    ch.onAddImageFilter(HSVBACKGROUND, false);  // no filter object behind these
    ch.onAddImageFilter(UNUSEDFILTER, false);
    ch.onRemoveImageFilter(WHITENING);  // not there
    EXPECT_EQ(ch.filterCount(), 2u);
    ch.onRemoveImageFilter(SMOOTH);
    ch.onRemoveImageFilter(REDLIPS);
    EXPECT_EQ(ch.filterCount(), 0u);

    // The next frame runs with the marker, whose null entry takes no parameters;
    // a filter added then replaces it.
    ch.startClock();
    changedTicks(ch, 1);
    ch.onSetFilterParameter(NOFILTER, {{smooth_strength, 1.0}});
    EXPECT_TRUE(ch.holdsNoFilterMarker());
    ch.onAddImageFilter(WHITENING, true);
    EXPECT_EQ(ch.filterCount(), 1u);
    EXPECT_NE(ch.filterObject(WHITENING), nullptr);
}

TEST(ImageFiltersFrames, PauseStopAllAndAClipChangeHoldFramesBack)
{
    // Nothing in the engine pauses a channel or stops all its filters: each
    // holds frames back until undone. A change of is_clip holds five back.
    ChannelHarness ch;
    ch.startClock();
    // A control, the changed frames after it, and the runs of the filters so far.
    const struct { std::function<void()> control; int frames, runs; } steps[] = {
        {[&] { ch.onDoPauseWork(true); }, 3, 0},
        {[&] { ch.onDoPauseWork(false); }, 3, 3},
        {[&] { ch.onStopAllFilters(); }, 3, 3},
        {[&] { ch.onRestartAllFilters(); }, 3, 6},
        {[&] { ch.onSetFilterParameter(BASICIMAGE, {{is_clip, 0.0}}); }, 1, 7},  // the value it had
        {[&] { ch.onSetFilterParameter(BASICIMAGE, {{is_clip, 1.0}}); }, 5, 7},
        {[] {}, 1, 8}};
    for (size_t i = 0; i < std::size(steps); ++i) {
        steps[i].control();
        changedTicks(ch, steps[i].frames);
        EXPECT_EQ(ch.runs, steps[i].runs) << "step " << i;
    }
}
