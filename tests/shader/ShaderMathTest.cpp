// The colour and warp maths of the shader files, checked over whole pictures
// against the CPU evaluations of ShaderReference.h.
#include <cmath>
#include <functional>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <QOpenGLShaderProgram>
#include <QOpenGLTexture>
#include <QVector4D>

#include "gpu/GlTestSupport.h"
#include "shader/ShaderReference.h"
#include "shader/ShaderWorker.h"

using reference::Colour;

namespace {

using Uniforms = std::vector<std::pair<const char*, float>>;

// Varied colours and alphas, so that every channel matters.
QImage testPicture(int width, int height, bool withAlpha)
{
    QImage image(width, height, QImage::Format_RGBA8888);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            uchar* p = image.scanLine(y) + 4 * x;
            p[0] = static_cast<uchar>(x * 255 / (width - 1));
            p[1] = static_cast<uchar>(y * 255 / (height - 1));
            p[2] = static_cast<uchar>((x + y) * 97 % 256);
            p[3] = withAlpha ? static_cast<uchar>(255 - (x * 7 + y * 3) % 200) : 255;
        }
    return image;
}

// Draws the program of filters/<stem>_*.glsl over the whole frame with
// `input` on unit 0, blending off, so that the framebuffer holds the shader's
// output as it is.
QImage render(gltest::ScopedContext& gl, const char* stem, const QImage& input,
              const std::function<void(QOpenGLShaderProgram*)>& uniforms, bool linear = false)
{
    ShaderWorker program(QString(":/filters/%1_vertex.glsl").arg(stem),
                         QString(":/filters/%1_fragment.glsl").arg(stem));
    EXPECT_TRUE(program.isInitialised()) << stem;
    QOpenGLTexture texture(input, QOpenGLTexture::DontGenerateMipMaps);
    const auto filter = linear ? QOpenGLTexture::Linear : QOpenGLTexture::Nearest;
    texture.setMinMagFilters(filter, filter);
    texture.setWrapMode(QOpenGLTexture::ClampToEdge);
    QOpenGLFramebufferObject fbo(input.size());
    fbo.bind();
    gl.functions->glViewport(0, 0, input.width(), input.height());
    gl.functions->glDisable(GL_BLEND);
    program.bind();
    uniforms(program.shaderProgram());
    program.shaderProgram()->setUniformValue("inputImageTexture", 0);
    program.shaderProgram()->setUniformValue("stickerTexture", 0);
    texture.bind(0);
    program.resetMatrices();
    program.initVertices();
    program.drawStrip();
    return gltest::readRgba(gl.functions, &fbo);
}

std::function<void(QOpenGLShaderProgram*)> set(const Uniforms& uniforms, QVector4D area = {})
{
    return [=](QOpenGLShaderProgram* p) {
        for (const auto& u : uniforms)
            p->setUniformValue(u.first, u.second);
        p->setUniformValue("smooth_face_area", area);
    };
}

Colour premultiplied(Colour c) { return {c.r * c.a, c.g * c.a, c.b * c.a, c.a}; }

// The smoothing's weight at pixel (x, y) of a 64 x 64 picture: a Gaussian
// over the face area that drops to 0 below exp(-4).
float faceWeight(int x, int y, QVector4D face)
{
    const float dx = (((x + 0.5f) / 64 - face.x()) / face.z() - 0.5f) / 0.4f;
    const float dy = (((y + 0.5f) / 64 - face.y()) / face.w() - 0.5f) / 0.4f;
    const float k = std::exp(-(dx * dx + dy * dy) / 2);
    return k < std::exp(-4.0f) ? 0 : k;
}

// Saturation, contrast, brightness, then opacity and premultiplication.
Colour basicImage(Colour c, float saturation, float contrast, float brightness, float opacity, bool premul)
{
    const float l = c.r * 0.2125f + c.g * 0.7154f + c.b * 0.0721f;
    Colour out = reference::mix(Colour{l, l, l, std::min(c.a, opacity)}, c, saturation);
    for (float* v : {&out.r, &out.g, &out.b})
        *v = (*v - 0.5f) * contrast + 0.5f + brightness;
    return premul ? premultiplied(out) : out;
}

}  // namespace

class ShaderMath : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(gl.ok); }
    gltest::ScopedContext gl;
};

