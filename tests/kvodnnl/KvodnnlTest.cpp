// The kvodnnl face detector on the bundled portrait and pictures made from it.
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <string>

#include <QImage>
#include <QPainter>
#include <QTransform>
#include <gtest/gtest.h>
#include <kvodnnl/kvodnnl.h>
#include <opencv2/imgproc.hpp>

#include "TestUtil.h"

namespace {

using Face = KVOAI::FaceDetector::Face;

// Pictures go to the library as red-first Mats that own their pixels.
cv::Mat toRgb(const QImage& image)
{
    const QImage rgb = image.convertToFormat(QImage::Format_RGB888);
    return cv::Mat(rgb.height(), rgb.width(), CV_8UC3, const_cast<uchar*>(rgb.constBits()), rgb.bytesPerLine()).clone();
}

QImage portrait() { return QImage(testutil::testDataPath("astronaut.png")).convertToFormat(QImage::Format_RGB32); }

// `picture` drawn on a grey canvas at `at`, turned by `degrees` (clockwise as
// seen, Qt's y axis pointing down) about the canvas centre.
QImage onCanvas(const QImage& picture, QSize size, QPoint at = {}, double degrees = 0)
{
    QImage canvas(size, QImage::Format_RGB32);
    canvas.fill(QColor(120, 120, 120));
    QPainter p(&canvas);
    p.setRenderHint(QPainter::SmoothPixmapTransform);
    p.setTransform(QTransform()
                       .translate(size.width() / 2.0, size.height() / 2.0)
                       .rotate(degrees)
                       .translate(-size.width() / 2.0, -size.height() / 2.0));
    p.drawImage(at, picture);
    return canvas;
}

cv::Point2d pt(const Face& f, int k) { return {double(f.points.at(2 * k)), double(f.points.at(2 * k + 1))}; }

void expectWellFormed(const Face& f)
{
    ASSERT_EQ(f.points.size(), 196u);
    ASSERT_EQ(f.box.size(), 4u);
    ASSERT_EQ(f.triple.size(), 3u);
    ASSERT_EQ(f.floatsC.size(), 1u);
    EXPECT_GT(f.floatsC[0], 0.0f);
    EXPECT_LT(f.box[0], f.box[2]);
    EXPECT_LT(f.box[1], f.box[3]);
}

// The largest distance between a point of `a` moved by (dx, dy) and its
// counterpart in `b`.
double worstDistance(const Face& a, const Face& b, double dx = 0, double dy = 0)
{
    double worst = 0;
    for (int k = 0; k < 98; ++k)
        worst = std::max(worst, cv::norm(pt(a, k) + cv::Point2d(dx, dy) - pt(b, k)));
    return worst;
}

class Kvodnnl : public ::testing::Test {
protected:
    KVOAI::FaceDetector detector{KVOAI::DEFAULT, 1, 1};
    std::vector<Face> run(const QImage& image, bool wholePicture = false)
    {
        return detector.Run(toRgb(image), wholePicture, false, 1, 1, 50.0f);
    }
};

}  // namespace

