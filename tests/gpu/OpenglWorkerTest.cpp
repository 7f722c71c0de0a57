// The worker base and the channel worker: frame set-up, framebuffers, the
// input texture, the read-backs and the plain passes; and the face passes on
// the portrait with faces placed on it by hand: the passes that leave a frame
// as it is, and what each drawing pass changes, pixel by pixel, against the
// input and the CPU formulas.
#include <memory>

#include <QOpenGLContext>

#include "LogCapture.h"
#include "base/DriverLock.h"
#include "filters/BeautyFilterBase.h"
#include "channel/FilterKinds.h"
#include "filters/OpenglBasicImageFilter.h"
#include "gpu/OpenglChannelWorker.h"
#include "scene/TextureBuffer.h"
#include "shader/ShaderReference.h"

using namespace gltest;
using reference::testPicture;

namespace {

// Opens the protected state that the checks need.
class ProbeWorker : public OpenglChannelWorker {
public:
    ProbeWorker() : OpenglChannelWorker(1, 2) {}
    using OpenglWorkerBase::settleOutsideTurn;
    // Fills the frame's framebuffer with one colour, queued, not drawn yet.
    void fillFrame(const QColor& colour)
    {
        frameFbo()->bind();
        glClearColor(colour.redF(), colour.greenF(), colour.blueF(), 1.0f);
        glClear(GL_COLOR_BUFFER_BIT);
    }
    bool textureHasAlpha() const { return inputTexHasAlpha; }
    QImage readBack(int width, int height)
    {
        QImage out(width, height, QImage::Format_RGBA8888);
        readLastFboByAlpha(out.bits(), width, height, true);
        return out;
    }
};

// The 20 lip points around (0, 0) at half size: outer 0 to 11 over the top
// and back along the bottom, inner 12 to 19.
const int kLipPattern[40] = {-40, 0,  -30, -10, -15, -15, 0,  -12, 15,  -15, 30,  -10, 40, 0,  30,  10, 15, 15, 0,  17,
                             -15, 15, -30, 10,  -30, 0,   -15, -3,  0,  -3,  15,  -3,  30, 0,  15,  1,  0,  1,  -15, 1};
const QRect kFace(178, 80, 94, 105);

// Faces on the portrait as the detector's 98 points, each moved by its
// offset from the first: the contour 0 to 32 from the left temple (178, 115)
// over the chin (224, 185) to the right, 53 on the nose, 76 to 95 the closed
// lips around the mouth at (223, 146), 96 and 97 the eyes; the box kFace.
FaceDetectResult detection(std::initializer_list<QPoint> offsets)
{
    FaceDetectResult r;
    for (const QPoint& o : offsets) {
        std::vector<int> p(196, 0);
        auto set = [&](int k, double x, double y) {
            p[2 * k] = std::lround(x) + o.x(), p[2 * k + 1] = std::lround(y) + o.y();
        };
        for (int k = 0; k <= 32; ++k)
            set(k, 224 - 46 * std::cos(M_PI * k / 32), 115 + 70 * std::sin(M_PI * k / 32));
        for (int n = 0; n < 20; ++n)
            set(76 + n, 223 + kLipPattern[2 * n] * 0.5, 146 + kLipPattern[2 * n + 1] * 0.5);
        set(53, 224, 130), set(96, 202, 115), set(97, 246, 115);
        r.faceRects.emplace_back(kFace.x() + o.x(), kFace.y() + o.y(), kFace.width(), kFace.height());
        r.keyPoints.push_back(p);
    }
    return r;
}

using testutil::portrait;

// The portrait through the face passes of `worker` with the filters of
// `types` from their rows, each at `strength` with the frame's `faces`.
QImage render(OpenglChannelWorker& worker, const std::vector<ImageFilterType>& types, const FaceDetectResult& faces,
              double strength, bool firstFaceOnly = false, bool regions = true, bool* inPlace = nullptr)
{
    worker.setRegionPasses(regions);
    std::vector<std::unique_ptr<BeautyFilterBase>> owned;
    OpenglChannelWorker::FilterMap filters;
    for (ImageFilterType type : types) {
        owned.emplace_back(createImageFilter(type));  // takes the keys it knows
        for (const std::string& key : {slim_face_strength, redlips_strength, smooth_strength, whitening_strength})
            owned.back()->setParas({{key, strength}});
        owned.back()->updateFaceInfo(faces, portrait().width(), portrait().height());
        filters[type] = owned.back().get();
    }
    QImage frame = portrait().copy(), out(frame.size(), QImage::Format_RGBA8888);
    worker.renderFaceFilters(filters, frame, false, firstFaceOnly, false);
    worker.readLastFboByAlpha(out.bits(), out.width(), out.height(), true);
    if (inPlace)
        *inPlace = worker.lastFrameInPlace();
    return out;
}

// Each face-chain test draws with a worker of its own.
class FaceChain : public ::testing::Test {
protected:
    OpenglChannelWorker worker{1, 1};
};

}  // namespace

