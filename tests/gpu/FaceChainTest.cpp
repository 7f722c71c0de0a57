// The face passes of the channel worker on the portrait with a face placed
// on it by hand: the passes that leave a frame as it is, and what each
// drawing pass changes, pixel by pixel, against the input and the CPU
// formulas.
#include <cmath>
#include <functional>
#include <vector>

#include <gtest/gtest.h>

#include "LogCapture.h"
#include "face/FaceDetectResult.h"
#include "filters/OpenglFaceAreaFilter.h"
#include "filters/OpenglSlimFaceFilter.h"
#include "filters/OpenglSmoothAndWhiteningFilter.h"
#include "filters/OpenglWhiteningFilter.h"
#include "gpu/GlTestSupport.h"
#include "gpu/OpenglChannelWorker.h"
#include "lumen_fx/ImageFilterTypes.h"
#include "shader/ShaderReference.h"

namespace {

// A face on the portrait as the detector's 98 points: the contour 0 to 32
// from the left temple over the chin (eyeY to chinY) to the right, brows,
// nose and eyes inside, 53 on the nose, 76 to 95 the closed lips around the
// mouth, 96 and 97 the eyes.
struct Face {
    cv::Rect box{178, 80, 94, 105};
    int cx = 224, eyeY = 115, chinY = 185, mouthX = 223, mouthY = 146;
};

// The 20 lip points around (0, 0) at half size: outer 0 to 11 over the top
// and back along the bottom, inner 12 to 19.
const int kLipPattern[40] = {-40, 0,  -30, -10, -15, -15, 0,  -12, 15,  -15, 30,  -10, 40, 0,  30,  10, 15, 15, 0,  17,
                             -15, 15, -30, 10,  -30, 0,   -15, -3,  0,  -3,  15,  -3,  30, 0,  15,  1,  0,  1,  -15, 1};

FaceDetectResult detection(const std::vector<Face>& faces)
{
    FaceDetectResult r;
    for (const Face& f : faces) {
        std::vector<int> p(196, 0);
        auto set = [&p](int k, double x, double y) {
            p[2 * k] = static_cast<int>(std::lround(x));
            p[2 * k + 1] = static_cast<int>(std::lround(y));
        };
        for (int k = 0; k <= 32; ++k)
            set(k, f.cx - 46 * std::cos(M_PI * k / 32), f.eyeY + (f.chinY - f.eyeY) * std::sin(M_PI * k / 32));
        for (int k = 33; k <= 75; ++k)
            set(k, f.cx - 21 + k - 33, f.eyeY - 5);
        set(53, f.cx, f.eyeY + 15);
        for (int n = 0; n < 20; ++n)
            set(76 + n, f.mouthX + kLipPattern[2 * n] * 0.5, f.mouthY + kLipPattern[2 * n + 1] * 0.5);
        set(96, f.cx - 22, f.eyeY);
        set(97, f.cx + 22, f.eyeY);
        r.faceRects.push_back(f.box);
        r.keyPoints.push_back(p);
    }
    return r;
}

Face secondFace()
{
    Face f;
    f.box = cv::Rect(330, 300, 94, 105);
    f.cx = 376;
    f.eyeY = 335;
    f.chinY = 405;
    f.mouthX = 375;
    f.mouthY = 366;
    return f;
}

const QImage& portrait()
{
    static const QImage image =
        QImage(testutil::testDataPath("astronaut.png")).convertToFormat(QImage::Format_RGBA8888);
    return image;
}

// The filters of a frame, each with its strength and the frame's faces.
struct Filters {
    OpenglSlimFaceFilter slim;
    OpenglFaceAreaFilter lips, smooth;
    OpenglWhiteningFilter whitening;
    OpenglSmoothAndWhiteningFilter both;

