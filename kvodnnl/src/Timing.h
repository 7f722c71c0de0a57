#pragma once
// Time as the detector measures it: the budgets of a call and the length of
// the search's tasks.
#include <chrono>
#include <ctime>

namespace KVOAI::kvodnnl {

using Clock = std::chrono::steady_clock;

inline double millisecondsSince(Clock::time_point start)
{
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

// Milliseconds of processor time that the calling thread has taken: what a
// task costs, however long other threads kept it waiting. The rates that the
// budgets rest on are measured so.
inline double threadMilliseconds()
{
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return t.tv_sec * 1e3 + t.tv_nsec * 1e-6;
}

// How many times its processor time the calling thread's recent work took
// on the clock: about 1 on an idle machine, more while other threads (a
// renderer, other channels, other programs) share the processors. The
// estimates that the budgets of a call compare with the clock are processor
// times scaled by it.
double slowdown();

// A call's budget of `milliseconds`, less what waiting for the processors
// may add to a call's end beyond the estimates while other threads share
// them: kLoadMargin milliseconds for each unit of slowdown above 1.
double loaded(double milliseconds);

// A piece of the calling thread's work, from its construction to its end,
// taken into the slowdown.
class TimedWork {
public:
    TimedWork() : clockStart_(Clock::now()), processorStart_(threadMilliseconds()) {}
    ~TimedWork();
    TimedWork(const TimedWork&) = delete;
    TimedWork& operator=(const TimedWork&) = delete;

private:
    Clock::time_point clockStart_;
    double processorStart_;
};

// Takes `clockMilliseconds` on the clock for `processorMilliseconds` of
// processor time into the slowdown: a longer wait raises it at once, and a
// shorter one lowers it slowly. Pieces too short to measure are left out.
void measuredSlowdown(double clockMilliseconds, double processorMilliseconds);

// The moment `milliseconds` after `start`.
inline Clock::time_point after(Clock::time_point start, double milliseconds)
{
    return start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double, std::milli>(milliseconds));
}

}  // namespace KVOAI::kvodnnl
