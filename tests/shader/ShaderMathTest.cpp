// The colour and warp maths of the shader files, checked pixel by pixel
// against a CPU evaluation of the same formulas.
#include <algorithm>
#include <cmath>
#include <functional>
#include <vector>

#include <gtest/gtest.h>

#include <QOpenGLShaderProgram>
#include <QOpenGLTexture>
#include <QVector4D>

#include "gpu/GlTestSupport.h"
#include "shader/ShaderWorker.h"
#include "TestUtil.h"

namespace {

struct Vec3 {
    float r, g, b;
};

float clamp01(float v)
{
    return std::min(1.0f, std::max(0.0f, v));
}
float mixf(float a, float b, float t)
{
    return a + (b - a) * t;
}
int toByte(float v)
{
    return static_cast<int>(std::lround(clamp01(v) * 255.0f));
}

// A picture with varied colours and alphas, so that every channel matters.
QImage testPicture(int width, int height, bool withAlpha)
{
    QImage image(width, height, QImage::Format_RGBA8888);
    for (int y = 0; y < height; ++y) {
        uchar* line = image.scanLine(y);
        for (int x = 0; x < width; ++x) {
            line[4 * x + 0] = static_cast<uchar>((x * 255) / std::max(1, width - 1));
            line[4 * x + 1] = static_cast<uchar>((y * 255) / std::max(1, height - 1));
            line[4 * x + 2] = static_cast<uchar>(((x + y) * 97) % 256);
            line[4 * x + 3] = withAlpha ? static_cast<uchar>(255 - ((x * 7 + y * 3) % 200)) : 255;
        }
    }
    return image;
}

// Draws `program` over the full frame with `input` on unit 0, blending off so
// that the framebuffer holds the shader's output as it is.
QImage render(gltest::ScopedContext& gl, ShaderWorker& program, const QImage& input,
              const std::function<void(QOpenGLShaderProgram*)>& uniforms, bool linear = false)
{
    QOpenGLFunctions* f = gl.functions;
    QOpenGLTexture texture(input, QOpenGLTexture::DontGenerateMipMaps);
    texture.setMinMagFilters(linear ? QOpenGLTexture::Linear : QOpenGLTexture::Nearest,
                             linear ? QOpenGLTexture::Linear : QOpenGLTexture::Nearest);
    texture.setWrapMode(QOpenGLTexture::ClampToEdge);
    QOpenGLFramebufferObject fbo(input.width(), input.height());
    fbo.bind();
    f->glViewport(0, 0, input.width(), input.height());
    f->glDisable(GL_BLEND);
    f->glClearColor(0, 0, 0, 0);
    f->glClear(GL_COLOR_BUFFER_BIT);
    program.bind();
    QOpenGLShaderProgram* p = program.shaderProgram();
    uniforms(p);
    p->setUniformValue("inputImageTexture", 0);
    texture.bind(0);
    program.resetMatrices();
    program.initVertices();
    program.drawStrip();
    texture.release(0);
    return gltest::readRgba(f, &fbo);
}

struct Pixel {
    int x, y;
};
const std::vector<Pixel> kSamples = {{0, 0}, {5, 3}, {17, 40}, {31, 31}, {40, 12}, {63, 63}, {50, 60}, {9, 58}};

}  // namespace

class ShaderMath : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(gl.ok); }
    gltest::ScopedContext gl;
};

TEST_F(ShaderMath, ImageFilterCopiesAndPremultiplies)
{
    ShaderWorker program(":/filters/image_filter_vertex.glsl", ":/filters/image_filter_fragment.glsl");
    ASSERT_TRUE(program.isInitialised());
    const QImage input = testPicture(64, 64, true);
    const QImage plain = render(gl, program, input, [](QOpenGLShaderProgram* p) { p->setUniformValue("premulAlpha", 0.0f); });
    EXPECT_EQ(plain, input) << "a straight copy keeps every byte, rows in the same order";
    const QImage premul = render(gl, program, input, [](QOpenGLShaderProgram* p) { p->setUniformValue("premulAlpha", 1.0f); });
    for (const Pixel& s : kSamples) {
        const gltest::Rgba in = gltest::rgbaAt(input, s.x, s.y);
        const gltest::Rgba out = gltest::rgbaAt(premul, s.x, s.y);
        const float a = in.a / 255.0f;
        EXPECT_NEAR(out.r, toByte(in.r / 255.0f * a), 1);
        EXPECT_NEAR(out.g, toByte(in.g / 255.0f * a), 1);
        EXPECT_NEAR(out.b, toByte(in.b / 255.0f * a), 1);
        EXPECT_EQ(out.a, in.a);
    }
}

