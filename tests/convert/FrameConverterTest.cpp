// QImage <-> cv::Mat <-> AVFrame conversions.
#include <QImage>
#include <gtest/gtest.h>

#include "LogCapture.h"
#include "convert/FrameConverter.h"

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/mem.h>
#include <libavutil/pixfmt.h>
}

namespace {

// 5 x 3 (an odd width, so 3-byte formats have padded lines), every pixel and
// channel different.
QImage sampleImage(QImage::Format format = QImage::Format_ARGB32)
{
    QImage image(5, 3, QImage::Format_ARGB32);
    for (int y = 0; y < 3; ++y)
        for (int x = 0; x < 5; ++x)
            image.setPixel(x, y, qRgba(10 + 40 * x, 20 + 60 * y, 200 - 30 * x - 10 * y, 255));
    return image.convertToFormat(format);
}

FrameConverter& conv() { return *FrameConverter::instance(); }

// A new YUV420P frame of `mat` at width x height, freed when it goes.
struct Frame {
    Frame(const cv::Mat& mat, int width, int height) { conv().matToFrame(mat, frame, width, height); }
    ~Frame()
    {
        if (frame)
            av_freep(&frame->data[0]);
        av_frame_free(&frame);
    }
    AVFrame* frame = nullptr;
};

}  // namespace

TEST(FrameConverter, QImageToMatInBothChannelOrders)
{
    const QImage source = sampleImage();
    struct Case {
        QImage::Format format;
        int rgbType;
        bool rgbShares, bgrShares, bgrSwaps;
    } cases[] = {
        {QImage::Format_RGB32, CV_8UC4, false, false, true},
        {QImage::Format_ARGB32, CV_8UC4, false, false, true},
        {QImage::Format_ARGB32_Premultiplied, CV_8UC4, false, false, true},
        {QImage::Format_RGB888, CV_8UC3, true, true, false},  // wrapped as it stands: red stays first
        {QImage::Format_RGBA8888, CV_8UC4, true, false, true},
        {QImage::Format_BGR888, CV_8UC3, false, true, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.format);
        const QImage image = source.convertToFormat(c.format);
        cv::Mat rgb;
        conv().qimageToRgbMat(image, rgb);
        const cv::Mat bgr = conv().qimageToBgrMat(image);
        ASSERT_EQ(rgb.type(), c.rgbType);
        ASSERT_EQ(bgr.type(), CV_8UC3);
        ASSERT_EQ(rgb.size(), cv::Size(5, 3));
        ASSERT_EQ(bgr.size(), cv::Size(5, 3));
        EXPECT_EQ(rgb.data == image.constBits(), c.rgbShares);
        EXPECT_EQ(bgr.data == image.constBits(), c.bgrShares);
        for (int y = 0; y < 3; ++y)
            for (int x = 0; x < 5; ++x) {
                const QRgb p = source.pixel(x, y);
                const uchar* r = rgb.ptr(y) + x * rgb.channels();
                EXPECT_EQ(cv::Vec4b(r[0], r[1], r[2], rgb.channels() == 4 ? r[3] : 255),
                          cv::Vec4b(qRed(p), qGreen(p), qBlue(p), 255)) << x << "," << y;
                const cv::Vec3b b = c.bgrSwaps ? cv::Vec3b(qBlue(p), qGreen(p), qRed(p))
                                               : cv::Vec3b(qRed(p), qGreen(p), qBlue(p));
                EXPECT_EQ(bgr.at<cv::Vec3b>(y, x), b) << x << "," << y;
            }
    }
}

TEST(FrameConverter, IndexedImagesTakeTheIndexAsGrey)
{
    QImage image(6, 2, QImage::Format_Indexed8);
    QVector<QRgb> table;
    for (int i = 0; i < 256; ++i)
        table << qRgb(255 - i, i, 0);  // a colour table that must not be applied
    image.setColorTable(table);
    for (int y = 0; y < 2; ++y)
        for (int x = 0; x < 6; ++x)
            image.setPixel(x, y, static_cast<uint>(x * 30 + y * 7));
    cv::Mat rgb;
    conv().qimageToRgbMat(image, rgb);
    ASSERT_EQ(rgb.type(), CV_8UC4);
    EXPECT_EQ(rgb.at<cv::Vec4b>(1, 4), cv::Vec4b(127, 127, 127, 255));
    const cv::Mat bgr = conv().qimageToBgrMat(image);
    ASSERT_EQ(bgr.type(), CV_8UC3);
    EXPECT_EQ(bgr.at<cv::Vec3b>(0, 5), cv::Vec3b(150, 150, 150));
}

TEST(FrameConverter, UnknownFormatsWarnAndGiveEmptyResults)
{
    LogCapture log;
    const QImage mono(8, 8, QImage::Format_Mono);
    EXPECT_TRUE(conv().qimageToBgrMat(mono).empty());
    EXPECT_TRUE(log.contains("Invalid image format") && log.contains("Format_Mono")) << log.all();
    cv::Mat out(4, 4, CV_8UC3, cv::Scalar(1, 2, 3));
    conv().qimageToRgbMat(mono, out);
    EXPECT_TRUE(out.empty());
    conv().qimageToRgbMat(QImage(), out);
    EXPECT_TRUE(out.empty());
    EXPECT_TRUE(log.contains("Format_Invalid"));
    EXPECT_TRUE(conv().matToQImage(cv::Mat(4, 4, CV_32FC1, cv::Scalar(0.5))).isNull());
    EXPECT_TRUE(log.contains("ERROR: Mat could not be converted to QImage."));
}

