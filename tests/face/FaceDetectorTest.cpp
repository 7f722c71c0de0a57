// The rate limit of FaceDetector, run on a clock and a detection that the
// test controls.
#include <QMetaMethod>
#include <gtest/gtest.h>

#include "face/FaceDetector.h"
#include "LogCapture.h"

namespace {

constexpr qint64 kMs = 1000000;

class ScriptedDetector : public FaceDetector {
public:
    explicit ScriptedDetector(qint64 startNs = 5000 * kMs)
    {
        now = startNs;
        lastCallNs = startNs;
    }

    // Moves the clock to `ms` after the last call of detectFaces.
    void nextCallAfter(double ms) { now = lastCallNs + static_cast<qint64>(ms * kMs); }
    bool call(FaceDetectResult& result) { return detectFaces(picture, result, false); }
    bool call()
    {
        FaceDetectResult result;
        return call(result);
    }

    qint64 now = 0;
    qint64 detectionNs = 0;  // how long each detection takes on the clock
    bool withFace = true;
    int faceX = 100;
    int detections = 0;
    QImage picture = QImage(64, 48, QImage::Format_RGB32);
    std::vector<cv::Mat> framesSeen;

    qint64 lastCall() const { return lastCallNs; }
    int queuedImages() const { return srcImages.size(); }
    QImage queuedImage() const { return srcImages.value(0); }
    int queuedFrames() const { return srcFrames.size(); }
    const std::string& model() const { return modelPath; }
    bool stopping() const { return stopRequested; }

protected:
    qint64 clockNs() const override { return now; }

    void detectImage(const QImage&, std::vector<cv::Rect>& rects, std::vector<std::vector<int>>& keyPoints,
                     std::vector<std::vector<float>>& triplets, std::vector<std::vector<float>>& values) override
    {
        ++detections;
        now += detectionNs;
        if (!withFace)
            return;
        rects.emplace_back(faceX, 50, 80, 90);
        keyPoints.push_back(std::vector<int>(196, detections));
        triplets.push_back({1.f, 2.f, 3.f});
        values.push_back({0.9f});
    }

    void detectFrame(const cv::Mat& frame, std::vector<cv::Rect>& rects, std::vector<std::vector<int>>&,
                     std::vector<std::vector<float>>&) override
    {
        framesSeen.push_back(frame.clone());
        rects.emplace_back(1, 2, 3, 4);
        stopRequested = true;  // one round of the loop is enough
    }
};

}  // namespace

TEST(FaceDetectorRateLimit, FirstCallDetectsAndLaterCloseFramesUseTheCache)
{
    ScriptedDetector d;
    FaceDetectResult first;
    EXPECT_TRUE(d.call(first));  // gap 0, but nothing is cached yet
    EXPECT_EQ(d.detections, 1);
    ASSERT_EQ(first.faceRects.size(), 1u);

    // Frames 20 ms apart for a long while: the library is never asked again.
    d.faceX = 300;
    for (int i = 0; i < 3000; ++i) {
        d.nextCallAfter(20);
        FaceDetectResult r;
        ASSERT_TRUE(d.call(r));
        ASSERT_EQ(r.faceRects.size(), 1u);
        EXPECT_EQ(r.faceRects[0], first.faceRects[0]);
        EXPECT_EQ(r.keyPoints, first.keyPoints);
        EXPECT_EQ(r.faceTriplets, first.faceTriplets);
        EXPECT_EQ(r.faceValueLists, first.faceValueLists);
    }
    EXPECT_EQ(d.detections, 1);
}

TEST(FaceDetectorRateLimit, GapIsComparedInWholeMilliseconds)
{
    ScriptedDetector d;
    d.call();
    ASSERT_EQ(d.detectInterval(), 33);

    d.nextCallAfter(32);
    d.call();
    EXPECT_EQ(d.detections, 1);
    d.nextCallAfter(32.999999);  // truncates to 32
    d.call();
    EXPECT_EQ(d.detections, 1);
    d.nextCallAfter(33);
    FaceDetectResult r;
    EXPECT_TRUE(d.call(r));
    EXPECT_EQ(d.detections, 2);
    EXPECT_EQ(r.keyPoints[0][0], 2);  // the fresh detection, not the cache
}

