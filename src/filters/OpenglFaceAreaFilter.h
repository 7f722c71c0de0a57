#pragma once
// Skin smoothing (SMOOTH) and lip colouring (REDLIPS): one class, one object
// per filter type, one shader that branches on the uniform filterType, which
// the worker sets.

#include "filters/BeautyFilterBase.h"

class OpenglFaceAreaFilter : public BeautyFilterBase {
    Q_OBJECT
public:
    OpenglFaceAreaFilter();
    ~OpenglFaceAreaFilter() override;

    cv::Rect expandFaceArea(cv::Rect rect, int width, int height) override;
    // smoothStrength = strength * 1.5 / 100; redLipsStrength = strength / 800;
    // smooth_face_area = face area normalised by the frame size.
    void setUniforms(QOpenGLShaderProgram* program, ParaMap paras, int width, int height) override;
};
