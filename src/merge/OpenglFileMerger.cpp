#include "merge/OpenglFileMerger.h"

#include <algorithm>
#include <set>
#include <utility>

#include <QDebug>
#include <QOpenGLContext>
#include <QOpenGLFramebufferObject>
#include <QOpenGLFramebufferObjectFormat>
#include <QOpenGLTexture>
#include <QReadLocker>
#include <QThread>

#include "base/ExitHooks.h"
#include "base/DriverLock.h"
#include "base/GlLock.h"
#include "base/Logging.h"
#include "gpu/GlTextures.h"
#include "gpu/PixelReadback.h"
#include "gpu/TextureExchange.h"
#include "shader/ShaderWorker.h"

namespace {

QOpenGLFramebufferObjectFormat mergeFormat()
{
    QOpenGLFramebufferObjectFormat format;
    format.setAttachment(QOpenGLFramebufferObject::CombinedDepthStencil);
    return format;
}

void remakeFbo(QOpenGLFramebufferObject*& target, int width, int height)
{
    if (target) {
        target->release();
        delete target;
    }
    target = new QOpenGLFramebufferObject(width, height, mergeFormat());
}

// Whether a picture drawn at `scale` of its size reads its smaller levels.
// The textures pick the nearest level, so level 0 serves down to a level of
// detail of 0.5, a scale of 1 / sqrt(2); the bound leaves room for the
// rasteriser's rounding.
bool readsSmallerLevels(double scale)
{
    return !(scale >= 0.74);
}

}  // namespace

OpenglFileMerger::OpenglFileMerger(int sceneId_) : OpenglWorkerBase(0, sceneId_)
{
    qCInfo(lcGpu) << "OpenglFileMerger::OpenglFileMerger";
    // The two read paths own their buffers; the release paths of the base
    // destroy them with its own while this object lives.
    for (readback::PathBuffers* path : {&mergedReads, &finalReads})
        for (int i = 0; i < readback::PathBuffers::kCount; ++i)
            pixelBuffers.push_back(path->buffer(i));
}

OpenglFileMerger::~OpenglFileMerger()
{
    qCInfo(lcGpu) << "OpenglFileMerger::~OpenglFileMerger";
    // The stop path has released the context on the scene's thread already.
    // Elsewhere no GL call is made: the names go with the context.
    if (context && context->thread() == QThread::currentThread()) {
        releaseContext();
    } else if (context) {
        LUMEN_WARNING(lcGpu) << "[OpenglFileMerger::~OpenglFileMerger] destroyed off its context's thread";
        deleteOwnGlObjects();
    }
    // The read paths' buffers go with their members, before the base's part
    // runs its destruction paths: those walk the base's buffers alone.
    pixelBuffers.resize(kBasePixelBuffers);
}

void OpenglFileMerger::deleteOwnGlObjects()
{
    delete mergeShader;
    mergeShader = nullptr;
    delete graffitiTexture;
    graffitiTexture = nullptr;
    for (auto& entry : channelTextures)
        delete entry.second;
    channelTextures.clear();
    OpenglWorkerBase::deleteOwnGlObjects();
}

void OpenglFileMerger::setTextureBuffers(BufferMap buffers)
{
    QMutexLocker locker(&buffersMutex);
    textureBuffers.swap(buffers);
}

void OpenglFileMerger::releaseTextures()
{
    if (!context)
        return;
    makeCurrent();
    delete renderShader;
    renderShader = nullptr;
    delete graffitiTexture;
    graffitiTexture = nullptr;
    for (auto& entry : channelTextures) {
        if (entry.second)
            entry.second->release();
    }
    for (GLuint& name : textures) {
        if (name != 0)
            glDeleteTextures(1, &name);
        name = 0;
    }
    backgroundTexWidth = 0;
    backgroundTexHeight = 0;
    delete mergeShader;
    mergeShader = nullptr;
    doneCurrent();
}

bool OpenglFileMerger::createShaders()
{
    if (!mergeShader)
        mergeShader = new ShaderWorker(QStringLiteral(":/filters/file_merger_vertex.glsl"),
                                       QStringLiteral(":/filters/file_merger_fragment.glsl"));
    if (!mergeShader->isInitialised())
        return false;
    mergeShader->bind();
    mergeShader->resetMatrices();
    mergeShader->initVertices();
    return true;
}