// saturation, contrast, brightness, then alpha and premultiplication.
TEST_F(ShaderMath, BasicImageColourMatchesCpuFormula)
{
    ShaderWorker program(":/filters/basic_image_filter_vertex.glsl", ":/filters/basic_image_filter_fragment.glsl");
    ASSERT_TRUE(program.isInitialised());
    const QImage input = testPicture(64, 64, true);
    struct Case {
        float saturation, contrast, brightness, alphaValue, premul;
    };
    const Case cases[] = {
        {1.0f, 1.0f, 0.0f, 1.0f, 0.0f},   // identity
        {0.0f, 1.0f, 0.0f, 1.0f, 0.0f},   // grey
        {1.6f, 0.7f, 0.1f, 0.9f, 1.0f},   // all at once, premultiplied
        {0.4f, 1.8f, -0.2f, 0.3f, 0.0f},  // strong contrast, low opacity
    };
    for (const Case& c : cases) {
        const QImage out = render(gl, program, input, [&](QOpenGLShaderProgram* p) {
            p->setUniformValue("saturation", c.saturation);
            p->setUniformValue("contrast", c.contrast);
            p->setUniformValue("brightness", c.brightness);
            p->setUniformValue("alphaValue", c.alphaValue);
            p->setUniformValue("premulAlpha", c.premul);
            p->setUniformValue("xyRatio", 1.0f);
        });
        for (const Pixel& s : kSamples) {
            const gltest::Rgba in = gltest::rgbaAt(input, s.x, s.y);
            const float r = in.r / 255.0f, g = in.g / 255.0f, b = in.b / 255.0f, a = in.a / 255.0f;
            const float lum = r * 0.2125f + g * 0.7154f + b * 0.0721f;
            float rgb[3] = {mixf(lum, r, c.saturation), mixf(lum, g, c.saturation), mixf(lum, b, c.saturation)};
            const float alpha = std::min(a, c.alphaValue);
            for (float& v : rgb) {
                v = (v - 0.5f) * c.contrast + 0.5f + c.brightness;
                if (c.premul == 1.0f)
                    v *= alpha;
            }
            const gltest::Rgba o = gltest::rgbaAt(out, s.x, s.y);
            EXPECT_NEAR(o.r, toByte(rgb[0]), 1) << s.x << "," << s.y << " sat " << c.saturation;
            EXPECT_NEAR(o.g, toByte(rgb[1]), 1) << s.x << "," << s.y;
            EXPECT_NEAR(o.b, toByte(rgb[2]), 1) << s.x << "," << s.y;
            EXPECT_NEAR(o.a, toByte(alpha), 1) << s.x << "," << s.y;
        }
    }
}

