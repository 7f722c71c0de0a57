#include "scene/TextureBuffer.h"

#include <QDebug>
#include <QOpenGLContext>
#include <QOpenGLFunctions>

#include "base/Logging.h"
#include "gpu/GlTextures.h"


TextureBuffer::TextureBuffer() = default;

TextureBuffer::~TextureBuffer()
{
    qCInfo(lcScene) << "~TextureBuffer()";
}

void TextureBuffer::makeTexture(QOpenGLContext* context, unsigned int& name, int width, int height)
{
    QOpenGLFunctions* f = context->functions();
    f->glActiveTexture(GL_TEXTURE0);
    f->glBindTexture(GL_TEXTURE_2D, name);
    f->glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA, width, height, 0, GL_RGBA, GL_UNSIGNED_BYTE, nullptr);
    gl::setLinearClamped(f);
    f->glActiveTexture(GL_TEXTURE0);
    f->glBindTexture(GL_TEXTURE_2D, 0);
}

void TextureBuffer::createTextures(QOpenGLContext* context, int width, int height)
{
    SharedTexturesLocked writeLock(SharedTexturesLocked::Writing);
    QMutexLocker locker(&textureMutex);
    QOpenGLFunctions* f = context->functions();
    if (writeTexture != 0)
        f->glDeleteTextures(1, &writeTexture);
    f->glGenTextures(1, &writeTexture);
    if (readTexture != 0)
        f->glDeleteTextures(1, &readTexture);
    f->glGenTextures(1, &readTexture);
    makeTexture(context, writeTexture, width, height);
    makeTexture(context, readTexture, width, height);
    readWidth = width;
    readHeight = height;
    texturesReady = true;
    ++changes;
}

void TextureBuffer::copyInto(QOpenGLContext* context, unsigned int& name, int& storedWidth, int& storedHeight,
                             int width, int height)
{
    QOpenGLFunctions* f = context->functions();
    // A recreation happens only at a change of size: it stalls every reader.
    if (width != storedWidth || height != storedHeight || name == 0) {
        SharedTexturesLocked writeLock(SharedTexturesLocked::Writing);
        QMutexLocker locker(&textureMutex);
        storedWidth = width;
        storedHeight = height;
        if (name != 0)
            f->glDeleteTextures(1, &name);
        f->glGenTextures(1, &name);
        makeTexture(context, name, width, height);
    }
    QMutexLocker locker(&textureMutex);
    f->glActiveTexture(GL_TEXTURE0);
    f->glBindTexture(GL_TEXTURE_2D, name);
    f->glCopyTexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, 0, 0, width, height);
    f->glBindTexture(GL_TEXTURE_2D, 0);
}

void TextureBuffer::copyToReadTexture(QOpenGLContext* context, int width, int height)
{
    copyInto(context, readTexture, readWidth, readHeight, width, height);
    // A scene that sees the new count draws the copy from its own context:
    // the copy is handed to the GPU first. A scene that read the count
    // before this sees it change and draws again at its next merge.
    context->functions()->glFlush();
    ++changes;
}

void TextureBuffer::copyToWriteTexture(QOpenGLContext* context, int width, int height)
{
    copyInto(context, writeTexture, writeWidth, writeHeight, width, height);
}

QOpenGLContext* TextureBuffer::getShareContext(int sceneId)
{
    QMutexLocker locker(&textureMutex);
    auto it = shareContexts.find(sceneId);
    return it == shareContexts.end() ? nullptr : it->second;
}

void TextureBuffer::setShareContext(int sceneId, QOpenGLContext* context)
{
    QMutexLocker locker(&textureMutex);
    shareContexts[sceneId] = context;
}

bool TextureBuffer::isShareReady(int sceneId)
{
    QMutexLocker locker(&readyMutex);
    auto it = shareReady.find(sceneId);
    return it != shareReady.end() && it->second;
}

void TextureBuffer::setShareReady(int sceneId, bool ready)
{
    QMutexLocker locker(&readyMutex);
    shareReady[sceneId] = ready;
}

bool TextureBuffer::getImage(QImage& out)
{
    QMutexLocker locker(&imageMutex);
    out = image;
    return !out.isNull();
}

void TextureBuffer::setImage(const QImage& in)
{
    {
        QMutexLocker locker(&imageMutex);
        image = in;
    }
    ++changes;
}

bool TextureBuffer::isImageMode()
{
    QMutexLocker locker(&flagMutex);
    return imageMode;
}

void TextureBuffer::setImageMode(bool mode)
{
    QMutexLocker locker(&flagMutex);
    const bool changed = imageMode != mode;
    imageMode = mode;
    if (changed)
        ++changes;
}

bool TextureBuffer::isPremulAlpha()
{
    QMutexLocker locker(&flagMutex);
    return premulAlpha;
}

void TextureBuffer::setPremulAlpha(bool premul)
{
    QMutexLocker locker(&flagMutex);
    const bool changed = premulAlpha != premul;
    premulAlpha = premul;
    if (changed)
        ++changes;
}

void TextureBuffer::getSize(int* width, int* height)
{
    // Read without a lock on purpose: the size changes only with a recreation,
    // which the shared texture lock keeps away from readers.
    if (width)
        *width = readWidth;
    if (height)
        *height = readHeight;
}

int TextureBuffer::bindWriteTexture(QOpenGLContext* context)
{
    QMutexLocker locker(&textureMutex);
    QOpenGLFunctions* f = context->functions();
    f->glBindTexture(GL_TEXTURE_2D, writeTexture);
    f->glActiveTexture(GL_TEXTURE0);
    return static_cast<int>(writeTexture);
}

void TextureBuffer::bindReadTexture(QOpenGLContext* context)
{
    QMutexLocker locker(&textureMutex);
    QOpenGLFunctions* f = context->functions();
    f->glActiveTexture(GL_TEXTURE0);
    f->glBindTexture(GL_TEXTURE_2D, readTexture);
}

void TextureBuffer::unbindTexture(QOpenGLContext* context)
{
    QMutexLocker locker(&textureMutex);
    QOpenGLFunctions* f = context->functions();
    f->glActiveTexture(GL_TEXTURE0);
    f->glBindTexture(GL_TEXTURE_2D, 0);
}

void TextureBuffer::unbindAndClearReady(QOpenGLContext* context)
{
    QMutexLocker locker(&textureMutex);
    QOpenGLFunctions* f = context->functions();
    f->glActiveTexture(GL_TEXTURE0);
    f->glBindTexture(GL_TEXTURE_2D, 0);
    texturesReady = false;
}

void TextureBuffer::deleteTextures(QOpenGLContext* context)
{
    {
        // A scene may be drawing the read texture under the read lock.
        SharedTexturesLocked writeLock(SharedTexturesLocked::Writing);
        QMutexLocker locker(&textureMutex);
        QOpenGLFunctions* f = context->functions();
        if (writeTexture != 0)
            f->glDeleteTextures(1, &writeTexture);
        if (readTexture != 0)
            f->glDeleteTextures(1, &readTexture);
        writeTexture = 0;
        readTexture = 0;
    }
    readWidth = 0;
    readHeight = 0;
    writeWidth = 0;
    writeHeight = 0;
    ++changes;
}

bool TextureBuffer::texturesAreReady()
{
    QMutexLocker locker(&textureMutex);
    return texturesReady;
}

unsigned int TextureBuffer::readTextureId()
{
    QMutexLocker locker(&textureMutex);
    return readTexture;
}

unsigned int TextureBuffer::writeTextureId()
{
    QMutexLocker locker(&textureMutex);
    return writeTexture;
}
