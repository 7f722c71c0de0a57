// The shader resource set: the tree holds every file and nothing else, every
// program of the files builds, no library code reaches the dormant ones, and
// a few dormant effects compute their formulas, checked pixel by pixel.
#include <algorithm>
#include <array>
#include <cmath>
#include <functional>
#include <memory>
#include <vector>

#include <gtest/gtest.h>

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QOpenGLShaderProgram>
#include <QOpenGLTexture>
#include <QVector2D>

#include "gpu/GlTestSupport.h"
#include "shader/ShaderWorker.h"
#include "TestUtil.h"

namespace {

struct Program {
    const char* vertex;
    const char* fragment;
    bool dormant;  // no library code builds it
};
const Program kPrograms[] = {
    {"image_filter_vertex", "image_filter_fragment", false},
    {"basic_image_filter_vertex", "basic_image_filter_fragment", false},
    {"face_area_filter_vertex", "face_area_filter_fragment", false},
    {"whitening_filter_vertex", "whitening_filter_fragment", false},
    {"slimface_filter_vertex", "slimface_filter_fragment", false},
    {"sticker_filter_vertex", "sticker_filter_fragment", false},
    {"file_merger_vertex", "file_merger_fragment", false},
    {"3d_render_vertex", "3d_render_fragment", false},
    {"chroma_key_filter_vertex", "chroma_key_filter_fragment", true},
    {"chroma_key_filter_vertex", "green_filter_z0_fragment", true},
    {"chroma_key_filter_vertex", "green_filter_z1_fragment", true},
    {"chroma_key_filter_vertex", "green_filter_z2_fragment", true},
    {"chroma_key_filter_vertex", "green_filter_z3_fragment", true},
    {"bilateral_filter_vertex", "bilateral_filter_fragment", true},
    {"gaussian_filter_vertex", "gaussian_filter_fragment", true},
    {"transition_animation_vertex", "transition_animation_fragment", true},
    {"bgr2nv12_vertex", "bgr2nv12_fragment", true},
    {"rgba2yuvv", "rgba2yuvf", true},
    {"yuv2rgbav", "yuv2rgbaf", true},
    {"opengl_bg_vertex", "opengl_bg_fragment", true},
    {"bg_postprocess_vertex", "bg_postprocess_fragment", true},
    {"face_preprocess_vertex", "face_preprocess_fragment", true},
};

QString resource(const char* stem)
{
    return QStringLiteral(":/filters/%1.glsl").arg(stem);
}

using Colour = std::array<float, 4>;  // r, g, b, a in 0..1

Colour at(const QImage& image, int x, int y)
{
    const gltest::Rgba p = gltest::rgbaAt(image, x, y);
    return {p.r / 255.0f, p.g / 255.0f, p.b / 255.0f, p.a / 255.0f};
}

void expectPixel(const QImage& out, int x, int y, const Colour& want, const char* what)
{
    const gltest::Rgba got = gltest::rgbaAt(out, x, y);
    const int bytes[4] = {got.r, got.g, got.b, got.a};
    for (int c = 0; c < 4; ++c)
        EXPECT_NEAR(bytes[c], std::lround(std::clamp(want[c], 0.0f, 1.0f) * 255.0f), 2)
            << what << ", pixel " << x << "," << y << ", channel " << c;
}

QImage picture(int width, int height, const std::function<QColor(int, int)>& colour)
{
    QImage image(width, height, QImage::Format_RGBA8888);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            image.setPixelColor(x, y, colour(x, y));
    return image;
}

// Distinct opaque colours.
const auto varied = [](int x, int y) {
    return QColor((x * 61 + y * 17) % 256, (x * 23 + y * 89 + 40) % 256, (x * 131 + y * 7 + 90) % 256);
};

struct Input {
    const char* sampler;
    QImage image;
};

// Draws the program over a target of `size` with blending off, the inputs on
// units 0, 1, ... sampled nearest and clamped, and reads the target back.
QImage draw(gltest::ScopedContext& gl, const char* vertex, const char* fragment, QSize size,
            const std::vector<Input>& inputs, const std::function<void(QOpenGLShaderProgram*)>& uniforms = {})
{
    ShaderWorker worker(resource(vertex), resource(fragment));
    EXPECT_TRUE(worker.isInitialised()) << fragment;
    QOpenGLFramebufferObject fbo(size);
    fbo.bind();
    gl.functions->glViewport(0, 0, size.width(), size.height());
    gl.functions->glDisable(GL_BLEND);
    std::vector<std::unique_ptr<QOpenGLTexture>> textures;
    for (const Input& input : inputs) {
        const int unit = static_cast<int>(textures.size());
        textures.emplace_back(new QOpenGLTexture(input.image, QOpenGLTexture::DontGenerateMipMaps));
        textures.back()->setMinMagFilters(QOpenGLTexture::Nearest, QOpenGLTexture::Nearest);
        textures.back()->setWrapMode(QOpenGLTexture::ClampToEdge);
        textures.back()->bind(static_cast<uint>(unit));
        worker.shaderProgram()->setUniformValue(input.sampler, unit);
    }
    if (uniforms)
        uniforms(worker.shaderProgram());
    worker.resetMatrices();
    worker.initVertices();
    worker.drawStrip();
    return gltest::readRgba(gl.functions, &fbo);
}

}  // namespace

