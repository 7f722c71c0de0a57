#pragma once
// Face detection behind a rate limit.

#include <QImage>
#include <QObject>

#include "face/FaceDetectResult.h"

class DnnFaceDetector : public QObject {
    Q_OBJECT
public:
    DnnFaceDetector() = default;
    ~DnnFaceDetector() override = default;

    bool detectFaces(const QImage& image, FaceDetectResult& result, bool extraFlag)
    {
        Q_UNUSED(image);
        Q_UNUSED(result);
        Q_UNUSED(extraFlag);
        return false;
    }
    virtual void resetState() {}
};
