#pragma once
// Slim face (SLIMFACE): narrows the jaw by pulling 22 contour points towards
// the middle of the face in the fragment shader. Key points and the face area
// are passed in pixels.

#include "filters/BeautyFilterBase.h"

class OpenglSlimFaceFilter : public BeautyFilterBase {
    Q_OBJECT
public:
    OpenglSlimFaceFilter();
    ~OpenglSlimFaceFilter() override;

    // The face area filter's rule.
    cv::Rect expandFaceArea(cv::Rect rect, int width, int height) override;
    // slimStrength = strength / 100; textureWidth/Height = frame size;
    // slim_face_area = face area in pixels.
    void setUniforms(QOpenGLShaderProgram* program, ParaMap paras, int width, int height) override;

    // CPU path: marks the face areas and hands the picture to the renderer, if
    // there is one; without one `dst` becomes a copy of `src`.
    virtual void filter(cv::Mat& src, cv::Mat& dst, ParaMap paras, const FaceDetectResult& result);
    virtual void filter(cv::Mat& src, cv::Mat& dst, const FaceDetectResult& result);
    // The same routine on a QImage (through a BGR Mat) and on an AVFrame (the
    // result is copied into `dst` when its size and format match).
    virtual void filter(const QImage& src, QImage& dst, const FaceDetectResult& result);
    virtual void filter(AVFrame* src, AVFrame* dst, const FaceDetectResult& result);

protected:
    QObject* renderer = nullptr;  // owned CPU-path GPU worker; nothing sets it
};
