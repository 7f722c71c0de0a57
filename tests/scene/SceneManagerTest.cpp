// The scene's loop driven one tick at a time, and the order of the
// meta-methods of the channel and the scene.
#include <QMetaMethod>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "base/DriverLock.h"
#include "gpu/GlTestSupport.h"
#include "channel/ImageFilters.h"
#include "scene/SceneManager.h"
#include "scene/TextureBuffer.h"

namespace {

// A scene without a running thread, driven on the test's (GUI) thread.
class SceneHarness : public SceneManager {
public:
    SceneHarness() : SceneManager(0, NoThreadStart{}) {}
    using SceneManager::firstPictureTries;
    using SceneManager::tick;
    // Asks for an empty merge of the size, runs one tick and gives the size of the picture then held.
    QSize merge(int width, int height)
    {
        mergeImages({}, width, height, Qt::black, QImage(), QImage());
        tick();
        QImage out;
        return getMergeImg(out) ? out.size() : QSize();
    }
};

}  // namespace

TEST(MetaObjectOrder, SignalsThenSlotsOfEachClass)
{
    const struct { const QMetaObject* mo; int signalCount; std::vector<const char*> methods; } classes[] = {
        {&ImageFilters::staticMetaObject, 15,
         {"clearFin()", "clearFrame()", "UpdateBgImg(ImageFilterType,std::string,bool,bool,bool)", "finished()",
          "SendImage(QImage)", "Start()", "AddImageFilter(ImageFilterType,bool)", "RemoveImageFilter(ImageFilterType)",
          "SetFilterParameter(ImageFilterType,std::map<std::string,double>)", "StopAllFilters()",
          "RestartAllFilters()", "doPauseWork(bool)", "bgHwNotSupport()", "fpsChangedForPerformance(int)",
          "sigDoFilterWork()", "onClearFrame()", "onSetFilterParameter(ImageFilterType,std::map<std::string,double>)",
          "onAddImageFilter(ImageFilterType,bool)", "onRemoveImageFilter(ImageFilterType)",
          "onUpdateBgImg(ImageFilterType,std::string,bool,bool,bool)", "onStopAllFilters()", "onRestartAllFilters()",
          "writeDstImage(QImage)", "writeSrcImage(QImage,bool)", "writeSrcImage(QImage)", "process()", "stop()",
          "waitThreadStop()", "closeAll()", "onDoPauseWork(bool)"}},
        {&SceneManager::staticMetaObject, 6,
         {"upChannelShareTex()", "setShareCtx(QOpenGLContext*,int,int)", "finished()", "doPauseWork(bool)",
          "clearFin()", "sigDoMergeWork()", "updateMergeImg(QImage*&)", "process()", "stop()", "onDoPauseWork(bool)",
          "waitThreadStop()"}},
    };
    for (const auto& c : classes) {
        const QMetaObject& mo = *c.mo;
        ASSERT_EQ(mo.methodCount() - mo.methodOffset(), int(c.methods.size())) << mo.className();
        for (int i = 0; i < int(c.methods.size()); ++i) {
            const QMetaMethod m = mo.method(mo.methodOffset() + i);
            EXPECT_EQ(m.methodSignature().toStdString(), c.methods[i]) << mo.className() << " " << i;
            EXPECT_EQ(m.methodType(), i < c.signalCount ? QMetaMethod::Signal : QMetaMethod::Slot) << mo.className();
        }
    }
}

TEST(SceneManagerRequests, TheNewestRequestWinsAndSizesBeyondTheLimitsAreDropped)
{
    SceneHarness scene;
    scene.mergeImages({}, 200, 100, Qt::black, QImage(), QImage());
    ASSERT_EQ(scene.merge(320, 240), QSize(320, 240)) << "only the newest request is kept";
    QImage first;
    ASSERT_TRUE(scene.getMergeImg(first));
    EXPECT_EQ(first.format(), QImage::Format_BGR888);
    // Landscape up to 1920 x 1080, portrait up to 1080 x 1920, squares of any
    // size; a dropped request leaves the picture held before.
    const struct { int width, height; bool taken; } cases[] = {
        {1921, 1080, false}, {1920, 1081, false}, {1081, 1920, false}, {1080, 1921, false}, {0, 720, false},
        {-5, 100, false},    {1920, 1080, true},  {1080, 1920, true},  {2000, 2000, true},  {320, 240, true}};
    QSize held(320, 240);
    for (const auto& c : cases) {
        if (c.taken)
            held = QSize(c.width, c.height);
        EXPECT_EQ(scene.merge(c.width, c.height), held) << c.width << "x" << c.height;
    }
}