TEST_F(ShaderMath, ColourShadersMatchTheirCpuFormulas)
{
    const QImage input = testPicture(64, 64, true);
    const QVector4D face(0.25f, 0.25f, 0.5f, 0.5f);
    struct Case {
        const char* label;
        const char* stem;
        Uniforms uniforms;
        std::function<Colour(Colour, int x, int y)> cpu;
    };
    const Case cases[] = {
        {"copy", "image_filter", {{"premulAlpha", 0}}, [](Colour c, int, int) { return c; }},
        {"premultiply", "image_filter", {{"premulAlpha", 1}}, [](Colour c, int, int) { return premultiplied(c); }},
        {"sticker", "sticker_filter", {{"premulAlpha", 0}}, [](Colour c, int, int) { return c; }},
        {"basic_all_premultiplied", "basic_image_filter",
         {{"saturation", 1.6f}, {"contrast", 0.7f}, {"brightness", 0.1f}, {"alphaValue", 0.9f}, {"premulAlpha", 1},
          {"xyRatio", 1}},
         [](Colour c, int, int) { return basicImage(c, 1.6f, 0.7f, 0.1f, 0.9f, true); }},
        {"basic_contrast_low_opacity", "basic_image_filter",
         {{"saturation", 0.4f}, {"contrast", 1.8f}, {"brightness", -0.2f}, {"alphaValue", 0.3f}, {"xyRatio", 1}},
         [](Colour c, int, int) { return basicImage(c, 0.4f, 1.8f, -0.2f, 0.3f, false); }},
        // Whitening at its filter's strengths and the lips tint are checked
        // through the channel worker (FaceChainTest); here the rest.
        {"whitening_redden_premultiplied", "whitening_filter", {{"redden", 0.8f}, {"premulAlpha", 1}},
         [](Colour c, int, int) { return premultiplied(reference::whiten(c, 0, 0.8f, 0)); }},
        {"lips_premultiplied", "face_area_filter", {{"filterType", 2}, {"redLipsStrength", 0.125f}, {"premulAlpha", 1}},
         [](Colour c, int, int) { return premultiplied(reference::tintLips(c, 0.125f)); }},
        // At strength 0 the smoothing only brightens by the power 0.96,
        // weighed by the face weight.
        {"smooth_weight", "face_area_filter", {{"filterType", 1}, {"smoothStrength", 0}},
         [&](Colour c, int x, int y) {
             const Colour bright{std::pow(c.r, 0.96f), std::pow(c.g, 0.96f), std::pow(c.b, 0.96f), c.a};
             return reference::mix(c, bright, faceWeight(x, y, face));
         }},
    };
    for (const Case& c : cases) {
        const QImage out = render(gl, c.stem, input, set(c.uniforms, face));
        EXPECT_TRUE(gltest::sameImage(out, reference::mapPixels(input, c.cpu), 1, c.label)) << c.label;
    }
    // At full strength on noise, where the weight is cut nothing changes.
    QImage noise(64, 64, QImage::Format_RGBA8888);
    for (int i = 0; i < 64 * 64 * 4; ++i)
        noise.bits()[i] = i % 4 == 3 ? 255 : static_cast<uchar>(i * 2654435761u >> 24);
    const QImage smoothed = render(gl, "face_area_filter", noise, set({{"filterType", 1}, {"smoothStrength", 1.5f}}, face));
    EXPECT_TRUE(gltest::sameImage(smoothed, noise, 0, "smooth_cut", [&](int x, int y) { return !faceWeight(x, y, face); }));
}

TEST_F(ShaderMath, BasicImageShapesTheAlpha)
{
    QImage block(64, 32, QImage::Format_RGBA8888);
    block.fill(QColor(200, 100, 50, 255));
    QImage square(256, 256, QImage::Format_RGBA8888);
    square.fill(Qt::white);
    const Uniforms plain = {{"saturation", 1}, {"contrast", 1}, {"alphaValue", 1}};
    auto with = [&](Uniforms extra) {
        extra.insert(extra.end(), plain.begin(), plain.end());
        return extra;
    };
    struct Probe {
        int x, y, minAlpha, maxAlpha;
    };
    struct Case {
        const char* label;
        const QImage& input;
        Uniforms uniforms;
        std::vector<Probe> probes;
    };
    const Case cases[] = {
        // A corner radius of 8 pixels: xRadius 8/64, yRadius 8/32, xyRatio H/W.
        {"rounded", block, with({{"xRadius", 0.125f}, {"yRadius", 0.25f}, {"xyRatio", 0.5f}}),
         {{0, 0, 0, 0}, {63, 0, 0, 0}, {0, 31, 0, 0}, {63, 31, 0, 0}, {1, 1, 0, 0},  // ~9.9 px from (8, 8)
          {3, 3, 255, 255}, {8, 8, 255, 255}, {32, 0, 255, 255}}},
        // The clip keeps the rectangle between the biases, whatever the opacity.
        {"clipped", block,
         {{"isClip", 1}, {"alphaValue", 0}, {"brightness", 0.5f}, {"inXbias", 0.25f}, {"xyRatio", 0.5f}},
         {{10, 16, 0, 0}, {60, 16, 0, 0}, {32, 16, 255, 255}}},
        // Rotated: the outermost ring of pixels fades, the inside does not.
        {"rotated", square, with({{"isRotate", 1}, {"xyRatio", 1}}),
         {{128, 255, 0, 127}, {0, 128, 0, 127}, {128, 128, 255, 255}, {2, 128, 255, 255}}},
    };
    for (const Case& c : cases) {
        const QImage out = render(gl, "basic_image_filter", c.input, set(c.uniforms));
        for (const Probe& p : c.probes) {
            EXPECT_GE(gltest::rgbaAt(out, p.x, p.y).a, p.minAlpha) << c.label << " " << p.x << "," << p.y;
            EXPECT_LE(gltest::rgbaAt(out, p.x, p.y).a, p.maxAlpha) << c.label << " " << p.x << "," << p.y;
        }
    }
    // The clip changes no colour, whatever the brightness says.
    const QImage clipped = render(gl, "basic_image_filter", block, set(cases[1].uniforms));
    EXPECT_TRUE(gltest::sameImage(clipped, block, 0, "clip_colour", [](int x, int) { return x >= 17 && x < 47; }));
}

