// The output of a channel's frame: the scene's shared textures, the copy of
// the result into them on the GPU, and its read-back into a picture.
#include "gpu/OpenglChannelWorker.h"

#include <QDebug>
#include <QOpenGLFramebufferObject>

#include "base/Logging.h"
#include "gpu/PixelReadback.h"
#include "gpu/TextureExchange.h"

bool OpenglChannelWorker::createSceneShareTexture(TextureExchange* buffer)
{
    if (!glInited || !buffer)
        return false;
    if (!makeCurrent()) {
        qCDebug(lcGpu) << "[OpenglChannelWorker::createSceneShareTexture]This fails in makeCurrent";
        return false;
    }
    buffer->createTextures(context, frameWidth, frameHeight);
    doneCurrent();
    return true;
}

bool OpenglChannelWorker::readFromGPU(TextureExchange* buffer)
{
    // The buffer's context table is keyed by the scene.
    if (!glInited || !buffer || !buffer->getShareContext(sceneId))
        return false;
    if (!makeCurrent()) {
        qCDebug(lcGpu) << "[OpenglChannelWorker::readFromGPU]This fails in makeCurrent";
        return false;
    }
    const ResultFbo result = resultFbo();
    if (result.fbo) {
        flushOutsideTextureLock();
        result.fbo->bind();
        buffer->copyToReadTexture(context, result.width, result.height);
    }
    // The copy is handed to the GPU by the buffer, for the scene's context.
    QOpenGLFramebufferObject::bindDefault();
    doneCurrent();
    return true;
}

void OpenglChannelWorker::readLastFboByAlpha(uchar* dst, int width, int height, bool hasAlpha)
{
    if (!glInited || !dst)
        return;
    if (!makeCurrent()) {
        qCDebug(lcGpu) << "[OpenglWorkerBase::readLastFboByAlpha]This fails in makeCurrent";
        return;
    }
    // A clip is read at its own size; the frame at the size asked for.
    const ResultFbo result = resultFbo();
    if (result.fbo) {
        const QSize size = result.clipped ? QSize(result.width, result.height) : QSize(width, height);
        result.fbo->bind();
        readback::readNow(this, result.clipped ? clipPackBufferA : packBufferA, dst,
                          readback::layout(size.width(), size.height(), readback::formatByAlpha(hasAlpha)));
    }
    QOpenGLFramebufferObject::bindDefault();
    doneCurrent();
}
