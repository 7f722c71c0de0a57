// The registry behind the public interface: ids, look-ups, creation from a
// host thread, and the shutdown at the application's end. Each test runs in a
// process of its own, so the counters start at 0.
#include <atomic>
#include <thread>

#include <QPointer>
#include <gtest/gtest.h>

#include "LogCapture.h"
#include "TestUtil.h"
#include "channel/ImageFilters.h"
#include "engine/OpenglImageManagerPrivate.h"
#include "lumen_fx/OpenglImageManager.h"
#include "scene/TextureBuffer.h"

namespace {

OpenglImageManagerPrivate* registry()
{
    return imageManagerPrivate(OpenglImageManager::instance());
}

QImage solid(QColor c)
{
    QImage img(16, 16, QImage::Format_RGBA8888);
    img.fill(c);
    return img;
}

}  // namespace

TEST(OpenglImageManager, IdsCountAcrossScenesAndWrongPairsReachNothing)
{
    OpenglImageManager* m = OpenglImageManager::instance();
    EXPECT_EQ(m->genChannelFilters(0, true), -1) << "no scene yet";
    EXPECT_EQ(m->genSceneFilters(), 0);
    EXPECT_EQ(m->genSceneFilters(), 1);
    EXPECT_EQ(m->genChannelFilters(0, true), 0);
    EXPECT_EQ(m->genChannelFilters(6, true), -1);
    EXPECT_EQ(m->genChannelFilters(1, false), 1) << "channel ids run across scenes; a refusal takes none";
    ImageFilters* ch = registry()->findChannel(1, 1);
    ASSERT_NE(ch, nullptr);
    EXPECT_EQ(registry()->findChannel(0, 1), nullptr) << "the key is the pair";

    // Calls for a wrong pair or scene do nothing; a scene that has merged nothing leaves the picture alone.
    QImage image = solid(Qt::cyan);
    _strength_param rec{50.0, true};
    m->sendChannelFrame(0, 1, image, false, true, true);
    m->sendChannelFrame(1, 2, image, false, true, true);
    m->addChannelImageFilter(0, 1, SMOOTH, &rec);
    m->setChannelFilterParas(0, 1, SMOOTH, SMOOTHPARA, &rec);
    m->mergeImages(11, {}, 100, 100, Qt::black, QImage(), QImage());
    EXPECT_TRUE(ch->sourceImage().isNull());
    EXPECT_EQ(ch->refreshFrameCount(), 0);
    EXPECT_FALSE(m->getMergeImg(1, image));
    EXPECT_EQ(image, solid(Qt::cyan));
    m->sendChannelFrame(1, 1, image, false, true, true);
    EXPECT_EQ(ch->sourceImage().constBits(), image.constBits()) << "the right pair reaches the channel";
}

// A host thread makes scenes and channels: they are made on the application's
// thread while it takes events, also after a facade call of its own has held
// the engine's lock for a while; with no events taken the call gives up.
TEST(OpenglImageManager, CreationFromAnotherThread)
{
    OpenglImageManager* m = OpenglImageManager::instance();
    LogCapture log;
    std::atomic<int> scene{-2}, channel{-2};
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
    ASSERT_TRUE(scene >= 0 && channel >= 0) << scene << " " << channel;
    EXPECT_FALSE(log.contains("outside the gui thread")) << "Qt's surfaces were made on its thread";
    m->sendChannelFrame(scene, channel, solid(Qt::yellow), false, true, true);
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
    _channel_merge_param p;
    p.channelId = c;
    p.rect = QRect(0, 0, 16, 16);
    QImage merged;
    ASSERT_TRUE(testutil::waitFor(
        [&] {
            m->sendChannelFrame(s, c, solid(Qt::red), false, true, false);
            m->mergeImages(s, {p}, 16, 16, Qt::black, QImage(), QImage());
            return m->getMergeImg(s, merged) && merged.pixelColor(8, 8) == QColor(Qt::red);
        },
        10000));

    QPointer<ImageFilters> channel(registry()->findChannel(s, c));
    registry()->shutdown(false);
    EXPECT_TRUE(channel.isNull()) << "the channel deleted itself on its thread";
    EXPECT_TRUE(registry()->scenes.empty());
    EXPECT_TRUE(registry()->channels.empty());
    EXPECT_FALSE(m->getMergeImg(s, merged));
    m->sendChannelFrame(s, c, merged, false, true, false);
    EXPECT_EQ(m->genSceneFilters(), s + 1) << "not closed for good: ids go on";
}