TEST(FaceDetectorRateLimit, SlowDetectionDoublesTheInterval)
{
    ScriptedDetector d;
    d.detectionNs = 31 * kMs;
    {
        LogCapture log;
        d.call();
        EXPECT_EQ(d.detectInterval(), 66);
        EXPECT_TRUE(log.contains("@@@face detect main func consume(ms):31, change to new detect duration:66"))
            << log.lines.join("|").toStdString();
    }
    // The gap counts from the call, so the detection's own time is part of it.
    d.nextCallAfter(65);
    d.call();
    EXPECT_EQ(d.detections, 1);
    d.nextCallAfter(66);
    d.detectionNs = 31 * kMs - 1;  // 30.999999 ms
    {
        LogCapture log;
        d.call();
        EXPECT_EQ(d.detections, 2);
        EXPECT_EQ(d.detectInterval(), 33);
        EXPECT_FALSE(log.contains("@@@"));
    }
    // One quick detection restores 33 at once: 33 ms now suffices.
    d.nextCallAfter(33);
    d.call();
    EXPECT_EQ(d.detections, 3);
}

TEST(FaceDetectorRateLimit, SlowDetectionIsMeasuredAroundTheDetectionOnly)
{
    ScriptedDetector d;
    d.detectionNs = 30999000;  // 30.999 ms
    d.call();
    EXPECT_EQ(d.detectInterval(), 33);
    d.nextCallAfter(40);
    d.detectionNs = 31000000;
    d.call();
    EXPECT_EQ(d.detectInterval(), 66);
}

TEST(FaceDetectorRateLimit, NoFaceMeansADetectionEveryCall)
{
    ScriptedDetector d;
    d.withFace = false;
    for (int i = 1; i <= 10; ++i) {
        d.nextCallAfter(1);
        FaceDetectResult r;
        EXPECT_FALSE(d.call(r));
        EXPECT_TRUE(r.faceRects.empty());
        EXPECT_EQ(d.detections, i);
    }
}

TEST(FaceDetectorRateLimit, FaceThatLeavesStaysCachedUntilALongGap)
{
    ScriptedDetector d;
    d.call();
    d.withFace = false;
    for (int i = 0; i < 5; ++i) {
        d.nextCallAfter(10);
        EXPECT_TRUE(d.call());
    }
    EXPECT_EQ(d.detections, 1);
    d.nextCallAfter(40);
    EXPECT_FALSE(d.call());
    EXPECT_EQ(d.detections, 2);
    // The empty result is cached but never served: the next call detects.
    d.nextCallAfter(1);
    EXPECT_FALSE(d.call());
    EXPECT_EQ(d.detections, 3);
}

TEST(FaceDetectorRateLimit, NullImageAndBackwardClockGiveFalse)
{
    ScriptedDetector d;
    d.call();
    const qint64 before = d.lastCall();
    d.nextCallAfter(500);
    FaceDetectResult r;
    EXPECT_FALSE(d.detectFaces(QImage(), r, false));
    EXPECT_EQ(d.lastCall(), before);
    EXPECT_TRUE(r.faceRects.empty());
    EXPECT_EQ(d.detections, 1);

    // A clock that runs backwards: false, no detection, but the call counts.
    d.now = before - 5 * kMs;
    EXPECT_FALSE(d.call(r));
    EXPECT_EQ(d.detections, 1);
    EXPECT_EQ(d.lastCall(), before - 5 * kMs);
    EXPECT_TRUE(r.faceRects.empty());
}

TEST(FaceDetectorRateLimit, DefaultClockNeverRunsBackwards)
{
    struct Plain : FaceDetector {
        int detections = 0;
        qint64 read() const { return clockNs(); }
        qint64 last() const { return lastCallNs; }
        void detectImage(const QImage&, std::vector<cv::Rect>& rects, std::vector<std::vector<int>>&,
                         std::vector<std::vector<float>>&, std::vector<std::vector<float>>&) override
        {
            ++detections;
            rects.emplace_back(0, 0, 10, 10);
        }
    } d;
    EXPECT_LE(d.last(), d.read());
    qint64 previous = d.read();
    for (int i = 0; i < 1000; ++i) {
        const qint64 t = d.read();
        ASSERT_GE(t, previous);
        previous = t;
    }
    QImage img(8, 8, QImage::Format_RGB32);
    FaceDetectResult a;
    EXPECT_TRUE(d.detectFaces(img, a, false));
    EXPECT_EQ(d.detections, 1);
    EXPECT_LE(d.last(), d.read());
}

