// The colour and warp maths of the shader files, checked over whole pictures
// against the CPU evaluations of ShaderReference.h.
#include "shader/ShaderReference.h"

using namespace reference;

namespace {

// filters/<stem>_*.glsl over the whole of `input`.
QImage render(gltest::ScopedContext& gl, const std::string& stem, const QImage& input, const Uniforms& uniforms,
              bool linear = false)
{
    return draw(gl, (stem + "_vertex").c_str(), (stem + "_fragment").c_str(), input.size(),
                {{"inputImageTexture", input}}, uniforms, linear);
}

// The smoothing's weight at pixel (x, y) of a 64 x 64 picture: a Gaussian
// over the face area that drops to 0 below exp(-4).
float faceWeight(int x, int y)
{
    auto d = [](int v) { return (((v + 0.5f) / 64 - 0.25f) / 0.5f - 0.5f) / 0.4f; };  // the area (0.25, 0.25, 0.5, 0.5)
    const float k = std::exp(-(d(x) * d(x) + d(y) * d(y)) / 2);
    return k < std::exp(-4.0f) ? 0 : k;
}

}  // namespace

using ShaderMath = GlTest;

TEST_F(ShaderMath, ColourShadersMatchTheirCpuFormulas)
{
    const QImage input = testPicture(64, 64, true);
    const std::vector<float> face = {0.25f, 0.25f, 0.5f, 0.5f};
    const struct { const char *label, *stem; Uniforms uniforms; std::function<Colour(Colour, int, int)> cpu; }
    cases[] = {
        {"copy", "image_filter", {{"premulAlpha", {0}}}, [](Colour c, int, int) { return c; }},
        {"premultiply", "image_filter", {{"premulAlpha", {1}}}, [](Colour c, int, int) { return premultiplied(c); }},
        // Whitening at its filter's strengths is checked through the channel
        // worker (FaceChain); here the rest.
        {"redden", "whitening_filter", {{"redden", {0.8f}}, {"premulAlpha", {1}}},
         [](Colour c, int, int) { return premultiplied(whiten(c, 0, 0.8f, 0)); }},
        {"lips", "face_area_filter", {{"filterType", {2}}, {"redLipsStrength", {0.125f}}, {"premulAlpha", {1}}},
         [](Colour c, int, int) { return premultiplied(tintLips(c, 0.125f)); }},
        // At strength 0 the smoothing only brightens by the power 0.96,
        // weighed by the face weight.
        {"smooth weight", "face_area_filter",
         {{"filterType", {1}}, {"smoothStrength", {0}}, {"smooth_face_area", face}},
         [&](Colour c, int x, int y) {
             return mix(c, Colour{std::pow(c.r, 0.96f), std::pow(c.g, 0.96f), std::pow(c.b, 0.96f), c.a},
                        faceWeight(x, y));
         }},
        // The sticker program copies its picture; the basic one is checked
        // through the picture pass.
        {"sticker", "sticker_filter", {{"premulAlpha", {0}}}, [](Colour c, int, int) { return c; }},
    };
    for (const auto& c : cases) {
        const QImage out = render(gl, c.stem, input, c.uniforms);
        EXPECT_TRUE(gltest::sameImage(out, mapPixels(input, c.cpu), 1, c.label)) << c.label;
    }
    // On noise at a strength far above the filter's 1.5, so that even a
    // weight just under the cut would show: where the weight is cut nothing
    // changes, no leak of the blur, no NaN of a dark channel.
    const QImage noise = picture(64, 64, [](int x, int y) { return QColor::fromRgb((x * 64 + y) * 2654435761u >> 8); });
    const QImage smoothed = render(gl, "face_area_filter", noise,
                                   {{"filterType", {1}}, {"smoothStrength", {50}}, {"smooth_face_area", face}});
    EXPECT_TRUE(gltest::sameImage(smoothed, noise, 0, "cut", [](int x, int y) { return faceWeight(x, y) == 0; }));
}

// The jaw lift: contour points 5 to 27 (16 excepted) pulled in pairs from
// the top, the first three pairs by 0.012 x strength of the way to point 53,
// then twice that, the last seven pairs towards point 90; each with a linear
// falloff out to the eye distance, one after the other. A coordinate ramp (red
// 4 x the texel column, green 4 x the row) sampled linearly tells where each
// fragment read.
TEST_F(ShaderMath, SlimFaceWarpMatchesCpuChain)
{
    const QImage ramp = picture(64, 64, [](int x, int y) { return QColor(4 * x, 4 * y, 0); });
    // The contour down both sides, the pull targets in the middle, the eyes
    // 24 pixels apart; relative to the face area.
    std::vector<float> k(196, 500.0f);
    auto put = [&](int i, float x, float y) { k[2 * i] = x, k[2 * i + 1] = y; };
    for (int i = 5; i <= 15; ++i) {
        put(i, 10.0f + (i - 5) * 1.2f, 18.0f + (i - 5) * 3.0f);
        put(32 - i, 52.0f - (i - 5) * 1.2f, 18.0f + (i - 5) * 3.0f);
    }
    put(16, 32, 52), put(53, 32, 30), put(90, 32, 44), put(96, 20, 20), put(97, 44, 20);
    for (float strength : {0.0f, 1.0f, 3.0f}) {
        SCOPED_TRACE(strength);
        const QImage out = render(gl, "slimface_filter", ramp,
                                  {{"slimStrength", {strength}}, {"textureWidth", {64}}, {"textureHeight", {64}},
                                   {"slim_face_area", {2, 3, 60, 60}}, {"keyPoints", k}},
                                  true);
        int moved = 0;
        for (int y = 1; y < 63; y += 3)
            for (int x = 1; x < 63; x += 3) {
                float u = x + 0.5f - 2, v = y + 0.5f - 3;  // in the face area
                for (int s = 5; s <= 15; ++s)
                    for (int i : {s, 32 - s}) {
                        const int to = s <= 8 ? 53 : 90;
                        const float f = strength * 0.012f * (s <= 7 ? 1 : 2) *
                                        clamp01(1.0f - std::hypot(u - k[2 * i], v - k[2 * i + 1]) / 24.0f);
                        u -= (k[2 * to] - k[2 * i]) * f, v -= (k[2 * to + 1] - k[2 * i + 1]) * f;
                    }
                u += 2, v += 3;
                // Clamped to the edge texels beyond the picture.
                const Colour got = colourAt(out, x, y);
                EXPECT_NEAR(got.r * 255, 4 * std::clamp(u - 0.5f, 0.0f, 63.0f), 1.5f) << x << "," << y;
                EXPECT_NEAR(got.g * 255, 4 * std::clamp(v - 0.5f, 0.0f, 63.0f), 1.5f) << x << "," << y;
                moved += std::abs(u - (x + 0.5f)) > 0.25f || std::abs(v - (y + 0.5f)) > 0.25f;
            }
        EXPECT_EQ(moved > 10, strength > 0) << "the warp moves the jaw, and only with a strength";
    }
}
