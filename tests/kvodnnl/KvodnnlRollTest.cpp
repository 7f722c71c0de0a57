// Heads that lean: the portrait turned in its picture is found with its key
// points turned with it, and a head that leans further and back call by call
// is followed all the way.
#include <cmath>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <kvodnnl/kvodnnl.h>

#include "Calls.h"

namespace {

using calls::Face;

// The portrait turned by `degrees` about its centre, clockwise as seen, in a
// grey picture of its size; unless `whole`, without the suit (see onCanvas).
cv::Mat turned(double degrees, bool whole = true)
{
    return calls::onCanvas({512, 512}, calls::place(0, 0, degrees), whole);
}

// The line from the left eye's centre to the right one's, in degrees,
// clockwise as seen.
double eyeLine(const Face& f)
{
    return std::atan2(f.points[2 * 97 + 1] - f.points[2 * 96 + 1], f.points[2 * 97] - f.points[2 * 96]) * 180 / M_PI;
}

// What a new detector shows of `picture` once it shows one face.
std::vector<Face> settled(const cv::Mat& picture)
{
    KVOAI::FaceDetector detector(KVOAI::DEFAULT, 1, 1);
    return calls::settle(detector, picture, 1);
}

// The upright portrait's face in the middle of the picture.
Face upright()
{
    const std::vector<Face> faces = settled(turned(0));
    EXPECT_EQ(faces.size(), 1u);
    return faces.empty() ? Face() : faces[0];
}

}  // namespace

// Each turn with a new detector: one face (see `settled`), its eye line and
// its roll within 6 degrees of the upright face's turned by as much, and its
// points near where the turn takes the upright face's: within a quarter of
// its outer eye distance.
TEST(KvodnnlRoll, ATurnedHeadIsFoundWithItsPointsTurned)
{
    const Face still = upright();
    ASSERT_EQ(still.points.size(), 196u);
    const double eyes = QLineF(calls::pt(still, 60), calls::pt(still, 72)).length();
    for (double degrees : {15.0, -15.0, 30.0, -30.0, 40.0, -40.0, 45.0, -45.0}) {
        SCOPED_TRACE("turned by " + std::to_string(degrees));
        const std::vector<Face> faces = settled(turned(degrees));
        EXPECT_EQ(faces.size(), 1u);
        if (faces.size() != 1u)
            continue;
        EXPECT_NEAR(eyeLine(faces[0]), eyeLine(still) + degrees, 6.0);
        EXPECT_NEAR(faces[0].floatsA[2], eyeLine(faces[0]), 6.0);
        EXPECT_LT(calls::worstPoint(faces[0], still, calls::place(0, 0, degrees)) / eyes, 0.25);
    }
}

// One detector, one call a picture: the head (without the suit) leans from
// upright to 45 degrees and back, 3 degrees a call, one way and then the
// other. Once the upright picture shows it (by the fifth call on a quiet
// machine), it is shown at every call, with its eye line within 6 degrees of
// the lean.
TEST(KvodnnlRoll, AHeadLeaningCallByCallIsFollowed)
{
    const Face still = upright();
    ASSERT_EQ(still.points.size(), 196u);
    std::vector<double> leans;
    for (int sign : {1, -1})
        for (int step = 0; step <= 30; ++step)
            leans.push_back(sign * 3.0 * (step <= 15 ? step : 30 - step));
    KVOAI::FaceDetector detector(KVOAI::DEFAULT, 1, 1);
    calls::settle(detector, turned(0, false), 1);
    for (size_t i = 0; i < leans.size(); ++i) {
        const std::vector<Face> faces = detector.Run(turned(leans[i], false), false, false, 1, 1, 50.f);
        ASSERT_EQ(faces.size(), 1u) << "lean " << leans[i] << " at step " << i;
        EXPECT_NEAR(eyeLine(faces[0]), eyeLine(still) + leans[i], 6.0) << "lean " << leans[i] << " at step " << i;
    }
}
