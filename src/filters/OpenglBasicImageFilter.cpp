#include "filters/OpenglBasicImageFilter.h"

#include <cmath>
#include <functional>

#include <QDebug>
#include <QOpenGLShaderProgram>

#include <opencv2/imgproc.hpp>

#include "base/Logging.h"
#include "lumen_fx/ImageFilterTypes.h"
#include "shader/UniformCache.h"

OpenglBasicImageFilter::OpenglBasicImageFilter()
{
    paras_[scale_strength] = 1.0;
    paras_[brightness_strength] = 0;
    paras_[contrast_strength] = 0;
    paras_[saturation_strength] = 0;
    paras_[alpha_strength] = 1.0;
    paras_[corner_radius] = 0;
    paras_[rotation_x] = 0;
    paras_[rotation_y] = 0;
    paras_[rotation_z] = 0;
    paras_[is_mirrored] = 0;
    paras_[is_round_camera] = 0;
    paras_[is_clip] = 0;
    paras_[channel_width] = 0;
    paras_[channel_height] = 0;
    paras_[res_width] = 0;
    paras_[res_height] = 0;
    paras_[center_x_offset] = 0.5;
    paras_[center_y_offset] = 0.5;
    paras_[file_type] = 0;
    paras_[first_page_width] = 0;
    paras_[first_page_height] = 0;
}

OpenglBasicImageFilter::~OpenglBasicImageFilter()
{
    qCInfo(lcFilters) << "~OpenglBasicImageFilter()";
    delete renderer;
    renderer = nullptr;
}

float OpenglBasicImageFilter::opacity(float a)
{
    // The formula alone gives about 0.919 at 1.0: full opacity is a jump at
    // the end of the range.
    if (a == 1.0f)
        return 1.0f;
    const float t = std::log10(100.0f / (a * 10.0f + 1.0f));
    return a * t * t;
}

void OpenglBasicImageFilter::setUniforms(QOpenGLShaderProgram* program, ParaMap paras, int, int)
{
    auto apply = [&](const std::string& key, const std::function<void(double)>& effect) {
        auto it = paras.find(key);
        if (it != paras.end())
            effect(it->second);
    };
    auto uniform = [&](const char* name, float value) {
        if (program)
            uniforms::set(program, name, value);
    };
    apply(scale_strength, [&](double v) { scale_ = static_cast<float>(v) / 25.0f + 1.0f; });
    apply(brightness_strength, [&](double v) { uniform("brightness", static_cast<float>(v / 100.0 * 0.5)); });
    apply(contrast_strength, [&](double v) { uniform("contrast", static_cast<float>((v + 100.0) / 100.0)); });
    apply(saturation_strength, [&](double v) { uniform("saturation", static_cast<float>((v + 50.0) / 50.0)); });
    apply(alpha_strength, [&](double v) { uniform("alphaValue", opacity(static_cast<float>(v))); });
    apply(rotation_x, [&](double v) { rotationX_ = static_cast<float>(v); });
    apply(rotation_y, [&](double v) { rotationY_ = static_cast<float>(v); });
    apply(rotation_z, [&](double v) { rotationZ_ = static_cast<float>(v); });
    apply(corner_radius, [&](double v) { cornerRadius_ = truncToInt(v); });
    apply(is_mirrored, [&](double v) { isMirrored_ = truncToInt(v); });
    apply(is_round_camera, [&](double v) { isRoundCamera_ = truncToInt(v); });
    apply(is_clip, [&](double v) { isClip_ = truncToInt(v); });
    apply(channel_width, [&](double v) { channelWidth_ = static_cast<float>(truncToInt(v)); });
    apply(channel_height, [&](double v) { channelHeight_ = static_cast<float>(truncToInt(v)); });
    apply(res_width, [&](double v) { resWidth_ = static_cast<float>(truncToInt(v)); });
    apply(res_height, [&](double v) { resHeight_ = static_cast<float>(truncToInt(v)); });
    apply(center_x_offset, [&](double v) { centerXOffset_ = static_cast<float>(v); });
    apply(center_y_offset, [&](double v) { centerYOffset_ = static_cast<float>(v); });
    apply(file_type, [&](double v) { fileType_ = truncToInt(static_cast<float>(v)); });
    apply(first_page_width, [&](double v) { firstPageWidth_ = static_cast<float>(v); });
    apply(first_page_height, [&](double v) { firstPageHeight_ = static_cast<float>(v); });
}

void OpenglBasicImageFilter::filter(cv::Mat& src, cv::Mat& dst, const FaceDetectResult&)
{
    cv::Mat copy = src.clone();
    dst = copy;
    if (dst.cols % 4 != 0) {
        if (dst.cols < 4)
            return;
        cv::resize(dst, dst, cv::Size(dst.cols / 4 * 4, dst.rows), 0, 0, cv::INTER_LINEAR);
    }
    handPictureToRenderer(renderer, dst.data, dst.cols, dst.rows, "OpenglBasicImageFilter::filter");
}

void OpenglBasicImageFilter::filter(const QImage& src, QImage& dst, const FaceDetectResult& result)
{
    filterImageThroughMat(src, dst, [this, &result](cv::Mat& s, cv::Mat& d) { filter(s, d, result); });
}

void OpenglBasicImageFilter::filter(AVFrame* src, AVFrame* dst, const FaceDetectResult& result)
{
    filterFrameThroughMat(
        src, dst, [this, &result](cv::Mat& s, cv::Mat& d) { filter(s, d, result); },
        "OpenglBasicImageFilter::filter");
}