TEST(OpenglWorker, FrameSizeDrivesTheFramebuffers)
{
    ProbeWorker worker;
    QImage a = testPicture(64, 32), b = testPicture(40, 48), c = testPicture(40, 20);
    // Empty frames are refused, before and after the first real one; another
    // width or height rebuilds both framebuffers.
    EXPECT_FALSE(worker.doPreWork(nullptr, 64, 32));
    EXPECT_FALSE(worker.doPreWork(a.bits(), 0, 32));
    EXPECT_FALSE(worker.doPreWork(a.bits(), 64, 0));
    EXPECT_FALSE(worker.isGlInited());
    for (QImage* frame : {&a, &b, &c}) {
        ASSERT_TRUE(worker.doPreWork(frame->bits(), frame->width(), frame->height()));
        EXPECT_EQ(worker.frameFbo()->size(), frame->size());
        EXPECT_EQ(worker.backFbo()->size(), frame->size());
        worker.doneCurrent();
    }
    EXPECT_FALSE(worker.doPreWork(a.bits(), 0, 16));
    EXPECT_EQ(worker.getFrameWidth(), 40);
}

TEST(OpenglWorker, TheDriverTurnLastsFromMakeCurrentToDoneCurrent)
{
    ProbeWorker worker;
    QImage frame = testPicture(32, 16);
    ASSERT_TRUE(worker.doPreWork(frame.bits(), 32, 16));
    EXPECT_TRUE(holdsGlDriverLock());
    worker.doneCurrent();
    EXPECT_FALSE(holdsGlDriverLock());
    // A whole pass takes and gives back the turn.
    worker.passThrough(frame, false);
    EXPECT_FALSE(holdsGlDriverLock());
    // A frame over the GL limit is refused with the context current: the
    // end of the step gives the turn back.
    EXPECT_FALSE(worker.doPreWork(frame.bits(), 1 << 20, 16));
    EXPECT_TRUE(holdsGlDriverLock());
    worker.endGlTurn();
    EXPECT_FALSE(holdsGlDriverLock());
    worker.endGlTurn();  // nothing held: nothing to give back
    EXPECT_FALSE(holdsGlDriverLock());
}

// A wait on the rasterizer gives back every take of the turn and takes them
// all again, with the context still current and the queued work drawn; with
// no context current it does nothing.
TEST(OpenglWorker, SettlingTakesTheTurnBackAsItWasWithTheWorkDrawn)
{
    ProbeWorker worker;
    QImage frame = testPicture(256, 128);
    worker.settleOutsideTurn();
    EXPECT_EQ(glDriverHolds(), 0);
    // A scope's turns around the worker's own, and the colour drawn.
    const struct { int outerTurns; QColor colour; } cases[] = {{0, QColor(200, 40, 10)}, {1, QColor(10, 220, 30)},
                                                               {2, QColor(0, 0, 250)}};
    for (const auto& c : cases) {
        for (int i = 0; i < c.outerTurns; ++i)
            takeGlDriver();
        ASSERT_TRUE(worker.doPreWork(frame.bits(), 256, 128));
        worker.fillFrame(c.colour);
        worker.settleOutsideTurn();
        EXPECT_EQ(glDriverHolds(), c.outerTurns + 1) << c.outerTurns;
        EXPECT_EQ(QOpenGLContext::currentContext(), worker.glContext());
        const QImage out = worker.readBack(256, 128);
        for (const QPoint& p : {QPoint(0, 0), QPoint(255, 127), QPoint(100, 60)})
            EXPECT_EQ(out.pixelColor(p), c.colour) << c.outerTurns << " at " << p.x() << "," << p.y();
        for (int i = 0; i < c.outerTurns; ++i)
            releaseGlDriver();
        EXPECT_EQ(glDriverHolds(), 0);
    }
}

