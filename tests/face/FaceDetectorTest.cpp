// The rate limit of FaceDetector, run on a clock and a detection that the
// test controls, and its unused queue-and-thread interface.
#include <QMetaMethod>
#include <gtest/gtest.h>

#include "LogCapture.h"
#include "face/FaceDetector.h"

namespace {

constexpr qint64 kMs = 1000000;

class ScriptedDetector : public FaceDetector {
public:
    ScriptedDetector() { now = lastCallNs = 5000 * kMs; }

    qint64 now = 0;
    qint64 detectionNs = 0;  // how long each detection takes on the clock
    bool withFace = true;
    int detections = 0;
    std::vector<cv::Mat> framesSeen;

    qint64 lastCall() const { return lastCallNs; }
    const QList<QImage>& queuedImages() const { return srcImages; }
    int queuedFrames() const { return srcFrames.size(); }
    const std::string& model() const { return modelPath; }
    bool stopping() const { return stopRequested; }

protected:
    qint64 clockNs() const override { return now; }

    // Each detection is told apart by its key points.
    void detectImage(const QImage&, std::vector<cv::Rect>& rects, std::vector<std::vector<int>>& keyPoints,
                     std::vector<std::vector<float>>& triplets, std::vector<std::vector<float>>& values) override
    {
        ++detections;
        now += detectionNs;
        if (!withFace)
            return;
        rects.emplace_back(100, 50, 80, 90);
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

// Each step: the gap since the last call (negative: the clock ran back), how
// long the detection takes, whether it finds the face; then what the call
// returns, the detections so far and the interval. `repeat` runs a step
// that many times, checking the totals after the last.
TEST(FaceDetectorRateLimit, ScriptsOnAControlledClock)
{
    struct Step {
        double gapMs, detectionMs;
        bool face, returns;
        int detections, interval, repeat = 1;
        bool nullImage = false;
    };
    struct Script {
        const char* label;
        std::vector<Step> steps;
    } scripts[] = {
        {"the first call detects, close frames get the cache",
         {{0, 0, true, true, 1, 33}, {20, 0, true, true, 1, 33, 3000}}},
        {"the gap counts in whole milliseconds",
         {{0, 0, true, true, 1, 33}, {32, 0, true, true, 1, 33}, {32.999999, 0, true, true, 1, 33},
          {33, 0, true, true, 2, 33}}},
        {"a slow detection doubles the interval, counted from the call, until a quick one",
         {{0, 31, true, true, 1, 66}, {65, 0, true, true, 1, 66}, {66, 30.999999, true, true, 2, 33},
          {33, 0, true, true, 3, 33}}},
        {"only the detection itself is timed", {{0, 30.999, true, true, 1, 33}, {40, 31, true, true, 2, 66}}},
        {"no face: a detection every call", {{1, 0, false, false, 10, 33, 10}}},
        {"a face that leaves stays cached until a long gap; an empty result is never served",
         {{0, 0, true, true, 1, 33}, {10, 0, false, true, 1, 33, 5}, {40, 0, false, false, 2, 33},
          {1, 0, false, false, 3, 33}}},
        {"a null picture is refused and leaves the clock",
         {{0, 0, true, true, 1, 33}, {500, 0, true, false, 1, 33, 1, true}, {40, 0, true, true, 2, 33}}},
        {"a clock that runs back gives false, no detection, but the call counts",
         {{0, 0, true, true, 1, 33}, {-5, 0, true, false, 1, 33}, {20, 0, true, true, 1, 33}}},
    };
    for (const Script& script : scripts) {
        ScriptedDetector d;
        FaceDetectResult fresh;
        for (size_t i = 0; i < script.steps.size(); ++i) {
            const Step& s = script.steps[i];
            SCOPED_TRACE(std::string(script.label) + ", step " + std::to_string(i));
            for (int r = 0; r < s.repeat; ++r) {
                d.detectionNs = static_cast<qint64>(s.detectionMs * kMs);
                d.withFace = s.face;
                const qint64 before = d.lastCall();
                d.now = before + static_cast<qint64>(s.gapMs * kMs);
                const qint64 callAt = d.now;
                const int detectionsBefore = d.detections;
                LogCapture log;
                FaceDetectResult got;
                ASSERT_EQ(d.detectFaces(s.nullImage ? QImage() : QImage(64, 48, QImage::Format_RGB32), got, false),
                          s.returns);
                EXPECT_EQ(d.lastCall(), s.nullImage ? before : callAt);
                const bool detected = d.detections > detectionsBefore;
                if (detected)
                    fresh = got;
                if (s.returns) {
                    ASSERT_EQ(got.keyPoints.size(), 1u);
                    EXPECT_EQ(got.keyPoints[0][0], d.detections) << "the newest detection";
                    EXPECT_EQ(got.faceRects, fresh.faceRects);
                    EXPECT_EQ(got.faceTriplets, fresh.faceTriplets);
                    EXPECT_EQ(got.faceValueLists, fresh.faceValueLists);
                } else {
                    EXPECT_TRUE(got.faceRects.empty());
                }
                const QString slow = QString("@@@face detect main func consume(ms):%1, change to new detect "
                                             "duration:66").arg(static_cast<int>(s.detectionMs));
                EXPECT_EQ(log.count("@@@"), detected && s.detectionMs >= 31 ? 1 : 0) << log.all();
                EXPECT_EQ(log.count(slow), detected && s.detectionMs >= 31 ? 1 : 0) << log.all();
            }
            EXPECT_EQ(d.detections, s.detections);
            EXPECT_EQ(d.detectInterval(), s.interval);
        }
    }
}

TEST(FaceDetectorRateLimit, DefaultClockIsMonotonicFromConstruction)
{
    struct Plain : FaceDetector {
        qint64 read() const { return clockNs(); }
        qint64 last() const { return lastCallNs; }
        void detectImage(const QImage&, std::vector<cv::Rect>& rects, std::vector<std::vector<int>>&,
                         std::vector<std::vector<float>>&, std::vector<std::vector<float>>&) override
        {
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
    FaceDetectResult r;
    EXPECT_TRUE(d.detectFaces(QImage(8, 8, QImage::Format_RGB32), r, false)) << "the first call detects";
    EXPECT_LE(d.last(), d.read());
}

TEST(FaceDetectorInterface, MetaObjectOrderQueuesAndLoop)
{
    const QMetaObject& mo = FaceDetector::staticMetaObject;
    const char* expected[] = {"finished", "ready", "newFrameGot", "newImageGot", "faceDetectResultGot",
                              "setModelPath", "start", "stop", "writeSrcFrame", "writeSrcImage"};
    ASSERT_GE(mo.methodCount() - mo.methodOffset(), 10);
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(mo.method(mo.methodOffset() + i).name().toStdString(), expected[i]) << i;
        EXPECT_EQ(mo.method(mo.methodOffset() + i).methodType(), i < 6 ? QMetaMethod::Signal : QMetaMethod::Slot) << i;
    }
    EXPECT_EQ(mo.method(mo.methodOffset() + 4).methodSignature(), QByteArray("faceDetectResultGot(FaceDetectResult)"));

    // The queues keep only the newest entry.
    ScriptedDetector d;
    for (int size : {4, 5, 6})
        d.writeSrcImage(QImage(size, size, QImage::Format_RGB32));
    ASSERT_EQ(d.queuedImages().size(), 1);
    EXPECT_EQ(d.queuedImages()[0].width(), 6);
    d.writeSrcFrame(cv::Mat(2, 2, CV_8UC3));
    d.writeSrcFrame(cv::Mat(3, 3, CV_8UC3));
    EXPECT_EQ(d.queuedFrames(), 1);
    d.setModelFile("/models/face.bin");
    EXPECT_EQ(d.model(), "/models/face.bin");

    // The loop takes the queued picture blue-green-red and signals the result.
    std::vector<FaceDetectResult> got;
    QObject::connect(&d, &FaceDetector::faceDetectResultGot, [&](FaceDetectResult r) { got.push_back(r); });
    QImage red(4, 2, QImage::Format_RGB32);
    red.fill(QColor(255, 0, 0));
    d.writeSrcImage(red);
    d.process();
    ASSERT_EQ(d.framesSeen.size(), 1u);
    ASSERT_EQ(d.framesSeen[0].type(), CV_8UC3);
    EXPECT_EQ(d.framesSeen[0].at<cv::Vec3b>(0, 0), cv::Vec3b(0, 0, 255));
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].faceRects.at(0), cv::Rect(1, 2, 3, 4));
    EXPECT_TRUE(d.queuedImages().isEmpty());

    // quit stops the loop before it starts.
    ScriptedDetector e;
    int finished = 0;
    QObject::connect(&e, &FaceDetector::finished, [&] { ++finished; });
    LogCapture log;
    e.quit();
    EXPECT_TRUE(e.stopping());
    EXPECT_EQ(finished, 1);
    e.process();
    EXPECT_TRUE(log.contains("[FaceDetector] Quitting...") && log.contains("[FaceDetector] stop process")) << log.all();
    EXPECT_TRUE(e.framesSeen.empty());
}
