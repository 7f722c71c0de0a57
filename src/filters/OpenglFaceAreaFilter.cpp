#include "filters/OpenglFaceAreaFilter.h"

#include <QDebug>
#include <QOpenGLShaderProgram>

#include "base/Logging.h"
#include "lumen_fx/ImageFilterTypes.h"
#include "shader/UniformCache.h"

namespace {
const FaceAreaExpansion kFaceAreaRule{-0.2f, -0.2f, 1.2f, 1.2f, 0.2f};
}

OpenglFaceAreaFilter::OpenglFaceAreaFilter()
{
    paras_[smooth_strength] = 0;
    paras_[redlips_strength] = 0;
    paras_[face_area_x] = 0;
    paras_[face_area_y] = 0;
    paras_[face_area_width] = 0;
    paras_[face_area_height] = 0;
}

OpenglFaceAreaFilter::~OpenglFaceAreaFilter()
{
    qCInfo(lcFilters) << "~OpenglFaceAreaFilter()";
}

cv::Rect OpenglFaceAreaFilter::expandFaceArea(cv::Rect rect, int width, int height)
{
    return expandFaceAreaWith(rect, width, height, kFaceAreaRule);
}

void OpenglFaceAreaFilter::setUniforms(QOpenGLShaderProgram* program, ParaMap paras, int width, int height)
{
    auto smooth = paras.find(smooth_strength);
    if (smooth != paras.end() && program)
        uniforms::set(program, "smoothStrength",
                                 static_cast<GLfloat>(static_cast<float>(smooth->second) * 1.5 / 100));

    auto lips = paras.find(redlips_strength);
    if (lips != paras.end() && program) {
        const float v = static_cast<float>(lips->second);
        uniforms::set(program, "redLipsStrength", static_cast<GLfloat>(v / 800));
        uniforms::set(program, "redden", static_cast<GLfloat>(v / 100));
        // Integer setter on purpose; the shader does not read these two.
        uniforms::set(program, "whitening", static_cast<GLint>(0));
        uniforms::set(program, "pinking", static_cast<GLint>(0));
    }

    const float x = static_cast<float>(paras[face_area_x]);
    const float y = static_cast<float>(paras[face_area_y]);
    const float w = static_cast<float>(paras[face_area_width]);
    const float h = static_cast<float>(paras[face_area_height]);
    if (program)
        uniforms::set(program, "smooth_face_area", x / width, y / height, w / width, h / height);
}