void OpenglFileMerger::createFbos(int width, int height)
{
    remakeFbo(fboBack, width, height);   // composeFbo
    remakeFbo(fbo, width, height);       // mergedFbo
    remakeFbo(firstFbo, width, height);  // finalFbo
}

void OpenglFileMerger::allocatePackBuffers(int width, int height)
{
    // The buffers of the two read paths, each for a frame of 4 bytes a pixel.
    mergedReads.allocate(width * height * 4);
    finalReads.allocate(width * height * 4);
}

void OpenglFileMerger::resize(int width, int height)
{
    frameWidth = width;
    frameHeight = height;
    texelWidth = 1.0f / static_cast<float>(width);
    texelHeight = 1.0f / static_cast<float>(height);
    allocatePackBuffers(width, height);
    createFbos(width, height);
    // Only the merged frame's read starts over; the final frame's flag is
    // raised once, at construction.
    firstReadFlags[0] = true;
}

void OpenglFileMerger::createTextures()
{
    const GLenum units[2] = {GL_TEXTURE0, GL_TEXTURE1};
    for (int i = 0; i < 2; ++i) {
        if (textures[i] != 0)
            glDeleteTextures(1, &textures[i]);
        glGenTextures(1, &textures[i]);
        glActiveTexture(units[i]);
        glBindTexture(GL_TEXTURE_2D, textures[i]);
        gl::setLinearClamped(this);
        glBindTexture(GL_TEXTURE_2D, 0);
    }
    glActiveTexture(GL_TEXTURE0);
}

void OpenglFileMerger::uploadPicture(QOpenGLTexture*& texture, const QImage& image, GLenum unit,
                                     QImage::Format bgraFormat, bool mipmaps)
{
    glActiveTexture(unit);
    if (texture && texture->isCreated() && texture->width() == image.width() && texture->height() == image.height()) {
        QOpenGLTexture::PixelFormat format = QOpenGLTexture::RGBA;
        if (image.format() == bgraFormat)
            format = QOpenGLTexture::BGRA;
        else if (image.format() == QImage::Format_RGB888 || !image.hasAlphaChannel())
            format = QOpenGLTexture::RGB;
        // Level 0 in place, and the smaller levels from it where the draw
        // can read them.
        texture->setData(0, 0, format, QOpenGLTexture::UInt8, image.constBits(), nullptr);
        if (mipmaps)
            texture->generateMipMaps();
        texture->bind();
        // Without the smaller levels the nearest-level filter reads level 0
        // as plain linear filtering does, which the rasteriser does faster.
        glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, mipmaps ? GL_LINEAR_MIPMAP_NEAREST : GL_LINEAR);
        return;
    }
    if (texture) {
        texture->release();
        texture->destroy();
        delete texture;
    }
    texture = new QOpenGLTexture(image, QOpenGLTexture::GenerateMipMaps);
    texture->setAutoMipMapGenerationEnabled(false);
    texture->setWrapMode(QOpenGLTexture::DirectionS, QOpenGLTexture::ClampToEdge);
    texture->setWrapMode(QOpenGLTexture::DirectionT, QOpenGLTexture::ClampToEdge);
    texture->setMinificationFilter(QOpenGLTexture::LinearMipMapNearest);
    // Not a magnification filter: GL refuses it and the default stays.
    texture->setMagnificationFilter(QOpenGLTexture::LinearMipMapLinear);
    texture->bind();
}

void OpenglFileMerger::placePicture(int pictureWidth, int pictureHeight, const QRect& rect, double angle, int width,
                                    int height)
{
    const float w = static_cast<float>(pictureWidth);
    const float h = static_cast<float>(pictureHeight);
    const float frameW = static_cast<float>(width);
    const float frameH = static_cast<float>(height);
    const float x = static_cast<float>(rect.x());
    const float y = static_cast<float>(rect.y());
    const float rw = static_cast<float>(rect.width());
    const float rh = static_cast<float>(rect.height());

    // Fit wholly, keep the proportions, centre in the rectangle.
    const float k = std::min(rw / w, rh / h);
    const float sx = k * w / frameW;
    const float sy = k * h / frameH;
    const float ox = (rw - w * k) * 0.5f;
    const float oy = (rh - h * k) * 0.5f;

    mergeShader->resetMatrices();
    mergeShader->translateModel((x + ox) / (frameW * 0.5f), (y + oy) / (frameH * 0.5f), 0.0f);
    mergeShader->scaleModel(sx, sy);
    mergeShader->translateModel(1.0f - 1.0f / sx, 1.0f - 1.0f / sy, 0.0f);
    // A null axis: no pivot, and an angle of 0 leaves the matrix alone.
    mergeShader->rotateAboutEdge(static_cast<float>(angle), 0.0f, 0.0f, 0.0f);
}