TEST(ShaderCatalogue, ResourceTreeHoldsExactlyTheFilesOfThePrograms)
{
    QStringList expected;
    for (const Program& p : kPrograms)
        expected << QString(p.vertex) + ".glsl" << QString(p.fragment) + ".glsl";
    expected.removeDuplicates();
    expected.sort();
    EXPECT_EQ(expected.size(), 40);
    EXPECT_EQ(QDir(":/filters").entryList(QDir::Files, QDir::Name), expected);
}

TEST(ShaderCatalogue, NoLibrarySourceNamesADormantFile)
{
    QDirIterator it(testutil::testDataPath("../src"), QDir::Files, QDirIterator::Subdirectories);
    int files = 0;
    for (; it.hasNext(); ++files) {
        QFile source(it.next());
        ASSERT_TRUE(source.open(QIODevice::ReadOnly));
        const QByteArray text = source.readAll();
        for (const Program& p : kPrograms)
            EXPECT_FALSE(p.dormant && (text.contains(p.vertex) || text.contains(p.fragment))) << qPrintable(it.filePath());
    }
    EXPECT_GT(files, 20) << "the library's sources were not found";
}

class ShaderCatalogueGl : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(gl.ok); }
    gltest::ScopedContext gl;
};

TEST_F(ShaderCatalogueGl, EveryProgramCompilesAndLinks)
{
    for (const Program& p : kPrograms) {
        ShaderWorker worker(resource(p.vertex), resource(p.fragment));
        EXPECT_TRUE(worker.isInitialised()) << p.vertex << " + " << p.fragment;
    }
}

// Y, U and V bytes per column, one plane per texture.
TEST_F(ShaderCatalogueGl, Yuv2RgbaConvertsKnownValues)
{
    const int yuv[][3] = {{81, 90, 240}, {145, 54, 34}, {41, 240, 110}, {128, 128, 128}, {16, 200, 60}};
    const int n = static_cast<int>(std::size(yuv));
    auto plane = [&](int c) { return picture(n, 1, [&](int x, int) { return QColor(yuv[x][c], yuv[x][c], yuv[x][c]); }); };
    const QImage out =
        draw(gl, "yuv2rgbav", "yuv2rgbaf", QSize(n, 1), {{"tex_y", plane(0)}, {"tex_u", plane(1)}, {"tex_v", plane(2)}});
    for (int x = 0; x < n; ++x) {
        const float y = yuv[x][0] / 255.0f, u = yuv[x][1] / 255.0f - 0.5f, v = yuv[x][2] / 255.0f - 0.5f;
        expectPixel(out, x, 0, {1.164f * y + 1.596f * v, 1.164f * y - 0.392f * u - 0.813f * v, 1.164f * y + 2.017f * u, 1.0f},
                    "yuv2rgba");
    }
}