    explicit Filters(const FaceDetectResult& faces, double strength = 100)
    {
        slim.setParas({{slim_face_strength, strength}});
        lips.setParas({{redlips_strength, strength}});
        smooth.setParas({{smooth_strength, strength}});
        whitening.setParas({{whitening_strength, strength}});
        both.setParas({{smooth_whitening_strength, strength}});
        for (const auto& f : of({SLIMFACE, REDLIPS, SMOOTH, WHITENING, SMOOTHWHITENING}))
            f.second->updateFaceInfo(faces, portrait().width(), portrait().height());
    }
    OpenglChannelWorker::FilterMap of(const std::vector<ImageFilterType>& types)
    {
        const OpenglChannelWorker::FilterMap all = {
            {SLIMFACE, &slim}, {REDLIPS, &lips}, {SMOOTH, &smooth}, {WHITENING, &whitening}, {SMOOTHWHITENING, &both}};
        OpenglChannelWorker::FilterMap chosen;
        for (ImageFilterType type : types)
            chosen[type] = all.at(type);
        return chosen;
    }
};

QImage render(const OpenglChannelWorker::FilterMap& filters, bool firstFaceOnly = false)
{
    static OpenglChannelWorker worker(1, 1);
    QImage frame = portrait().copy();
    worker.renderFaceFilters(filters, frame, false, firstFaceOnly, false);
    EXPECT_NE(worker.glContext(), nullptr) << "the worker has no GL context";
    EXPECT_FALSE(worker.isPingPong()) << "the result is settled in fbo";
    QImage out(frame.size(), QImage::Format_RGBA8888);
    worker.readLastFboByAlpha(out.bits(), out.width(), out.height(), true);
    return out;
}

// Pixels of `area` that differ from the portrait by more than 1.
int changedIn(const QImage& out, const QRect& area)
{
    int changed = 0;
    for (int y = area.top(); y <= area.bottom(); ++y)
        for (int x = area.left(); x <= area.right(); ++x) {
            const QRgb a = out.pixel(x, y), b = portrait().pixel(x, y);
            changed += std::abs(qRed(a) - qRed(b)) > 1 || std::abs(qGreen(a) - qGreen(b)) > 1 ||
                       std::abs(qBlue(a) - qBlue(b)) > 1 || std::abs(qAlpha(a) - qAlpha(b)) > 1;
        }
    return changed;
}

}  // namespace

TEST(FaceChain, PassesWithoutWorkGiveTheInputBack)
{
    Face atBorder;
    atBorder.box.x = 0;  // a detected box from x 0 gets no lips
    FaceDetectResult fewPoints = detection({Face()});
    fewPoints.keyPoints[0].resize(100);
    const FaceDetectResult none;
    struct Case {
        const char* label;
        FaceDetectResult faces;
        double strength;
        std::vector<ImageFilterType> types;
        const char* warning;
    } cases[] = {
        {"nothing", none, 100, {}, nullptr},
        {"face passes without faces", none, 400, {SLIMFACE, REDLIPS, SMOOTH}, nullptr},
        {"smooth and whitening alone", detection({Face()}), 100, {SMOOTHWHITENING}, nullptr},
        {"lips at the border", detection({atBorder}), 400, {REDLIPS}, nullptr},
        {"slim at strength 0", detection({Face()}), 0, {SLIMFACE}, nullptr},
        {"slim with too few points", fewPoints, 300, {SLIMFACE}, "[OpenglChannelWorker::drawSlimFace]"},
    };
    for (const Case& c : cases) {
        Filters filters(c.faces, c.strength);
        LogCapture log;
        EXPECT_TRUE(gltest::sameImage(render(filters.of(c.types)), portrait(), 1, c.label)) << c.label;
        EXPECT_TRUE(!c.warning || log.contains(c.warning)) << c.label;
    }
}

TEST(FaceChain, WhiteningDrawsOnceOverTheWholePicture)
{
    // Even without faces, and after face passes that draw nothing, with the
    // filter's own strength.
    Filters filters(FaceDetectResult(), 60);
    const QImage out = render(filters.of({SLIMFACE, REDLIPS, SMOOTH, WHITENING}));
    const QImage expected = reference::mapPixels(
        portrait(), [](reference::Colour c, int, int) { return reference::whitenAtStrength(c, 60); });
    EXPECT_TRUE(gltest::sameImage(out, expected, 1));
}

