// What the factory makes, and the CPU `filter` routines of the filter
// classes on cv::Mat, QImage and AVFrame: the face areas they mark and what
// they hand to a renderer or write out.
#include <cstring>
#include <memory>

#include <QImage>
#include <QPointer>
#include <gtest/gtest.h>
#include <opencv2/core.hpp>

#include "LogCapture.h"
#include "filters/FilterFactory.h"
#include "filters/OpenglFaceAreaFilter.h"
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

cv::Rect areaOf(const BeautyFilterBase::ParaMap& p)
{
    return cv::Rect(static_cast<int>(p.at(face_area_x)), static_cast<int>(p.at(face_area_y)),
                    static_cast<int>(p.at(face_area_width)), static_cast<int>(p.at(face_area_height)));
}

FaceDetectResult faces(std::vector<cv::Rect> rects)
{
    FaceDetectResult r;
    r.faceRects = std::move(rects);
    return r;
}

// Stands in for a GPU worker on the CPU path: records the picture it is given.
class RecordingRenderer : public QObject {
    Q_OBJECT
public:
    Q_INVOKABLE bool doPreWork(uchar* data, int width, int height)
    {
        seen = {data, width, height};
        ++calls;
        return true;
    }
    std::tuple<uchar*, int, int> seen;
    int calls = 0;
};

template <class Filter>
class WithRenderer : public Filter {
public:
    explicit WithRenderer(QObject* r) { this->renderer = r; }
};

// A YUV420P frame (alignment 1): luma a horizontal ramp, chroma a tint; or
// every byte `fill`.
std::shared_ptr<AVFrame> makeFrame(int width, int height, int fill = -1)
{
    std::shared_ptr<AVFrame> f(av_frame_alloc(), [](AVFrame* f) {
        av_freep(&f->data[0]);
        av_frame_free(&f);
    });
    f->width = width;
    f->height = height;
    f->format = AV_PIX_FMT_YUV420P;
    if (width < 1 || height < 1)
        return f;
    av_image_alloc(f->data, f->linesize, width, height, AV_PIX_FMT_YUV420P, 1);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            f->data[0][y * f->linesize[0] + x] = fill < 0 ? static_cast<uint8_t>(40 + x * 160 / width) : fill;
    for (int p = 1; p < 3; ++p)
        std::memset(f->data[p], fill < 0 ? (p == 1 ? 110 : 150) : fill, f->linesize[p] * ((height + 1) / 2));
    return f;
}

std::vector<uint8_t> planesOf(const AVFrame* f)
{
    std::vector<uint8_t> bytes(av_image_get_buffer_size(AV_PIX_FMT_YUV420P, f->width, f->height, 1));
    av_image_copy_to_buffer(bytes.data(), bytes.size(), f->data, f->linesize, AV_PIX_FMT_YUV420P, f->width,
                            f->height, 1);
    return bytes;
}

}  // namespace

TEST(FilterFactory, OneNewObjectOfTheRightClassPerFaceType)
{
    const std::pair<ImageFilterType, const char*> made[] = {
        {SLIMFACE, "OpenglSlimFaceFilter"},   {SMOOTH, "OpenglFaceAreaFilter"},
        {REDLIPS, "OpenglFaceAreaFilter"},    {WHITENING, "OpenglWhiteningFilter"},
        {SMOOTHWHITENING, "OpenglSmoothAndWhiteningFilter"},
    };
    for (const auto& m : made) {
        std::unique_ptr<BeautyFilterBase> f(createImageFilter(m.first));
        ASSERT_NE(f, nullptr) << m.second;
        EXPECT_STREQ(f->metaObject()->className(), m.second);
    }
    std::unique_ptr<BeautyFilterBase> smooth(createImageFilter(SMOOTH)), lips(createImageFilter(REDLIPS));
    smooth->setParas({{smooth_strength, 30}});
    EXPECT_EQ(lips->paras().at(smooth_strength), 0) << "one object per type";
    for (int t : {0, 5, 6, 7, 8, 9, 10, 11, 12, 13, 15, -1})
        EXPECT_EQ(createImageFilter(static_cast<ImageFilterType>(t)), nullptr) << t;

    // The filters own their renderer.
    QPointer<QObject> r1 = new QObject(), r2 = new QObject(), r3 = new QObject();
    delete new WithRenderer<OpenglWhiteningFilter>(r1);
    delete new WithRenderer<OpenglSlimFaceFilter>(r2);
    delete new WithRenderer<OpenglSmoothAndWhiteningFilter>(r3);
    EXPECT_TRUE(r1.isNull() && r2.isNull() && r3.isNull());
}

