#include "Scan.h"

#include <algorithm>
#include <cmath>

#include <dlib/opencv/cv_image.h>
#include <opencv2/imgproc.hpp>

#include "Scanners.h"
#include "Tuning.h"

namespace KVOAI::kvodnnl {

bool searchNear(const cv::Mat& picture, const dlib::rectangle& box, double threshold, Scanners& scanners,
                Detection& result)
{
    const double w = static_cast<double>(box.width());
    const double h = static_cast<double>(box.height());
    const cv::Point2d centre(box.left() + w / 2.0, box.top() + h / 2.0);
    const cv::Rect region = cv::Rect(cvRound(centre.x - w * kNearRegion / 2), cvRound(centre.y - h * kNearRegion / 2),
                                     cvRound(w * kNearRegion), cvRound(h * kNearRegion))
        & cv::Rect(0, 0, picture.cols, picture.rows);
    const double scale = kNearFace / std::max(1.0, std::max(w, h));
    if (region.width * scale < kHogWindow || region.height * scale < kHogWindow)
        return false;

    cv::Mat scanned;
    cv::resize(picture(region), scanned, cv::Size(), scale, scale, scale < 1.0 ? cv::INTER_AREA : cv::INTER_LINEAR);
    std::vector<dlib::rect_detection> hits;
    scanners.hogNear(dlib::cv_image<unsigned char>(scanned), hits, threshold);

    bool found = false;
    double bestDistance = 0.5 * w;
    for (const dlib::rect_detection& hit : hits) {
        const dlib::rectangle r = scaleRect(hit.rect, scale, region.x, region.y);
        const double rw = static_cast<double>(r.width());
        const double distance
            = std::hypot(r.left() + rw / 2.0 - centre.x, r.top() + r.height() / 2.0 - centre.y);
        if (distance <= bestDistance && rw > 0.6 * w && rw < 1.6 * w) {
            bestDistance = distance;
            result = {r, hit.detection_confidence};
            found = true;
        }
    }
    return found;
}

namespace {

// The HOG detector's finds in `reduced`, the part `tile` of a picture reduced
// by the task's scale, in pixels of the picture.
void hogCandidates(const Task& task, const cv::Mat& reduced, const cv::Rect& tile, Scanners& scanners,
                   std::vector<Detection>& out)
{
    std::vector<dlib::rect_detection> hits;
    HogDetector& hog = task.restOfPyramid ? scanners.hog : scanners.hogLevel;
    hog(dlib::cv_image<unsigned char>(reduced), hits, 0.0);
    for (const dlib::rect_detection& hit : hits)
        out.push_back({scaleRect(hit.rect, task.scale, tile.x, tile.y), hit.detection_confidence});
}

// Every window that passes the cascade, strongest first, one a face:
// grouping neighbours, as the cascade does by default, loses faces that only
// a window or two pass. The cascade runs inside a loop of OpenCV's own, which
// keeps it from spreading over all processors: the calling thread keeps the
// others.
void cascadeCandidates(const Task& task, const cv::Mat& reduced, const cv::Rect& tile, Scanners& scanners,
                       std::vector<Detection>& out)
{
    std::vector<cv::Rect> hits;
    std::vector<int> levels;
    std::vector<double> weights;
    cv::parallel_for_(cv::Range(0, 1), [&](const cv::Range&) {
        scanners.cascade.detectMultiScale(reduced, hits, levels, weights, kCascadeStep, 0, 0,
                                          cv::Size(task.smallest, task.smallest),
                                          cv::Size(task.largest, task.largest), true);
    });
    std::vector<size_t> order(hits.size());
    for (size_t i = 0; i < order.size(); ++i)
        order[i] = i;
    std::sort(order.begin(), order.end(), [&](size_t a, size_t b) { return weights[a] > weights[b]; });
    for (size_t i : order) {
        if (weights[i] < kCandidateWeight || out.size() >= kCandidatesPerTask)
            break;
        const dlib::rectangle box = scaleRect(toDlib(hits[i]), task.scale, tile.x, tile.y);
        if (!holdsFace(out, box))
            out.push_back({box, weights[i]});
    }
}

}  // namespace

std::vector<Detection> runTask(const Task& task, const cv::Mat& picture, Scanners& scanners)
{
    std::vector<Detection> out;
    if (task.kind == Task::Confirm) {
        Detection d;
        if (searchNear(picture, task.box, kConfirmScore, scanners, d))
            out.push_back(d);
        return out;
    }
    cv::Mat reduced;
    const cv::Rect tile = task.tile & cv::Rect(0, 0, picture.cols, picture.rows);
    if (tile.empty())
        return out;
    if (task.scale < 1.0) {
        // A sliver of a tile at the picture's edge may reduce to nothing.
        if (cvRound(tile.width * task.scale) < 1 || cvRound(tile.height * task.scale) < 1)
            return out;
        cv::resize(picture(tile), reduced, cv::Size(), task.scale, task.scale, cv::INTER_AREA);
    } else
        reduced = picture(tile);
    if (task.kind == Task::Hog)
        hogCandidates(task, reduced, tile, scanners, out);
    else if (scanners.hasCascade)
        cascadeCandidates(task, reduced, tile, scanners, out);
    return out;
}

}  // namespace KVOAI::kvodnnl
