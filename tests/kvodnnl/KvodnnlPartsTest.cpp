// The parts of the face detector that need no models: the 98-point layout,
// the head pose, the signatures and motion of pictures, face boxes and the
// plan of the search of the whole picture.
#include <algorithm>
#include <cmath>
#include <map>
#include <string>
#include <tuple>

#include <gtest/gtest.h>
#include <opencv2/calib3d.hpp>
#include <opencv2/imgproc.hpp>

#include "Boxes.h"
#include "HeadPose.h"
#include "LabelledPictures.h"
#include "Layout.h"
#include "SearchPlan.h"
#include "Signature.h"
#include "Tuning.h"

namespace {

using namespace KVOAI::kvodnnl;
using labelled::shifted;
using labelled::withNoise;

// A fit of the landmark model: points scattered over a face 200 pixels wide,
// the outer eye corners (36, 45) level and the nose tip (30) below them.
std::vector<cv::Point2d> model68()
{
    cv::RNG rng(3);
    std::vector<cv::Point2d> m(68);
    for (cv::Point2d& p : m)
        p = {rng.uniform(200.0, 400.0), rng.uniform(200.0, 400.0)};
    m[36] = {230, 260};
    m[45] = {370, 260};
    m[30] = {300, 330};
    return m;
}

std::vector<cv::Point2d> mapped(const cv::Matx23d& m, std::vector<cv::Point2d> points)
{
    cv::transform(points, points, m);
    return points;
}

Picture pictureOf(const cv::Mat& grey) { return Picture{grey, signature(grey)}; }

// A grey 1280 x 720 view with blobs from a few pixels to a hundred across, as
// a camera's picture has: it still has texture once reduced to 128 pixels,
// and any part of it can be told from its neighbours. Cut to `size`, if
// given.
cv::Mat view(int seed, cv::Size size = {1280, 720})
{
    static std::map<int, cv::Mat> made;
    if (made.count(seed))
        return made[seed](cv::Rect({}, size)).clone();
    const int first = seed;
    cv::Mat sum(720, 1280, CV_32F, cv::Scalar(0)), noise(720, 1280, CV_32F), blurred, out;
    for (double sigma : {3.0, 12.0, 40.0}) {
        cv::RNG(seed++).fill(noise, cv::RNG::UNIFORM, 0.0, 1.0);
        cv::GaussianBlur(noise, blurred, cv::Size(), sigma);
        cv::normalize(blurred, blurred, 0, 1, cv::NORM_MINMAX);
        sum += blurred;
    }
    cv::normalize(sum, out, 20, 235, cv::NORM_MINMAX, CV_8U);
    made[first] = out;
    return out(cv::Rect({}, size)).clone();
}

// `picture` as a camera sees it that zoomed by `zoom` and turned by
// `degrees` about the point `at`, and then moved by `by`.
cv::Mat filmed(const cv::Mat& picture, double zoom, double degrees, cv::Point2f at, cv::Point2d by = {})
{
    cv::Matx23d m = cv::getRotationMatrix2D(at, -degrees, zoom);
    m(0, 2) += by.x;
    m(1, 2) += by.y;
    cv::Mat out;
    cv::warpAffine(picture, out, m, picture.size(), cv::INTER_LINEAR, cv::BORDER_REFLECT);
    return out;
}

}  // namespace

