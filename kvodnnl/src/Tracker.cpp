#include "Tracker.h"

#include <memory>

#include "Models.h"
#include "Scan.h"
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

}  // namespace

Track newTrack(const Detection& detection, const cv::Mat& grey)
{
    Track track;
    track.detection = detection;
    track.patch = patchOf(grey, detection.box);
    return track;
}

std::vector<Track> follow(const std::vector<Track>& tracks, const Picture& picture, bool cut, bool& lost)
{
    std::vector<Track> kept;
    std::unique_ptr<ScannerLease> scanners;
    int searched = 0, found = 0;
    for (const Track& track : tracks) {
        if (cut && searched >= kCutLosses && found == 0) {
            lost = true;
            break;
        }
        Track next;
        if (stillThere(track, patchOf(picture.grey, track.detection.box))) {
            next = track;
            ++next.unchecked;
        } else {
            if (!scanners)
                scanners = std::make_unique<ScannerLease>();
            ++searched;
            Detection again;
            if (!searchNear(picture.grey, track.detection.box, 0.0, **scanners, again, track.detection.lean)) {
                lost = true;
                continue;
            }
            ++found;
            next = foundAgain(track, again, picture.grey);
        }
        if (!holdsFace(kept, next.detection.box))
            kept.push_back(next);
    }
    return kept;
}

}  // namespace KVOAI::kvodnnl
