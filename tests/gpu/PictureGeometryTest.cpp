// The geometry of the picture pass without GL, worked by hand on a 64 x 48
// frame (and a 48 x 64 one): the channel's box fitted to the frame, the box
// and rim of a round camera, the corners of the first pass, which clip sizes
// can be made, and where the first clip pass puts the picture.
#include <tuple>

#include <gtest/gtest.h>

#include "gpu/PictureGeometry.h"

using namespace picturegeometry;

// A box larger than the frame shrinks by the larger ratio; one smaller on
// both sides grows by the smaller; one with a side equal stays. A plain clip,
// at any scale, is the fitted box, with no rim.
TEST(PictureGeometry, TheChannelBoxIsFittedToTheFrame)
{
    const struct { float cw, ch, w, h; } cases[] = {
        {200, 100, 64, 32},  // by 3.125
        {100, 30, 64, 19.2f},  // wider only: by 100 / 64
        {40, 96, 20, 48},    // taller only
        {16, 24, 32, 48},    // grown by 2, not by 4
        {32, 48, 32, 48},    // the height equal
        {64, 8, 64, 8},      // the width equal
        {64, 48, 64, 48},
    };
    for (const auto& c : cases) {
        const BoxF box = fitChannelBox(c.cw, c.ch, 64, 48);
        EXPECT_FLOAT_EQ(box.width, c.w) << c.cw << "x" << c.ch;
        EXPECT_FLOAT_EQ(box.height, c.h) << c.cw << "x" << c.ch;
        const ClipBox plain = clipBox(c.cw, c.ch, 64, 48, 2, false);
        EXPECT_EQ(std::make_tuple(plain.box.width, plain.box.height, plain.xRadius, plain.yRadius, plain.inXbias,
                                  plain.inYbias), std::make_tuple(box.width, box.height, 0.f, 0.f, 0.f, 0.f))
            << c.cw << "x" << c.ch;
    }
}

// A round camera's box is the square of the shorter side over the scale,
// whatever the frame's size; its radius half the shorter side, at most half
// the box; its biases centre it where it is narrower than the frame.
TEST(PictureGeometry, ARoundCameraBoxIsTheShorterSideOverTheScale)
{
    const struct { int w, h; float scale; float side; int radius; float inXbias, inYbias; QSize size; } cases[] = {
        {64, 48, 1, 48, 24, 0.125f, 0, {48, 48}},
        {48, 64, 1, 48, 24, 0, 0.125f, {48, 48}},       // standing: the bias in y
        {64, 48, 2, 24, 12, 0.3125f, 0.25f, {24, 24}},  // the radius limited to half the box
        {64, 48, 0.8f, 60, 24, 0.03125f, 0, {60, 60}},
        // Wider than the frame: truncated, no bias, so nothing is cut round.
        {64, 48, 0.72f, 48 / 0.72f, 24, 0, 0, {66, 66}},
        {1280, 720, 0.56f, 720 / 0.56f, 360, 0, 0, {1285, 1285}},
    };
    for (const auto& c : cases) {
        // The channel's own box doesn't count.
        const ClipBox clip = clipBox(200, 20, c.w, c.h, c.scale, true);
        EXPECT_FLOAT_EQ(clip.box.width, c.side) << c.w << "x" << c.h << " at " << c.scale;
        EXPECT_FLOAT_EQ(clip.box.height, c.side) << c.w << "x" << c.h << " at " << c.scale;
        EXPECT_FLOAT_EQ(clip.xRadius, c.radius / float(c.w)) << c.w << "x" << c.h << " at " << c.scale;
        EXPECT_FLOAT_EQ(clip.yRadius, c.radius / float(c.h)) << c.w << "x" << c.h << " at " << c.scale;
        EXPECT_FLOAT_EQ(clip.inXbias, c.inXbias) << c.w << "x" << c.h << " at " << c.scale;
        EXPECT_FLOAT_EQ(clip.inYbias, c.inYbias) << c.w << "x" << c.h << " at " << c.scale;
        EXPECT_EQ(clipSize(clip.box), c.size) << c.w << "x" << c.h << " at " << c.scale;
    }
}

