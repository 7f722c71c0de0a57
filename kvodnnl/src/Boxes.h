#pragma once
// Face boxes: dlib's rectangles (which include their right and bottom edges)
// and OpenCV's, and whether two boxes stand for one face.
#include <dlib/geometry/rectangle.h>
#include <opencv2/core/types.hpp>

namespace KVOAI::kvodnnl {

// A face that the HOG detector or the cascade found, in pixels of the picture.
struct Detection {
    dlib::rectangle box;
    double score = 0;
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

}  // namespace KVOAI::kvodnnl
