#pragma once
// A grey picture reduced by the scales that the search scans it at. A search
// scans a picture at a few scales, each in many parts and with several window
// sizes: each reduction of the whole picture is made once, by the first task
// that needs it, and the tasks after it cut their parts out of it. The
// pictures of a still scene that follow share the reductions of the first.
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include <opencv2/core.hpp>

#include "Signature.h"

namespace KVOAI::kvodnnl {

class Reductions {
public:
    // The reductions of `source`, made as the tasks need them.
    explicit Reductions(const Picture& source);

    // The part of the source reduced by `scale` (at most 1) that covers
    // `tile` of it, and in `origin` where the part's first pixel lies in the
    // source: a point p of the part lies at origin + p / scale. Empty when
    // the tile reduces to nothing. Safe to call from several threads.
    cv::Mat part(double scale, const cv::Rect& tile, cv::Point2d& origin);

    // The reductions that `picture` is scanned in: `current` while `picture`
    // hardly differs from their source and they have served fewer than
    // `pictures` pictures, else new ones of `picture`. Called by one thread.
    static std::shared_ptr<Reductions> forPicture(const Picture& picture, const std::shared_ptr<Reductions>& current,
                                                  int pictures);

private:
    cv::Mat reduced(double scale);

    Picture source_;
    int served_ = 1;  // pictures that these serve; forPicture's own
    std::mutex mutex_;
    std::vector<std::pair<double, cv::Mat>> made_;
};

// The part of the reduction of a picture by `scale`, of size `reduced`, that
// covers `tile` of the picture: from the reduced pixel that holds the tile's
// first pixel to the one that holds its last.
cv::Rect reducedTile(const cv::Rect& tile, double scale, cv::Size reduced);

}  // namespace KVOAI::kvodnnl
