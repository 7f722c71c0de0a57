#include "kvodnnl/kvodnnl.h"

namespace KVOAI {

class FaceDetectorImpl {
public:
    std::vector<FaceDetector::Face> faces;
};

FaceDetector::FaceDetector(ComputeDeviceType, unsigned int, unsigned int) : impl_(new FaceDetectorImpl) {}

FaceDetector::~FaceDetector() { delete impl_; }

const std::vector<FaceDetector::Face>& FaceDetector::Run(const cv::Mat&, bool, bool, int, int, float)
{
    impl_->faces.clear();
    return impl_->faces;
}

}  // namespace KVOAI
