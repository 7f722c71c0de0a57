#include "SearchPlan.h"

#include <algorithm>
#include <atomic>
#include <cmath>

#include "Timing.h"
#include "Tuning.h"

namespace KVOAI::kvodnnl {

namespace {

// Millions of pixels that a HOG pyramid scans, for a base level of `pixels`:
// each level is 5/6 of the one before on each side.
constexpr double kPyramidSum = 1.0 / (1.0 - 25.0 / 36.0);
// ...and for its first kNearLevels levels: the millions of pixels of a
// search near a place, per million of its base level.
constexpr double kNearSum = (1.0 - 25.0 / 36.0 * 25.0 / 36.0 * 25.0 / 36.0) / (1.0 - 25.0 / 36.0);
static_assert(kNearLevels == 3, "kNearSum counts three levels");
// Most work for one task of the plan, in millions of HOG pixels and of
// cascade windows: a few milliseconds each.
constexpr double kTaskHogPixels = 0.25;
constexpr double kTaskCascadeWindows = 0.05;

// Millions of HOG pixels that confirming a candidate scans, and that a
// search near a followed face does.
constexpr double kConfirmWork = kNearFace * kConfirmRegion * kNearFace * kConfirmRegion * kNearSum * 1e-6;
constexpr double kNearWork = kNearFace * kNearRegion * kNearFace * kNearRegion * kNearSum * 1e-6;

// Cuts a scan into strips of rows, each taking at most `maxWork`, that
// overlap by `margin` rows so that no face of the scan is cut in two.
void addStrips(std::vector<Task>& out, Task scan, cv::Size size, double work, double maxWork, int margin)
{
    const int parts = std::max(1, std::min(12, static_cast<int>(std::ceil(work / maxWork))));
    for (int p = 0; p < parts; ++p) {
        const int top = std::max(0, size.height * p / parts - margin / 2);
        const int bottom = std::min(size.height, size.height * (p + 1) / parts + margin / 2);
        scan.tile = cv::Rect(0, top, size.width, bottom - top);
        scan.work = work * scan.tile.height / size.height;
        out.push_back(scan);
    }
}

// The cascade on octaves of face sizes from `smallest` up to `largest`, each
// on the picture reduced so that the octave's smallest faces measure the
// cascade's window. Each window size of the octave (the cascade's steps of
// kCascadeStep) is a scan of its own, with a stride of two pixels, whose
// strips overlap by that window. Cut as one scan of the whole octave, the
// strips overlapped by its largest window, and the smallest windows, most of
// the work, scanned half as many rows again as the picture has.
void addCascade(std::vector<Task>& out, cv::Size size, double smallest, double largest)
{
    for (double low = smallest; low < largest; low *= 2) {
        const double high = std::min(2 * low, largest);
        const double scale = kCascadeWindow / low;
        for (double factor = 1; cvRound(factor * kCascadeWindow) <= std::ceil(high * scale); factor *= kCascadeStep) {
            Task t;
            t.kind = Task::Cascade;
            t.scale = scale;
            t.smallest = t.largest = cvRound(factor * kCascadeWindow);
            const double windows = size.area() * scale * scale / (4 * factor * factor) * 1e-6;
            addStrips(out, t, size, windows, kTaskCascadeWindows, static_cast<int>(std::ceil(1.1 * t.largest / scale)));
        }
    }
}

// Milliseconds per million HOG pixels and per million cascade windows, as
// measured in processor time over the process's recent tasks.
std::atomic<double> hogRate{30.0};
std::atomic<double> cascadeRate{150.0};

}  // namespace

Task confirmTask(const dlib::rectangle& box, double lean)
{
    Task confirm;
    confirm.kind = Task::Confirm;
    confirm.box = box;
    confirm.lean = lean;
    confirm.work = lean == 0 ? kConfirmWork : kNearWork;
    return confirm;
}

double estimate(const Task& task)
{
    return task.work * (task.kind == Task::Cascade ? cascadeRate : hogRate).load(std::memory_order_relaxed)
        * slowdown();
}

void measured(const Task& task, double milliseconds)
{
    if (task.work <= 0)
        return;
    std::atomic<double>& rate = task.kind == Task::Cascade ? cascadeRate : hogRate;
    const double old = rate.load(std::memory_order_relaxed);
    rate.store(old + 0.2 * (milliseconds / task.work - old), std::memory_order_relaxed);
}

double nearMilliseconds()
{
    return kNearWork * hogRate.load(std::memory_order_relaxed) * slowdown();
}

std::vector<Task> planSearch(cv::Size size)
{
    std::vector<Task> hog, cascade;
    const double shorter = std::min(size.width, size.height);
    const double hogSmallest = std::max(kHogWindow, kHogSmallestFraction * shorter);
    // The larger pyramid levels one at a time, the rest together.
    double scale = kHogWindow / hogSmallest;  // at most 1
    for (int level = 0; level < 6 && shorter * scale >= kHogWindow; ++level, scale *= 5.0 / 6.0) {
        Task t;
        t.kind = Task::Hog;
        t.scale = scale;
        t.restOfPyramid = level == 5;
        const double pixels = size.area() * scale * scale * 1e-6;
        if (t.restOfPyramid) {
            t.tile = cv::Rect(cv::Point(), size);
            t.work = pixels * kPyramidSum;
            hog.push_back(t);
        } else {
            addStrips(hog, t, size, pixels, kTaskHogPixels, static_cast<int>(1.25 * kHogWindow / scale));
        }
    }
    // The cascade on octaves of face sizes up to a little over the HOG pass's
    // smallest; then again on the sizes half a step between those.
    const double smallest = std::max(kSmallestFace, kSmallestFraction * shorter);
    addCascade(cascade, size, smallest, 1.1 * hogSmallest);
    std::vector<Task> between;
    addCascade(between, size, smallest * std::sqrt(kCascadeStep), 1.1 * hogSmallest);
    // Larger faces are the likelier and the cheaper to find: the coarse
    // levels and octaves first, the cascade's parts woven in between, and the
    // sizes between the cascade's steps last.
    std::reverse(hog.begin(), hog.end());
    std::reverse(cascade.begin(), cascade.end());
    std::reverse(between.begin(), between.end());
    std::vector<Task> plan;
    for (size_t i = 0; i < std::max(hog.size(), cascade.size()); ++i) {
        if (i < hog.size())
            plan.push_back(hog[i]);
        if (i < cascade.size())
            plan.push_back(cascade[i]);
    }
    plan.insert(plan.end(), between.begin(), between.end());
    return plan;
}

}  // namespace KVOAI::kvodnnl
