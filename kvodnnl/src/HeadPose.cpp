#include "HeadPose.h"

#include <algorithm>
#include <cmath>
#include <iterator>

#include <opencv2/calib3d.hpp>

namespace KVOAI::kvodnnl {

// Head pose from six landmarks and a generic face in the camera frame of a
// frontal face (x right, y down, z away from the viewer), in units of a fifth
// of a millimetre: outer eye corners 90 mm apart, their depths behind the
// nose tip after common adult measurements, the frontal layout after a fit of
// the landmark model to a frontal portrait.
Pose estimatePose(const std::vector<cv::Point2d>& points, const cv::Size& pictureSize)
{
    // A plain array: no destructor runs at exit under a detector still at work.
    static const cv::Point3d genericFace[] = {
        {0.0, 0.0, 0.0},          // nose tip (54)
        {0.0, 382.0, 100.0},      // chin (16)
        {-225.0, -185.0, 175.0},  // outer corner of the left eye (60)
        {225.0, -185.0, 175.0},   // outer corner of the right eye (72)
        {-170.0, 100.0, 150.0},   // left mouth corner (76)
        {170.0, 100.0, 150.0},    // right mouth corner (82)
    };
    const std::vector<cv::Point3d> generic(std::begin(genericFace), std::end(genericFace));
    const std::vector<cv::Point2d> seen = {points[54], points[16], points[60], points[72], points[76], points[82]};

    const double focal = pictureSize.width;
    const cv::Matx33d camera(focal, 0, pictureSize.width / 2.0, 0, focal, pictureSize.height / 2.0, 0, 0, 1);

    // Start from a frontal face at the distance that the eye span suggests.
    const cv::Point2d span = seen[3] - seen[2];
    const double spanPixels = std::max(1.0, std::hypot(span.x, span.y));
    const double z = focal * 450.0 / spanPixels;
    cv::Mat rvec = (cv::Mat_<double>(3, 1) << 0, 0, 0);
    cv::Mat tvec = (cv::Mat_<double>(3, 1) << (seen[0].x - pictureSize.width / 2.0) * z / focal,
                    (seen[0].y - pictureSize.height / 2.0) * z / focal, z);
    Pose pose;
    if (!cv::solvePnP(generic, seen, camera, cv::noArray(), rvec, tvec, true, cv::SOLVEPNP_ITERATIVE))
        return pose;

    cv::Matx33d R;
    cv::Rodrigues(rvec, R);
    // Measure against the line of sight rather than the camera's axis, so
    // that a face looking into the lens has no pitch or yaw wherever it sits
    // in the picture.
    const cv::Vec3d sight = cv::normalize(cv::Vec3d(tvec.at<double>(0), tvec.at<double>(1), tvec.at<double>(2)));
    const cv::Vec3d axis = cv::Vec3d(0, 0, 1).cross(sight);
    const double sine = cv::norm(axis);
    if (sine > 1e-9) {
        const cv::Vec3d turn = axis * (std::atan2(sine, sight[2]) / sine);
        cv::Matx33d toSight;
        cv::Rodrigues(turn, toSight);
        R = toSight.t() * R;
    }
    // R = Rx(pitch) * Ry(yaw) * Rz(roll)
    const double toDegrees = 180.0 / CV_PI;
    pose.yaw = std::asin(std::max(-1.0, std::min(1.0, R(0, 2)))) * toDegrees;
    pose.pitch = std::atan2(-R(1, 2), R(2, 2)) * toDegrees;
    pose.roll = std::atan2(-R(0, 1), R(0, 0)) * toDegrees;
    return pose;
}

}  // namespace KVOAI::kvodnnl