TEST_F(Kvodnnl, PortraitGivesOneFaceWithThe98PointLayout)
{
    const std::vector<Face> faces = run(portrait());
    ASSERT_EQ(faces.size(), 1u);
    const Face& f = faces[0];
    expectWellFormed(f);
    // Where the portrait's face is, checked once by eye on a drawing.
    EXPECT_NEAR(f.box[0], 181, 8);
    EXPECT_NEAR(f.box[1], 79, 8);
    EXPECT_NEAR(f.box[2], 274, 8);
    EXPECT_NEAR(f.box[3], 172, 8);
    EXPECT_LE(cv::norm(pt(f, 96) - cv::Point2d(203, 102)), 5);
    EXPECT_LE(cv::norm(pt(f, 97) - cv::Point2d(247, 104)), 5);

    // The layout of kvodnnl.h as relations: on the axis, every point of the
    // first list lies before (left of, above) every point of the second.
    struct Before {
        char axis;
        std::vector<int> first, second;
    } relations[] = {
        {'y', {61, 62, 63}, {96}}, {'y', {96}, {65, 66, 67}},  // lids round the eye centres
        {'y', {69, 70, 71}, {97}}, {'y', {97}, {73, 74, 75}},
        {'x', {60}, {61, 62, 63, 64, 65, 66, 67}}, {'x', {61, 62, 63, 65, 66, 67}, {64}},  // corners at the ends
        {'x', {68}, {69, 70, 71, 72, 73, 74, 75}}, {'x', {69, 70, 71, 73, 74, 75}, {72}},
        {'x', {96}, {97}},  // the left eye on the picture's left
        {'y', {33, 34, 35, 36, 37, 38, 39, 40, 41}, {96}}, {'y', {42, 43, 44, 45, 46, 47, 48, 49, 50}, {97}},
        {'y', {33, 34, 35, 36, 37}, {60, 61, 62, 63, 64, 65, 66, 67}},  // upper brow edges above the eyes
        {'y', {42, 43, 44, 45, 46}, {68, 69, 70, 71, 72, 73, 74, 75}},
        {'y', {51}, {52, 53, 54}}, {'y', {52}, {53, 54}}, {'y', {53}, {54}},  // the bridge runs down
        {'x', {96}, {53}}, {'x', {53}, {97}},
        {'y', {54}, {76, 77, 78, 79, 80, 81, 82, 83, 84, 85, 86, 87, 88, 89, 90, 91, 92, 93, 94, 95}},
        {'x', {76}, {77, 78, 79, 80, 81, 82, 83, 84, 85, 86, 87, 88, 89, 90, 91, 92, 93, 94, 95}},
        {'x', {77, 78, 79, 80, 81, 83, 84, 85, 86, 87, 88, 89, 90, 91, 92, 93, 94, 95}, {82}},
        {'y', {79}, {85, 90}}, {'y', {90}, {94}},  // upper lip above lower, inner middles
        {'x', {0}, {96}}, {'x', {97}, {32}},  // the contour outside the eyes
        {'y', {76, 77, 78, 79, 80, 81, 82, 83, 84, 85, 86, 87, 88, 89, 90, 91, 92, 93, 94, 95}, {16}},
    };
    for (const Before& r : relations)
        for (int a : r.first)
            for (int b : r.second) {
                const cv::Point2d pa = pt(f, a), pb = pt(f, b);
                EXPECT_LT(r.axis == 'x' ? pa.x : pa.y, r.axis == 'x' ? pb.x : pb.y) << a << " before " << b;
            }
    // Runs of points in the order of the layout, left to right across the
    // picture: brow edges, lids, the base of the nose, the lip lines.
    const std::vector<int> rightwards[] = {{33, 34, 35, 36, 37}, {41, 40, 39, 38}, {42, 43, 44, 45, 46},
                                           {50, 49, 48, 47},     {61, 62, 63},     {67, 66, 65},
                                           {69, 70, 71},         {75, 74, 73},     {55, 56, 57, 58, 59},
                                           {77, 78, 79, 80, 81}, {87, 86, 85, 84, 83}, {89, 90, 91}, {95, 94, 93}};
    for (const std::vector<int>& run : rightwards)
        for (size_t i = 1; i < run.size(); ++i)
            EXPECT_LT(pt(f, run[i - 1]).x, pt(f, run[i]).x) << run[i - 1] << " left of " << run[i];
    // The contour runs from the picture's left round the chin (16, lowest) to
    // its right; odd points halve their neighbours; everything lies near the box.
    for (int k = 0; k <= 32; ++k) {
        EXPECT_LE(pt(f, k).y, pt(f, 16).y) << k;
        EXPECT_TRUE(k >= 16 || pt(f, k).x < pt(f, 32 - k).x) << k;
        EXPECT_TRUE(k % 2 == 0 || cv::norm(pt(f, k) - (pt(f, k - 1) + pt(f, k + 1)) / 2) <= 1.0) << k;
    }
    for (int k = 0; k < 98; ++k)
        EXPECT_TRUE(pt(f, k).x > f.box[0] - 30 && pt(f, k).x < f.box[2] + 30) << k;
    // The eye centre is the mean of the six fitted eye points.
    cv::Point2d mean;
    for (int k : {60, 61, 63, 64, 65, 67})
        mean += pt(f, k) / 6;
    EXPECT_LE(cv::norm(pt(f, 96) - mean), 1.5);
    // The portrait looks into the lens with a slight lean.
    EXPECT_LE(std::abs(f.triple[0]), 10);
    EXPECT_LE(std::abs(f.triple[1]), 10);
    EXPECT_LE(std::abs(f.triple[2]), 8);
    EXPECT_FLOAT_EQ(std::round(f.floatsA.at(2)), static_cast<float>(f.triple[2]));
}

