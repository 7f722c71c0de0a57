#pragma once
// The key points of the faces of a call: fitted with the landmark model where
// a face's look changed, as far as the call's time allows, and kept, or moved
// along with the face, where it did not.
#include <vector>

#include <opencv2/core/types.hpp>

#include "Models.h"
#include "Signature.h"
#include "Timing.h"
#include "Tracker.h"

namespace KVOAI::kvodnnl {

// Milliseconds on the clock to fit the key points of one face on the calling
// thread: the processor time measured over the process's recent fits, times
// the slowdown.
double fitMilliseconds();

// A face that the search found on `picture`, new to the calls, with its key
// points fitted there (none when the model gives none).
Track fittedTrack(const Detection& detection, const PicturePtr& picture, const Predictor& predictor);

// The 98 key points of each face of `shown` on `picture`, none for a face
// without any. A face keeps the points fitted before while it looks as it did
// then, where it was (a still face) or where it moved to (see kMotionReach;
// the points move with it). Once the call that began at `start` has taken
// `budget` milliseconds, any other face keeps them too, moved as its
// part of the picture moved since (see `motion`), and is fitted again on a
// later call: the faces whose points are the oldest are fitted first. A face
// without points yet is always fitted, and so is the first face that needs a
// fit, unless its fit would end the call past loaded(kFinishBudgetMs) while
// the call can still end within kCallLimitMs, the face moved within
// kMotionReach and its points went fewer than kUnfittedCalls calls without
// the fit they needed. The faces fitted keep their new points and what they
// were fitted on.
std::vector<std::vector<cv::Point2d>> keyPoints(const PicturePtr& picture, std::vector<Track>& shown,
                                                Clock::time_point start, double budget, const Predictor& predictor);

}  // namespace KVOAI::kvodnnl
