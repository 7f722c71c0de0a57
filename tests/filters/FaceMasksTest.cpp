// CPU face masks of the filter base.

#include <cmath>
#include <stdexcept>

#include <QImage>
#include <gtest/gtest.h>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "TestUtil.h"
#include "filters/BeautyFilterBase.h"

namespace {

cv::Mat randomPicture(int rows, int cols, int type, int seed)
{
    cv::Mat m(rows, cols, type);
    cv::RNG rng(seed);
    rng.fill(m, cv::RNG::UNIFORM, 0, 256);
    return m;
}

// The mask value at (x, y) from the closed form of a separable Gaussian,
// normalised so that the corners are 0 and the centre is 1.
double maskAt(int x, int y, int cols, int rows, int divisor)
{
    auto g = [](double d, double sigma) { return std::exp(-d * d / (2 * sigma * sigma)); };
    const double sx = cols / divisor;
    const double sy = rows / divisor;
    const double cx = (cols - 1) / 2.0;
    const double cy = (rows - 1) / 2.0;
    const double v = g(x - cx, sx) * g(y - cy, sy);
    const double lo = g(cx, sx) * g(cy, sy);
    const double hi = g(0, sx) * g(0, sy);
    return (v - lo) / (hi - lo);
}

cv::Mat astronautBgra()
{
    QImage img(testutil::testDataPath("astronaut.png"));
    img = img.convertToFormat(QImage::Format_ARGB32);
    cv::Mat wrapped(img.height(), img.width(), CV_8UC4, img.bits(), img.bytesPerLine());
    return wrapped.clone();
}

void save(const cv::Mat& bgra, const char* name)
{
    QImage out(bgra.data, bgra.cols, bgra.rows, static_cast<int>(bgra.step), QImage::Format_ARGB32);
    out.copy().save(testutil::outputPath(name));
}

}  // namespace

TEST(FaceMasks, RestoreSideStripsLeavesNarrowPicturesAlone)
{
    BeautyFilterBase f;
    const cv::Mat image = randomPicture(30, 19, CV_8UC4, 1);
    const cv::Mat source = randomPicture(30, 19, CV_8UC4, 2);
    const cv::Mat out = f.restoreSideStrips(image, source);
    EXPECT_EQ(cv::norm(out, image, cv::NORM_INF), 0.0);
    EXPECT_NE(out.data, image.data);
}

TEST(FaceMasks, RestoreSideStripsWithThreeRowsChangesOnlyTheLastRow)
{
    BeautyFilterBase f;
    // 40 columns: strips of 2 on the left, 1 on the right (strict test).
    const cv::Mat image(3, 40, CV_8UC4, cv::Scalar(10, 20, 30, 40));
    const cv::Mat source(3, 40, CV_8UC4, cv::Scalar(200, 210, 220, 230));
    const cv::Mat out = f.restoreSideStrips(image, source);
    for (int y = 0; y < 3; ++y) {
        for (int x = 0; x < 40; ++x) {
            const cv::Vec4b px = out.at<cv::Vec4b>(y, x);
            const bool restored = y == 2 && (x < 2 || x > 38);
            if (restored)
                EXPECT_EQ(px, cv::Vec4b(200, 210, 220, 40)) << x << "," << y;
            else
                EXPECT_EQ(px, cv::Vec4b(10, 20, 30, 40)) << x << "," << y;
        }
    }
}

TEST(FaceMasks, RestoreSideStripsCoversTheLowerTwoThirds)
{
    BeautyFilterBase f;
    // 60 rows, 100 columns: rows 21 to 59, columns 0-4 and 96-99.
    const cv::Mat image = randomPicture(60, 100, CV_8UC4, 3);
    const cv::Mat source = randomPicture(60, 100, CV_8UC4, 4);
    const cv::Mat out = f.restoreSideStrips(image, source);
    int restored = 0;
    for (int y = 0; y < 60; ++y) {
        for (int x = 0; x < 100; ++x) {
            const cv::Vec4b got = out.at<cv::Vec4b>(y, x);
            const cv::Vec4b img = image.at<cv::Vec4b>(y, x);
            const cv::Vec4b src = source.at<cv::Vec4b>(y, x);
            if (y > 20 && (x < 5 || x > 95)) {
                EXPECT_EQ(got, cv::Vec4b(src[0], src[1], src[2], img[3])) << x << "," << y;
                ++restored;
            } else {
                EXPECT_EQ(got, img) << x << "," << y;
            }
        }
    }
    EXPECT_EQ(restored, 39 * 9);
}

TEST(FaceMasks, RestoreSideStripsRefusesMismatchedPictures)
{
    BeautyFilterBase f;
    const cv::Mat image = randomPicture(30, 40, CV_8UC4, 5);
    const cv::Mat smaller = randomPicture(10, 40, CV_8UC4, 6);
    EXPECT_EQ(cv::norm(f.restoreSideStrips(image, smaller), image, cv::NORM_INF), 0.0);
    const cv::Mat threeChannels = randomPicture(30, 40, CV_8UC3, 7);
    EXPECT_EQ(cv::norm(f.restoreSideStrips(threeChannels, threeChannels.clone()), threeChannels, cv::NORM_INF),
              0.0);
}

