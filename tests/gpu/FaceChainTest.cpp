// The face passes of the channel worker: their fixed order, the passes that
// a frame without faces skips, and what each pass changes on the portrait
// with a face placed on it by hand. Each result is compared with the input
// pixel by pixel, and where the maths is simple with a CPU evaluation.
#include <algorithm>
#include <cmath>
#include <vector>

#include <gtest/gtest.h>

#include <opencv2/imgproc.hpp>

#include "face/FaceDetectResult.h"
#include "filters/OpenglFaceAreaFilter.h"
#include "filters/OpenglSlimFaceFilter.h"
#include "filters/OpenglSmoothAndWhiteningFilter.h"
#include "filters/OpenglWhiteningFilter.h"
#include "gpu/GlTestSupport.h"
#include "gpu/OpenglChannelWorker.h"
#include "lumen_fx/ImageFilterTypes.h"
#include "TestUtil.h"

namespace {

// A face on the portrait: box, eyes, nose, mouth and a jaw line, as the
// detector's 98 points (contour 0 to 32 from the left temple over the chin to
// the right, 53 on the nose, 76 to 95 the lips, 96 and 97 the eyes).
struct Face {
    cv::Rect box{178, 80, 94, 105};
    int cx = 224;
    int eyeY = 115;
    int chinY = 185;
    int halfWidth = 46;
    int mouthX = 223;
    int mouthY = 146;
    int mouthHalfWidth = 20;
};

// The 20 lip points around (0, 0) for a half width of 40: outer 0 to 11 over
// the top and back along the bottom, inner 12 to 19. Closed lips.
const int kLipPattern[40] = {-40, 0,  -30, -10, -15, -15, 0,  -12, 15,  -15, 30,  -10, 40, 0,  30,  10, 15, 15, 0,  17,
                             -15, 15, -30, 10,  -30, 0,   -15, -3,  0,  -3,  15,  -3,  30, 0,  15,  1,  0,  1,  -15, 1};

std::vector<int> keyPoints(const Face& f)
{
    std::vector<int> p(196, 0);
    auto set = [&p](int k, double x, double y) {
        p[2 * k] = static_cast<int>(std::lround(x));
        p[2 * k + 1] = static_cast<int>(std::lround(y));
    };
    for (int k = 0; k <= 32; ++k) {
        const double a = M_PI * k / 32.0;
        set(k, f.cx - f.halfWidth * std::cos(a), f.eyeY + (f.chinY - f.eyeY) * std::sin(a));
    }
    for (int k = 33; k <= 75; ++k)  // brows, nose and eyes: inside the face
        set(k, f.cx - 21 + k - 33, f.eyeY - 5);
    set(53, f.cx, f.eyeY + 15);
    const double s = f.mouthHalfWidth / 40.0;
    for (int n = 0; n < 20; ++n)
        set(76 + n, f.mouthX + kLipPattern[2 * n] * s, f.mouthY + kLipPattern[2 * n + 1] * s);
    set(96, f.cx - 22, f.eyeY);
    set(97, f.cx + 22, f.eyeY);
    return p;
}

FaceDetectResult detection(const Face& f)
{
    FaceDetectResult r;
    r.faceRects = {f.box};
    r.keyPoints = {keyPoints(f)};
    r.faceTriplets = {{0, 0, 0}};
    r.faceValueLists = {{1.0f}};
    return r;
}

QImage portrait()
{
    QImage image(testutil::testDataPath("astronaut.png"));
    return image.convertToFormat(QImage::Format_RGBA8888);
}

QImage render(OpenglChannelWorker& worker, const OpenglChannelWorker::FilterMap& filters, const QImage& input,
             bool firstFaceOnly = false)
{
    QImage frame = input.copy();
    worker.renderFaceFilters(filters, frame, false, firstFaceOnly, false);
    QImage out(input.width(), input.height(), QImage::Format_RGBA8888);
    out.fill(Qt::transparent);
    worker.readLastFboByAlpha(out.bits(), input.width(), input.height(), true);
    return out;
}

int channelDiff(QRgb a, QRgb b)
{
    return std::max({std::abs(qRed(a) - qRed(b)), std::abs(qGreen(a) - qGreen(b)), std::abs(qBlue(a) - qBlue(b)),
                     std::abs(qAlpha(a) - qAlpha(b))});
}

int maxDiff(const QImage& a, const QImage& b)
{
    int worst = 0;
    for (int y = 0; y < a.height(); ++y)
        for (int x = 0; x < a.width(); ++x)
            worst = std::max(worst, channelDiff(a.pixel(x, y), b.pixel(x, y)));
    return worst;
}

void save(const QImage& image, const char* name)
{
    image.save(testutil::outputPath(name));
}

// The face region of a result beside the input, and their difference
// amplified tenfold, for a person to look at.
void saveComparison(const QImage& input, const QImage& out, const char* name)
{
    const QRect face(124, 50, 200, 200);
    QImage sheet(600, 200, QImage::Format_RGBA8888);
    sheet.fill(Qt::black);
    for (int y = 0; y < 200; ++y)
        for (int x = 0; x < 200; ++x) {
            const QRgb a = input.pixel(face.x() + x, face.y() + y), b = out.pixel(face.x() + x, face.y() + y);
            sheet.setPixel(x, y, a);
            sheet.setPixel(200 + x, y, b);
            auto amp = [](int v) { return std::min(255, std::abs(v) * 10); };
            sheet.setPixel(400 + x, y, qRgb(amp(qRed(a) - qRed(b)), amp(qGreen(a) - qGreen(b)), amp(qBlue(a) - qBlue(b))));
        }
    sheet.save(testutil::outputPath(name));
}

// The whitening of one pixel, as the fragment shader computes it.
struct Rgb {
    double r, g, b;
};
double luma(const Rgb& c) { return c.r * 0.299 + c.g * 0.587 + c.b * 0.114; }
double mixd(double a, double b, double t) { return a + (b - a) * t; }
double clamp01(double v) { return std::min(1.0, std::max(0.0, v)); }
Rgb screen(const Rgb& c)
{
    return {1 - (1 - c.r) * (1 - c.r), 1 - (1 - c.g) * (1 - c.g), 1 - (1 - c.b) * (1 - c.b)};
}

Rgb whiten(Rgb c, double strength)
{
    const double whitening = strength / 100, redden = strength / 200, pinking = strength / 100;
    if (whitening != 0) {
        const Rgb s = screen(c);
        const double t = whitening * luma(c);
        c = {clamp01(mixd(c.r, s.r, t)), clamp01(mixd(c.g, s.g, t)), clamp01(mixd(c.b, s.b, t))};
    }
    if (redden != 0) {
        const Rgb s = screen(c);
        const Rgb red{mixd(c.r, s.r, 0.2 * redden), mixd(c.g, s.g, 0.2 * redden), mixd(c.b, s.b, 0.2 * redden)};
        const double l = luma(red);
        const Rgb t3{mixd(l, red.r, 1 + redden), mixd(l, red.g, 1 + redden), mixd(l, red.b, 1 + redden)};
        const Rgb t4{t3.r, t3.g, mixd(t3.g, t3.b, 0.5)};
        const double t5 = luma(t4);
        const Rgb m{mixd(t4.r, std::sqrt(t4.r), t5), mixd(t4.g, std::sqrt(t4.g), t5), mixd(t4.b, std::sqrt(t4.b), t5)};
        c = {clamp01(mixd(t3.r, m.r, redden * t5)), clamp01(mixd(t3.g, m.g, redden * t5)),
             clamp01(mixd(t3.b, m.b, redden * t5))};
    }
    if (pinking != 0) {
        const Rgb pink{std::sqrt(c.r) * 0.41 + 0.59 * c.r, std::sqrt(c.g) * 0.568 + 0.432 * c.g,
                       std::sqrt(c.b) * 0.7640001 + 0.2359999 * c.b};
        const double t = pinking * luma(c);
        c = {clamp01(mixd(c.r, pink.r, t)), clamp01(mixd(c.g, pink.g, t)), clamp01(mixd(c.b, pink.b, t))};
    }
    return c;
}

}  // namespace

