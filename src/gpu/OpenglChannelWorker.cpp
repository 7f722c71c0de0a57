// The channel worker's construction, programs, and the set-up and release
// of its GL objects. Its passes are in the files beside this one: the
// framebuffer chain, the face passes, the sticker pass, the picture pass and
// the output of a frame.
#include "gpu/OpenglChannelWorker.h"

#include <QDebug>
#include <QOpenGLContext>
#include <QOpenGLFramebufferObject>
#include <QOpenGLTexture>
#include <QThread>

#include "base/Logging.h"
#include "gpu/GlTextures.h"
#include "shader/ShaderWorker.h"

namespace {

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
    qCInfo(lcGpu) << "OpenglChannelWorker::~OpenglChannelWorker()";
    // The stop path has released the context on the channel's thread already.
    // Elsewhere no GL call is made: the names go with the context.
    if (context && context->thread() == QThread::currentThread()) {
        releaseContext();
    } else if (context) {
        LUMEN_WARNING(lcGpu) << "[OpenglChannelWorker::~OpenglChannelWorker] destroyed off its context's thread";
        deleteOwnGlObjects();
    }
}

void OpenglChannelWorker::deleteOwnGlObjects()
{
    deletePrograms();
    delete stickerTexture;
    stickerTexture = nullptr;
    OpenglWorkerBase::deleteOwnGlObjects();
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
    // The clip framebuffers come back at their last size.
    if (clipWidth != 0 && clipHeight != 0)
        rebuildClipFbos(clipWidth, clipHeight);
    return OpenglWorkerBase::initOpenGL(width, height);
}

bool OpenglChannelWorker::doPreWork(uchar* data, int width, int height)
{
    frameSkipped = false;
    return OpenglWorkerBase::doPreWork(data, width, height);
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
    // A frame drawn in place overwrites every pixel of fbo with opaque ones
    // and reads fboBack only where it copied first: a clear shows nowhere.
    // The passes draw in the viewport that the clear sets.
    if (clearSkipped) {
        glViewport(0, 0, width, height);
        return;
    }
    for (QOpenGLFramebufferObject* target : {fbo, fboBack})
        if (target)
            gl::clearFramebuffer(this, target, width, height);
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
        gl::setLinearClamped(this);
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
