#include "gpu/OpenglChannelWorker.h"

#include <QDebug>
#include <QOpenGLContext>
#include <QOpenGLFramebufferObject>
#include <QOpenGLTexture>
#include <QThread>

#include "filters/BeautyFilterBase.h"
#include "scene/TextureBuffer.h"
#include "shader/ShaderWorker.h"

namespace {

const GLbitfield kClearMask = 16640;  // colour and depth

struct ProgramFiles {
    const char* vertex;
    const char* fragment;
};

const ProgramFiles kImageFilter = {":/filters/image_filter_vertex.glsl", ":/filters/image_filter_fragment.glsl"};
const ProgramFiles kBasicFilter = {":/filters/basic_image_filter_vertex.glsl",
                                   ":/filters/basic_image_filter_fragment.glsl"};
const ProgramFiles kFaceAreaFilter = {":/filters/face_area_filter_vertex.glsl",
                                      ":/filters/face_area_filter_fragment.glsl"};
const ProgramFiles kWhiteningFilter = {":/filters/whitening_filter_vertex.glsl",
                                       ":/filters/whitening_filter_fragment.glsl"};
const ProgramFiles kSlimFaceFilter = {":/filters/slimface_filter_vertex.glsl",
                                      ":/filters/slimface_filter_fragment.glsl"};
const ProgramFiles kStickerFilter = {":/filters/sticker_filter_vertex.glsl",
                                     ":/filters/sticker_filter_fragment.glsl"};

// Makes the program once, and gives it identity matrices and its quad.
bool prepareProgram(ShaderWorker*& program, const ProgramFiles& files)
{
    if (!program)
        program = new ShaderWorker(QString::fromLatin1(files.vertex), QString::fromLatin1(files.fragment));
    if (!program->isInitialised())
        return false;
    program->bind();
    program->resetMatrices();
    program->initVertices();
    return true;
}

}  // namespace

OpenglChannelWorker::OpenglChannelWorker(int channelId_, int sceneId_) : OpenglWorkerBase(channelId_, sceneId_) {}

OpenglChannelWorker::~OpenglChannelWorker()
{
    qInfo() << "OpenglChannelWorker::~OpenglChannelWorker()";
    // GL work only where the context can be made current: on the thread that
    // made it. Elsewhere the share group frees the names later.
    const bool canUseContext = context && context->thread() == QThread::currentThread();
    if (canUseContext)
        releaseTextures();
    releaseGlObjects();
    if (canUseContext)
        makeCurrent();
    deletePrograms();
    if (canUseContext)
        doneCurrent();
}

void OpenglChannelWorker::deletePrograms()
{
    ShaderWorker** programs[] = {&reserveProgram,    &imageProgram,     &stickerProgram, &spareImageProgram,
                                 &slimFaceProgram,   &whiteningProgram, &smoothProgram,  &redLipsProgram,
                                 &basicProgram};
    for (ShaderWorker** program : programs) {
        delete *program;
        *program = nullptr;
    }
    delete shader;
    shader = nullptr;
}

bool OpenglChannelWorker::createShaders()
{
    // In the order of the members, the basic image program last. The first
    // that does not link ends the call.
    if (!prepareProgram(redLipsProgram, kFaceAreaFilter))
        return false;
    if (!prepareProgram(smoothProgram, kFaceAreaFilter))
        return false;
    if (!prepareProgram(whiteningProgram, kWhiteningFilter))
        return false;
    if (!prepareProgram(slimFaceProgram, kSlimFaceFilter))
        return false;
    if (!prepareProgram(spareImageProgram, kImageFilter))
        return false;
    if (!prepareProgram(stickerProgram, kStickerFilter))
        return false;
    if (!prepareProgram(imageProgram, kImageFilter))
        return false;
    return prepareProgram(basicProgram, kBasicFilter);
}

bool OpenglChannelWorker::initOpenGL(int width, int height)
{
    // The clip framebuffers come back at their last size. They are made by
    // the geometry passes, which are not part of this worker yet.
    return OpenglWorkerBase::initOpenGL(width, height);
}

