// The face detector of the pipeline: the rate limit of FaceDetector on a
// clock that the test controls, what DnnFaceDetector hands the kvodnnl library
// and how the library's records become FaceDetectResult lists, the portrait
// through the library itself, and the meta-object order of the unused
// queue-and-thread interface.
#include <chrono>
#include <numeric>
#include <stdexcept>
#include <thread>

#include <QMetaMethod>
#include <gtest/gtest.h>

#include "LogCapture.h"
#include "TestUtil.h"
#include "face/DnnFaceDetector.h"

namespace {

using Face = DnnFaceDetector::Face;
constexpr qint64 kMs = 1000000;

// A library record whose points count up from `pointBase`.
Face face(std::vector<int> box, std::vector<int> triple, std::vector<float> score, int pointBase = 0)
{
    Face f{std::vector<int>(196), std::move(box), std::move(triple), {1.f}, {}, std::move(score)};
    std::iota(f.points.begin(), f.points.end(), pointBase);
    return f;
}

// The library call returns `faces` and takes `detectionNs` on the test's clock
// `now`, or on the detector's own with `realClock`.
class Scripted : public DnnFaceDetector {
public:
    bool realClock = false;
    qint64 now = 0, detectionNs = 0;
    int detections = 0;
    std::vector<Face> faces;
    std::vector<cv::Mat> seen;  // what the library was given
    qint64 lastCall() const { return lastCallNs; }

protected:
    qint64 clockNs() const override { return realClock ? FaceDetector::clockNs() : now; }
    const std::vector<Face>& runLibrary(const cv::Mat& frame) override
    {
        ++detections;
        now += detectionNs;
        seen.push_back(frame.clone());
        return faces;
    }
};

}  // namespace

