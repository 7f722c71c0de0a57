#pragma once
// What the detector knows of a picture apart from its faces: a signature that
// tells a new picture from the last one, the look of a face's box, and how
// far the picture moved round a face.
#include <memory>

#include <dlib/geometry/rectangle.h>
#include <opencv2/core.hpp>

namespace KVOAI::kvodnnl {

// A grey picture handed to Run, shared by the calling thread and the search
// thread, with its 32 x 32 signature of patch means.
struct Picture {
    cv::Mat grey;
    cv::Mat thumb;
};
using PicturePtr = std::shared_ptr<const Picture>;

// The signature of a grey picture: the means of kPatch x kPatch patches on a
// kThumbSide x kThumbSide grid. A few thousand pixel reads whatever the
// picture's size.
cv::Mat signature(const cv::Mat& picture);

// Mean absolute difference of two pictures' signatures; large for pictures
// of different sizes.
double difference(const Picture& a, const Picture& b);

// How `b` differs from `a`: on the whole (a new picture), in a few places by
// much (a face come or gone, or anything else that moves), or hardly.
enum class Change { None, Local, Whole };
Change pictureChange(const Picture& a, const Picture& b);

// The box's part of the picture reduced to kPatchSide x kPatchSide; empty when
// the box lies outside the picture.
cv::Mat patchOf(const cv::Mat& picture, const dlib::rectangle& box);

// How far the picture moved from `before` to `after` round `box`: phase
// correlation of the box and a margin of a quarter of it all round, reduced
// to at most kMotionSide pixels a side. Zero when the two differ in size or
// the part is too small.
cv::Point2d motion(const cv::Mat& before, const cv::Mat& after, const dlib::rectangle& box);

}  // namespace KVOAI::kvodnnl