TEST_F(Kvodnnl, TurnedPortraitIsFoundAndRollFollowsTheTurn)
{
    const QImage image = portrait();
    const std::vector<Face> upright = run(image, true);
    ASSERT_EQ(upright.size(), 1u);
    for (int degrees : {20, -20}) {
        SCOPED_TRACE(degrees);
        const std::vector<Face> faces = run(onCanvas(image, image.size(), {}, degrees), true);
        ASSERT_EQ(faces.size(), 1u);
        const Face& f = faces[0];
        expectWellFormed(f);
        // Clockwise as seen gives a positive roll, along the line of the eyes.
        EXPECT_NEAR(f.triple[2], upright[0].triple[2] + degrees, 7);
        const cv::Point2d eyes = pt(f, 97) - pt(f, 96);
        EXPECT_NEAR(f.triple[2], std::atan2(eyes.y, eyes.x) * 180.0 / M_PI, 6);
        // The eye centres moved where the turn takes them.
        const QPointF expected = QTransform()
                                     .translate(image.width() / 2.0, image.height() / 2.0)
                                     .rotate(degrees)
                                     .translate(-image.width() / 2.0, -image.height() / 2.0)
                                     .map(QPointF(pt(upright[0], 96).x, pt(upright[0], 96).y));
        EXPECT_LE(cv::norm(pt(f, 96) - cv::Point2d(expected.x(), expected.y())), 6.0);
    }
}

TEST_F(Kvodnnl, EachPictureGetsItsOwnResult)
{
    const QImage face = portrait();
    const QSize canvas(800, 600);
    const QImage here = onCanvas(face, canvas);
    QImage erased = here.copy();
    QPainter(&erased).fillRect(QRect(160, 50, 140, 150), QColor(180, 140, 120));  // the face painted over
    QImage gradient(640, 480, QImage::Format_RGB32);
    for (int y = 0; y < 480; ++y)
        for (int x = 0; x < 640; ++x)
            gradient.setPixel(x, y, qRgb(x * 255 / 640, y * 255 / 480, 90));
    QImage tiled(1024, 512, QImage::Format_RGB32);
    {
        QPainter p(&tiled);
        p.drawImage(0, 0, face);
        p.drawImage(512, 0, face);
    }

    const std::vector<Face> first = run(here);
    ASSERT_EQ(first.size(), 1u);
    // A still picture after a different one never keeps the old face.
    EXPECT_TRUE(run(onCanvas(QImage(), canvas)).empty());
    EXPECT_TRUE(run(gradient).empty());
    const std::vector<Face> again = run(here);
    ASSERT_EQ(again.size(), 1u);
    EXPECT_LE(worstDistance(first[0], again[0]), 3.0);
    EXPECT_TRUE(run(erased).empty());
    ASSERT_EQ(run(here).size(), 1u);
    const std::vector<Face> moved = run(onCanvas(face, canvas, QPoint(230, 70)));
    ASSERT_EQ(moved.size(), 1u);
    EXPECT_NEAR(moved[0].box[0], first[0].box[0] + 230, 6);
    EXPECT_NEAR(moved[0].box[1], first[0].box[1] + 70, 6);
    EXPECT_LE(worstDistance(first[0], moved[0], 230, 70), 4.0);
    // Another size straight after: two portraits side by side, the same face twice.
    std::vector<Face> two = run(tiled);
    ASSERT_EQ(two.size(), 2u);
    std::sort(two.begin(), two.end(), [](const Face& a, const Face& b) { return a.box[0] < b.box[0]; });
    expectWellFormed(two[1]);
    EXPECT_LT(two[0].box[2], 512);
    EXPECT_LE(worstDistance(two[0], two[1], 512, 0), 4.0);
    EXPECT_EQ(run(face).size(), 1u);
}

