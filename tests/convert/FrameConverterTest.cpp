// QImage <-> cv::Mat <-> AVFrame conversions.
#include <QImage>
#include <QStringList>
#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include "convert/FrameConverter.h"

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/mem.h>
#include <libavutil/pixfmt.h>
}

namespace {

// Collects the log lines written while it lives.
class LogCapture {
public:
    LogCapture()
    {
        current = this;
        previous = qInstallMessageHandler(&LogCapture::handler);
    }
    ~LogCapture()
    {
        qInstallMessageHandler(previous);
        current = nullptr;
    }
    bool contains(const QString& text) const
    {
        for (const QString& line : lines)
            if (line.contains(text))
                return true;
        return false;
    }
    QStringList lines;

private:
    static void handler(QtMsgType, const QMessageLogContext&, const QString& msg)
    {
        if (current)
            current->lines << msg;
    }
    static LogCapture* current;
    QtMessageHandler previous = nullptr;
};
LogCapture* LogCapture::current = nullptr;

// A 5 x 3 picture (odd width, so 3-byte formats have padded lines) whose
// pixels differ in every channel.
QImage sampleImage()
{
    QImage image(5, 3, QImage::Format_ARGB32);
    for (int y = 0; y < 3; ++y)
        for (int x = 0; x < 5; ++x)
            image.setPixel(x, y, qRgba(10 + 40 * x, 20 + 60 * y, 200 - 30 * x - 10 * y, 255));
    return image;
}

FrameConverter& conv()
{
    return *FrameConverter::instance();
}

}  // namespace

TEST(FrameConverter, InstanceIsOneObject)
{
    EXPECT_EQ(FrameConverter::instance(), FrameConverter::instance());
}

