#pragma once
// The scanners of one search task or one search near a face: dlib's HOG face
// detector, cut to the pyramid levels a scan needs, and OpenCV's LBP face
// cascade. They keep scratch state while they scan, so each is used by one
// thread at a time (see ScannerLease in Models.h).
#include <dlib/image_processing/frontal_face_detector.h>
#include <opencv2/objdetect.hpp>

namespace KVOAI::kvodnnl {

using HogDetector = dlib::frontal_face_detector;

struct Scanners {
    HogDetector hog;       // the whole pyramid
    HogDetector hogLevel;  // one level of it
    HogDetector hogNear;   // the first kNearLevels levels
    cv::CascadeClassifier cascade;
    bool hasCascade = false;
};

}  // namespace KVOAI::kvodnnl
