// The shader resource set: the tree holds every file and nothing else, every
// program of the files builds, and the dormant effects that no pass draws
// compute their formulas, checked pixel by pixel, one check each.
#include <QDir>

#include "shader/ShaderReference.h"

using namespace reference;

namespace {

const std::pair<const char*, const char*> kPrograms[] = {
    {"image_filter_vertex", "image_filter_fragment"}, {"basic_image_filter_vertex", "basic_image_filter_fragment"},
    {"face_area_filter_vertex", "face_area_filter_fragment"}, {"whitening_filter_vertex", "whitening_filter_fragment"},
    {"slimface_filter_vertex", "slimface_filter_fragment"}, {"sticker_filter_vertex", "sticker_filter_fragment"},
    {"file_merger_vertex", "file_merger_fragment"}, {"3d_render_vertex", "3d_render_fragment"},
    // No library code builds these.
    {"chroma_key_filter_vertex", "chroma_key_filter_fragment"},
    {"chroma_key_filter_vertex", "green_filter_z0_fragment"}, {"chroma_key_filter_vertex", "green_filter_z1_fragment"},
    {"chroma_key_filter_vertex", "green_filter_z2_fragment"}, {"chroma_key_filter_vertex", "green_filter_z3_fragment"},
    {"bilateral_filter_vertex", "bilateral_filter_fragment"}, {"gaussian_filter_vertex", "gaussian_filter_fragment"},
    {"transition_animation_vertex", "transition_animation_fragment"}, {"bgr2nv12_vertex", "bgr2nv12_fragment"},
    {"rgba2yuvv", "rgba2yuvf"}, {"yuv2rgbav", "yuv2rgbaf"}, {"opengl_bg_vertex", "opengl_bg_fragment"},
    {"bg_postprocess_vertex", "bg_postprocess_fragment"}, {"face_preprocess_vertex", "face_preprocess_fragment"},
};

}  // namespace

using ShaderCatalogueGl = GlTest;

// The resource tree holds exactly the files of the programs, and every
// program compiles and links.
TEST_F(ShaderCatalogueGl, TheTreeHoldsTheFilesOfTheProgramsAndEachBuilds)
{
    QStringList expected;
    for (const auto& p : kPrograms) {
        expected << QString(p.first) + ".glsl" << QString(p.second) + ".glsl";
        EXPECT_TRUE(ShaderWorker(QString(":/filters/%1.glsl").arg(p.first), QString(":/filters/%1.glsl").arg(p.second))
                        .isInitialised())
            << p.first << " + " << p.second;
    }
    expected.removeDuplicates();
    expected.sort();
    EXPECT_EQ(QDir(":/filters").entryList(QDir::Files, QDir::Name), expected);
}