TEST(FaceChain, EmptyMapGivesTheInputBack)
{
    const QImage input = portrait();
    ASSERT_FALSE(input.isNull());
    OpenglChannelWorker worker(1, 1);
    const QImage out = render(worker, {}, input);
    EXPECT_LE(maxDiff(out, input), 1);
    EXPECT_FALSE(worker.isPingPong());
}

TEST(FaceChain, WithoutFacesOnlyWhiteningDraws)
{
    const QImage input = portrait();
    OpenglSlimFaceFilter slim;
    OpenglFaceAreaFilter lips, smooth;
    OpenglWhiteningFilter whitening;
    slim.setParas({{slim_face_strength, 300}});
    lips.setParas({{redlips_strength, 400}});
    smooth.setParas({{smooth_strength, 100}});
    whitening.setParas({{whitening_strength, 60}});
    const FaceDetectResult none;
    for (BeautyFilterBase* f : std::vector<BeautyFilterBase*>{&slim, &lips, &smooth, &whitening})
        f->updateFaceInfo(none, input.width(), input.height());

    OpenglChannelWorker worker(1, 1);
    // The face passes alone change nothing.
    const QImage unchanged = render(worker, {{SLIMFACE, &slim}, {REDLIPS, &lips}, {SMOOTH, &smooth}}, input);
    EXPECT_LE(maxDiff(unchanged, input), 1);

    // Whitening draws once, on the whole picture, with the filter's own map.
    const QImage out =
        render(worker, {{SLIMFACE, &slim}, {REDLIPS, &lips}, {SMOOTH, &smooth}, {WHITENING, &whitening}}, input);
    save(input, "facechain_input.png");
    save(out, "facechain_whitening_noface.png");
    EXPECT_FALSE(worker.isPingPong()) << "the result is settled in fbo";
    const QPoint probes[] = {{10, 10}, {220, 120}, {100, 300}, {300, 400}, {450, 30}, {40, 480}, {250, 160}};
    for (const QPoint& p : probes) {
        const QRgb in = input.pixel(p);
        const Rgb expected = whiten({qRed(in) / 255.0, qGreen(in) / 255.0, qBlue(in) / 255.0}, 60);
        const QRgb got = out.pixel(p);
        EXPECT_NEAR(qRed(got), expected.r * 255, 1.01) << p.x() << "," << p.y();
        EXPECT_NEAR(qGreen(got), expected.g * 255, 1.01) << p.x() << "," << p.y();
        EXPECT_NEAR(qBlue(got), expected.b * 255, 1.01) << p.x() << "," << p.y();
        EXPECT_EQ(qAlpha(got), 255);
    }
    EXPECT_GT(maxDiff(out, input), 10);
}

