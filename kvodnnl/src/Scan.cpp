#include "Scan.h"

#include <algorithm>
#include <cmath>

#include <dlib/opencv/cv_image.h>
#include <opencv2/imgproc.hpp>

#include "Reductions.h"
#include "Scanners.h"
#include "Tuning.h"
#include "Upright.h"

namespace KVOAI::kvodnnl {

namespace {

// A box found in an upright view scaled by `scale`, in pixels of the picture:
// of the same size, round the place its centre turns back to.
dlib::rectangle turnedBack(const dlib::rectangle& seen, const UprightView& view, double scale)
{
    const cv::Point2d at = mapPoint(view.toPicture, cv::Point2d((seen.left() + seen.right() + 1) / 2.0,
                                                                (seen.top() + seen.bottom() + 1) / 2.0));
    const double w = seen.width() / scale, h = seen.height() / scale;
    return dlib::rectangle(std::lround(at.x - w / 2), std::lround(at.y - h / 2), std::lround(at.x + w / 2) - 1,
                           std::lround(at.y + h / 2) - 1);
}

}  // namespace

bool searchNear(const cv::Mat& picture, const dlib::rectangle& box, double threshold, Scanners& scanners,
                Detection& result, double lean, double side)
{
    const double w = static_cast<double>(box.width());
    const double h = static_cast<double>(box.height());
    const cv::Point2d centre(box.left() + w / 2.0, box.top() + h / 2.0);
    const double scale = kNearFace / std::max(1.0, std::max(w, h));
    // The square round the face, upright: as it is, cut at the picture's
    // edges, or turned by the face's lean.
    cv::Mat scanned;
    cv::Rect region;
    UprightView view;
    if (lean == 0) {
        region = cv::Rect(cvRound(centre.x - w * side / 2), cvRound(centre.y - h * side / 2),
                          cvRound(w * side), cvRound(h * side))
            & cv::Rect(0, 0, picture.cols, picture.rows);
        if (region.width * scale < kHogWindow || region.height * scale < kHogWindow)
            return false;
        cv::resize(picture(region), scanned, cv::Size(), scale, scale,
                   scale < 1.0 ? cv::INTER_AREA : cv::INTER_LINEAR);
    } else {
        view = uprightView(picture, centre, side * std::max(w, h), lean, cvRound(side * kNearFace));
        scanned = view.grey;
    }
    std::vector<dlib::rect_detection> hits;
    scanners.hogNear(dlib::cv_image<unsigned char>(scanned), hits, threshold);

    bool found = false;
    double bestDistance = 0.5 * w;
    for (const dlib::rect_detection& hit : hits) {
        const dlib::rectangle r
            = lean == 0 ? scaleRect(hit.rect, scale, region.x, region.y) : turnedBack(hit.rect, view, scale);
        const double rw = static_cast<double>(r.width());
        const double distance
            = std::hypot(r.left() + rw / 2.0 - centre.x, r.top() + r.height() / 2.0 - centre.y);
        if (distance <= bestDistance && rw > 0.6 * w && rw < 1.6 * w) {
            bestDistance = distance;
            result = {r, hit.detection_confidence, lean};
            found = true;
        }
    }
    return found;
}

namespace {

// The HOG detector's finds in `reduced`, a part of a picture reduced by the
// task's scale whose first pixel lies at `origin`, in pixels of the picture.
void hogCandidates(const Task& task, const cv::Mat& reduced, cv::Point2d origin, Scanners& scanners,
                   std::vector<Detection>& out)
{
    std::vector<dlib::rect_detection> hits;
    HogDetector& hog = task.restOfPyramid ? scanners.hog : scanners.hogLevel;
    hog(dlib::cv_image<unsigned char>(reduced), hits, kLeaningCandidateScore);
    for (const dlib::rect_detection& hit : hits) {
        // A weak find of the detector's part for faces that lean is a
        // candidate to be searched for turned upright.
        const bool leaning = hit.weight_index == kLeansLeft || hit.weight_index == kLeansRight;
        if (hit.detection_confidence < 0 && !leaning)
            continue;
        const double turn = hit.weight_index == kLeansRight ? kCandidateLean : -kCandidateLean;
        const double lean = hit.detection_confidence >= 0 ? 0.0 : turn;
        out.push_back({scaleRect(hit.rect, task.scale, origin.x, origin.y), hit.detection_confidence, lean});
    }
}

// Every window of `grey` that passes the cascade, of sides from `smallest`
// to `largest` in steps of `step`, with its weight: grouping neighbours, as
// the cascade does by default, loses faces that only a window or two pass.
// The cascade runs inside a loop of OpenCV's own, which keeps it from
// spreading over all processors: the calling thread keeps the others.
void cascadeWindows(Scanners& scanners, const cv::Mat& grey, double step, int smallest, int largest,
                    std::vector<cv::Rect>& hits, std::vector<double>& weights)
{
    std::vector<int> levels;
    cv::parallel_for_(cv::Range(0, 1), [&](const cv::Range&) {
        scanners.cascade.detectMultiScale(grey, hits, levels, weights, step, 0, 0, cv::Size(smallest, smallest),
                                          cv::Size(largest, largest), true);
    });
}

// The cascade's windows, strongest first, one a face.
void cascadeCandidates(const Task& task, const cv::Mat& reduced, cv::Point2d origin, Scanners& scanners,
                       std::vector<Detection>& out)
{
    std::vector<cv::Rect> hits;
    std::vector<double> weights;
    cascadeWindows(scanners, reduced, kCascadeStep, task.smallest, task.largest, hits, weights);
    std::vector<size_t> order(hits.size());
    for (size_t i = 0; i < order.size(); ++i)
        order[i] = i;
    std::sort(order.begin(), order.end(), [&](size_t a, size_t b) { return weights[a] > weights[b]; });
    for (size_t i : order) {
        if (weights[i] < kCandidateWeight || out.size() >= kCandidatesPerTask)
            break;
        const dlib::rectangle box = scaleRect(toDlib(hits[i]), task.scale, origin.x, origin.y);
        if (!holdsFace(out, box))
            out.push_back({box, weights[i]});
    }
}

}  // namespace

bool cascadeAgrees(const cv::Mat& picture, const Detection& face, Scanners& scanners)
{
    if (!scanners.hasCascade)
        return true;
    const double w = static_cast<double>(face.box.width());
    const cv::Point2d centre(face.box.left() + w / 2.0, face.box.top() + face.box.height() / 2.0);
    const int side = cvRound(kSecondOpinionRegion * kSecondOpinionFace);
    const UprightView view = uprightView(picture, centre, kSecondOpinionRegion * w, face.lean, side);
    std::vector<cv::Rect> hits;
    std::vector<double> weights;
    const int smallest = std::max(static_cast<int>(kCascadeWindow), cvRound(0.7 * kSecondOpinionFace));
    cascadeWindows(scanners, view.grey, 1.1, smallest, side, hits, weights);
    int agreeing = 0;
    for (size_t i = 0; i < hits.size(); ++i) {
        const cv::Point2d at(hits[i].x + hits[i].width / 2.0 - side / 2.0,
                             hits[i].y + hits[i].height / 2.0 - side / 2.0);
        agreeing += weights[i] >= kCandidateWeight && std::hypot(at.x, at.y) <= 0.3 * kSecondOpinionFace;
    }
    return agreeing >= kSecondOpinionWindows;
}

std::vector<Detection> runTask(const Task& task, const cv::Mat& picture, Reductions& reductions, Scanners& scanners)
{
    std::vector<Detection> out;
    if (task.kind == Task::Confirm) {
        Detection d;
        const double region = task.lean == 0 ? kConfirmRegion : kNearRegion;
        if (searchNear(picture, task.box, kConfirmScore, scanners, d, task.lean, region))
            out.push_back(d);
        return out;
    }
    cv::Point2d origin;
    const cv::Mat reduced = reductions.part(task.scale, task.tile, origin);
    if (reduced.empty())
        return out;
    if (task.kind == Task::Hog)
        hogCandidates(task, reduced, origin, scanners, out);
    else if (scanners.hasCascade)
        cascadeCandidates(task, reduced, origin, scanners, out);
    return out;
}

}  // namespace KVOAI::kvodnnl