TEST_F(ShaderMath, BasicImageRoundsCornersAndClipsInsets)
{
    ShaderWorker program(":/filters/basic_image_filter_vertex.glsl", ":/filters/basic_image_filter_fragment.glsl");
    ASSERT_TRUE(program.isInitialised());
    QImage input(64, 32, QImage::Format_RGBA8888);
    input.fill(QColor(200, 100, 50, 255));
    // A radius of 8 pixels: xRadius 8/64, yRadius 8/32, xyRatio H/W.
    const QImage rounded = render(gl, program, input, [](QOpenGLShaderProgram* p) {
        p->setUniformValue("saturation", 1.0f);
        p->setUniformValue("contrast", 1.0f);
        p->setUniformValue("alphaValue", 1.0f);
        p->setUniformValue("xRadius", 8.0f / 64.0f);
        p->setUniformValue("yRadius", 8.0f / 32.0f);
        p->setUniformValue("xyRatio", 32.0f / 64.0f);
    });
    for (const Pixel& corner : std::vector<Pixel>{{0, 0}, {63, 0}, {0, 31}, {63, 31}})
        EXPECT_EQ(gltest::rgbaAt(rounded, corner.x, corner.y).a, 0) << corner.x << "," << corner.y;
    EXPECT_EQ(gltest::rgbaAt(rounded, 8, 8).a, 255) << "the circle's centre";
    EXPECT_EQ(gltest::rgbaAt(rounded, 32, 0).a, 255) << "an edge away from the corners";
    EXPECT_EQ(gltest::rgbaAt(rounded, 32, 16).r, 200);
    // Just inside and outside the circle of radius 8 around (8, 8).
    EXPECT_EQ(gltest::rgbaAt(rounded, 3, 3).a, 255);   // distance ~6.4 px
    EXPECT_EQ(gltest::rgbaAt(rounded, 1, 1).a, 0);     // distance ~9.9 px

    // The clip branch: only the rectangle between the biases is kept, colour
    // untouched, whatever brightness says.
    const QImage clipped = render(gl, program, input, [](QOpenGLShaderProgram* p) {
        p->setUniformValue("isClip", 1.0f);
        p->setUniformValue("brightness", 0.5f);
        p->setUniformValue("alphaValue", 0.0f);
        p->setUniformValue("inXbias", 0.25f);
        p->setUniformValue("inYbias", 0.0f);
        p->setUniformValue("xyRatio", 0.5f);
    });
    EXPECT_EQ(gltest::rgbaAt(clipped, 10, 16).a, 0);
    EXPECT_EQ(gltest::rgbaAt(clipped, 60, 16).a, 0);
    const gltest::Rgba inside = gltest::rgbaAt(clipped, 32, 16);
    EXPECT_EQ(inside.a, 255);
    EXPECT_EQ(inside.r, 200);
    EXPECT_EQ(inside.g, 100);

    // Rotated: the outermost ring of pixels fades, the inside doesn't.
    QImage square(256, 256, QImage::Format_RGBA8888);
    square.fill(Qt::white);
    const QImage rim = render(gl, program, square, [](QOpenGLShaderProgram* p) {
        p->setUniformValue("isClip", 0.0f);
        p->setUniformValue("brightness", 0.0f);
        p->setUniformValue("inXbias", 0.0f);
        p->setUniformValue("saturation", 1.0f);
        p->setUniformValue("contrast", 1.0f);
        p->setUniformValue("alphaValue", 1.0f);
        p->setUniformValue("isRotate", 1.0f);
        p->setUniformValue("xyRatio", 1.0f);
    });
    EXPECT_LT(gltest::rgbaAt(rim, 128, 255).a, 128);
    EXPECT_LT(gltest::rgbaAt(rim, 0, 128).a, 128);
    EXPECT_EQ(gltest::rgbaAt(rim, 128, 128).a, 255);
    EXPECT_EQ(gltest::rgbaAt(rim, 2, 128).a, 255);
}

namespace {

Vec3 whitenCpu(Vec3 c, float whitening, float redden, float pinking)
{
    auto lum = [](Vec3 v) { return v.r * 0.299f + v.g * 0.587f + v.b * 0.114f; };
    auto screen = [](Vec3 v) { return Vec3{1 - (1 - v.r) * (1 - v.r), 1 - (1 - v.g) * (1 - v.g), 1 - (1 - v.b) * (1 - v.b)}; };
    auto mix3 = [](Vec3 a, Vec3 b, float t) { return Vec3{mixf(a.r, b.r, t), mixf(a.g, b.g, t), mixf(a.b, b.b, t)}; };
    auto clamp3 = [](Vec3 v) { return Vec3{clamp01(v.r), clamp01(v.g), clamp01(v.b)}; };
    if (whitening != 0.0f)
        c = clamp3(mix3(c, screen(c), whitening * lum(c)));
    if (redden != 0.0f) {
        const Vec3 redColor = mix3(c, screen(c), 0.2f * redden);
        const float l = lum(redColor);
        const Vec3 t3 = mix3(Vec3{l, l, l}, redColor, 1.0f + redden);
        const Vec3 t4 = mix3(Vec3{t3.r, t3.g, t3.g}, t3, 0.5f);
        const float t5 = lum(t4);
        const Vec3 root{std::sqrt(t4.r), std::sqrt(t4.g), std::sqrt(t4.b)};
        c = clamp3(mix3(t3, mix3(t4, root, t5), redden * t5));
    }
    if (pinking != 0.0f) {
        const Vec3 pink{std::sqrt(c.r) * 0.41f + 0.59f * c.r, std::sqrt(c.g) * 0.568f + 0.432f * c.g,
                        std::sqrt(c.b) * 0.7640001f + 0.2359999f * c.b};
        c = clamp3(mix3(c, pink, pinking * lum(c)));
    }
    return c;
}

}  // namespace

