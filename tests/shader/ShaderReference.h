#pragma once
// CPU evaluations of the shader formulas, one for each, for the tests to
// compare the GPU's pixels with; the pictures they start from and the one
// draw of a shader pair that the shader tests share.

#include <algorithm>
#include <cmath>
#include <functional>
#include <memory>
#include <vector>

#include <QOpenGLFramebufferObject>
#include <QOpenGLShaderProgram>
#include <QOpenGLTexture>

#include "gpu/GlTestSupport.h"
#include "shader/ShaderWorker.h"

namespace reference {

struct Colour { float r, g, b, a; };

inline float clamp01(float v) { return std::min(1.0f, std::max(0.0f, v)); }
inline float mix(float a, float b, float t) { return a + (b - a) * t; }
inline Colour mix(Colour a, Colour b, float t) { return {mix(a.r, b.r, t), mix(a.g, b.g, t), mix(a.b, b.b, t), a.a}; }
inline Colour clamp(Colour c) { return {clamp01(c.r), clamp01(c.g), clamp01(c.b), c.a}; }
inline float luma(Colour c) { return c.r * 0.299f + c.g * 0.587f + c.b * 0.114f; }
inline Colour screen(Colour c)
{
    const auto s = [](float v) { return 1 - (1 - v) * (1 - v); };
    return {s(c.r), s(c.g), s(c.b), c.a};
}
inline Colour premultiplied(Colour c) { return {c.r * c.a, c.g * c.a, c.b * c.a, c.a}; }

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
inline Colour whitenAtStrength(Colour c, float s) { return whiten(c, s / 100, s / 200, s / 100); }

// The lip tint: a mix towards one lip colour.
inline Colour tintLips(Colour c, float strength) { return mix(c, Colour{0.502f, 0.122f, 0.102f, c.a}, strength); }

// One pixel of an RGBA8888 picture, channels 0 to 1.
inline Colour colourAt(const QImage& image, int x, int y)
{
    const uchar* p = image.constScanLine(y) + 4 * x;
    return {p[0] / 255.0f, p[1] / 255.0f, p[2] / 255.0f, p[3] / 255.0f};
}

// `input` with each pixel replaced by `f` of it (channels 0 to 1), rounded to
// bytes as the framebuffer does.
inline QImage mapPixels(const QImage& input, const std::function<Colour(Colour, int x, int y)>& f)
{
    QImage out = input.convertToFormat(QImage::Format_RGBA8888);
    for (int y = 0; y < out.height(); ++y)
        for (int x = 0; x < out.width(); ++x) {
            const Colour c = f(colourAt(out, x, y), x, y);
            const float channels[4] = {c.r, c.g, c.b, c.a};
            for (int i = 0; i < 4; ++i)
                out.scanLine(y)[4 * x + i] = static_cast<uchar>(std::lround(clamp01(channels[i]) * 255.0f));
        }
    return out;
}

// An RGBA8888 picture with the colour `colour(x, y)` at each pixel.
inline QImage picture(int width, int height, const std::function<QColor(int, int)>& colour)
{
    QImage image(width, height, QImage::Format_RGBA8888);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            image.setPixelColor(x, y, colour(x, y));
    return image;
}

// Varied colours and, when asked, alphas, so that every channel matters.
inline QImage testPicture(int width, int height, bool withAlpha = false)
{
    return picture(width, height, [=](int x, int y) {
        return QColor(x * 255 / (width - 1), y * 255 / (height - 1), (x + y) * 97 % 256,
                      withAlpha ? 255 - (x * 7 + y * 3) % 200 : 255);
    });
}

// A test with a context of its own, current from set-up to tear-down.
struct GlTest : ::testing::Test {
    void SetUp() override { ASSERT_TRUE(gl.ok); }
    gltest::ScopedContext gl;
};

// Uniform values by name: a float, a vec2, a vec4, or an array of floats.
using Uniforms = std::vector<std::pair<const char*, std::vector<float>>>;

// Draws the program of filters/<vertex>.glsl and <fragment>.glsl over a
// target of `size` with blending off, the input pictures on units 0, 1, ...
// by sampler name, sampled nearest (or linear) and clamped, and reads the
// target back.
inline QImage draw(gltest::ScopedContext& gl, const char* vertex, const char* fragment, QSize size,
                   const std::vector<std::pair<const char*, QImage>>& inputs, const Uniforms& uniforms = {},
                   bool linear = false)
{
    ShaderWorker worker(QString(":/filters/%1.glsl").arg(vertex), QString(":/filters/%1.glsl").arg(fragment));
    EXPECT_TRUE(worker.isInitialised()) << vertex << " + " << fragment;
    if (!worker.isInitialised())
        return {};
    QOpenGLFramebufferObject fbo(size);
    fbo.bind();
    gl.functions->glViewport(0, 0, size.width(), size.height());
    gl.functions->glDisable(GL_BLEND);
    std::vector<std::unique_ptr<QOpenGLTexture>> textures;
    for (const auto& [sampler, image] : inputs) {
        textures.emplace_back(new QOpenGLTexture(image, QOpenGLTexture::DontGenerateMipMaps));
        const auto filter = linear ? QOpenGLTexture::Linear : QOpenGLTexture::Nearest;
        textures.back()->setMinMagFilters(filter, filter);
        textures.back()->setWrapMode(QOpenGLTexture::ClampToEdge);
        textures.back()->bind(static_cast<uint>(textures.size() - 1));
        worker.shaderProgram()->setUniformValue(sampler, static_cast<int>(textures.size() - 1));
    }
    for (const auto& [name, v] : uniforms)  // more than 4 values: an array of floats
        worker.shaderProgram()->setUniformValueArray(name, v.data(), v.size() > 4 ? int(v.size()) : 1,
                                                     v.size() > 4 ? 1 : int(v.size()));
    worker.resetMatrices();
    worker.initVertices();
    worker.drawStrip();
    QImage drawn(size, QImage::Format_RGBA8888);  // the bytes as drawn, row 0 first
    gl.functions->glReadPixels(0, 0, size.width(), size.height(), GL_RGBA, GL_UNSIGNED_BYTE, drawn.bits());
    return drawn;
}

}  // namespace reference
