// CPU face masks of the filter base, against the closed form of the Gaussian
// mask.
#include <cmath>
#include <stdexcept>

#include <gtest/gtest.h>
#include <opencv2/core.hpp>

#include "filters/BeautyFilterBase.h"

namespace {

cv::Mat randomPicture(int rows, int cols, int type, int seed)
{
    cv::Mat m(rows, cols, type);
    cv::RNG(seed).fill(m, cv::RNG::UNIFORM, 0, 256);
    return m;
}

// The mask at (x, y): a separable Gaussian of sigma size / divisor,
// normalised so that the corners are 0 and the centre is 1.
double maskAt(int x, int y, int cols, int rows, int divisor)
{
    auto g = [](double d, double sigma) { return std::exp(-d * d / (2 * sigma * sigma)); };
    const double sx = cols / divisor, sy = rows / divisor, cx = (cols - 1) / 2.0, cy = (rows - 1) / 2.0;
    const double lo = g(cx, sx) * g(cy, sy);
    return (g(x - cx, sx) * g(y - cy, sy) - lo) / (1 - lo);
}

}  // namespace

TEST(FaceMasks, RestoreSideStripsTakesTheLowerSidesFromTheSource)
{
    BeautyFilterBase f;
    // Below the top third, strips of a twentieth of the width: one column
    // fewer on the right.
    struct Case {
        int rows, cols, firstRow, left, right;
    } cases[] = {{30, 19, 30, 0, 0}, {3, 40, 2, 2, 1}, {60, 100, 21, 5, 4}};
    for (const Case& c : cases) {
        const cv::Mat image = randomPicture(c.rows, c.cols, CV_8UC4, 1);
        const cv::Mat source = randomPicture(c.rows, c.cols, CV_8UC4, 2);
        const cv::Mat out = f.restoreSideStrips(image, source);
        ASSERT_NE(out.data, image.data);
        for (int y = 0; y < c.rows; ++y)
            for (int x = 0; x < c.cols; ++x) {
                const bool restored = y >= c.firstRow && (x < c.left || x >= c.cols - c.right);
                const cv::Vec4b img = image.at<cv::Vec4b>(y, x), src = source.at<cv::Vec4b>(y, x);
                ASSERT_EQ(out.at<cv::Vec4b>(y, x), restored ? cv::Vec4b(src[0], src[1], src[2], img[3]) : img)
                    << c.rows << "x" << c.cols << " at " << x << "," << y;
            }
    }
    // Pictures that don't match, or have three channels, stay as they are.
    const cv::Mat image = randomPicture(30, 40, CV_8UC4, 5), three = randomPicture(30, 40, CV_8UC3, 7);
    EXPECT_EQ(cv::norm(f.restoreSideStrips(image, randomPicture(10, 40, CV_8UC4, 6)), image, cv::NORM_INF), 0.0);
    EXPECT_EQ(cv::norm(f.restoreSideStrips(three, three.clone()), three, cv::NORM_INF), 0.0);
}

TEST(FaceMasks, BlendTakesForegroundInTheMiddleAndBackgroundAtTheRim)
{
    BeautyFilterBase f;
    // The fourth channel goes through unweighed and is summed with saturation.
    cv::Mat fg(41, 61, CV_8UC4, cv::Scalar(200, 200, 200, 100)), bg(41, 61, CV_8UC4, cv::Scalar(20, 40, 60, 100));
    const cv::Mat out = f.blendWithGaussianMask(fg, bg);
    EXPECT_EQ(out.at<cv::Vec4b>(20, 30), cv::Vec4b(200, 200, 200, 200));
    EXPECT_EQ(out.at<cv::Vec4b>(0, 0), cv::Vec4b(20, 40, 60, 200));
    EXPECT_EQ(out.at<cv::Vec4b>(40, 60), cv::Vec4b(20, 40, 60, 200));
    for (const cv::Point& p : {cv::Point(45, 10), cv::Point(10, 30), cv::Point(25, 25)}) {
        const double m = maskAt(p.x, p.y, 61, 41, 4);
        EXPECT_NEAR(out.at<cv::Vec4b>(p)[0], 200 * m + 20 * (1 - m), 1.01) << p;
        EXPECT_NEAR(out.at<cv::Vec4b>(p)[2], 200 * m + 60 * (1 - m), 1.01) << p;
    }
    // Identical pictures come back within a level; both are weighed in place.
    const cv::Mat original = randomPicture(48, 64, CV_8UC3, 8);
    cv::Mat a = original.clone(), b = original.clone();
    EXPECT_LE(cv::norm(f.blendWithGaussianMask(a, b), original, cv::NORM_INF), 1.0);
    EXPECT_GT(cv::norm(a, original, cv::NORM_INF), 1.0);
    EXPECT_GT(cv::norm(b, original, cv::NORM_INF), 1.0);
    cv::Mat grey(10, 10, CV_8UC1, cv::Scalar(1));
    EXPECT_THROW(f.blendWithGaussianMask(grey, grey), std::out_of_range);
}

TEST(FaceMasks, FadeKeepsTheCentreAndBlacksTheCorners)
{
    BeautyFilterBase f;
    const cv::Mat out = f.fadeWithGaussianMask(cv::Mat(51, 71, CV_8UC4, cv::Scalar(120, 160, 240, 77)));
    EXPECT_EQ(out.at<cv::Vec4b>(25, 35), cv::Vec4b(120, 160, 240, 77));
    for (const cv::Point& corner : {cv::Point(0, 0), cv::Point(70, 0), cv::Point(0, 50), cv::Point(70, 50)})
        EXPECT_EQ(out.at<cv::Vec4b>(corner), cv::Vec4b(0, 0, 0, 77)) << corner;
    // Elsewhere the byte times the mask, truncated: never above it.
    for (const cv::Point& p : {cv::Point(10, 10), cv::Point(50, 20), cv::Point(35, 45), cv::Point(60, 25)}) {
        const double m = maskAt(p.x, p.y, 71, 51, 3);
        for (int c : {1, 2}) {
            const double exact = (c == 1 ? 160 : 240) * m;
            EXPECT_TRUE(out.at<cv::Vec4b>(p)[c] <= exact + 0.01 && out.at<cv::Vec4b>(p)[c] > exact - 1.01)
                << p << " channel " << c << ": " << int(out.at<cv::Vec4b>(p)[c]) << " for " << exact;
        }
        EXPECT_EQ(out.at<cv::Vec4b>(p)[3], 77);
    }
    const cv::Mat three = randomPicture(20, 20, CV_8UC3, 9);
    EXPECT_EQ(cv::norm(f.fadeWithGaussianMask(three), three, cv::NORM_INF), 0.0) << "three channels are refused";
}
