#pragma once
// How many threads Mesa's software rasterizer, llvmpipe, draws with. The
// engine lets it use the cores that the process may run on; a host that set
// LP_NUM_THREADS itself keeps its own choice.

#include <string>

namespace rasterizer {

// The value for LP_NUM_THREADS with the given number of usable cores: one
// thread a core, and none (drawing on the calling thread) with one core,
// where a rasterizer thread would only take turns with the caller. At most
// llvmpipe's own limit of 16.
std::string threadsSetting(int usableCores);

// The number of cores this process may run on (its affinity), at least 1.
int usableCores();

// Sets LP_NUM_THREADS unless the environment has it already. Returns the
// value in effect afterwards.
std::string applyDefault();

}  // namespace rasterizer
