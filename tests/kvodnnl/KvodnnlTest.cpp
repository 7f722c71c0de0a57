// The kvodnnl face detector on the bundled portrait and pictures made from it.
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <optional>

#include <gtest/gtest.h>
#include <kvodnnl/kvodnnl.h>
#include <opencv2/imgproc.hpp>

#include "Calls.h"
#include "LabelledPictures.h"
#include "TestUtil.h"

namespace {

// The detector's faces, and the portrait on a canvas.
using namespace calls;

double distance(QPointF a, QPointF b) { return QLineF(a, b).length(); }

// What the detector finds (or `faces`, when the call was made), each face
// well formed.
std::vector<Face> run(KVOAI::FaceDetector& detector, const cv::Mat& picture, bool wholePicture = false,
                      std::optional<std::vector<Face>> made = {})
{
    const std::vector<Face> faces = made ? *made : detector.Run(picture, wholePicture, false, 1, 1, 50.0f);
    for (const Face& f : faces) {
        EXPECT_EQ(f.points.size(), 196u);
        EXPECT_EQ(f.triple.size(), 3u);
        EXPECT_TRUE(f.floatsC.size() == 1u && f.floatsC[0] > 0) << testing::PrintToString(f.floatsC);
        EXPECT_TRUE(f.box.size() == 4u && f.box[0] < f.box[2] && f.box[1] < f.box[3]) << testing::PrintToString(f.box);
    }
    return faces;
}

// What the detector shows of a still picture once it shows its one face
// (see calls::settle), each face well formed.
std::vector<Face> settled(KVOAI::FaceDetector& detector, const cv::Mat& picture, bool wholePicture = false)
{
    return run(detector, picture, wholePicture, calls::settle(detector, picture, 1, wholePicture));
}

}  // namespace

TEST(Kvodnnl, PortraitGivesOneFaceWithThe98PointLayout)
{
    KVOAI::FaceDetector detector(KVOAI::DEFAULT, 1, 1);
    const std::vector<Face> faces = settled(detector, calls::portrait());
    ASSERT_EQ(faces.size(), 1u);
    const Face& f = faces[0];
    // Where the portrait's face is, checked once by eye on a drawing.
    EXPECT_LE(cv::norm(cv::Vec4i(f.box.data()), cv::Vec4i(181, 79, 274, 172), cv::NORM_INF), 12);
    EXPECT_LE(distance(pt(f, 96), {203, 102}), 5);
    EXPECT_LE(distance(pt(f, 97), {247, 104}), 5);
    // Whether point a lies before (left of, above) point b on the axis.
    auto before = [&](int axis, int a, int b) {
        return axis == 'x' ? pt(f, a).x() < pt(f, b).x() : pt(f, a).y() < pt(f, b).y();
    };

    // The layout of kvodnnl.h as relations: on the axis, every point of the
    // first range lies before every point of the second...
    const int relations[][5] = {
        {'y', 61, 63, 96, 96}, {'y', 96, 96, 65, 67}, {'y', 69, 71, 97, 97}, {'y', 97, 97, 73, 75},  // lids
        {'x', 60, 60, 65, 67}, {'x', 68, 68, 73, 75}, {'x', 96, 96, 53, 53}, {'x', 53, 53, 97, 97},  // the nose between
        {'y', 33, 41, 96, 96}, {'y', 42, 50, 97, 97}, {'y', 33, 37, 60, 67}, {'y', 42, 46, 68, 75},  // brows over eyes
        {'y', 54, 54, 76, 95}, {'x', 76, 76, 83, 88}, {'x', 92, 92, 82, 82}, {'y', 79, 79, 85, 85},  // the mouth
        {'y', 79, 79, 90, 90}, {'y', 90, 90, 94, 94}, {'y', 76, 95, 16, 16},  // upper lip over lower, the chin
        {'x', 0, 0, 96, 96}, {'x', 97, 97, 32, 32}, {'y', 36, 37, 38, 38}, {'y', 42, 43, 50, 50}};  // contour; brows
    for (const auto& r : relations)
        for (int a = r[1]; a <= r[2]; ++a)
            for (int b = r[3]; b <= r[4]; ++b)
                EXPECT_TRUE(before(r[0], a, b)) << a << " before " << b << " on " << char(r[0]);
    // ...and runs of points in their order: the bridge down, the rest left to
    // right (brow edges, eye corners and lids, the base of the nose, lip lines).
    const int runs[][3] = {{'y', 51, 54}, {'x', 33, 37}, {'x', 41, 38}, {'x', 42, 46}, {'x', 50, 47}, {'x', 60, 64},
                           {'x', 67, 64}, {'x', 68, 72}, {'x', 75, 72}, {'x', 55, 59}, {'x', 76, 82}, {'x', 87, 82},
                           {'x', 88, 92}, {'x', 95, 92}};
    for (const auto& r : runs)
        for (int k = r[1], step = r[2] > r[1] ? 1 : -1; k != r[2]; k += step)
            EXPECT_TRUE(before(r[0], k, k + step)) << k << " before " << k + step;
    // The contour runs from the picture's left round the chin (16, lowest) to
    // its right; odd points halve their neighbours.
    for (int k = 0; k <= 32; ++k) {
        EXPECT_LE(pt(f, k).y(), pt(f, 16).y()) << k;
        EXPECT_TRUE(k >= 16 || before('x', k, 32 - k)) << k;
        EXPECT_TRUE(k % 2 == 0 || distance(pt(f, k), (pt(f, k - 1) + pt(f, k + 1)) / 2) <= 1.0) << k;
    }
    // The portrait looks into the lens with a slight lean.
    EXPECT_LE(cv::norm(cv::Vec3i(f.triple.data()), cv::NORM_INF), 10);
    EXPECT_FLOAT_EQ(std::round(f.floatsA.at(2)), static_cast<float>(f.triple[2]));
}

