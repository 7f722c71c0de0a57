#pragma once
// Face boxes: dlib's rectangles (which include their right and bottom edges)
// and OpenCV's, and whether two boxes stand for one face.
#include <algorithm>
#include <iterator>

#include <dlib/geometry/rectangle.h>
#include <opencv2/core/types.hpp>

namespace KVOAI::kvodnnl {

// A face that the HOG detector or the cascade found, in pixels of the picture.
struct Detection {
    dlib::rectangle box;
    double score = 0;
    double lean = 0;  // degrees clockwise as seen of the frame the face stands upright in
};

// `r` divided by `factor` and moved by (dx, dy): a box found on a reduced
// part of a picture, in pixels of the picture.
dlib::rectangle scaleRect(const dlib::rectangle& r, double factor, double dx, double dy);
dlib::rectangle toDlib(const cv::Rect& r);
cv::Rect2d toRect2d(const dlib::rectangle& r);

// Intersection over union.
double overlap(const dlib::rectangle& a, const dlib::rectangle& b);

// Whether `b` stands for the face of `a`: they overlap well, or one's centre
// lies in the other and `a` is between 0.6 and 1.6 times as wide as `b`.
bool sameFace(const dlib::rectangle& a, const dlib::rectangle& b);

inline const dlib::rectangle& boxOf(const dlib::rectangle& box) { return box; }
inline const dlib::rectangle& boxOf(const Detection& detection) { return detection.box; }

// The first item of `list` whose face `box` stands for too, or the list's
// end. Other kinds of items join in with a boxOf of their own.
template <class List>
auto findFace(List& list, const dlib::rectangle& box)
{
    return std::find_if(std::begin(list), std::end(list),
                        [&](const auto& item) { return sameFace(boxOf(item), box); });
}

template <class List>
bool holdsFace(const List& list, const dlib::rectangle& box)
{
    return findFace(list, box) != std::end(list);
}

}  // namespace KVOAI::kvodnnl
