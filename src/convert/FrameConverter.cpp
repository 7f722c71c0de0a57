#include "convert/FrameConverter.h"

#include <QDebug>
#include <QMetaEnum>
#include <QVector>
#include <opencv2/imgproc.hpp>

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/imgutils.h>
#include <libavutil/mem.h>
#include <libswscale/swscale.h>
}

#include "base/Logging.h"

namespace {

// Wraps the image's own memory, with its bytesPerLine as the step. The Mat is
// only read from: every conversion below writes into a new buffer.
cv::Mat wrapImage(const QImage& image, int type)
{
    return cv::Mat(image.height(), image.width(), type, const_cast<uchar*>(image.constBits()),
                   static_cast<size_t>(image.bytesPerLine()));
}

void warnInvalidFormat(const char* where, QImage::Format format)
{
    const char* name = QMetaEnum::fromType<QImage::Format>().valueToKey(format);
    LUMEN_WARNING(lcConvert).noquote() << QStringLiteral("[FrameConverter::%1] Invalid image format").arg(where)
                                       << (name ? name : "unknown");
}

// Converts `src` into `out` without ever writing into memory that `out`
// borrowed from an image earlier on.
void convertInto(const cv::Mat& src, cv::Mat& out, int code)
{
    if (!out.u)
        out.release();
    cv::cvtColor(src, out, code);
}

}  // namespace

FrameConverter* FrameConverter::instance()
{
    // Never destroyed: channel threads may still convert while the process exits.
    static FrameConverter* converter = new FrameConverter;
    return converter;
}

FrameConverter::FrameConverter() = default;

FrameConverter::~FrameConverter()
{
    // The process-wide instance is never destroyed; others free their scalers.
    sws_freeContext(matToFrameScaler);
    sws_freeContext(frameToMatScaler);
    matToFrameScaler = nullptr;
    frameToMatScaler = nullptr;
}

int FrameConverter::scalerFlags(int sourceWidth)
{
    int flags = SWS_FAST_BILINEAR;
    if (sourceWidth % 8 != 0)
        flags |= SWS_ACCURATE_RND;
    return flags;
}

cv::Mat FrameConverter::qimageToBgrMat(const QImage& image)
{
    cv::Mat result;
    switch (image.format()) {
    case QImage::Format_Indexed8:
        cv::cvtColor(wrapImage(image, CV_8UC1), result, cv::COLOR_GRAY2BGR);
        break;
    case QImage::Format_RGB32:
    case QImage::Format_ARGB32:
    case QImage::Format_ARGB32_Premultiplied:
        cv::cvtColor(wrapImage(image, CV_8UC4), result, cv::COLOR_BGRA2BGR);
        break;
    case QImage::Format_RGB888:
    case QImage::Format_BGR888:
        result = wrapImage(image, CV_8UC3);
        break;
    case QImage::Format_RGBA8888:
        cv::cvtColor(wrapImage(image, CV_8UC4), result, cv::COLOR_RGBA2BGR);
        break;
    default:
        warnInvalidFormat("qimageToBgrMat", image.format());
        break;
    }
    return result;
}

void FrameConverter::qimageToRgbMat(const QImage& image, cv::Mat& out)
{
    switch (image.format()) {
    case QImage::Format_Indexed8:
        convertInto(wrapImage(image, CV_8UC1), out, cv::COLOR_GRAY2BGRA);
        break;
    case QImage::Format_RGB32:
    case QImage::Format_ARGB32:
    case QImage::Format_ARGB32_Premultiplied:
        convertInto(wrapImage(image, CV_8UC4), out, cv::COLOR_BGRA2RGBA);
        break;
    case QImage::Format_RGB888:
        out = wrapImage(image, CV_8UC3);
        break;
    case QImage::Format_RGBA8888:
        out = wrapImage(image, CV_8UC4);
        break;
    case QImage::Format_BGR888:
        convertInto(wrapImage(image, CV_8UC3), out, cv::COLOR_BGR2RGB);
        break;
    default:
        warnInvalidFormat("qimageToRgbMat", image.format());
        out.release();
        break;
    }
}

QImage FrameConverter::matToQImage(const cv::Mat& mat)
{
    switch (mat.type()) {
    case CV_8UC1: {
        static const QVector<QRgb>* greyTable = [] {
            auto* table = new QVector<QRgb>(256);
            for (int i = 0; i < 256; ++i)
                (*table)[i] = qRgba(i, i, i, 255);
            return table;
        }();
        QImage image(mat.cols, mat.rows, QImage::Format_Indexed8);
        image.setColorTable(*greyTable);
        for (int row = 0; row < mat.rows; ++row)
            memcpy(image.scanLine(row), mat.ptr(row), static_cast<size_t>(mat.cols));
        return image.copy(QRect());
    }
    case CV_8UC3:
        return QImage(mat.data, mat.cols, mat.rows, static_cast<int>(mat.step[0]), QImage::Format_BGR888)
            .copy(QRect());
    case CV_8UC4:
        return QImage(mat.data, mat.cols, mat.rows, static_cast<int>(mat.step[0]), QImage::Format_ARGB32)
            .copy(QRect());
    default:
        qCDebug(lcConvert) << "ERROR: Mat could not be converted to QImage.";
        return QImage();
    }
}

