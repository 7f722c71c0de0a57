#include "gpu/PictureGeometry.h"

#include <algorithm>
#include <cmath>

#include "base/Numbers.h"

namespace picturegeometry {

namespace {

// The shorter side of the frame, by the test the shader's tuning used.
float shorterSide(float frameWidth, float frameHeight)
{
    return 1.0f > frameHeight / frameWidth ? frameHeight : frameWidth;
}

}  // namespace

PictureShape pictureShape(int frameWidth, int frameHeight, float scale, int cornerRadius, bool round)
{
    const float W = static_cast<float>(frameWidth);
    const float H = static_cast<float>(frameHeight);
    PictureShape shape;
    shape.xyRatio = H / W;
    if (round) {
        shape.radius = truncToInt(shorterSide(W, H) * 0.5);
    } else {
        shape.radius = std::min(cornerRadius, frameWidth / 2);
        shape.radius = std::min(shape.radius, frameHeight / 2);
    }
    shape.bias = static_cast<float>(static_cast<double>(scale) - 1.0) / scale * 0.5f;
    const int radiusPixels = truncToInt(shape.radius / scale);
    shape.xRadius = radiusPixels / W;
    shape.yRadius = radiusPixels / H;
    return shape;
}

BoxF fitChannelBox(float channelWidth, float channelHeight, float frameWidth, float frameHeight)
{
    BoxF box{channelWidth, channelHeight};
    if (box.width > frameWidth || box.height > frameHeight) {
        const float k = std::max(box.width / frameWidth, box.height / frameHeight);
        box.width /= k;
        box.height /= k;
    } else if (frameWidth > box.width && frameHeight > box.height) {
        const float k = std::min(frameWidth / box.width, frameHeight / box.height);
        box.width *= k;
        box.height *= k;
    }
    return box;
}

ClipBox clipBox(float channelWidth, float channelHeight, int frameWidth, int frameHeight, float scale, bool round)
{
    const float W = static_cast<float>(frameWidth);
    const float H = static_cast<float>(frameHeight);
    ClipBox clip;
    clip.box = fitChannelBox(channelWidth, channelHeight, W, H);
    if (!round)
        return clip;
    const float shorter = shorterSide(W, H);
    const float side = shorter / scale;
    clip.box = {side, side};
    int radius = truncToInt(static_cast<double>(shorter) * 0.5);
    const float half = side * 0.5f;
    if (radius > half)
        radius = truncToInt(half);
    clip.xRadius = radius / W;
    clip.yRadius = radius / H;
    clip.inXbias = static_cast<float>(std::max(0.0, static_cast<double>((W - side) / W) * 0.5));
    clip.inYbias = static_cast<float>(std::max(0.0, static_cast<double>((H - side) / H) * 0.5));
    return clip;
}

QSize clipSize(const BoxF& box)
{
    return QSize(truncToInt(box.width), truncToInt(box.height));
}

bool clipSizeFits(const QSize& size, int maxSide)
{
    return size.width() >= 1 && size.height() >= 1 && size.width() <= maxSide && size.height() <= maxSide;
}

ClipPlacement placeClip(int frameWidth, int frameHeight, int clipWidth, int clipHeight, float centerX, float centerY,
                        float scale)
{
    const float W = static_cast<float>(frameWidth);
    const float H = static_cast<float>(frameHeight);
    const float CW = static_cast<float>(clipWidth);
    const float CH = static_cast<float>(clipHeight);
    ClipPlacement place;
    place.scale = ((CW / CH != W / H && W / H > CW / CH) ? CH / H : CW / W) * scale;
    place.tx = 2.0f * centerX * static_cast<float>(clipWidth - frameWidth) / W;
    if (centerY > 1.0f) {
        const float above = H * 0.5f - CH;
        const int step = truncToInt(static_cast<float>(truncToInt(above)) / 10.0f);
        const float beyond = centerY - 1.0f;
        if (beyond * 10.0f * step + above > H * 0.5f)
            place.ty = -1.0005f;  // off the frame
        else
            place.ty = 2.0f * (-beyond * 10.0f * step) / H - 2.0f * above / H;
    } else if (centerY < 0.0f) {
        place.ty = -(centerY + 1.0f);
    } else {
        place.ty = 2.0f * (static_cast<float>(truncToInt(H - CH)) / 10.0f) * (-centerY * 10.0f) / H;
    }
    // Four decimals, by floor: a negative value moves away from 0.
    if (place.ty != 0.0f)
        place.ty = std::floor(place.ty * 10000.0f) / 10000.0f;
    if (centerX < 0.0f)
        place.tx = -(centerX + 1.0f);
    else if (centerX > 1.0f)
        place.tx = 2.0f * (CW - static_cast<float>(frameWidth / 2)) / W - 2.0f * (CW / W) * (centerX - 1.0f);
    return place;
}

}  // namespace picturegeometry
