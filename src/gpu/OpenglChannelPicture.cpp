// The channel worker's picture pass: colour, opacity, scale, mirror, corners
// and perspective of the picture into fbo, then, for a clip or a round
// camera, the channel's box cut out of it into the clip framebuffers. The
// arithmetic is in PictureGeometry; this file makes the draws.
#include "gpu/OpenglChannelWorker.h"

#include <QDebug>
#include <QOpenGLFramebufferObject>

#include "base/Logging.h"
#include "base/Numbers.h"
#include "filters/BeautyFilterBase.h"
#include "gpu/GlTextures.h"
#include "gpu/PixelReadback.h"
#include "gpu/TextureExchange.h"
#include "shader/ShaderWorker.h"

void OpenglChannelWorker::renderBasicImage(const FilterMap& filters, QImage& image, bool noRotation,
                                           bool useShareTexture)
{
    if (doPreWork(frameData(image), image.width(), image.height())) {
        for (const auto& [type, filter] : filters)
            if (type == BASICIMAGE && filter)
                drawBasicImage(image, filter, noRotation, useShareTexture);
        copyFboToShare();
        if (basicProgram) {
            basicProgram->bind();
            basicProgram->setUniformFloat("premulAlpha", 0.0f);
        }
    }
    doneCurrent();
}

void OpenglChannelWorker::drawBasicImage(const QImage& image, BeautyFilterBase* filter, bool noRotation,
                                         bool useShareTexture)
{
    if (!basicProgram || !filter || !fbo)
        return;
    basicProgram->bind();
    filter->setUniforms(basicProgram->shaderProgram(), filter->paras(), frameWidth, frameHeight);

    isClip = filter->isClip() != 0;
    rotationZ = truncToInt(filter->rotationZ());
    const int round = filter->isRoundCamera();
    isClipPerspect = false;
    readWidth = 0;
    readHeight = 0;
    const float rotationX = noRotation ? 0.0f : -filter->rotationX();
    const float rotationY = noRotation ? 0.0f : -filter->rotationY();
    // A round camera is a clip of its own.
    if (round != 0)
        isClip = true;
    const picturegeometry::PictureShape shape =
        picturegeometry::pictureShape(frameWidth, frameHeight, filter->scale(), filter->cornerRadius(), round != 0);

    // The page gate. The flag reads inverted on purpose: with allowInFrame
    // set only an offset outside [0, 1] is drawn, and without it only one
    // inside.
    const float y = filter->centerYOffset();
    const bool inside = y >= 0.0f && y <= 1.0f;
    if (inside == allowInFrame) {
        frameSkipped = true;
        return;
    }
    drawPicture(image, filter, shape, rotationX, rotationY, useShareTexture);
    if (isClip || round != 0)
        drawClip(filter, rotationX, rotationY, round != 0);
}

void OpenglChannelWorker::drawPicture(const QImage& image, BeautyFilterBase* filter,
                                      const picturegeometry::PictureShape& shape, float rotationX, float rotationY,
                                      bool useShareTexture)
{
    const float scale = filter->scale();
    const bool mirrored = filter->isMirrored() != 0;
    const bool turned = rotationX != 0.0f || rotationY != 0.0f;
    fbo->bind();
    if (!isClip)
        basicProgram->setUniformFloat("premulAlpha", 1.0f);
    const bool fromShare = useShareTexture && textureBuffer;
    if (fromShare)
        textureBuffer->bindWriteTexture(context);
    else  // the smaller levels only where the picture can shrink
        bindQtTexture(image, !isClip && (scale < 1.0f || turned));
    setShapeUniforms(shape, filter->isRoundCamera(), turned);

    basicProgram->resetMatrices();
    if (mirrored)
        basicProgram->flipProjection();
    if (!isClip) {
        basicProgram->scaleModel(scale, scale);
        basicProgram->applyPerspective90();
        // A mirrored picture turns the same way on screen.
        const float turnY = mirrored ? -rotationY : rotationY;
        basicProgram->rotateAboutEdge(rotationX, 1.0f, 0.0f, 0.0f);
        basicProgram->rotateAboutEdge(turnY, 0.0f, 1.0f, 0.0f);
    }
    basicProgram->initVertices();
    basicProgram->drawStrip();
    unbindInput(fromShare);
    if (!isClip)
        basicProgram->setUniformFloat("premulAlpha", 0.0f);
    QOpenGLFramebufferObject::bindDefault();
}

void OpenglChannelWorker::setShapeUniforms(const picturegeometry::PictureShape& shape, int round, bool rotated)
{
    basicProgram->setUniformFloat("inXbias", shape.bias);
    basicProgram->setUniformFloat("inYbias", shape.bias);
    basicProgram->setUniformFloat("xRadius", shape.xRadius);
    basicProgram->setUniformFloat("yRadius", shape.yRadius);
    basicProgram->setUniformFloat("xyRatio", shape.xyRatio);
    basicProgram->setUniformFloat("isClip", 0.0f);
    basicProgram->setUniformFloat("isClipPerspect", 0.0f);
    basicProgram->setUniformFloat("isRoundCamera", static_cast<float>(round));
    basicProgram->setUniformFloat("isRotate", rotated ? 1.0f : 0.0f);
    basicProgram->setUniformInt("inputImageTexture", 0);
}

