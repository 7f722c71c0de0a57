#pragma once
// The scans of the HOG detector and the cascade: a task of the search of the
// whole picture, and the search for a face near a known place.
#include <vector>

#include <opencv2/core.hpp>

#include "Boxes.h"
#include "SearchPlan.h"

namespace KVOAI::kvodnnl {

struct Scanners;

// The best face near `box` in the grey `picture`, of a HOG score above
// `threshold`: the HOG detector run over a square of kNearRegion box sizes
// round the box's centre, scaled so that the box measures kNearFace pixels.
// The face must lie within half a box width of the old centre and be of a
// similar size. A face that leans by `lean` degrees is searched for in that
// square turned upright, and keeps its lean.
bool searchNear(const cv::Mat& picture, const dlib::rectangle& box, double threshold, Scanners& scanners,
                Detection& result, double lean = 0);

// Candidates (Hog, Cascade) or a confirmed face (Confirm) of one task on the
// grey `picture`.
std::vector<Detection> runTask(const Task& task, const cv::Mat& picture, Scanners& scanners);

}  // namespace KVOAI::kvodnnl