TEST(OpenglWorker, PassesDrawThePictureAsItIs)
{
    ProbeWorker worker;
    TextureBuffer buffer;
    worker.setTextureBuffer(&buffer);
    // Opaque, upright, every byte; the same size with alpha: the texture is
    // rebuilt for it and the pass writes premultiplied colour; the same
    // again: new content in the same texture.
    QImage opaque = testPicture(32, 16).convertToFormat(QImage::Format_RGB888);
    QImage half(32, 16, QImage::Format_RGBA8888), next = half, premultiplied = half;
    half.fill(QColor(200, 100, 40, 128)), next.fill(QColor(10, 220, 30)), premultiplied.fill(QColor(100, 50, 20, 128));
    const std::tuple<QImage*, QImage*, bool> inputs[] = {
        {&opaque, &opaque, false}, {&half, &premultiplied, true}, {&next, &next, true}};
    for (const auto& [in, want, alpha] : inputs) {
        worker.passThrough(*in, false);
        EXPECT_EQ(worker.textureHasAlpha(), alpha);
        EXPECT_TRUE(sameImage(worker.readBack(32, 16), *want, 1)) << alpha;
    }
    // copyToShare fills the share texture, from which the basic pass can
    // take its source.
    OpenglBasicImageFilter basic;  // scale_strength 0: 1.0 (its default) would zoom by 1.04
    basic.setParas({{scale_strength, 0}});
    worker.setAllowInFrame(false);  // as the picture pass of a centred picture sets it
    QImage image = testPicture(48, 16), other = image.mirrored(true, false);
    worker.copyToShare(image);
    worker.renderBasicImage({{BASICIMAGE, &basic}}, other, false, true);
    EXPECT_TRUE(sameImage(worker.readBack(48, 16), image));
}

TEST_F(FaceChain, PassesWithoutWorkGiveTheInputBack)
{
    FaceDetectResult atBorder = detection({{}}), fewPoints = detection({{}});
    atBorder.faceRects[0].x = 0;  // a detected box from x 0 gets no lips
    fewPoints.keyPoints[0].resize(100);
    // Face passes without faces; lips at the border; slim at strength 0, or
    // with too few points.
    const std::tuple<std::vector<ImageFilterType>, FaceDetectResult, double, const char*> cases[] = {
        {{}, {}, 100, ""},
        {{SLIMFACE, REDLIPS, SMOOTH}, {}, 400, ""},
        {{REDLIPS}, atBorder, 400, ""},
        {{SLIMFACE}, detection({{}}), 0, ""},
        {{SLIMFACE}, fewPoints, 300, "[OpenglChannelWorker::drawSlimFace]"},
    };
    for (const auto& [types, faces, strength, warning] : cases) {
        LogCapture log;
        EXPECT_TRUE(sameImage(render(worker, types, faces, strength), portrait(), 1)) << strength;
        EXPECT_TRUE(!*warning || log.contains(warning, QtWarningMsg)) << warning;
    }
}

// Even without faces, and after face passes that draw nothing, with the
// filter's own strength.
TEST_F(FaceChain, WhiteningDrawsOnceOverTheWholePicture)
{
    const QImage out = render(worker, {SLIMFACE, REDLIPS, SMOOTH, WHITENING}, {}, 60);
    EXPECT_TRUE(sameImage(out, reference::mapPixels(portrait(), [](reference::Colour c, int, int) {
        return reference::whitenAtStrength(c, 60);
    }), 1));
}