void OpenglChannelWorker::createFbos(int width, int height)
{
    OpenglWorkerBase::createFbos(width, height);
    if (fboBack) {
        fboBack->bind();
        fboBack->release();
        delete fboBack;
        fboBack = nullptr;
    }
    fboBack = new QOpenGLFramebufferObject(width, height, fbo->format());
}

void OpenglChannelWorker::clearFbos(int width, int height)
{
    for (QOpenGLFramebufferObject* target : {fbo, fboBack}) {
        if (!target)
            continue;
        target->bind();
        glViewport(0, 0, width, height);
        glClear(kClearMask);
        QOpenGLFramebufferObject::bindDefault();
    }
}

void OpenglChannelWorker::createTextures()
{
    const GLenum units[2] = {GL_TEXTURE0, GL_TEXTURE1};
    GLuint* names[2] = {&textures[0], &textures[2]};
    for (int i = 0; i < 2; ++i) {
        if (*names[i] != 0)
            glDeleteTextures(1, names[i]);
        glGenTextures(1, names[i]);
        glActiveTexture(units[i]);
        glBindTexture(GL_TEXTURE_2D, *names[i]);
        glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_LINEAR);
        glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_LINEAR);
        glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
        glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
        glActiveTexture(units[i]);
        glBindTexture(GL_TEXTURE_2D, 0);
    }
    glActiveTexture(GL_TEXTURE0);
}

void OpenglChannelWorker::releaseTextures()
{
    if (!context)
        return;
    makeCurrent();
    if (inputTexture) {
        inputTexture->release();
        inputTexture->destroy();
        delete inputTexture;
        inputTexture = nullptr;
    }
    if (stickerTexture) {
        stickerTexture->release();
        stickerTexture->destroy();
        delete stickerTexture;
        stickerTexture = nullptr;
    }
    inputTexWidth = 0;
    stickerTexWidth = 0;
    for (GLuint& name : textures) {
        if (name != 0)
            glDeleteTextures(1, &name);
        name = 0;
    }
    doneCurrent();
}

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
        bindQtTexture(image);
    imageProgram->setUniformInt("inputImageTexture", 0);
    imageProgram->resetMatrices();
    imageProgram->initVertices();
    imageProgram->drawStrip();
    if (fromShare) {
        textureBuffer->unbindTexture(context);
    } else {
        glActiveTexture(GL_TEXTURE0);
        glBindTexture(GL_TEXTURE_2D, 0);
    }
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

void OpenglChannelWorker::copyFboToShare()
{
    if (!fbo || !textureBuffer)
        return;
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
    else
        copyFboToShare();
}

void OpenglChannelWorker::passThrough(QImage& image, bool useShareTexture)
{
    if (doPreWork(image.bits(), image.width(), image.height()))
        drawInput(fbo, image, useShareTexture, true);
    doneCurrent();
}

void OpenglChannelWorker::copyToShare(QImage& image)
{
    if (doPreWork(image.bits(), image.width(), image.height())) {
        drawInput(fbo, image, false, false);
        copyFboToShare();
    }
    doneCurrent();
}

void OpenglChannelWorker::renderFaceFilters(const FilterMap& filters, QImage& image, bool useShareTexture,
                                            bool firstFaceOnly, bool toImage)
{
    // For now the first pass alone: the face passes come with the filter
    // classes. A frame with filters comes through unchanged.
    if (doPreWork(image.bits(), image.width(), image.height())) {
        drawInput(fbo, image, useShareTexture, filters.empty());
        pingPong = false;
        outputStep(image, toImage);
    }
    doneCurrent();
}

void OpenglChannelWorker::renderSticker(const FilterMap& filters, QImage& image, bool useShareTexture, bool,
                                        bool toImage)
{
    // For now the first pass alone: the sticker draw comes with the filter
    // classes.
    if (doPreWork(image.bits(), image.width(), image.height())) {
        drawInput(fbo, image, useShareTexture, filters.empty());
        pingPong = false;
        settleInFbo();
        outputStep(image, toImage);
    }
    doneCurrent();
}

