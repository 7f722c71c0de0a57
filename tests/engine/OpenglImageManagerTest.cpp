#include <atomic>
#include <thread>

#include <QPointer>
#include <gtest/gtest.h>

#include "TestUtil.h"
#include "LogCapture.h"
#include "channel/ImageFilters.h"
#include "engine/OpenglImageManagerPrivate.h"
#include "lumen_fx/OpenglImageManager.h"
#include "scene/TextureBuffer.h"

namespace {

OpenglImageManagerPrivate* registry()
{
    return imageManagerPrivate(OpenglImageManager::instance());
}

}  // namespace

// Each test runs in a process of its own, so the counters start at 0 here.

TEST(OpenglImageManager, IdsStartAtZeroAndChannelIdsRunAcrossScenes)
{
    OpenglImageManager* m = OpenglImageManager::instance();
    EXPECT_EQ(m, OpenglImageManager::instance());
    const int s0 = m->genSceneFilters();
    const int s1 = m->genSceneFilters();
    EXPECT_EQ(s0, 0);
    EXPECT_EQ(s1, 1);
    EXPECT_EQ(m->genChannelFilters(s0, true), 0);
    EXPECT_EQ(m->genChannelFilters(s1, true), 1);
    EXPECT_EQ(m->genChannelFilters(s0, false), 2);
    EXPECT_EQ(registry()->channels.size(), 3u);
    EXPECT_NE(registry()->findChannel(s1, 1), nullptr);
    EXPECT_EQ(registry()->findChannel(s0, 1), nullptr) << "the key is the pair";
}

TEST(OpenglImageManager, UnknownSceneGivesMinusOneAndMovesNoCounter)
{
    OpenglImageManager* m = OpenglImageManager::instance();
    EXPECT_EQ(m->genChannelFilters(-1, true), -1);
    EXPECT_EQ(m->genChannelFilters(0, true), -1);
    const int s = m->genSceneFilters();
    EXPECT_EQ(m->genChannelFilters(s, true), 0);
    EXPECT_EQ(m->genChannelFilters(s + 5, false), -1);
    EXPECT_EQ(m->genChannelFilters(s, true), 1);
}

TEST(OpenglImageManager, NewChannelsTakeTheManagerDefaults)
{
    OpenglImageManager* m = OpenglImageManager::instance();
    const int s = m->genSceneFilters();
    const int c = m->genChannelFilters(s, true);
    ImageFilters* ch = registry()->findChannel(s, c);
    ASSERT_NE(ch, nullptr);
    EXPECT_EQ(ch->configuredFrameRate(), 15);
    EXPECT_EQ(ch->frameInterval(), 66);
    EXPECT_EQ(ch->sceneIdentity(), s);
    EXPECT_EQ(ch->channelIdentity(), c);
}

TEST(OpenglImageManager, FreshSceneHasNoMergedPicture)
{
    OpenglImageManager* m = OpenglImageManager::instance();
    const int s = m->genSceneFilters();
    QImage image(4, 4, QImage::Format_RGB888);
    image.fill(Qt::cyan);
    const QImage before = image;
    EXPECT_FALSE(m->getMergeImg(s, image));
    EXPECT_FALSE(m->getMergeImg(s + 1, image));
    EXPECT_EQ(image, before);
}

TEST(OpenglImageManager, WrongPairDoesNothing)
{
    OpenglImageManager* m = OpenglImageManager::instance();
    const int s0 = m->genSceneFilters();
    const int s1 = m->genSceneFilters();
    const int c = m->genChannelFilters(s0, false);
    ImageFilters* ch = registry()->findChannel(s0, c);
    ASSERT_NE(ch, nullptr);
    QImage img(16, 16, QImage::Format_RGBA8888);
    img.fill(Qt::magenta);

    m->sendChannelFrame(s1, c, img, false, true, true);
    m->sendChannelFrame(s0, c + 1, img, false, true, true);
    _strength_param rec{50.0, true};
    m->addChannelImageFilter(s1, c, SMOOTH, &rec);
    m->setChannelFilterParas(s1, c, SMOOTH, SMOOTHPARA, &rec);
    m->mergeImages(s1 + 10, {}, 100, 100, Qt::black, QImage(), QImage());
    EXPECT_TRUE(ch->sourceImage().isNull());
    EXPECT_EQ(ch->refreshFrameCount(), 0);

    // The right pair reaches the channel, which hands the direct frame on.
    m->sendChannelFrame(s0, c, img, false, true, true);
    EXPECT_EQ(ch->sourceImage().constBits(), img.constBits());
    QImage out;
    EXPECT_TRUE(testutil::waitFor([&] { return ch->textureBuffer()->getImage(out); }, 3000));
    EXPECT_EQ(out.constBits(), img.constBits());
}

