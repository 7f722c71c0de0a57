#include "Tracker.h"

#include <algorithm>
#include <memory>
#include <optional>

#include "Models.h"
#include "Scan.h"
#include "SearchPlan.h"
#include "Tuning.h"

namespace KVOAI::kvodnnl {

namespace {

// Whether the box of `track`, whose part of the new picture is `patch`, still
// looks as it did when the HOG detector last found it there, and was checked
// recently enough to be kept without a search.
bool stillThere(const Track& track, const cv::Mat& patch)
{
    return track.unchecked + 1 < kRecheckCalls && !patch.empty() && patch.size() == track.patch.size()
        && cv::norm(patch, track.patch, cv::NORM_L1) / patch.total() <= kStillPatch;
}

// `track` found `again` by the HOG detector on the grey picture `grey`. It
// keeps its key points and what they were fitted on.
Track foundAgain(const Track& track, const Detection& again, const cv::Mat& grey)
{
    Track next = track;
    next.detection = again;
    next.unchecked = 0;
    // A face found where it was keeps its box, so that its key points don't
    // follow the box's steps between pyramid levels.
    if (overlap(again.box, track.detection.box) >= kKeepBoxOverlap)
        next.detection.box = track.detection.box;
    next.patch = patchOf(grey, next.detection.box);
    return next;
}

// `track` left unsearched in the grey picture `grey`: its box moved as its
// part of the picture moved since `before`, the last call's picture.
Track movedAlong(const Track& track, const Picture* before, const cv::Mat& grey)
{
    Track next = track;
    ++next.unchecked;
    if (before) {
        const cv::Point2d moved = motion(before->grey, grey, track.detection.box);
        next.detection.box
            = dlib::translate_rect(track.detection.box, dlib::point(cvRound(moved.x), cvRound(moved.y)));
    }
    return next;
}

}  // namespace

std::vector<Track> follow(const std::vector<Track>& tracks, const Picture* before, const Picture& picture, bool cut,
                          bool& lost, Clock::time_point start)
{
    // The faces searched for the longest time ago are searched for first.
    std::vector<size_t> order(tracks.size());
    for (size_t i = 0; i < order.size(); ++i)
        order[i] = i;
    std::stable_sort(order.begin(), order.end(),
                     [&](size_t a, size_t b) { return tracks[a].unchecked > tracks[b].unchecked; });
    std::vector<std::optional<Track>> next(tracks.size());
    std::unique_ptr<ScannerLease> scanners;
    int searched = 0, found = 0;
    for (size_t i : order) {
        const Track& track = tracks[i];
        if (stillThere(track, patchOf(picture.grey, track.detection.box))) {
            next[i] = track;
            ++next[i]->unchecked;
            continue;
        }
        if (cut && searched >= kCutLosses && found == 0) {
            lost = true;
            continue;
        }
        const bool inBudget = searched == 0 || millisecondsSince(start) + nearMilliseconds() <= kFollowBudgetMs;
        if (!inBudget) {
            // In a picture that differs on the whole, only while every face
            // searched for was found is it the same scene moved.
            if (cut && found < searched)
                lost = true;
            else
                next[i] = movedAlong(track, before, picture.grey);
            continue;
        }
        if (!scanners)
            scanners = std::make_unique<ScannerLease>();
        ++searched;
        Detection again;
        const TimedWork timed;
        if (!searchNear(picture.grey, track.detection.box, 0.0, **scanners, again, track.detection.lean)) {
            lost = true;
            continue;
        }
        ++found;
        next[i] = foundAgain(track, again, picture.grey);
    }
    std::vector<Track> kept;
    for (std::optional<Track>& t : next)
        if (t && !holdsFace(kept, t->detection.box))
            kept.push_back(std::move(*t));
    return kept;
}

}  // namespace KVOAI::kvodnnl