// Five samples on the diagonal through the pixel; the weights of the four
// neighbours fall with their colour distance to the centre.
TEST_F(ShaderCatalogueGl, BilateralWeightsFallWithColourDistance)
{
    const QImage input = picture(5, 5, varied);
    const float baseWeights[5] = {0.05f, 0.09f, 0.18f, 0.12f, 0.15f};
    for (float factor : {0.0f, 1.5f, 6.0f}) {
        const QImage out = draw(gl, "bilateral_filter_vertex", "bilateral_filter_fragment", input.size(),
                                {{"inputImageTexture", input}}, [&](QOpenGLShaderProgram* p) {
                                    p->setUniformValue("pixel_size", QVector2D(1.0f / 5, 1.0f / 5));
                                    p->setUniformValue("distanceNormalizationFactor", factor);
                                });
        for (int y = 0; y < 5; ++y)
            for (int x = 0; x < 5; ++x) {
                const Colour centre = at(input, x, y);
                Colour sum{};
                float total = 0.0f;
                for (int i = 0; i < 5; ++i) {
                    const Colour s = at(input, std::clamp(x + i - 2, 0, 4), std::clamp(y + i - 2, 0, 4));
                    const float d = std::hypot(s[0] - centre[0], s[1] - centre[1], s[2] - centre[2]);
                    const float w = baseWeights[i] * (1.0f - std::min(d * factor, 1.0f));
                    total += w;
                    for (int c = 0; c < 4; ++c)
                        sum[c] += s[c] * w;
                }
                expectPixel(out, x, y, {sum[0] / total, sum[1] / total, sum[2] / total, sum[3] / total}, "bilateral");
            }
    }
}

// Key green, a skin tone and a half-keyed greenish grey, one per column, over
// a blue background; all uniforms keep their start values.
TEST_F(ShaderCatalogueGl, ChromaKeyRemovesGreenAndKeepsSkin)
{
    const QColor colours[] = {QColor(0, 255, 0), QColor(224, 172, 140), QColor(120, 160, 120)};
    const QImage fg = picture(3, 1, [&](int x, int) { return colours[x]; });
    const QImage bg = picture(3, 1, [](int, int) { return QColor(40, 60, 200); });
    const QImage out = draw(gl, "chroma_key_filter_vertex", "chroma_key_filter_fragment", QSize(3, 1),
                            {{"fgImage", fg}, {"bgImage", bg}});
    expectPixel(out, 0, 0, at(bg, 0, 0), "green gives way to the background");
    expectPixel(out, 1, 0, at(fg, 1, 0), "skin stays as it is");
    for (int x = 0; x < 3; ++x) {
        Colour c = at(fg, x, 0);
        const Colour b = at(bg, x, 0);
        const float cb = -0.100644f * c[0] - 0.338572f * c[1] + 0.439216f * c[2] + 0.501961f;
        const float cr = 0.439216f * c[0] - 0.398942f * c[1] - 0.040274f * c[2] + 0.501961f;
        const float base = std::hypot(cb - 0.163388997f, cr - 0.103018999f) - 0.4f;  // flat: box = centre
        const float alpha = std::pow(std::clamp(base / 0.0799999f, 0.0f, 1.0f), 1.5f);
        const float spill = std::pow(std::clamp(base / 0.1f, 0.0f, 1.0f), 1.5f);
        const float desat = std::clamp(0.2126f * c[0] + 0.7152f * c[1] + 0.0722f * c[2], 0.0f, 1.0f);
        c = {desat + (c[0] - desat) * spill, desat + (c[1] - desat) * spill, desat + (c[2] - desat) * spill, alpha};
        for (int i = 0; i < 4; ++i)
            c[i] = b[i] * (1.0f - alpha) + c[i] * alpha;
        expectPixel(out, x, 0, c, "chroma key");
    }
}

