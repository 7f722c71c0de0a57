#pragma once
// The picture settings of a channel and what each makes of a gradient
// picture, computed on the CPU from the geometry by hand: shared by the
// channel's picture pass tests and the road through the public interface.

#include <cmath>
#include <functional>

#include <QImage>
#include <QPointF>

#include "lumen_fx/ImageFilterTypes.h"
#include "shader/ShaderReference.h"

namespace picture {

using reference::Colour;

// 64 x 48, pixel (x, y) = (4x, 5y, 100) with alpha 255 - x, or opaque:
// linear, so that linear sampling anywhere inside gives the same formula.
// (A scene channel without a pass of its own hands over its picture not
// premultiplied, so the roads through a scene use the opaque one.)
inline Colour gradient(QPointF p, bool alpha = true)
{
    const float u = std::clamp(float(p.x()), 0.0f, 63.0f), v = std::clamp(float(p.y()), 0.0f, 47.0f);
    return {4 * u / 255, 5 * v / 255, 100.0f / 255, alpha ? (255 - u) / 255 : 1};
}
inline QImage gradientPicture(bool alpha = true)
{
    return reference::picture(64, 48, [=](int x, int y) { return QColor(4 * x, 5 * y, 100, alpha ? 255 - x : 255); });
}

// A host's record: opacity 1 and the picture centred, the rest 0; then `set`.
inline _basic_image_param settings(const std::function<void(_basic_image_param&)>& set = {})
{
    _basic_image_param p{};
    p.alpha = 1, p.centerXOffset = 0.5, p.centerYOffset = 0.5;
    if (set)
        set(p);
    return p;
}

const QPointF kTransparent(-1, -1);
const QPointF kDontCare(NAN, NAN);  // on an antialiased rim

// Inside a circle of radius r about c, transparent outside, the rim left out.
inline QPointF inCircle(int x, int y, QPointF c, double r, QPointF source)
{
    const double d = std::hypot(x + 0.5 - c.x(), y + 0.5 - c.y());
    return d < r - 1 ? source : d > r + 1 ? kTransparent : kDontCare;
}

// Size: of the channel's output; source: where output pixel (x, y) samples
// the picture; colour: none for the picture's own.
struct Case {
    const char* name;
    std::function<void(_basic_image_param&)> set;
    QSize size;
    std::function<QPointF(int x, int y)> source;
    std::function<Colour(Colour)> colour = {};
    float alpha = 1;
};

inline float luminance(Colour c) { return c.r * 0.2125f + c.g * 0.7154f + c.b * 0.0721f; }

inline const std::vector<Case>& cases()
{
    using P = _basic_image_param;
    auto same = [](int x, int y) { return QPointF(x, y); };
    static const std::vector<Case> all = {
        {"Plain", [](P&) {}, {64, 48}, same},
        // Saturation 0.6, contrast 1.3, brightness 0.1, in that order.
        {"Colour", [](P& p) { p.brightness = 20, p.contrast = 30, p.saturation = -20; }, {64, 48}, same,
         [](Colour c) {
             auto f = [l = luminance(c)](float v) { return ((l + (v - l) * 0.6f) - 0.5f) * 1.3f + 0.5f + 0.1f; };
             return Colour{f(c.r), f(c.g), f(c.b), c.a};
         }},
        {"Brightness100", [](P& p) { p.brightness = 100; }, {64, 48}, same,
         [](Colour c) { return Colour{c.r + 0.5f, c.g + 0.5f, c.b + 0.5f, c.a}; }},
        {"ContrastMinus100", [](P& p) { p.contrast = -100; }, {64, 48}, same,
         [](Colour c) { return Colour{0.5f, 0.5f, 0.5f, c.a}; }},
        {"SaturationMinus50", [](P& p) { p.saturation = -50; }, {64, 48}, same,
         [](Colour c) { return Colour{luminance(c), luminance(c), luminance(c), c.a}; }},
        // The opacity curve, at most the picture's own: exactly 0.9 at 0.9;
        // 0.5 log10(100 / 6)^2 at 0.5.
        {"Opacity09", [](P& p) { p.alpha = 0.9; }, {64, 48}, same, {}, 0.9f},
        {"Opacity05", [](P& p) { p.alpha = 0.5; }, {64, 48}, same, {}, 0.746457f},
        {"Opacity0", [](P& p) { p.alpha = 0; }, {64, 48}, [](int, int) { return kTransparent; }},
        {"Mirrored", [](P& p) { p.isMirrored = 1; }, {64, 48}, [](int x, int y) { return QPointF(63 - x, y); }},
        // Twice the size about the centre.
        {"Scale25", [](P& p) { p.scale = 25; }, {64, 48}, [](int x, int y) { return QPointF(15.75 + x / 2.0, 11.75 + y / 2.0); }},
        // The radius limited to half the shorter side: a stadium.
        {"Corners1000", [](P& p) { p.cornerRadius = 1000; }, {64, 48},
         [](int x, int y) {
             return x < 24 || x >= 40 ? inCircle(x, y, {x < 24 ? 24.0 : 40.0, 24}, 24, QPointF(x, y)) : QPointF(x, y);
         }},
        // A 32 x 48 box: the left, middle and right of the picture.
        {"ClipLeft", [](P& p) { p.isClip = 1, p.channelWidth = 32, p.channelHeight = 48, p.centerXOffset = 0; },
         {32, 48}, same},
        {"ClipMiddle", [](P& p) { p.isClip = 1, p.channelWidth = 16, p.channelHeight = 24; }, {32, 48},
         [](int x, int y) { return QPointF(x + 16, y); }},
        {"ClipRight", [](P& p) { p.isClip = 1, p.channelWidth = 32, p.channelHeight = 48, p.centerXOffset = 1; },
         {32, 48}, [](int x, int y) { return QPointF(x + 32, y); }},
        // 200 x 100 fitted down to 64 x 32, moved by floor(-1/3, 4 decimals).
        {"BoxLargerThanFrame", [](P& p) { p.isClip = 1, p.channelWidth = 200, p.channelHeight = 100; }, {64, 32},
         [](int x, int y) { return QPointF(x, y + 0.3334 * 24); }},
        {"RoundCamera", [](P& p) { p.isRoundCamera = 1; }, {48, 48},
         [](int x, int y) { return inCircle(x, y, {24, 24}, 24, QPointF(x + 8, y)); }},
        // A box of H / s = 24: radius 12, the square from (20, 12).
        {"RoundCameraScale25", [](P& p) { p.isRoundCamera = 1, p.scale = 25; }, {24, 24},
         [](int x, int y) { return inCircle(x, y, {12, 12}, 12, QPointF(x + 20, y + 12)); }},
        // H / s = 66.7 at a scale of 0.72: a box wider than the frame, truncated
        // to 66. It has no bias, so nothing is cut round; the picture, at
        // 66 / 48 x 0.72 = 0.99 and moved by tx 1/32 and ty 0.375, lands in the
        // frame's 64 x 48 viewport from (1.32, 9.24); the rest stays clear.
        {"RoundCameraBoxBeyondTheFrame", [](P& p) { p.isRoundCamera = 1, p.scale = -7; }, {66, 66},
         [](int x, int y) {
             const double f = 66.0 / 48 * 0.72, left = 32 * (1 + 1.0 / 32 - f), bottom = 24 * (1 + 0.375 - f);
             const double px = x + 0.5, py = y + 0.5;
             if (px < left - 0.5 || py < bottom - 0.5 || px > 64 || py > 48)
                 return kTransparent;
             if (px < left + 0.5 || py < bottom + 0.5)
                 return kDontCare;
             return QPointF((px - left) / f - 0.5, (py - bottom) / f - 0.5);
         }},
        {"RotationZ90", [](P& p) { p.rotationZ = 90; }, {48, 64}, [](int x, int y) { return QPointF(y, 47 - x); }},
    };
    return all;
}

// The output of a case as premultiplied RGBA8888 bytes; over `bg`, as a
// merge shows it, when one is given.
inline QImage expected(const Case& c, QColor bg = Qt::transparent, bool alpha = true)
{
    QImage out(c.size, QImage::Format_RGBA8888);
    for (int y = 0; y < out.height(); ++y)
        for (int x = 0; x < out.width(); ++x) {
            const QPointF s = c.source(x, y);
            Colour v = s == kTransparent || std::isnan(s.x()) ? Colour{0, 0, 0, 0} : gradient(s, alpha);
            if (c.colour && v.a > 0)
                v = c.colour(v);
            v = reference::clamp(reference::premultiplied({v.r, v.g, v.b, std::min(v.a, c.alpha)}));
            const float under = 1 - v.a, bytes[4] = {v.r + float(bg.redF()) * under, v.g + float(bg.greenF()) * under,
                                                     v.b + float(bg.blueF()) * under, v.a + float(bg.alphaF()) * under};
            for (int i = 0; i < 4; ++i)
                out.scanLine(y)[4 * x + i] = static_cast<uchar>(std::lround(std::min(bytes[i], 1.0f) * 255));
        }
    return out;
}

// The pixels that a case pins down: all but the antialiased rims.
inline std::function<bool(int, int)> pinned(const Case& c)
{
    return [&c](int x, int y) { return !std::isnan(c.source(x, y).x()); };
}

}  // namespace picture
