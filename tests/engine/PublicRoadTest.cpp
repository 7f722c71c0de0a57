// Face effects through the public interface, on the bundled portrait: each
// effect lands where it should and a plain channel reproduces its input.
#include <functional>

#include <QPainter>
#include <QThread>
#include <gtest/gtest.h>

#include "TestUtil.h"
#include "lumen_fx/OpenglImageManager.h"

namespace {

int maxDifference(const QImage& a, const QImage& b, const QRect& area)
{
    int worst = 0;
    for (int y = area.top(); y <= area.bottom(); ++y) {
        for (int x = area.left(); x <= area.right(); ++x) {
            const QColor p = a.pixelColor(x, y);
            const QColor q = b.pixelColor(x, y);
            worst = std::max({worst, std::abs(p.red() - q.red()), std::abs(p.green() - q.green()),
                              std::abs(p.blue() - q.blue())});
        }
    }
    return worst;
}

// How much lighter `a` is than `b` over an area, on average, in levels.
double brightening(const QImage& a, const QImage& b, const QRect& area)
{
    double sum = 0;
    for (int y = area.top(); y <= area.bottom(); ++y)
        for (int x = area.left(); x <= area.right(); ++x)
            sum += qGray(a.pixel(x, y)) - qGray(b.pixel(x, y));
    return sum / (area.width() * area.height());
}

struct Road {
    OpenglImageManager* m = OpenglImageManager::instance();
    int scene = m->genSceneFilters();
    int channel = m->genChannelFilters(scene, true);
    QImage portrait = QImage(testutil::testDataPath("astronaut.png")).convertToFormat(QImage::Format_RGBA8888);

    // Sends changed frames and merges 1:1 until `settled` holds, or gives up.
    QImage run(bool skipFaceFilters, const std::function<bool(const QImage&)>& settled)
    {
        _channel_merge_param p;
        p.channelId = channel;
        p.rect = QRect(0, 0, portrait.width(), portrait.height());
        QImage merged;
        testutil::waitFor(
            [&] {
                m->sendChannelFrame(scene, channel, portrait, skipFaceFilters, true, false);
                m->mergeImages(scene, {p}, portrait.width(), portrait.height(), Qt::black, QImage(), QImage());
                QThread::msleep(60);
                return m->getMergeImg(scene, merged) && merged.size() == portrait.size() && settled(merged);
            },
            20000);
        return merged;
    }
};

// The face of the portrait, and a corner of plain background far from it.
const QRect kFace(180, 90, 110, 130);
const QRect kFarCorner(440, 0, 60, 40);
const QRect kMouth(205, 140, 40, 15);

}  // namespace

TEST(FaceEffectsRoad, ChannelWithoutFiltersReproducesItsInput)
{
    Road road;
    const QImage merged =
        road.run(false, [&](const QImage& img) { return maxDifference(img, road.portrait, kFace) <= 1; });
    ASSERT_FALSE(merged.isNull());
    EXPECT_LE(maxDifference(merged, road.portrait, merged.rect()), 1);
}

TEST(FaceEffectsRoad, SmoothingActsAroundTheFaceOnly)
{
    Road road;
    _strength_param smooth{100.0, true};
    road.m->addChannelImageFilter(road.scene, road.channel, SMOOTH, &smooth);
    QThread::msleep(150);
    const QImage merged =
        road.run(false, [&](const QImage& img) {
            return maxDifference(img, road.portrait, kFace) > 6 && maxDifference(img, road.portrait, kFarCorner) <= 1;
        });
    merged.save(testutil::outputPath("road_smooth.png"));
    EXPECT_GT(maxDifference(merged, road.portrait, kFace), 6);
    EXPECT_LE(maxDifference(merged, road.portrait, kFarCorner), 1);
}

TEST(FaceEffectsRoad, RedLipsActInsideTheMouthOnly)
{
    Road road;
    _strength_param lips{400.0, true};
    road.m->addChannelImageFilter(road.scene, road.channel, REDLIPS, &lips);
    QThread::msleep(150);
    const QImage merged =
        road.run(false, [&](const QImage& img) {
            return maxDifference(img, road.portrait, kMouth) > 20 && maxDifference(img, road.portrait, kFarCorner) <= 1;
        });
    merged.save(testutil::outputPath("road_redlips.png"));
    EXPECT_GT(maxDifference(merged, road.portrait, kMouth), 20);
    // Eyes and forehead are untouched.
    EXPECT_LE(maxDifference(merged, road.portrait, QRect(175, 60, 110, 70)), 1);
    EXPECT_LE(maxDifference(merged, road.portrait, kFarCorner), 1);
}