TEST_F(ShaderMath, WhiteningMatchesCpuFormula)
{
    ShaderWorker program(":/filters/whitening_filter_vertex.glsl", ":/filters/whitening_filter_fragment.glsl");
    ASSERT_TRUE(program.isInitialised());
    const QImage input = testPicture(64, 64, true);
    // Strength 100: whitening 1, pinking 1, redden 0.5; then a single branch.
    const float settings[][4] = {{1.0f, 0.5f, 1.0f, 0.0f}, {0.0f, 0.8f, 0.0f, 1.0f}, {0.6f, 0.0f, 0.0f, 0.0f}};
    for (const auto& s : settings) {
        const QImage out = render(gl, program, input, [&](QOpenGLShaderProgram* p) {
            p->setUniformValue("whitening", s[0]);
            p->setUniformValue("redden", s[1]);
            p->setUniformValue("pinking", s[2]);
            p->setUniformValue("premulAlpha", s[3]);
        });
        for (const Pixel& px : kSamples) {
            const gltest::Rgba in = gltest::rgbaAt(input, px.x, px.y);
            const float a = in.a / 255.0f;
            Vec3 c = whitenCpu(Vec3{in.r / 255.0f, in.g / 255.0f, in.b / 255.0f}, s[0], s[1], s[2]);
            if (s[3] == 1.0f)
                c = Vec3{c.r * a, c.g * a, c.b * a};
            const gltest::Rgba o = gltest::rgbaAt(out, px.x, px.y);
            EXPECT_NEAR(o.r, toByte(c.r), 1) << px.x << "," << px.y;
            EXPECT_NEAR(o.g, toByte(c.g), 1) << px.x << "," << px.y;
            EXPECT_NEAR(o.b, toByte(c.b), 1) << px.x << "," << px.y;
            EXPECT_EQ(o.a, in.a);
        }
    }
    // Strength 0 leaves the picture as it is.
    const QImage same = render(gl, program, input, [](QOpenGLShaderProgram* p) {
        p->setUniformValue("whitening", 0.0f);
        p->setUniformValue("redden", 0.0f);
        p->setUniformValue("pinking", 0.0f);
        p->setUniformValue("premulAlpha", 0.0f);
    });
    EXPECT_EQ(same, input);
}

TEST_F(ShaderMath, FaceAreaLipsMixTowardsLipColour)
{
    ShaderWorker program(":/filters/face_area_filter_vertex.glsl", ":/filters/face_area_filter_fragment.glsl");
    ASSERT_TRUE(program.isInitialised());
    const QImage input = testPicture(64, 64, false);
    const float strength = 100.0f / 800.0f;
    const QImage out = render(gl, program, input, [&](QOpenGLShaderProgram* p) {
        p->setUniformValue("filterType", 2.0f);
        p->setUniformValue("redLipsStrength", strength);
    });
    for (const Pixel& px : kSamples) {
        const gltest::Rgba in = gltest::rgbaAt(input, px.x, px.y);
        const gltest::Rgba o = gltest::rgbaAt(out, px.x, px.y);
        EXPECT_NEAR(o.r, toByte(mixf(in.r / 255.0f, 0.502f, strength)), 1);
        EXPECT_NEAR(o.g, toByte(mixf(in.g / 255.0f, 0.122f, strength)), 1);
        EXPECT_NEAR(o.b, toByte(mixf(in.b / 255.0f, 0.102f, strength)), 1);
        EXPECT_EQ(o.a, 255);
    }
}

