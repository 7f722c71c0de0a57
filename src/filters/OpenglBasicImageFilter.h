#pragma once
// Colour and geometry of a whole channel picture (BASICIMAGE): brightness,
// contrast, saturation and opacity go to the shader as uniforms; scale,
// rotation, mirroring, corners, round camera, clipping, placement and page
// size are kept in the base's fields, from which the channel worker builds
// the geometry of its picture pass.

#include "filters/BeautyFilterBase.h"

class OpenglBasicImageFilter : public BeautyFilterBase {
    Q_OBJECT
public:
    OpenglBasicImageFilter();
    ~OpenglBasicImageFilter() override;

    // Each key present in `paras` sets its uniform or field; the uniforms
    // only with a program. `width` and `height` are not read.
    void setUniforms(QOpenGLShaderProgram* program, ParaMap paras, int width, int height) override;

    // The opacity curve: a * log10(100 / (10 a + 1))^2, and 1 at exactly 1.
    static float opacity(float a);

    // CPU path: `dst` takes a copy of `src`, its width cut to a multiple of 4
    // (pictures narrower than 4 stay as they are), and goes to the renderer
    // if there is one.
    virtual void filter(cv::Mat& src, cv::Mat& dst, const FaceDetectResult& result);
    virtual void filter(const QImage& src, QImage& dst, const FaceDetectResult& result);
    virtual void filter(AVFrame* src, AVFrame* dst, const FaceDetectResult& result);

protected:
    QObject* renderer = nullptr;  // owned CPU-path GPU worker; nothing sets it
};
