// A channel's frames reach the merged picture through the whole engine: the
// channel thread draws and copies into the shared texture, the scene thread
// merges and reads back.
#include <gtest/gtest.h>

#include <QElapsedTimer>
#include <QThread>

#include <lumen_fx/OpenglImageManager.h>

#include "TestUtil.h"

TEST(ScenePipeline, ChannelFramesReachTheMergeThroughTheSharedTexture)
{
    QImage portrait(testutil::testDataPath("astronaut.png"));
    ASSERT_FALSE(portrait.isNull());
    portrait = portrait.convertToFormat(QImage::Format_RGBA8888);

    OpenglImageManager* manager = OpenglImageManager::instance();
    const int scene = manager->genSceneFilters();
    const int channel = manager->genChannelFilters(scene, true);
    _channel_merge_param param;
    param.channelId = channel;
    param.rect = QRect(0, 0, 640, 360);
    const QColor background(20, 40, 80);

    // 512 x 512 fitted into 640 x 360: 360 x 360 at x = 140.
    const QImage expected = portrait.scaled(360, 360, Qt::IgnoreAspectRatio, Qt::SmoothTransformation);
    auto matches = [&](const QImage& merged) {
        if (merged.size() != QSize(640, 360))
            return false;
        for (const QPoint& p : {QPoint(180, 60), QPoint(300, 200), QPoint(400, 330)}) {
            const QColor got = merged.pixelColor(p);
            const QColor want = expected.pixelColor(p.x() - 140, p.y());
            if (std::abs(got.red() - want.red()) > 24 || std::abs(got.green() - want.green()) > 24
                || std::abs(got.blue() - want.blue()) > 24)
                return false;
        }
        return merged.pixelColor(20, 180) == background;
    };

    QImage merged;
    const bool arrived = testutil::waitFor(
        [&]() {
            manager->sendChannelFrame(scene, channel, portrait, false, true, false);
            manager->mergeImages(scene, {param}, 640, 360, background, QImage(), QImage());
            QThread::msleep(30);
            return manager->getMergeImg(scene, merged) && matches(merged);
        },
        15000);
    merged.save(testutil::outputPath("scene_pipeline.png"));
    EXPECT_TRUE(arrived) << "the portrait never showed in the merged picture";
}
