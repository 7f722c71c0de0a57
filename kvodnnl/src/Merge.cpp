#include "Merge.h"

#include <memory>

#include "KeyPoints.h"
#include "Models.h"
#include "Scan.h"
#include "Tuning.h"

namespace KVOAI::kvodnnl {

std::vector<Found> mergeFound(const std::vector<Found>& found, const PicturePtr& picture,
                              std::vector<Detection>& followed, Clock::time_point start, bool all)
{
    std::vector<Found> later;
    if (found.empty())
        return later;
    const double confirm = confirmMilliseconds();
    std::unique_ptr<ScannerLease> scanners;
    for (const Found& f : found) {
        if (holdsFace(followed, f.detection.box))
            continue;
        const bool same = difference(*f.picture, *picture) <= kSameThreshold;
        const double fit = fitMilliseconds();
        // While no face is shown, one found on this very picture is added
        // whatever the call has taken: the search may have used the budget,
        // and would again on every call of a picture handed in repeatedly.
        const bool first = same && followed.empty();
        if (!all && !first
            && millisecondsSince(start) + (same ? 0.0 : confirm) + fit * (followed.size() + 1) > kMergeBudgetMs) {
            later.push_back(f);
            continue;
        }
        if (same) {
            followed.push_back(f.detection);
            continue;
        }
        if (!scanners)
            scanners = std::make_unique<ScannerLease>();
        Detection d;
        if (searchNear(picture->grey, f.detection.box, 0.0, **scanners, d) && !holdsFace(followed, d.box))
            followed.push_back(d);
    }
    return later;
}

}  // namespace KVOAI::kvodnnl