// The dormant effects, each drawn once and compared with its formula worked
// on the CPU.
TEST_F(ShaderCatalogueGl, DormantEffectsComputeTheirFormulas)
{
    // Y, U and V bytes per column, one plane per texture.
    const int yuv[][3] = {{81, 90, 240}, {145, 54, 34}, {41, 240, 110}, {128, 128, 128}, {16, 200, 60}};
    auto plane = [&](int c) { return picture(5, 1, [&](int x, int) { return QColor::fromHsv(0, 0, yuv[x][c]); }); };
    // Bilateral: five samples on the diagonal through the pixel; the weights
    // of the four neighbours fall with their colour distance to the centre.
    const QImage input = testPicture(5, 5);
    const float weights[5] = {0.05f, 0.09f, 0.18f, 0.12f, 0.15f};
    // Chroma key: key green, a skin tone and a half-keyed greenish grey, one
    // per column, over a blue background; all uniforms keep their start values.
    const QColor colours[] = {QColor(0, 255, 0), QColor(224, 172, 140), QColor(120, 160, 120)};
    const QImage fg = picture(3, 1, [&](int x, int) { return colours[x]; });
    const QImage bg = picture(3, 1, [](int, int) { return QColor(40, 60, 200); });
    // NV12 of a 4 x 2 picture: two rows of Y, four pixels each, then u, v of
    // each 2 x 2 block.
    const QImage small = testPicture(4, 2);
    auto yuvOf = [&](int x, int y, int n) {  // of the mean of n x n pixels from (x, y)
        Colour c{0, 0, 0, 1};
        for (int i = 0; i < n * n; ++i) {
            const Colour p = colourAt(small, x + i % n, y + i / n);
            c = {c.r + p.r / (n * n), c.g + p.g / (n * n), c.b + p.b / (n * n), 1};
        }
        return Colour{0.183f * c.r + 0.614f * c.g + 0.062f * c.b + 16.0f / 255,
                      -0.101f * c.r - 0.339f * c.g + 0.439f * c.b + 0.5f,
                      0.439f * c.r - 0.399f * c.g - 0.040f * c.b + 0.5f, 1};
    };
    // Gaussian: 65 samples divided by 49, so a flat picture comes out brighter by 65/49.
    const QImage flat = picture(8, 8, [&](int, int) { return QColor(128, 128, 128); });
    const float level = 128 / 255.0f * 65 / 49;
    const struct { const char *vertex, *fragment; QSize size; std::vector<std::pair<const char*, QImage>> inputs;
                   Uniforms uniforms; QImage expected; } cases[] = {
        {"yuv2rgbav", "yuv2rgbaf", {5, 1}, {{"tex_y", plane(0)}, {"tex_u", plane(1)}, {"tex_v", plane(2)}}, {},
         mapPixels(plane(0), [&](Colour, int x, int) {
             const float y = yuv[x][0] / 255.0f, u = yuv[x][1] / 255.0f - 0.5f, v = yuv[x][2] / 255.0f - 0.5f;
             return Colour{1.164f * y + 1.596f * v, 1.164f * y - 0.392f * u - 0.813f * v, 1.164f * y + 2.017f * u, 1};
         })},
        {"bilateral_filter_vertex", "bilateral_filter_fragment", {5, 5}, {{"inputImageTexture", input}},
         {{"pixel_size", {0.2f, 0.2f}}, {"distanceNormalizationFactor", {1.5f}}},
         mapPixels(input, [&](Colour centre, int x, int y) {
             Colour sum{0, 0, 0, 0};
             float total = 0;
             for (int i = 0; i < 5; ++i) {
                 const Colour s = colourAt(input, std::clamp(x + i - 2, 0, 4), std::clamp(y + i - 2, 0, 4));
                 const float d = std::hypot(s.r - centre.r, s.g - centre.g, s.b - centre.b);
                 const float w = weights[i] * (1 - std::min(1.5f * d, 1.0f));
                 total += w;
                 sum = {sum.r + s.r * w, sum.g + s.g * w, sum.b + s.b * w, sum.a + s.a * w};
             }
             return Colour{sum.r / total, sum.g / total, sum.b / total, sum.a / total};
         })},
        {"chroma_key_filter_vertex", "chroma_key_filter_fragment", {3, 1}, {{"fgImage", fg}, {"bgImage", bg}}, {},
         mapPixels(fg, [&](Colour c, int x, int) {
             const float cb = -0.100644f * c.r - 0.338572f * c.g + 0.439216f * c.b + 0.501961f;
             const float cr = 0.439216f * c.r - 0.398942f * c.g - 0.040274f * c.b + 0.501961f;
             const float base = std::hypot(cb - 0.163388997f, cr - 0.103018999f) - 0.4f;  // flat: box = centre
             const float alpha = std::pow(std::clamp(base / 0.0799999f, 0.0f, 1.0f), 1.5f);
             const float spill = std::pow(std::clamp(base / 0.1f, 0.0f, 1.0f), 1.5f);
             const float grey = clamp01(0.2126f * c.r + 0.7152f * c.g + 0.0722f * c.b);
             const Colour k = mix(Colour{grey, grey, grey, alpha}, c, spill), b = colourAt(bg, x, 0);
             return Colour{mix(b.r, k.r, alpha), mix(b.g, k.g, alpha), mix(b.b, k.b, alpha), mix(b.a, alpha, alpha)};
         })},
        {"bgr2nv12_vertex", "bgr2nv12_fragment", {1, 3}, {{"inputImageTexture", small}},
         {{"pixel_size", {0.25f, 0.5f}}, {"texWidth", {1}}},  // target 0 by default
         mapPixels(small.copy(0, 0, 1, 3), [&](Colour, int, int y) {
             return y < 2 ? Colour{yuvOf(0, y, 1).r, yuvOf(1, y, 1).r, yuvOf(2, y, 1).r, yuvOf(3, y, 1).r}
                          : Colour{yuvOf(0, 0, 2).g, yuvOf(0, 0, 2).b, yuvOf(2, 0, 2).g, yuvOf(2, 0, 2).b};
         })},
        {"gaussian_filter_vertex", "gaussian_filter_fragment", {8, 8}, {{"inputTexture", flat}},
         {{"pixel_size", {0.125f, 0.125f}}},
         mapPixels(flat, [&](Colour, int, int) { return Colour{level, level, level, 1}; })},
    };
    for (const auto& c : cases)
        EXPECT_TRUE(gltest::sameImage(draw(gl, c.vertex, c.fragment, c.size, c.inputs, c.uniforms), c.expected, 2,
                                      c.vertex)) << c.vertex;
}
