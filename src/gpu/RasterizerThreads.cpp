#include "gpu/RasterizerThreads.h"

#include <sched.h>

#include <algorithm>
#include <cstdlib>

namespace rasterizer {

std::string threadsSetting(int usableCores)
{
    const int kLlvmpipeMaxThreads = 16;
    if (usableCores <= 1)
        return "0";
    return std::to_string(std::min(usableCores, kLlvmpipeMaxThreads));
}

int usableCores()
{
    cpu_set_t set;
    CPU_ZERO(&set);
    if (sched_getaffinity(0, sizeof(set), &set) != 0)
        return 1;
    return std::max(1, CPU_COUNT(&set));
}

std::string applyDefault()
{
    setenv("LP_NUM_THREADS", threadsSetting(usableCores()).c_str(), 0);
    const char* value = getenv("LP_NUM_THREADS");
    return value ? value : "";
}

}  // namespace rasterizer