// Every point of the layout of kvodnnl.h from the model's points: copies,
// midpoints, the extra lid points, the eye centres, and the lower edges of
// the brows a brow's thickness (0.15 of its length) down the face, however
// the face lies.
TEST(KvodnnlLayout, EachPointIsMadeFromTheModelsPointsHoweverTheFaceLies)
{
    const std::vector<cv::Point2d> m = model68();
    const auto mid = [&](int a, int b) { return (m[a] + m[b]) * 0.5; };
    const auto lid = [&](int a, int b, int c, int d) { return (m[b] * 9.0 + m[c] * 9.0 - m[a] - m[d]) / 16.0; };
    const auto mean = [&](int from) {
        cv::Point2d sum;
        for (int i = from; i < from + 6; ++i)
            sum += m[i] / 6.0;
        return sum;
    };
    const cv::Point2d leftBrow = cv::Point2d(0, 0.15 * cv::norm(m[21] - m[17]));
    const cv::Point2d rightBrow = cv::Point2d(0, 0.15 * cv::norm(m[26] - m[22]));
    const struct { int point; cv::Point2d expected; } cases[] = {
        {0, m[0]}, {1, mid(0, 1)}, {15, mid(7, 8)}, {16, m[8]}, {31, mid(15, 16)}, {32, m[16]},  // contour
        {33, m[17]}, {37, m[21]}, {38, mid(20, 21) + leftBrow}, {41, mid(17, 18) + leftBrow},     // left brow
        {42, m[22]}, {46, m[26]}, {47, mid(25, 26) + rightBrow}, {50, mid(22, 23) + rightBrow},  // right brow
        {51, m[27]}, {54, m[30]}, {55, m[31]}, {59, m[35]},                                      // nose
        {60, m[36]}, {61, m[37]}, {62, lid(36, 37, 38, 39)}, {64, m[39]}, {66, lid(39, 40, 41, 36)}, {67, m[41]},
        {68, m[42]}, {70, lid(42, 43, 44, 45)}, {72, m[45]}, {74, lid(45, 46, 47, 42)}, {75, m[47]},
        {76, m[48]}, {79, m[51]}, {82, m[54]}, {87, m[59]}, {88, m[60]}, {90, m[62]}, {95, m[67]},  // lips
        {96, mean(36)}, {97, mean(42)},                                                           // eye centres
    };
    const std::vector<cv::Point2d> upright = layout98(m);
    ASSERT_EQ(upright.size(), 98u);
    for (const auto& c : cases)
        EXPECT_LT(cv::norm(upright[c.point] - c.expected), 1e-9) << "point " << c.point << " at " << upright[c.point];

    // A face turned, mirrored or scaled in the picture gives its points
    // turned, mirrored or scaled alike: "down the face" runs towards the nose
    // tip whichever way the picture's axes run.
    const auto turn = [](double degrees, double scale) {
        return cv::Matx23d(cv::getRotationMatrix2D(cv::Point2f(300, 300), degrees, scale));
    };
    const std::map<std::string, cv::Matx23d> placings = {
        {"turned 30 degrees", turn(30, 1)},
        {"upside down", turn(180, 1)},
        {"turned -100 degrees and halved", turn(-100, 0.5)},
        {"mirrored left to right", cv::Matx23d(-1, 0, 640, 0, 1, 0)},
        {"mirrored top to bottom and doubled", cv::Matx23d(2, 0, 0, 0, -2, 900)},
    };
    for (const auto& [name, placing] : placings) {
        const std::vector<cv::Point2d> out = layout98(mapped(placing, m));
        const std::vector<cv::Point2d> expected = mapped(placing, upright);
        for (int k = 0; k < 98; ++k)
            EXPECT_LT(cv::norm(out[k] - expected[k]), 1e-6) << name << ", point " << k;
    }
}

// The head's pose from the six points it is measured on, for a face of the
// generic shape posed as given: straight ahead, turned about each axis and
// about all three, and off the picture's centre where its pose is measured
// from the line of sight.
TEST(KvodnnlHeadPose, PoseOfAPosedFaceComesBack)
{
    const cv::Point3d face[] = {{0, 0, 0},       {0, 382, 100},    {-225, -185, 175},
                                {225, -185, 175}, {-170, 100, 150}, {170, 100, 150}};
    const int seenAs[] = {54, 16, 60, 72, 76, 82};
    const cv::Size size(1280, 720);
    const double focal = size.width;
    // The turn by `degrees` about `axis`, a unit vector.
    const auto rotation = [](double degrees, cv::Vec3d axis) {
        cv::Matx33d r;
        cv::Rodrigues(axis * (degrees * CV_PI / 180), r);
        return r;
    };
    // The pose, and where the nose tip is seen.
    const struct { double pitch, yaw, roll; cv::Point2d at; } cases[] = {
        {0, 0, 0, {640, 360}},     {15, 0, 0, {640, 360}}, {0, -20, 0, {640, 360}}, {0, 0, 25, {640, 360}},
        {-10, 12, -8, {640, 360}}, {0, 0, 0, {200, 120}},  {10, -15, 5, {1100, 600}}};
    for (const auto& c : cases) {
        // The face 2.5 m away (in fifths of a millimetre), along the line of
        // sight through `at`, posed relative to that line.
        const cv::Vec3d sight = cv::normalize(cv::Vec3d(c.at.x - size.width / 2.0, c.at.y - size.height / 2.0, focal));
        const cv::Vec3d axis = cv::Vec3d(0, 0, 1).cross(sight);
        const cv::Matx33d toSight
            = rotation(std::asin(cv::norm(axis)) * 180 / CV_PI, axis / std::max(cv::norm(axis), 1e-12));
        const cv::Matx33d pose = rotation(c.pitch, {1, 0, 0}) * rotation(c.yaw, {0, 1, 0}) * rotation(c.roll, {0, 0, 1});
        std::vector<cv::Point2d> points(98);
        for (int i = 0; i < 6; ++i) {
            const cv::Vec3d p = toSight * pose * cv::Vec3d(face[i].x, face[i].y, face[i].z) + sight * 12500.0;
            points[seenAs[i]] = cv::Point2d(focal * p[0] / p[2] + size.width / 2.0, focal * p[1] / p[2] + size.height / 2.0);
        }
        SCOPED_TRACE(testing::Message() << "pose " << c.pitch << ", " << c.yaw << ", " << c.roll << " at " << c.at);
        const Pose found = estimatePose(points, size);
        EXPECT_NEAR(found.pitch, c.pitch, 0.5);
        EXPECT_NEAR(found.yaw, c.yaw, 0.5);
        EXPECT_NEAR(found.roll, c.roll, 0.5);
    }
}