// Sizes no framebuffer can hold are refused; a box larger than the frame is not.
TEST(PictureGeometry, OnlySizesNoFramebufferCanHoldAreRefused)
{
    const struct { QSize size; bool fits; } cases[] = {
        {{66, 66}, true}, {{1285, 1285}, true}, {{8192, 1}, true}, {{0, 48}, false},
        {{48, 0}, false}, {{-5, 48}, false},    {{8193, 48}, false}, {{48, 8193}, false},
    };
    for (const auto& c : cases)
        EXPECT_EQ(clipSizeFits(c.size, 8192), c.fits) << c.size.width() << "x" << c.size.height();
}

// The corners of the first pass: a corner radius at most half of each side,
// a round camera's half the shorter side; in texture units after the scale.
TEST(PictureGeometry, PictureCornersAndBias)
{
    const struct { int corner; bool round; float scale; int radius; int radiusPixels; float bias; } cases[] = {
        {10, false, 1, 10, 10, 0},
        {1000, false, 1, 24, 24, 0},  // half the height
        {1000, true, 1, 24, 24, 0},
        {0, true, 2, 24, 12, 0.25f},
        {5, false, 0.72f, 5, 6, (0.72f - 1) / 0.72f / 2},  // 5 / 0.72 truncated
    };
    for (const auto& c : cases) {
        const PictureShape shape = pictureShape(64, 48, c.scale, c.corner, c.round);
        EXPECT_EQ(shape.radius, c.radius) << c.corner << " " << c.round << " " << c.scale;
        EXPECT_FLOAT_EQ(shape.xRadius, c.radiusPixels / 64.0f) << c.corner << " " << c.round << " " << c.scale;
        EXPECT_FLOAT_EQ(shape.yRadius, c.radiusPixels / 48.0f) << c.corner << " " << c.round << " " << c.scale;
        EXPECT_FLOAT_EQ(shape.bias, c.bias) << c.corner << " " << c.round << " " << c.scale;
        EXPECT_FLOAT_EQ(shape.xyRatio, 0.75f);
    }
}

// placeClip on a 64 x 48 frame: f = CH/H when the frame is the wider, else
// CW/W, times the scale; tx from the centre offset inside [0, 1] and the
// two rules outside; ty by its three branches, floored to four decimals.
TEST(PictureGeometry, ClipPlacementAsWorkedByHand)
{
    const struct { int cw, ch; float cx, cy, s, tx, ty, f; } cases[] = {
        {32, 48, 0.5f, 0.5f, 1, -0.5f, 0, 1},
        {32, 48, 0.5f, 0.5f, 2, -0.5f, 0, 2},
        {64, 8, 0.5f, 0.1f, 1, 0, -0.1667f, 1},      // -1/6: floor, not truncation
        {64, 8, 0.5f, 1.5f, 1, 0, -0.875f, 1},       // below: 2(-5)/48 - 2(16)/48
        {64, 8, 0.5f, 1.9f, 1, 0, -1.0005f, 1},      // 9 + 16 > 24: off the frame
        {64, 8, -0.2f, -0.25f, 1, -0.8f, -0.75f, 1},  // -(c + 1) both ways
        {48, 48, 1.5f, 0.5f, 1, -0.25f, 0, 1},        // 2(48 - 32)/64 - 2(48/64)(0.5)
        // A round camera's box wider than the frame: f = 66/48 x 0.72,
        // tx 2(66 - 64)/64 / 2, ty 2(-1.8)(-5)/48.
        {66, 66, 0.5f, 0.5f, 0.72f, 0.03125f, 0.375f, 66.0f / 48 * 0.72f},
    };
    for (const auto& c : cases) {
        const ClipPlacement place = placeClip(64, 48, c.cw, c.ch, c.cx, c.cy, c.s);
        EXPECT_NEAR(place.tx, c.tx, 1e-6) << c.cw << "x" << c.ch << " at " << c.cx << ", " << c.cy;
        EXPECT_NEAR(place.ty, c.ty, 1e-6) << c.cw << "x" << c.ch << " at " << c.cx << ", " << c.cy;
        EXPECT_FLOAT_EQ(place.scale, c.f) << c.cw << "x" << c.ch << " scale " << c.s;
    }
}
