// The filter objects: what the factory makes, the keys each class registers,
// their destructors, and the CPU `filter` routines.

#include <algorithm>
#include <string>
#include <vector>

#include <QObject>
#include <QPointer>
#include <QString>
#include <gtest/gtest.h>
#include <opencv2/core.hpp>

#include "filters/FilterFactory.h"
#include "filters/OpenglFaceAreaFilter.h"
#include "filters/OpenglSlimFaceFilter.h"
#include "filters/OpenglSmoothAndWhiteningFilter.h"
#include "filters/OpenglWhiteningFilter.h"
#include "lumen_fx/ImageFilterTypes.h"

namespace {

// Collects the log lines written while it lives.
class LogCapture {
public:
    LogCapture()
    {
        lines().clear();
        previous = qInstallMessageHandler(&LogCapture::handler);
    }
    ~LogCapture() { qInstallMessageHandler(previous); }

    static bool has(QtMsgType type, const QString& text)
    {
        for (const auto& l : lines())
            if (l.first == type && l.second.contains(text))
                return true;
        return false;
    }

private:
    static std::vector<std::pair<QtMsgType, QString>>& lines()
    {
        static std::vector<std::pair<QtMsgType, QString>> store;
        return store;
    }
    static void handler(QtMsgType type, const QMessageLogContext&, const QString& msg)
    {
        lines().emplace_back(type, msg);
    }
    QtMessageHandler previous = nullptr;
};

std::vector<std::string> keysOf(BeautyFilterBase& f)
{
    std::vector<std::string> keys;
    for (const auto& kv : f.paras()) {
        keys.push_back(kv.first);
        EXPECT_EQ(kv.second, 0) << kv.first;
    }
    return keys;
}

cv::Rect areaOf(const std::map<std::string, double>& p)
{
    return cv::Rect(static_cast<int>(p.at(face_area_x)), static_cast<int>(p.at(face_area_y)),
                    static_cast<int>(p.at(face_area_width)), static_cast<int>(p.at(face_area_height)));
}

// Stands in for a GPU worker on the CPU path: records the picture it is given.
class RecordingRenderer : public QObject {
    Q_OBJECT
public:
    Q_INVOKABLE bool doPreWork(uchar* data, int width, int height)
    {
        lastData = data;
        lastWidth = width;
        lastHeight = height;
        ++calls;
        return true;
    }
    uchar* lastData = nullptr;
    int lastWidth = 0;
    int lastHeight = 0;
    int calls = 0;
};

template <class Filter>
class WithRenderer : public Filter {
public:
    explicit WithRenderer(QObject* r) { this->renderer = r; }
};

}  // namespace

TEST(FilterFactory, MakesOneObjectOfTheRightClassPerFaceType)
{
    const std::pair<ImageFilterType, const char*> made[] = {
        {SLIMFACE, "OpenglSlimFaceFilter"},
        {SMOOTH, "OpenglFaceAreaFilter"},
        {REDLIPS, "OpenglFaceAreaFilter"},
        {WHITENING, "OpenglWhiteningFilter"},
        {SMOOTHWHITENING, "OpenglSmoothAndWhiteningFilter"},
    };
    for (const auto& m : made) {
        BeautyFilterBase* f = createImageFilter(m.first);
        ASSERT_NE(f, nullptr) << m.second;
        EXPECT_STREQ(f->metaObject()->className(), m.second);
        delete f;
    }
    BeautyFilterBase* smooth = createImageFilter(SMOOTH);
    BeautyFilterBase* lips = createImageFilter(REDLIPS);
    EXPECT_NE(smooth, lips);
    smooth->setParas({{smooth_strength, 30}});
    EXPECT_EQ(lips->paras().at(smooth_strength), 0);
    delete smooth;
    delete lips;

    for (int t : {0, 5, 6, 7, 8, 9, 10, 11, 12, 13, 15, -1})
        EXPECT_EQ(createImageFilter(static_cast<ImageFilterType>(t)), nullptr) << t;
}

