#pragma once
// The head's pose from its key points.
#include <vector>

#include <opencv2/core/types.hpp>

namespace KVOAI::kvodnnl {

// Rotations of the head in degrees, as kvodnnl.h describes them.
struct Pose {
    double pitch = 0, yaw = 0, roll = 0;
};

// `points`: the 98 key points of kvodnnl.h, on a picture of `pictureSize`
// taken with a lens whose focal length is the picture's width. A pose that
// can't be solved is all zero.
Pose estimatePose(const std::vector<cv::Point2d>& points, const cv::Size& pictureSize);

}  // namespace KVOAI::kvodnnl
