#pragma once
// CPU evaluations of the shader formulas, one for each, for the tests to
// compare the GPU's pixels with.

#include <algorithm>
#include <cmath>
#include <functional>

#include <QImage>

namespace reference {

struct Colour {
    float r, g, b, a;
};

inline float clamp01(float v) { return std::min(1.0f, std::max(0.0f, v)); }
inline float mix(float a, float b, float t) { return a + (b - a) * t; }
inline Colour mix(Colour a, Colour b, float t) { return {mix(a.r, b.r, t), mix(a.g, b.g, t), mix(a.b, b.b, t), a.a}; }
inline Colour clamp(Colour c) { return {clamp01(c.r), clamp01(c.g), clamp01(c.b), c.a}; }
inline float luma(Colour c) { return c.r * 0.299f + c.g * 0.587f + c.b * 0.114f; }
inline Colour screen(Colour c)
{
    return {1 - (1 - c.r) * (1 - c.r), 1 - (1 - c.g) * (1 - c.g), 1 - (1 - c.b) * (1 - c.b), c.a};
}

// Whitening, then redden, then pinking, each on the previous result; a step
// with a strength of 0 is skipped.
inline Colour whiten(Colour c, float whitening, float redden, float pinking)
{
    if (whitening != 0)
        c = clamp(mix(c, screen(c), whitening * luma(c)));
    if (redden != 0) {
        const Colour red = mix(c, screen(c), 0.2f * redden);
        const float l = luma(red);
        const Colour t3 = mix(Colour{l, l, l, c.a}, red, 1 + redden);
        const Colour t4{t3.r, t3.g, mix(t3.g, t3.b, 0.5f), c.a};
        const float t5 = luma(t4);
        const Colour root{std::sqrt(t4.r), std::sqrt(t4.g), std::sqrt(t4.b), c.a};
        c = clamp(mix(t3, mix(t4, root, t5), redden * t5));
    }
    if (pinking != 0) {
        const Colour pink{std::sqrt(c.r) * 0.41f + 0.59f * c.r, std::sqrt(c.g) * 0.568f + 0.432f * c.g,
                          std::sqrt(c.b) * 0.7640001f + 0.2359999f * c.b, c.a};
        c = clamp(mix(c, pink, pinking * luma(c)));
    }
    return c;
}

// The whitening filter's strength (0 to 100) as the shader's three inputs.
inline Colour whitenAtStrength(Colour c, float strength)
{
    return whiten(c, strength / 100, strength / 200, strength / 100);
}

// The lip tint: a mix towards one lip colour.
inline Colour tintLips(Colour c, float strength) { return mix(c, Colour{0.502f, 0.122f, 0.102f, c.a}, strength); }

// `input` with each pixel replaced by `f` of it (channels 0 to 1), rounded to
// bytes as the framebuffer does.
inline QImage mapPixels(const QImage& input, const std::function<Colour(Colour, int x, int y)>& f)
{
    QImage out = input.convertToFormat(QImage::Format_RGBA8888);
    for (int y = 0; y < out.height(); ++y)
        for (int x = 0; x < out.width(); ++x) {
            uchar* p = out.scanLine(y) + 4 * x;
            const Colour c = f({p[0] / 255.0f, p[1] / 255.0f, p[2] / 255.0f, p[3] / 255.0f}, x, y);
            const float channels[4] = {c.r, c.g, c.b, c.a};
            for (int i = 0; i < 4; ++i)
                p[i] = static_cast<uchar>(std::lround(clamp01(channels[i]) * 255.0f));
        }
    return out;
}

}  // namespace reference
