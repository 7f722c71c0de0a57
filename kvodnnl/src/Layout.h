#pragma once
// The 98 key points of kvodnnl.h, made from the 68 points of the landmark
// model (0-16 jaw, 17-21 and 22-26 brows, 27-30 bridge, 31-35 nose base,
// 36-41 and 42-47 eyes, 48-59 outer lips, 60-67 inner lips).
#include <vector>

#include <opencv2/core/types.hpp>

namespace KVOAI::kvodnnl {

// `model`: the 68 points of one fit. The jaw's points become the contour's
// even points with midpoints between, the lower edges of the brows lie a
// brow's thickness down the face from the upper ones, the eyes get a point
// more on each lid and their centres.
std::vector<cv::Point2d> layout98(const std::vector<cv::Point2d>& model);

}  // namespace KVOAI::kvodnnl
