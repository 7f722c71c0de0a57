#include "gpu/OpenglWorkerBase.h"

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <vector>

#include <QCoreApplication>
#include <QMutex>
#include <QDebug>
#include <QOpenGLContext>
#include <QOpenGLFramebufferObject>
#include <QOpenGLFramebufferObjectFormat>
#include <QOpenGLTexture>
#include <QThread>
#include <QWriteLocker>

#include "base/ExitHooks.h"
#include "base/GlLock.h"
#include "base/Logging.h"
#include "gpu/GlTextures.h"
#include "scene/TextureBuffer.h"
#include "shader/ShaderWorker.h"

namespace {

// Mesa's software rasterizer, llvmpipe, hands each context's rasterization to
// threads of its own. In the Mesa of Debian 12 its check whether a texture is
// still used by a scene in flight races with those threads finishing the
// scene: under many contexts resizing their textures it crashed the process
// (twice in 25 minutes of the stress storm, never in the same time with the
// setting below). The engine draws every channel and scene on a thread of its
// own already, so rasterizing on that thread costs little. Set when the
// library is loaded, before any context exists; a host's own choice stays.
const bool rasterizeOnCallingThread = [] {
    setenv("LP_NUM_THREADS", "0", 0);
    return true;
}();

// Workers queued for deletion on the application's thread. Never destroyed:
// a channel thread may still queue one while the process exits.
struct Disposals {
    QMutex mutex;
    std::vector<OpenglWorkerBase*> workers;
};
Disposals& disposals()
{
    static Disposals* queue = new Disposals;
    return *queue;
}

}  // namespace

QReadWriteLock& OpenglWorkerBase::glLock()
{
    return sharedTextureLock();
}

OpenglWorkerBase::OpenglWorkerBase(int channelId_, int sceneId_)
    : QOffscreenSurface(nullptr), QOpenGLFunctions(), channelId(channelId_), sceneId(sceneId_)
{
    // Every worker belongs to the main thread, whichever thread built it.
    moveToThread(QCoreApplication::instance()->thread());
    connect(this, &OpenglWorkerBase::clearAll, this, &OpenglWorkerBase::onClearAll, Qt::DirectConnection);

    readBuffer = &packBufferA;
    readBufferBack = &packBufferB;
    uploadBuffer0 = &unpackBufferA;
    uploadBuffer1 = &unpackBufferB;
    reserveBuffer0 = &packBufferC;
    reserveBuffer1 = &packBufferD;
    QOpenGLBuffer* all[9] = {&packBufferA,     &packBufferB,     &unpackBufferA, &unpackBufferB, &clipPackBufferA,
                             &clipPackBufferB, &spareBuffer,     &packBufferC,   &packBufferD};
    for (int i = 0; i < 9; ++i)
        pixelBuffers[i] = all[i];

    // The surface is made with the format that the context will ask for, so
    // that the two match when the context is made current on it.
    QSurfaceFormat surfaceFormat = requestedFormat();
    surfaceFormat.setVersion(3, 3);
    surfaceFormat.setProfile(QSurfaceFormat::CompatibilityProfile);
    surfaceFormat.setSamples(16);
    setFormat(surfaceFormat);

    QWriteLocker locker(&glLock());
    QOffscreenSurface::create();
}

OpenglWorkerBase::~OpenglWorkerBase()
{
    qCInfo(lcGpu) << "~OpenglWorkerBase()";
    // Subclasses release their own objects first; what is left of the base's
    // goes here, with GL calls only on the context's own thread.
    if (context && context->thread() == QThread::currentThread())
        releaseContext();
    else
        OpenglWorkerBase::deleteOwnGlObjects();
    emit clearAll();
}

void OpenglWorkerBase::releaseContext()
{
    if (!context)
        return;
    if (context->thread() != QThread::currentThread()) {
        qCWarning(lcGpu) << "[OpenglWorkerBase::releaseContext] called off the context's thread; nothing released";
        return;
    }
    releaseTextures();
    releaseGlObjects();
    const bool current = makeCurrent();
    deleteOwnGlObjects();
    if (current)
        doneCurrent();
    QWriteLocker locker(&glLock());
    delete context;
    context = nullptr;
    glInited = false;
}

void OpenglWorkerBase::deleteOwnGlObjects()
{
    delete shader;
    shader = nullptr;
    delete renderShader;
    renderShader = nullptr;
    delete inputTexture;
    inputTexture = nullptr;
    inputTexWidth = 0;
}