TEST(FilterCpuRoutine, MarksTheFaceAreaAndHandsThePictureOn)
{
    enum Kind { Whitening, Both, Slim };
    cv::Mat noise(120, 160, CV_8UC4);
    cv::randu(noise, 0, 256);
    struct Case {
        const char* label;
        Kind kind;
        cv::Mat src;
        std::vector<cv::Rect> faces;
        cv::Rect area;
        bool renderer, copies;
        int calls;
    } cases[] = {
        {"whitening, one face", Whitening, cv::Mat(480, 640, CV_8UC3), {{300, 200, 100, 100}}, {250, 100, 200, 300},
         false, false, 0},
        // Past the right edge, or at a negative y: neither counts.
        {"whitening, no usable face", Whitening, cv::Mat(480, 640, CV_8UC4), {{600, 100, 41, 50}, {10, -1, 50, 50}},
         {0, 0, 640, 480}, false, false, 0},
        {"both, no usable face", Both, cv::Mat(480, 640, CV_8UC4), {{600, 100, 41, 50}, {10, -1, 50, 50}},
         {0, 0, 640, 480}, false, false, 0},
        {"whitening, empty picture", Whitening, cv::Mat(), {{10, 10, 10, 10}}, {0, 0, 0, 0}, false, false, 0},
        // The last counted face stays; this class leaves one near the top unexpanded.
        {"both, two faces", Both, cv::Mat(800, 1000, CV_8UC3), {{300, 300, 101, 50}, {500, 40, 100, 100}},
         {500, 40, 100, 100}, false, false, 0},
        {"slim copies without a renderer", Slim, noise, {{40, 30, 40, 40}}, {20, 22, 80, 56}, false, true, 0},
        {"whitening hands over", Whitening, cv::Mat(48, 64, CV_8UC4), {}, {0, 0, 64, 48}, true, false, 1},
        {"slim copies without a face", Slim, noise, {}, {0, 0, 0, 0}, true, true, 0},
        {"slim hands over a face", Slim, noise, {{10, 10, 20, 20}}, {0, 6, 40, 28}, true, false, 1},
    };
    for (Case& c : cases) {
        auto* renderer = c.renderer ? new RecordingRenderer() : nullptr;
        std::unique_ptr<BeautyFilterBase> owner;
        cv::Mat dst;
        const FaceDetectResult result = faces(c.faces);
        if (c.kind == Whitening) {
            auto* f = new WithRenderer<OpenglWhiteningFilter>(renderer);
            owner.reset(f);
            f->filter(c.src, dst, {{whitening_strength, 60}}, result);
            EXPECT_EQ(f->paras().at(whitening_strength), 60) << c.label;
            EXPECT_TRUE(f->faceParas().empty()) << c.label << ": no per-frame lists";
        } else if (c.kind == Both) {
            auto* f = new WithRenderer<OpenglSmoothAndWhiteningFilter>(renderer);
            owner.reset(f);
            f->filter(c.src, dst, result);
        } else {
            auto* f = new WithRenderer<OpenglSlimFaceFilter>(renderer);
            owner.reset(f);
            f->filter(c.src, dst, {{slim_face_strength, 80}, {"unknown", 1}}, result);
            EXPECT_EQ(f->paras().at(slim_face_strength), 80) << c.label;
        }
        EXPECT_EQ(areaOf(owner->paras()), c.area) << c.label;
        EXPECT_EQ(!dst.empty(), c.copies) << c.label;
        if (c.copies) {
            EXPECT_EQ(cv::norm(dst, c.src, cv::NORM_INF), 0.0) << c.label;
            EXPECT_NE(dst.data, c.src.data) << c.label;
        }
        if (renderer) {
            EXPECT_EQ(renderer->calls, c.calls) << c.label;
            EXPECT_EQ(renderer->seen, (c.calls ? std::make_tuple(c.src.data, c.src.cols, c.src.rows)
                                               : std::tuple<uchar*, int, int>()))
                << c.label;
        }
    }
    // A renderer without a picture entry is reported.
    LogCapture log;
    WithRenderer<OpenglWhiteningFilter> f(new QObject());
    cv::Mat src(8, 8, CV_8UC3), dst;
    f.filter(src, dst, FaceDetectResult());
    EXPECT_TRUE(log.contains("[OpenglWhiteningFilter::filter]", QtWarningMsg));
}

