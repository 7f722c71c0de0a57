// How each filter class widens a face box into the area that it works on.
// Frame 1000 x 800 throughout.

#include <gtest/gtest.h>

#include "filters/BeautyFilterBase.h"
#include "filters/OpenglFaceAreaFilter.h"
#include "filters/OpenglSlimFaceFilter.h"
#include "filters/OpenglSmoothAndWhiteningFilter.h"
#include "filters/OpenglWhiteningFilter.h"

namespace {
constexpr int W = 1000;
constexpr int H = 800;
}

TEST(ExpandFaceArea, BaseGrowsUpwardsMoreThanDownwards)
{
    BeautyFilterBase f;
    // dx 20, dy 20: x - dx/2, y - 2 dy, height + 3 dy.
    EXPECT_EQ(f.expandFaceArea(cv::Rect(100, 200, 200, 100), W, H), cv::Rect(90, 160, 240, 160));
    // Cut at the right edge, width rounded down to a multiple of 4.
    EXPECT_EQ(f.expandFaceArea(cv::Rect(900, 300, 150, 100), W, H), cv::Rect(893, 260, 104, 160));
    // Cut at the bottom.
    EXPECT_EQ(f.expandFaceArea(cv::Rect(100, 700, 100, 100), W, H), cv::Rect(95, 660, 120, 140));
}

TEST(ExpandFaceArea, BaseKeepsItsAsymmetriesAtTheLeftAndTop)
{
    BeautyFilterBase f;
    // Left and top cut: the former x is added to the width, and the height
    // grows by 2 dy plus the former y.
    EXPECT_EQ(f.expandFaceArea(cv::Rect(5, 10, 200, 100), W, H), cv::Rect(0, 0, 244, 150));
    // Left cut and too wide: W minus the former x, not minus the new x.
    EXPECT_EQ(f.expandFaceArea(cv::Rect(2, 300, 990, 100), W, H), cv::Rect(0, 260, 996, 160));
    // Top cut and too high: H minus the former y.
    EXPECT_EQ(f.expandFaceArea(cv::Rect(100, 5, 100, 790), W, H), cv::Rect(95, 0, 120, 795));
}

TEST(ExpandFaceArea, BaseReturnsBoxesOutsideItsMarginsUnchanged)
{
    BeautyFilterBase f;
    for (const cv::Rect& box : {cv::Rect(-101, 100, 100, 100), cv::Rect(100, -81, 100, 100),
                                cv::Rect(1001, 100, 100, 100), cv::Rect(100, 781, 100, 100)})
        EXPECT_EQ(f.expandFaceArea(box, W, H), box);
    // Just inside the margins it does widen.
    EXPECT_NE(f.expandFaceArea(cv::Rect(-99, 100, 100, 100), W, H), cv::Rect(-99, 100, 100, 100));
}

TEST(ExpandFaceArea, FaceAreaAndSlimFaceShareOneRule)
{
    OpenglFaceAreaFilter area;
    OpenglSlimFaceFilter slim;
    struct Case {
        cv::Rect box, want;
    } cases[] = {
        {cv::Rect(100, 200, 200, 100), cv::Rect(0, 180, 400, 140)},   // x - dx lands on 0
        {cv::Rect(300, 300, 101, 50), cv::Rect(250, 290, 200, 70)},   // width 201 -> 200
        {cv::Rect(900, 700, 100, 100), cv::Rect(850, 680, 148, 120)}, // cut right and bottom
        {cv::Rect(-201, 100, 100, 100), cv::Rect(-201, 100, 100, 100)}, // beyond -0.2 W
        {cv::Rect(100, 861, 100, 100), cv::Rect(100, 861, 100, 100)},   // beyond 1.2 H
        {cv::Rect(-200, 100, 100, 100), cv::Rect(0, 80, 200, 140)},     // on the margin: widened
    };
    for (const Case& c : cases) {
        EXPECT_EQ(area.expandFaceArea(c.box, W, H), c.want) << c.box;
        EXPECT_EQ(slim.expandFaceArea(c.box, W, H), c.want) << c.box;
    }
}

TEST(ExpandFaceArea, WhiteningGrowsByTheFullHeight)
{
    OpenglWhiteningFilter f;
    EXPECT_EQ(f.expandFaceArea(cv::Rect(300, 300, 101, 50), W, H), cv::Rect(250, 250, 200, 150));
    EXPECT_EQ(f.expandFaceArea(cv::Rect(-301, 300, 100, 100), W, H), cv::Rect(-301, 300, 100, 100));
    EXPECT_EQ(f.expandFaceArea(cv::Rect(-290, 300, 100, 100), W, H), cv::Rect(0, 200, 200, 300));
    EXPECT_EQ(f.expandFaceArea(cv::Rect(1201, 300, 100, 100), W, H), cv::Rect(1201, 300, 100, 100));
}

TEST(ExpandFaceArea, WhiteningVariantsRejectBoxesNearTheTop)
{
    OpenglWhiteningFilter whitening;
    OpenglSmoothAndWhiteningFilter both;
    // y at 5 % of the height: widened by whitening, unchanged by the other.
    const cv::Rect atFivePercent(300, 40, 100, 100);
    EXPECT_EQ(whitening.expandFaceArea(atFivePercent, W, H), cv::Rect(250, 0, 200, 300));
    EXPECT_EQ(both.expandFaceArea(atFivePercent, W, H), atFivePercent);
    // Below 1 % both return it unchanged; from 10 % both widen alike.
    const cv::Rect atTop(300, 7, 100, 100);
    EXPECT_EQ(whitening.expandFaceArea(atTop, W, H), atTop);
    EXPECT_EQ(both.expandFaceArea(atTop, W, H), atTop);
    const cv::Rect lower(300, 150, 100, 100);
    EXPECT_EQ(whitening.expandFaceArea(lower, W, H), cv::Rect(250, 50, 200, 300));
    EXPECT_EQ(both.expandFaceArea(lower, W, H), cv::Rect(250, 50, 200, 300));
}