void OpenglWorkerBase::dispose(OpenglWorkerBase* worker)
{
    if (!worker)
        return;
    QCoreApplication* app = QCoreApplication::instance();
    if (!app || QThread::currentThread() == app->thread()) {
        delete worker;
        return;
    }
    {
        QMutexLocker locker(&disposals().mutex);
        disposals().workers.push_back(worker);
    }
    QMetaObject::invokeMethod(app, &OpenglWorkerBase::deleteDisposed, Qt::QueuedConnection);
}

void OpenglWorkerBase::deleteDisposed()
{
    std::vector<OpenglWorkerBase*> batch;
    {
        QMutexLocker locker(&disposals().mutex);
        batch.swap(disposals().workers);
    }
    for (OpenglWorkerBase* worker : batch)
        delete worker;
}

bool OpenglWorkerBase::makeCurrent()
{
    return context && context->makeCurrent(this);
}

void OpenglWorkerBase::doneCurrent()
{
    if (!context)
        return;
    // Letting go of a context makes Mesa draw what is queued in it, and it
    // does so holding the lock that every GLX call of the process takes: with
    // the software rasteriser the other channels and scenes would wait for
    // the whole frame. Drawn first, the release itself is short.
    if (QOpenGLContext::currentContext() == context)
        context->functions()->glFlush();
    context->doneCurrent();
}

bool OpenglWorkerBase::initContext()
{
    QWriteLocker locker(&glLock());
    QSurfaceFormat surfaceFormat = requestedFormat();
    surfaceFormat.setVersion(3, 3);
    surfaceFormat.setProfile(QSurfaceFormat::CompatibilityProfile);
    surfaceFormat.setSamples(16);
    setFormat(surfaceFormat);

    context = new QOpenGLContext(nullptr);
    if (shareContext) {
        context->setShareContext(shareContext);
        context->setFormat(shareContext->format());
    } else {
        context->setFormat(surfaceFormat);
    }
    if (!context->create()) {
        delete context;
        context = nullptr;
        return false;
    }
    context->makeCurrent(this);
    initializeOpenGLFunctions();
    qCInfo(lcGpu) << "gl version:" << reinterpret_cast<const char*>(glGetString(GL_VERSION));
    qCInfo(lcGpu) << "glsl version:" << reinterpret_cast<const char*>(glGetString(GL_SHADING_LANGUAGE_VERSION));
    context->doneCurrent();
    // The driver and Qt have made what a context needs: the engine's exit
    // handler must run before that is destroyed.
    engineexit::arm();
    return true;
}

bool OpenglWorkerBase::doPreWork(uchar* data, int width, int height)
{
    if (!context && !initContext()) {
        qCDebug(lcGpu) << "[OpenglWorkerBase::doPreWork]initContext failed!";
        return false;
    }
    if (width == 0 || height == 0 || data == nullptr)
        return false;
    if (width < 0 || height < 0) {
        qCWarning(lcGpu) << "[OpenglWorkerBase::doPreWork] dropped a frame of negative size" << width << "x" << height;
        return false;
    }
    if (!makeCurrent()) {
        qCDebug(lcGpu) << "[OpenglWorkerBase::doPreWork]This fails in makeCurrent";
        return false;
    }
    if (maxFrameSide == 0) {
        GLint textureSide = 0;
        GLint renderbufferSide = 0;
        context->functions()->glGetIntegerv(GL_MAX_TEXTURE_SIZE, &textureSide);
        context->functions()->glGetIntegerv(GL_MAX_RENDERBUFFER_SIZE, &renderbufferSide);
        maxFrameSide = std::min(textureSide, renderbufferSide);
    }
    if (width > maxFrameSide || height > maxFrameSide) {
        if (refusedFrame != QSize(width, height))
            qCWarning(lcGpu) << "[OpenglWorkerBase::doPreWork] dropped a frame of" << width << "x" << height
                             << ": the GL limit is" << maxFrameSide << "a side";
        refusedFrame = QSize(width, height);
        return false;
    }
    if (!glInited) {
        if (!initOpenGL(width, height))
            return false;
        glInited = true;
        engineexit::arm();  // after the shader compiler's first use
    }
    if (frameWidth != width || frameHeight != height)
        resize(width, height);
    clearFbos(width, height);
    return true;
}

