// The channel worker's sticker pass: each face's sticker placed on it and
// blended over the picture so far.
#include "gpu/OpenglChannelWorker.h"

#include <QDebug>
#include <QOpenGLFramebufferObject>
#include <QOpenGLTexture>

#include "base/Logging.h"
#include "filters/BeautyFilterBase.h"
#include "gpu/StickerPlacement.h"
#include "shader/ShaderWorker.h"

void OpenglChannelWorker::renderSticker(const FilterMap& filters, QImage& image, bool useShareTexture, bool,
                                        bool toImage)
{
    // From the share texture the picture is this frame's face pass's output,
    // opaque where that pass's picture was.
    const bool opaque = regionPasses && !filters.empty() && (useShareTexture ? faceOutputOpaque : allOpaque(image));
    clearSkipped = opaque;
    const bool ready = doPreWork(frameData(image), image.width(), image.height());
    clearSkipped = false;
    if (ready) {
        inPlace = opaque && fbo && fboBack;
        if (!inPlace || useShareTexture || !uploadInto(fbo, image))
            drawInput(fbo, image, useShareTexture, filters.empty());
        pingPong = false;
        if (BeautyFilterBase* sticker = findFilter(filters, STICKER))
            drawStickers(sticker, false);
        settleResult();
        outputStep(image, toImage);
    }
    doneCurrent();
}

void OpenglChannelWorker::drawStickers(BeautyFilterBase* filter, bool premul)
{
    if (!stickerProgram || !filter || !fbo || !fboBack)
        return;
    stickerProgram->bind();
    const std::vector<std::map<std::string, double>> faces = filter->faceParas();
    const std::vector<std::vector<int32_t>> points = filter->facePoints();
    const std::vector<cv::Rect> rects = filter->faceRects();
    const std::vector<std::vector<float>> angles = filter->faceAngles();
    QImage picture;
    filter->stickerImage(picture);
    int drawn = 0;
    for (size_t i = 0; i < faces.size() && i < points.size() && i < rects.size(); ++i) {
        std::map<std::string, double> map = faces[i];
        filter->setUniforms(stickerProgram->shaderProgram(), map, frameWidth, frameHeight);
        if (picture.isNull())
            continue;
        const std::vector<float> faceAngles = i < angles.size() ? angles[i] : std::vector<float>();
        if (drawSticker(picture, filter->stickerInfo(), points[i], rects[i], faceAngles, premul || drawn > 0))
            ++drawn;
    }
}

bool OpenglChannelWorker::drawSticker(const QImage& picture, const StickerInfo& info,
                                      const std::vector<int32_t>& keyPoints, const cv::Rect& rect,
                                      const std::vector<float>& angles, bool premul)
{
    if (keyPoints.size() < static_cast<size_t>(kFacePointFloats)) {
        LUMEN_WARNING(lcGpu) << "[OpenglChannelWorker::drawSticker] a face with" << keyPoints.size() / 2
                             << "key points instead of 98 gets no sticker";
        return false;
    }
    // The picture so far into the other framebuffer. Opaque, that copy is
    // the picture itself, and the sticker goes straight onto it.
    QOpenGLFramebufferObject* target = inPlace ? currentFbo() : otherFbo();
    stickerProgram->bind();
    target->bind();
    stickerProgram->initVertices();
    if (!inPlace) {
        stickerProgram->setUniformFloat("premulAlpha", premul ? 1.0f : 0.0f);
        glActiveTexture(GL_TEXTURE0);
        glBindTexture(GL_TEXTURE_2D, currentFbo()->texture());
        stickerProgram->setUniformInt("stickerTexture", 0);
        stickerProgram->resetMatrices();
        stickerProgram->drawStrip();
        stickerProgram->setUniformFloat("premulAlpha", 0.0f);
        glBindTexture(GL_TEXTURE_2D, 0);
    }

    // The sticker over it, blended.
    uploadSticker(picture, true);
    const bool placed = positionSticker(info, keyPoints, angles);
    if (placed) {
        stickerProgram->setUniformInt("stickerTexture", 1);
        stickerProgram->drawStrip();
    }
    glActiveTexture(GL_TEXTURE1);
    glBindTexture(GL_TEXTURE_2D, 0);
    glActiveTexture(GL_TEXTURE0);
    QOpenGLFramebufferObject::bindDefault();
    if (!inPlace)
        pingPong = !pingPong;
    // The next face, in this frame or the next, smooths its size against this one.
    lastAngles = {angles};
    lastRects = {rect};
    lastPoints = {keyPoints};
    return placed;
}

void OpenglChannelWorker::uploadSticker(const QImage& picture, bool hasAlpha)
{
    glActiveTexture(GL_TEXTURE1);
    if (picture.width() != stickerTexWidth || picture.height() != stickerTexHeight) {
        // Storage of another size would be read past the picture's end: a
        // texture of the new size replaces the old one.
        if (stickerTexture) {
            stickerTexture->destroy();
            delete stickerTexture;
        }
        stickerTexture = new QOpenGLTexture(picture, QOpenGLTexture::GenerateMipMaps);
        stickerTexture->setWrapMode(QOpenGLTexture::ClampToEdge);
        stickerTexture->setMinificationFilter(QOpenGLTexture::LinearMipMapNearest);
        stickerTexture->setMagnificationFilter(QOpenGLTexture::Linear);
        stickerTexWidth = picture.width();
        stickerTexHeight = picture.height();
    }
    const QImage pixels = picture.format() == QImage::Format_RGBA8888 || !hasAlpha
                              ? picture
                              : picture.convertToFormat(QImage::Format_RGBA8888);
    stickerTexture->setData(hasAlpha ? QOpenGLTexture::RGBA : QOpenGLTexture::RGB, QOpenGLTexture::UInt8,
                            pixels.constBits());
    stickerTexture->bind();
}

bool OpenglChannelWorker::positionSticker(const StickerInfo& info, const std::vector<int32_t>& keyPoints,
                                          const std::vector<float>& angles)
{
    stickerProgram->resetMatrices();
    // The size is smoothed against the face drawn before, in this frame or the last.
    const std::vector<int32_t>* previous = lastPoints.empty() ? nullptr : &lastPoints.front();
    const std::optional<QMatrix4x4> model =
        stickerplacement::stickerModel(info, keyPoints, previous, angles, frameWidth, frameHeight);
    if (!model)
        return false;
    stickerProgram->setModel(*model);
    return true;
}
