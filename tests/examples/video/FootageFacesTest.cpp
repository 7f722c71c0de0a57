// The sample footage's face as the detector sees it while the camera pans,
// zooms in and out and tilts: each picture is the last one seen by a camera
// that moved, not a new scene, and the face's key points stay on it.
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include <QImage>
#include <QLineF>
#include <gtest/gtest.h>
#include <kvodnnl/kvodnnl.h>
#include <opencv2/imgproc.hpp>

#include "Signature.h"
#include "SampleFootage.h"
#include "TestUtil.h"
#include "kvodnnl/Calls.h"

namespace {

using Face = KVOAI::FaceDetector::Face;

constexpr double kSeconds = 8.0;
constexpr double kFps = 25.0;

cv::Mat greyOf(const QImage& image)
{
    cv::Mat grey;
    cv::cvtColor(calls::rgb(image), grey, cv::COLOR_RGB2GRAY);
    return grey;
}

// Centre of the eye whose centre point is `index` (96 or 97).
QPointF eye(const Face& f, int index) { return QPointF(f.points[2 * index], f.points[2 * index + 1]); }

}  // namespace

// Pictures one and two frames apart, all along the clip (pan, zoom in to 1.8
// and back out, tilt), are the last picture seen by a camera that moved; the
// next picture seen in a mirror is not.
TEST(FootageFaces, ACameraThatZoomsAndTiltsIsNoNewScene)
{
    const QImage portrait = testutil::portrait(QImage::Format_RGB888);
    const SampleFootage footage(portrait, QSize(1280, 720), kSeconds);
    for (double t = 0.2; t < kSeconds - 0.2; t += 0.4) {
        SCOPED_TRACE("at " + std::to_string(t) + " s, zoom " + std::to_string(footage.zoom(t)));
        const cv::Mat now = greyOf(footage.frame(t));
        EXPECT_TRUE(KVOAI::kvodnnl::movedAsAWhole(now, greyOf(footage.frame(t + 1 / kFps))));
        EXPECT_TRUE(KVOAI::kvodnnl::movedAsAWhole(now, greyOf(footage.frame(t + 2 / kFps))));
        cv::Mat mirrored;
        cv::flip(greyOf(footage.frame(t + 1 / kFps)), mirrored, 1);
        EXPECT_FALSE(KVOAI::kvodnnl::movedAsAWhole(now, mirrored));
    }
}

// Once the detector shows the face in the clip's first picture (handed in
// until it does, as a still camera would), it shows it in every call while
// the clip plays at its own rate, with both eye centres within a tenth of the
// eye distance of where the camera took the portrait's.
TEST(FootageFaces, TheFaceIsFollowedWhileTheCameraZooms)
{
    const QImage portrait = testutil::portrait(QImage::Format_RGB888);
    Face truth;
    {
        KVOAI::FaceDetector still(KVOAI::DEFAULT, 1, 1);
        const std::vector<Face> faces = calls::settle(still, calls::rgb(portrait), 1);
        ASSERT_EQ(faces.size(), 1u);
        truth = faces[0];
    }
    const SampleFootage footage(portrait, QSize(1280, 720), kSeconds);
    KVOAI::FaceDetector detector(KVOAI::DEFAULT, 1, 1);
    ASSERT_EQ(calls::settle(detector, calls::rgb(footage.frame(0)), 1).size(), 1u);
    double worst = 0;
    // Every other frame of the clip: the camera moves twice as far between
    // two calls as at the clip's own rate.
    for (double t = 2 / kFps; t < kSeconds; t += 2 / kFps) {
        const cv::Mat frame = calls::rgb(footage.frame(t));
        const auto next = std::chrono::steady_clock::now() + std::chrono::milliseconds(40);
        const std::vector<Face> faces = detector.Run(frame, false, false, 1, 1, 50.f);
        SCOPED_TRACE("at " + std::to_string(t) + " s, zoom " + std::to_string(footage.zoom(t)));
        ASSERT_EQ(faces.size(), 1u);
        const QPointF a = footage.toFrame(eye(truth, 96), t), b = footage.toFrame(eye(truth, 97), t);
        const double eyes = QLineF(a, b).length();
        worst = std::max({worst, QLineF(eye(faces[0], 96), a).length() / eyes,
                          QLineF(eye(faces[0], 97), b).length() / eyes});
        std::this_thread::sleep_until(next);
    }
    EXPECT_LT(worst, 0.1);
}