TEST(FaceChain, SmoothAndWhiteningAloneGetsTheFirstPassOnly)
{
    const QImage input = portrait();
    OpenglSmoothAndWhiteningFilter both;
    both.setParas({{smooth_whitening_strength, 100}});
    both.updateFaceInfo(detection(Face()), input.width(), input.height());
    OpenglChannelWorker worker(1, 1);
    EXPECT_LE(maxDiff(render(worker, {{SMOOTHWHITENING, &both}}, input), input), 1);
}

TEST(FaceChain, SmoothChangesOnlyTheFaceArea)
{
    const QImage input = portrait();
    OpenglFaceAreaFilter smooth;
    smooth.setParas({{smooth_strength, 100}});
    smooth.updateFaceInfo(detection(Face()), input.width(), input.height());
    ASSERT_EQ(smooth.faceParas().size(), 1u);
    const auto face = smooth.faceParas()[0];
    const double ax = face.at(face_area_x), ay = face.at(face_area_y);
    const double aw = face.at(face_area_width), ah = face.at(face_area_height);

    OpenglChannelWorker worker(1, 1);
    const QImage out = render(worker, {{SMOOTH, &smooth}}, input);
    save(out, "facechain_smooth.png");
    saveComparison(input, out, "facechain_smooth_compare.png");
    EXPECT_FALSE(worker.isPingPong());

    // The weight of the shader: a gaussian over the face area, cut at exp(-4).
    int changedInside = 0, changedOutside = 0;
    for (int y = 0; y < input.height(); ++y)
        for (int x = 0; x < input.width(); ++x) {
            const double fx = ((x + 0.5) / input.width() - ax / input.width()) / (aw / input.width());
            const double fy = ((y + 0.5) / input.height() - ay / input.height()) / (ah / input.height());
            const double weight = std::exp(-(std::pow((fx - 0.5) / 0.4, 2) + std::pow((fy - 0.5) / 0.4, 2)) / 2);
            const bool changed = out.pixel(x, y) != input.pixel(x, y);
            if (weight < std::exp(-4.0) * 0.95 && changed)
                ++changedOutside;
            if (weight > 0.5 && channelDiff(out.pixel(x, y), input.pixel(x, y)) > 1)
                ++changedInside;
        }
    EXPECT_EQ(changedOutside, 0) << "a pixel outside the weight keeps its colour exactly";
    EXPECT_GT(changedInside, 1000) << "the face itself is smoothed";
    EXPECT_EQ(out.pixel(5, 5), input.pixel(5, 5));
    EXPECT_EQ(out.pixel(400, 450), input.pixel(400, 450));
}