// A host thread makes scenes and channels: they are made on the application's
// thread while it takes events, also after a facade call of its own has held
// the engine's lock for a while; with no events taken the call gives up.
TEST(OpenglImageManager, CreationFromAnotherThread)
{
    OpenglImageManager* m = OpenglImageManager::instance();
    LogCapture log;
    std::atomic<int> scene{-2};
    std::atomic<int> channel{-2};
    std::thread host([&] {
        scene = m->genSceneFilters();
        channel = m->genChannelFilters(scene, false);
    });
    {
        // The application's thread sits in a facade call that holds the lock.
        QMutexLocker busy(&registry()->sceneMutex);
        QThread::msleep(200);
    }
    ASSERT_TRUE(testutil::waitFor([&] { return channel != -2; }, 5000));
    host.join();
    ASSERT_GE(scene.load(), 0);
    ASSERT_GE(channel.load(), 0);
    EXPECT_FALSE(log.contains("outside the gui thread")) << "Qt's surfaces were made on its thread";
    QImage img(8, 8, QImage::Format_RGBA8888);
    img.fill(Qt::yellow);
    m->sendChannelFrame(scene, channel, img, false, true, true);
    QImage out;
    EXPECT_TRUE(testutil::waitFor(
        [&] { return registry()->findChannel(scene, channel)->textureBuffer()->getImage(out); }, 3000))
        << "the channel made on the host's behalf works";

    registry()->creationWaitMs = 200;
    int refused = -2;
    std::thread late([&] { refused = m->genSceneFilters(); });
    late.join();  // no events taken meanwhile
    EXPECT_EQ(refused, -1);
    EXPECT_TRUE(log.contains("[OpenglImageManager::genSceneFilters] the application's thread took no events"));
    const size_t scenes = registry()->scenes.size();
    QCoreApplication::processEvents();
    EXPECT_EQ(registry()->scenes.size(), scenes) << "an abandoned creation is not made later";
}

// The application's end stops every scene and channel and forgets them; calls
// that come later find nothing, and a new application could make new ones.
TEST(OpenglImageManager, ShutdownStopsAndForgetsEverything)
{
    OpenglImageManager* m = OpenglImageManager::instance();
    const int s = m->genSceneFilters();
    const int c = m->genChannelFilters(s, true);
    QImage img(32, 32, QImage::Format_RGBA8888);
    img.fill(Qt::red);
    _channel_merge_param p;
    p.channelId = c;
    p.rect = QRect(0, 0, 32, 32);
    QImage merged;
    ASSERT_TRUE(testutil::waitFor(
        [&] {
            m->sendChannelFrame(s, c, img, false, true, false);
            m->mergeImages(s, {p}, 32, 32, Qt::black, QImage(), QImage());
            return m->getMergeImg(s, merged) && merged.pixelColor(16, 16) == QColor(Qt::red);
        },
        10000));

    QPointer<ImageFilters> channel(registry()->findChannel(s, c));
    registry()->shutdown(false);
    EXPECT_TRUE(channel.isNull()) << "the channel deleted itself on its thread";
    EXPECT_TRUE(registry()->scenes.empty());
    EXPECT_TRUE(registry()->channels.empty());
    EXPECT_FALSE(m->getMergeImg(s, merged));
    m->sendChannelFrame(s, c, img, false, true, false);
    EXPECT_EQ(m->genSceneFilters(), s + 1) << "not closed for good: ids go on";
}