// How a picture differs from a textured 640 x 480 one: noise and a small dot
// leave it the same picture, a thing come in changes it in a few places, and
// a brighter copy or one of another size is a new picture.
TEST(KvodnnlSignature, TellsNoiseAChangeInAFewPlacesAndANewPicture)
{
    const cv::Mat base = view(9, {640, 480});
    cv::Mat dot = base.clone(), square = base.clone();
    dot(cv::Rect(300, 200, 3, 3)).setTo(255);
    square(cv::Rect(300, 200, 100, 100)).setTo(255);
    const struct { const char* name; cv::Mat picture; Change expected; } cases[] = {
        {"the same", base.clone(), Change::None},   {"noise of 3 grey levels", withNoise(base, 3), Change::None},
        {"a dot of 3 pixels", dot, Change::None},   {"a square of 100 pixels", square, Change::Local},
        {"30 grey levels brighter", base + cv::Scalar(30), Change::Whole},
        {"another size", view(9, {640, 360}), Change::Whole}};
    const Picture before = pictureOf(base);
    for (const auto& c : cases)
        EXPECT_EQ(int(pictureChange(before, pictureOf(c.picture))), int(c.expected)) << c.name;
}

// A picture that differs on the whole is a new scene unless all its followed
// faces, if any, were found again and it is the last view moved, or changed
// only round them; other changes stay what they were. A camera that pans or
// shakes shows the last view moved: so does a view moved by a few pixels,
// with noise or not, by up to a fifth of it, or zoomed or turned a little; a
// brighter copy, another view, one whose half or quarter changed, one moved or
// zoomed too far and one of another size are new scenes.
TEST(KvodnnlSignature, AViewMovedOrChangedRoundItsFacesIsNoNewScene)
{
    const cv::Mat base = view(1);
    // Everything within a face size of the face changed, what lies farther
    // out too, half and a quarter of the view.
    cv::Mat roundFace = base.clone(), farOut = base.clone(), halfNew = base.clone(), quarterNew = base.clone();
    view(7)(cv::Rect(340, 0, 600, 600)).copyTo(roundFace(cv::Rect(340, 0, 600, 600)));
    view(7)(cv::Rect(0, 0, 1280, 360)).copyTo(farOut(cv::Rect(0, 0, 1280, 360)));
    view(7)(cv::Rect(640, 0, 640, 720)).copyTo(halfNew(cv::Rect(640, 0, 640, 720)));
    view(7)(cv::Rect(0, 0, 640, 360)).copyTo(quarterNew(cv::Rect(0, 0, 640, 360)));
    const std::vector<dlib::rectangle> one = {dlib::rectangle(540, 200, 739, 399)},
                                       huge = {dlib::rectangle(200, 100, 1079, 619)};
    const Change local = Change::Local, whole = Change::Whole;
    // The picture after, the change of the scene, the faces followed and
    // whether one was lost, and the change the signatures saw.
    const struct { const char* name; cv::Mat after; Change expected; std::vector<dlib::rectangle> followed = {};
                   bool lost = false; Change change = Change::Whole; } cases[] = {
        // No face followed: the last view moved, or not.
        {"the same", base.clone(), local},
        {"8 right, 5 up", shifted(base, {8, -5}), local},
        {"13 left", shifted(base, {-13, 0}), local},
        {"6.5 down", shifted(base, {0, 6.5}), local},
        {"8 right, 5 up, with noise", withNoise(shifted(base, {8, -5}), 3), local},
        {"a fifth of it to the right", shifted(base, {256, 0}), local},
        {"zoomed in by 3 %", filmed(base, 1.03, 0, {640, 360}), local},
        {"zoomed out by 4 % off the middle", filmed(base, 0.96, 0, {300, 200}), local},
        {"turned by 1.5 degrees", filmed(base, 1, 1.5, {640, 360}), local},
        {"zoomed, turned and moved", filmed(base, 1.025, -1, {800, 300}, {12, -7}), local},
        {"zoomed in by a third", filmed(base, 1.33, 0, {640, 360}), whole},
        {"zoomed, with a quarter of it another view", filmed(quarterNew, 1.03, 0, {640, 360}), whole},
        {"30 grey levels brighter", base + cv::Scalar(30), whole},
        {"another view", view(7), whole},
        {"half of it another view", halfNew, whole},
        {"a quarter of it another view", quarterNew, whole},
        {"half of it to the right", shifted(base, {640, 0}), whole},
        {"another size", view(1, {1200, 720}), whole},
        // A face followed.
        {"moved, its face found again", shifted(base, {9, 4}), local, one},
        {"changed round its face only", roundFace, local, one},
        {"moved, but a face lost", shifted(base, {9, 4}), whole, one, true},
        {"changed far from its face", farOut, whole, one},
        {"changed round a face that fills it", view(7), whole, huge},
        {"brighter", base + cv::Scalar(30), whole, one},
        {"changed in a few places", base.clone(), local, one, false, Change::Local},
        {"the same", base.clone(), Change::None, one, false, Change::None},
    };
    const Picture before = pictureOf(base);
    for (const auto& c : cases)
        EXPECT_EQ(int(sceneChange(c.change, before, pictureOf(c.after), c.followed, c.lost)), int(c.expected))
            << c.name;
}

