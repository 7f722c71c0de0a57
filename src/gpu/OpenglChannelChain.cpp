// The channel worker's two frame framebuffers: the first pass, the copy
// passes between them, passes drawn in place on an opaque picture, and the
// plain renders that only bring a picture in.
#include "gpu/OpenglChannelWorker.h"

#include <cstring>
#include <utility>

#include <QOpenGLFramebufferObject>

#include "gpu/GlTextures.h"
#include "gpu/TextureExchange.h"
#include "shader/ShaderWorker.h"

void OpenglChannelWorker::drawInput(QOpenGLFramebufferObject* target, const QImage& image, bool useShareTexture,
                                    bool premul)
{
    if (!imageProgram || !target)
        return;
    imageProgram->bind();
    imageProgram->setUniformFloat("filterType", 0.0f);
    target->bind();
    imageProgram->setUniformFloat("premulAlpha", premul ? 1.0f : 0.0f);
    const bool fromShare = useShareTexture && textureBuffer;
    if (fromShare)
        textureBuffer->bindWriteTexture(context);
    else
        bindQtTexture(image, false);  // drawn at its own size
    imageProgram->setUniformInt("inputImageTexture", 0);
    imageProgram->resetMatrices();
    imageProgram->initVertices();
    imageProgram->drawStrip();
    unbindInput(fromShare);
    imageProgram->setUniformFloat("premulAlpha", 0.0f);
    QOpenGLFramebufferObject::bindDefault();
}

void OpenglChannelWorker::drawTexture(QOpenGLFramebufferObject* target, GLuint texture, ShaderWorker* program,
                                      bool premul)
{
    if (!program || !target)
        return;
    program->bind();
    target->bind();
    program->setUniformFloat("premulAlpha", premul ? 1.0f : 0.0f);
    glActiveTexture(GL_TEXTURE0);
    glBindTexture(GL_TEXTURE_2D, texture);
    program->setUniformInt("inputImageTexture", 0);
    program->resetMatrices();
    program->initVertices();
    program->drawStrip();
    glActiveTexture(GL_TEXTURE0);
    glBindTexture(GL_TEXTURE_2D, 0);
    program->setUniformFloat("premulAlpha", 0.0f);
    QOpenGLFramebufferObject::bindDefault();
}

void OpenglChannelWorker::settleInFbo()
{
    if (!pingPong)
        return;
    drawTexture(fbo, fboBack->texture(), imageProgram, true);
    pingPong = false;
}

void OpenglChannelWorker::settleResult()
{
    if (!pingPong)
        return;
    if (inPlace) {
        // Opaque: the copy back would change nothing, the two framebuffers
        // swap their parts instead.
        std::swap(fbo, fboBack);
        pingPong = false;
        return;
    }
    imageProgram->bind();
    settleInFbo();
}

void OpenglChannelWorker::copyPassAndFlip()
{
    drawTexture(otherFbo(), currentFbo()->texture(), imageProgram, true);
    pingPong = !pingPong;
}

void OpenglChannelWorker::copyArea(const QRect& area)
{
    if (area.isEmpty())
        return;
    flushOutsideTextureLock();
    currentFbo()->bind();
    glActiveTexture(GL_TEXTURE0);
    glBindTexture(GL_TEXTURE_2D, otherFbo()->texture());
    glCopyTexSubImage2D(GL_TEXTURE_2D, 0, area.x(), area.y(), area.x(), area.y(), area.width(), area.height());
    glBindTexture(GL_TEXTURE_2D, 0);
    QOpenGLFramebufferObject::bindDefault();
}

void OpenglChannelWorker::drawInPlace(ShaderWorker* program, const std::vector<QRect>& region, int margin)
{
    const QRect frame(0, 0, frameWidth, frameHeight);
    QRect bounds;
    for (const QRect& part : region)
        bounds |= part & frame;
    if (bounds.isEmpty())
        return;
    copyArea(bounds.adjusted(-margin, -margin, margin, margin) & frame);
    glEnable(GL_SCISSOR_TEST);
    for (const QRect& part : region) {
        const QRect area = part & frame;
        if (area.isEmpty())
            continue;
        glScissor(area.x(), area.y(), area.width(), area.height());
        drawTexture(currentFbo(), otherFbo()->texture(), program, false);
    }
    glDisable(GL_SCISSOR_TEST);
}

