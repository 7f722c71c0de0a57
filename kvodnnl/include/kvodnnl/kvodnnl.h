#pragma once
// kvodnnl: face detection with boxes and 98 key points per face.

#include <vector>

#include <opencv2/core.hpp>

#if defined(KVODNNL_BUILDING)
#define KVODNNL_API __attribute__((visibility("default")))
#else
#define KVODNNL_API
#endif

namespace KVOAI {

enum ComputeDeviceType : int {
    CPU = 0,
    DEFAULT = 1,
    GPU = 2,
};

class FaceDetectorImpl;

class KVODNNL_API FaceDetector {
public:
    struct Face {
        std::vector<int> points;     // 98 points, interleaved x, y
        std::vector<int> box;        // left, top, right, bottom
        std::vector<int> triple;     // pitch, yaw, roll in whole degrees
        std::vector<float> floatsA;
        std::vector<float> floatsB;
        std::vector<float> floatsC;  // detection score
        float valueA = 0.f;
        float valueB = 0.f;
    };

    FaceDetector(ComputeDeviceType device, unsigned int a, unsigned int b);
    ~FaceDetector();
    FaceDetector(const FaceDetector&) = delete;
    FaceDetector& operator=(const FaceDetector&) = delete;

    const std::vector<Face>& Run(const cv::Mat& image, bool flagA, bool flagB, int a, int b, float c);

private:
    FaceDetectorImpl* impl_;
};

}  // namespace KVOAI
