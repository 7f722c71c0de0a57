#pragma once
// Which detected face boxes a filter takes: a later box that starts within the
// first one is the same face found twice, and a box reaching too far out of
// the frame is left out. The face filters and the sticker filter draw these
// lines differently; both are here, side by side.

#include <opencv2/core/types.hpp>

namespace faceboxes {

// How a later box is taken for the first face.
enum class SameFace {
    StartsInside,  // its corner strictly inside the first box
    StartsInSpan,  // its x strictly within the first's span, or its y (the sticker's stricter rule)
};

// How far a box may reach, as fractions of the frame's width and height:
// its left and top edges at least `left` and `top`, its right and bottom
// edges at most `right` and `bottom`.
struct Bounds {
    float left, top, right, bottom;
};

// The face filters: up to a fifth of the frame beyond each edge.
constexpr Bounds kFaceBounds = {-0.2f, -0.2f, 1.2f, 1.2f};
// The sticker: clear of the left and top edges, within the right one, up to a
// tenth below the bottom.
constexpr Bounds kStickerBounds = {0.01f, 0.01f, 1.0f, 1.1f};

bool isSameFace(const cv::Rect& box, const cv::Rect& first, SameFace rule);
bool withinBounds(const cv::Rect& box, int width, int height, const Bounds& bounds);

// Whether the `index`th box of a list whose first box is `first` is taken.
inline bool takesBox(size_t index, const cv::Rect& box, const cv::Rect& first, int width, int height, SameFace rule,
                     const Bounds& bounds)
{
    return !(index > 0 && isSameFace(box, first, rule)) && withinBounds(box, width, height, bounds);
}

}  // namespace faceboxes