TEST_F(ShaderMath, FaceAreaSmoothingStaysInsideTheFaceWeight)
{
    ShaderWorker program(":/filters/face_area_filter_vertex.glsl", ":/filters/face_area_filter_fragment.glsl");
    ASSERT_TRUE(program.isInitialised());
    // 63 pixels: the centre pixel's coordinate is exactly 0.5.
    const QImage input = testPicture(63, 63, false);
    const QImage out = render(gl, program, input, [](QOpenGLShaderProgram* p) {
        p->setUniformValue("filterType", 1.0f);
        p->setUniformValue("smoothStrength", 0.0f);
        p->setUniformValue("smooth_face_area", QVector4D(0.25f, 0.25f, 0.5f, 0.5f));
    });
    // Far outside the face area the weight is cut to 0: exactly the input.
    for (const Pixel& px : std::vector<Pixel>{{0, 0}, {62, 0}, {0, 62}, {62, 62}, {2, 31}})
        EXPECT_EQ(gltest::rgbaAt(out, px.x, px.y).r, gltest::rgbaAt(input, px.x, px.y).r) << px.x << "," << px.y;
    // At the centre the weight is 1: at strength 0 the pixel is only
    // brightened by the power 0.96.
    const gltest::Rgba in = gltest::rgbaAt(input, 31, 31);
    const gltest::Rgba o = gltest::rgbaAt(out, 31, 31);
    EXPECT_NEAR(o.r, toByte(std::pow(in.r / 255.0f, 0.96f)), 1);
    EXPECT_NEAR(o.g, toByte(std::pow(in.g / 255.0f, 0.96f)), 1);
    EXPECT_NEAR(o.b, toByte(std::pow(in.b / 255.0f, 0.96f)), 1);

    // Any other filter type writes nothing the test relies on; type 1 with
    // strength smooths a noisy face area without touching the outside.
    const QImage smoothed = render(gl, program, input, [](QOpenGLShaderProgram* p) {
        p->setUniformValue("filterType", 1.0f);
        p->setUniformValue("smoothStrength", 1.5f);
        p->setUniformValue("smooth_face_area", QVector4D(0.25f, 0.25f, 0.5f, 0.5f));
    });
    EXPECT_EQ(gltest::rgbaAt(smoothed, 0, 0).g, gltest::rgbaAt(input, 0, 0).g);
}

namespace {

struct P2 {
    float x, y;
};

P2 curveWarp(P2 c, P2 origin, P2 target, float radius)
{
    const P2 direction{target.x - origin.x, target.y - origin.y};
    const float d = std::hypot(c.x - origin.x, c.y - origin.y);
    const float infect = clamp01(1.0f - d / radius);
    return {c.x - direction.x * infect, c.y - direction.y * infect};
}

P2 faceLiftCpu(P2 c, const std::vector<float>& k, float strength, float radius)
{
    auto point = [&](int i) { return P2{k[2 * i], k[2 * i + 1]}; };
    const float scale = strength * 0.012f;
    struct Step {
        int source, target;
        float factor;
    };
    std::vector<Step> steps;
    for (int s : {5, 27, 6, 26, 7, 25})
        steps.push_back({s, 53, scale});
    for (int s : {8, 24})
        steps.push_back({s, 53, scale * 2});
    for (int s : {9, 23, 10, 22, 11, 21, 12, 20, 13, 19, 14, 18, 15, 17})
        steps.push_back({s, 90, scale * 2});
    for (const Step& st : steps) {
        const P2 o = point(st.source);
        const P2 t = point(st.target);
        c = curveWarp(c, o, P2{o.x + (t.x - o.x) * st.factor, o.y + (t.y - o.y) * st.factor}, radius);
    }
    return c;
}

}  // namespace