TEST_F(FaceChain, SmoothChangesOnlyTheFaceArea)
{
    std::unique_ptr<BeautyFilterBase> filter(createImageFilter(SMOOTH));
    filter->updateFaceInfo(detection({{}}), portrait().width(), portrait().height());
    const auto face = filter->faceParas().at(0);
    const QRectF area(face.at(face_area_x), face.at(face_area_y), face.at(face_area_width), face.at(face_area_height));
    const QImage out = render(worker, {SMOOTH}, detection({{}}), 100);
    // The shader's weight: a Gaussian over the face area, cut at exp(-4).
    EXPECT_TRUE(sameImage(out, portrait(), 0, "outside", [&](int x, int y) {
        const double fx = (x + 0.5 - area.x()) / area.width() - 0.5, fy = (y + 0.5 - area.y()) / area.height() - 0.5;
        return std::exp(-(fx * fx + fy * fy) / (2 * 0.4 * 0.4)) < std::exp(-4.0) * 0.95;
    }));
    const QRect middle = QRectF(area.center() - QPointF(area.width(), area.height()) / 4, area.size() / 2).toRect();
    EXPECT_GT(differences(out.copy(middle), portrait().copy(middle), 1), 1000) << "the face itself is smoothed";
}

// Every warp reaches one eye distance (44) around a contour point 5 to 27
// (16 excepted); the chained moves add a few pixels at most. With the first
// face only, the second stays as it is.
TEST_F(FaceChain, SlimFaceMovesOnlyThePixelsNearTheJaws)
{
    const FaceDetectResult faces = detection({{}, {152, 220}});
    const QImage out = render(worker, {SLIMFACE}, faces, 300);
    const QImage firstOnly = render(worker, {SLIMFACE}, faces, 300, true);
    EXPECT_TRUE(sameImage(out, portrait(), 1, "far", [&](int x, int y) {
        for (const std::vector<int>& p : faces.keyPoints)
            for (int k = 5; k <= 27; ++k)
                if (k != 16 && std::hypot(x + 0.5 - p[2 * k], y + 0.5 - p[2 * k + 1]) <= 44 + 4)
                    return false;
        return true;
    }));
    const QRect second = kFace.translated(152, 220);
    EXPECT_GT(differences(out.copy(kFace), portrait().copy(kFace), 1), 200);
    EXPECT_GT(differences(out.copy(second), portrait().copy(second), 1), 200);
    EXPECT_GT(differences(firstOnly.copy(kFace), portrait().copy(kFace), 1), 200);
    EXPECT_EQ(differences(firstOnly.copy(second), portrait().copy(second), 1), 0);
}

// On an opaque picture the passes work only in their regions, in place; the
// picture is the one that whole-frame passes give, with one face, two faces
// (the second near the first's regions), and the first of two only.
TEST_F(FaceChain, RegionPassesGiveTheWholeFramePicture)
{
    const std::vector<ImageFilterType> all = {SLIMFACE, REDLIPS, SMOOTH, WHITENING};
    const std::tuple<const char*, FaceDetectResult, double, bool> cases[] = {
        {"one face", detection({{}}), 100, false},
        {"two faces", detection({{}, {152, 220}}), 300, false},
        {"overlapping", detection({{}, {60, 40}}), 200, false},
        {"first only", detection({{}, {152, 220}}), 300, true},
    };
    for (const auto& [name, faces, strength, firstOnly] : cases) {
        bool inPlace = false;
        const QImage regions = render(worker, all, faces, strength, firstOnly, true, &inPlace);
        EXPECT_TRUE(inPlace) << name;
        EXPECT_TRUE(sameImage(regions, render(worker, all, faces, strength, firstOnly, false), 1, name)) << name;
    }
    // A translucent pixel anywhere sends the frame through the whole-frame passes.
    QImage translucent = portrait().copy();
    translucent.setPixelColor(500, 500, QColor(1, 2, 3, 200));
    EXPECT_FALSE(OpenglChannelWorker(1, 1).inPlaceFrame(translucent, false));
    EXPECT_TRUE(OpenglChannelWorker(1, 1).inPlaceFrame(portrait(), false));
}