namespace {

struct P2 {
    float x, y;
};

// The jaw lift: contour points 5 to 27 (16 excepted) pulled in pairs from
// the top, the first three pairs by 0.012 x strength of the way to point 53,
// then twice that, the last seven pairs towards point 90; each with a linear
// falloff out to `radius`, one after the other.
P2 faceLift(P2 c, const std::vector<float>& k, float strength, float radius)
{
    for (int s = 5; s <= 15; ++s)
        for (int source : {s, 32 - s}) {
            const P2 o{k[2 * source], k[2 * source + 1]};
            const int target = s <= 8 ? 53 : 90;
            const float factor = strength * 0.012f * (s <= 7 ? 1 : 2);
            const float infect = reference::clamp01(1.0f - std::hypot(c.x - o.x, c.y - o.y) / radius);
            c = {c.x - (k[2 * target] - o.x) * factor * infect, c.y - (k[2 * target + 1] - o.y) * factor * infect};
        }
    return c;
}

}  // namespace

TEST_F(ShaderMath, SlimFaceWarpMatchesCpuChain)
{
    // A coordinate ramp: red is 4 x the texel column, green 4 x the row, so a
    // linear sample tells where the fragment read.
    const int size = 64;
    QImage ramp(size, size, QImage::Format_RGBA8888);
    for (int y = 0; y < size; ++y)
        for (int x = 0; x < size; ++x)
            ramp.setPixelColor(x, y, QColor(4 * x, 4 * y, 0));
    // The contour down both sides, the pull targets in the middle, the eyes
    // 24 pixels apart; relative to the face area.
    std::vector<float> points(196, 500.0f);
    auto put = [&](int i, float x, float y) {
        points[2 * i] = x;
        points[2 * i + 1] = y;
    };
    for (int i = 5; i <= 15; ++i) {
        put(i, 10.0f + (i - 5) * 1.2f, 18.0f + (i - 5) * 3.0f);
        put(32 - i, 52.0f - (i - 5) * 1.2f, 18.0f + (i - 5) * 3.0f);
    }
    put(16, 32, 52);
    put(53, 32, 30);
    put(90, 32, 44);
    put(96, 20, 20);
    put(97, 44, 20);
    const QVector4D area(2.0f, 3.0f, 60.0f, 60.0f);

    for (float strength : {0.0f, 1.0f, 3.0f}) {
        const QImage out = render(
            gl, "slimface_filter", ramp,
            [&](QOpenGLShaderProgram* p) {
                p->setUniformValue("slimStrength", strength);
                p->setUniformValue("textureWidth", float(size));
                p->setUniformValue("textureHeight", float(size));
                p->setUniformValue("slim_face_area", area);
                p->setUniformValueArray("keyPoints", points.data(), 196, 1);
            },
            true);
        int moved = 0;
        for (int y = 1; y < size - 1; y += 3)
            for (int x = 1; x < size - 1; x += 3) {
                const P2 w = faceLift({x + 0.5f - area.x(), y + 0.5f - area.y()}, points, strength, 24.0f);
                const float u = w.x + area.x(), v = w.y + area.y();
                // Clamped to the edge texels beyond the picture.
                EXPECT_NEAR(gltest::rgbaAt(out, x, y).r, 4 * std::min(size - 1.0f, std::max(0.0f, u - 0.5f)), 1.5f)
                    << x << "," << y << " at strength " << strength;
                EXPECT_NEAR(gltest::rgbaAt(out, x, y).g, 4 * std::min(size - 1.0f, std::max(0.0f, v - 0.5f)), 1.5f)
                    << x << "," << y << " at strength " << strength;
                moved += std::abs(u - (x + 0.5f)) > 0.25f || std::abs(v - (y + 0.5f)) > 0.25f;
            }
        EXPECT_EQ(moved > 10, strength > 0) << "the warp moves the jaw, and only with a strength";
    }
}

// A core profile has no default vertex array: the quad must still draw.
TEST(ShaderMathCore, QuadDrawsOnACoreProfile)
{
    gltest::ScopedContext gl(QSurfaceFormat::CoreProfile);
    ASSERT_TRUE(gl.ok);
    const QByteArray version = reinterpret_cast<const char*>(gl.functions->glGetString(GL_VERSION));
    if (!version.contains("Core"))
        GTEST_SKIP() << "no core profile context on this platform (" << version.constData() << ")";
    const QImage input = testPicture(32, 32, false);
    EXPECT_TRUE(gltest::sameImage(render(gl, "image_filter", input, set({})), input));
    EXPECT_EQ(gl.functions->glGetError(), GLenum(GL_NO_ERROR));
}
