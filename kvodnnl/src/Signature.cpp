#include "Signature.h"

#include <algorithm>

#include <opencv2/imgproc.hpp>

#include "Tuning.h"

namespace KVOAI::kvodnnl {

cv::Mat signature(const cv::Mat& picture)
{
    cv::Mat thumb(kThumbSide, kThumbSide, CV_32F);
    for (int gy = 0; gy < kThumbSide; ++gy) {
        const int cy = std::max(0, std::min(picture.rows - kPatch, (2 * gy + 1) * picture.rows / (2 * kThumbSide)));
        for (int gx = 0; gx < kThumbSide; ++gx) {
            const int cx = std::max(0, std::min(picture.cols - kPatch, (2 * gx + 1) * picture.cols / (2 * kThumbSide)));
            int sum = 0, count = 0;
            for (int y = cy; y < cy + kPatch && y < picture.rows; ++y) {
                const uchar* row = picture.ptr<uchar>(y);
                for (int x = cx; x < cx + kPatch && x < picture.cols; ++x, ++count)
                    sum += row[x];
            }
            thumb.at<float>(gy, gx) = count ? static_cast<float>(sum) / count : 0.f;
        }
    }
    return thumb;
}

double difference(const Picture& a, const Picture& b)
{
    if (a.grey.size() != b.grey.size())
        return 1e9;
    return cv::norm(a.thumb, b.thumb, cv::NORM_L1) / (kThumbSide * kThumbSide);
}

Change pictureChange(const Picture& a, const Picture& b)
{
    if (difference(a, b) > kChangeThreshold)
        return Change::Whole;
    cv::Mat changed;
    cv::absdiff(a.thumb, b.thumb, changed);
    return cv::countNonZero(changed > kChangedPatch) >= kChangedPatches ? Change::Local : Change::None;
}

cv::Mat patchOf(const cv::Mat& picture, const dlib::rectangle& box)
{
    const cv::Rect inside = cv::Rect(static_cast<int>(box.left()), static_cast<int>(box.top()),
                                     static_cast<int>(box.width()), static_cast<int>(box.height()))
        & cv::Rect(0, 0, picture.cols, picture.rows);
    cv::Mat patch;
    if (inside.width >= kPatchSide && inside.height >= kPatchSide)
        cv::resize(picture(inside), patch, cv::Size(kPatchSide, kPatchSide), 0, 0, cv::INTER_AREA);
    return patch;
}

cv::Point2d motion(const cv::Mat& before, const cv::Mat& after, const dlib::rectangle& box)
{
    const double w = static_cast<double>(box.width());
    const double h = static_cast<double>(box.height());
    const cv::Rect region = cv::Rect(cvRound(box.left() - w / 4), cvRound(box.top() - h / 4), cvRound(w * 1.5),
                                     cvRound(h * 1.5))
        & cv::Rect(0, 0, before.cols, before.rows);
    if (before.size() != after.size() || region.width < kPatchSide || region.height < kPatchSide)
        return {};
    const double scale = std::min(1.0, kMotionSide / std::max(region.width, region.height));
    cv::Mat a, b;
    cv::resize(before(region), a, cv::Size(), scale, scale, cv::INTER_AREA);
    cv::resize(after(region), b, cv::Size(), scale, scale, cv::INTER_AREA);
    a.convertTo(a, CV_32F);
    b.convertTo(b, CV_32F);
    cv::Mat window;
    cv::createHanningWindow(window, a.size(), CV_32F);
    return cv::phaseCorrelate(a, b, window) / scale;
}

}  // namespace KVOAI::kvodnnl
