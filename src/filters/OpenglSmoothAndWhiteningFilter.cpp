#include "filters/OpenglSmoothAndWhiteningFilter.h"

#include <QDebug>
#include <QOpenGLShaderProgram>

#include "base/Logging.h"
#include "lumen_fx/ImageFilterTypes.h"
#include "shader/UniformCache.h"

namespace {
// Differs from the whitening filter only in the near-side y test.
const FaceAreaExpansion kSmoothWhiteningRule{-0.3f, 0.1f, 1.3f, 1.3f, 1.0f};
}

OpenglSmoothAndWhiteningFilter::OpenglSmoothAndWhiteningFilter()
{
    paras_[smooth_whitening_strength] = 0;
    paras_[face_area_x] = 0;
    paras_[face_area_y] = 0;
    paras_[face_area_width] = 0;
    paras_[face_area_height] = 0;
}

OpenglSmoothAndWhiteningFilter::~OpenglSmoothAndWhiteningFilter()
{
    qCInfo(lcFilters) << "~OpenglSmoothAndWhiteningFilter()";
    if (renderer) {
        delete renderer;
        renderer = nullptr;
    }
}

cv::Rect OpenglSmoothAndWhiteningFilter::expandFaceArea(cv::Rect rect, int width, int height)
{
    return expandFaceAreaWith(rect, width, height, kSmoothWhiteningRule);
}

void OpenglSmoothAndWhiteningFilter::setUniforms(QOpenGLShaderProgram* program, ParaMap paras, int width,
                                                 int height)
{
    if (!program)
        return;
    auto strength = paras.find(smooth_whitening_strength);
    if (strength != paras.end()) {
        const float v = static_cast<float>(strength->second);
        uniforms::set(program, "redden", 0.0f);
        uniforms::set(program, "whitening", v / 100);
        uniforms::set(program, "smoothStrength", v / 100);
        uniforms::set(program, "pinking", 0.0f);
    }

    const float x = static_cast<float>(paras[face_area_x]) / width;
    const float y = static_cast<float>(paras[face_area_y]) / height;
    const float w = static_cast<float>(paras[face_area_width]) / width;
    const float h = static_cast<float>(paras[face_area_height]) / height;
    uniforms::set(program, "whitening_face_area", x, y, w, h);
    uniforms::set(program, "smooth_face_area", x, y, w, h);
}

void OpenglSmoothAndWhiteningFilter::filter(cv::Mat& src, cv::Mat& dst, ParaMap paras,
                                            const FaceDetectResult& result)
{
    setParas(paras);
    filter(src, dst, result);
}

void OpenglSmoothAndWhiteningFilter::filter(cv::Mat& src, cv::Mat&, const FaceDetectResult& result)
{
    if (!src.data || src.dims == 0 || src.total() == 0)
        return;
    const std::vector<ParaMap> faces = collectFaceAreas(src, result);
    if (!faces.empty()) {
        handPictureToRenderer(renderer, src.data, src.cols, src.rows, "OpenglSmoothAndWhiteningFilter::filter");
        return;
    }
    writeFaceArea(cv::Rect(0, 0, src.cols, src.rows));
    handPictureToRenderer(renderer, src.data, src.cols, src.rows, "OpenglSmoothAndWhiteningFilter::filter");
}

void OpenglSmoothAndWhiteningFilter::filter(const QImage& src, QImage& dst, const FaceDetectResult& result)
{
    filterImageThroughMat(src, dst, [this, &result](cv::Mat& s, cv::Mat& d) { filter(s, d, result); });
}

void OpenglSmoothAndWhiteningFilter::filter(AVFrame* src, AVFrame* dst, const FaceDetectResult& result)
{
    filterFrameThroughMat(
        src, dst, [this, &result](cv::Mat& s, cv::Mat& d) { filter(s, d, result); }, "OpenglSmoothAndWhiteningFilter::filter");
}
