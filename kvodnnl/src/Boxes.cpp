#include "Boxes.h"

#include <cmath>

#include "FaceFilter.h"

namespace KVOAI::kvodnnl {

dlib::rectangle scaleRect(const dlib::rectangle& r, double factor, double dx, double dy)
{
    return dlib::rectangle(std::lround(r.left() / factor + dx), std::lround(r.top() / factor + dy),
                           std::lround((r.right() + 1) / factor + dx) - 1,
                           std::lround((r.bottom() + 1) / factor + dy) - 1);
}

dlib::rectangle toDlib(const cv::Rect& r)
{
    return dlib::rectangle(r.x, r.y, r.x + r.width - 1, r.y + r.height - 1);
}

cv::Rect2d toRect2d(const dlib::rectangle& r)
{
    return cv::Rect2d(r.left(), r.top(), r.width(), r.height());
}

double overlap(const dlib::rectangle& a, const dlib::rectangle& b)
{
    return smoothing::FaceFilter::overlap(toRect2d(a), toRect2d(b));
}

bool sameFace(const dlib::rectangle& a, const dlib::rectangle& b)
{
    if (overlap(a, b) > 0.3)
        return true;
    const double ratio = static_cast<double>(a.width()) / std::max<double>(1.0, b.width());
    return ratio > 0.6 && ratio < 1.6 && (a.contains(dlib::center(b)) || b.contains(dlib::center(a)));
}

}  // namespace KVOAI::kvodnnl