// A 4 x 2 picture packed by each of the three targets.
TEST_F(ShaderCatalogueGl, Bgr2Nv12PacksTheThreeTargets)
{
    const QImage input = picture(4, 2, varied);
    auto px = [&](int x, int y) { return at(input, x, y); };
    auto yuv = [](const Colour& c) {
        return Colour{0.183f * c[0] + 0.614f * c[1] + 0.062f * c[2] + 16.0f / 255,
                      -0.101f * c[0] - 0.339f * c[1] + 0.439f * c[2] + 0.5f,
                      0.439f * c[0] - 0.399f * c[1] - 0.040f * c[2] + 0.5f, 1.0f};
    };
    auto mean = [](const Colour& a, const Colour& b) {
        return Colour{(a[0] + b[0]) / 2, (a[1] + b[1]) / 2, (a[2] + b[2]) / 2, 1.0f};
    };
    auto block = [&](int x) { return yuv(mean(mean(px(x, 0), px(x + 1, 0)), mean(px(x, 1), px(x + 1, 1)))); };
    struct Target {
        int targetT;
        QSize size;
        std::function<Colour(int, int)> want;
    };
    const Target targets[] = {
        // NV12: two rows of Y, four pixels each, then u, v of each 2 x 2 block.
        {0, {1, 3}, [&](int, int y) {
             return y < 2 ? Colour{yuv(px(0, y))[0], yuv(px(1, y))[0], yuv(px(2, y))[0], yuv(px(3, y))[0]}
                          : Colour{block(0)[1], block(0)[2], block(2)[1], block(2)[2]};
         }},
        // UYVY: u, y, v, y per pair of pixels; the second pair swaps its y.
        {1, {2, 2}, [&](int x, int y) {
             const Colour l = px(2 * x, y), r = px(2 * x + 1, y), uv = yuv(mean(l, r));
             return Colour{uv[1], yuv(x == 1 ? r : l)[0], uv[2], yuv(x == 1 ? l : r)[0]};
         }},
        // Pillar-box: a quarter of the width black on each side.
        {2, {8, 2}, [&](int x, int y) { return x < 2 || x > 5 ? Colour{0, 0, 0, 1} : px(x - 2, y); }},
    };
    for (const Target& t : targets) {
        const QImage out = draw(gl, "bgr2nv12_vertex", "bgr2nv12_fragment", t.size, {{"inputImageTexture", input}},
                                [&](QOpenGLShaderProgram* p) {
                                    p->setUniformValue("pixel_size", QVector2D(1.0f / 4, 1.0f / 2));
                                    p->setUniformValue("texWidth", static_cast<float>(t.size.width()));
                                    p->setUniformValue("targetT", t.targetT);
                                    p->setUniformValue("texBorder", 0.25f);
                                });
        for (int y = 0; y < t.size.height(); ++y)
            for (int x = 0; x < t.size.width(); ++x)
                expectPixel(out, x, y, t.want(x, y), ("target " + std::to_string(t.targetT)).c_str());
    }
}

// 65 samples divided by 49: a flat picture comes out brighter by 65/49.
TEST_F(ShaderCatalogueGl, GaussianBrightensAFlatPictureBy65Over49)
{
    for (int level : {30, 128, 200}) {
        const QImage out = draw(gl, "gaussian_filter_vertex", "gaussian_filter_fragment", QSize(8, 8),
                                {{"inputTexture", picture(8, 8, [&](int, int) { return QColor(level, level, level); })}},
                                [](QOpenGLShaderProgram* p) { p->setUniformValue("pixel_size", QVector2D(1.0f / 8, 1.0f / 8)); });
        const float v = level / 255.0f * 65.0f / 49.0f;
        for (int xy : {0, 3, 7})
            expectPixel(out, xy, 7 - xy, {v, v, v, 1.0f}, "gaussian");
    }
}
