// The whole road through the public interface: a host's frames go through a
// channel and its scene into the merged picture. Face effects on the bundled
// portrait land where they should and nowhere else, a plain channel
// reproduces its input, and direct frames are fitted into their rectangles.
#include <functional>
#include <string>
#include <vector>

#include <QPainter>
#include <QThread>
#include <gtest/gtest.h>

#include "TestUtil.h"
#include "gpu/GlTestSupport.h"
#include "lumen_fx/OpenglImageManager.h"

namespace {

int maxDifference(const QImage& a, const QImage& b, const QRect& area)
{
    int worst = 0;
    for (int y = area.top(); y <= area.bottom(); ++y)
        for (int x = area.left(); x <= area.right(); ++x) {
            const QColor p = a.pixelColor(x, y), q = b.pixelColor(x, y);
            worst = std::max({worst, std::abs(p.red() - q.red()), std::abs(p.green() - q.green()),
                              std::abs(p.blue() - q.blue())});
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

_channel_merge_param entry(int channel, QRect rect)
{
    _channel_merge_param p;
    p.channelId = channel;
    p.rect = rect;
    return p;
}

struct Road {
    OpenglImageManager* m = OpenglImageManager::instance();
    int scene = m->genSceneFilters();
    int channel = m->genChannelFilters(scene, true);
    QImage portrait = QImage(testutil::testDataPath("astronaut.png")).convertToFormat(QImage::Format_RGBA8888);
    QList<QImage> frames = {portrait};  // sent in turn

    // Sends changed frames and merges at the portrait's size until `settled` holds, or gives up.
    bool run(bool skipFaceFilters, const std::function<bool(const QImage&)>& settled, QImage& merged)
    {
        const _channel_merge_param p = entry(channel, portrait.rect());
        int sent = 0;
        return testutil::waitFor(
            [&] {
                m->sendChannelFrame(scene, channel, frames[sent++ % frames.size()], skipFaceFilters, true, false);
                m->mergeImages(scene, {p}, portrait.width(), portrait.height(), Qt::black, QImage(), QImage());
                QThread::msleep(60);
                return m->getMergeImg(scene, merged) && merged.size() == portrait.size() && settled(merged);
            },
            20000);
    }
};

// The face of the portrait, its mouth, eyes and forehead, and plain background far from it.
const QRect kFace(180, 90, 110, 130), kMouth(205, 140, 40, 15), kEyes(175, 60, 110, 70);
const QRect kFarCorner(440, 0, 60, 40), kLowerLeft(0, 330, 120, 120), kWhole(0, 0, 512, 512);

struct Effect {
    const char* name;
    ImageFilterType type;  // NOFILTER: none
    double strength;
    // Added once plain frames show rather than before the first frame; frames that skip face filters (25 at least).
    bool whileRunning, skipFaceFilters;
    std::vector<QRect> changed;  // by more than `above` levels, or with `lighter`, lighter on average by `above`
    int above;
    bool lighter;
    std::vector<QRect> untouched;  // within one level
};

const Effect kPlain = {"NoFilter", NOFILTER, 0, false, false, {}, 0, false, {kWhole}};
const Effect kEffects[] = {
    kPlain,
    {"Smoothing", SMOOTH, 100, false, false, {kFace}, 6, false, {kFarCorner}},
    {"RedLips", REDLIPS, 400, true, false, {kMouth}, 20, false, {kEyes, kFarCorner}},
    {"Whitening", WHITENING, 80, false, false, {kFarCorner, kFace, QRect(0, 300, 100, 100)}, 4, true, {}},
    {"Slimming", SLIMFACE, 100, true, false, {kFace}, 6, false, {kFarCorner, kLowerLeft}},
    {"SkippedFaceFilters", SMOOTH, 100, false, true, {}, 0, false, {kWhole}},
};

// The first area where `img` is not as the row says against `portrait`; empty if none.
std::string wrongArea(const Effect& e, const QImage& portrait, const QImage& img)
{
    for (const QRect& r : e.changed) {
        const double d = e.lighter ? brightening(img, portrait, r) : maxDifference(img, portrait, r);
        if (d <= e.above)
            return "unchanged at " + std::to_string(r.x()) + "," + std::to_string(r.y()) + ": " + std::to_string(d);
    }
    for (const QRect& r : e.untouched)
        if (maxDifference(img, portrait, r) > 1)
            return "changed at " + std::to_string(r.x()) + "," + std::to_string(r.y());
    return "";
}

void PrintTo(const Effect& e, std::ostream* os) { *os << e.name; }

class FaceEffect : public ::testing::TestWithParam<Effect> {};

}  // namespace

TEST_P(FaceEffect, ShowsWhereItShouldAndNowhereElse)
{
    const Effect& e = GetParam();
    Road road;
    QImage merged;
    if (e.whileRunning) {
        ASSERT_TRUE(road.run(false, [&](const QImage& img) { return wrongArea(kPlain, road.portrait, img).empty(); },
                             merged)) << "plain frames first";
    }
    _strength_param strength{e.strength, true};
    _slim_face_param slim{e.strength};
    if (e.type != NOFILTER)
        road.m->addChannelImageFilter(road.scene, road.channel, e.type,
                                      e.type == SLIMFACE ? static_cast<void*>(&slim) : &strength);
    int frames = 0;
    road.run(e.skipFaceFilters, [&](const QImage& img) {
        return ++frames >= (e.skipFaceFilters ? 25 : 1) && wrongArea(e, road.portrait, img).empty();
    }, merged);
    ASSERT_FALSE(merged.isNull());
    EXPECT_EQ(wrongArea(e, road.portrait, merged), "");
}

INSTANTIATE_TEST_SUITE_P(Road, FaceEffect, ::testing::ValuesIn(kEffects),
                         [](const ::testing::TestParamInfo<Effect>& info) { return std::string(info.param.name); });

TEST(FaceEffectsRoad, HostileInputNeverCrashesAndKeepsAPicture)
{
    Road road;
    // Strengths far outside the usual range pass through unclamped.
    _strength_param hugeSmooth{1e6, true}, negativeLips{-500.0, true}, hugeWhitening{5000.0, true};
    _slim_face_param negativeSlim{-2000.0};
    road.m->addChannelImageFilter(road.scene, road.channel, SMOOTH, &hugeSmooth);
    road.m->addChannelImageFilter(road.scene, road.channel, REDLIPS, &negativeLips);
    road.m->addChannelImageFilter(road.scene, road.channel, WHITENING, &hugeWhitening);
    road.m->addChannelImageFilter(road.scene, road.channel, SLIMFACE, &negativeSlim);
    // Pictures whose size changes every frame: the face cut by the left edge,
    // a blank picture with no face, the portrait scaled, and the whole portrait.
    QImage cut(300, 400, QImage::Format_RGBA8888), blank(333, 222, QImage::Format_RGBA8888);
    cut.fill(Qt::gray);
    QPainter(&cut).drawImage(-200, -40, road.portrait);
    blank.fill(QColor(20, 200, 20));
    road.frames = {cut, blank, road.portrait.scaled(640, 640), road.portrait};
    int pictures = 0;
    QImage merged;
    EXPECT_TRUE(road.run(false, [&](const QImage&) { return ++pictures >= 60; }, merged)) << pictures << " pictures";
}

TEST(MergeRoad, DirectFramesAreFittedCentredAndDrawnInListOrderUntilTheyLeaveIt)
{
    Road road;
    const int a = road.channel, b = road.m->genChannelFilters(road.scene, true);
    const QColor bg(0, 128, 0);
    QImage red(100, 50, QImage::Format_RGBA8888), blue(60, 60, QImage::Format_RGB32);
    QImage want(200, 100, QImage::Format_RGB32);
    red.fill(Qt::red);
    blue.fill(Qt::blue);
    // An unknown channel is passed over; b overlaps the right of a's rectangle and is drawn after it.
    QList<_channel_merge_param> list = {entry(999, {0, 0, 200, 100}), entry(a, {0, 0, 100, 100}),
                                        entry(b, {80, 20, 60, 60})};
    want.fill(bg);
    QPainter(&want).fillRect(0, 25, 100, 50, Qt::red);  // fitted and centred, y from the top
    QPainter(&want).fillRect(80, 20, 60, 60, Qt::blue);
    QImage merged;
    auto mergedAs = [&](const QImage& expected) {
        testutil::waitFor([&] {
            road.m->sendChannelFrame(road.scene, a, red, false, true, true);
            road.m->sendChannelFrame(road.scene, b, blue, false, true, true);
            road.m->mergeImages(road.scene, list, 200, 100, bg, QImage(), QImage());
            QThread::msleep(30);
            return road.m->getMergeImg(road.scene, merged) && merged.size() == expected.size()
                   && maxDifference(merged, expected, expected.rect()) <= 3;
        }, 15000);
        return gltest::sameImage(merged, expected, 3, "merged");
    };
    EXPECT_TRUE(mergedAs(want));
    EXPECT_EQ(merged.format(), QImage::Format_BGR888);
    list.clear();  // the channels leave the list: the scene goes back to the empty grey
    want.fill(QColor(53, 53, 53));
    EXPECT_TRUE(mergedAs(want));
}