void OpenglChannelWorker::renderBasicImage(const FilterMap&, QImage& image, bool, bool useShareTexture)
{
    // For now the picture as it stands: the geometry and colour pass comes
    // with the basic image filter class.
    if (doPreWork(image.bits(), image.width(), image.height())) {
        frameSkipped = false;
        drawInput(fbo, image, useShareTexture, true);
        copyFboToShare();
        if (basicProgram) {
            basicProgram->bind();
            basicProgram->setUniformFloat("premulAlpha", 0.0f);
        }
    }
    doneCurrent();
}

bool OpenglChannelWorker::createSceneShareTexture(TextureBuffer* buffer)
{
    if (!glInited || !buffer)
        return false;
    if (!makeCurrent()) {
        qDebug() << "[OpenglChannelWorker::createSceneShareTexture]This fails in makeCurrent";
        return false;
    }
    buffer->createTextures(context, frameWidth, frameHeight);
    doneCurrent();
    return true;
}

bool OpenglChannelWorker::readFromGPU(TextureBuffer* buffer)
{
    // The buffer's context table is keyed by the scene.
    if (!glInited || !buffer || !buffer->getShareContext(sceneId))
        return false;
    if (!makeCurrent()) {
        qDebug() << "[OpenglChannelWorker::readFromGPU]This fails in makeCurrent";
        return false;
    }
    QOpenGLFramebufferObject* source = fbo;
    int width = frameWidth;
    int height = frameHeight;
    if (isClipPerspect) {
        source = clipRotateFbo;
        width = clipWidth;
        height = clipHeight;
    } else if (isClip) {
        source = clipFbo;
        width = clipWidth;
        height = clipHeight;
    }
    if (source) {
        source->bind();
        buffer->copyToReadTexture(context, width, height);
    }
    QOpenGLFramebufferObject::bindDefault();
    // The scene draws the texture from its own context: hand the copy to the
    // GPU before letting go of the context.
    glFlush();
    doneCurrent();
    return true;
}

void OpenglChannelWorker::readLastFboByAlpha(uchar* dst, int width, int height, bool hasAlpha)
{
    if (!glInited || !dst)
        return;
    if (!makeCurrent()) {
        qDebug() << "[OpenglWorkerBase::readLastFboByAlpha]This fails in makeCurrent";
        return;
    }
    const GLenum format = GL_RGB + (hasAlpha ? 1 : 0);
    const int bytesPerPixelRead = 3 + (hasAlpha ? 1 : 0);
    QOpenGLFramebufferObject* clipSource = nullptr;
    if (isClipPerspect && clipRotateFbo)
        clipSource = clipRotateFbo;
    else if (isClip && clipFbo)
        clipSource = clipFbo;
    if (clipSource) {
        clipSource->bind();
        if (!clipPackBufferA.isCreated()) {
            clipPackBufferA.create();
            clipPackBufferA.setUsagePattern(QOpenGLBuffer::StreamRead);
        }
        clipPackBufferA.bind();
        if (clipPackBufferA.size() < clipWidth * clipHeight * 4)
            clipPackBufferA.allocate(clipWidth * clipHeight * 4);
        glReadPixels(0, 0, clipWidth, clipHeight, format, GL_UNSIGNED_BYTE, nullptr);
        clipPackBufferA.read(0, dst, bytesPerPixelRead * clipWidth * clipHeight);
        clipPackBufferA.release();
    } else if (fbo) {
        fbo->bind();
        packBufferA.bind();
        if (packBufferA.size() < width * height * 4)
            packBufferA.allocate(width * height * 4);
        glReadPixels(0, 0, width, height, format, GL_UNSIGNED_BYTE, nullptr);
        packBufferA.read(0, dst, bytesPerPixelRead * width * height);
        packBufferA.release();
    }
    QOpenGLFramebufferObject::bindDefault();
    doneCurrent();
}