TEST(FilterObjects, EachClassRegistersItsKeysAtZero)
{
    OpenglFaceAreaFilter area;
    OpenglWhiteningFilter whitening;
    OpenglSlimFaceFilter slim;
    OpenglSmoothAndWhiteningFilter both;
    const std::vector<std::string> faceKeys = {face_area_height, face_area_width, face_area_x, face_area_y};
    auto plus = [&](std::vector<std::string> extra) {
        extra.insert(extra.end(), faceKeys.begin(), faceKeys.end());
        std::sort(extra.begin(), extra.end());
        return extra;
    };
    EXPECT_EQ(keysOf(area), plus({redlips_strength, smooth_strength}));
    EXPECT_EQ(keysOf(whitening), plus({whitening_strength}));
    EXPECT_EQ(keysOf(slim), plus({slim_face_strength}));
    EXPECT_EQ(keysOf(both), plus({smooth_whitening_strength}));
}

TEST(FilterObjects, DestructorsLogTheirNames)
{
    LogCapture log;
    delete new OpenglFaceAreaFilter();
    delete new OpenglWhiteningFilter();
    delete new OpenglSlimFaceFilter();
    delete new OpenglSmoothAndWhiteningFilter();
    for (const char* name : {"~OpenglFaceAreaFilter()", "~OpenglWhiteningFilter()", "~OpenglSlimFaceFilter()",
                             "~OpenglSmoothAndWhiteningFilter()"})
        EXPECT_TRUE(LogCapture::has(QtInfoMsg, name)) << name;
}

TEST(FilterObjects, SlimFaceWarnsOnNullProgram)
{
    LogCapture log;
    OpenglSlimFaceFilter slim;
    slim.setUniforms(nullptr, {{slim_face_strength, 100}}, 640, 480);
    EXPECT_TRUE(LogCapture::has(QtWarningMsg, "[OpenglSlimFaceFilter::setUniforms]"));
}

TEST(FilterObjects, RendererIsOwnedAndDeleted)
{
    QPointer<RecordingRenderer> r1 = new RecordingRenderer();
    QPointer<RecordingRenderer> r2 = new RecordingRenderer();
    QPointer<RecordingRenderer> r3 = new RecordingRenderer();
    delete new WithRenderer<OpenglWhiteningFilter>(r1);
    delete new WithRenderer<OpenglSlimFaceFilter>(r2);
    delete new WithRenderer<OpenglSmoothAndWhiteningFilter>(r3);
    EXPECT_TRUE(r1.isNull());
    EXPECT_TRUE(r2.isNull());
    EXPECT_TRUE(r3.isNull());
}

TEST(FilterCpuRoutine, WhiteningMarksTheFaceAreaAndLeavesDstAlone)
{
    OpenglWhiteningFilter f;
    cv::Mat src(480, 640, CV_8UC3, cv::Scalar(1, 2, 3));
    cv::Mat dst;
    FaceDetectResult r;
    r.faceRects = {cv::Rect(300, 200, 100, 100)};
    f.filter(src, dst, {{whitening_strength, 60}}, r);
    EXPECT_EQ(f.paras().at(whitening_strength), 60);
    EXPECT_EQ(areaOf(f.paras()), cv::Rect(250, 100, 200, 300));
    EXPECT_TRUE(dst.empty());
    // The routine feeds no per-frame list.
    EXPECT_TRUE(f.faceParas().empty());
}

TEST(FilterCpuRoutine, WithoutAUsableFaceTheWholePictureIsTheArea)
{
    for (bool both : {false, true}) {
        OpenglWhiteningFilter whitening;
        OpenglSmoothAndWhiteningFilter smoothWhitening;
        cv::Mat src(480, 640, CV_8UC4, cv::Scalar::all(9));
        cv::Mat dst;
        FaceDetectResult r;
        // Past the right edge, and at a negative y: neither counts.
        r.faceRects = {cv::Rect(600, 100, 41, 50), cv::Rect(10, -1, 50, 50)};
        if (both) {
            smoothWhitening.filter(src, dst, r);
            EXPECT_EQ(areaOf(smoothWhitening.paras()), cv::Rect(0, 0, 640, 480));
        } else {
            whitening.filter(src, dst, r);
            EXPECT_EQ(areaOf(whitening.paras()), cv::Rect(0, 0, 640, 480));
        }
        EXPECT_TRUE(dst.empty());
    }
}

