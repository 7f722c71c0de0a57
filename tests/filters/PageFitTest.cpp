// The size an imported page is shown at, worked by hand: the channel's class
// of resolution (its bounds exactly), the shrink that keeps the shape, the
// two texture limits and the width brought to a multiple of 4.
#include <gtest/gtest.h>

#include "filters/PageFit.h"

TEST(PageFit, ThePageFitsTheChannelsClassThenTheLimits)
{
    const struct { float pageW, pageH; int channelW, channelH; QSize shown; } cases[] = {
        {2560, 1440, 1280, 720, {1280, 720}},    // 720p lying, at its bound
        {2560, 1440, 1281, 720, {1920, 1080}},   // one pixel wider: 1080p
        {2560, 1440, 1280, 721, {1920, 1080}},
        {1000, 2000, 720, 1280, {640, 1280}},    // standing: the height brought down
        {1000, 2000, 720, 720, {640, 1280}},     // a square channel counts as standing
        {1000, 3000, 721, 1280, {640, 1920}},    // standing 1080p
        {800, 600, 1280, 720, {800, 600}},       // smaller than the target: kept
        {803, 600, 1280, 720, {800, 600}},       // the width a multiple of 4
        {8000, 1000, 720, 1280, {5760, 720}},    // wider than the wide limit
        {1000, 8000, 1280, 720, {672, 5400}},    // taller than the tall limit: 675 to 672
    };
    for (const auto& c : cases) {
        EXPECT_EQ(pagefit::fitFirstPage(c.pageW, c.pageH, c.channelW, c.channelH), c.shown)
            << c.pageW << "x" << c.pageH << " in " << c.channelW << "x" << c.channelH;
    }
}
