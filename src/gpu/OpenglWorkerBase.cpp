#include "gpu/OpenglWorkerBase.h"

#include <algorithm>
#include <cstdlib>
#include <string>
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
#include "base/DriverLock.h"
#include "base/GlLock.h"
#include "base/Logging.h"
#include "gpu/GlTextures.h"
#include "gpu/RasterizerThreads.h"
#include "gpu/TextureExchange.h"
#include "shader/ShaderWorker.h"

namespace {

// Set when the library is loaded, before any context exists: Mesa's software
// rasterizer reads it when the first context is made. Safe only because every
// GL call of the process waits for its turn at the driver (base/DriverLock.h).
const std::string rasterizerThreads = rasterizer::applyDefault();

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
    pixelBuffers = {&packBufferA,     &packBufferB, &unpackBufferA, &unpackBufferB, &clipPackBufferA,
                    &clipPackBufferB, &spareBuffer, &packBufferC,   &packBufferD};

    // The surface is made with the format that the context will ask for, so
    // that the two match when the context is made current on it.
    QSurfaceFormat surfaceFormat = requestedFormat();
    surfaceFormat.setVersion(3, 3);
    surfaceFormat.setProfile(QSurfaceFormat::CompatibilityProfile);
    surfaceFormat.setSamples(16);
    setFormat(surfaceFormat);

    SharedTexturesLocked locker(SharedTexturesLocked::Writing);
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
        LUMEN_WARNING(lcGpu) << "[OpenglWorkerBase::releaseContext] called off the context's thread; nothing released";
        return;
    }
    releaseTextures();
    releaseGlObjects();
    GlDriverTurn turn;
    const bool current = makeCurrent();
    deleteOwnGlObjects();
    if (current)
        doneCurrent();
    SharedTexturesLocked locker(SharedTexturesLocked::Writing);
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
    if (!context)
        return false;
    if (!holdsDriverTurn) {
        takeGlDriver();
        holdsDriverTurn = true;
    }
    if (context->makeCurrent(this))
        return true;
    holdsDriverTurn = false;
    releaseGlDriver();
    return false;
}

void OpenglWorkerBase::doneCurrent()
{
    if (context) {
        // Letting go of a context makes Mesa draw what is queued in it, and
        // it does so holding the lock that every GLX call of the process
        // takes. Handed to the rasterizer first, the release itself is short.
        if (QOpenGLContext::currentContext() == context)
            context->functions()->glFlush();
        context->doneCurrent();
    }
    if (holdsDriverTurn) {
        holdsDriverTurn = false;
        releaseGlDriver();
    }
}

void OpenglWorkerBase::endGlTurn()
{
    if (!holdsDriverTurn)
        return;
    qCDebug(lcGpu) << "[OpenglWorkerBase::endGlTurn] a step ended with its context current; released";
    doneCurrent();
}

bool OpenglWorkerBase::initContext()
{
    // A new context is the first step of a first picture.
    UrgentGlDriverTurns urgent;
    GlDriverTurn turn;
    SharedTexturesLocked locker(SharedTexturesLocked::Writing);
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
        LUMEN_WARNING(lcGpu) << "[OpenglWorkerBase::doPreWork] dropped a frame of negative size" << width << "x"
                             << height;
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
            LUMEN_WARNING(lcGpu) << "[OpenglWorkerBase::doPreWork] dropped a frame of" << width << "x" << height
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
    GlDriverTurn turn;
    SharedTexturesLocked locker(SharedTexturesLocked::Writing);
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
    for (TextureExchange* buffer : {mergeTextureBuffer, textureBuffer}) {
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
    GlDriverTurn turn;
    SharedTexturesLocked locker(SharedTexturesLocked::Writing);
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

void OpenglWorkerBase::renderTexturedMesh(QOpenGLFramebufferObject*, const QImage&, bool, TextureExchange*)
{
    // The textured 3D path has no caller in a channel's frame and is not built.
    qCDebug(lcGpu) << "[OpenglWorkerBase::renderTexturedMesh]the textured mesh path is not built";
}

void OpenglWorkerBase::renderMeshes(QOpenGLFramebufferObject*)
{
    qCDebug(lcGpu) << "[OpenglWorkerBase::renderMeshes]the textured mesh path is not built";
}
