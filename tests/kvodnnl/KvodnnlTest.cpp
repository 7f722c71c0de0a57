// The kvodnnl face detector on the bundled portrait and pictures made from it.
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <string>

#include <QFont>
#include <QImage>
#include <QPainter>
#include <QTransform>
#include <gtest/gtest.h>
#include <kvodnnl/kvodnnl.h>
#include <opencv2/imgproc.hpp>

#include "TestUtil.h"

namespace {

using Face = KVOAI::FaceDetector::Face;

// Pictures are handed to the library as red-first Mats that own their pixels.
cv::Mat toRgb(const QImage& image)
{
    const QImage rgb = image.convertToFormat(QImage::Format_RGB888);
    return cv::Mat(rgb.height(), rgb.width(), CV_8UC3, const_cast<uchar*>(rgb.constBits()),
                   static_cast<size_t>(rgb.bytesPerLine()))
        .clone();
}

QImage portrait()
{
    QImage image(testutil::testDataPath("astronaut.png"));
    EXPECT_FALSE(image.isNull());
    return image;
}

// The portrait placed on a grey canvas.
QImage onCanvas(const QImage& picture, QSize size, QPoint at)
{
    QImage canvas(size, QImage::Format_RGB32);
    canvas.fill(QColor(120, 120, 120));
    QPainter p(&canvas);
    p.drawImage(at, picture);
    return canvas;
}

QImage rotated(const QImage& picture, double degrees)
{
    // Qt's y axis points down: a positive angle turns the picture clockwise
    // as it is seen. Keep the size and fill the corners with grey.
    QImage out(picture.size(), QImage::Format_RGB32);
    out.fill(QColor(120, 120, 120));
    QPainter p(&out);
    p.setRenderHint(QPainter::SmoothPixmapTransform);
    p.translate(picture.width() / 2.0, picture.height() / 2.0);
    p.rotate(degrees);
    p.translate(-picture.width() / 2.0, -picture.height() / 2.0);
    p.drawImage(0, 0, picture);
    return out;
}

struct Pt {
    double x, y;
};

Pt pt(const Face& f, int k)
{
    return {static_cast<double>(f.points.at(2 * k)), static_cast<double>(f.points.at(2 * k + 1))};
}

double dist(Pt a, Pt b)
{
    return std::hypot(a.x - b.x, a.y - b.y);
}

// Bounds of key points first..last.
struct Bounds {
    double left = 1e9, top = 1e9, right = -1e9, bottom = -1e9;
    bool contains(Pt p) const { return p.x > left && p.x < right && p.y > top && p.y < bottom; }
};

Bounds bounds(const Face& f, int first, int last)
{
    Bounds b;
    for (int k = first; k <= last; ++k) {
        const Pt p = pt(f, k);
        b.left = std::min(b.left, p.x);
        b.right = std::max(b.right, p.x);
        b.top = std::min(b.top, p.y);
        b.bottom = std::max(b.bottom, p.y);
    }
    return b;
}

// Draws each face's box and numbered points on a close-up of the face, for
// a person to check the layout; several faces are drawn side by side.
void drawFaces(const QImage& picture, const std::vector<Face>& faces, const char* name)
{
    const int side = 720;
    QImage out(side * std::max<int>(1, faces.size()), side, QImage::Format_RGB32);
    out.fill(Qt::black);
    QPainter p(&out);
    p.setRenderHint(QPainter::Antialiasing);
    QFont font = p.font();
    font.setPixelSize(12);
    p.setFont(font);
    for (size_t i = 0; i < faces.size(); ++i) {
        const Face& f = faces[i];
        // The box widened by half its size on each side, shown square.
        const double w = f.box[2] - f.box[0], h = f.box[3] - f.box[1];
        const double extent = std::max(w, h) * 2.0;
        const QPointF centre((f.box[0] + f.box[2]) / 2.0, (f.box[1] + f.box[3]) / 2.0);
        const QRectF source(centre.x() - extent / 2, centre.y() - extent / 2, extent, extent);
        const double k = side / extent;
        const QPointF origin(side * static_cast<double>(i), 0);
        auto map = [&](double x, double y) { return origin + QPointF((x - source.left()) * k, (y - source.top()) * k); };
        p.drawImage(QRectF(origin, QSizeF(side, side)), picture, source);
        p.setPen(QPen(Qt::yellow, 1));
        p.setBrush(Qt::NoBrush);
        p.drawRect(QRectF(map(f.box[0], f.box[1]), map(f.box[2], f.box[3])));
        for (int n = 0; n < 98; ++n) {
            const QPointF c = map(f.points[2 * n], f.points[2 * n + 1]);
            const QColor colour = n <= 32 ? Qt::green : n <= 50 ? Qt::cyan : n <= 59 ? Qt::magenta
                : n <= 75 ? QColor(80, 160, 255) : n <= 95 ? Qt::red : Qt::white;
            p.setPen(Qt::NoPen);
            p.setBrush(colour);
            p.drawEllipse(c, 3.0, 3.0);
            p.setPen(colour);
            p.drawText(c + QPointF(4, -3), QString::number(n));
        }
        p.setPen(Qt::white);
        p.drawText(origin + QPointF(10, 20), QString("pitch %1 yaw %2 roll %3 score %4")
                                                 .arg(f.triple[0])
                                                 .arg(f.triple[1])
                                                 .arg(f.triple[2])
                                                 .arg(f.floatsC[0], 0, 'f', 2));
    }
    out.save(testutil::outputPath(name));
}

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

void expectSameFace(const Face& a, const Face& b, double dx, double dy, double tolerance)
{
    ASSERT_EQ(a.points.size(), b.points.size());
    double worst = 0;
    for (int k = 0; k < 98; ++k) {
        const Pt pa = pt(a, k), pb = pt(b, k);
        worst = std::max(worst, dist({pa.x + dx, pa.y + dy}, pb));
    }
    EXPECT_LE(worst, tolerance);
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
    const QImage image = portrait();
    const std::vector<Face> faces = run(image);
    drawFaces(image, faces, "kvodnnl_portrait_points.png");
    ASSERT_EQ(faces.size(), 1u);
    const Face& f = faces[0];
    expectWellFormed(f);

    // Where the portrait's face is, checked once by eye on the drawing.
    EXPECT_NEAR(f.box[0], 181, 8);
    EXPECT_NEAR(f.box[1], 79, 8);
    EXPECT_NEAR(f.box[2], 274, 8);
    EXPECT_NEAR(f.box[3], 172, 8);
    EXPECT_NEAR(pt(f, 96).x, 203, 4);
    EXPECT_NEAR(pt(f, 96).y, 102, 4);
    EXPECT_NEAR(pt(f, 97).x, 247, 4);
    EXPECT_NEAR(pt(f, 97).y, 104, 4);

    // Eyes: centre inside each eye, corners at its ends, upper lid above the
    // centre and lower lid below it; the left eye on the picture's left.
    const Pt leftEye = pt(f, 96), rightEye = pt(f, 97);
    EXPECT_TRUE(bounds(f, 60, 67).contains(leftEye));
    EXPECT_TRUE(bounds(f, 68, 75).contains(rightEye));
    EXPECT_LT(leftEye.x, rightEye.x);
    EXPECT_EQ(bounds(f, 60, 67).left, pt(f, 60).x);
    EXPECT_EQ(bounds(f, 60, 67).right, pt(f, 64).x);
    EXPECT_EQ(bounds(f, 68, 75).left, pt(f, 68).x);
    EXPECT_EQ(bounds(f, 68, 75).right, pt(f, 72).x);
    for (int k : {61, 62, 63})
        EXPECT_LT(pt(f, k).y, leftEye.y) << k;
    for (int k : {65, 66, 67})
        EXPECT_GT(pt(f, k).y, leftEye.y) << k;
    for (int k : {69, 70, 71})
        EXPECT_LT(pt(f, k).y, rightEye.y) << k;
    for (int k : {73, 74, 75})
        EXPECT_GT(pt(f, k).y, rightEye.y) << k;
    // Derived lid points lie between their neighbours.
    EXPECT_GT(pt(f, 62).x, pt(f, 61).x);
    EXPECT_LT(pt(f, 62).x, pt(f, 63).x);
    EXPECT_LT(pt(f, 66).x, pt(f, 65).x);
    EXPECT_GT(pt(f, 66).x, pt(f, 67).x);
    // The centre is the mean of the six fitted eye points.
    const int fitted[] = {60, 61, 63, 64, 65, 67};
    double sx = 0, sy = 0;
    for (int k : fitted) {
        sx += pt(f, k).x;
        sy += pt(f, k).y;
    }
    EXPECT_LE(dist(leftEye, {sx / 6, sy / 6}), 1.5);

    // Brows above the eyes, each lower edge point under the upper edge and
    // above the eye.
    EXPECT_LT(bounds(f, 33, 41).bottom, leftEye.y);
    EXPECT_LT(bounds(f, 42, 50).bottom, rightEye.y);
    EXPECT_LT(bounds(f, 33, 37).bottom, bounds(f, 60, 67).top);
    EXPECT_LT(bounds(f, 42, 46).bottom, bounds(f, 68, 75).top);
    EXPECT_LT(bounds(f, 33, 41).right, bounds(f, 42, 50).left + 5);
    for (int k = 38; k <= 41; ++k)
        EXPECT_GT(pt(f, k).y, std::min(pt(f, 33 + (41 - k)).y, pt(f, 34 + (41 - k)).y)) << k;
    for (int k = 47; k <= 50; ++k)
        EXPECT_GT(pt(f, k).y, std::min(pt(f, 42 + (50 - k)).y, pt(f, 43 + (50 - k)).y)) << k;

    // Nose: the bridge runs down between the eyes, the base lies below it.
    for (int k = 51; k < 54; ++k)
        EXPECT_LT(pt(f, k).y, pt(f, k + 1).y) << k;
    EXPECT_GT(pt(f, 53).x, leftEye.x);
    EXPECT_LT(pt(f, 53).x, rightEye.x);
    EXPECT_GT(pt(f, 51).y, std::max(bounds(f, 33, 37).bottom, bounds(f, 42, 46).bottom) - 10);
    EXPECT_LT(pt(f, 55).x, pt(f, 59).x);

    // Mouth below the nose: corners are its ends, the inner upper middle (90)
    // above the inner lower middle (94) or on it, the upper lip's top (79)
    // above the lower lip's bottom (85).
    const Bounds mouth = bounds(f, 76, 95);
    EXPECT_GT(mouth.top, pt(f, 54).y);
    EXPECT_EQ(mouth.left, pt(f, 76).x);
    EXPECT_EQ(mouth.right, pt(f, 82).x);
    EXPECT_LE(pt(f, 90).y, pt(f, 94).y);
    EXPECT_LT(pt(f, 79).y, pt(f, 85).y);
    EXPECT_LT(pt(f, 79).y, pt(f, 90).y);

    // Contour: round the jaw from the picture's left to its right, the chin
    // (16) lowest and below the mouth; odd points halve their neighbours.
    EXPECT_LT(pt(f, 0).x, leftEye.x);
    EXPECT_GT(pt(f, 32).x, rightEye.x);
    EXPECT_EQ(bounds(f, 0, 32).bottom, pt(f, 16).y);
    EXPECT_GT(pt(f, 16).y, mouth.bottom);
    for (int k = 0; k < 16; ++k)
        EXPECT_LT(pt(f, k).x, pt(f, 32 - k).x) << k;
    for (int k = 1; k < 32; k += 2) {
        const Pt a = pt(f, k - 1), b = pt(f, k + 1);
        EXPECT_LE(dist(pt(f, k), {(a.x + b.x) / 2, (a.y + b.y) / 2}), 1.0) << k;
    }
    // Everything that the face filters use lies inside the box's
    // neighbourhood.
    for (int k = 0; k < 98; ++k) {
        EXPECT_GT(pt(f, k).x, f.box[0] - 30) << k;
        EXPECT_LT(pt(f, k).x, f.box[2] + 30) << k;
    }

    // The portrait looks into the lens with a slight lean.
    EXPECT_LE(std::abs(f.triple[0]), 10);
    EXPECT_LE(std::abs(f.triple[1]), 10);
    EXPECT_LE(std::abs(f.triple[2]), 8);
    EXPECT_FLOAT_EQ(std::round(f.floatsA.at(2)), static_cast<float>(f.triple[2]));
}

TEST_F(Kvodnnl, TwoPortraitsSideBySideGiveTwoFaces)
{
    const QImage single = portrait();
    QImage tiled(single.width() * 2, single.height(), QImage::Format_RGB32);
    {
        QPainter p(&tiled);
        p.drawImage(0, 0, single);
        p.drawImage(single.width(), 0, single);
    }
    std::vector<Face> faces = run(tiled);
    drawFaces(tiled, faces, "kvodnnl_two_faces.png");
    ASSERT_EQ(faces.size(), 2u);
    std::sort(faces.begin(), faces.end(), [](const Face& a, const Face& b) { return a.box[0] < b.box[0]; });
    expectWellFormed(faces[0]);
    expectWellFormed(faces[1]);
    EXPECT_LT(faces[0].box[2], single.width());
    EXPECT_GE(faces[1].box[0], single.width());
    expectSameFace(faces[0], faces[1], single.width(), 0, 4.0);
}

TEST_F(Kvodnnl, TurnedPortraitIsFoundAndRollFollowsTheTurn)
{
    const QImage image = portrait();
    const std::vector<Face> upright = run(image, true);
    ASSERT_EQ(upright.size(), 1u);
    const int baseRoll = upright[0].triple[2];

    for (int degrees : {20, -20}) {
        SCOPED_TRACE(degrees);
        const QImage turned = rotated(image, degrees);
        const std::vector<Face> faces = run(turned, true);
        drawFaces(turned, faces, degrees > 0 ? "kvodnnl_turned_plus20.png" : "kvodnnl_turned_minus20.png");
        ASSERT_EQ(faces.size(), 1u);
        const Face& f = faces[0];
        expectWellFormed(f);
        // Clockwise as seen gives a positive roll.
        EXPECT_NEAR(f.triple[2], baseRoll + degrees, 7);
        // The roll agrees with the line through the eye centres.
        const Pt a = pt(f, 96), b = pt(f, 97);
        const double eyeLine = std::atan2(b.y - a.y, b.x - a.x) * 180.0 / M_PI;
        EXPECT_NEAR(f.triple[2], eyeLine, 6);
        // The eye centres moved where the turn takes them.
        const QTransform turn = QTransform()
                                    .translate(image.width() / 2.0, image.height() / 2.0)
                                    .rotate(degrees)
                                    .translate(-image.width() / 2.0, -image.height() / 2.0);
        const Pt u = pt(upright[0], 96);
        const QPointF expected = turn.map(QPointF(u.x, u.y));
        EXPECT_LE(dist(a, {expected.x(), expected.y()}), 6.0);
    }
}

TEST_F(Kvodnnl, BlankAndPlainPicturesHaveNoFace)
{
    QImage blank(640, 480, QImage::Format_RGB32);
    blank.fill(QColor(200, 200, 200));
    EXPECT_TRUE(run(blank).empty());
    QImage gradient(640, 480, QImage::Format_RGB32);
    for (int y = 0; y < 480; ++y)
        for (int x = 0; x < 640; ++x)
            gradient.setPixel(x, y, qRgb(x * 255 / 640, y * 255 / 480, 90));
    EXPECT_TRUE(run(gradient).empty());
}

TEST_F(Kvodnnl, EachPictureGetsItsOwnResult)
{
    const QImage face = portrait();
    const QSize canvas(800, 600);
    const QImage here = onCanvas(face, canvas, QPoint(0, 0));
    const QImage there = onCanvas(face, canvas, QPoint(230, 70));
    QImage erased = here.copy();
    {
        // Same picture with the face painted over: most of it is unchanged.
        QPainter p(&erased);
        p.fillRect(QRect(160, 50, 140, 150), QColor(180, 140, 120));
    }
    QImage blank(canvas, QImage::Format_RGB32);
    blank.fill(QColor(120, 120, 120));

    const std::vector<Face> first = run(here);
    ASSERT_EQ(first.size(), 1u);

    // A still picture after a different one: never the old face's points.
    EXPECT_TRUE(run(blank).empty());
    EXPECT_TRUE(run(blank).empty());
    const std::vector<Face> again = run(here);
    ASSERT_EQ(again.size(), 1u);
    expectSameFace(first[0], again[0], 0, 0, 3.0);

    EXPECT_TRUE(run(erased).empty());
    ASSERT_EQ(run(here).size(), 1u);

    const std::vector<Face> moved = run(there);
    ASSERT_EQ(moved.size(), 1u);
    EXPECT_NEAR(moved[0].box[0], first[0].box[0] + 230, 6);
    EXPECT_NEAR(moved[0].box[1], first[0].box[1] + 70, 6);
    expectSameFace(first[0], moved[0], 230, 70, 4.0);

    // Another picture of another size straight after.
    QImage tiled(1024, 512, QImage::Format_RGB32);
    {
        QPainter p(&tiled);
        p.drawImage(0, 0, face);
        p.drawImage(512, 0, face);
    }
    EXPECT_EQ(run(tiled).size(), 2u);
    EXPECT_EQ(run(face).size(), 1u);
}

TEST_F(Kvodnnl, SteadyStreamKeepsTheFace)
{
    // A still face over many calls: followed near its place, searched anew
    // now and then, and always the same points within a pixel or two.
    const QImage image = onCanvas(portrait(), QSize(1280, 720), QPoint(380, 100));
    const std::vector<Face> first = run(image, true);
    ASSERT_EQ(first.size(), 1u);
    for (int i = 0; i < 25; ++i) {
        const std::vector<Face> faces = run(image);
        ASSERT_EQ(faces.size(), 1u) << "call " << i;
        expectSameFace(first[0], faces[0], 0, 0, 3.0);
    }

    // A face moving a little each frame is followed.
    for (int step = 1; step <= 10; ++step) {
        const std::vector<Face> faces = run(onCanvas(portrait(), QSize(1280, 720), QPoint(380 + 6 * step, 100)));
        ASSERT_EQ(faces.size(), 1u) << "step " << step;
        EXPECT_NEAR(faces[0].points[192], first[0].points[192] + 6 * step, 4) << "step " << step;
    }
}

TEST_F(Kvodnnl, FourChannelsAndOddInputs)
{
    const QImage image = portrait();
    const cv::Mat rgb = toRgb(image);
    cv::Mat rgba;
    cv::cvtColor(rgb, rgba, cv::COLOR_RGB2RGBA);
    const std::vector<Face> three = detector.Run(rgb, true, false, 1, 1, 50.0f);
    const std::vector<Face> four = detector.Run(rgba, true, false, 1, 1, 50.0f);
    ASSERT_EQ(three.size(), 1u);
    ASSERT_EQ(four.size(), 1u);
    expectSameFace(three[0], four[0], 0, 0, 1.0);

    // A padded sub-view of a larger picture.
    cv::Mat wide(600, 700, CV_8UC3, cv::Scalar(120, 120, 120));
    rgb.copyTo(wide(cv::Rect(50, 40, rgb.cols, rgb.rows)));
    const std::vector<Face> view = detector.Run(wide(cv::Rect(50, 40, rgb.cols, rgb.rows)), true, false, 1, 1, 50.f);
    ASSERT_EQ(view.size(), 1u);
    expectSameFace(three[0], view[0], 0, 0, 1.0);

    testing::internal::CaptureStderr();
    EXPECT_TRUE(detector.Run(cv::Mat(), false, false, 1, 1, 50.f).empty());
    cv::Mat grey;
    cv::cvtColor(rgb, grey, cv::COLOR_RGB2GRAY);
    EXPECT_TRUE(detector.Run(grey, false, false, 1, 1, 50.f).empty());
    cv::Mat deep;
    rgb.convertTo(deep, CV_16UC3, 256.0);
    EXPECT_TRUE(detector.Run(deep, false, false, 1, 1, 50.f).empty());
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("kvodnnl: pictures must have 8 bits a channel and 3 or 4 channels"), std::string::npos) << err;
    // Warned once per detector, not per call.
    EXPECT_EQ(err.find("kvodnnl: pictures must"), err.rfind("kvodnnl: pictures must"));