TEST(FilterCpuRoutine, EmptyPictureChangesNothing)
{
    OpenglWhiteningFilter f;
    cv::Mat src;
    cv::Mat dst;
    FaceDetectResult r;
    r.faceRects = {cv::Rect(10, 10, 10, 10)};
    f.filter(src, dst, r);
    EXPECT_EQ(areaOf(f.paras()), cv::Rect(0, 0, 0, 0));
}

TEST(FilterCpuRoutine, LastCountedFaceLeavesItsAreaInTheParameters)
{
    OpenglSmoothAndWhiteningFilter f;
    cv::Mat src(800, 1000, CV_8UC3, cv::Scalar::all(0));
    cv::Mat dst;
    FaceDetectResult r;
    // The second box is near the top: returned unexpanded by this class.
    r.faceRects = {cv::Rect(300, 300, 101, 50), cv::Rect(500, 40, 100, 100)};
    f.filter(src, dst, r);
    EXPECT_EQ(areaOf(f.paras()), cv::Rect(500, 40, 100, 100));
}

TEST(FilterCpuRoutine, SlimFaceCopiesThePictureWithoutARenderer)
{
    OpenglSlimFaceFilter f;
    cv::Mat src(120, 160, CV_8UC4);
    cv::randu(src, 0, 256);
    cv::Mat dst;
    FaceDetectResult r;
    r.faceRects = {cv::Rect(40, 30, 40, 40)};
    f.filter(src, dst, {{slim_face_strength, 80}, {"unknown", 1}}, r);
    ASSERT_EQ(dst.size(), src.size());
    EXPECT_EQ(cv::norm(dst, src, cv::NORM_INF), 0.0);
    EXPECT_NE(dst.data, src.data);
    EXPECT_EQ(f.paras().at(slim_face_strength), 80);
    EXPECT_EQ(areaOf(f.paras()), cv::Rect(20, 22, 80, 56));
}

TEST(FilterCpuRoutine, PictureGoesToTheRendererWhenThereIsOne)
{
    auto* renderer = new RecordingRenderer();
    WithRenderer<OpenglWhiteningFilter> f(renderer);
    cv::Mat src(48, 64, CV_8UC4, cv::Scalar::all(3));
    cv::Mat dst;
    f.filter(src, dst, FaceDetectResult());
    EXPECT_EQ(renderer->calls, 1);
    EXPECT_EQ(renderer->lastData, src.data);
    EXPECT_EQ(renderer->lastWidth, 64);
    EXPECT_EQ(renderer->lastHeight, 48);

    // Slim face hands over only when a face counted, and then doesn't copy.
    auto* slimRenderer = new RecordingRenderer();
    WithRenderer<OpenglSlimFaceFilter> slim(slimRenderer);
    slim.filter(src, dst, FaceDetectResult());
    EXPECT_EQ(slimRenderer->calls, 0);
    EXPECT_FALSE(dst.empty());
    FaceDetectResult r;
    r.faceRects = {cv::Rect(10, 10, 20, 20)};
    cv::Mat dst2;
    slim.filter(src, dst2, r);
    EXPECT_EQ(slimRenderer->calls, 1);
    EXPECT_TRUE(dst2.empty());
}

TEST(FilterCpuRoutine, RendererWithoutAPictureEntryIsReported)
{
    LogCapture log;
    WithRenderer<OpenglWhiteningFilter> f(new QObject());
    cv::Mat src(8, 8, CV_8UC3, cv::Scalar::all(0));
    cv::Mat dst;
    f.filter(src, dst, FaceDetectResult());
    EXPECT_TRUE(LogCapture::has(QtWarningMsg, "[OpenglWhiteningFilter::filter]"));
}

#include "FilterObjectsTest.moc"
