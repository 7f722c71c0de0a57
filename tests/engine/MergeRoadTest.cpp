// The whole road for direct frames, through the public interface: channels'
// pictures are fitted into their rectangles over the background colour.
#include <functional>

#include <QThread>
#include <gtest/gtest.h>

#include "TestUtil.h"
#include "lumen_fx/OpenglImageManager.h"

namespace {

QImage solid(int w, int h, QColor c, QImage::Format f = QImage::Format_RGBA8888)
{
    QImage img(w, h, QImage::Format_RGBA8888);
    img.fill(c);
    return f == QImage::Format_RGBA8888 ? img : img.convertToFormat(f);
}

_channel_merge_param entry(int channel, QRect rect)
{
    _channel_merge_param p;
    p.channelId = channel;
    p.rect = rect;
    return p;
}

bool near(QColor a, QColor b, int tolerance = 2)
{
    return std::abs(a.red() - b.red()) <= tolerance && std::abs(a.green() - b.green()) <= tolerance
           && std::abs(a.blue() - b.blue()) <= tolerance;
}

// Keeps frames and merge requests coming until the merged picture passes `check`.
bool mergeUntil(int scene, const std::function<void()>& feed, const QList<_channel_merge_param>& params, int w,
                int h, QColor bg, const std::function<bool(const QImage&)>& check, QImage* last = nullptr)
{
    OpenglImageManager* m = OpenglImageManager::instance();
    QImage merged;
    const bool ok = testutil::waitFor(
        [&] {
            feed();
            m->mergeImages(scene, params, w, h, bg, QImage(), QImage());
            QThread::msleep(30);
            return m->getMergeImg(scene, merged) && check(merged);
        },
        15000);
    if (last)
        *last = merged;
    return ok;
}

}  // namespace

TEST(MergeRoad, DirectFramesAreFittedCentredAndDrawnInListOrder)
{
    OpenglImageManager* m = OpenglImageManager::instance();
    const int scene = m->genSceneFilters();
    const int a = m->genChannelFilters(scene, true);
    const int b = m->genChannelFilters(scene, true);
    const QImage red = solid(100, 50, Qt::red);
    const QImage blue = solid(60, 60, Qt::blue);
    const QColor bg(0, 128, 0);
    auto feed = [&] {
        m->sendChannelFrame(scene, a, red, false, true, true);
        m->sendChannelFrame(scene, b, blue, false, true, true);
    };
    // b overlaps the right part of a's rectangle and is drawn after it.
    const QList<_channel_merge_param> params = {entry(a, QRect(0, 0, 100, 100)), entry(b, QRect(80, 20, 60, 60))};
    QImage merged;
    const bool ok = mergeUntil(
        scene, feed, params, 200, 100, bg,
        [&](const QImage& img) {
            return near(img.pixelColor(10, 50), Qt::red) && near(img.pixelColor(120, 50), Qt::blue);
        },
        &merged);
    merged.save(testutil::outputPath("merge_road_direct.png"));
    ASSERT_TRUE(ok);
    EXPECT_EQ(merged.format(), QImage::Format_BGR888);
    EXPECT_EQ(merged.size(), QSize(200, 100));
    // 100 x 50 in 100 x 100: 25 rows above and below, y from the top.
    EXPECT_TRUE(near(merged.pixelColor(10, 24), bg));
    EXPECT_TRUE(near(merged.pixelColor(10, 26), Qt::red));
    EXPECT_TRUE(near(merged.pixelColor(10, 73), Qt::red));
    EXPECT_TRUE(near(merged.pixelColor(10, 76), bg));
    // The later entry covers the earlier one.
    EXPECT_TRUE(near(merged.pixelColor(90, 50), Qt::blue));
    EXPECT_TRUE(near(merged.pixelColor(150, 50), bg));
    EXPECT_TRUE(near(merged.pixelColor(190, 5), bg));
}

TEST(MergeRoad, UnknownChannelInTheListIsSkipped)
{
    OpenglImageManager* m = OpenglImageManager::instance();
    const int scene = m->genSceneFilters();
    const int a = m->genChannelFilters(scene, true);
    const QImage red = solid(40, 40, Qt::red);
    const QList<_channel_merge_param> params = {entry(999, QRect(0, 0, 40, 40)), entry(a, QRect(40, 0, 40, 40))};
    QImage merged;
    ASSERT_TRUE(mergeUntil(
        scene, [&] { m->sendChannelFrame(scene, a, red, false, true, true); }, params, 80, 40, Qt::black,
        [](const QImage& img) { return near(img.pixelColor(60, 20), Qt::red); }, &merged));
    EXPECT_TRUE(near(merged.pixelColor(20, 20), Qt::black));
}

