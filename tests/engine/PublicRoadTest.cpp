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
#include "channel/PictureCases.h"
#include "gpu/GlTestSupport.h"
#include "lumen_fx/OpenglImageManager.h"

namespace {

// How much lighter `a` is than `b` over an area, on average, in levels.
double brightening(const QImage& a, const QImage& b, const QRect& area)
{
    double sum = 0;
    for (int y = area.top(); y <= area.bottom(); ++y)
        for (int x = area.left(); x <= area.right(); ++x)
            sum += qGray(a.pixel(x, y)) - qGray(b.pixel(x, y));
    return sum / (area.width() * area.height());
}

_channel_merge_param entry(int channel, QRect rect) { return {channel, rect, 0.0, QImage()}; }

struct Road {
    OpenglImageManager* m = OpenglImageManager::instance();
    int scene = m->genSceneFilters();
    int channel = m->genChannelFilters(scene, true);
    QImage portrait = testutil::portrait();
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
    bool roundCamera = false;      // the picture pass after the face passes
};

const Effect kPlain = {"NoFilter", NOFILTER, 0, false, false, {}, 0, false, {kWhole}};
const Effect kEffects[] = {
    kPlain,
    {"Smoothing", SMOOTH, 100, false, false, {kFace}, 6, false, {kFarCorner}},
    {"RedLips", REDLIPS, 400, true, false, {kMouth}, 20, false, {kEyes, kFarCorner}},
    {"Whitening", WHITENING, 80, false, false, {kFarCorner, kFace, QRect(0, 300, 100, 100)}, 4, true, {}},
    {"Slimming", SLIMFACE, 100, true, false, {kFace}, 6, false, {kFarCorner, kLowerLeft}},
    {"SkippedFaceFilters", SMOOTH, 100, false, true, {}, 0, false, {kWhole}},
    {"RedLipsOnTheRoundCamera", REDLIPS, 400, false, false, {kMouth, QRect(0, 0, 30, 30)}, 20, false, {kEyes}, true},
};

// The first area where `img` is not as the row says against `portrait`; empty if none.
std::string wrongArea(const Effect& e, const QImage& portrait, const QImage& img)
{
    // How many pixels of an area differ from the portrait by more than `above` levels.
    auto differing = [&](const QRect& r, int above) {
        return gltest::differences(img.copy(r), portrait.copy(r), above);
    };
    for (const QRect& r : e.changed)
        if (e.lighter ? brightening(img, portrait, r) <= e.above : differing(r, e.above) == 0)
            return "unchanged at " + std::to_string(r.x()) + "," + std::to_string(r.y());
    for (const QRect& r : e.untouched)
        if (int n = differing(r, 1))
            return std::to_string(n) + " pixels changed at " + std::to_string(r.x()) + "," + std::to_string(r.y());
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
    _basic_image_param round = picture::settings([](auto& p) { p.isRoundCamera = 1; });
    if (e.roundCamera)
        road.m->addChannelImageFilter(road.scene, road.channel, BASICIMAGE, &round);
    int frames = 0;
    road.run(e.skipFaceFilters, [&](const QImage& img) {
        return ++frames >= (e.skipFaceFilters ? 25 : 1) && wrongArea(e, road.portrait, img).empty();
    }, merged);
    ASSERT_FALSE(merged.isNull());
    EXPECT_EQ(wrongArea(e, road.portrait, merged), "");
}

INSTANTIATE_TEST_SUITE_P(Road, FaceEffect, ::testing::ValuesIn(kEffects),
                         [](const ::testing::TestParamInfo<Effect>& info) { return std::string(info.param.name); });

// A direct frame skips the channel's passes and is fitted into its
// rectangle, centred; an unknown channel in the list is passed over; a
// picture handed out is not written over by later merges; when the channel
// leaves the list the scene goes back to the empty grey.
TEST(MergeRoad, DirectFramesAreFittedCentredUntilTheyLeaveTheList)
{
    Road road;
    const QColor bg(0, 128, 0);
    QImage red(100, 50, QImage::Format_RGBA8888), want(200, 100, QImage::Format_RGB32);
    red.fill(Qt::red);
    QList<_channel_merge_param> list = {entry(999, {0, 0, 200, 100}), entry(road.channel, {0, 0, 100, 100})};
    want.fill(bg);
    QPainter(&want).fillRect(0, 25, 100, 50, Qt::red);  // y from the top
    QImage merged;
    auto mergedAs = [&](const QImage& expected) {
        testutil::waitFor([&] {
            road.m->sendChannelFrame(road.scene, road.channel, red, false, true, true);
            road.m->mergeImages(road.scene, list, 200, 100, bg, QImage(), QImage());
            QThread::msleep(30);
            return road.m->getMergeImg(road.scene, merged) && merged.size() == expected.size()
                   && gltest::differences(merged, expected, 3) == 0;
        }, 15000);
        return gltest::sameImage(merged, expected, 3, "merged");
    };
    EXPECT_TRUE(mergedAs(want));
    EXPECT_EQ(merged.format(), QImage::Format_BGR888);
    // A picture the host holds stays as it was while later merges come in.
    const QImage held = merged, heldBefore = merged.copy();
    red.fill(Qt::blue);
    QPainter(&want).fillRect(0, 25, 100, 50, Qt::blue);
    EXPECT_TRUE(mergedAs(want));
    EXPECT_TRUE(gltest::sameImage(held, heldBefore, 0, "held"));
    list.clear();
    want.fill(QColor(53, 53, 53));
    EXPECT_TRUE(mergedAs(want));
}

namespace {

class PictureRoad : public ::testing::TestWithParam<bool> {};  // all in one scene, or a scene each

}  // namespace

// Every picture case through the public interface, each beside a plain
// control channel that must show the picture as it is, in rectangles the size
// of each output; and a tilt in x and y, which leaves background in a corner.
TEST_P(PictureRoad, EachSettingShowsAsItsCaseSays)
{
    const bool oneScene = GetParam();
    OpenglImageManager* m = OpenglImageManager::instance();
    const QImage input = picture::gradientPicture(false);
    const QColor bg(30, 60, 90);
    // A scene with a control channel and one with a picture case (none: the tilt), and their merge list.
    struct Lane { int scene, control, channel; const picture::Case* c; QList<_channel_merge_param> list; };
    std::vector<Lane> lanes;
    QList<_channel_merge_param> all;  // one scene: a grid, 4 lanes of 140 x 68 a row
    std::vector<const picture::Case*> cases = {nullptr};
    for (const picture::Case& c : picture::cases())
        cases.push_back(&c);
    for (const picture::Case* c : cases) {
        const int scene = oneScene && !lanes.empty() ? lanes[0].scene : m->genSceneFilters();
        const int control = oneScene && !lanes.empty() ? lanes[0].control : m->genChannelFilters(scene, true);
        const int channel = m->genChannelFilters(scene, true);
        _basic_image_param record = picture::settings(c ? c->set : [](auto& p) { p.rotationX = 20, p.rotationY = 30; });
        m->addChannelImageFilter(scene, channel, BASICIMAGE, &record);
        const int i = int(lanes.size());
        const QPoint at = oneScene ? QPoint(140 * (i % 4), 68 * (i / 4)) : QPoint();
        lanes.push_back({scene, control, channel, c,
                         {entry(control, QRect(at, QSize(64, 48))),
                          entry(channel, QRect(at + QPoint(70, 0), c ? c->size : QSize(64, 48)))}});
        all << lanes.back().list;
    }
    // Whether a lane shows right; with `report` a wrong one writes its pictures.
    auto right = [&](const Lane& lane, bool report) {
        QImage img;
        if (!m->getMergeImg(lane.scene, img))
            return false;
        img = img.convertToFormat(QImage::Format_RGBA8888);
        const QRect rect = lane.list[1].rect;
        auto same = [&](const QImage& a, const QImage& b, const gltest::Where& where) {
            return report ? bool(gltest::sameImage(a, b, 3, lane.c ? lane.c->name : "tilt", where))
                          : gltest::differences(a, b, 3, where) == 0;
        };
        if (!same(img.copy(lane.list[0].rect), input, {}))
            return false;
        if (lane.c)
            return same(img.copy(rect), picture::expected(*lane.c, bg, false), picture::pinned(*lane.c));
        int clearCorners = 0;
        for (QPoint p : {rect.topLeft(), rect.topRight(), rect.bottomLeft(), rect.bottomRight()})
            clearCorners += img.pixel(p) == bg.rgb();
        return clearCorners > 0 && gltest::differences(img.copy(rect), input, 3) > 0;
    };
    testutil::waitFor([&] {
        for (const Lane& lane : lanes) {
            m->sendChannelFrame(lane.scene, lane.control, input, false, true, false);
            m->sendChannelFrame(lane.scene, lane.channel, input, false, true, false);
            if (!oneScene || &lane == &lanes[0])
                m->mergeImages(lane.scene, oneScene ? all : lane.list, oneScene ? 560 : 140, oneScene ? 340 : 68, bg,
                               QImage(), QImage());
        }
        QThread::msleep(70);
        return std::all_of(lanes.begin(), lanes.end(), [&](const Lane& lane) { return right(lane, false); });
    }, 30000);
    for (const Lane& lane : lanes)
        EXPECT_TRUE(right(lane, true)) << (lane.c ? lane.c->name : "tilt");
}

INSTANTIATE_TEST_SUITE_P(Road, PictureRoad, ::testing::Bool(),
                         [](const ::testing::TestParamInfo<bool>& info) { return info.param ? "OneScene" : "SceneEach"; });
