#include "Reductions.h"

#include <cmath>

#include <opencv2/imgproc.hpp>

namespace KVOAI::kvodnnl {

cv::Rect reducedTile(const cv::Rect& tile, double scale, cv::Size reduced)
{
    const int left = static_cast<int>(std::floor(tile.x * scale));
    const int top = static_cast<int>(std::floor(tile.y * scale));
    const int right = static_cast<int>(std::ceil((tile.x + tile.width) * scale));
    const int bottom = static_cast<int>(std::ceil((tile.y + tile.height) * scale));
    return cv::Rect(cv::Point(left, top), cv::Point(right, bottom)) & cv::Rect(cv::Point(), reduced);
}

Reductions::Reductions(const Picture& source) : source_(source) {}

std::shared_ptr<Reductions> Reductions::forPicture(const Picture& picture, const std::shared_ptr<Reductions>& current,
                                                   int pictures)
{
    if (current && current->served_ < pictures && pictureChange(current->source_, picture) == Change::None) {
        ++current->served_;
        return current;
    }
    return std::make_shared<Reductions>(picture);
}

cv::Mat Reductions::reduced(double scale)
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (const auto& [s, made] : made_)
            if (s == scale)
                return made;
    }
    // Made outside the lock, so that the other thread can take a reduction
    // made before meanwhile; two threads that want the same new one both
    // make it, rarely. A reduction by half or more is made from the half,
    // which takes a tenth of the time of other reductions of the whole
    // (whole blocks of pixels): the other reductions cost by the pixels they
    // read. The reductions run inside a loop of OpenCV's own, which keeps
    // them on this thread.
    const cv::Mat from = scale < 0.5 ? reduced(0.5) : source_.grey;
    const double by = scale < 0.5 ? scale / 0.5 : scale;
    cv::Mat made;
    // A sliver of a picture may reduce to nothing.
    if (cvRound(from.cols * by) >= 1 && cvRound(from.rows * by) >= 1)
        cv::parallel_for_(cv::Range(0, 1), [&](const cv::Range&) {
            cv::resize(from, made, cv::Size(), by, by, cv::INTER_AREA);
        });
    std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& [s, other] : made_)
        if (s == scale)
            return other;
    made_.emplace_back(scale, made);
    return made;
}

cv::Mat Reductions::part(double scale, const cv::Rect& tile, cv::Point2d& origin)
{
    const cv::Rect inside = tile & cv::Rect(0, 0, source_.grey.cols, source_.grey.rows);
    if (inside.empty())
        return cv::Mat();
    if (scale >= 1.0) {
        origin = inside.tl();
        return source_.grey(inside);
    }
    const cv::Mat whole = reduced(scale);
    const cv::Rect cut = reducedTile(inside, scale, whole.size());
    if (whole.empty() || cut.empty())
        return cv::Mat();
    origin = cv::Point2d(cut.x / scale, cut.y / scale);
    return whole(cut);
}

}  // namespace KVOAI::kvodnnl
