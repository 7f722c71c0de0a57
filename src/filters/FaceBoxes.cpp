#include "filters/FaceBoxes.h"

namespace faceboxes {

bool isSameFace(const cv::Rect& box, const cv::Rect& first, SameFace rule)
{
    const bool xInside = box.x > first.x && box.x < first.x + first.width;
    const bool yInside = box.y > first.y && box.y < first.y + first.height;
    return rule == SameFace::StartsInside ? xInside && yInside : xInside || yInside;
}

bool withinBounds(const cv::Rect& box, int width, int height, const Bounds& bounds)
{
    const float W = static_cast<float>(width);
    const float H = static_cast<float>(height);
    return !(box.y < bounds.top * H || box.x < bounds.left * W || box.x + box.width > bounds.right * W
             || box.y + box.height > bounds.bottom * H);
}

}  // namespace faceboxes