TEST(FaceChain, RedLipsColourOnlyTheMouth)
{
    const QImage input = portrait();
    const Face f;
    OpenglFaceAreaFilter lips;
    lips.setParas({{redlips_strength, 400}});
    lips.updateFaceInfo(detection(f), input.width(), input.height());
    ASSERT_EQ(lips.mouthPoints().size(), 1u);
    const auto face = lips.faceParas()[0];
    const int d = static_cast<int>(face.at(face_area_height) / 100.0);

    // The two lips as the mesh has them: shifted outer points, convex hulls.
    const std::vector<int> m = lips.mouthPoints()[0];
    std::vector<cv::Point2f> upper, lower, upperHull, lowerHull;
    for (int i = 0; i < 20; ++i) {
        float y = static_cast<float>(m[2 * i + 1]);
        if (i >= 2 && i <= 4)
            y -= d;
        if (i == 3)
            y += d / 2;
        if (i <= 6 || (i >= 13 && i <= 15))
            upper.emplace_back(static_cast<float>(m[2 * i]), y);
        float ly = static_cast<float>(m[2 * i + 1]);
        if (i >= 7 && i <= 11)
            ly += d;
        if (i == 0 || (i >= 6 && i <= 11) || i >= 17)
            lower.emplace_back(static_cast<float>(m[2 * i]), ly);
    }
    cv::convexHull(upper, upperHull);
    cv::convexHull(lower, lowerHull);

    OpenglChannelWorker worker(1, 1);
    const QImage out = render(worker, {{REDLIPS, &lips}}, input);
    save(out, "facechain_redlips.png");
    saveComparison(input, out, "facechain_redlips_compare.png");
    save(out.copy(f.mouthX - 40, f.mouthY - 30, 80, 60).scaled(320, 240), "facechain_redlips_mouth.png");
    EXPECT_FALSE(worker.isPingPong());

    const double t = 400.0 / 800.0;
    int inside = 0, outsideChanged = 0;
    for (int y = 0; y < input.height(); ++y)
        for (int x = 0; x < input.width(); ++x) {
            const cv::Point2f c(x + 0.5f, y + 0.5f);
            const double depth =
                std::max(cv::pointPolygonTest(upperHull, c, true), cv::pointPolygonTest(lowerHull, c, true));
            const QRgb in = input.pixel(x, y), got = out.pixel(x, y);
            if (depth < -1.5 && channelDiff(in, got) > 1)
                ++outsideChanged;
            if (depth > 1.5) {
                ++inside;
                EXPECT_NEAR(qRed(got), mixd(qRed(in), 128.0, t), 1.01) << x << "," << y;
                EXPECT_NEAR(qGreen(got), mixd(qGreen(in), 0.122 * 255, t), 1.01) << x << "," << y;
                EXPECT_NEAR(qBlue(got), mixd(qBlue(in), 0.102 * 255, t), 1.01) << x << "," << y;
            }
        }
    EXPECT_GT(inside, 50);
    EXPECT_EQ(outsideChanged, 0);
}

TEST(FaceChain, RedLipsSkipsAFaceAtTheBorder)
{
    const QImage input = portrait();
    Face f;
    f.box.x = 0;  // detected box starting at 0: below 1
    OpenglFaceAreaFilter lips;
    lips.setParas({{redlips_strength, 400}});
    lips.updateFaceInfo(detection(f), input.width(), input.height());
    ASSERT_EQ(lips.faceParas().size(), 1u);
    OpenglChannelWorker worker(1, 1);
    EXPECT_LE(maxDiff(render(worker, {{REDLIPS, &lips}}, input), input), 1);
}

