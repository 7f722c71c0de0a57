#pragma once
// The faces that the search found, joined to those that a call follows.
#include <vector>

#include "Boxes.h"
#include "Scheduler.h"
#include "Signature.h"
#include "Timing.h"

namespace KVOAI::kvodnnl {

// Adds to `followed` the faces of `found` that are not followed yet. Those
// confirmed on another picture than the call's `picture` are searched for
// near their place first. Unless `all`, faces beyond the budget of the call
// that began at `start` wait for a later call and are returned, except a
// first face on a call that shows none.
std::vector<Found> mergeFound(const std::vector<Found>& found, const PicturePtr& picture,
                              std::vector<Detection>& followed, Clock::time_point start, bool all);

}  // namespace KVOAI::kvodnnl