TEST(FaceMasks, BlendOfIdenticalPicturesIsWithinOneLevel)
{
    BeautyFilterBase f;
    const cv::Mat original = randomPicture(48, 64, CV_8UC3, 8);
    cv::Mat fg = original.clone();
    cv::Mat bg = original.clone();
    const cv::Mat out = f.blendWithGaussianMask(fg, bg);
    ASSERT_EQ(out.size(), original.size());
    ASSERT_EQ(out.type(), original.type());
    EXPECT_LE(cv::norm(out, original, cv::NORM_INF), 1.0);
    // Both arguments were weighed in place.
    EXPECT_GT(cv::norm(fg, original, cv::NORM_INF), 1.0);
    EXPECT_GT(cv::norm(bg, original, cv::NORM_INF), 1.0);
}

TEST(FaceMasks, BlendTakesForegroundInTheMiddleAndBackgroundAtTheRim)
{
    BeautyFilterBase f;
    // 4 channels: the fourth goes through unweighed and is summed with saturation.
    cv::Mat fg(41, 61, CV_8UC4, cv::Scalar(200, 200, 200, 100));
    cv::Mat bg(41, 61, CV_8UC4, cv::Scalar(20, 40, 60, 100));
    const cv::Mat out = f.blendWithGaussianMask(fg, bg);
    EXPECT_EQ(out.at<cv::Vec4b>(20, 30), cv::Vec4b(200, 200, 200, 200));
    EXPECT_EQ(out.at<cv::Vec4b>(0, 0), cv::Vec4b(20, 40, 60, 200));
    EXPECT_EQ(out.at<cv::Vec4b>(40, 60), cv::Vec4b(20, 40, 60, 200));
    // Against the closed form of the mask, a point off the centre.
    const double m = maskAt(45, 10, 61, 41, 4);
    const cv::Vec4b px = out.at<cv::Vec4b>(10, 45);
    EXPECT_NEAR(px[0], 200 * m + 20 * (1 - m), 1.01);
    EXPECT_NEAR(px[2], 200 * m + 60 * (1 - m), 1.01);
}

TEST(FaceMasks, BlendNeedsThreeChannels)
{
    BeautyFilterBase f;
    cv::Mat fg(10, 10, CV_8UC1, cv::Scalar(1));
    cv::Mat bg(10, 10, CV_8UC1, cv::Scalar(1));
    EXPECT_THROW(f.blendWithGaussianMask(fg, bg), std::out_of_range);
}

TEST(FaceMasks, FadeKeepsTheCentreAndBlacksTheCorners)
{
    BeautyFilterBase f;
    const cv::Mat image(51, 71, CV_8UC4, cv::Scalar(120, 160, 240, 77));
    const cv::Mat out = f.fadeWithGaussianMask(image);
    EXPECT_EQ(out.at<cv::Vec4b>(25, 35), cv::Vec4b(120, 160, 240, 77));
    for (const cv::Point& corner : {cv::Point(0, 0), cv::Point(70, 0), cv::Point(0, 50), cv::Point(70, 50)})
        EXPECT_EQ(out.at<cv::Vec4b>(corner), cv::Vec4b(0, 0, 0, 77)) << corner;
    // Off the centre, the truncation of byte * mask.
    for (const cv::Point& p : {cv::Point(10, 10), cv::Point(50, 20), cv::Point(35, 45)}) {
        const double m = maskAt(p.x, p.y, 71, 51, 3);
        const cv::Vec4b px = out.at<cv::Vec4b>(p);
        EXPECT_NEAR(px[1], std::floor(160 * m), 1.0) << p;
        EXPECT_NEAR(px[2], std::floor(240 * m), 1.0) << p;
        EXPECT_EQ(px[3], 77);
    }
    // Monotone towards the rim along the middle row.
    for (int x = 36; x < 71; ++x)
        EXPECT_LE(out.at<cv::Vec4b>(25, x)[2], out.at<cv::Vec4b>(25, x - 1)[2]);
}

TEST(FaceMasks, FadeRefusesThreeChannelPictures)
{
    BeautyFilterBase f;
    const cv::Mat image = randomPicture(20, 20, CV_8UC3, 9);
    EXPECT_EQ(cv::norm(f.fadeWithGaussianMask(image), image, cv::NORM_INF), 0.0);
}

TEST(FaceMasks, MasksOnAPortrait)
{
    BeautyFilterBase f;
    const cv::Mat portrait = astronautBgra();
    ASSERT_FALSE(portrait.empty());
    const cv::Mat faded = f.fadeWithGaussianMask(portrait);
    save(faded, "face_mask_fade.png");

    // A darkened copy blended under the original: the original shows in the
    // middle and the dark copy at the rim.
    cv::Mat fg = portrait.clone();
    cv::Mat bg;
    portrait.convertTo(bg, CV_8UC4, 0.3, 0);
    cv::Mat noAlpha(bg.size(), CV_8UC1, cv::Scalar(0));
    cv::insertChannel(noAlpha, bg, 3);
    const cv::Mat blended = f.blendWithGaussianMask(fg, bg);
    save(blended, "face_mask_blend.png");

    const cv::Point centre(portrait.cols / 2, portrait.rows / 2);
    EXPECT_LE(cv::norm(blended.at<cv::Vec4b>(centre), portrait.at<cv::Vec4b>(centre), cv::NORM_INF), 1.0);
    EXPECT_EQ(faded.at<cv::Vec4b>(0, 0)[0], 0);
}
