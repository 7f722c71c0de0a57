#include "Upright.h"

#include <cmath>

#include <opencv2/imgproc.hpp>

namespace KVOAI::kvodnnl {

UprightView uprightTransforms(cv::Point2d centre, double side, double lean, int viewSide)
{
    const double scale = viewSide / side;
    // OpenCV turns counter-clockwise as seen for a positive angle.
    cv::Mat m = cv::getRotationMatrix2D(cv::Point2f(static_cast<float>(centre.x), static_cast<float>(centre.y)), lean,
                                        scale);
    m.at<double>(0, 2) += viewSide / 2.0 - centre.x;
    m.at<double>(1, 2) += viewSide / 2.0 - centre.y;
    UprightView view;
    view.toView = cv::Matx23d(m);
    cv::Mat back;
    cv::invertAffineTransform(m, back);
    view.toPicture = cv::Matx23d(back);
    return view;
}

UprightView uprightView(const cv::Mat& picture, cv::Point2d centre, double side, double lean, int viewSide)
{
    UprightView view = uprightTransforms(centre, side, lean, viewSide);
    cv::warpAffine(picture, view.grey, cv::Mat(view.toView), cv::Size(viewSide, viewSide), cv::INTER_LINEAR,
                   cv::BORDER_REPLICATE);
    return view;
}

cv::Point2d mapPoint(const cv::Matx23d& m, cv::Point2d p)
{
    return {m(0, 0) * p.x + m(0, 1) * p.y + m(0, 2), m(1, 0) * p.x + m(1, 1) * p.y + m(1, 2)};
}

double eyeLean(cv::Point2d leftEye, cv::Point2d rightEye)
{
    return std::atan2(rightEye.y - leftEye.y, rightEye.x - leftEye.x) * 180.0 / CV_PI;
}

double frameLean(double measured)
{
    if (!std::isfinite(measured) || std::abs(measured) < kUprightLean)
        return 0.0;
    return 5.0 * std::round(measured / 5.0);
}

}  // namespace KVOAI::kvodnnl
