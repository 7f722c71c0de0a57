// The QImage and AVFrame entries of the CPU `filter` family: they wrap the
// cv::Mat routine of each class.

#include <cstring>
#include <memory>
#include <vector>

#include <QImage>
#include <QString>
#include <gtest/gtest.h>
#include <opencv2/core.hpp>

#include "filters/OpenglSlimFaceFilter.h"
#include "filters/OpenglSmoothAndWhiteningFilter.h"
#include "filters/OpenglWhiteningFilter.h"
#include "lumen_fx/ImageFilterTypes.h"

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/imgutils.h>
#include <libavutil/mem.h>
}

namespace {

cv::Rect areaOf(const std::map<std::string, double>& p)
{
    return cv::Rect(static_cast<int>(p.at(face_area_x)), static_cast<int>(p.at(face_area_y)),
                    static_cast<int>(p.at(face_area_width)), static_cast<int>(p.at(face_area_height)));
}

std::vector<QString>& warnings()
{
    static std::vector<QString> store;
    return store;
}

void collectWarnings(QtMsgType type, const QMessageLogContext&, const QString& msg)
{
    if (type == QtWarningMsg)
        warnings().push_back(msg);
}

struct FrameDeleter {
    void operator()(AVFrame* f) const
    {
        if (f)
            av_freep(&f->data[0]);
        av_frame_free(&f);
    }
};
using FramePtr = std::unique_ptr<AVFrame, FrameDeleter>;

// A YUV420P frame, planes by av_image_alloc (alignment 1). Luma is a
// horizontal ramp, chroma a constant tint.
FramePtr makeFrame(int width, int height, uint8_t fill = 0, bool ramp = true)
{
    FramePtr f(av_frame_alloc());
    f->width = width;
    f->height = height;
    f->format = AV_PIX_FMT_YUV420P;
    if (width > 0 && height > 0) {
        av_image_alloc(f->data, f->linesize, width, height, AV_PIX_FMT_YUV420P, 1);
        for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x)
                f->data[0][y * f->linesize[0] + x] = ramp ? static_cast<uint8_t>(40 + x * 160 / width) : fill;
        for (int p = 1; p < 3; ++p)
            std::memset(f->data[p], ramp ? (p == 1 ? 110 : 150) : fill,
                        static_cast<size_t>(f->linesize[p]) * ((height + 1) / 2));
    }
    return f;
}

std::vector<uint8_t> planesOf(const AVFrame* f)
{
    const int size = av_image_get_buffer_size(static_cast<AVPixelFormat>(f->format), f->width, f->height, 1);
    std::vector<uint8_t> bytes(static_cast<size_t>(size));
    av_image_copy_to_buffer(bytes.data(), size, f->data, f->linesize, static_cast<AVPixelFormat>(f->format),
                            f->width, f->height, 1);
    return bytes;
}

}  // namespace

TEST(FilterImageEntry, SlimFaceWithoutARendererGivesBackThePicture)
{
    QImage src(64, 48, QImage::Format_RGB32);
    for (int y = 0; y < src.height(); ++y)
        for (int x = 0; x < src.width(); ++x)
            src.setPixel(x, y, qRgb(x * 4, y * 5, (x + y) % 256));
    OpenglSlimFaceFilter f;
    FaceDetectResult r;
    r.faceRects = {cv::Rect(20, 10, 20, 20)};
    QImage dst;
    f.filter(src, dst, r);

    ASSERT_EQ(dst.size(), src.size());
    for (int y = 0; y < src.height(); ++y)
        for (int x = 0; x < src.width(); ++x)
            ASSERT_EQ(dst.pixel(x, y), src.pixel(x, y)) << x << "," << y;
    // The face area was marked on the way, as by the Mat routine.
    EXPECT_EQ(areaOf(f.paras()), cv::Rect(10, 6, 40, 28));
}