TEST(FaceDetectorInterface, MetaObjectOrderAndMetaType)
{
    ScriptedDetector d;
    const QMetaObject* mo = d.metaObject();
    // ScriptedDetector adds no meta methods; FaceDetector's own come first.
    const QMetaObject* base = mo->superClass() == &FaceDetector::staticMetaObject ? mo->superClass() : mo;
    const int offset = base->methodOffset();
    const char* expected[] = {"finished", "ready", "newFrameGot", "newImageGot", "faceDetectResultGot",
                              "setModelPath", "start", "stop", "writeSrcFrame", "writeSrcImage"};
    ASSERT_GE(base->methodCount() - offset, 10);
    for (int i = 0; i < 10; ++i) {
        const QMetaMethod m = base->method(offset + i);
        EXPECT_EQ(m.name().toStdString(), expected[i]) << "index " << i;
        EXPECT_EQ(m.methodType(), i < 6 ? QMetaMethod::Signal : QMetaMethod::Slot) << "index " << i;
    }
    EXPECT_EQ(base->method(offset + 4).methodSignature().toStdString(),
              "faceDetectResultGot(FaceDetectResult)");
    EXPECT_NE(QMetaType::type("FaceDetectResult"), static_cast<int>(QMetaType::UnknownType));
}

TEST(FaceDetectorInterface, QueuesKeepOnlyTheNewest)
{
    ScriptedDetector d;
    QImage a(4, 4, QImage::Format_RGB32), b(5, 5, QImage::Format_RGB32), c(6, 6, QImage::Format_RGB32);
    d.writeSrcImage(a);
    d.writeSrcImage(b);
    d.writeSrcImage(c);
    EXPECT_EQ(d.queuedImages(), 1);
    EXPECT_EQ(d.queuedImage().width(), 6);
    d.writeSrcFrame(cv::Mat(2, 2, CV_8UC3));
    d.writeSrcFrame(cv::Mat(3, 3, CV_8UC3));
    EXPECT_EQ(d.queuedFrames(), 1);

    const std::string path = "/models/face.bin";
    d.setModelFile(path);
    EXPECT_EQ(d.model(), path);
}

TEST(FaceDetectorInterface, ProcessRunsQueuedImagesAndQuitStops)
{
    ScriptedDetector d;
    std::vector<FaceDetectResult> got;
    QObject::connect(&d, &FaceDetector::faceDetectResultGot, [&](FaceDetectResult r) { got.push_back(r); });
    QImage img(4, 2, QImage::Format_RGB32);
    img.fill(QColor(255, 0, 0));
    d.writeSrcImage(img);
    d.process();  // the scripted detectFrame asks to stop after one round
    ASSERT_EQ(d.framesSeen.size(), 1u);
    EXPECT_EQ(d.framesSeen[0].type(), CV_8UC3);
    EXPECT_EQ(d.framesSeen[0].at<cv::Vec3b>(0, 0), cv::Vec3b(0, 0, 255));  // blue-green-red
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].faceRects.at(0), cv::Rect(1, 2, 3, 4));
    EXPECT_EQ(d.queuedImages(), 0);

    ScriptedDetector e;
    int finished = 0;
    QObject::connect(&e, &FaceDetector::finished, [&] { ++finished; });
    {
        LogCapture log;
        e.quit();
        EXPECT_TRUE(log.contains("[FaceDetector] Quitting..."));
    }
    EXPECT_TRUE(e.stopping());
    EXPECT_EQ(finished, 1);
    LogCapture log;
    e.process();  // returns at once
    EXPECT_TRUE(log.contains("[FaceDetector] stop process"));
}
