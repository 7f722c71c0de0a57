#pragma once
// What the detector knows of a picture apart from its faces: a signature that
// tells a new picture from the last one, the look of a face's box, and how
// far the picture moved round a face.
#include <memory>
#include <vector>

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

// Whether `after` shows the view of `before` seen by a camera that moved, as
// when it pans, zooms, tilts or shakes: their reductions to kMovedSide pixels
// a side, once the shift, zoom and turn that phase correlation finds between
// them are undone, differ by at most kMovedPicture grey levels on the mean in
// every part of a kMovedParts x kMovedParts grid. False for pictures of
// different sizes.
bool movedAsAWhole(const cv::Mat& before, const cv::Mat& after);

// Whether `b` differs from `a` only round `faces`: the signature's cells
// farther than a face size from every face differ by at most kChangeThreshold
// on the mean. False when such cells cover less than a quarter of the
// picture, or the pictures differ in size.
bool changedOnlyRound(const Picture& a, const Picture& b, const std::vector<dlib::rectangle>& faces);

// How `after` differs from `before` once the faces of `before` were followed
// into it (`followed`, with `lost` set when one of them was not found): a
// picture that differs on the whole (`change`) but whose faces were all found
// again near their places, if it had any, is no new scene when it is the last
// one seen by a camera that moved (pans, zooms, tilts or shakes), or, with
// faces, changed only round them (a person close to the camera who moves). It
// then counts as changed in a few places: a search of the whole picture under
// way goes on, and none starts at once.
Change sceneChange(Change change, const Picture& before, const Picture& after,
                   const std::vector<dlib::rectangle>& followed, bool lost);

// The box's part of the picture reduced to kPatchSide x kPatchSide; empty when
// the box lies outside the picture.
cv::Mat patchOf(const cv::Mat& picture, const dlib::rectangle& box);

// How far the picture moved from `before` to `after` round `box`: phase
// correlation of the box and a margin of a quarter of it all round, reduced
// to at most kMotionSide pixels a side. Zero when the two differ in size or
// the part is too small.
cv::Point2d motion(const cv::Mat& before, const cv::Mat& after, const dlib::rectangle& box);

}  // namespace KVOAI::kvodnnl
