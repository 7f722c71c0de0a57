// The worker base's read-backs: which framebuffer holds a frame's result,
// and its reads through the base's pack buffers.
#include "gpu/OpenglWorkerBase.h"

#include <utility>

#include <QDebug>
#include <QOpenGLContext>
#include <QOpenGLExtraFunctions>
#include <QOpenGLFramebufferObject>

#include "base/DriverLock.h"
#include "base/Logging.h"
#include "gpu/PixelReadback.h"

namespace {

// A fence not signalled by then is left; the read after it waits as it
// always did, under the turn.
const GLuint64 kSettleTimeoutNs = 2000000000ull;

}  // namespace

void OpenglWorkerBase::settleOutsideTurn()
{
    if (!context || QOpenGLContext::currentContext() != context)
        return;
    QOpenGLExtraFunctions* gl = context->extraFunctions();
    if (!holdsDriverTurn) {
        gl->glFlush();
        return;
    }
    GLsync drawn = gl->glFenceSync(GL_SYNC_GPU_COMMANDS_COMPLETE, 0);
    gl->glFlush();
    if (!drawn)
        return;
    // The wait reads only the fence: none of the driver's lists that the
    // turn guards. Every take of the turn is given back, a caller's scope
    // included: the shared texture lock is the only lock a caller may hold
    // here, and no thread waits for it with the turn (base/GlLock.h).
    const int holds = setGlDriverAside();
    gl->glClientWaitSync(drawn, 0, kSettleTimeoutNs);
    takeGlDriverBack(holds);
    gl->glDeleteSync(drawn);
}

OpenglWorkerBase::ResultFbo OpenglWorkerBase::resultFbo() const
{
    if (isClipPerspect && clipRotateFbo)
        return {clipRotateFbo, clipWidth, clipHeight, true};
    if (isClip && clipFbo)
        return {clipFbo, clipWidth, clipHeight, true};
    return {fbo, frameWidth, frameHeight, false};
}

bool OpenglWorkerBase::filterAndReadFbo(uchar* data, uchar* dst, int width, int height)
{
    if (!doPreWork(data, width, height)) {
        doneCurrent();
        return false;
    }
    beforeRead(data, width, height);
    if (!glInited)
        return false;
    if (!makeCurrent()) {
        qCDebug(lcGpu) << "[OpenglWorkerBase::readLastFboByAlpha]This fails in makeCurrent";
        return false;
    }
    // dst holds a picture of the frame's size, whichever framebuffer has it.
    readFboToBuffer(resultFbo().fbo, dst, width, height, true);
    doneCurrent();
    return true;
}

void OpenglWorkerBase::readFbo(int width, int height, uchar* dst)
{
    if (!fbo)
        return;
    fbo->bind();
    const readback::Layout layout = readback::layout(width, height, GL_RGBA);
    readback::start(this, *readBuffer, layout);
    readBuffer->read(0, dst, layout.byteCount());
    QOpenGLFramebufferObject::bindDefault();
    // The pack buffer stays bound, as the readers after this one expect.
}

void OpenglWorkerBase::allocatePackBuffers(int width, int height)
{
    for (QOpenGLBuffer* buffer : {&packBufferA, &packBufferB})
        readback::allocate(*buffer, width * height * 4);
}

void OpenglWorkerBase::readFboToBuffer(QOpenGLFramebufferObject* source, uchar* dst, int width, int height,
                                       bool hasAlpha)
{
    if (!source || !dst)
        return;
    settleOutsideTurn();
    source->bind();
    const readback::Layout layout = readback::layout(width, height, readback::formatByAlpha(hasAlpha));
    readback::start(this, *readBuffer, layout);
    readBuffer->release();
    if (firstFrame) {
        readback::finish(*readBuffer, dst, layout);
        firstFrame = false;
    } else {
        // The swap alternates the buffers from frame to frame; the one read is
        // the one just filled, so no frame of delay is added.
        std::swap(readBuffer, readBufferBack);
        readback::finish(*readBufferBack, dst, layout);
    }
    QOpenGLFramebufferObject::bindDefault();
}