TEST_F(ShaderMath, SlimFaceWarpMatchesCpuChain)
{
    ShaderWorker program(":/filters/slimface_filter_vertex.glsl", ":/filters/slimface_filter_fragment.glsl");
    ASSERT_TRUE(program.isInitialised());
    // A coordinate ramp: red is 4 x the texel column, green 4 x the row, so a
    // linear sample tells where the fragment read.
    const int size = 64;
    QImage ramp(size, size, QImage::Format_RGBA8888);
    for (int y = 0; y < size; ++y)
        for (int x = 0; x < size; ++x) {
            uchar* p = ramp.scanLine(y) + 4 * x;
            p[0] = static_cast<uchar>(4 * x);
            p[1] = static_cast<uchar>(4 * y);
            p[2] = 0;
            p[3] = 255;
        }
    // A face: the contour down both sides, the pull targets in the middle,
    // the eyes 24 pixels apart. Points are relative to the face area.
    std::vector<float> points(196, 500.0f);
    auto set = [&](int i, float x, float y) {
        points[2 * i] = x;
        points[2 * i + 1] = y;
    };
    for (int i = 5; i <= 15; ++i)
        set(i, 10.0f + (i - 5) * 1.2f, 18.0f + (i - 5) * 3.0f);
    for (int i = 17; i <= 27; ++i)
        set(i, 52.0f - (27 - i) * 1.2f, 18.0f + (27 - i) * 3.0f);
    set(16, 32, 52);
    set(53, 32, 30);
    set(90, 32, 44);
    set(96, 20, 20);
    set(97, 44, 20);
    const QVector4D area(2.0f, 3.0f, 60.0f, 60.0f);

    for (float strength : {0.0f, 1.0f, 3.0f}) {
        const QImage out = render(
            gl, program, ramp,
            [&](QOpenGLShaderProgram* p) {
                p->setUniformValue("slimStrength", strength);
                p->setUniformValue("textureWidth", float(size));
                p->setUniformValue("textureHeight", float(size));
                p->setUniformValue("slim_face_area", area);
                p->setUniformValueArray("keyPoints", points.data(), 196, 1);
            },
            true);
        if (strength == 0.0f) {
            EXPECT_EQ(out, ramp) << "strength 0 leaves every coordinate unchanged";
            continue;
        }
        int moved = 0;
        for (int y = 1; y < size - 1; y += 3)
            for (int x = 1; x < size - 1; x += 3) {
                const P2 local{x + 0.5f - area.x(), y + 0.5f - area.y()};
                const P2 warped = faceLiftCpu(local, points, strength, 24.0f);
                const float u = warped.x + area.x();
                const float v = warped.y + area.y();
                const gltest::Rgba o = gltest::rgbaAt(out, x, y);
                // Clamped to the edge texels beyond the picture.
                const float texelU = std::min(float(size - 1), std::max(0.0f, u - 0.5f));
                const float texelV = std::min(float(size - 1), std::max(0.0f, v - 0.5f));
                EXPECT_NEAR(o.r, 4.0f * texelU, 1.5f) << x << "," << y;
                EXPECT_NEAR(o.g, 4.0f * texelV, 1.5f) << x << "," << y;
                if (std::abs(u - (x + 0.5f)) > 0.25f || std::abs(v - (y + 0.5f)) > 0.25f)
                    ++moved;
            }
        EXPECT_GT(moved, 10) << "the warp must move the jaw";
    }
}

TEST_F(ShaderMath, StickerWritesStickerTexture)
{
    ShaderWorker program(":/filters/sticker_filter_vertex.glsl", ":/filters/sticker_filter_fragment.glsl");
    ASSERT_TRUE(program.isInitialised());
    const QImage input = testPicture(32, 32, true);
    const QImage out = render(gl, program, input, [](QOpenGLShaderProgram* p) {
        p->setUniformValue("stickerTexture", 0);
        p->setUniformValue("premulAlpha", 0.0f);
    });
    EXPECT_EQ(out, input);
}

// A core profile has no default vertex array: the quad must still draw.
TEST(ShaderMathCore, QuadDrawsOnACoreProfile)
{
    gltest::ScopedContext gl(QSurfaceFormat::CoreProfile);
    ASSERT_TRUE(gl.ok);
    const QByteArray version = reinterpret_cast<const char*>(gl.functions->glGetString(GL_VERSION));
    if (!version.contains("Core"))
        GTEST_SKIP() << "no core profile context on this platform (" << version.constData() << ")";
    ShaderWorker program(":/filters/image_filter_vertex.glsl", ":/filters/image_filter_fragment.glsl");
    ASSERT_TRUE(program.isInitialised());
    const QImage input = testPicture(32, 32, false);
    const QImage out = render(gl, program, input, [](QOpenGLShaderProgram* p) { p->setUniformValue("premulAlpha", 0.0f); });
    EXPECT_EQ(out, input);
    EXPECT_EQ(gl.functions->glGetError(), GLenum(GL_NO_ERROR));
}
