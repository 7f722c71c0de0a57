#pragma once
// Time as the detector measures it: the budgets of a call and the length of
// the search's tasks.
#include <chrono>

namespace KVOAI::kvodnnl {

using Clock = std::chrono::steady_clock;

inline double millisecondsSince(Clock::time_point start)
{
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

// The moment `milliseconds` after `start`.
inline Clock::time_point after(Clock::time_point start, double milliseconds)
{
    return start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double, std::milli>(milliseconds));
}

}  // namespace KVOAI::kvodnnl