void OpenglFileMerger::drawBackground(int width, int height, const QColor& background)
{
    composeFbo()->bind();
    // A picture of the right size is not refilled: a change of colour alone
    // doesn't show here.
    if (backgroundImage.width() != width || backgroundImage.height() != height) {
        backgroundImage = QImage(width, height, QImage::Format_RGBA8888);
        backgroundImage.fill(background);
    }
    glActiveTexture(GL_TEXTURE0);
    glBindTexture(GL_TEXTURE_2D, textures[0]);
    if (backgroundTexWidth == width && backgroundTexHeight == height) {
        glTexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, width, height, GL_RGBA, GL_UNSIGNED_BYTE,
                        backgroundImage.constBits());
    } else {
        glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA, width, height, 0, GL_RGBA, GL_UNSIGNED_BYTE,
                     backgroundImage.constBits());
        backgroundTexWidth = width;
        backgroundTexHeight = height;
    }
    mergeShader->setUniformInt("fgImageTexture", 0);
    mergeShader->resetMatrices();
    mergeShader->drawStrip();
    glBindTexture(GL_TEXTURE_2D, 0);
    QOpenGLFramebufferObject::bindDefault();
}

void OpenglFileMerger::mergeImages(const QList<_channel_merge_param>& params, int width, int height,
                                   const QColor& background, const QImage& graffiti)
{
    if (!context && !initContext()) {
        qCDebug(lcGpu) << "[OpenglFileMerger::mergeImages]initContext failed!";
        return;
    }
    if (width <= 0 || height <= 0) {
        LUMEN_WARNING(lcGpu) << "[OpenglFileMerger::mergeImages] dropped a merge of size" << width << "x" << height;
        return;
    }

    // The host thread may replace the map meanwhile; this merge keeps its own.
    BufferMap buffers;
    {
        QMutexLocker buffersLocker(&buffersMutex);
        buffers = textureBuffers;
    }

    // Keeps channel threads from swapping textures while the frame is drawn;
    // the driver's turn comes first, as everywhere.
    GlDriverTurn turn;
    SharedTexturesLocked locker(SharedTexturesLocked::Reading);
    if (!shareHandshakeDone(params, buffers))
        return;
    // The same request over the same pictures would draw the same frame:
    // the one in the framebuffers stays.
    const MergeInputs inputs = inputsOf(params, buffers, width, height, background, graffiti);
    if (glInited && inputs == lastInputs)
        return;
    lastInputs = inputs;
    if (!beginFrame(width, height))
        return;
    composeChannels(params, buffers, width, height, background);
    // Rasterized without the driver's turn; the copies then find it drawn.
    settleOutsideTurn();
    copyComposed(mergedFbo());  // the frame without overlay
    if (graffiti.isNull()) {
        delete graffitiTexture;
        graffitiTexture = nullptr;
    } else {
        drawOverlay(graffiti);
        settleOutsideTurn();
    }
    copyComposed(finalFbo());  // the frame with overlay
    doneCurrent();
}

OpenglFileMerger::MergeInputs OpenglFileMerger::inputsOf(const QList<_channel_merge_param>& params,
                                                         const BufferMap& buffers, int width, int height,
                                                         const QColor& background, const QImage& graffiti)
{
    MergeInputs inputs{width, height, background.rgba(), graffiti.cacheKey(), {}};
    for (const _channel_merge_param& param : params) {
        auto found = buffers.find(param.channelId);
        TextureExchange* buffer = found == buffers.end() ? nullptr : found->second.get();
        inputs.channels.push_back({param.channelId, param.rect, param.rotation, buffer,
                                   buffer ? buffer->generation() : 0});
    }
    return inputs;
}

