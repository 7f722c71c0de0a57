#pragma once
// The faces that the search found, joined to those that a call follows.
#include <vector>

#include "Boxes.h"
#include "Scheduler.h"
#include "Signature.h"
#include "Timing.h"
#include "Tracker.h"

namespace KVOAI::kvodnnl {

// Adds to `followed` the faces of `found` that are not followed yet, and
// their tracks to `added`, with the key points fitted where they were found.
// Those confirmed on another picture than the call's `picture` are searched
// for near their place first. Faces beyond `budget` milliseconds of the call
// that began at `start`, less `perFace` for each face it shows, wait for a
// later call and are returned, except a first face on a call that shows none.
std::vector<Found> mergeFound(const std::vector<Found>& found, const PicturePtr& picture,
                              std::vector<Detection>& followed, std::vector<Track>& added, Clock::time_point start,
                              double budget, double perFace);

}  // namespace KVOAI::kvodnnl
