// The exchange between a scene's thread and its channels' threads while both
// run: buffers registered during merges, channels stopping during merges.
#include <atomic>
#include <thread>

#include <QPointer>
#include <gtest/gtest.h>

#include "TestUtil.h"
#include "channel/ImageFilters.h"
#include "merge/OpenglFileMerger.h"
#include "scene/SceneManager.h"
#include "scene/TextureBuffer.h"

namespace {

bool pixelIs(const QImage& image, int x, int y, const QColor& colour, int tolerance = 2)
{
    const QColor c = image.pixelColor(x, y);
    return std::abs(c.red() - colour.red()) <= tolerance && std::abs(c.green() - colour.green()) <= tolerance
           && std::abs(c.blue() - colour.blue()) <= tolerance;
}

}  // namespace

// The host thread registers channels (a new map for the merger each time)
// while the scene's thread walks the map in a merge.
TEST(SceneChannelRaces, BufferMapReplacedWhileMergesWalkIt)
{
    const int kScene = 3;
    const int kMerges = 300;
    const QColor background(10, 200, 30);
    OpenglFileMerger merger(kScene);
    QList<_channel_merge_param> params;
    for (int id = 0; id < 1000; ++id)
        params << _channel_merge_param{id, QRect(0, 0, 8, 8), 0, {}};

    std::atomic<int> merges{0};
    QImage merged(32, 32, QImage::Format_BGR888);
    std::thread sceneThread([&] {
        for (; merges < kMerges; ++merges)
            merger.mergeImages(params, 32, 32, background, QImage());
        merger.readLastFboByAlpha(merged.bits(), 32, 32, false, true);
        merger.releaseContext();
    });
    while (merges < kMerges) {
        OpenglFileMerger::BufferMap map;
        for (int id = 0; id < 300; ++id) {
            // Ready for the scene, in image mode without a picture: passed over.
            auto buffer = std::make_shared<TextureBuffer>();
            buffer->setShareReady(kScene, true);
            map[id] = buffer;
        }
        merger.setTextureBuffers(map);
    }
    sceneThread.join();
    EXPECT_TRUE(pixelIs(merged, 16, 16, background));
}

// Channels stop through their own stop path while their scene goes on
// merging them: the scene keeps its share of their buffers, the deletion of
// the shared textures waits for the merger's draw, and the slots go blank.
TEST(SceneChannelRaces, ChannelsStoppedWhileTheirSceneMerges)
{
    const int kScene = 11;
    const QColor background(0, 0, 255);
    QImage red(64, 64, QImage::Format_RGBA8888);
    red.fill(Qt::red);

    auto* scene = new SceneManager(kScene);
    QList<QPointer<ImageFilters>> channels;
    QList<_channel_merge_param> params;
    for (int id = 0; id < 3; ++id) {
        auto* channel = new ImageFilters(kScene, id, true);
        scene->addChannel(id, channel->sharedTextureBuffer());
        channels << channel;
        params << _channel_merge_param{id, QRect(id * 64, 0, 64, 64), 0, {}};
    }
    auto mergeRound = [&] {
        for (const QPointer<ImageFilters>& channel : channels)
            if (channel)
                channel->writeFrame(red, false, true, false);
        scene->mergeImages(params, 192, 64, background, QImage(), QImage());
        QImage merged;
        scene->getMergeImg(merged);
        return merged;
    };
    auto allSlots = [](const QImage& merged, const QColor& colour) {
        return !merged.isNull() && pixelIs(merged, 32, 32, colour) && pixelIs(merged, 96, 32, colour)
               && pixelIs(merged, 160, 32, colour);
    };
    ASSERT_TRUE(testutil::waitFor([&] { return allSlots(mergeRound(), Qt::red); }, 10000))
        << "the channels reach the scene through the shared texture";

    for (const QPointer<ImageFilters>& channel : channels)
        channel->stop();
    ASSERT_TRUE(testutil::waitFor([&] { mergeRound(); return !channels[0] && !channels[1] && !channels[2]; }, 10000))
        << "each channel ends its thread and deletes itself";
    EXPECT_TRUE(testutil::waitFor([&] { return allSlots(mergeRound(), background); }, 3000))
        << "the scene goes on, passing over the stopped channels";

    QPointer<SceneManager> stopping(scene);
    scene->stop();
    EXPECT_TRUE(testutil::waitFor([&] { return stopping.isNull(); }, 5000));
}