TEST(FaceEffectsRoad, WhiteningActsOverTheWholePicture)
{
    Road road;
    _strength_param whitening{80.0, true};
    road.m->addChannelImageFilter(road.scene, road.channel, WHITENING, &whitening);
    QThread::msleep(150);
    const QImage merged =
        road.run(false, [&](const QImage& img) {
            return brightening(img, road.portrait, kFarCorner) > 4 && brightening(img, road.portrait, kFace) > 4;
        });
    merged.save(testutil::outputPath("road_whitening.png"));
    EXPECT_GT(brightening(merged, road.portrait, kFarCorner), 4);
    EXPECT_GT(brightening(merged, road.portrait, kFace), 4);
    EXPECT_GT(brightening(merged, road.portrait, QRect(0, 300, 100, 100)), 4);
}

TEST(FaceEffectsRoad, SkippedFaceFiltersLeaveThePictureAlone)
{
    Road road;
    _strength_param smooth{100.0, true};
    road.m->addChannelImageFilter(road.scene, road.channel, SMOOTH, &smooth);
    QThread::msleep(150);
    int frames = 0;
    const QImage merged = road.run(true, [&](const QImage&) { return ++frames > 25; });
    ASSERT_FALSE(merged.isNull());
    EXPECT_LE(maxDifference(merged, road.portrait, merged.rect()), 1);
}

TEST(FaceEffectsRoad, HostileInputNeverCrashesAndKeepsAPicture)
{
    Road road;
    // Strengths far outside the usual range pass through unclamped.
    _strength_param hugeSmooth{1e6, true};
    _strength_param negativeLips{-500.0, true};
    _strength_param hugeWhitening{5000.0, true};
    _slim_face_param negativeSlim{-2000.0};
    road.m->addChannelImageFilter(road.scene, road.channel, SMOOTH, &hugeSmooth);
    road.m->addChannelImageFilter(road.scene, road.channel, REDLIPS, &negativeLips);
    road.m->addChannelImageFilter(road.scene, road.channel, WHITENING, &hugeWhitening);
    road.m->addChannelImageFilter(road.scene, road.channel, SLIMFACE, &negativeSlim);
    // Filters for channels that don't exist do nothing.
    road.m->addChannelImageFilter(road.scene, road.channel + 100, SMOOTH, &hugeSmooth);
    road.m->addChannelImageFilter(road.scene + 100, road.channel, SMOOTH, &hugeSmooth);
    QThread::msleep(150);

    // Pictures whose size changes every frame: the face cut by the left edge,
    // a blank picture with no face, the portrait scaled, and the whole portrait.
    QImage cut(300, 400, QImage::Format_RGBA8888);
    cut.fill(Qt::gray);
    {
        QPainter painter(&cut);
        painter.drawImage(-200, -40, road.portrait);
    }
    QImage blank(333, 222, QImage::Format_RGBA8888);
    blank.fill(QColor(20, 200, 20));
    const QList<QImage> frames = {cut, blank, road.portrait.scaled(640, 640), road.portrait};

    _channel_merge_param p;
    p.channelId = road.channel;
    p.rect = QRect(0, 0, 320, 240);
    int round = 0;
    int pictures = 0;
    QImage merged;
    testutil::waitFor(
        [&] {
            road.m->sendChannelFrame(road.scene, road.channel, frames[round % frames.size()], false, true, false);
            road.m->mergeImages(road.scene, {p}, 320, 240, Qt::black, QImage(), QImage());
            QThread::msleep(40);
            if (road.m->getMergeImg(road.scene, merged))
                ++pictures;
            return ++round >= 60;
        },
        30000);
    EXPECT_EQ(round, 60);
    EXPECT_GT(pictures, 0);
    ASSERT_TRUE(road.m->getMergeImg(road.scene, merged));
    EXPECT_EQ(merged.size(), QSize(320, 240));
}

TEST(FaceEffectsRoad, FilterAddedWhileFramesRunTakesEffect)
{
    Road road;
    // Plain frames first: the channel runs without filters.
    road.run(false, [&](const QImage& img) { return maxDifference(img, road.portrait, kFace) <= 1; });
    _strength_param lips{400.0, true};
    road.m->addChannelImageFilter(road.scene, road.channel, REDLIPS, &lips);
    const QImage merged = road.run(false, [&](const QImage& img) {
        return maxDifference(img, road.portrait, kMouth) > 20 && maxDifference(img, road.portrait, kFarCorner) <= 1;
    });
    EXPECT_GT(maxDifference(merged, road.portrait, kMouth), 20);
}

TEST(FaceEffectsRoad, SlimmingActsAroundTheJawOnly)
{
    Road road;
    _slim_face_param slim{100.0};
    road.m->addChannelImageFilter(road.scene, road.channel, SLIMFACE, &slim);
    QThread::msleep(150);
    const QImage merged = road.run(false, [&](const QImage& img) {
        return maxDifference(img, road.portrait, kFace) > 6 && maxDifference(img, road.portrait, kFarCorner) <= 1;
    });
    merged.save(testutil::outputPath("road_slimface.png"));
    EXPECT_GT(maxDifference(merged, road.portrait, kFace), 6);
    EXPECT_LE(maxDifference(merged, road.portrait, kFarCorner), 1);
    EXPECT_LE(maxDifference(merged, road.portrait, QRect(0, 330, 120, 120)), 1);
}
