#include "KeyPoints.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <optional>

#include "Layout.h"
#include "Predictor.h"
#include "Tuning.h"
#include "Upright.h"

namespace KVOAI::kvodnnl {

namespace {

std::atomic<double> fitRate{2.0};

// Whether `look` is the look that the key points of `track` were fitted on,
// within `within` grey levels in every cell.
bool sameLook(const Track& track, const cv::Mat& look, double within = kSameLook)
{
    return !look.empty() && look.size() == track.fitLook.size() && cv::norm(look, track.fitLook, cv::NORM_INF) <= within;
}

// Whether `track`, whose box looks as `look` on the grey picture `grey`,
// keeps the key points fitted before (`points`, moved along if it moved).
// If not, it needs a fit, and `move` is how far its part of the picture moved
// since its last one; none for a face without points that fit this picture.
bool keepsPoints(const Track& track, const cv::Mat& grey, const cv::Mat& look, std::vector<cv::Point2d>& points,
                 std::optional<cv::Point2d>& move)
{
    if (track.fitted.empty() || !track.fitPicture || track.fitPicture->grey.size() != grey.size())
        return false;
    if (track.fitBox == track.detection.box && sameLook(track, look))
        return true;
    // Found with another box, or moved a little: a face that looks as it
    // did where its points were fitted keeps them, moved with it.
    if (track.fitBox != track.detection.box && sameLook(track, patchOf(grey, track.fitBox)))
        return true;
    const cv::Point2d moved = motion(track.fitPicture->grey, grey, track.fitBox);
    const dlib::rectangle there = dlib::translate_rect(track.fitBox, dlib::point(cvRound(moved.x), cvRound(moved.y)));
    if (std::hypot(moved.x, moved.y) <= kMotionReach * static_cast<double>(track.fitBox.width())
        && sameLook(track, patchOf(grey, there), kMovedLook)) {
        for (cv::Point2d& p : points)
            p += moved;
        return true;
    }
    move = moved;
    return false;
}

// The landmark model's 68 points of the face in `box` of the grey `picture`,
// fitted in a frame turned by `lean` degrees; none when the model gives none.
std::vector<cv::Point2d> modelPoints(const cv::Mat& picture, const dlib::rectangle& box, double lean,
                                     const Predictor& predictor)
{
    if (lean == 0)
        return predictor(picture, box);
    // The face upright in a view of twice its width, at most kFitView pixels
    // across.
    const double w = static_cast<double>(box.width());
    const int side = static_cast<int>(std::min(kFitView, std::ceil(2 * w)));
    const cv::Point2d centre(box.left() + w / 2.0, box.top() + box.height() / 2.0);
    const UprightView view = uprightView(picture, centre, 2 * w, lean, side);
    const long half = std::lround(side / 4.0);
    const dlib::rectangle upright(side / 2 - half, side / 2 - half, side / 2 + half - 1, side / 2 + half - 1);
    std::vector<cv::Point2d> model = predictor(view.grey, upright);
    for (cv::Point2d& p : model)
        p = mapPoint(view.toPicture, p);
    return model;
}

// Fits the key points of `track` on `picture`, where its box looks as `look`,
// in the frame its last fit leaned in. A face that leans another way than
// that frame by more than the frame's steps is fitted again in its own.
void fit(Track& track, const PicturePtr& picture, const cv::Mat& look, const Predictor& predictor)
{
    const double fitStart = threadMilliseconds();
    double lean = track.detection.lean;
    std::vector<cv::Point2d> model = modelPoints(picture->grey, track.detection.box, lean, predictor);
    for (int again = 0; again < 2 && model.size() == 68; ++again) {
        const double measured = frameLean(eyeLean(model[36], model[45]));
        if (std::abs(measured - lean) < kRefitLean)
            break;
        lean = measured;
        model = modelPoints(picture->grey, track.detection.box, lean, predictor);
    }
    // Slow fits raise the estimate at once, quick ones lower it slowly:
    // the budgets of a call rest on it.
    const double old = fitRate.load(std::memory_order_relaxed);
    const double spent = threadMilliseconds() - fitStart;
    fitRate.store(old + (spent > old ? 0.5 : 0.1) * (spent - old), std::memory_order_relaxed);
    track.fitted.clear();
    if (model.size() == 68) {
        track.fitted = layout98(model);
        track.detection.lean = frameLean(eyeLean(model[36], model[45]));
    }
    track.fitBox = track.detection.box;
    track.fitLook = look;
    track.fitPicture = picture;
    track.fitAge = 0;
}

}  // namespace

Track fittedTrack(const Detection& detection, const PicturePtr& picture, const Predictor& predictor)
{
    Track track = newTrack(detection, picture->grey);
    fit(track, picture, track.patch, predictor);
    return track;
}

double fitMilliseconds()
{
    return fitRate.load(std::memory_order_relaxed) * slowdown();
}

std::vector<std::vector<cv::Point2d>> keyPoints(const PicturePtr& picture, std::vector<Track>& shown,
                                                Clock::time_point start, double budget, const Predictor& predictor)
{
    std::vector<size_t> order;  // the faces that need a fit, the oldest fits first
    std::vector<cv::Mat> looks(shown.size());
    std::vector<std::vector<cv::Point2d>> points(shown.size());
    // How far each face that needs a fit moved since its last one.
    std::vector<std::optional<cv::Point2d>> moves(shown.size());
    for (size_t i = 0; i < shown.size(); ++i) {
        points[i] = shown[i].fitted;
        looks[i] = patchOf(picture->grey, shown[i].detection.box);
        if (!keepsPoints(shown[i], picture->grey, looks[i], points[i], moves[i]))
            order.push_back(i);
    }
    std::stable_sort(order.begin(), order.end(), [&](size_t a, size_t b) {
        if (shown[a].fitted.empty() != shown[b].fitted.empty())
            return shown[a].fitted.empty();
        return shown[a].fitAge > shown[b].fitAge;
    });
    bool fittedOne = false;
    for (size_t i : order) {
        Track& track = shown[i];
        // The first fit may pass `budget`, but not the end that even a late
        // call keeps to: on a busy machine a call of that length would make
        // its caller wait for the next one. It is made all the same for a
        // face that went without it for too long, that moved too far to be
        // moved along, or on a call too late to end in time anyway.
        const double elapsed = millisecondsSince(start);
        const double end = elapsed + fitMilliseconds();
        const bool saves = elapsed < kCallLimitMs && moves[i]
            && cv::norm(*moves[i]) <= kMotionReach * static_cast<double>(track.fitBox.width());
        const bool first = !fittedOne
            && (end <= loaded(kFinishBudgetMs) || track.fitAge >= kUnfittedCalls || !saves);
        const bool inBudget = !moves[i] || first || end <= budget;
        if (!inBudget) {
            for (cv::Point2d& p : points[i])
                p += *moves[i];
            ++track.fitAge;
            continue;
        }
        fittedOne = true;
        const TimedWork timed;
        fit(track, picture, looks[i], predictor);
        points[i] = track.fitted;
    }
    return points;
}

}  // namespace KVOAI::kvodnnl