TEST(FrameConverter, ConversionNeverWritesIntoAPreviouslyWrappedImage)
{
    // `out` first borrows an image's memory; the next conversion of another
    // picture, of another or of the same type and size, must not land there.
    for (QImage::Format format : {QImage::Format_RGB888, QImage::Format_RGBA8888}) {
        const QImage first = sampleImage(format);
        const QImage firstCopy = first.copy();
        cv::Mat out;
        conv().qimageToRgbMat(first, out);
        ASSERT_EQ(out.data, first.constBits());
        QImage second(5, 3, format == QImage::Format_RGB888 ? QImage::Format_BGR888 : QImage::Format_ARGB32);
        second.fill(QColor(1, 2, 3));
        conv().qimageToRgbMat(second, out);
        EXPECT_EQ(first, firstCopy) << format;
        EXPECT_EQ(out.at<uchar>(2, 4 * out.channels() + 1), 2) << format;
    }
}

TEST(FrameConverter, MatToQImageCopiesByType)
{
    QImage grey, colour, alpha;
    {
        cv::Mat big(10, 20, CV_8UC1);
        for (int i = 0; i < 200; ++i)
            big.data[i] = static_cast<uchar>(i);
        grey = conv().matToQImage(big(cv::Rect(3, 2, 7, 5)));  // a step wider than its row
        cv::Mat bgr(4, 5, CV_8UC3, cv::Scalar(30, 60, 90));
        bgr.at<cv::Vec3b>(3, 4) = cv::Vec3b(1, 2, 3);
        colour = conv().matToQImage(bgr);
        alpha = conv().matToQImage(cv::Mat(4, 5, CV_8UC4, cv::Scalar(30, 60, 90, 255)));
    }  // the Mats are gone; the images own their pixels
    ASSERT_EQ(grey.format(), QImage::Format_Indexed8);
    ASSERT_EQ(grey.size(), QSize(7, 5));
    EXPECT_EQ(grey.color(200), qRgba(200, 200, 200, 255));
    EXPECT_EQ(grey.pixelIndex(0, 0), 2 * 20 + 3);
    EXPECT_EQ(grey.pixelIndex(6, 4), 6 * 20 + 9);
    ASSERT_EQ(colour.format(), QImage::Format_BGR888);
    EXPECT_EQ(colour.pixel(0, 0), qRgb(90, 60, 30));
    EXPECT_EQ(colour.pixel(4, 3), qRgb(3, 2, 1));
    ASSERT_EQ(alpha.format(), QImage::Format_ARGB32);
    EXPECT_EQ(alpha.pixel(2, 2), qRgba(90, 60, 30, 255));
}

TEST(FrameConverter, FrameRoundTripKeepsColoursScalesAndFlags)
{
    // Blocks of 16 x 16 in distinct colours: chroma subsampling leaves their
    // middles alone.
    const cv::Scalar colours[] = {{0, 0, 255}, {0, 255, 0}, {255, 0, 0}, {40, 160, 220}, {255, 255, 255}, {20, 20, 20}};
    cv::Mat bgr(32, 48, CV_8UC3);
    for (int i = 0; i < 6; ++i)
        bgr(cv::Rect(i % 3 * 16, i / 3 * 16, 16, 16)).setTo(colours[i]);
    const Frame f(bgr, 48, 32);
    ASSERT_NE(f.frame, nullptr);
    EXPECT_EQ(f.frame->format, AV_PIX_FMT_YUV420P);
    EXPECT_EQ(cv::Size(f.frame->width, f.frame->height), cv::Size(48, 32));
    cv::Mat back;
    conv().frameToMat(f.frame, back, false, 48, 32);
    ASSERT_EQ(back.type(), CV_8UC3);
    for (int i = 0; i < 6; ++i)
        for (int c = 0; c < 3; ++c)
            EXPECT_NEAR(back.at<cv::Vec3b>(i / 3 * 16 + 8, i % 3 * 16 + 8)[c], colours[i][c], 12) << i << " " << c;
    const uchar* kept = back.data;
    conv().frameToMat(f.frame, back, false, 48, 32);
    EXPECT_EQ(back.data, kept) << "a reused output keeps its buffer";
    conv().frameToMat(f.frame, back, true, 48, 32);
    EXPECT_EQ(back.type(), CV_8UC4);

    // Down-scaling on the way back; the scalers read rows in groups of eight,
    // so other widths also ask for accurate rounding (flags 262145, else 1).
    EXPECT_EQ(FrameConverter::scalerFlags(8), 1);
    EXPECT_EQ(FrameConverter::scalerFlags(12), 262145);
    for (int width : {1281, 1280}) {
        const Frame wide(cv::Mat(64, width, CV_8UC3, cv::Scalar(200, 100, 50)), width, 64);
        EXPECT_EQ(conv().matToFrameFlags(), width == 1281 ? 262145 : 1);
        cv::Mat small;
        conv().frameToMat(wide.frame, small, false, 48, 32);
        EXPECT_EQ(conv().frameToMatFlags(), width == 1281 ? 262145 : 1);
        ASSERT_EQ(small.size(), cv::Size(48, 32));
        for (int c = 0; c < 3; ++c)
            EXPECT_NEAR(small.at<cv::Vec3b>(16, 24)[c], (std::vector<int>{200, 100, 50}[c]), 12);
    }
    // An empty Mat leaves the frame pointer alone.
    AVFrame* sentinel = reinterpret_cast<AVFrame*>(0x1234);
    AVFrame* frame = sentinel;
    conv().matToFrame(cv::Mat(), frame, 64, 64);
    conv().matToFrame(cv::Mat(0, 10, CV_8UC3), frame, 64, 64);
    EXPECT_EQ(frame, sentinel);
}