TEST_F(Kvodnnl, SteadyStreamKeepsTheFace)
{
    // A still face over many calls, followed near its place and searched anew
    // now and then: always the same points within a pixel or two.
    const std::vector<Face> first = run(onCanvas(portrait(), QSize(1280, 720), QPoint(380, 100)), true);
    ASSERT_EQ(first.size(), 1u);
    for (int i = 0; i < 25; ++i) {
        const std::vector<Face> faces = run(onCanvas(portrait(), QSize(1280, 720), QPoint(380, 100)));
        ASSERT_EQ(faces.size(), 1u) << "call " << i;
        EXPECT_LE(worstDistance(first[0], faces[0]), 3.0) << "call " << i;
    }
    // A face moving a little each frame is followed.
    for (int step = 1; step <= 10; ++step) {
        const std::vector<Face> faces = run(onCanvas(portrait(), QSize(1280, 720), QPoint(380 + 6 * step, 100)));
        ASSERT_EQ(faces.size(), 1u) << "step " << step;
        EXPECT_NEAR(faces[0].points[192], first[0].points[192] + 6 * step, 4) << "step " << step;
    }
}

TEST_F(Kvodnnl, FourChannelsViewsAndRefusedInputs)
{
    const cv::Mat rgb = toRgb(portrait());
    cv::Mat rgba, grey, deep;
    cv::cvtColor(rgb, rgba, cv::COLOR_RGB2RGBA);
    cv::Mat wide(600, 700, CV_8UC3, cv::Scalar(120, 120, 120));
    rgb.copyTo(wide(cv::Rect(50, 40, rgb.cols, rgb.rows)));
    const std::vector<Face> three = detector.Run(rgb, true, false, 1, 1, 50.0f);
    ASSERT_EQ(three.size(), 1u);
    for (const cv::Mat& same : {rgba, wide(cv::Rect(50, 40, rgb.cols, rgb.rows))}) {  // a padded sub-view
        const std::vector<Face> faces = detector.Run(same, true, false, 1, 1, 50.0f);
        ASSERT_EQ(faces.size(), 1u);
        EXPECT_LE(worstDistance(three[0], faces[0]), 1.0);
    }
    cv::cvtColor(rgb, grey, cv::COLOR_RGB2GRAY);
    rgb.convertTo(deep, CV_16UC3, 256.0);
    testing::internal::CaptureStderr();
    for (const cv::Mat& refused : {cv::Mat(), grey, deep})
        EXPECT_TRUE(detector.Run(refused, false, false, 1, 1, 50.f).empty());
    const std::string err = testing::internal::GetCapturedStderr();
    const std::string warning = "kvodnnl: pictures must have 8 bits a channel and 3 or 4 channels";
    EXPECT_NE(err.find(warning), std::string::npos) << err;
    EXPECT_EQ(err.find(warning), err.rfind(warning)) << "once per detector";
    EXPECT_EQ(detector.Run(rgb, false, false, 1, 1, 50.f).size(), 1u) << "still works afterwards";
}

TEST(KvodnnlModel, MissingOrBrokenModelWarnsOnceAndFindsNothing)
{
    const cv::Mat rgb = toRgb(portrait());
    const std::string missing = testutil::outputPath("no_such_landmark_model.dat").toStdString();
    const std::string broken = testutil::outputPath("broken_landmark_model.dat").toStdString();
    std::remove(missing.c_str());
    std::ofstream(broken, std::ios::binary) << "this is not a landmark model";
    for (const std::string& path : {missing, broken}) {
        setenv("KVODNNL_LANDMARK_MODEL", path.c_str(), 1);
        testing::internal::CaptureStderr();
        {
            KVOAI::FaceDetector first(KVOAI::DEFAULT, 1, 1), second(KVOAI::DEFAULT, 1, 1);
            EXPECT_TRUE(first.Run(rgb, false, false, 1, 1, 50.f).empty()) << path;
            EXPECT_TRUE(first.Run(rgb, false, false, 1, 1, 50.f).empty()) << path;
            EXPECT_TRUE(second.Run(rgb, false, false, 1, 1, 50.f).empty()) << path;
        }
        const std::string err = testing::internal::GetCapturedStderr();
        const std::string warning = "kvodnnl: cannot read the landmark model " + path;
        EXPECT_NE(err.find(warning), std::string::npos) << err;
        EXPECT_EQ(err.find(warning), err.rfind(warning)) << err;
    }
    unsetenv("KVODNNL_LANDMARK_MODEL");
    // The default model still serves detectors made afterwards.
    KVOAI::FaceDetector detector(KVOAI::DEFAULT, 1, 1);
    EXPECT_EQ(detector.Run(rgb, false, false, 1, 1, 50.f).size(), 1u);
}