TEST(FaceChain, SlimFaceMovesOnlyPixelsNearTheJaw)
{
    const QImage input = portrait();
    const Face f;
    const std::vector<int> points = keyPoints(f);
    OpenglSlimFaceFilter slim;
    slim.updateFaceInfo(detection(f), input.width(), input.height());
    ASSERT_EQ(slim.facePoints().size(), 1u);

    OpenglChannelWorker worker(1, 1);
    slim.setParas({{slim_face_strength, 0}});
    EXPECT_LE(maxDiff(render(worker, {{SLIMFACE, &slim}}, input), input), 1) << "strength 0 warps nothing";

    slim.setParas({{slim_face_strength, 300}});
    slim.updateFaceInfo(detection(f), input.width(), input.height());
    const QImage out = render(worker, {{SLIMFACE, &slim}}, input);
    save(out, "facechain_slimface.png");
    saveComparison(input, out, "facechain_slimface_compare.png");
    EXPECT_FALSE(worker.isPingPong());

    // Every warp reaches one eye distance around a contour point 5 to 27
    // (16 excepted); the chained moves add a few pixels at most.
    const double radius = std::hypot(points[2 * 96] - points[2 * 97], points[2 * 96 + 1] - points[2 * 97 + 1]) + 4;
    int changed = 0, farChanged = 0;
    for (int y = 0; y < input.height(); ++y)
        for (int x = 0; x < input.width(); ++x) {
            if (channelDiff(out.pixel(x, y), input.pixel(x, y)) <= 1)
                continue;
            ++changed;
            double nearest = 1e9;
            for (int k = 5; k <= 27; ++k)
                if (k != 16)
                    nearest = std::min(nearest, std::hypot(x + 0.5 - points[2 * k], y + 0.5 - points[2 * k + 1]));
            if (nearest > radius)
                ++farChanged;
        }
    EXPECT_GT(changed, 200) << "the jaw moves";
    EXPECT_EQ(farChanged, 0);
}

TEST(FaceChain, SlimFaceFirstFaceOnlyLeavesTheSecondFaceAlone)
{
    const QImage input = portrait();
    Face second;
    second.box = cv::Rect(330, 300, 94, 105);
    second.cx = 376;
    second.eyeY = 335;
    second.chinY = 405;
    second.mouthX = 375;
    second.mouthY = 366;
    FaceDetectResult r = detection(Face());
    const FaceDetectResult other = detection(second);
    r.faceRects.push_back(other.faceRects[0]);
    r.keyPoints.push_back(other.keyPoints[0]);
    OpenglSlimFaceFilter slim;
    slim.setParas({{slim_face_strength, 300}});
    slim.updateFaceInfo(r, input.width(), input.height());
    ASSERT_EQ(slim.faceParas().size(), 2u);

    auto changedAround = [&input](const QImage& out, const Face& f) {
        int changed = 0;
        for (int y = f.box.y; y < f.box.y + f.box.height; ++y)
            for (int x = f.box.x; x < f.box.x + f.box.width; ++x)
                changed += channelDiff(out.pixel(x, y), input.pixel(x, y)) > 1;
        return changed;
    };
    OpenglChannelWorker worker(1, 1);
    const QImage both = render(worker, {{SLIMFACE, &slim}}, input, false);
    const QImage first = render(worker, {{SLIMFACE, &slim}}, input, true);
    save(both, "facechain_slimface_two.png");
    EXPECT_GT(changedAround(both, Face()), 200);
    EXPECT_GT(changedAround(both, second), 200);
    EXPECT_GT(changedAround(first, Face()), 200);
    EXPECT_EQ(changedAround(first, second), 0) << "only the first face is warped";
}

TEST(FaceChain, FaceWithTooFewPointsIsSkippedWithAWarning)
{
    const QImage input = portrait();
    Face f;
    FaceDetectResult r = detection(f);
    r.keyPoints[0].resize(100);
    OpenglSlimFaceFilter slim;
    slim.setParas({{slim_face_strength, 300}});
    slim.updateFaceInfo(r, input.width(), input.height());
    OpenglChannelWorker worker(1, 1);
    gltest::LogCapture log;
    EXPECT_LE(maxDiff(render(worker, {{SLIMFACE, &slim}}, input), input), 1);
    EXPECT_TRUE(log.contains("[OpenglChannelWorker::drawSlimFace]"));
}