TEST(FilterImageEntry, WhiteningMarksTheSameAreasAsTheMatRoutineAndKeepsDst)
{
    QImage src(200, 160, QImage::Format_RGB32);
    src.fill(qRgb(10, 20, 30));
    QImage before(8, 8, QImage::Format_RGB32);
    before.fill(qRgb(1, 2, 3));

    FaceDetectResult oneFace;
    oneFace.faceRects = {cv::Rect(80, 10, 40, 40)};
    for (const FaceDetectResult& r : {oneFace, FaceDetectResult()}) {
        OpenglWhiteningFilter viaImage;
        OpenglWhiteningFilter viaMat;
        OpenglSmoothAndWhiteningFilter bothViaImage;
        QImage dst = before;
        viaImage.filter(src, dst, r);
        cv::Mat m(160, 200, CV_8UC3, cv::Scalar::all(0));
        cv::Mat unused;
        viaMat.filter(m, unused, r);
        EXPECT_EQ(areaOf(viaImage.paras()), areaOf(viaMat.paras()));
        // The routine writes no output, so the host's picture stays.
        EXPECT_EQ(dst, before);

        QImage dst2 = before;
        bothViaImage.filter(src, dst2, r);
        EXPECT_EQ(dst2, before);
        if (r.faceRects.empty()) {
            EXPECT_EQ(areaOf(viaImage.paras()), cv::Rect(0, 0, 200, 160));
            EXPECT_EQ(areaOf(bothViaImage.paras()), cv::Rect(0, 0, 200, 160));
        } else {
            EXPECT_EQ(areaOf(viaImage.paras()), cv::Rect(60, 0, 80, 120));
            // Near the top for this class: left unexpanded.
            EXPECT_EQ(areaOf(bothViaImage.paras()), cv::Rect(80, 10, 40, 40));
        }
    }
}

TEST(FilterFrameEntry, FramesWithoutWidthOrHeightAreIgnored)
{
    OpenglWhiteningFilter whitening;
    OpenglSlimFaceFilter slim;
    FramePtr dst = makeFrame(32, 16, 77, false);
    const std::vector<uint8_t> dstBefore = planesOf(dst.get());
    for (auto size : {std::make_pair(0, 16), std::make_pair(32, 0)}) {
        FramePtr src = makeFrame(size.first, size.second);
        whitening.filter(src.get(), dst.get(), FaceDetectResult());
        slim.filter(src.get(), dst.get(), FaceDetectResult());
    }
    // A frame that were converted would have set the whole-picture area.
    EXPECT_EQ(areaOf(whitening.paras()), cv::Rect(0, 0, 0, 0));
    EXPECT_EQ(planesOf(dst.get()), dstBefore);
}

TEST(FilterFrameEntry, ResultIsCopiedIntoAMatchingFrameOnly)
{
    const int w = 64;
    const int h = 32;
    FramePtr src = makeFrame(w, h);
    OpenglSlimFaceFilter slim;

    // Slim face without a renderer: the picture comes back through BGR.
    FramePtr dst = makeFrame(w, h, 0, false);
    slim.filter(src.get(), dst.get(), FaceDetectResult());
    for (int x = 0; x < w; x += 8) {
        const int expected = src->data[0][(h / 2) * src->linesize[0] + x];
        EXPECT_NEAR(dst->data[0][(h / 2) * dst->linesize[0] + x], expected, 3) << x;
    }
    // Chroma goes through 8-bit BGR and back: a few steps of rounding.
    const int mid = (h / 4) * dst->linesize[1] + w / 4;
    EXPECT_NEAR(dst->data[1][mid], 110, 6);
    EXPECT_NEAR(dst->data[2][mid], 150, 6);

    // A frame of another size keeps its planes, and the mismatch is logged.
    FramePtr small = makeFrame(w / 2, h, 5, false);
    const std::vector<uint8_t> smallBefore = planesOf(small.get());
    warnings().clear();
    QtMessageHandler previous = qInstallMessageHandler(collectWarnings);
    slim.filter(src.get(), small.get(), FaceDetectResult());
    qInstallMessageHandler(previous);
    EXPECT_EQ(planesOf(small.get()), smallBefore);
    ASSERT_EQ(warnings().size(), 1u);
    EXPECT_TRUE(warnings()[0].startsWith("[OpenglSlimFaceFilter::filter]")) << warnings()[0].toStdString();

    // Whitening writes no output: dst stays, the area is the whole frame.
    OpenglWhiteningFilter whitening;
    FramePtr kept = makeFrame(w, h, 9, false);
    const std::vector<uint8_t> keptBefore = planesOf(kept.get());
    whitening.filter(src.get(), kept.get(), FaceDetectResult());
    EXPECT_EQ(planesOf(kept.get()), keptBefore);
    EXPECT_EQ(areaOf(whitening.paras()), cv::Rect(0, 0, w, h));
}