bool OpenglFileMerger::beginFrame(int width, int height)
{
    if (!makeCurrent()) {
        qCDebug(lcGpu) << "mergeImages fails in makeCurrent";
        return false;
    }
    if (!glInited) {
        if (!initOpenGL(width, height)) {
            doneCurrent();
            return false;
        }
        glInited = true;
        engineexit::arm();  // after the shader compiler's first use
    }
    if (frameWidth != width || frameHeight != height)
        resize(width, height);
    return true;
}

void OpenglFileMerger::composeChannels(const QList<_channel_merge_param>& params, const BufferMap& buffers,
                                       int width, int height, const QColor& background)
{
    // The merged and the final frame are each copied whole from the composed
    // one, whose every pixel is opaque (the background is, and drawing over
    // it keeps alpha 1): clearing them first would change nothing.
    glClearColor(background.red() / 255.0f, background.green() / 255.0f, background.blue() / 255.0f, 1.0f);
    composeFbo()->bind();
    glViewport(0, 0, width, height);
    glClear(GL_COLOR_BUFFER_BIT);  // nothing here tests depth
    QOpenGLFramebufferObject::bindDefault();

    mergeShader->bind();
    mergeShader->setUniformFloat("drawGraffiti", 0.0f);
    // The fragment stage has no such uniform; the call has no effect.
    mergeShader->setUniformFloat("drawBg", 0.0f);
    mergeShader->setUniformFloat("premulAlpha", 0.0f);

    std::set<int> drawnFromPictures;
    channelsDrawn = 0;
    if (params.isEmpty()) {
        drawBackground(width, height, background);
    } else {
        recordedParams.clear();
        for (const _channel_merge_param& param : params) {
            auto found = buffers.find(param.channelId);
            if (found != buffers.end() && found->second
                && drawChannel(param, found->second.get(), width, height))
                drawnFromPictures.insert(param.channelId);
        }
    }
    mergeShader->setUniformFloat("premulAlpha", 0.0f);
    // Textures of channels that this merge didn't draw from a picture would
    // keep a picture of whatever size they last had.
    dropTexturesExcept(drawnFromPictures);
}

bool OpenglFileMerger::shareHandshakeDone(const QList<_channel_merge_param>& params, const BufferMap& buffers)
{
    // A channel that hasn't made its textures in a context sharing with this
    // one gets the context, and the merge waits.
    if (!useSharedTextures)
        return true;
    for (const _channel_merge_param& param : params) {
        auto found = buffers.find(param.channelId);
        if (found == buffers.end() || !found->second)
            continue;
        TextureExchange* buffer = found->second.get();
        if (buffer->isShareReady(sceneId))
            continue;
        buffer->setShareContext(sceneId, context);
        if (!buffer->isShareReady(sceneId))
            return false;
    }
    return true;
}

bool OpenglFileMerger::drawChannel(const _channel_merge_param& param, TextureExchange* buffer, int width, int height)
{
    int pictureWidth = 0;
    int pictureHeight = 0;
    const bool fromImage = buffer->isImageMode();
    composeFbo()->bind();
    if (fromImage) {
        QImage image;
        if (!buffer->getImage(image) || image.isNull()) {
            QOpenGLFramebufferObject::bindDefault();
            return false;
        }
        const QImage::Format format = image.format();
        if (format != QImage::Format_RGBA8888 && format != QImage::Format_RGB32 && format != QImage::Format_RGB888)
            image = image.convertToFormat(QImage::Format_RGBA8888);
        mergeShader->setUniformFloat("premulAlpha", buffer->isPremulAlpha() ? 1.0f : 0.0f);
        const double fit = std::min(static_cast<double>(param.rect.width()) / image.width(),
                                    static_cast<double>(param.rect.height()) / image.height());
        uploadPicture(channelTextures[param.channelId], image, GL_TEXTURE0, QImage::Format_RGB32, readsSmallerLevels(fit));
        pictureWidth = image.width();
        pictureHeight = image.height();
    } else {
        mergeShader->setUniformFloat("premulAlpha", 0.0f);
        buffer->bindReadTexture(context);
        buffer->getSize(&pictureWidth, &pictureHeight);
    }
    mergeShader->setUniformInt("fgImageTexture", 0);
    mergeShader->setUniformFloat("drawGraffiti", 0.0f);

    const QRect rect = param.rect;
    if (pictureWidth > 0 && pictureHeight > 0 && rect.width() > 0 && rect.height() > 0) {
        placePicture(pictureWidth, pictureHeight, rect, param.rotation, width, height);
        mergeShader->drawStrip();
        ++channelsDrawn;
    }

    if (fromImage) {
        glActiveTexture(GL_TEXTURE0);
        glBindTexture(GL_TEXTURE_2D, 0);
    } else {
        buffer->unbindAndClearReady(context);
    }
    QOpenGLFramebufferObject::bindDefault();
    return fromImage;
}

