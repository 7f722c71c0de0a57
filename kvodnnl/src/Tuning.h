#pragma once
// The detector's sizes, thresholds and time budgets.
#include <cstddef>

namespace KVOAI::kvodnnl {

// Side of the square that the HOG detector scans; faces much smaller than this
// are not found by it unless the picture is enlarged.
constexpr double kHogWindow = 80.0;
// Side of the cascade's window.
constexpr double kCascadeWindow = 24.0;
// The HOG detector searches the whole picture for faces down to this fraction
// of its shorter side, on a grey copy reduced just enough for that...
constexpr double kHogSmallestFraction = 1.0 / 6.0;
// ...and the cascade for those down to this fraction, and never below
// kSmallestFace pixels.
constexpr double kSmallestFraction = 1.0 / 20.0;
constexpr double kSmallestFace = 36.0;
// Scale step of the cascade's own pyramid.
constexpr double kCascadeStep = 1.2;
// Windows that pass the cascade with at least this weight are candidates, at
// most kCandidatesPerTask of them a task, the strongest first.
constexpr double kCandidateWeight = 0.0;
constexpr size_t kCandidatesPerTask = 30;
// Faces near a known place are searched in a square of this many face sizes,
// scaled so that the face measures about kNearFace pixels.
constexpr double kNearRegion = 2.0;
// A candidate of the search is confirmed in a square of this many face sizes;
// one of a face that leans, whose box the scan placed less well, in one of
// kNearRegion.
constexpr double kConfirmRegion = 1.75;
constexpr double kNearFace = 90.0;
// A followed face is looked for on this many levels of the HOG pyramid
// there: faces from about 0.9 to 1.3 times its last size (a pyramid step is
// 5/6). Larger steps between two calls are left to the whole-picture search
// that a lost face starts.
constexpr unsigned long kNearLevels = 3;
// The HOG detector's parts (its weight indices) for faces that lean left and
// right as seen (clockwise: right). Its whole-picture finds above 0 are
// candidates; those of these two parts down to kLeaningCandidateScore are
// candidates too, of a face that leans further than the parts know: they are
// searched for in a view turned by kCandidateLean degrees.
constexpr unsigned long kLeansLeft = 3;
constexpr unsigned long kLeansRight = 4;
constexpr double kLeaningCandidateScore = -0.25;
constexpr double kCandidateLean = 35.0;
// HOG score that a candidate of a whole-picture search must reach near its
// place to count as a face. Textures such as badges, folds and a turned
// mission patch reach about 0.3 in the whole picture's pass and mostly stay
// below 0 here, while the faces that the landmark model can fit score 0.8
// and more. The portrait's own patch, on the suit, passes at some turns of
// the whole portrait (about 0.33).
constexpr double kConfirmScore = 0.3;
// A face that a candidate's confirmation found must be one to the cascade
// too, in a view of kSecondOpinionRegion face sizes where it measures
// kSecondOpinionFace pixels (see cascadeAgrees): faces pass it with three
// windows or more, most with over ten, and the portrait's own mission patch,
// turned, with one.
constexpr double kSecondOpinionRegion = 1.6;
constexpr double kSecondOpinionFace = 48.0;
constexpr int kSecondOpinionWindows = 2;
// A followed face whose box differs from its look when the HOG detector last
// found it there by at most kStillPatch grey levels (mean absolute difference
// of kPatchSide x kPatchSide reductions) keeps its box without a new search,
// for up to kRecheckCalls calls.
constexpr int kPatchSide = 16;
constexpr double kStillPatch = 2.0;
constexpr int kRecheckCalls = 10;
// A face whose box is the one its key points were fitted on, and whose look
// there differs by at most kSameLook grey levels in every cell of the
// kPatchSide x kPatchSide reduction, keeps those key points: sensor noise
// moves a cell by a level or two, an eye that closes or a mouth that opens by
// far more.
constexpr double kSameLook = 4.0;
// Followed faces are searched for near their places while a call's
// estimated time stays within this many milliseconds of its start.
constexpr double kFollowBudgetMs = 10.0;
// A followed face found again with a box that overlaps its old one by this
// much (intersection over union) keeps the old box.
constexpr double kKeepBoxOverlap = 0.8;
// In a picture that differs from the last on the whole, the followed faces
// are given up once this many searched for near their places are all lost.
constexpr int kCutLosses = 2;
// Calls between the starts of two searches of the whole picture while nothing
// else asks for one, when no face is followed and when some are. While faces
// are followed, each such search that finds no face new to the calls doubles
// the period for the next, up to kLongestFollowedSearchPeriod: a scene whose
// faces are all found costs a search every few seconds, and one who comes in
// is found within that time.
constexpr int kSearchPeriod = 10;
constexpr int kFollowedSearchPeriod = 15;
constexpr int kLongestFollowedSearchPeriod = 60;
// A search of the whole picture that a new picture or `flagA` asked for is
// finished, by the calling thread if need be, by the kSearchCalls-th call
// since it began, as far as kFinishBudgetMs lets it.
constexpr int kSearchCalls = 5;
// Niceness of the search thread (see setpriority(2)).
constexpr int kSearchNice = 10;
// A call takes on a part of a whole-picture search only while its estimated
// end, the key points of its faces included, stays within this many
// milliseconds of the call's start, and adds new faces only within
// kMergeBudgetMs.
constexpr double kHelpBudgetMs = 18.0;
// A search that must end by its kSearchCalls-th call takes up to this many
// milliseconds of each call before that one, so that little is left for it.
constexpr double kUrgentHelpBudgetMs = 22.0;
constexpr double kMergeBudgetMs = 22.0;
// From its kSearchCalls-th call on, a search that must end by then takes up
// to this many milliseconds of a call, for the search, for adding the faces
// it found and for fitting key points, until it is done.
constexpr double kFinishBudgetMs = 26.0;
// The slowdown of the calling thread's work (see Timing.h) is measured on
// pieces of at least kShortestTimedWork milliseconds of processor time, and
// taken as at most kLargestSlowdown.
constexpr double kShortestTimedWork = 0.3;
constexpr double kLargestSlowdown = 4.0;
// Each unit of slowdown above 1 takes this many milliseconds off the budgets
// of a call: the estimates, scaled by the slowdown, say how long work takes
// on the mean, and the processors' scheduler adds waits of a few
// milliseconds at a time.
constexpr double kLoadMargin = 5.0;
// Key points are fitted while the call's estimated end stays within this
// many milliseconds of its start.
constexpr double kFitBudgetMs = 24.0;
// The first face that needs a fit is fitted even past that budget, though
// not past loaded(kFinishBudgetMs) until its points went this many calls
// without the fit they needed...
constexpr int kUnfittedCalls = 3;
// ...unless the call has taken this many milliseconds already: a call is
// meant to end within them, and one that can't keeps the fit.
constexpr double kCallLimitMs = 31.0;
// A face that leans is fitted in a view turned upright, of twice its width
// and at most kFitView pixels across. A fit whose eye line leans from its
// frame's by kRefitLean degrees or more is done again in a frame of that
// lean, up to twice.
constexpr double kFitView = 400.0;
constexpr double kRefitLean = 10.0;
// Side to which the part of a picture round a face is reduced to measure how
// far the face moved.
constexpr double kMotionSide = 96.0;
// A face that moved by at most this fraction of its width since its key points
// were fitted, and whose look there is the one they were fitted on (within
// kMovedLook), keeps them, moved along.
constexpr double kMotionReach = 0.25;
// The look of a face that moved is compared at the nearest whole pixel: the
// rest of the step changes its cells by a few grey levels more.
constexpr double kMovedLook = 8.0;
// A picture counts as a new one when the mean absolute difference of its 32 x
// 32 grey signature from the last picture's passes kChangeThreshold, or when
// kChangedPatches of the signature's patch means differ by more than
// kChangedPatch grey levels; below kSameThreshold two pictures count as the
// same one.
constexpr double kChangeThreshold = 10.0;
constexpr double kChangedPatch = 10.0;
constexpr int kChangedPatches = 4;
constexpr double kSameThreshold = 3.0;
constexpr int kThumbSide = 32;
constexpr int kPatch = 4;
// A picture that differs from the last on the whole is the last one seen by a
// camera that moved when their reductions to kMovedSide pixels a side, once
// the camera's shift, zoom and turn between them are undone, differ by at
// most kMovedPicture grey levels on the mean in each of kMovedParts x
// kMovedParts parts. Undone at a fraction of a pixel,
// the shift leaves about 6 levels in the most textured part of a close-up.
constexpr double kMovedSide = 128.0;
// The camera's zoom and turn between the two are found from the shifts of
// parts of the reductions whose correlation peaks at kMovedPartResponse or
// more (plainer parts say little); a zoom beyond 1 +- kMovedZoom or a turn
// beyond kMovedTurn degrees is no camera move between two pictures.
constexpr double kMovedPartResponse = 0.05;
constexpr double kMovedZoom = 0.15;
constexpr double kMovedTurn = 10.0;
// The two are compared blurred by this many reduced pixels (a Gaussian's
// sigma).
constexpr double kMovedBlur = 1.0;
constexpr double kMovedPicture = 10.0;
constexpr int kMovedParts = 4;

}  // namespace KVOAI::kvodnnl
