#include "filters/OpenglSlimFaceFilter.h"

#include <QDebug>
#include <QOpenGLShaderProgram>

#include "base/Logging.h"
#include "lumen_fx/ImageFilterTypes.h"
#include "shader/UniformCache.h"

namespace {
const FaceAreaExpansion kSlimFaceRule{-0.2f, -0.2f, 1.2f, 1.2f, 0.2f};
}

OpenglSlimFaceFilter::OpenglSlimFaceFilter()
{
    paras_[slim_face_strength] = 0;
    paras_[face_area_x] = 0;
    paras_[face_area_y] = 0;
    paras_[face_area_width] = 0;
    paras_[face_area_height] = 0;
}

OpenglSlimFaceFilter::~OpenglSlimFaceFilter()
{
    qCInfo(lcFilters) << "~OpenglSlimFaceFilter()";
    if (renderer) {
        delete renderer;
        renderer = nullptr;
    }
}

cv::Rect OpenglSlimFaceFilter::expandFaceArea(cv::Rect rect, int width, int height)
{
    return expandFaceAreaWith(rect, width, height, kSlimFaceRule);
}

void OpenglSlimFaceFilter::setUniforms(QOpenGLShaderProgram* program, ParaMap paras, int width, int height)
{
    if (!program) {
        LUMEN_WARNING(lcFilters) << "[OpenglSlimFaceFilter::setUniforms] no shader program; uniforms not set";
        return;
    }
    auto strength = paras.find(slim_face_strength);
    if (strength != paras.end())
        uniforms::set(program, "slimStrength", static_cast<float>(strength->second) / 100);
    uniforms::set(program, "textureWidth", static_cast<GLfloat>(width));
    uniforms::set(program, "textureHeight", static_cast<GLfloat>(height));

    const float x = static_cast<float>(paras[face_area_x]);
    const float y = static_cast<float>(paras[face_area_y]);
    const float w = static_cast<float>(paras[face_area_width]);
    const float h = static_cast<float>(paras[face_area_height]);
    uniforms::set(program, "slim_face_area", x, y, w, h);
}

void OpenglSlimFaceFilter::filter(cv::Mat& src, cv::Mat& dst, ParaMap paras, const FaceDetectResult& result)
{
    setParas(paras);
    filter(src, dst, result);
}

void OpenglSlimFaceFilter::filter(cv::Mat& src, cv::Mat& dst, const FaceDetectResult& result)
{
    if (!src.data || src.dims == 0 || src.total() == 0)
        return;
    std::vector<std::vector<int32_t>> points;
    const std::vector<ParaMap> faces = collectFaceAreas(src, result, &points);
    if (!faces.empty() && renderer) {
        handPictureToRenderer(renderer, src.data, src.cols, src.rows, "OpenglSlimFaceFilter::filter");
        return;
    }
    src.copyTo(dst);
}

void OpenglSlimFaceFilter::filter(const QImage& src, QImage& dst, const FaceDetectResult& result)
{
    filterImageThroughMat(src, dst, [this, &result](cv::Mat& s, cv::Mat& d) { filter(s, d, result); });
}

void OpenglSlimFaceFilter::filter(AVFrame* src, AVFrame* dst, const FaceDetectResult& result)
{
    filterFrameThroughMat(
        src, dst, [this, &result](cv::Mat& s, cv::Mat& d) { filter(s, d, result); }, "OpenglSlimFaceFilter::filter");
}