bool OpenglWorkerBase::doPreWork(int width, int height, const QString& vertexPath_, const QString& fragmentPath_)
{
    if (!context && !initContext()) {
        qCDebug(lcGpu) << "[OpenglWorkerBase::doPreWork]initContext failed!";
        return false;
    }
    if (width <= 0 || height <= 0)
        return false;
    if (!makeCurrent()) {
        qCDebug(lcGpu) << "[OpenglWorkerBase::doPreWork]This fails in makeCurrent";
        return false;
    }
    if (!glInitedByPaths) {
        if (!initOpenGL(width, height, vertexPath_, fragmentPath_))
            return false;
        glInitedByPaths = true;
    }
    if (frameWidth != width || frameHeight != height)
        resize(width, height);
    clearFbos(width, height);
    return true;
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
    QOpenGLFramebufferObject* source = isClipPerspect ? clipRotateFbo : (isClip ? clipFbo : fbo);
    readFboToBuffer(source, dst, width, height, true);
    doneCurrent();
    return true;
}

void OpenglWorkerBase::resetSize()
{
    firstFrame = true;
    frameWidth = 0;
    frameHeight = 0;
}

void OpenglWorkerBase::releaseGlObjects()
{
    if (!context)
        return;
    QWriteLocker locker(&glLock());
    makeCurrent();
    for (QOpenGLBuffer* buffer : pixelBuffers) {
        buffer->destroy();
        buffer->release();
    }
    gl::dropFbo(fbo);
    gl::dropFbo(fboBack);
    gl::dropFbo(firstFbo);
    gl::dropFbo(clipFbo);
    gl::dropFbo(clipRotateFbo);
    glInited = false;
    doneCurrent();
}

void OpenglWorkerBase::releaseTextures()
{
    if (!context)
        return;
    makeCurrent();
    for (GLuint& name : textures) {
        if (name != 0)
            glDeleteTextures(1, &name);
        name = 0;
    }
    doneCurrent();
}

void OpenglWorkerBase::releaseShareTextures()
{
    if (!context)
        return;
    for (TextureBuffer* buffer : {mergeTextureBuffer, textureBuffer}) {
        if (!buffer)
            continue;
        makeCurrent();
        buffer->deleteTextures(context);
        doneCurrent();
    }
}

void OpenglWorkerBase::onClearAll()
{
    // Runs on the destroying thread, which may not be the context's: no
    // makeCurrent here.
    QWriteLocker locker(&glLock());
    for (QOpenGLBuffer* buffer : pixelBuffers)
        buffer->destroy();
    gl::dropFbo(fbo);
    gl::dropFbo(firstFbo);
    gl::dropFbo(fboBack);
    gl::dropFbo(clipFbo);
    gl::dropFbo(clipRotateFbo);
    delete context;
    context = nullptr;
    glInited = false;
}

void OpenglWorkerBase::readFbo(int width, int height, uchar* dst)
{
    if (!fbo)
        return;
    fbo->bind();
    readBuffer->bind();
    glReadPixels(0, 0, width, height, GL_RGBA, GL_UNSIGNED_BYTE, nullptr);
    readBuffer->read(0, dst, width * height * 4);
    QOpenGLFramebufferObject::bindDefault();
    // The pack buffer stays bound, as the readers after this one expect.
}

bool OpenglWorkerBase::initOpenGL(int width, int height)
{
    initGlState();
    resize(width, height);
    createTextures();
    return createShaders();
}

bool OpenglWorkerBase::initOpenGL(int width, int height, const QString& vertexPath_, const QString& fragmentPath_)
{
    initGlState();
    resize(width, height);
    return createShader(vertexPath_, fragmentPath_);
}

void OpenglWorkerBase::renderImage(const QImage& image, bool flag)
{
    if (!doPreWork(image.width(), image.height(), vertexPath, fragmentPath)) {
        doneCurrent();
        return;
    }
    renderTexturedMesh(fbo, image, flag, textureBuffer);
    doneCurrent();
}

bool OpenglWorkerBase::createShader(const QString& vertexPath_, const QString& fragmentPath_)
{
    if (!shader)
        shader = new ShaderWorker(vertexPath_, fragmentPath_);
    return shader->isInitialised();
}

bool OpenglWorkerBase::createShaders()
{
    if (!shader)
        shader = new ShaderWorker();
    shader->resetMatrices();
    shader->initVertices();
    return true;
}

bool OpenglWorkerBase::createRenderShader(const QString&, const QString&)
{
    // The textured 3D path has no caller; its program is not built.
    qCDebug(lcGpu) << "[OpenglWorkerBase::createRenderShader]the textured mesh path is not built";
    return false;
}

