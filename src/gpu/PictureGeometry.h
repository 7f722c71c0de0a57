#pragma once
// The geometry of a channel's picture pass, worked without GL: how the
// picture is shaped in the frame, how the channel's box is fitted to the
// frame, the box and rim of a clip or a round camera, and where the picture
// lands in the clip framebuffer. The sizes are those of the frame (W x H)
// and of the clip (CW x CH); the arithmetic, its single and double precision
// and its truncations included, is the one the channel's pictures are tuned
// to.

#include <QSize>

namespace picturegeometry {

// The corners of the picture in the first pass, as the basic image shader
// takes them: the radius in frame pixels, the bias by which a scaled picture
// moves its corners, and the radius in texture units.
struct PictureShape {
    int radius = 0;          // limited to half of each side; a round camera's is half the shorter
    float bias = 0.0f;       // inXbias and inYbias: ((s - 1) / s) / 2
    float xRadius = 0.0f;    // radius / s, truncated, over W
    float yRadius = 0.0f;    // the same over H
    float xyRatio = 0.0f;    // H / W
};
PictureShape pictureShape(int frameWidth, int frameHeight, float scale, int cornerRadius, bool round);

// A width and a height in frame pixels, before they are truncated.
struct BoxF {
    float width = 0.0f;
    float height = 0.0f;
};

// The channel's box fitted to the frame, keeping its proportions: one wider
// or taller than the frame shrinks by the larger ratio until it fits, one
// smaller on both sides grows by the smaller ratio until it touches; one with
// a side equal to the frame's stays as it is.
BoxF fitChannelBox(float channelWidth, float channelHeight, float frameWidth, float frameHeight);

// The box of the clip pass and the rim the shader cuts in it. A plain clip is
// the fitted channel box with no rim. A round camera's box is the square of
// the shorter side over the scale (D), whatever the frame's size: its corner
// radius is half the shorter side, at most D / 2, and its biases centre the
// square where it is narrower than the frame (0 where it is wider).
struct ClipBox {
    BoxF box;
    float xRadius = 0.0f;
    float yRadius = 0.0f;
    float inXbias = 0.0f;
    float inYbias = 0.0f;
};
ClipBox clipBox(float channelWidth, float channelHeight, int frameWidth, int frameHeight, float scale, bool round);

// The size of the clip framebuffers for a box: its sides truncated.
QSize clipSize(const BoxF& box);

// Whether framebuffers of the size can be made: each side at least 1 and
// at most the context's largest (`maxSide`).
bool clipSizeFits(const QSize& size, int maxSide);

// The model of the first clip pass: a move by (tx, ty) in device units after
// a uniform scale. The scale fits the frame to the clip by the side that
// limits it, times the picture's scale; the move follows the centre offsets,
// with rules of their own outside [0, 1], and ty is floored to 4 decimals.
struct ClipPlacement {
    float tx = 0.0f;
    float ty = 0.0f;
    float scale = 1.0f;
};
ClipPlacement placeClip(int frameWidth, int frameHeight, int clipWidth, int clipHeight, float centerX, float centerY,
                        float scale);

}  // namespace picturegeometry