TEST(FaceChain, SmoothChangesOnlyTheFaceArea)
{
    Filters filters(detection({Face()}));
    const auto face = filters.smooth.faceParas().at(0);
    const QImage out = render({{SMOOTH, &filters.smooth}});
    // The shader's weight: a Gaussian over the face area, cut at exp(-4).
    auto weight = [&](int x, int y) {
        const double fx = (x + 0.5 - face.at(face_area_x)) / face.at(face_area_width) - 0.5;
        const double fy = (y + 0.5 - face.at(face_area_y)) / face.at(face_area_height) - 0.5;
        return std::exp(-(fx * fx + fy * fy) / (2 * 0.4 * 0.4));
    };
    EXPECT_TRUE(gltest::sameImage(out, portrait(), 0, "outside",
                                  [&](int x, int y) { return weight(x, y) < std::exp(-4.0) * 0.95; }));
    EXPECT_GT(changedIn(out, QRect(face.at(face_area_x) + face.at(face_area_width) / 4,
                                   face.at(face_area_y) + face.at(face_area_height) / 4,
                                   face.at(face_area_width) / 2, face.at(face_area_height) / 2)),
              1000)
        << "the face itself is smoothed";
}

TEST(FaceChain, RedLipsTintOnlyTheLips)
{
    const Face f;
    Filters filters(detection({f}), 400);
    const QImage out = render({{REDLIPS, &filters.lips}});
    const QRect mouth(f.mouthX - 24, f.mouthY - 12, 49, 26);
    EXPECT_TRUE(gltest::sameImage(out, portrait(), 0, "outside", [&](int x, int y) { return !mouth.contains(x, y); }));
    // Inside the upper lip, the closed mouth and the lower lip: the tint of
    // 400 / 800 towards the lip colour.
    const QImage tinted = reference::mapPixels(
        portrait(), [](reference::Colour c, int, int) { return reference::tintLips(c, 0.5f); });
    for (const QPoint& p : {QPoint(223, 142), QPoint(223, 146), QPoint(223, 151), QPoint(216, 141), QPoint(216, 151),
                            QPoint(230, 141), QPoint(230, 151)})
        EXPECT_TRUE(gltest::sameImage(out.copy(QRect(p, p)), tinted.copy(QRect(p, p)), 1)) << p.x() << "," << p.y();
}

TEST(FaceChain, SlimFaceMovesOnlyThePixelsNearTheJaw)
{
    const FaceDetectResult faces = detection({Face()});
    const std::vector<int>& points = faces.keyPoints[0];
    Filters filters(faces, 300);
    const QImage out = render({{SLIMFACE, &filters.slim}});
    // Every warp reaches one eye distance around a contour point 5 to 27 (16
    // excepted); the chained moves add a few pixels at most.
    const double radius = std::hypot(points[192] - points[194], points[193] - points[195]) + 4;
    EXPECT_TRUE(gltest::sameImage(out, portrait(), 1, "far", [&](int x, int y) {
        for (int k = 5; k <= 27; ++k)
            if (k != 16 && std::hypot(x + 0.5 - points[2 * k], y + 0.5 - points[2 * k + 1]) <= radius)
                return false;
        return true;
    }));
    EXPECT_GT(changedIn(out, QRect(178, 80, 94, 105)), 200) << "the jaw moves";
}

TEST(FaceChain, SlimFaceFirstFaceOnlyLeavesTheSecondFaceAlone)
{
    Filters filters(detection({Face(), secondFace()}), 300);
    ASSERT_EQ(filters.slim.faceParas().size(), 2u);
    const QRect first(178, 80, 94, 105), second(330, 300, 94, 105);
    const QImage both = render({{SLIMFACE, &filters.slim}}, false);
    EXPECT_GT(changedIn(both, first), 200);
    EXPECT_GT(changedIn(both, second), 200);
    const QImage firstOnly = render({{SLIMFACE, &filters.slim}}, true);
    EXPECT_GT(changedIn(firstOnly, first), 200);
    EXPECT_EQ(changedIn(firstOnly, second), 0);
}