void FrameConverter::frameToMat(const AVFrame* frame, cv::Mat& out, bool withAlpha, int width, int height)
{
    if (!frame || frame->width <= 0 || frame->height <= 0 || width <= 0 || height <= 0) {
        LUMEN_WARNING(lcConvert) << "[FrameConverter::frameToMat] no frame or empty size, nothing converted";
        return;
    }

    // The target size is not compared: a call with another target size and
    // the same source keeps the old scaler.
    const bool reuse = frameToMatScaler && lastFrameWidth == frame->width && lastFrameHeight == frame->height
        && lastWithAlpha == withAlpha && lastFrameFormat == frame->format;
    if (!reuse) {
        if (frameToMatScaler) {
            sws_freeContext(frameToMatScaler);
            frameToMatScaler = nullptr;
        }
        const int flags = scalerFlags(frame->width);
        frameToMatScaler = sws_getContext(frame->width, frame->height, static_cast<AVPixelFormat>(frame->format),
                                          width, height, AV_PIX_FMT_BGR24, flags, nullptr, nullptr, nullptr);
        if (!frameToMatScaler)
            return;
        frameToMatBuiltFlags = flags;
        lastFrameWidth = frame->width;
        lastFrameHeight = frame->height;
        lastWithAlpha = withAlpha;
        lastFrameFormat = frame->format;
    }

    const AVPixelFormat workFormat = withAlpha ? AV_PIX_FMT_BGRA : AV_PIX_FMT_BGR24;
    AVFrame* work = av_frame_alloc();
    if (!work)
        return;
    const int bytes = av_image_alloc(work->data, work->linesize, width, height, workFormat, 1);
    if (bytes < 0) {
        av_frame_free(&work);
        return;
    }
    if (withAlpha)
        memset(work->data[0], 0, static_cast<size_t>(bytes));

    sws_scale(frameToMatScaler, frame->data, frame->linesize, 0, frame->height, work->data, work->linesize);

    const int type = withAlpha ? CV_8UC4 : CV_8UC3;
    if (!(out.dims == 2 && out.rows == height && out.cols == width && out.type() == type && out.data))
        out.create(height, width, type);
    av_image_copy_to_buffer(out.data, height * width * (withAlpha ? 4 : 3), work->data, work->linesize,
                            workFormat, width, height, 1);

    av_freep(&work->data[0]);
    av_frame_free(&work);
}

void FrameConverter::matToFrame(const cv::Mat& mat, AVFrame*& frame, int width, int height)
{
    if (mat.cols <= 0 || mat.rows <= 0)
        return;
    if (width <= 0 || height <= 0) {
        LUMEN_WARNING(lcConvert) << "[FrameConverter::matToFrame] empty target size" << width << height
                                 << ", no frame made";
        return;
    }

    frame = av_frame_alloc();
    if (!frame)
        return;
    frame->width = width;
    frame->height = height;
    frame->format = AV_PIX_FMT_YUV420P;
    if (av_image_alloc(frame->data, frame->linesize, width, height, AV_PIX_FMT_YUV420P, 1) < 0)
        return;

    // Target size and channel count are not compared, only the source size.
    const bool reuse = matToFrameScaler && lastMatCols == mat.cols && lastMatRows == mat.rows;
    if (!reuse) {
        if (matToFrameScaler) {
            sws_freeContext(matToFrameScaler);
            matToFrameScaler = nullptr;
        }
        const int flags = scalerFlags(mat.cols);
        const AVPixelFormat source = mat.channels() < 4 ? AV_PIX_FMT_BGR24 : AV_PIX_FMT_BGRA;
        matToFrameScaler = sws_getContext(mat.cols, mat.rows, source, width, height, AV_PIX_FMT_YUV420P, flags,
                                          nullptr, nullptr, nullptr);
        if (!matToFrameScaler)
            return;
        matToFrameBuiltFlags = flags;
        lastMatCols = mat.cols;
        lastMatRows = mat.rows;
    }

    const uint8_t* srcData[4] = {mat.data, nullptr, nullptr, nullptr};
    const int srcStride[4] = {static_cast<int>(mat.step[0] / mat.elemSize1()), 0, 0, 0};
    sws_scale(matToFrameScaler, srcData, srcStride, 0, mat.rows, frame->data, frame->linesize);
}
