#include "Merge.h"

#include <memory>

#include "KeyPoints.h"
#include "Models.h"
#include "Scan.h"
#include "Tuning.h"

namespace KVOAI::kvodnnl {

std::vector<Found> mergeFound(const std::vector<Found>& found, const PicturePtr& picture,
                              std::vector<Detection>& followed, std::vector<Track>& added, Clock::time_point start,
                              double budget, double perFace)
{
    std::vector<Found> later;
    if (found.empty())
        return later;
    const double near = nearMilliseconds();
    std::unique_ptr<ScannerLease> scanners;
    for (const Found& f : found) {
        if (holdsFace(followed, boxOf(f)))
            continue;
        const bool same = difference(*f.picture, *picture) <= kSameThreshold;
        // A face without key points is fitted on the call that shows it.
        const double fit = f.track.fitted.empty() ? fitMilliseconds() : 0.0;
        // While no face is shown, one found on this very picture is added
        // whatever the call has taken: the search may have used the budget,
        // and would again on every call of a picture handed in repeatedly.
        const bool first = same && followed.empty();
        const double shown = perFace * static_cast<double>(followed.size() + 1);
        if (!first && millisecondsSince(start) + (same ? 0.0 : near) + fit + shown > budget) {
            later.push_back(f);
            continue;
        }
        Track track = f.track;
        if (!same) {
            if (!scanners)
                scanners = std::make_unique<ScannerLease>();
            Detection d;
            if (!searchNear(picture->grey, boxOf(f), 0.0, **scanners, d, f.track.detection.lean)
                || holdsFace(followed, d.box))
                continue;
            // Found again here: the key points fitted there are kept while
            // the face looks as it did, moved along with it.
            track.detection = d;
        }
        track.patch = patchOf(picture->grey, track.detection.box);
        followed.push_back(track.detection);
        added.push_back(std::move(track));
    }
    return later;
}

}  // namespace KVOAI::kvodnnl