TEST(FrameConverter, RgbMatFromEveryFormat)
{
    const QImage source = sampleImage();
    struct Case {
        QImage::Format format;
        int type;
        bool shares;
    };
    const Case cases[] = {
        {QImage::Format_RGB32, CV_8UC4, false},
        {QImage::Format_ARGB32, CV_8UC4, false},
        {QImage::Format_ARGB32_Premultiplied, CV_8UC4, false},
        {QImage::Format_RGB888, CV_8UC3, true},
        {QImage::Format_RGBA8888, CV_8UC4, true},
        {QImage::Format_BGR888, CV_8UC3, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.format);
        const QImage image = source.convertToFormat(c.format);
        cv::Mat out;
        conv().qimageToRgbMat(image, out);
        ASSERT_EQ(out.type(), c.type);
        ASSERT_EQ(out.cols, 5);
        ASSERT_EQ(out.rows, 3);
        EXPECT_EQ(out.data == image.constBits(), c.shares);
        for (int y = 0; y < 3; ++y) {
            for (int x = 0; x < 5; ++x) {
                const QRgb want = source.pixel(x, y);
                const uchar* px = out.ptr(y) + x * out.channels();
                EXPECT_EQ(px[0], qRed(want)) << x << "," << y;
                EXPECT_EQ(px[1], qGreen(want)) << x << "," << y;
                EXPECT_EQ(px[2], qBlue(want)) << x << "," << y;
                if (out.channels() == 4) {
                    EXPECT_EQ(px[3], 255);
                }
            }
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

TEST(FrameConverter, BgrMatChannelOrders)
{
    const QImage source = sampleImage();
    const QRgb p = source.pixel(3, 2);
    const cv::Vec3b bgr(qBlue(p), qGreen(p), qRed(p));
    const cv::Vec3b rgb(qRed(p), qGreen(p), qBlue(p));

    for (QImage::Format f : {QImage::Format_RGB32, QImage::Format_ARGB32, QImage::Format_ARGB32_Premultiplied,
                             QImage::Format_RGBA8888, QImage::Format_BGR888}) {
        SCOPED_TRACE(f);
        const QImage image = source.convertToFormat(f);
        const cv::Mat m = conv().qimageToBgrMat(image);
        ASSERT_EQ(m.type(), CV_8UC3);
        EXPECT_EQ(m.at<cv::Vec3b>(2, 3), bgr);
    }
    // RGB888 is wrapped as it stands: red stays first, no swap happens.
    const QImage image = source.convertToFormat(QImage::Format_RGB888);
    const cv::Mat m = conv().qimageToBgrMat(image);
    ASSERT_EQ(m.type(), CV_8UC3);
    EXPECT_EQ(m.data, image.constBits());
    EXPECT_EQ(m.step[0], static_cast<size_t>(image.bytesPerLine()));
    EXPECT_EQ(m.at<cv::Vec3b>(2, 3), rgb);
}

TEST(FrameConverter, UnknownFormatsWarnAndGiveEmptyMats)
{
    const QImage mono = QImage(8, 8, QImage::Format_Mono);
    {
        LogCapture log;
        EXPECT_TRUE(conv().qimageToBgrMat(mono).empty());
        EXPECT_TRUE(log.contains("Invalid image format"));
        EXPECT_TRUE(log.contains("Format_Mono"));
    }
    {
        LogCapture log;
        cv::Mat out(4, 4, CV_8UC3, cv::Scalar(1, 2, 3));
        conv().qimageToRgbMat(mono, out);
        EXPECT_TRUE(out.empty());
        EXPECT_TRUE(log.contains("Invalid image format"));
    }
    {
        LogCapture log;
        cv::Mat out;
        conv().qimageToRgbMat(QImage(), out);
        EXPECT_TRUE(out.empty());
        EXPECT_TRUE(log.contains("Format_Invalid"));
    }
}

TEST(FrameConverter, ConversionNeverWritesIntoAPreviouslyWrappedImage)
{
    // `out` first borrows the memory of an RGB888 image; the next conversion
    // of another picture must not land in that image.
    const QImage first = sampleImage().convertToFormat(QImage::Format_RGB888);
    const QImage firstCopy = first.copy();
    cv::Mat out;
    conv().qimageToRgbMat(first, out);
    ASSERT_EQ(out.data, first.constBits());

    QImage second(5, 3, QImage::Format_BGR888);
    second.fill(QColor(1, 2, 3));
    conv().qimageToRgbMat(second, out);
    EXPECT_EQ(first, firstCopy);
    EXPECT_EQ(out.at<cv::Vec3b>(0, 0), cv::Vec3b(1, 2, 3));

    // Same type and size as the borrowed buffer: the in-place risk case.
    QImage rgba = sampleImage().convertToFormat(QImage::Format_RGBA8888);
    const QImage rgbaCopy = rgba.copy();
    conv().qimageToRgbMat(rgba, out);
    ASSERT_EQ(out.data, rgba.constBits());
    QImage argb(5, 3, QImage::Format_ARGB32);
    argb.fill(QColor(9, 8, 7));
    conv().qimageToRgbMat(argb, out);
    EXPECT_EQ(rgba, rgbaCopy);
    EXPECT_EQ(out.at<cv::Vec4b>(2, 4), cv::Vec4b(9, 8, 7, 255));
}

TEST(FrameConverter, MatToQImageByType)
{
    QImage grey, colour, alpha;
    {
        cv::Mat big(10, 20, CV_8UC1);
        for (int y = 0; y < 10; ++y)
            for (int x = 0; x < 20; ++x)
                big.at<uchar>(y, x) = static_cast<uchar>(y * 20 + x);
        // A sub-view: its step is wider than its row.
        grey = conv().matToQImage(big(cv::Rect(3, 2, 7, 5)));

        cv::Mat bgr(4, 5, CV_8UC3, cv::Scalar(30, 60, 90));
        bgr.at<cv::Vec3b>(3, 4) = cv::Vec3b(1, 2, 3);
        colour = conv().matToQImage(bgr);

        cv::Mat bgra(4, 5, CV_8UC4, cv::Scalar(30, 60, 90, 255));
        alpha = conv().matToQImage(bgra);
    }  // the Mats are gone; the images own their pixels

    ASSERT_EQ(grey.format(), QImage::Format_Indexed8);
    ASSERT_EQ(grey.size(), QSize(7, 5));
    ASSERT_EQ(grey.colorCount(), 256);
    EXPECT_EQ(grey.color(200), qRgba(200, 200, 200, 255));
    EXPECT_EQ(grey.pixelIndex(0, 0), 2 * 20 + 3);
    EXPECT_EQ(grey.pixelIndex(6, 4), 6 * 20 + 9);

    ASSERT_EQ(colour.format(), QImage::Format_BGR888);
    EXPECT_EQ(colour.pixel(0, 0), qRgb(90, 60, 30));
    EXPECT_EQ(colour.pixel(4, 3), qRgb(3, 2, 1));

    ASSERT_EQ(alpha.format(), QImage::Format_ARGB32);
    EXPECT_EQ(alpha.pixel(2, 2), qRgba(90, 60, 30, 255));

    LogCapture log;
    EXPECT_TRUE(conv().matToQImage(cv::Mat(4, 4, CV_32FC1, cv::Scalar(0.5))).isNull());
    EXPECT_TRUE(log.contains("ERROR: Mat could not be converted to QImage."));
}

TEST(FrameConverter, ScalerFlagsFollowTheSourceWidth)
{
    EXPECT_EQ(FrameConverter::scalerFlags(1281), 262145);
    EXPECT_EQ(FrameConverter::scalerFlags(1280), 1);
    EXPECT_EQ(FrameConverter::scalerFlags(8), 1);
    EXPECT_EQ(FrameConverter::scalerFlags(12), 262145);

    // The flags the frame paths really build their scalers with.
    for (int width : {1281, 1280}) {
        cv::Mat bgr(16, width, CV_8UC3, cv::Scalar(40, 80, 120));
        AVFrame* frame = nullptr;
        conv().matToFrame(bgr, frame, width, 16);
        ASSERT_NE(frame, nullptr);
        EXPECT_EQ(conv().matToFrameFlags(), width == 1281 ? 262145 : 1);
        cv::Mat back;
        conv().frameToMat(frame, back, false, width, 16);
        EXPECT_EQ(conv().frameToMatFlags(), width == 1281 ? 262145 : 1);
        av_freep(&frame->data[0]);
        av_frame_free(&frame);
    }
}

TEST(FrameConverter, FrameRoundTripKeepsColoursAndScales)
{
    // Blocks of 16 x 16 in distinct colours: chroma subsampling leaves their
    // middles alone.
    const cv::Scalar colours[] = {{0, 0, 255}, {0, 255, 0}, {255, 0, 0}, {40, 160, 220},
                                  {255, 255, 255}, {20, 20, 20}};
    cv::Mat bgr(32, 48, CV_8UC3);
    for (int i = 0; i < 6; ++i)
        bgr(cv::Rect((i % 3) * 16, (i / 3) * 16, 16, 16)).setTo(colours[i]);

    AVFrame* frame = nullptr;
    conv().matToFrame(bgr, frame, 48, 32);
    ASSERT_NE(frame, nullptr);
    EXPECT_EQ(frame->format, AV_PIX_FMT_YUV420P);
    EXPECT_EQ(frame->width, 48);
    EXPECT_EQ(frame->height, 32);

    cv::Mat back;
    conv().frameToMat(frame, back, false, 48, 32);
    ASSERT_EQ(back.type(), CV_8UC3);
    ASSERT_EQ(back.size(), cv::Size(48, 32));
    for (int i = 0; i < 6; ++i) {
        const cv::Vec3b px = back.at<cv::Vec3b>((i / 3) * 16 + 8, (i % 3) * 16 + 8);
        for (int c = 0; c < 3; ++c)
            EXPECT_NEAR(px[c], colours[i][c], 12) << "block " << i << " channel " << c;
    }

    // A reused output Mat keeps its buffer.
    const uchar* kept = back.data;
    conv().frameToMat(frame, back, false, 48, 32);
    EXPECT_EQ(back.data, kept);

    // With alpha: four channels, colours in the first three.
    cv::Mat withAlpha;
    conv().frameToMat(frame, withAlpha, true, 48, 32);
    ASSERT_EQ(withAlpha.type(), CV_8UC4);

    av_freep(&frame->data[0]);
    av_frame_free(&frame);

    // Down-scaling on the way back: a fresh source size builds a new scaler.
    cv::Mat wide(64, 96, CV_8UC3, cv::Scalar(200, 100, 50));
    conv().matToFrame(wide, frame, 96, 64);
    ASSERT_NE(frame, nullptr);
    cv::Mat small;
    conv().frameToMat(frame, small, false, 48, 32);
    ASSERT_EQ(small.size(), cv::Size(48, 32));
    const cv::Vec3b px = small.at<cv::Vec3b>(16, 24);
    EXPECT_NEAR(px[0], 200, 12);
    EXPECT_NEAR(px[1], 100, 12);
    EXPECT_NEAR(px[2], 50, 12);
    av_freep(&frame->data[0]);
    av_frame_free(&frame);
}

TEST(FrameConverter, EmptyMatLeavesTheFrameAlone)
{
    AVFrame* sentinel = reinterpret_cast<AVFrame*>(0x1234);
    AVFrame* frame = sentinel;
    conv().matToFrame(cv::Mat(), frame, 64, 64);
    EXPECT_EQ(frame, sentinel);
    conv().matToFrame(cv::Mat(0, 10, CV_8UC3), frame, 64, 64);
    EXPECT_EQ(frame, sentinel);
}