    // Still works after the refused pictures.
    EXPECT_EQ(detector.Run(rgb, false, false, 1, 1, 50.f).size(), 1u);
}

TEST(KvodnnlModel, MissingOrBrokenModelWarnsOnceAndFindsNothing)
{
    const cv::Mat rgb = toRgb(portrait());
    const std::string missing = testutil::outputPath("no_such_landmark_model.dat").toStdString();
    const std::string broken = testutil::outputPath("broken_landmark_model.dat").toStdString();
    std::remove(missing.c_str());
    {
        std::ofstream out(broken, std::ios::binary);
        out << "this is not a landmark model";
    }

    for (const std::string& path : {missing, broken}) {
        SCOPED_TRACE(path);
        setenv("KVODNNL_LANDMARK_MODEL", path.c_str(), 1);
        testing::internal::CaptureStderr();
        {
            KVOAI::FaceDetector first(KVOAI::DEFAULT, 1, 1);
            KVOAI::FaceDetector second(KVOAI::DEFAULT, 1, 1);
            EXPECT_TRUE(first.Run(rgb, false, false, 1, 1, 50.f).empty());
            EXPECT_TRUE(first.Run(rgb, false, false, 1, 1, 50.f).empty());
            EXPECT_TRUE(second.Run(rgb, false, false, 1, 1, 50.f).empty());
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
