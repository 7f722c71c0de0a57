#include "filters/OpenglWhiteningFilter.h"

#include <QDebug>
#include <QOpenGLShaderProgram>

#include "base/Logging.h"
#include "lumen_fx/ImageFilterTypes.h"
#include "shader/UniformCache.h"

namespace {
// The near-side y test is positive on purpose: a box touching the top of the
// frame comes back unexpanded.
const FaceAreaExpansion kWhiteningRule{-0.3f, 0.01f, 1.3f, 1.3f, 1.0f};
}

OpenglWhiteningFilter::OpenglWhiteningFilter()
{
    paras_[whitening_strength] = 0;
    paras_[face_area_x] = 0;
    paras_[face_area_y] = 0;
    paras_[face_area_width] = 0;
    paras_[face_area_height] = 0;
}

OpenglWhiteningFilter::~OpenglWhiteningFilter()
{
    qCInfo(lcFilters) << "~OpenglWhiteningFilter()";
    if (renderer) {
        delete renderer;
        renderer = nullptr;
    }
}

cv::Rect OpenglWhiteningFilter::expandFaceArea(cv::Rect rect, int width, int height)
{
    return expandFaceAreaWith(rect, width, height, kWhiteningRule);
}

void OpenglWhiteningFilter::setUniforms(QOpenGLShaderProgram* program, ParaMap paras, int width, int height)
{
    if (!program)
        return;
    auto strength = paras.find(whitening_strength);
    if (strength != paras.end()) {
        const float v = static_cast<float>(strength->second);
        uniforms::set(program, "redden", v / 200);
        uniforms::set(program, "whitening", v / 100);
        uniforms::set(program, "pinking", v / 100);
    }

    const float x = static_cast<float>(paras[face_area_x]);
    const float y = static_cast<float>(paras[face_area_y]);
    const float w = static_cast<float>(paras[face_area_width]);
    const float h = static_cast<float>(paras[face_area_height]);
    uniforms::set(program, "whitening_face_area", x / width, y / height, w / width, h / height);

    // Not declared by the whitening shader; harmless there.
    uniforms::set(program, "textureWidth", static_cast<GLfloat>(width));
    uniforms::set(program, "textureHeight", static_cast<GLfloat>(height));
}

void OpenglWhiteningFilter::filter(cv::Mat& src, cv::Mat& dst, ParaMap paras, const FaceDetectResult& result)
{
    setParas(paras);
    filter(src, dst, result);
}

void OpenglWhiteningFilter::filter(cv::Mat& src, cv::Mat&, const FaceDetectResult& result)
{
    if (!src.data || src.dims == 0 || src.total() == 0)
        return;
    const std::vector<ParaMap> faces = collectFaceAreas(src, result);
    if (!faces.empty()) {
        handPictureToRenderer(renderer, src.data, src.cols, src.rows, "OpenglWhiteningFilter::filter");
        return;
    }
    // No usable face: the whole picture is the area.
    writeFaceArea(cv::Rect(0, 0, src.cols, src.rows));
    handPictureToRenderer(renderer, src.data, src.cols, src.rows, "OpenglWhiteningFilter::filter");
}

void OpenglWhiteningFilter::filter(const QImage& src, QImage& dst, const FaceDetectResult& result)
{
    filterImageThroughMat(src, dst, [this, &result](cv::Mat& s, cv::Mat& d) { filter(s, d, result); });
}

void OpenglWhiteningFilter::filter(AVFrame* src, AVFrame* dst, const FaceDetectResult& result)
{
    filterFrameThroughMat(
        src, dst, [this, &result](cv::Mat& s, cv::Mat& d) { filter(s, d, result); }, "OpenglWhiteningFilter::filter");
}
