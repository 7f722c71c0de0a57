#pragma once
// Smoothing and whitening under one strength (SMOOTHWHITENING). It has no
// shader of its own: setUniforms drives the uniforms of both the smoothing and
// the whitening shader, on whichever program the worker passes.

#include "filters/BeautyFilterBase.h"

class OpenglSmoothAndWhiteningFilter : public BeautyFilterBase {
    Q_OBJECT
public:
    OpenglSmoothAndWhiteningFilter();
    ~OpenglSmoothAndWhiteningFilter() override;

    cv::Rect expandFaceArea(cv::Rect rect, int width, int height) override;
    // smoothStrength = whitening = strength / 100, redden = pinking = 0;
    // smooth_face_area = whitening_face_area = normalised face area.
    void setUniforms(QOpenGLShaderProgram* program, ParaMap paras, int width, int height) override;

    // CPU path, the same as the whitening filter's.
    virtual void filter(cv::Mat& src, cv::Mat& dst, ParaMap paras, const FaceDetectResult& result);
    virtual void filter(cv::Mat& src, cv::Mat& dst, const FaceDetectResult& result);
    // The same routine on a QImage (through a BGR Mat) and on an AVFrame (the
    // result is copied into `dst` when its size and format match).
    virtual void filter(const QImage& src, QImage& dst, const FaceDetectResult& result);
    virtual void filter(AVFrame* src, AVFrame* dst, const FaceDetectResult& result);

protected:
    QObject* renderer = nullptr;  // owned CPU-path GPU worker; nothing sets it
};
