// The key points of a face that changed: fitted again while the call has the
// time, moved along with the face when it is too late for a fit.
#include <chrono>
#include <cmath>
#include <memory>

#include <dlib/serialize.h>
#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include "Calls.h"
#include "KeyPoints.h"
#include "LabelledPictures.h"
#include "Models.h"
#include "Predictor.h"
#include "Tuning.h"

namespace {

using namespace KVOAI::kvodnnl;

// A slowdown of `ratio` measured on the calling thread's work.
void measureSlowdown(double ratio)
{
    for (int i = 0; i < 200; ++i)
        measuredSlowdown(2.0 * ratio, 2.0);
}

PicturePtr pictureOf(const cv::Mat& grey) { return std::make_shared<Picture>(Picture{grey, signature(grey)}); }

// The mean distance between two lists of points of the same length.
double meanDistance(const std::vector<cv::Point2d>& a, const std::vector<cv::Point2d>& b)
{
    double sum = 0;
    for (size_t i = 0; i < a.size(); ++i)
        sum += cv::norm(a[i] - b[i]);
    return sum / static_cast<double>(a.size());
}

}  // namespace

// The portrait's face, fitted, then shown moved and 20 grey levels brighter:
// its look changed, so it needs a fit. The first face that needs one is
// fitted even past the call's budget (0 here), unless the fit would end the
// call past loaded(kFinishBudgetMs): then its points move with it, unless it
// went kUnfittedCalls calls without its fit, moved beyond kMotionReach, or
// the call is past kCallLimitMs anyway.
TEST(KvodnnlKeyPoints, ALateCallMovesThePointsAlongInsteadOfFitting)
{
    Predictor predictor;
    dlib::deserialize(kDefaultModelPath) >> predictor;
    cv::Mat grey;
    cv::cvtColor(calls::portrait(), grey, cv::COLOR_RGB2GRAY);
    const dlib::rectangle face(179, 83, 266, 170);
    const PicturePtr before = pictureOf(grey);
    measureSlowdown(1.0);
    const Track fitted = fittedTrack({face, 1.0, 0.0}, before, predictor);
    ASSERT_EQ(fitted.fitted.size(), 98u);

    // The case, the slowdown, how many ms before the end a fit must keep to,
    // the calls the face went without a fit, whether it has points yet, how
    // far it moved and whether it is fitted.
    const struct { const char* name; double slowdown, lateBy; int fitAge; bool withPoints; cv::Point step; bool fits; }
        cases[] = {
            {"a call that has the time", 1.0, 100.0, 0, true, {6, 3}, true},
            {"a late call whose fit still ends in time", 1.0, 4.0, 0, true, {6, 3}, true},
            {"a call too late for a fit", 1.0, -4.0, 0, true, {6, 3}, false},
            {"the same call on a busy machine", 3.0, 4.0, 0, true, {6, 3}, false},
            {"too late, but without a fit for long", 1.0, -4.0, kUnfittedCalls, true, {6, 3}, true},
            {"too late, but without points yet", 1.0, -4.0, 0, false, {6, 3}, true},
            {"too late, but moved a third of its width", 1.0, -4.0, 0, true, {30, 0}, true},
            {"too late to end in time anyway", 1.0, -kCallLimitMs, 0, true, {6, 3}, true},
        };
    for (const auto& c : cases) {
        const PicturePtr after = pictureOf(labelled::shifted(grey, c.step) + cv::Scalar(20));
        // The end is loaded(kFinishBudgetMs) on a machine without load,
        // whatever the slowdown of the case.
        measureSlowdown(1.0);
        const double late = std::max(0.0, loaded(kFinishBudgetMs) - fitMilliseconds() - c.lateBy);
        measureSlowdown(c.slowdown);
        std::vector<Track> shown = {fitted};
        shown[0].detection.box = dlib::translate_rect(face, c.step.x, c.step.y);
        shown[0].fitAge = c.fitAge;
        if (!c.withPoints)
            shown[0].fitted.clear();
        const auto start = Clock::now() - std::chrono::microseconds(std::lround(late * 1000));
        const std::vector<std::vector<cv::Point2d>> points = keyPoints(after, shown, start, 0.0, predictor);
        ASSERT_EQ(points.size(), 1u) << c.name;
        ASSERT_EQ(points[0].size(), 98u) << c.name;
        std::vector<cv::Point2d> along = fitted.fitted;
        for (cv::Point2d& p : along)
            p += cv::Point2d(c.step);
        if (c.fits) {
            EXPECT_EQ(shown[0].fitPicture.get(), after.get()) << c.name;
            EXPECT_EQ(shown[0].fitAge, 0) << c.name;
            EXPECT_LT(meanDistance(points[0], along), 2.0) << c.name;
        } else {
            EXPECT_EQ(shown[0].fitPicture.get(), before.get()) << c.name;
            EXPECT_EQ(shown[0].fitAge, c.fitAge + 1) << c.name;
            EXPECT_LT(meanDistance(points[0], along), 0.6) << c.name;
        }
    }
    measureSlowdown(1.0);
}