// Each step: the gap since the last call (negative: the clock ran back), how
// long the detection takes, whether it finds the face; then what the call
// returns, the detections so far and the interval. `repeat` runs a step
// that many times, checking the totals after the last.
TEST(FaceDetectorRateLimit, ScriptsOnAControlledClock)
{
    struct Step { double gapMs, detectionMs; bool face, returns; int detections, interval, repeat = 1;
                  bool nullImage = false; };
    const std::pair<const char*, std::vector<Step>> scripts[] = {
        {"the first call detects, close frames get the cache",
         {{0, 0, true, true, 1, 33}, {20, 0, true, true, 1, 33, 3000}}},
        {"the gap counts in whole milliseconds: a clock less than one back is no gap",
         {{0, 0, true, true, 1, 33}, {32, 0, true, true, 1, 33}, {32.999999, 0, true, true, 1, 33},
          {-0.999999, 0, true, true, 1, 33}, {33, 0, true, true, 2, 33}}},
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
    for (const auto& [label, steps] : scripts) {
        Scripted d;
        for (size_t i = 0; i < steps.size(); ++i) {
            const Step& s = steps[i];
            SCOPED_TRACE(std::string(label) + ", step " + std::to_string(i));
            for (int r = 0; r < s.repeat; ++r) {
                // A detection's record carries its number in its points.
                d.faces = s.face ? std::vector<Face>{face({100, 50, 180, 140}, {1, 2, 3}, {.9f}, d.detections + 1)}
                                 : std::vector<Face>{};
                d.detectionNs = static_cast<qint64>(s.detectionMs * kMs);
                const qint64 before = d.lastCall(), callAt = d.now = before + static_cast<qint64>(s.gapMs * kMs);
                LogCapture log;
                FaceDetectResult got;
                ASSERT_EQ(d.detectFaces(s.nullImage ? QImage() : QImage(64, 48, QImage::Format_RGB32), got, false),
                          s.returns);
                EXPECT_EQ(d.lastCall(), s.nullImage ? before : callAt);
                // A true call hands over the newest detection, a false one nothing.
                EXPECT_EQ(got.keyPoints,
                          std::vector<std::vector<int>>(s.returns, face({}, {}, {}, d.detections).points));
                EXPECT_EQ(log.all(), s.detectionMs < 31 ? std::string() : "@@@face detect main func consume(ms):"
                              + std::to_string(int(s.detectionMs)) + ", change to new detect duration:66");
            }
            EXPECT_EQ(d.detections, s.detections);
            EXPECT_EQ(d.detectInterval(), s.interval);
        }
    }
}

TEST(FaceDetectorRateLimit, DefaultClockCountsNanosecondsFromConstruction)
{
    Scripted d;
    d.realClock = true;
    d.faces = {face({0, 0, 10, 10}, {0, 0, 0}, {})};
    FaceDetectResult first, later;
    EXPECT_TRUE(d.detectFaces(QImage(8, 8, QImage::Format_RGB32), first, false));
    std::this_thread::sleep_for(std::chrono::milliseconds(40));
    EXPECT_TRUE(d.detectFaces(QImage(8, 8, QImage::Format_RGB32), later, false));
    EXPECT_EQ(d.detections, 2) << "the first call detects, and 40 ms later the cache is too old";
}

TEST(DnnFaceDetector, WholePicturesRedFirstInLibraryRecordsOut)
{
    Scripted d;
    d.faces = {face({10, 20, 110, 220}, {3, -1, 2}, {.75f}), face({-5, 300, 60, 380}, {-10, 20, -30}, {.5f, .2f}, 9)};
    FaceDetectResult r;
    for (const QImage& refused : {QImage(), QImage(16, 16, QImage::Format_Mono)})
        d.detectImage(refused, r.faceRects, r.keyPoints, r.faceTriplets, r.faceValueLists);
    EXPECT_EQ(d.detections, 0);
    // The lists are appended to.
    r.faceRects = {{9, 9, 9, 9}};
    QImage image(31, 17, QImage::Format_ARGB32);
    image.fill(QColor(250, 10, 20));
    d.detectImage(image, r.faceRects, r.keyPoints, r.faceTriplets, r.faceValueLists);
    ASSERT_EQ(d.seen.size(), 1u);
    ASSERT_EQ(d.seen[0].size(), cv::Size(31, 17));
    ASSERT_EQ(d.seen[0].type(), CV_8UC4);
    EXPECT_EQ(d.seen[0].at<cv::Vec4b>(16, 30), cv::Vec4b(250, 10, 20, 255));
    // Right and bottom become width and height, with no clipping.
    EXPECT_EQ(r.faceRects, (std::vector<cv::Rect>{{9, 9, 9, 9}, {10, 20, 100, 200}, {-5, 300, 65, 80}}));
    EXPECT_EQ(r.keyPoints, (std::vector<std::vector<int>>{d.faces[0].points, d.faces[1].points}));
    EXPECT_EQ(r.faceTriplets, (std::vector<std::vector<float>>{{3, -1, 2}, {-10, 20, -30}}));
    EXPECT_EQ(r.faceValueLists, (std::vector<std::vector<float>>{{.75f}, {.5f, .2f}}));
    d.faces = {face({1, 2, 3}, {0, 0, 0}, {})};  // a box without its fourth number
    EXPECT_THROW(d.detectImage(image, r.faceRects, r.keyPoints, r.faceTriplets, r.faceValueLists), std::out_of_range);
}

TEST(DnnFaceDetector, FindsThePortraitThroughTheLibrary)
{
    const QImage portrait = testutil::portrait(QImage::Format_RGB32);
    for (QImage::Format format : {QImage::Format_RGB32, QImage::Format_RGB888, QImage::Format_RGBA8888}) {
        SCOPED_TRACE(format);
        DnnFaceDetector d;
        FaceDetectResult r;
        // The library shows a new picture's faces within a few calls (by the
        // fifth on a quiet machine), at 30 calls a second as a camera hands
        // them in.
        int calls = 0;
        while (!d.detectFaces(portrait.convertToFormat(format), r, false) && ++calls < 300)
            std::this_thread::sleep_for(std::chrono::milliseconds(33));
        ASSERT_LT(calls, 300) << "no face in 300 calls";
        ASSERT_EQ(r.faceRects.size(), 1u);
        ASSERT_EQ(r.keyPoints[0].size(), 196u);
        // A box round the face, the eye centres inside it.
        const cv::Rect box = r.faceRects[0];
        const std::vector<int>& p = r.keyPoints[0];
        EXPECT_TRUE(box.contains({p[192], p[193]})) << "left eye";
        EXPECT_TRUE(box.contains({p[194], p[195]})) << "right eye";
        EXPECT_NEAR(box.x + box.width / 2, 228, 12);
        EXPECT_NEAR(box.y + box.height / 2, 126, 12);
    }
}

TEST(FaceDetectorInterface, MetaObjectOrder)
{
    const QMetaObject& mo = FaceDetector::staticMetaObject;
    const char* kinds[] = {"method ", "signal ", "slot ", "constructor "};
    QStringList methods;
    for (int i = mo.methodOffset(); i < mo.methodCount(); ++i)
        methods << kinds[mo.method(i).methodType()] + mo.method(i).methodSignature();
    EXPECT_EQ(methods.join(", ").toStdString(),
              "signal finished(), signal ready(), signal newFrameGot(cv::Mat), signal newImageGot(QImage), "
              "signal faceDetectResultGot(FaceDetectResult), signal setModelPath(std::string), slot start(), "
              "slot stop(), slot writeSrcFrame(cv::Mat), slot writeSrcImage(QImage)");
}
