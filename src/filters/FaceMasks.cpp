// CPU face masks of the filter base: a Gaussian weight over the picture that
// is 1 at the centre and 0 in the corners, used to blend a processed face
// into its surroundings or to fade a picture out, and the restoring of the
// side strips of a warped picture.

#include <vector>

#include <QDebug>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "base/Logging.h"
#include "filters/BeautyFilterBase.h"

namespace {

// rows x cols, CV_32F, normalised to 0..1.
cv::Mat gaussianMask(int rows, int cols, int divisor)
{
    const double sigmaX = static_cast<double>(cols / divisor);
    const double sigmaY = static_cast<double>(rows / divisor);
    const cv::Mat kernelX = cv::getGaussianKernel(cols, sigmaX, CV_64F);
    const cv::Mat kernelY = cv::getGaussianKernel(rows, sigmaY, CV_64F);
    cv::Mat mask = kernelY * kernelX.t();
    cv::normalize(mask, mask, 1.0, 0.0, cv::NORM_MINMAX, -1, cv::noArray());
    mask.convertTo(mask, CV_32F, 1.0, 0.0);
    return mask;
}

// Multiplies the first three channels of `image` by `weight`, in place.
void weighChannels(cv::Mat& image, const cv::Mat& weight)
{
    std::vector<cv::Mat> channels;
    cv::split(image, channels);
    for (size_t c = 0; c < 3; ++c) {
        cv::Mat plane;
        channels.at(c).convertTo(plane, CV_32F, 1.0, 0.0);
        plane = plane.mul(weight, 1.0);
        plane.convertTo(channels.at(c), CV_8U, 1.0, 0.0);
    }
    cv::merge(channels, image);
}

bool isFourByteBgra(const cv::Mat& image)
{
    return image.depth() == CV_8U && image.channels() == 4;
}

}  // namespace

cv::Mat BeautyFilterBase::blendWithGaussianMask(cv::Mat& foreground, cv::Mat& background)
{
    const cv::Mat mask = gaussianMask(foreground.rows, foreground.cols, 4);
    cv::Mat result = foreground.clone();

    weighChannels(foreground, mask);
    const cv::Mat inverse = mask * -1.0 + cv::Scalar(1.0, 0, 0, 0);
    weighChannels(background, inverse);

    cv::add(foreground, background, result, cv::noArray(), -1);
    return result;
}

cv::Mat BeautyFilterBase::fadeWithGaussianMask(const cv::Mat& image)
{
    cv::Mat result = image.clone();
    if (!isFourByteBgra(image)) {
        LUMEN_WARNING(lcFilters) << "[BeautyFilterBase::fadeWithGaussianMask] needs an 8-bit four-channel picture,"
                                 << "got type" << image.type() << "; picture left as it is";
        return result;
    }
    const cv::Mat mask = gaussianMask(image.rows, image.cols, 3);
    for (int y = 0; y < result.rows; ++y) {
        uchar* row = result.ptr<uchar>(y);
        const float* weight = mask.ptr<float>(y);
        for (int x = 0; x < result.cols; ++x) {
            uchar* px = row + 4 * x;
            for (int c = 0; c < 3; ++c)
                px[c] = static_cast<uchar>(static_cast<int>(static_cast<float>(px[c]) * weight[x]));
        }
    }
    return result;
}

cv::Mat BeautyFilterBase::restoreSideStrips(const cv::Mat& image, const cv::Mat& source)
{
    cv::Mat result = image.clone();
    if (image.rows < 1)
        return result;
    if (!isFourByteBgra(image) || source.type() != image.type() || source.size() != image.size()) {
        LUMEN_WARNING(lcFilters) << "[BeautyFilterBase::restoreSideStrips] needs two 8-bit four-channel pictures"
                                 << "of one size; picture left as it is";
        return result;
    }
    const int topRows = image.rows / 3;
    const int strip = image.cols / 20;
    // Strict on the right: one column more stays warped there than on the left.
    for (int y = topRows + 1; y < result.rows; ++y) {
        uchar* row = result.ptr<uchar>(y);
        const uchar* from = source.ptr<uchar>(y);
        for (int x = 0; x < result.cols; ++x) {
            if (x < strip || x > result.cols - strip) {
                row[4 * x] = from[4 * x];
                row[4 * x + 1] = from[4 * x + 1];
                row[4 * x + 2] = from[4 * x + 2];
            }
        }
    }
    return result;
}