void OpenglWorkerBase::createFbos(int width, int height)
{
    if (fbo) {
        fbo->bind();
        fbo->release();
        delete fbo;
        fbo = nullptr;
    }
    fbo = new QOpenGLFramebufferObject(width, height, gl::frameFormat());
}

void OpenglWorkerBase::clearFbos(int width, int height)
{
    if (fbo)
        gl::clearFramebuffer(this, fbo, width, height);
}

void OpenglWorkerBase::beforeRead(uchar*, int, int) {}

void OpenglWorkerBase::afterRead(uchar*, int, int) {}

void OpenglWorkerBase::allocatePackBuffers(int width, int height)
{
    for (QOpenGLBuffer* buffer : {&packBufferA, &packBufferB}) {
        if (!buffer->isCreated()) {
            buffer->create();
            buffer->setUsagePattern(QOpenGLBuffer::StreamRead);
        }
        buffer->bind();
        buffer->allocate(width * height * 4);
        buffer->release();
    }
}

void OpenglWorkerBase::recreateUnpackBuffers()
{
    for (QOpenGLBuffer* buffer : {&unpackBufferA, &unpackBufferB}) {
        if (buffer->isCreated())
            buffer->destroy();
        buffer->create();
        buffer->setUsagePattern(QOpenGLBuffer::StreamDraw);
    }
}

void OpenglWorkerBase::readFboToBuffer(QOpenGLFramebufferObject* source, uchar* dst, int width, int height,
                                       bool hasAlpha)
{
    if (!source || !dst)
        return;
    source->bind();
    readBuffer->bind();
    glReadPixels(0, 0, width, height, GL_RGB + (hasAlpha ? 1 : 0), GL_UNSIGNED_BYTE, nullptr);
    readBuffer->release();
    const int size = (3 + (hasAlpha ? 1 : 0)) * width * height;
    if (firstFrame) {
        readBuffer->bind();
        readBuffer->read(0, dst, size);
        readBuffer->release();
        firstFrame = false;
    } else {
        // The swap alternates the buffers from frame to frame; the one read is
        // the one just filled, so no frame of delay is added.
        std::swap(readBuffer, readBufferBack);
        readBufferBack->bind();
        readBufferBack->read(0, dst, size);
        readBufferBack->release();
    }
    QOpenGLFramebufferObject::bindDefault();
}

void OpenglWorkerBase::uploadTexture(uchar* data, bool hasAlpha)
{
    const GLenum format = hasAlpha ? GL_RGBA : GL_RGB;
    glActiveTexture(GL_TEXTURE0);
    glBindTexture(GL_TEXTURE_2D, textures[0]);
    glTexImage2D(GL_TEXTURE_2D, 0, format, frameWidth, frameHeight, 0, format, GL_UNSIGNED_BYTE, data);
}

void OpenglWorkerBase::uploadTextureByPbo(int unit, const QImage& image)
{
    const int size = image.width() * image.height() * 4;
    QOpenGLBuffer* current = uploadIndex ? uploadBuffer0 : uploadBuffer1;
    QOpenGLBuffer* other = uploadIndex ? uploadBuffer1 : uploadBuffer0;
    for (QOpenGLBuffer* buffer : {current, other}) {
        if (!buffer->isCreated()) {
            buffer->create();
            buffer->setUsagePattern(QOpenGLBuffer::StreamDraw);
        }
    }
    current->bind();
    // Storage is (re)made only at a change of size: the buffer holds the
    // picture written one frame earlier, which is what goes to the texture now.
    if (current->size() != size)
        current->allocate(size);
    glActiveTexture(static_cast<GLenum>(unit));
    glBindTexture(GL_TEXTURE_2D, textures[0]);
    glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA, image.width(), image.height(), 0, GL_RGBA, GL_UNSIGNED_BYTE, nullptr);
    current->release();

    if (firstFrame) {
        firstFrame = false;
    } else {
        other->bind();
        if (other->size() != size)
            other->allocate(size);
        other->write(0, image.constBits(), size);
        other->release();
    }
    uploadIndex = !uploadIndex;
}

