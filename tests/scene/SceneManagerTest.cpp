#include <QMetaMethod>
#include <gtest/gtest.h>

#include "scene/SceneManager.h"

namespace {

// A scene without a running thread, driven one tick at a time on the test's
// (GUI) thread.
class SceneHarness : public SceneManager {
public:
    SceneHarness() : SceneManager(0, NoThreadStart{}) {}
    using SceneManager::requestFitsLimits;
    using SceneManager::tick;
};

QSize mergedSize(SceneHarness& scene)
{
    QImage out;
    if (!scene.getMergeImg(out))
        return QSize();
    return out.size();
}

}  // namespace

TEST(SceneManagerMetaObject, SignalsAndSlotsKeepTheirOrder)
{
    const QMetaObject& mo = SceneManager::staticMetaObject;
    const std::vector<std::pair<QMetaMethod::MethodType, const char*>> expected = {
        {QMetaMethod::Signal, "upChannelShareTex()"},
        {QMetaMethod::Signal, "setShareCtx(QOpenGLContext*,int,int)"},
        {QMetaMethod::Signal, "finished()"},
        {QMetaMethod::Signal, "doPauseWork(bool)"},
        {QMetaMethod::Signal, "clearFin()"},
        {QMetaMethod::Signal, "sigDoMergeWork()"},
        {QMetaMethod::Slot, "updateMergeImg(QImage*&)"},
        {QMetaMethod::Slot, "process()"},
        {QMetaMethod::Slot, "stop()"},
        {QMetaMethod::Slot, "onDoPauseWork(bool)"},
        {QMetaMethod::Slot, "waitThreadStop()"},
    };
    ASSERT_EQ(mo.methodCount() - mo.methodOffset(), int(expected.size()));
    for (size_t i = 0; i < expected.size(); ++i) {
        const QMetaMethod m = mo.method(mo.methodOffset() + int(i));
        EXPECT_EQ(m.methodType(), expected[i].first) << "index " << i;
        EXPECT_EQ(m.methodSignature().toStdString(), expected[i].second) << "index " << i;
    }
}

TEST(SceneManagerLimits, LandscapePortraitAndSquare)
{
    SceneHarness scene;
    EXPECT_TRUE(scene.requestFitsLimits(1920, 1080));
    EXPECT_FALSE(scene.requestFitsLimits(1921, 1080));
    EXPECT_FALSE(scene.requestFitsLimits(1920, 1081));
    EXPECT_TRUE(scene.requestFitsLimits(1080, 1920));
    EXPECT_FALSE(scene.requestFitsLimits(1081, 1920));
    EXPECT_FALSE(scene.requestFitsLimits(1080, 1921));
    EXPECT_TRUE(scene.requestFitsLimits(2000, 2000));  // squares are not limited
}

TEST(SceneManagerRequests, OversizedAndEmptyRequestsAreDroppedKeepingTheOldPicture)
{
    SceneHarness scene;
    const QColor bg(10, 20, 30);
    scene.mergeImages({}, 1921, 1080, bg, QImage(), QImage());
    scene.tick();
    EXPECT_FALSE(mergedSize(scene).isValid());

    scene.mergeImages({}, 320, 240, bg, QImage(), QImage());
    scene.tick();
    ASSERT_EQ(mergedSize(scene), QSize(320, 240));
    QImage first;
    ASSERT_TRUE(scene.getMergeImg(first));
    EXPECT_EQ(first.format(), QImage::Format_BGR888);

    // A zero-size request is dropped, but the size it asked for is recorded.
    scene.mergeImages({}, 0, 720, bg, QImage(), QImage());
    scene.tick();
    EXPECT_EQ(scene.lastMergeWidth(), 0);
    EXPECT_EQ(scene.lastMergeHeight(), 720);
    EXPECT_EQ(mergedSize(scene), QSize(320, 240));

    scene.mergeImages({}, 1081, 1920, bg, QImage(), QImage());
    scene.tick();
    EXPECT_EQ(mergedSize(scene), QSize(320, 240));
    scene.mergeImages({}, -5, 100, bg, QImage(), QImage());
    scene.tick();
    EXPECT_EQ(mergedSize(scene), QSize(320, 240));
}

TEST(SceneManagerRequests, OnlyTheNewestRequestIsKept)
{
    SceneHarness scene;
    scene.mergeImages({}, 200, 100, Qt::black, QImage(), QImage());
    scene.mergeImages({}, 300, 150, Qt::black, QImage(), QImage());
    EXPECT_EQ(scene.pendingRequests(), 1);
    scene.tick();
    EXPECT_EQ(scene.pendingRequests(), 0);
    EXPECT_EQ(mergedSize(scene), QSize(300, 150));
    EXPECT_EQ(scene.lastMergeWidth(), 300);
}

TEST(SceneManagerRequests, SquareBeyondTheLandscapeLimitPasses)
{
    SceneHarness scene;
    scene.mergeImages({}, 2000, 2000, Qt::black, QImage(), QImage());
    scene.tick();
    EXPECT_EQ(mergedSize(scene), QSize(2000, 2000));
}

TEST(SceneManagerPause, PausedSceneKeepsItsLastPictureAndDropsRequests)
{
    SceneHarness scene;
    scene.mergeImages({}, 160, 90, Qt::black, QImage(), QImage());
    scene.tick();
    ASSERT_EQ(mergedSize(scene), QSize(160, 90));
    scene.onDoPauseWork(true);
    scene.mergeImages({}, 320, 180, Qt::black, QImage(), QImage());
    scene.tick();
    EXPECT_EQ(mergedSize(scene), QSize(160, 90));
    // The paused tick leaves one idle request, which fails the size check on resume.
    EXPECT_EQ(scene.pendingRequests(), 1);
    scene.onDoPauseWork(false);
    scene.tick();
    EXPECT_EQ(scene.pendingRequests(), 0);
    EXPECT_EQ(mergedSize(scene), QSize(160, 90));
    scene.mergeImages({}, 320, 180, Qt::black, QImage(), QImage());
    scene.tick();
    EXPECT_EQ(mergedSize(scene), QSize(320, 180));
}
