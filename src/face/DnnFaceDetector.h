#pragma once
// Face detection through the kvodnnl library: the library's records become the
// four lists of FaceDetectResult, in the library's order and in the pixels of
// the picture passed in.

#include <string>
#include <vector>

#include <QList>
#include <QMutex>
#include <opencv2/core.hpp>

#include <kvodnnl/kvodnnl.h>

#include "face/FaceDetector.h"

class DnnFaceDetector : public FaceDetector {
    Q_OBJECT
public:
    using Face = KVOAI::FaceDetector::Face;

    DnnFaceDetector();
    ~DnnFaceDetector() override;

    void detectImage(const QImage& image, std::vector<cv::Rect>& rects, std::vector<std::vector<int>>& keyPoints,
                     std::vector<std::vector<float>>& triplets,
                     std::vector<std::vector<float>>& valueLists) override;

    virtual void runDetector(const cv::Mat& frame, std::vector<cv::Rect>& rects,
                             std::vector<std::vector<int>>& keyPoints, std::vector<std::vector<float>>& triplets,
                             std::vector<std::vector<float>>& valueLists);

protected:
    // The one library call: the picture with the program's fixed arguments.
    virtual const std::vector<Face>& runLibrary(const cv::Mat& frame);

    bool detectorReady = false;
    QList<cv::Mat> pendingFrames;
    QMutex detectMutex;
    std::string modelDir;
    std::vector<Face> lastFaces;
    KVOAI::FaceDetector* detector = nullptr;
    std::vector<qint32> scratch;
};
