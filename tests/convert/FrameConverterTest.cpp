// The QImage -> cv::Mat conversions that the face detector uses (red first)
// and the CPU filter routines (blue first). The conversions back, and those of
// AVFrame, serve only the CPU routines, which nothing calls; the filter tests
// take one AVFrame through them.
#include <tuple>

#include <QImage>
#include <gtest/gtest.h>

#include "LogCapture.h"
#include "convert/FrameConverter.h"

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
        FrameConverter::instance()->qimageToRgbMat(image, rgb);
        const cv::Mat bgr = FrameConverter::instance()->qimageToBgrMat(image);
        EXPECT_EQ(previous, previousCopy) << "the last case's image was written into";
        EXPECT_EQ(log.count("Invalid image format"), rgbType < 0 ? 2 : 0) << log.all();
        previous = image;
        previousCopy = image.copy();
        EXPECT_EQ(rgb.empty() && bgr.empty(), rgbType < 0);
        if (rgbType < 0)
            continue;
        ASSERT_EQ(std::make_pair(rgb.type(), bgr.type()), std::make_pair(rgbType, CV_8UC3));
        ASSERT_EQ(std::make_pair(rgb.size(), bgr.size()), std::make_pair(cv::Size(5, 3), cv::Size(5, 3)));
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
