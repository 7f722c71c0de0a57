#pragma once
// Heads that lean: the part of a picture round a face turned so that the face
// stands upright, for the HOG detector and the landmark model, which know
// upright faces best, and the way back to the picture's pixels.
#include <vector>

#include <opencv2/core.hpp>

namespace KVOAI::kvodnnl {

// Leans below this many degrees are scanned and fitted as they are.
constexpr double kUprightLean = 8.0;

// A square view of a picture: `grey` shows the square of side `side` round
// `centre`, turned by `lean` degrees counter-clockwise as seen (so that a face
// leaning `lean` degrees clockwise stands upright in it) and scaled to
// `grey`'s side.
struct UprightView {
    cv::Mat grey;
    cv::Matx23d toView;     // picture -> view
    cv::Matx23d toPicture;  // view -> picture
};

// The transforms of such a view of side `viewSide` pixels.
UprightView uprightTransforms(cv::Point2d centre, double side, double lean, int viewSide);
// ...and the view itself, made from the grey `picture` (outside it: edge
// pixels repeated).
UprightView uprightView(const cv::Mat& picture, cv::Point2d centre, double side, double lean, int viewSide);

cv::Point2d mapPoint(const cv::Matx23d& m, cv::Point2d p);

// The lean of a face, in degrees clockwise as seen, from its outer eye
// corners (on the image's left and right).
double eyeLean(cv::Point2d leftEye, cv::Point2d rightEye);

// The lean of the frame to scan or fit a face in that leans by `measured`
// degrees: none below kUprightLean, otherwise the lean in steps of 5 degrees.
double frameLean(double measured);

}  // namespace KVOAI::kvodnnl