void OpenglChannelWorker::drawClip(BeautyFilterBase* filter, float rotationX, float rotationY, bool round)
{
    if (rotationX != 0.0f || rotationY != 0.0f)
        isClipPerspect = true;
    const float scale = filter->scale();
    const picturegeometry::ClipBox clip = picturegeometry::clipBox(
        filter->channelWidth(), filter->channelHeight(), frameWidth, frameHeight, scale, round);
    if (round)
        isClip = true;
    const QSize size = picturegeometry::clipSize(clip.box);
    if (!acceptClipSize(size))
        return;
    if (size.width() != clipWidth || size.height() != clipHeight)
        rebuildClipFbos(size.width(), size.height());
    drawClipBox(clip, filter->centerXOffset(), filter->centerYOffset(), scale);
    if (isClipPerspect)
        drawClipTurned(rotationX, rotationY);
}

bool OpenglChannelWorker::acceptClipSize(const QSize& size)
{
    // A box as large as the frame's larger side or larger is drawn as it
    // comes; one that no framebuffer can hold (no channel size with a clip,
    // a scale near 0) leaves the frame out, reported once per size.
    if (picturegeometry::clipSizeFits(size, maxFrameSide)) {
        refusedClip = QSize();
        return true;
    }
    if (size != refusedClip)
        LUMEN_WARNING(lcGpu) << "[OpenglChannelWorker::drawClip] no clip of" << size.width() << "x" << size.height()
                             << "for a frame of" << frameWidth << "x" << frameHeight
                             << "(channel_width, channel_height or scale_strength out of range); frame left out";
    refusedClip = size;
    frameSkipped = true;
    return false;
}

void OpenglChannelWorker::drawClipBox(const picturegeometry::ClipBox& clip, float centerX, float centerY,
                                      float scale)
{
    // The viewport is the frame's on purpose: the box is the lower left part
    // of it, and what lies beyond the frame stays clear.
    gl::clearFramebuffer(this, clipFbo, frameWidth, frameHeight);
    basicProgram->bind();
    clipFbo->bind();
    if (!isClipPerspect)
        basicProgram->setUniformFloat("premulAlpha", 1.0f);
    glActiveTexture(GL_TEXTURE0);
    glBindTexture(GL_TEXTURE_2D, fbo->texture());
    basicProgram->setUniformInt("inputImageTexture", 0);
    basicProgram->setUniformFloat("isClip", 1.0f);
    basicProgram->setUniformFloat("isClipPerspect", 0.0f);
    basicProgram->setUniformFloat("xRadius", clip.xRadius);
    basicProgram->setUniformFloat("yRadius", clip.yRadius);
    basicProgram->setUniformFloat("inXbias", clip.inXbias);
    basicProgram->setUniformFloat("inYbias", clip.inYbias);
    placeClip(centerX, centerY, scale);
    basicProgram->initVertices();
    basicProgram->drawStrip();
    glActiveTexture(GL_TEXTURE0);
    glBindTexture(GL_TEXTURE_2D, 0);
    if (!isClipPerspect)
        basicProgram->setUniformFloat("premulAlpha", 0.0f);
    QOpenGLFramebufferObject::bindDefault();
}

void OpenglChannelWorker::drawClipTurned(float rotationX, float rotationY)
{
    // The box turned in perspective, with the soft rim.
    gl::clearFramebuffer(this, clipRotateFbo, clipWidth, clipHeight);
    clipRotateFbo->bind();
    basicProgram->setUniformFloat("premulAlpha", 1.0f);
    basicProgram->bind();
    glActiveTexture(GL_TEXTURE0);
    glBindTexture(GL_TEXTURE_2D, clipFbo->texture());
    basicProgram->setUniformInt("inputImageTexture", 0);
    basicProgram->setUniformFloat("isClip", 0.0f);
    basicProgram->setUniformFloat("isClipPerspect", 1.0f);
    basicProgram->setUniformFloat("isRoundCamera", 0.0f);
    basicProgram->setUniformFloat("isRotate", 1.0f);
    for (const char* name : {"xRadius", "yRadius", "inXbias", "inYbias"})
        basicProgram->setUniformFloat(name, 0.0f);
    basicProgram->resetMatrices();
    basicProgram->applyPerspective90();
    basicProgram->rotateAboutEdge(rotationX, 1.0f, 0.0f, 0.0f);
    basicProgram->rotateAboutEdge(rotationY, 0.0f, 1.0f, 0.0f);
    basicProgram->drawStrip();
    glActiveTexture(GL_TEXTURE0);
    glBindTexture(GL_TEXTURE_2D, 0);
    basicProgram->setUniformFloat("premulAlpha", 0.0f);
    QOpenGLFramebufferObject::bindDefault();
}

void OpenglChannelWorker::placeClip(float centerX, float centerY, float scale)
{
    const picturegeometry::ClipPlacement place =
        picturegeometry::placeClip(frameWidth, frameHeight, clipWidth, clipHeight, centerX, centerY, scale);
    basicProgram->resetMatrices();
    basicProgram->translateModel(place.tx, place.ty, 0.0f);
    basicProgram->scaleModel(place.scale, place.scale);
}

void OpenglChannelWorker::rebuildClipFbos(int width, int height)
{
    clipWidth = width;
    clipHeight = height;
    // The same two members as the frame's: a rebuild leaves them at the clip size.
    texelWidth = 1.0f / static_cast<float>(width);
    texelHeight = 1.0f / static_cast<float>(height);
    for (QOpenGLBuffer* buffer : {&clipPackBufferA, &clipPackBufferB})
        readback::allocate(*buffer, width * height * 4);
    gl::dropFbo(clipFbo);
    gl::dropFbo(clipRotateFbo);
    clipFbo = new QOpenGLFramebufferObject(width, height, gl::frameFormat());
    clipRotateFbo = new QOpenGLFramebufferObject(width, height, gl::frameFormat());
    firstFrame = true;
}
