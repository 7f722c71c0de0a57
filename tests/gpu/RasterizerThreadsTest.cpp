// How many rasterizer threads the engine asks Mesa's llvmpipe for.
#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "gpu/RasterizerThreads.h"

namespace {

TEST(RasterizerThreads, OneThreadACoreAndNoneWithOneCore)
{
    const struct { int cores; const char* setting; } rows[] = {
        {-1, "0"}, {0, "0"}, {1, "0"}, {2, "2"}, {3, "3"}, {8, "8"}, {16, "16"}, {17, "16"}, {64, "16"}};
    for (const auto& row : rows)
        EXPECT_EQ(rasterizer::threadsSetting(row.cores), row.setting) << row.cores << " cores";
}

TEST(RasterizerThreads, AHostsOwnChoiceStays)
{
    const char* before = std::getenv("LP_NUM_THREADS");
    const std::string saved = before ? before : "";

    setenv("LP_NUM_THREADS", "5", 1);
    EXPECT_EQ(rasterizer::applyDefault(), "5");
    EXPECT_STREQ(std::getenv("LP_NUM_THREADS"), "5");

    unsetenv("LP_NUM_THREADS");
    EXPECT_EQ(rasterizer::applyDefault(), rasterizer::threadsSetting(rasterizer::usableCores()));

    if (before)
        setenv("LP_NUM_THREADS", saved.c_str(), 1);
    else
        unsetenv("LP_NUM_THREADS");
}

TEST(RasterizerThreads, UsableCoresFollowTheAffinity)
{
    cpu_set_t all;
    ASSERT_EQ(sched_getaffinity(0, sizeof(all), &all), 0);
    EXPECT_EQ(rasterizer::usableCores(), CPU_COUNT(&all));
    // One core allowed to this thread: one usable core.
    cpu_set_t one;
    CPU_ZERO(&one);
    for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu)
        if (CPU_ISSET(cpu, &all)) {
            CPU_SET(cpu, &one);
            break;
        }
    ASSERT_EQ(sched_setaffinity(0, sizeof(one), &one), 0);
    EXPECT_EQ(rasterizer::usableCores(), 1);
    ASSERT_EQ(sched_setaffinity(0, sizeof(all), &all), 0);
}

}  // namespace
