#pragma once
// The scans of the HOG detector and the cascade: a task of the search of the
// whole picture, and the search for a face near a known place.
#include <vector>

#include <opencv2/core.hpp>

#include "Boxes.h"
#include "SearchPlan.h"
#include "Tuning.h"

namespace KVOAI::kvodnnl {

class Reductions;
struct Scanners;

// The best face near `box` in the grey `picture`, of a HOG score above
// `threshold`: the HOG detector run over a square of kNearRegion box sizes
// round the box's centre, scaled so that the box measures kNearFace pixels.
// The face must lie within half a box width of the old centre and be of a
// similar size. A face that leans by `lean` degrees is searched for in that
// square turned upright, and keeps its lean. A candidate of the search, which
// stands where the scan saw it, is searched for in a square of `region` box
// sizes instead.
bool searchNear(const cv::Mat& picture, const dlib::rectangle& box, double threshold, Scanners& scanners,
                Detection& result, double lean = 0, double region = kNearRegion);

// Whether the cascade, a scanner of another kind than the HOG detector, also
// takes `face`, leaning by its lean, for one: in a view of the grey picture
// round it, turned upright and scaled so that the face measures
// kSecondOpinionFace pixels, kSecondOpinionWindows windows of about its size
// or more whose centres lie near the face's. Badges and patches that the HOG
// detector scores as faces at some turns are rarely faces to both.
bool cascadeAgrees(const cv::Mat& picture, const Detection& face, Scanners& scanners);

// Candidates (Hog, Cascade) or a confirmed face (Confirm) of one task on the
// grey `picture`, whose reductions are `reductions`.
std::vector<Detection> runTask(const Task& task, const cv::Mat& picture, Reductions& reductions, Scanners& scanners);

}  // namespace KVOAI::kvodnnl