// Nothing in the engine pauses a scene: one check that it keeps its picture
// and drops requests until resumed.
TEST(SceneManagerPause, APausedSceneKeepsItsPictureAndDropsRequests)
{
    SceneHarness scene;
    ASSERT_EQ(scene.merge(160, 90), QSize(160, 90));
    scene.onDoPauseWork(true);
    EXPECT_EQ(scene.merge(320, 180), QSize(160, 90));
    scene.onDoPauseWork(false);
    EXPECT_EQ(scene.merge(320, 180), QSize(320, 180));
}

// A merge that can't be drawn yet (the channel's textures aren't shared with
// the scene) leaves the picture published before, grey, also while the host
// holds that picture and the scene reads into a buffer of its own.
TEST(SceneManagerRequests, AMergeNotDrawnLeavesThePicturePublishedBefore)
{
    SceneHarness scene;
    scene.addChannel(7, std::make_shared<TextureBuffer>());
    const _channel_merge_param param{7, QRect(0, 0, 160, 90), 0, {}};
    QImage grey(160, 90, QImage::Format_RGB32);
    grey.fill(QColor(53, 53, 53));
    std::vector<QImage> held(4);
    for (QImage& picture : held) {
        scene.mergeImages({param}, 160, 90, Qt::black, QImage(), QImage());
        scene.tick();
        ASSERT_TRUE(scene.getMergeImg(picture));
        EXPECT_TRUE(gltest::sameImage(picture, grey)) << &picture - held.data();
    }
}

// The merged picture of a width whose rows of 3 bytes a pixel are padded to
// 4 bytes (1002 x 3 = 3006 bytes, kept in rows of 3008): every pixel, the
// tails of the last rows included, is the channel's. A read-back that copies
// 3 x width x height bytes leaves the end of the picture as it was.
TEST(SceneManagerReadback, EveryPixelOfAPaddedWidthIsTheChannels)
{
    SceneHarness scene;
    auto buffer = std::make_shared<TextureBuffer>();
    buffer->setShareReady(0, true);
    scene.addChannel(3, buffer);
    const QSize sizes[] = {{1002, 768}, {1366, 768}, {1001, 600}, {1003, 500}, {766, 1024}, {1000, 700}};
    for (const QSize& size : sizes) {
        // Far from the empty grey everywhere: blue is 200, and no two
        // neighbours in a row are alike.
        QImage picture(size, QImage::Format_RGBA8888);
        for (int y = 0; y < size.height(); ++y)
            for (int x = 0; x < size.width(); ++x)
                picture.setPixel(x, y, qRgb((x * 7 + y) % 256, (y * 3 + x / 256) % 256, 200));
        buffer->setImage(picture);
        const _channel_merge_param param{3, QRect(QPoint(), size), 0, {}};
        scene.mergeImages({param}, size.width(), size.height(), Qt::black, QImage(), QImage());
        scene.tick();
        QImage merged;
        ASSERT_TRUE(scene.getMergeImg(merged)) << size.width() << "x" << size.height();
        EXPECT_TRUE(gltest::sameImage(merged, picture)) << size.width() << "x" << size.height();
    }
}

// A scene goes first at the driver until a picture read back shows every
// channel its merge lists (the read-back after the merge that drew them all),
// and for a bounded number of merges when a channel never comes.
TEST(SceneManagerUrgency, AFirstPictureGoesFirstUntilItShowsItsChannels)
{
    const int limit = kFirstPictureUrgentTries;
    // After so many merges in all, urgent or not.
    const struct { const char* name; bool channelReady; std::vector<std::pair<int, bool>> mergesAndUrgent; } cases[] = {
        {"channel shared", true, {{1, true}, {2, false}, {4, false}}},
        {"channel never shared", false, {{2, true}, {limit - 1, true}, {limit, false}, {limit + 2, false}}},
    };
    for (const auto& c : cases) {
        SceneHarness scene;
        auto buffer = std::make_shared<TextureBuffer>();
        buffer->setShareReady(0, c.channelReady);
        QImage picture(160, 90, QImage::Format_RGBA8888);
        picture.fill(Qt::red);
        buffer->setImage(picture);
        scene.addChannel(5, buffer);
        const _channel_merge_param param{5, QRect(0, 0, 160, 90), 0, {}};
        int merges = 0;
        for (const auto& [after, urgent] : c.mergesAndUrgent) {
            // Many merges in a row without a picture: the count skips ahead.
            if (after - merges > 5) {
                scene.firstPictureTries += after - 3 - merges;
                merges = after - 3;
            }
            for (; merges < after; ++merges) {
                scene.mergeImages({param}, 160, 90, Qt::black, QImage(), QImage());
                scene.tick();
            }
            EXPECT_EQ(isGlDriverUrgent(), urgent) << c.name << " after " << after << " merges";
        }
    }
    setGlDriverUrgent(false);
}