// How far the picture moved round a box, within about half a pixel (the part
// is reduced to kMotionSide pixels), and no motion for a box too small or
// pictures of different sizes.
TEST(KvodnnlSignature, MotionRoundABox)
{
    const cv::Mat before = view(9, {640, 480});
    const dlib::rectangle box(200, 150, 299, 249);
    // The shift, the motion found, the box, and the size of the picture after
    // (by default that of the one before).
    const struct { cv::Point2d shift, expected; dlib::rectangle box; cv::Size size = {}; } cases[] = {
        {{0, 0}, {0, 0}, box},     {{3, 0}, {3, 0}, box},         {{0, -4}, {0, -4}, box},
        {{5.5, 2}, {5.5, 2}, box}, {{-6, -3}, {-6, -3}, box},     {{4, 4}, {0, 0}, dlib::rectangle(200, 150, 209, 159)},
        {{4, 4}, {0, 0}, box, cv::Size(600, 480)}};
    for (const auto& c : cases) {
        const cv::Point2d moved = motion(before, shifted(before, c.shift, c.size), c.box);
        EXPECT_LT(cv::norm(moved - c.expected), 0.6) << "shift " << c.shift << " found " << moved;
    }
}

// Whether a box found stands for the face of a box already listed: well
// overlapping boxes do (intersection over union above 0.3), and so do boxes
// of alike widths with a centre in the other, the listed box between 0.6 and
// 1.6 times as wide as the one found.
TEST(KvodnnlBoxes, SameFace)
{
    const auto box = [](long x, long y, long side) { return dlib::rectangle(x, y, x + side - 1, y + side - 1); };
    const struct { const char* name; dlib::rectangle listed, found; bool same; } cases[] = {
        {"the same box", box(100, 100, 80), box(100, 100, 80), true},
        {"moved by a third", box(100, 100, 90), box(130, 100, 90), true},
        {"moved by a box", box(100, 100, 80), box(180, 100, 80), false},
        {"centre inside, 1.5 times as wide", box(100, 100, 90), box(140, 140, 60), true},
        {"centre inside, 1.7 times as wide", box(100, 100, 102), box(150, 150, 60), false},
        {"round its centre, 0.62 times as wide", box(150, 150, 62), box(100, 100, 100), true},
        {"round its centre, 0.58 times as wide", box(150, 150, 58), box(100, 100, 100), false},
        {"found 1.61 times as wide round its centre", box(100, 100, 100), box(150, 150, 62), false},
        {"the same width, centres outside", box(100, 100, 60), box(135, 135, 60), false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(sameFace(c.listed, c.found), c.same) << c.name;
        const std::vector<Detection> list = {{box(500, 500, 80), 1.0}, {c.listed, 1.0}};
        EXPECT_EQ(holdsFace(list, c.found), c.same) << c.name << ", in a list";
    }
}

// A box found on a reduced part of a picture, back in the picture's pixels:
// dlib's boxes include their right and bottom edges.
TEST(KvodnnlBoxes, ScaledBack)
{
    const struct { dlib::rectangle found; double factor, dx, dy; dlib::rectangle expected; } cases[] = {
        {dlib::rectangle(10, 20, 89, 99), 1.0, 0, 0, dlib::rectangle(10, 20, 89, 99)},
        {dlib::rectangle(10, 20, 89, 99), 0.5, 0, 0, dlib::rectangle(20, 40, 179, 199)},
        {dlib::rectangle(0, 0, 79, 79), 0.25, 100, 50, dlib::rectangle(100, 50, 419, 369)},
        {dlib::rectangle(5, 5, 14, 14), 2.0, 0, 0, dlib::rectangle(3, 3, 7, 7)},
    };
    for (const auto& c : cases)
        EXPECT_EQ(scaleRect(c.found, c.factor, c.dx, c.dy), c.expected) << c.found << " by " << c.factor;
}

// The plan of a whole search: every face size from the smallest searched for
// up to the picture's shorter side has a scan, each scan's strips run over
// the whole picture and overlap by at least the largest face it looks for,
// and the largest faces come first.
TEST(KvodnnlSearchPlan, EveryFaceSizeEverywhere)
{
    for (const cv::Size size : {cv::Size(200, 120), cv::Size(640, 480), cv::Size(1280, 720), cv::Size(1080, 1920),
                                cv::Size(4000, 3000)}) {
        SCOPED_TRACE(std::to_string(size.width) + " x " + std::to_string(size.height));
        const std::vector<Task> plan = planSearch(size);
        ASSERT_FALSE(plan.empty());
        EXPECT_EQ(plan.front().kind, Task::Hog);
        // Face sizes of a task, in pixels of the picture: a window finds
        // faces up to the next window's size.
        const auto faces = [](const Task& t) {
            if (t.kind == Task::Cascade)
                return std::make_pair(t.smallest / t.scale, kCascadeStep * t.largest / t.scale);
            return std::make_pair(kHogWindow / t.scale, t.restOfPyramid ? 1e9 : 1.2 * kHogWindow / t.scale);
        };
        // The largest window of a task, which its strips must overlap by.
        const auto window = [](const Task& t) {
            return (t.kind == Task::Cascade ? t.largest : 1.2 * kHogWindow) / t.scale;
        };
        const double shorter = std::min(size.width, size.height);
        for (double face = std::max(kSmallestFace, kSmallestFraction * shorter); face <= shorter; face *= 1.05)
            EXPECT_TRUE(std::any_of(plan.begin(), plan.end(), [&](const Task& t) {
                return faces(t).first <= face + 1e-9 && face <= faces(t).second;
            })) << "faces of " << face << " px";
        std::map<std::tuple<int, double, int>, std::vector<cv::Rect>> scans;
        for (const Task& t : plan) {
            EXPECT_EQ(t.tile.x, 0);
            EXPECT_EQ(t.tile.width, size.width);
            scans[{t.kind, t.scale, t.smallest}].push_back(t.tile);
        }
        for (const Task& t : plan) {
            std::vector<cv::Rect> strips = scans[{t.kind, t.scale, t.smallest}];
            std::sort(strips.begin(), strips.end(), [](const cv::Rect& a, const cv::Rect& b) { return a.y < b.y; });
            EXPECT_EQ(strips.front().y, 0);
            EXPECT_EQ(strips.back().br().y, size.height);
            for (size_t i = 1; i < strips.size(); ++i)
                EXPECT_GE(strips[i - 1].br().y - strips[i].y, std::min<double>(window(t), size.height))
                    << "strips of the scan at " << t.scale;
        }
    }
}
