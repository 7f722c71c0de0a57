#pragma once
// Whitening (WHITENING): lightens and warms the whole picture. Its result does
// not depend on face geometry, so it also runs on frames without a face.

#include "filters/BeautyFilterBase.h"

class OpenglWhiteningFilter : public BeautyFilterBase {
    Q_OBJECT
public:
    OpenglWhiteningFilter();
    ~OpenglWhiteningFilter() override;

    cv::Rect expandFaceArea(cv::Rect rect, int width, int height) override;
    // whitening = strength / 100, pinking = strength / 100, redden = strength / 200;
    // whitening_face_area = face area normalised by the frame size.
    void setUniforms(QOpenGLShaderProgram* program, ParaMap paras, int width, int height) override;

    // CPU path. Marks the face areas of `result` in the parameters and hands
    // the picture to the renderer, if there is one; `dst` is not written.
    virtual void filter(cv::Mat& src, cv::Mat& dst, ParaMap paras, const FaceDetectResult& result);
    virtual void filter(cv::Mat& src, cv::Mat& dst, const FaceDetectResult& result);
    // The same routine on a QImage (through a BGR Mat) and on an AVFrame (the
    // result is copied into `dst` when its size and format match).
    virtual void filter(const QImage& src, QImage& dst, const FaceDetectResult& result);
    virtual void filter(AVFrame* src, AVFrame* dst, const FaceDetectResult& result);

protected:
    QObject* renderer = nullptr;  // owned CPU-path GPU worker; nothing sets it
};