// One detector over a sequence of pictures, each new one handed in five
// times or more (see calls::settle): each gets its own result and never shows a face
// where it has none (a still picture after a different one never keeps the
// old face, a refused one gives none and one warning); a still face is
// followed at every call, and so is one that moves a little each call; the
// roll follows a turn of the head. Pictures of a few pixels a side, or
// slivers, have their whole-picture search cut into tiles that reduce to
// nothing: no face, and no failure.
TEST(Kvodnnl, EachPictureGetsItsOwnResultAndStillFacesAreFollowed)
{
    KVOAI::FaceDetector detector(KVOAI::DEFAULT, 1, 1);
    const cv::Mat rgb = calls::portrait();
    const QSize canvas(800, 600), wide(1280, 720);
    const cv::Mat here = onCanvas(canvas, {}), still = onCanvas(wide, place(380, 100));
    // The face painted over in a lighter copy: a new picture either way (a
    // change in a few places alone has no search ended by a given call).
    cv::Mat erased = here + cv::Scalar::all(40), tiled, rgba, padded(600, 700, CV_8UC3, cv::Scalar::all(120));
    erased(cv::Rect(160, 50, 140, 150)).setTo(cv::Scalar(180, 140, 120));
    cv::hconcat(rgb, rgb, tiled);
    rgb.copyTo(padded(cv::Rect(50, 40, 512, 512)));
    cv::cvtColor(rgb, rgba, cv::COLOR_RGB2RGBA);
    // Each picture with the placings of the portrait's face in it.
    std::vector<std::pair<cv::Mat, std::vector<QTransform>>> steps = {
        {cv::Mat(600, 800, CV_8UC3, cv::Scalar::all(120)), {}}, {here, {{}}}, {erased, {}}, {here, {{}}},
        {onCanvas(canvas, place(230, 70)), {place(230, 70)}}, {rgba, {{}}}, {onCanvas({1024, 512}, {}), {{}}},
        {tiled, {{}, place(512, 0)}}, {cv::Mat::zeros(64, 64, CV_8UC1), {}}, {padded(cv::Rect(50, 40, 512, 512)), {{}}},
        {cv::Mat(), {}}, {cv::Mat::zeros(64, 64, CV_16UC3), {}}, {rgb, {{}}},
        {onCanvas({1536, 1536}, QTransform::fromScale(3, 3)), {QTransform::fromScale(3, 3)}}};
    for (int degrees : {20, -20})
        steps.push_back({onCanvas({512, 512}, place(0, 0, degrees)), {place(0, 0, degrees)}});
    for (const cv::Size size : {cv::Size(1, 1), cv::Size(2, 900), cv::Size(900, 2), cv::Size(7, 5), cv::Size(33, 17),
                                cv::Size(1280, 3), cv::Size(3, 720), cv::Size(1920, 1)})
        steps.push_back({cv::Mat(size, CV_8UC3, cv::Scalar(100, 120, 140)), {}});
    // After the first of these one call a picture: the face is followed.
    const size_t followedFrom = steps.size() + 1;
    for (int i = 0; i < 25; ++i)
        steps.push_back({still, {place(380, 100)}});
    for (int x = 386; x <= 440; x += 6)
        steps.push_back({onCanvas(wide, place(x, 100)), {place(x, 100)}});

    const std::vector<Face> first = settled(detector, rgb, true);
    ASSERT_EQ(first.size(), 1u);
    testing::internal::CaptureStderr();
    for (size_t i = 0; i < steps.size(); ++i) {
        SCOPED_TRACE("step " + std::to_string(i));
        // Any face shown is one of the picture's, and well formed.
        const auto check = [&](const std::vector<Face>& shown, int call) {
            for (const Face& f : run(detector, steps[i].first, false, shown)) {
                double nearest = 1e9;
                for (const QTransform& placed : steps[i].second)
                    nearest = std::min(nearest, distance(placed.map(pt(first[0], 53)), pt(f, 53)));
                EXPECT_LE(nearest, 10) << "call " << call;
            }
        };
        // A picture settles, or once its face is followed has one call; a
        // sliver's calls ask for a search of the whole picture.
        const bool settles = i < followedFrom, sliver = std::min(steps[i].first.rows, steps[i].first.cols) < 64;
        std::vector<Face> faces = calls::settle(detector, steps[i].first, steps[i].second.size(), sliver,
                                                settles ? 5 : 1, settles ? 10.0 : -1.0, check);
        EXPECT_EQ(faces.size(), steps[i].second.size());
        std::sort(faces.begin(), faces.end(), [](const Face& a, const Face& b) { return a.box[0] < b.box[0]; });
        for (size_t k = 0; k < faces.size() && k < steps[i].second.size(); ++k) {
            // Every point lies where the placing takes the portrait's.
            const QTransform& placed = steps[i].second[k];
            const double worst = worstPoint(faces[k], first[0], placed);
            // The portrait itself, in another form, gives its points again,
            // within a pixel or two: the box the search confirms may come
            // from a neighbouring level of its pyramid.
            const bool portraitAgain = placed.isIdentity() && steps[i].first.size() == rgb.size();
            EXPECT_LE(worst, portraitAgain ? 3 : placed.type() > QTransform::TxTranslate ? 8 : 4);
            // The eye centre is the mean of the six fitted eye points.
            QPointF mean;
            for (int e : {60, 61, 63, 64, 65, 67})
                mean += pt(faces[k], e) / 6;
            EXPECT_LE(distance(pt(faces[k], 96), mean), 1.5);
            // Clockwise as seen gives a positive roll, along the line of the eyes.
            const double turn = std::atan2(placed.m12(), placed.m11()) * 180 / M_PI;
            const QPointF eyes = pt(faces[k], 97) - pt(faces[k], 96);
            EXPECT_NEAR(faces[k].triple[2], first[0].triple[2] + turn, 7);
            EXPECT_NEAR(faces[k].triple[2], std::atan2(eyes.y(), eyes.x()) * 180 / M_PI, 6);
        }
    }
    const std::string err = testing::internal::GetCapturedStderr();
    const std::string warning = "kvodnnl: pictures must have 8 bits a channel and 3 or 4 channels";
    EXPECT_NE(err.find(warning), std::string::npos) << err;
    EXPECT_EQ(err.find(warning), err.rfind(warning)) << "said once: " << err;
    EXPECT_EQ(err.find("failed"), std::string::npos) << err;
}

