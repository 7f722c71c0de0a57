#include "face/DnnFaceDetector.h"

#include <stdexcept>

#include <QDebug>

#include "base/Logging.h"
#include "convert/FrameConverter.h"

namespace {

// Arguments the program always hands to the library.
constexpr KVOAI::ComputeDeviceType kDeviceType = static_cast<KVOAI::ComputeDeviceType>(1);
constexpr unsigned int kCtorArgA = 1;
constexpr unsigned int kCtorArgB = 1;
constexpr bool kRunFlagB = false;
constexpr int kRunArgA = 1;
constexpr int kRunArgB = 1;
constexpr float kRunArgC = 50.0f;

int boxAt(const std::vector<int>& box, size_t i)
{
    if (i >= box.size())
        throw std::out_of_range("invalid vector subscript");
    return box[i];
}

}  // namespace

DnnFaceDetector::DnnFaceDetector() : FaceDetector(nullptr)
{
    if (!detector)
        detector = new KVOAI::FaceDetector(kDeviceType, kCtorArgA, kCtorArgB);
}

DnnFaceDetector::~DnnFaceDetector()
{
    qCInfo(lcFace) << "~DnnFaceDetector()";
    delete detector;
    detector = nullptr;
}

void DnnFaceDetector::detectImage(const QImage& image, std::vector<cv::Rect>& rects,
                                  std::vector<std::vector<int>>& keyPoints, std::vector<std::vector<float>>& triplets,
                                  std::vector<std::vector<float>>& valueLists)
{
    if (image.isNull() || !detector)
        return;
    cv::Mat frame;
    FrameConverter::instance()->qimageToRgbMat(image, frame);
    runDetector(frame, rects, keyPoints, triplets, valueLists);
}

const std::vector<DnnFaceDetector::Face>& DnnFaceDetector::runLibrary(const cv::Mat& frame)
{
    return detector->Run(frame, extraFlag, kRunFlagB, kRunArgA, kRunArgB, kRunArgC);
}

void DnnFaceDetector::runDetector(const cv::Mat& frame, std::vector<cv::Rect>& rects,
                                  std::vector<std::vector<int>>& keyPoints, std::vector<std::vector<float>>& triplets,
                                  std::vector<std::vector<float>>& valueLists)
{
    if (!frame.data || frame.total() == 0 || frame.dims == 0 || !detector)
        return;

    const std::vector<Face> faces = runLibrary(frame);
    lastFaces = faces;

    for (const Face& face : faces) {
        const int left = boxAt(face.box, 0);
        const int top = boxAt(face.box, 1);
        const int right = boxAt(face.box, 2);
        const int bottom = boxAt(face.box, 3);
        rects.emplace_back(left, top, right - left, bottom - top);
        keyPoints.push_back(face.points);
        std::vector<float> triple(3, 0.0f);
        for (size_t i = 0; i < 3 && i < face.triple.size(); ++i)
            triple[i] = static_cast<float>(face.triple[i]);
        triplets.push_back(std::move(triple));
        valueLists.push_back(face.floatsC);
    }
}