bool OpenglChannelWorker::uploadInto(QOpenGLFramebufferObject* target, const QImage& image)
{
    // Drawn at its own size without premultiplying, an opaque picture lands
    // in the framebuffer texel for texel: its bytes can go there directly.
    if (!target || image.size() != target->size())
        return false;
    GLenum format = 0;
    if (image.format() == QImage::Format_RGBA8888)
        format = GL_RGBA;
    else if (image.format() == QImage::Format_RGB888)
        format = GL_RGB;
    else
        return false;
    glActiveTexture(GL_TEXTURE0);
    glBindTexture(GL_TEXTURE_2D, target->texture());
    glPixelStorei(GL_UNPACK_ALIGNMENT, 4);  // Qt's rows are padded to 4 bytes
    glTexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, image.width(), image.height(), format, GL_UNSIGNED_BYTE,
                    image.constBits());
    glBindTexture(GL_TEXTURE_2D, 0);
    return true;
}

void OpenglChannelWorker::flushOutsideTextureLock()
{
    // The contexts of a scene and its channels share their textures, and
    // Mesa guards a copy into a texture, or new pixels for one, with one lock
    // for all of them. The software rasteriser draws what is queued when such
    // a copy needs it, under that lock: every channel would wait while
    // another draws its frame. Drawn first, the copy under the lock is short,
    // and drawn without the driver's turn, the other contexts go on binning.
    settleOutsideTurn();
}

void OpenglChannelWorker::copyFboToShare()
{
    if (!fbo || !textureBuffer)
        return;
    flushOutsideTextureLock();
    fbo->bind();
    glActiveTexture(GL_TEXTURE0);
    glBindTexture(GL_TEXTURE_2D, fbo->texture());
    textureBuffer->copyToWriteTexture(context, frameWidth, frameHeight);
    QOpenGLFramebufferObject::bindDefault();
}

void OpenglChannelWorker::outputStep(QImage& image, bool toImage)
{
    if (toImage)
        readFboToBuffer(fbo, image.bits(), image.width(), image.height(), image.hasAlphaChannel());
    else if (shareCopyWanted)
        copyFboToShare();
}

void OpenglChannelWorker::passThrough(QImage& image, bool useShareTexture)
{
    // Premultiplying an opaque picture changes nothing: its bytes go into
    // fbo as they are, over nothing that needs clearing.
    const bool opaque = regionPasses && !useShareTexture && allOpaque(image);
    clearSkipped = opaque;
    const bool ready = doPreWork(frameData(image), image.width(), image.height());
    clearSkipped = false;
    if (ready && (!opaque || !uploadInto(fbo, image)))
        drawInput(fbo, image, useShareTexture, true);
    doneCurrent();
}

void OpenglChannelWorker::copyToShare(QImage& image)
{
    if (doPreWork(frameData(image), image.width(), image.height())) {
        drawInput(fbo, image, false, false);
        copyFboToShare();
    }
    doneCurrent();
}

bool OpenglChannelWorker::inPlaceFrame(const QImage& image, bool useShareTexture) const
{
    return regionPasses && !useShareTexture && allOpaque(image);
}

bool OpenglChannelWorker::allOpaque(const QImage& image)
{
    if (!image.hasAlphaChannel())
        return true;
    const QImage::Format f = image.format();
    const bool rgbaBytes = f == QImage::Format_RGBA8888 || f == QImage::Format_RGBA8888_Premultiplied;
    const bool argbWords = f == QImage::Format_ARGB32 || f == QImage::Format_ARGB32_Premultiplied;
    if (!(argbWords || (rgbaBytes && Q_BYTE_ORDER == Q_LITTLE_ENDIAN)))
        return false;
    const int width = image.width(), height = image.height();
    for (int y = 0; y < height; ++y) {
        const uchar* row = image.constScanLine(y);
        quint32 all = 0xFFFFFFFFu;
        for (int x = 0; x < width; ++x) {
            quint32 pixel;
            std::memcpy(&pixel, row + 4 * x, 4);
            all &= pixel;
        }
        if ((all >> 24) != 0xFFu)
            return false;
    }
    return true;
}

BeautyFilterBase* OpenglChannelWorker::findFilter(const FilterMap& filters, ImageFilterType type)
{
    auto it = filters.find(type);
    return it == filters.end() ? nullptr : it->second;
}

void OpenglChannelWorker::unbindInput(bool fromShare)
{
    if (fromShare) {
        textureBuffer->unbindTexture(context);
    } else {
        glActiveTexture(GL_TEXTURE0);
        glBindTexture(GL_TEXTURE_2D, 0);
    }
}