TEST(KvodnnlModel, BrokenModelWarnsOnceAndFindsNothing)
{
    const cv::Mat rgb = calls::portrait();
    const std::string broken = testutil::outputPath("broken_landmark_model.dat").toStdString();
    std::ofstream(broken, std::ios::binary) << "this is not a landmark model";
    setenv("KVODNNL_LANDMARK_MODEL", broken.c_str(), 1);
    testing::internal::CaptureStderr();
    {
        KVOAI::FaceDetector first(KVOAI::DEFAULT, 1, 1), second(KVOAI::DEFAULT, 1, 1);
        for (KVOAI::FaceDetector* d : {&first, &first, &second})
            EXPECT_TRUE(d->Run(rgb, false, false, 1, 1, 50.f).empty());
    }
    const std::string err = testing::internal::GetCapturedStderr();
    const std::string warning = "kvodnnl: cannot read the landmark model " + broken;
    EXPECT_NE(err.find(warning), std::string::npos) << err;
    EXPECT_EQ(err.find(warning), err.rfind(warning)) << "said once: " << err;
    unsetenv("KVODNNL_LANDMARK_MODEL");
    KVOAI::FaceDetector detector(KVOAI::DEFAULT, 1, 1);
    EXPECT_EQ(settled(detector, rgb).size(), 1u) << "the default model serves later detectors";
}

// A still face keeps its key points while its look holds, under sensor noise
// too (fitting them again moves them by about a pixel); a mouth that opens in
// a still face shows in the next call. (A face that moves is followed in
// EachPictureGetsItsOwnResultAndStillFacesAreFollowed, fitted again when its
// look changed as it moved in KvodnnlKeyPoints.)
TEST(Kvodnnl, StillFaceKeepsItsPointsUntilItsLookChanges)
{
    KVOAI::FaceDetector detector(KVOAI::DEFAULT, 1, 1);
    const cv::Mat rgb = calls::portrait();
    const std::vector<Face> before = settled(detector, rgb);
    ASSERT_EQ(before.size(), 1u);
    const cv::Mat noisy = labelled::withNoise(rgb, 2);
    std::vector<Face> still;
    for (int call = 0; call < 3; ++call)
        still = run(detector, noisy);
    ASSERT_EQ(still.size(), 1u);
    EXPECT_EQ(still[0].points, before[0].points);
    // The band from the inner lip line down moved 10 pixels lower.
    const QPointF lipLeft = pt(before[0], 88), lipRight = pt(before[0], 92);
    const cv::Rect band(int(lipLeft.x()) - 10, int(lipLeft.y()), int(lipRight.x() - lipLeft.x()) + 20, 40);
    cv::Mat open = rgb.clone();
    rgb(band).copyTo(open(band + cv::Point(0, 10)));
    const std::vector<Face> opened = run(detector, open);
    ASSERT_EQ(opened.size(), 1u);
    EXPECT_GT(distance(pt(opened[0], 94), pt(before[0], 94)), 3.0);
}