TEST(FilterCpuRoutine, ImageEntryWrapsTheMatRoutine)
{
    QImage src(200, 160, QImage::Format_RGB32);
    for (int y = 0; y < 160; ++y)
        for (int x = 0; x < 200; ++x)
            src.setPixel(x, y, qRgb(x * 4, y * 5, (x + y) % 256));
    // Slim face without a renderer gives the picture back, its face marked.
    OpenglSlimFaceFilter slim;
    QImage dst;
    slim.filter(src, dst, faces({{20, 10, 20, 20}}));
    EXPECT_EQ(dst.convertToFormat(QImage::Format_RGB32), src);
    EXPECT_EQ(areaOf(slim.paras()), cv::Rect(10, 6, 40, 28));
    // Whitening writes no output: the host's picture stays.
    QImage kept(8, 8, QImage::Format_RGB32);
    kept.fill(qRgb(1, 2, 3));
    const QImage before = kept.copy();
    OpenglWhiteningFilter whitening;
    whitening.filter(src, kept, faces({{80, 10, 40, 40}}));
    EXPECT_EQ(kept, before);
    EXPECT_EQ(areaOf(whitening.paras()), cv::Rect(60, 0, 80, 120));
}

TEST(FilterCpuRoutine, FrameEntryCopiesIntoAMatchingFrameOnly)
{
    OpenglWhiteningFilter whitening;
    OpenglSlimFaceFilter slim;
    // Frames without a width or height are ignored.
    std::shared_ptr<AVFrame> dst = makeFrame(64, 32, 77);
    const std::vector<uint8_t> untouched = planesOf(dst.get());
    for (auto size : {std::make_pair(0, 16), std::make_pair(32, 0)}) {
        whitening.filter(makeFrame(size.first, size.second).get(), dst.get(), FaceDetectResult());
        slim.filter(makeFrame(size.first, size.second).get(), dst.get(), FaceDetectResult());
    }
    EXPECT_EQ(areaOf(whitening.paras()), cv::Rect(0, 0, 0, 0)) << "a converted frame would mark the whole picture";
    EXPECT_EQ(planesOf(dst.get()), untouched);
    // Whitening writes nothing into dst, and marks the whole frame.
    const std::shared_ptr<AVFrame> src = makeFrame(64, 32);
    whitening.filter(src.get(), dst.get(), FaceDetectResult());
    EXPECT_EQ(planesOf(dst.get()), untouched);
    EXPECT_EQ(areaOf(whitening.paras()), cv::Rect(0, 0, 64, 32));
    // Slim face without a renderer: the picture comes back through 8-bit BGR.
    slim.filter(src.get(), dst.get(), FaceDetectResult());
    for (int x = 0; x < 64; x += 8)
        EXPECT_NEAR(dst->data[0][16 * dst->linesize[0] + x], src->data[0][16 * src->linesize[0] + x], 3) << x;
    EXPECT_NEAR(dst->data[1][8 * dst->linesize[1] + 16], 110, 6);
    EXPECT_NEAR(dst->data[2][8 * dst->linesize[2] + 16], 150, 6);
    // A frame of another size keeps its planes; the mismatch is logged.
    std::shared_ptr<AVFrame> small = makeFrame(32, 32, 5);
    const std::vector<uint8_t> smallBefore = planesOf(small.get());
    LogCapture log;
    slim.filter(src.get(), small.get(), FaceDetectResult());
    EXPECT_EQ(planesOf(small.get()), smallBefore);
    EXPECT_EQ(log.count("[OpenglSlimFaceFilter::filter]", QtWarningMsg), 1) << log.all();
}

#include "FilterCpuTest.moc"