void OpenglWorkerBase::bindQtTexture(const QImage& image, bool mipmaps)
{
    glActiveTexture(GL_TEXTURE0);
    if (inputTexture && image.width() == inputTexWidth && image.height() == inputTexHeight
        && image.hasAlphaChannel() == inputTexHasAlpha) {
        if (!image.isNull() && image.width() > 0 && image.height() > 0) {
            try {
                const QOpenGLTexture::PixelFormat format =
                    image.hasAlphaChannel() ? QOpenGLTexture::RGBA : QOpenGLTexture::RGB;
                inputTexture->setData(0, 0, format, QOpenGLTexture::UInt8, image.constBits(), nullptr);
                if (mipmaps)
                    inputTexture->generateMipMaps();
            } catch (const std::exception& e) {
                qCInfo(lcGpu) << "[OpenglWorkerBase::bindQtTexture]Exception caught while setting texture data: "
                        << e.what();
            }
        }
    } else {
        if (inputTexture) {
            inputTexture->destroy();
            delete inputTexture;
            inputTexture = nullptr;
        }
        inputTexture = new QOpenGLTexture(image, QOpenGLTexture::GenerateMipMaps);
        // Later pictures make their smaller levels only for the passes that
        // can shrink them: a pass at the frame's own size reads level 0.
        inputTexture->setAutoMipMapGenerationEnabled(false);
        inputTexture->setWrapMode(QOpenGLTexture::DirectionS, QOpenGLTexture::ClampToEdge);
        inputTexture->setWrapMode(QOpenGLTexture::DirectionT, QOpenGLTexture::ClampToEdge);
        inputTexture->setMinificationFilter(QOpenGLTexture::LinearMipMapNearest);
        // A mipmap mode for magnification as well, deliberately; GL refuses it
        // and the texture keeps its default.
        inputTexture->setMagnificationFilter(QOpenGLTexture::LinearMipMapLinear);
        inputTexWidth = image.width();
        inputTexHeight = image.height();
        inputTexHasAlpha = image.hasAlphaChannel();
    }
    inputTexture->bind();
    // A draw that reads level 0 only: the nearest-level filter then samples
    // as plain linear filtering does, which the rasteriser does faster.
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, mipmaps ? GL_LINEAR_MIPMAP_NEAREST : GL_LINEAR);
}

GLuint OpenglWorkerBase::createMipmapTexture(const QImage& image)
{
    GLuint name = 0;
    glGenTextures(1, &name);
    glBindTexture(GL_TEXTURE_2D, name);
    glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA, image.width(), image.height(), 0, GL_RGBA, GL_UNSIGNED_BYTE,
                 image.constBits());
    glGenerateMipmap(GL_TEXTURE_2D);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_S, GL_REPEAT);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_T, GL_REPEAT);
    // The two filters are swapped against the usual use, on purpose.
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_LINEAR_MIPMAP_LINEAR);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_LINEAR);
    glBindTexture(GL_TEXTURE_2D, 0);
    return name;
}

void OpenglWorkerBase::resize(int width, int height)
{
    frameWidth = width;
    frameHeight = height;
    texelWidth = 1.0f / static_cast<float>(width);
    texelHeight = 1.0f / static_cast<float>(height);
    allocatePackBuffers(width, height);
    createFbos(width, height);
    firstFrame = true;
}

void OpenglWorkerBase::createTextures()
{
    if (textures[0] != 0)
        glDeleteTextures(1, &textures[0]);
    glGenTextures(1, &textures[0]);
    glActiveTexture(GL_TEXTURE0);
    glBindTexture(GL_TEXTURE_2D, textures[0]);
    gl::setLinearClamped(this);
    glActiveTexture(GL_TEXTURE0);
    glBindTexture(GL_TEXTURE_2D, 0);
}

void OpenglWorkerBase::initGlState()
{
    initializeOpenGLFunctions();
    glDisable(GL_DEPTH_TEST);
    glEnable(GL_BLEND);
    // Set once per context: all composition is premultiplied.
    glBlendFunc(GL_ONE, GL_ONE_MINUS_SRC_ALPHA);
    glClearColor(0.0f, 0.0f, 0.0f, 0.0f);
}

void OpenglWorkerBase::createShareTextures(QOpenGLContext* shareWith, int width, int height)
{
    if (textureBuffer)
        textureBuffer->createTextures(shareWith, width, height);
}

void OpenglWorkerBase::renderTexturedMesh(QOpenGLFramebufferObject*, const QImage&, bool, TextureBuffer*)
{
    // The textured 3D path has no caller in a channel's frame and is not built.
    qCDebug(lcGpu) << "[OpenglWorkerBase::renderTexturedMesh]the textured mesh path is not built";
}

void OpenglWorkerBase::renderMeshes(QOpenGLFramebufferObject*)
{
    qCDebug(lcGpu) << "[OpenglWorkerBase::renderMeshes]the textured mesh path is not built";
}