TEST(MergeRoad, OddPictureFormatsAreDrawnOrPassedOverWithoutHarm)
{
    OpenglImageManager* m = OpenglImageManager::instance();
    const int scene = m->genSceneFilters();
    const int c = m->genChannelFilters(scene, true);
    const QList<_channel_merge_param> params = {entry(c, QRect(0, 0, 64, 64))};
    const QColor bg(0, 0, 80);

    const QImage argb = solid(64, 64, QColor(255, 0, 0), QImage::Format_ARGB32);
    ASSERT_TRUE(mergeUntil(
        scene, [&] { m->sendChannelFrame(scene, c, argb, false, true, true); }, params, 64, 64, bg,
        [](const QImage& img) { return near(img.pixelColor(32, 32), Qt::red); }));

    const QImage grey = solid(64, 64, QColor(200, 200, 200), QImage::Format_Grayscale8);
    ASSERT_TRUE(mergeUntil(
        scene, [&] { m->sendChannelFrame(scene, c, grey, false, true, true); }, params, 64, 64, bg,
        [](const QImage& img) { return near(img.pixelColor(32, 32), QColor(200, 200, 200), 3); }));

    const QImage indexed = solid(64, 64, QColor(0, 255, 0), QImage::Format_Indexed8);
    ASSERT_TRUE(mergeUntil(
        scene, [&] { m->sendChannelFrame(scene, c, indexed, false, true, true); }, params, 64, 64, bg,
        [](const QImage& img) { return near(img.pixelColor(32, 32), Qt::green); }));

    QImage mono(64, 64, QImage::Format_Mono);
    mono.fill(1);  // index 1 of the default table: black
    ASSERT_TRUE(mergeUntil(
        scene, [&] { m->sendChannelFrame(scene, c, mono, false, true, true); }, params, 64, 64, bg,
        [](const QImage& img) { return near(img.pixelColor(32, 32), Qt::black) || near(img.pixelColor(32, 32), Qt::white); }));

    // A null picture changes nothing: the previous merged picture stays.
    QImage before;
    ASSERT_TRUE(m->getMergeImg(scene, before));
    for (int i = 0; i < 10; ++i) {
        m->sendChannelFrame(scene, c, QImage(), false, true, true);
        m->mergeImages(scene, params, 64, 64, bg, QImage(), QImage());
        QThread::msleep(30);
    }
    QImage after;
    ASSERT_TRUE(m->getMergeImg(scene, after));
    EXPECT_EQ(after.size(), QSize(64, 64));
    EXPECT_EQ(after.pixelColor(32, 32), before.pixelColor(32, 32));
}

TEST(MergeRoad, BadRequestsKeepThePreviousPictureAndTheLastChannelLeavingGivesGrey)
{
    OpenglImageManager* m = OpenglImageManager::instance();
    const int scene = m->genSceneFilters();
    const int c = m->genChannelFilters(scene, true);
    const QImage red = solid(32, 32, Qt::red);
    const QList<_channel_merge_param> params = {entry(c, QRect(0, 0, 32, 32))};
    auto feed = [&] { m->sendChannelFrame(scene, c, red, false, true, true); };
    ASSERT_TRUE(mergeUntil(scene, feed, params, 32, 32, Qt::black,
                           [](const QImage& img) { return near(img.pixelColor(16, 16), Qt::red); }));

    for (const QSize bad : {QSize(0, 720), QSize(1921, 1080), QSize(1080, 1921), QSize(-4, 10)}) {
        m->mergeImages(scene, params, bad.width(), bad.height(), Qt::black, QImage(), QImage());
        QThread::msleep(100);
        QImage out;
        ASSERT_TRUE(m->getMergeImg(scene, out));
        EXPECT_EQ(out.size(), QSize(32, 32)) << bad.width() << "x" << bad.height();
        EXPECT_TRUE(near(out.pixelColor(16, 16), Qt::red));
    }

    // The channel leaves the list: the scene goes back to the empty grey.
    QImage merged;
    const bool ok = mergeUntil(
        scene, [] {}, {}, 32, 32, Qt::black,
        [](const QImage& img) { return img.pixelColor(16, 16) == QColor(53, 53, 53); }, &merged);
    EXPECT_TRUE(ok);
}
