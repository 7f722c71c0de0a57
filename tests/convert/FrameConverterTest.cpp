// The QImage <-> cv::Mat conversions that the face detector and the beauty
// filters use, and a smoke check of the AVFrame ones.
#include <numeric>
#include <tuple>

#include <QImage>
#include <gtest/gtest.h>

#include "LogCapture.h"
#include "convert/FrameConverter.h"

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/mem.h>
#include <libswscale/swscale.h>
}

namespace {

FrameConverter& conv() { return *FrameConverter::instance(); }

}  // namespace

// Each format into both channel orders: the type, whether the Mat wraps the
// image's memory, and every pixel. The red-first Mat is carried from case to
// case: a conversion never writes into the image that the last case wrapped.
TEST(FrameConverter, QImageToMatInBothChannelOrders)
{
    // 5 x 3 (an odd width, so 3-byte formats have padded lines), every pixel
    // and channel different; an indexed copy whose colour table must not be
    // applied: the index is the grey.
    QImage source(5, 3, QImage::Format_ARGB32), indexed(5, 3, QImage::Format_Indexed8);
    indexed.setColorTable(QVector<QRgb>(256, qRgb(255, 0, 0)));
    for (int y = 0; y < 3; ++y)
        for (int x = 0; x < 5; ++x) {
            source.setPixel(x, y, qRgba(10 + 40 * x, 20 + 60 * y, 200 - 30 * x - 10 * y, 255));
            indexed.setPixel(x, y, static_cast<uint>(x * 30 + y * 7));
        }
    // The format; the red-first type (-1: refused, both Mats empty); whether
    // each Mat wraps the image; whether the blue-green-red one swaps.
    const std::tuple<QImage::Format, int, bool, bool, bool> cases[] = {
        {QImage::Format_RGB888, CV_8UC3, true, true, false},  // wrapped as it stands: red stays first
        {QImage::Format_BGR888, CV_8UC3, false, true, true},
        {QImage::Format_RGBA8888, CV_8UC4, true, false, true},
        {QImage::Format_ARGB32, CV_8UC4, false, false, true},
        {QImage::Format_RGB32, CV_8UC4, false, false, true},
        {QImage::Format_ARGB32_Premultiplied, CV_8UC4, false, false, true},
        {QImage::Format_Indexed8, CV_8UC4, false, false, true},
        {QImage::Format_Mono, -1, false, false, false},
    };
    cv::Mat rgb;
    QImage previous, previousCopy;
    for (const auto& [format, rgbType, rgbShares, bgrShares, bgrSwaps] : cases) {
        SCOPED_TRACE(format);
        const QImage image = format == QImage::Format_Indexed8 ? indexed : source.convertToFormat(format);
        LogCapture log;
        conv().qimageToRgbMat(image, rgb);
        const cv::Mat bgr = conv().qimageToBgrMat(image);
        EXPECT_EQ(previous, previousCopy) << "the last case's image was written into";
        EXPECT_EQ(log.count("Invalid image format"), rgbType < 0 ? 2 : 0) << log.all();
        previous = image;
        previousCopy = image.copy();
        EXPECT_EQ(rgb.empty() && bgr.empty(), rgbType < 0);
        if (rgbType < 0)
            continue;
        ASSERT_TRUE(rgb.type() == rgbType && bgr.type() == CV_8UC3);
        ASSERT_TRUE(rgb.size() == cv::Size(5, 3) && bgr.size() == rgb.size());
        EXPECT_EQ(std::make_pair(rgb.data == image.constBits(), bgr.data == image.constBits()),
                  std::make_pair(rgbShares, bgrShares));
        for (int y = 0; y < 3; ++y)
            for (int x = 0; x < 5; ++x) {
                const int i = indexed.pixelIndex(x, y);
                const QRgb p = format == QImage::Format_Indexed8 ? qRgb(i, i, i) : source.pixel(x, y);
                const uchar* r = rgb.ptr(y) + x * rgb.channels();
                EXPECT_EQ(cv::Vec4b(r[0], r[1], r[2], rgb.channels() == 4 ? r[3] : 255),
                          cv::Vec4b(qRed(p), qGreen(p), qBlue(p), 255)) << x << "," << y;
                const cv::Vec3b bgrOf(qBlue(p), qGreen(p), qRed(p)), rgbOf(qRed(p), qGreen(p), qBlue(p));
                EXPECT_EQ(bgr.at<cv::Vec3b>(y, x), bgrSwaps ? bgrOf : rgbOf) << x << "," << y;
            }
    }
}

TEST(FrameConverter, MatToQImageCopiesByType)
{
    cv::Mat big(10, 20, CV_8UC1), bgr(4, 5, CV_8UC3, cv::Scalar(30, 60, 90));
    cv::Mat bgra(4, 5, CV_8UC4, cv::Scalar(30, 60, 90, 200));
    std::iota(big.begin<uchar>(), big.end<uchar>(), 0);
    bgr.at<cv::Vec3b>(3, 4) = cv::Vec3b(1, 2, 3);
    // A view whose step is wider than its row.
    const QImage grey = conv().matToQImage(big(cv::Rect(3, 2, 7, 5)));
    const QImage colour = conv().matToQImage(bgr), alpha = conv().matToQImage(bgra);
    for (cv::Mat* mat : {&big, &bgr, &bgra})
        mat->setTo(cv::Scalar::all(0));  // the images own their pixels
    ASSERT_EQ(std::vector<QImage::Format>({grey.format(), colour.format(), alpha.format()}),
              std::vector<QImage::Format>({QImage::Format_Indexed8, QImage::Format_BGR888, QImage::Format_ARGB32}));
    ASSERT_EQ(grey.size(), QSize(7, 5));
    EXPECT_EQ(grey.color(200), qRgba(200, 200, 200, 255));
    EXPECT_EQ(grey.pixelIndex(0, 0), 2 * 20 + 3);
    EXPECT_EQ(grey.pixelIndex(6, 4), 6 * 20 + 9);
    EXPECT_EQ(colour.pixel(0, 0), qRgb(90, 60, 30));
    EXPECT_EQ(colour.pixel(4, 3), qRgb(3, 2, 1));
    EXPECT_EQ(alpha.pixel(2, 2), qRgba(90, 60, 30, 200));
    EXPECT_TRUE(conv().matToQImage(cv::Mat(4, 4, CV_32FC1, cv::Scalar(0.5))).isNull()) << "no other types";
}

// The AVFrame conversions, which the pipeline does not call: one round trip,
// scaled down on the way back, through a width that is no multiple of eight
// (the scalers read rows in groups of eight, so it asks for accurate rounding).
TEST(FrameConverter, FrameRoundTripSmoke)
{
    AVFrame* frame = nullptr;
    conv().matToFrame(cv::Mat(64, 1281, CV_8UC3, cv::Scalar(200, 100, 50)), frame, 1281, 64);
    ASSERT_NE(frame, nullptr);
    EXPECT_TRUE(frame->format == AV_PIX_FMT_YUV420P && frame->width == 1281 && frame->height == 64);
    EXPECT_EQ(conv().matToFrameFlags(), SWS_FAST_BILINEAR | SWS_ACCURATE_RND);
    cv::Mat back;
    conv().frameToMat(frame, back, false, 48, 32);
    ASSERT_TRUE(back.type() == CV_8UC3 && back.size() == cv::Size(48, 32));
    EXPECT_LE(cv::norm(back.at<cv::Vec3b>(16, 24), cv::Vec3b(200, 100, 50), cv::NORM_INF), 12);
    av_freep(&frame->data[0]);
    av_frame_free(&frame);
}
