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

// The moment `milliseconds` after `start`.
inline Clock::time_point after(Clock::time_point start, double milliseconds)
{
    return start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double, std::milli>(milliseconds));
}

}  // namespace KVOAI::kvodnnl