void OpenglFileMerger::dropTexturesExcept(const std::set<int>& channelIds)
{
    for (auto it = channelTextures.begin(); it != channelTextures.end();) {
        if (channelIds.count(it->first)) {
            ++it;
            continue;
        }
        delete it->second;
        it = channelTextures.erase(it);
    }
}

void OpenglFileMerger::copyComposed(QOpenGLFramebufferObject* target)
{
    // A copy pass of opaque pixels at their own size, texel for pixel: a
    // block transfer gives the same bytes without running a shader.
    mergeShader->setUniformFloat("premulAlpha", 0.0f);
    mergeShader->setUniformInt("fgImageTexture", 0);
    mergeShader->setUniformFloat("drawGraffiti", 0.0f);
    const QRect whole(0, 0, frameWidth, frameHeight);
    QOpenGLFramebufferObject::blitFramebuffer(target, whole, composeFbo(), whole, GL_COLOR_BUFFER_BIT, GL_NEAREST);
    QOpenGLFramebufferObject::bindDefault();
}

void OpenglFileMerger::drawOverlay(const QImage& graffiti)
{
    // On unit 1, over the composed frame.
    QImage overlay = graffiti;
    if (overlay.format() != QImage::Format_ARGB32)
        overlay = overlay.convertToFormat(QImage::Format_ARGB32);
    composeFbo()->bind();
    mergeShader->setUniformFloat("premulAlpha", 1.0f);
    const double fit = std::min(static_cast<double>(frameWidth) / overlay.width(),
                                static_cast<double>(frameHeight) / overlay.height());
    uploadPicture(graffitiTexture, overlay, GL_TEXTURE1, QImage::Format_ARGB32, readsSmallerLevels(fit));
    mergeShader->setUniformInt("fgImageTexture", 1);
    mergeShader->setUniformFloat("drawGraffiti", 1.0f);
    mergeShader->resetMatrices();
    mergeShader->drawStrip();
    glActiveTexture(GL_TEXTURE1);
    glBindTexture(GL_TEXTURE_2D, 0);
    glActiveTexture(GL_TEXTURE0);
    QOpenGLFramebufferObject::bindDefault();
}

void OpenglFileMerger::readFramebuffer(QOpenGLFramebufferObject* source, readback::PathBuffers& path,
                                       bool& firstRead, uchar* target, int width, int height, bool withAlpha,
                                       bool synchronous)
{
    readWrote = false;
    if (!glInited || !source || !target)
        return;
    if (!makeCurrent()) {
        qCDebug(lcGpu) << "[OpenglWorkerBase::readLastFboByAlpha]This fails in makeCurrent";
        return;
    }
    source->bind();
    const readback::Layout layout = readback::layout(width, height, readback::formatByAlpha(withAlpha, GL_BGR));
    if (synchronous)
        path.readNow(this, target, layout);
    else  // the picture handed out is one frame old
        path.readRing(this, target, layout, firstRead);
    readWrote = true;
    QOpenGLFramebufferObject::bindDefault();
    doneCurrent();
}
void OpenglFileMerger::readLastFboByAlpha(uchar* target, int width, int height, bool withAlpha, bool synchronous)
{
    readFramebuffer(mergedFbo(), mergedReads, firstReadFlags[0], target, width, height, withAlpha, synchronous);
}

void OpenglFileMerger::readFinalImage(uchar* target, int width, int height, bool withAlpha, bool synchronous)
{
    readFramebuffer(finalFbo(), finalReads, firstReadFlags[1], target, width, height, withAlpha, synchronous);
}
