#include "gpu/OpenglChannelWorker.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include <QDebug>
#include <QLineF>
#include <QMatrix4x4>
#include <QVector2D>
#include <QVector3D>
#include <QOpenGLContext>
#include <QOpenGLFramebufferObject>
#include <QOpenGLShaderProgram>
#include <QOpenGLTexture>
#include <QThread>

#include "engine/Logging.h"
#include "filters/BeautyFilterBase.h"
#include "gpu/GlTextures.h"
#include "scene/TextureBuffer.h"
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

// The frame's pixels for doPreWork, which only checks that there are some:
// bits() would detach the host's shared picture, a copy of it every frame.
uchar* frameData(const QImage& image)
{
    return const_cast<uchar*>(image.constBits());
}

bool allOpaque(const QImage& image);

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
        qCWarning(lcGpu) << "[OpenglChannelWorker::~OpenglChannelWorker] destroyed off its context's thread";
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

void OpenglChannelWorker::flushOutsideTextureLock()
{
    // The contexts of a scene and its channels share their textures, and
    // Mesa guards a copy into a texture, or new pixels for one, with one lock
    // for all of them. The software rasteriser draws what is queued when such
    // a copy needs it, under that lock: every channel would wait while
    // another draws its frame. Drawn first, the copy under the lock is short.
    glFlush();
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

void OpenglChannelWorker::renderFaceFilters(const FilterMap& filters, QImage& image, bool useShareTexture,
                                            bool firstFaceOnly, bool toImage)
{
    faceOutputOpaque = !useShareTexture && !filters.empty() && allOpaque(image);
    clearSkipped = regionPasses && faceOutputOpaque;
    const bool ready = doPreWork(frameData(image), image.width(), image.height());
    clearSkipped = false;
    if (ready) {
        applyFaceFilters(filters, image, useShareTexture, firstFaceOnly);
        outputStep(image, toImage);
    }
    doneCurrent();
}

namespace {

BeautyFilterBase* findFilter(const OpenglChannelWorker::FilterMap& filters, ImageFilterType type)
{
    auto it = filters.find(type);
    return it == filters.end() ? nullptr : it->second;
}

double valueOr0(const std::map<std::string, double>& map, const std::string& key)
{
    auto it = map.find(key);
    return it == map.end() ? 0.0 : it->second;
}

// 98 points as x, y.
const int kFacePointFloats = 196;
const int kContourFloats = 66;

// The frame pixels between edges given in doubles, cut to the frame; edges
// that aren't numbers give the whole frame.
QRect frameRegion(double left, double top, double right, double bottom, int width, int height)
{
    if (!std::isfinite(left) || !std::isfinite(top) || !std::isfinite(right) || !std::isfinite(bottom))
        return QRect(0, 0, width, height);
    auto cut = [](double v, int limit) { return static_cast<int>(std::max(0.0, std::min<double>(limit, v))); };
    const int x0 = cut(std::floor(left), width), x1 = cut(std::ceil(right), width);
    const int y0 = cut(std::floor(top), height), y1 = cut(std::ceil(bottom), height);
    return QRect(x0, y0, x1 - x0, y1 - y0);
}

// Where smoothing can change a pixel: its Gaussian weight over the face area
// is cut to 0 below exp(-4), that is outside the ellipse of half axes
// 0.4 * sqrt(8) of the area's size round its centre. The ellipse is covered
// by bands of rows, each as wide as the ellipse in it, rounded outwards.
std::vector<QRect> smoothRegion(const std::map<std::string, double>& face, int width, int height)
{
    const double x = valueOr0(face, face_area_x), y = valueOr0(face, face_area_y);
    const double w = valueOr0(face, face_area_width), h = valueOr0(face, face_area_height);
    if (!(w > 0) || !(h > 0) || !std::isfinite(x + y + w + h))
        return {QRect(0, 0, width, height)};
    const double reach = 0.4 * std::sqrt(8.0);
    const double cx = x + w / 2, cy = y + h / 2, a = reach * w + 2, b = reach * h + 2;
    const int kBands = 16;
    std::vector<QRect> bands;
    for (int i = 0; i < kBands; ++i) {
        const double top = cy - b + 2 * b * i / kBands, bottom = cy - b + 2 * b * (i + 1) / kBands;
        const double nearest = std::max(top, std::min(bottom, cy));
        const double half = a * std::sqrt(std::max(0.0, 1.0 - (nearest - cy) * (nearest - cy) / (b * b))) + 2;
        const QRect band = frameRegion(cx - half, top - 1, cx + half, bottom + 1, width, height);
        if (!band.isEmpty())
            bands.push_back(band);
    }
    return bands;
}

// How far from a pixel the smoothing shader reads: 20 / 640 of the width
// across, 20 / 1136 of the height down, and one more texel for the filtering.
int smoothMargin(int width, int height)
{
    return static_cast<int>(std::ceil(std::max(width * 20.0 / 640.0, height * 20.0 / 1136.0))) + 2;
}

// The contour points that the jaw warp pulls and the point each one is
// pulled towards, as in the shader: 5 to 27 without the chin's 16.
int slimTarget(int k)
{
    return (k <= 8 || k >= 24) ? 53 : 90;
}

// Where the jaw warp can move a pixel. Each of its pulls reaches one eye
// distance round its contour point and moves what it reaches by at most its
// own length, so a pixel further than the eye distance plus all the lengths
// from every pulled point never moves, and a moved one reads at most that sum
// (`reads`) away. The points are relative to the face area's corner.
QRect slimRegion(const std::map<std::string, double>& face, const std::vector<int32_t>& points, int width,
                 int height, int& reads)
{
    auto at = [&](int k) { return QPointF(points[2 * k], points[2 * k + 1]); };
    // Every pull at the larger of the shader's two scales.
    const double scale = std::fabs(valueOr0(face, slim_face_strength) / 100.0 * 0.012 * 2.0);
    double lengths = 0;
    double left = at(5).x(), right = left, top = at(5).y(), bottom = top;
    for (int k = 5; k <= 27; ++k) {
        if (k == 16)
            continue;
        lengths += QLineF(at(k), at(slimTarget(k))).length() * scale;
        left = std::min(left, at(k).x()), right = std::max(right, at(k).x());
        top = std::min(top, at(k).y()), bottom = std::max(bottom, at(k).y());
    }
    const double radius = QLineF(at(96), at(97)).length();
    const double grow = radius + lengths + 2;
    const double ox = valueOr0(face, face_area_x) - grow, oy = valueOr0(face, face_area_y) - grow;
    reads = std::isfinite(lengths) ? static_cast<int>(std::min<double>(std::ceil(lengths), width + height)) + 2
                                   : width + height;
    return frameRegion(ox + left, oy + top, ox + right + 2 * grow, oy + bottom + 2 * grow, width, height);
}

// The frame pixels that a mesh of x, y, z, s, t vertices reads, with a texel
// round them for the filtering.
QRect meshArea(const std::vector<float>& vertices, int width, int height)
{
    if (vertices.size() < 5)
        return QRect();
    double left = width, top = height, right = 0, bottom = 0;
    for (size_t i = 0; i + 4 < vertices.size(); i += 5) {
        left = std::min<double>(left, vertices[i + 3] * width);
        right = std::max<double>(right, vertices[i + 3] * width);
        top = std::min<double>(top, vertices[i + 4] * height);
        bottom = std::max<double>(bottom, vertices[i + 4] * height);
    }
    return frameRegion(left - 2, top - 2, right + 2, bottom + 2, width, height);
}

// Whether every pixel of the picture is opaque. 32-bit pixels with alpha in
// the top byte of their word, as the engine hands them in, are looked at;
// pictures of other kinds with an alpha channel count as not opaque.
bool allOpaque(const QImage& image)
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

}  // namespace

bool OpenglChannelWorker::inPlaceFrame(const QImage& image, bool useShareTexture) const
{
    return regionPasses && !useShareTexture && allOpaque(image);
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

void OpenglChannelWorker::copyPassAndFlip()
{
    drawTexture(otherFbo(), currentFbo()->texture(), imageProgram, true);
    pingPong = !pingPong;
}

void OpenglChannelWorker::applyFaceFilters(const FilterMap& filters, const QImage& image, bool useShareTexture,
                                           bool firstFaceOnly)
{
    inPlace = regionPasses && faceOutputOpaque && fbo && fboBack;
    if (!inPlace || !uploadInto(fbo, image))
        drawInput(fbo, image, useShareTexture, filters.empty());
    pingPong = false;
    if (filters.empty() || !fbo || !fboBack)
        return;

    // Looked up by key, in this order whatever the map's order.
    if (BeautyFilterBase* slim = findFilter(filters, SLIMFACE)) {
        if (!slim->faceParas().empty()) {
            drawSlimFace(slim, firstFaceOnly, false);
            if (!inPlace)
                copyPassAndFlip();
        }
    }
    if (BeautyFilterBase* lips = findFilter(filters, REDLIPS)) {
        if (!lips->faceParas().empty()) {
            drawFaceArea(lips, false);
            if (!inPlace)
                copyPassAndFlip();
        }
    }
    BeautyFilterBase* smooth = findFilter(filters, SMOOTH);
    if (smooth)
        drawSmooth(smooth, false);
    if (BeautyFilterBase* whitening = findFilter(filters, WHITENING))
        drawWhitening(whitening, smooth != nullptr);
    settleResult();
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

void OpenglChannelWorker::drawSmooth(BeautyFilterBase* filter, bool premul)
{
    if (!smoothProgram || !filter)
        return;
    smoothProgram->bind();
    smoothProgram->setUniformFloat("filterType", 1.0f);
    const std::vector<std::map<std::string, double>> faces = filter->faceParas();
    for (size_t i = 0; i < faces.size(); ++i) {
        const bool facePremul = premul || i > 0;
        std::map<std::string, double> map = faces[i];
        smoothProgram->bind();
        filter->setUniforms(smoothProgram->shaderProgram(), map, frameWidth, frameHeight);
        if (inPlace) {
            drawInPlace(smoothProgram, smoothRegion(map, frameWidth, frameHeight),
                        smoothMargin(frameWidth, frameHeight));
            continue;
        }
        drawTexture(otherFbo(), currentFbo()->texture(), smoothProgram, facePremul);
        pingPong = !pingPong;
    }
}

void OpenglChannelWorker::drawSlimFace(BeautyFilterBase* filter, bool firstFaceOnly, bool premul)
{
    if (!slimFaceProgram || !filter)
        return;
    slimFaceProgram->bind();
    const std::vector<std::map<std::string, double>> faces = filter->faceParas();
    const std::vector<std::vector<int32_t>> points = filter->facePoints();
    for (size_t i = 0; i < faces.size(); ++i) {
        if (i >= points.size() || points[i].size() < static_cast<size_t>(kFacePointFloats)) {
            qCWarning(lcGpu) << "[OpenglChannelWorker::drawSlimFace] face" << i << "has fewer than 98 key points, skipped";
        } else {
            slimFaceProgram->bind();
            filter->setUniforms(slimFaceProgram->shaderProgram(), faces[i], frameWidth, frameHeight);
            std::vector<GLfloat> keyPoints(points[i].begin(), points[i].begin() + kFacePointFloats);
            const int location = slimFaceProgram->shaderProgram()->uniformLocation("keyPoints");
            if (location >= 0)
                glUniform1fv(location, kFacePointFloats, keyPoints.data());
            if (inPlace) {
                int reads = 0;
                const QRect region = slimRegion(faces[i], points[i], frameWidth, frameHeight, reads);
                drawInPlace(slimFaceProgram, {region}, reads);
            } else {
                drawTexture(otherFbo(), currentFbo()->texture(), slimFaceProgram, premul);
                pingPong = !pingPong;
            }
        }
        if (firstFaceOnly)
            break;
    }
}

void OpenglChannelWorker::drawFaceArea(BeautyFilterBase* filter, bool premul)
{
    if (!redLipsProgram || !filter)
        return;
    redLipsProgram->bind();
    redLipsProgram->setUniformFloat("filterType", 2.0f);
    const std::vector<std::map<std::string, double>> faces = filter->faceParas();
    const std::vector<std::vector<int32_t>> mouths = filter->mouthPoints();
    int drawn = 0;
    for (size_t i = 0; i < faces.size() && i < mouths.size(); ++i) {
        if (mouths[i].empty())
            continue;
        const double x = valueOr0(faces[i], "detect_face_area_x");
        const double y = valueOr0(faces[i], "detect_face_area_y");
        const double w = valueOr0(faces[i], "detect_face_area_width");
        const double h = valueOr0(faces[i], "detect_face_area_height");
        if (x < 1.0 || y < 1.0 || x + w > frameWidth || y + h > frameHeight)
            continue;
        const bool facePremul = premul || drawn > 0;
        // The mesh covers the lips only: the target first takes a plain copy
        // of the picture so far, then the lips are drawn over it. In place,
        // only what the mesh reads is copied, and the lips are drawn from
        // that copy back into the picture.
        if (!inPlace)
            drawTexture(otherFbo(), currentFbo()->texture(), imageProgram, false);
        redLipsProgram->bind();
        redLipsProgram->setUniformFloat("filterType", 2.0f);
        filter->setUniforms(redLipsProgram->shaderProgram(), faces[i], frameWidth, frameHeight);
        redLipsProgram->resetMatrices();
        redLipsProgram->buildLipsMesh(std::vector<int>(mouths[i].begin(), mouths[i].end()), faces[i], frameWidth,
                                      frameHeight);
        if (inPlace)
            copyArea(meshArea(redLipsProgram->lipsVertices(), frameWidth, frameHeight));
        QOpenGLFramebufferObject* target = inPlace ? currentFbo() : otherFbo();
        const GLuint source = inPlace ? otherFbo()->texture() : currentFbo()->texture();
        redLipsProgram->bind();
        target->bind();
        redLipsProgram->setUniformFloat("premulAlpha", facePremul ? 1.0f : 0.0f);
        glActiveTexture(GL_TEXTURE0);
        glBindTexture(GL_TEXTURE_2D, source);
        redLipsProgram->setUniformInt("inputImageTexture", 0);
        redLipsProgram->drawTriangles();
        glActiveTexture(GL_TEXTURE0);
        glBindTexture(GL_TEXTURE_2D, 0);
        redLipsProgram->setUniformFloat("premulAlpha", 0.0f);
        QOpenGLFramebufferObject::bindDefault();
        if (!inPlace)
            pingPong = !pingPong;
        ++drawn;
    }
    // The quad again for the later passes of this program.
    redLipsProgram->initVertices();
}

void OpenglChannelWorker::drawWhitening(BeautyFilterBase* filter, bool premul)
{
    if (!whiteningProgram || !filter)
        return;
    whiteningProgram->bind();
    QOpenGLShaderProgram* program = whiteningProgram->shaderProgram();
    const std::vector<std::map<std::string, double>> faces = filter->faceParas();
    if (faces.empty()) {
        whiteningProgram->setUniformFloat("hasFace", 0.0f);
        filter->setUniforms(program, filter->paras(), frameWidth, frameHeight);
    } else {
        whiteningProgram->setUniformFloat("hasFace", 1.0f);
        filter->setUniforms(program, faces[0], frameWidth, frameHeight);
        const std::vector<std::vector<int32_t>> contours = filter->contourPoints();
        // The shader does not read the contour; it goes up for shaders that do.
        if (!contours.empty() && contours[0].size() >= static_cast<size_t>(kContourFloats)) {
            std::vector<GLfloat> keyPoints(contours[0].begin(), contours[0].begin() + kContourFloats);
            const int location = program->uniformLocation("keyPoints");
            if (location >= 0)
                glUniform1fv(location, kContourFloats, keyPoints.data());
        }
    }
    drawTexture(otherFbo(), currentFbo()->texture(), whiteningProgram, premul);
    pingPong = !pingPong;
}

void OpenglChannelWorker::renderSticker(const FilterMap& filters, QImage& image, bool useShareTexture, bool,
                                        bool toImage)
{
    // From the share texture the picture is this frame's face pass's output,
    // opaque where that pass's picture was.
    const bool opaque = regionPasses && !filters.empty() && (useShareTexture ? faceOutputOpaque : allOpaque(image));
    clearSkipped = opaque;
    const bool ready = doPreWork(frameData(image), image.width(), image.height());
    clearSkipped = false;
    if (ready) {
        inPlace = opaque && fbo && fboBack;
        if (!inPlace || useShareTexture || !uploadInto(fbo, image))
            drawInput(fbo, image, useShareTexture, filters.empty());
        pingPong = false;
        if (BeautyFilterBase* sticker = findFilter(filters, STICKER))
            drawStickers(sticker, false);
        settleResult();
        outputStep(image, toImage);
    }
    doneCurrent();
}

void OpenglChannelWorker::drawStickers(BeautyFilterBase* filter, bool premul)
{
    if (!stickerProgram || !filter || !fbo || !fboBack)
        return;
    stickerProgram->bind();
    const std::vector<std::map<std::string, double>> faces = filter->faceParas();
    const std::vector<std::vector<int32_t>> points = filter->facePoints();
    const std::vector<cv::Rect> rects = filter->faceRects();
    const std::vector<std::vector<float>> angles = filter->faceAngles();
    QImage picture;
    filter->stickerImage(picture);
    int drawn = 0;
    for (size_t i = 0; i < faces.size() && i < points.size() && i < rects.size(); ++i) {
        std::map<std::string, double> map = faces[i];
        filter->setUniforms(stickerProgram->shaderProgram(), map, frameWidth, frameHeight);
        if (picture.isNull())
            continue;
        const std::vector<float> faceAngles = i < angles.size() ? angles[i] : std::vector<float>();
        if (drawSticker(picture, filter->stickerInfo(), points[i], rects[i], faceAngles, premul || drawn > 0))
            ++drawn;
    }
}

bool OpenglChannelWorker::drawSticker(const QImage& picture, const StickerInfo& info,
                                      const std::vector<int32_t>& keyPoints, const cv::Rect& rect,
                                      const std::vector<float>& angles, bool premul)
{
    if (keyPoints.size() < static_cast<size_t>(kFacePointFloats)) {
        qCWarning(lcGpu) << "[OpenglChannelWorker::drawSticker] a face with" << keyPoints.size() / 2
                         << "key points instead of 98 gets no sticker";
        return false;
    }
    // The picture so far into the other framebuffer. Opaque, that copy is
    // the picture itself, and the sticker goes straight onto it.
    QOpenGLFramebufferObject* target = inPlace ? currentFbo() : otherFbo();
    stickerProgram->bind();
    target->bind();
    stickerProgram->initVertices();
    if (!inPlace) {
        stickerProgram->setUniformFloat("premulAlpha", premul ? 1.0f : 0.0f);
        glActiveTexture(GL_TEXTURE0);
        glBindTexture(GL_TEXTURE_2D, currentFbo()->texture());
        stickerProgram->setUniformInt("stickerTexture", 0);
        stickerProgram->resetMatrices();
        stickerProgram->drawStrip();
        stickerProgram->setUniformFloat("premulAlpha", 0.0f);
        glBindTexture(GL_TEXTURE_2D, 0);
    }

    // The sticker over it, blended.
    uploadSticker(picture, true);
    const bool placed = positionSticker(info, keyPoints, angles);
    if (placed) {
        stickerProgram->setUniformInt("stickerTexture", 1);
        stickerProgram->drawStrip();
    }
    glActiveTexture(GL_TEXTURE1);
    glBindTexture(GL_TEXTURE_2D, 0);
    glActiveTexture(GL_TEXTURE0);
    QOpenGLFramebufferObject::bindDefault();
    if (!inPlace)
        pingPong = !pingPong;
    // The next face, in this frame or the next, smooths its size against this one.
    lastAngles = {angles};
    lastRects = {rect};
    lastPoints = {keyPoints};
    return placed;
}

void OpenglChannelWorker::uploadSticker(const QImage& picture, bool hasAlpha)
{
    glActiveTexture(GL_TEXTURE1);
    if (picture.width() != stickerTexWidth || picture.height() != stickerTexHeight) {
        // Storage of another size would be read past the picture's end: a
        // texture of the new size replaces the old one.
        if (stickerTexture) {
            stickerTexture->destroy();
            delete stickerTexture;
        }
        stickerTexture = new QOpenGLTexture(picture, QOpenGLTexture::GenerateMipMaps);
        stickerTexture->setWrapMode(QOpenGLTexture::ClampToEdge);
        stickerTexture->setMinificationFilter(QOpenGLTexture::LinearMipMapNearest);
        stickerTexture->setMagnificationFilter(QOpenGLTexture::Linear);
        stickerTexWidth = picture.width();
        stickerTexHeight = picture.height();
    }
    const QImage pixels = picture.format() == QImage::Format_RGBA8888 || !hasAlpha
                              ? picture
                              : picture.convertToFormat(QImage::Format_RGBA8888);
    stickerTexture->setData(hasAlpha ? QOpenGLTexture::RGBA : QOpenGLTexture::RGB, QOpenGLTexture::UInt8,
                            pixels.constBits());
    stickerTexture->bind();
}

bool OpenglChannelWorker::positionSticker(const StickerInfo& info, const std::vector<int32_t>& p,
                                          const std::vector<float>& angles)
{
    stickerProgram->resetMatrices();
    if (p.size() < 195)
        return false;
    auto eyeDistance = [](const std::vector<int32_t>& q) {
        return static_cast<float>(std::sqrt(std::pow(double(q[192] - q[194]), 2) + std::pow(0.0, 2)));
    };
    float e = eyeDistance(p);
    if (!lastPoints.empty()) {
        const std::vector<int32_t>& q = lastPoints.front();
        if (q.size() < 195)
            return false;
        // A small change keeps the old size, a large one takes the new.
        const float e1 = eyeDistance(q);
        const float w = std::exp(-(e1 - e) * (e1 - e) / 50.0f);
        e = e * (1.0f - w) + e1 * w;
    }
    const float a0 = angles.size() > 0 ? angles[0] : 0.0f;
    const float a1 = angles.size() > 1 ? angles[1] : 0.0f;
    const float a2 = angles.size() > 2 ? angles[2] : 0.0f;
    float r0 = a0;
    float r1 = a1;
    float r2 = a2;
    if (info.angle_limit == 1.0f && a0 < -2.0f && -10.0f < a2 && a2 < 10.0f) {
        if (a1 > 20.0f) {
            r1 = 20.0f;
            r2 = a2 * 0.5f;
        } else if (a1 < -20.0f) {
            r1 = -20.0f;
            r0 = a0 * 0.5f;
        }
    }
    const float W = static_cast<float>(frameWidth);
    const float H = static_cast<float>(frameHeight);
    const float aspect = W / H;
    QMatrix4x4 m;
    m.rotate(r0, 1, 0, 0);
    m.rotate(r1, 0, 1, 0);
    m.rotate(r2, 0, 0, 1);
    m.scale(1.0f, 1.0f / aspect);
    const QVector2D c = m.map(QVector3D(frameWidth / 2, frameHeight / 2, 0)).toVector2D();
    const QVector2D l = m.map(QVector3D(frameWidth / 4, frameHeight / 2, 0)).toVector2D();
    const QVector2D g = m.map(QVector3D(3 * frameWidth / 4, frameHeight / 2, 0)).toVector2D();
    const float ratio = e / c.length();
    const size_t i = 2 * static_cast<size_t>(std::max(0, truncToInt(info.center_index)));
    if (i + 1 >= p.size())
        return false;
    stickerProgram->translateModel(p[i] / (W / 2) - 1.0f - ratio * info.offset_x_scale_factor,
                                   p[i + 1] / (H / 2) - 1.0f - ratio * info.offset_y_scale_factor, 0.0f);
    stickerProgram->scaleModel(1.0, aspect);
    // The constant 3.14 as the catalogue's placements were tuned with it.
    const float k = std::fabs(std::cos(a2 * 3.14f / 180.0f));
    const float ratio2 = e / (l - g).length();
    stickerProgram->scaleModel(ratio2 * info.base_x_scale / k, ratio2 * info.base_y_scale / k);
    stickerProgram->rotateModel(r0, 1, 0, 0);
    stickerProgram->rotateModel(r1, 0, 1, 0);
    stickerProgram->rotateModel(r2, 0, 0, 1);
    if (info.sticker_scaled == 0.0f)
        stickerProgram->scaleModel(1.0, aspect > 1.0f ? 1.0f / aspect : aspect);
    stickerProgram->translateModel(W * info.sticker_anchor_x / (W / 2) - 1.0f,
                                   (1.0f - info.sticker_anchor_y) * H / (H / 2) - 1.0f, 0.0f);
    return true;
}

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

    const float s = filter->scale();
    isClip = filter->isClip() != 0;
    rotationZ = truncToInt(filter->rotationZ());
    const int round = filter->isRoundCamera();
    isClipPerspect = false;
    readWidth = 0;
    readHeight = 0;
    float rx = 0.0f;
    float ry = 0.0f;
    if (!noRotation) {
        rx = -filter->rotationX();
        ry = -filter->rotationY();
    }
    int r = filter->cornerRadius();
    const int mirrored = filter->isMirrored();
    const float W = static_cast<float>(frameWidth);
    const float H = static_cast<float>(frameHeight);
    const float xyRatio = H / W;
    if (round != 0) {
        isClip = true;
        r = truncToInt((1.0f > H / W ? H : W) * 0.5);
    } else {
        r = std::min(r, frameWidth / 2);
        r = std::min(r, frameHeight / 2);
    }
    const float bias = static_cast<float>(static_cast<double>(s) - 1.0) / s * 0.5f;
    const int radiusPixels = truncToInt(r / s);
    const float xRadius = radiusPixels / W;
    const float yRadius = radiusPixels / H;

    // The page gate. The flag reads inverted on purpose: with allowInFrame
    // set only an offset outside [0, 1] is drawn, and without it only one
    // inside.
    const float y = filter->centerYOffset();
    const bool inside = y >= 0.0f && y <= 1.0f;
    if (inside == allowInFrame) {
        frameSkipped = true;
        return;
    }

    fbo->bind();
    if (!isClip)
        basicProgram->setUniformFloat("premulAlpha", 1.0f);
    const bool fromShare = useShareTexture && textureBuffer;
    if (fromShare)
        textureBuffer->bindWriteTexture(context);
    else  // the smaller levels only where the picture can shrink
        bindQtTexture(image, !isClip && (s < 1.0f || rx != 0.0f || ry != 0.0f));
    basicProgram->setUniformFloat("inXbias", bias);
    basicProgram->setUniformFloat("inYbias", bias);
    basicProgram->setUniformFloat("xRadius", xRadius);
    basicProgram->setUniformFloat("yRadius", yRadius);
    basicProgram->setUniformFloat("xyRatio", xyRatio);
    basicProgram->setUniformFloat("isClip", 0.0f);
    basicProgram->setUniformFloat("isClipPerspect", 0.0f);
    basicProgram->setUniformFloat("isRoundCamera", static_cast<float>(round));
    basicProgram->setUniformFloat("isRotate", rx != 0.0f || ry != 0.0f ? 1.0f : 0.0f);
    basicProgram->setUniformInt("inputImageTexture", 0);

    basicProgram->resetMatrices();
    if (mirrored != 0)
        basicProgram->flipProjection();
    if (!isClip) {
        basicProgram->scaleModel(s, s);
        basicProgram->applyPerspective90();
        // A mirrored picture turns the same way on screen.
        if (mirrored != 0 && ry != 0.0f)
            ry = -ry;
        basicProgram->rotateAboutEdge(rx, 1.0f, 0.0f, 0.0f);
        basicProgram->rotateAboutEdge(ry, 0.0f, 1.0f, 0.0f);
    }
    basicProgram->initVertices();
    basicProgram->drawStrip();
    if (fromShare) {
        textureBuffer->unbindTexture(context);
    } else {
        glActiveTexture(GL_TEXTURE0);
        glBindTexture(GL_TEXTURE_2D, 0);
    }
    if (!isClip)
        basicProgram->setUniformFloat("premulAlpha", 0.0f);
    QOpenGLFramebufferObject::bindDefault();

    if (isClip || round != 0)
        drawClip(filter, rx, ry, round != 0);
}

void OpenglChannelWorker::drawClip(BeautyFilterBase* filter, float rx, float ry, bool round)
{
    if (rx != 0.0f || ry != 0.0f)
        isClipPerspect = true;
    const float s = filter->scale();
    const float cx = filter->centerXOffset();
    const float cy = filter->centerYOffset();
    float cw = filter->channelWidth();
    float ch = filter->channelHeight();
    const float W = static_cast<float>(frameWidth);
    const float H = static_cast<float>(frameHeight);

    // The channel's box fitted to the frame; a box with one side equal to the
    // frame's stays as it is.
    if (cw > W || ch > H) {
        const float k = std::max(cw / W, ch / H);
        cw /= k;
        ch /= k;
    } else if (W > cw && H > ch) {
        const float k = std::min(W / cw, H / ch);
        cw *= k;
        ch *= k;
    }

    float xRadius = 0.0f;
    float yRadius = 0.0f;
    float inXbias = 0.0f;
    float inYbias = 0.0f;
    if (round) {
        isClip = true;
        const float shorter = 1.0f > H / W ? H : W;
        const float d = shorter / s;
        cw = d;
        ch = d;
        int radius = truncToInt(static_cast<double>(shorter) * 0.5);
        const float half = d * 0.5f;
        if (radius > half)
            radius = truncToInt(half);
        xRadius = radius / W;
        yRadius = radius / H;
        inXbias = static_cast<float>(std::max(0.0, static_cast<double>((W - d) / W) * 0.5));
        inYbias = static_cast<float>(std::max(0.0, static_cast<double>((H - d) / H) * 0.5));
    }

    // The box is the truncation of its sides, whatever the frame's size. One
    // that no framebuffer can hold (no channel size with a clip, a scale near
    // 0) leaves the frame out; reported once per size.
    const QSize box(truncToInt(cw), truncToInt(ch));
    if (box.width() < 1 || box.height() < 1 || box.width() > maxFrameSide || box.height() > maxFrameSide) {
        if (box != refusedClip)
            qCWarning(lcGpu) << "[OpenglChannelWorker::drawClip] no clip of" << box.width() << "x" << box.height()
                             << "for a frame of" << frameWidth << "x" << frameHeight
                             << "(channel_width, channel_height or scale_strength out of range); frame left out";
        refusedClip = box;
        frameSkipped = true;
        return;
    }
    refusedClip = QSize();
    if (box.width() != clipWidth || box.height() != clipHeight)
        rebuildClipFbos(box.width(), box.height());

    // First pass: the picture placed in the box. The viewport is the frame's
    // on purpose: the box is the lower left part of it.
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
    basicProgram->setUniformFloat("xRadius", xRadius);
    basicProgram->setUniformFloat("yRadius", yRadius);
    basicProgram->setUniformFloat("inXbias", inXbias);
    basicProgram->setUniformFloat("inYbias", inYbias);
    placeClip(cx, cy, s);
    basicProgram->initVertices();
    basicProgram->drawStrip();
    glActiveTexture(GL_TEXTURE0);
    glBindTexture(GL_TEXTURE_2D, 0);
    if (!isClipPerspect)
        basicProgram->setUniformFloat("premulAlpha", 0.0f);
    QOpenGLFramebufferObject::bindDefault();
    if (!isClipPerspect)
        return;

    // Second pass: the box turned in perspective, with the soft rim.
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
    basicProgram->rotateAboutEdge(rx, 1.0f, 0.0f, 0.0f);
    basicProgram->rotateAboutEdge(ry, 0.0f, 1.0f, 0.0f);
    basicProgram->drawStrip();
    glActiveTexture(GL_TEXTURE0);
    glBindTexture(GL_TEXTURE_2D, 0);
    basicProgram->setUniformFloat("premulAlpha", 0.0f);
    QOpenGLFramebufferObject::bindDefault();
}

void OpenglChannelWorker::placeClip(float cx, float cy, float s)
{
    const float W = static_cast<float>(frameWidth);
    const float H = static_cast<float>(frameHeight);
    const float CW = static_cast<float>(clipWidth);
    const float CH = static_cast<float>(clipHeight);

    float f = (CW / CH != W / H && W / H > CW / CH) ? CH / H : CW / W;
    f *= s;
    float tx = 2.0f * cx * static_cast<float>(clipWidth - frameWidth) / W;
    float ty;
    if (cy > 1.0f) {
        const float a = H * 0.5f - CH;
        const int b = truncToInt(static_cast<float>(truncToInt(a)) / 10.0f);
        const float e = cy - 1.0f;
        if (e * 10.0f * b + a > H * 0.5f)
            ty = -1.0005f;  // off the frame
        else
            ty = 2.0f * (-e * 10.0f * b) / H - 2.0f * a / H;
    } else if (cy < 0.0f) {
        ty = -(cy + 1.0f);
    } else {
        ty = 2.0f * (static_cast<float>(truncToInt(H - CH)) / 10.0f) * (-cy * 10.0f) / H;
    }
    // Four decimals, by floor: a negative value moves away from 0.
    if (ty != 0.0f)
        ty = std::floor(ty * 10000.0f) / 10000.0f;
    if (cx < 0.0f)
        tx = -(cx + 1.0f);
    else if (cx > 1.0f)
        tx = 2.0f * (CW - static_cast<float>(frameWidth / 2)) / W - 2.0f * (CW / W) * (cx - 1.0f);

    basicProgram->resetMatrices();
    basicProgram->translateModel(tx, ty, 0.0f);
    basicProgram->scaleModel(f, f);
}

void OpenglChannelWorker::rebuildClipFbos(int width, int height)
{
    clipWidth = width;
    clipHeight = height;
    // The same two members as the frame's: a rebuild leaves them at the clip size.
    texelWidth = 1.0f / static_cast<float>(width);
    texelHeight = 1.0f / static_cast<float>(height);
    for (QOpenGLBuffer* buffer : {&clipPackBufferA, &clipPackBufferB}) {
        if (!buffer->isCreated()) {
            buffer->create();
            buffer->setUsagePattern(QOpenGLBuffer::StreamRead);
        }
        buffer->bind();
        buffer->allocate(width * height * 4);
        buffer->release();
    }
    gl::dropFbo(clipFbo);
    gl::dropFbo(clipRotateFbo);
    clipFbo = new QOpenGLFramebufferObject(width, height, gl::frameFormat());
    clipRotateFbo = new QOpenGLFramebufferObject(width, height, gl::frameFormat());
    firstFrame = true;
}

bool OpenglChannelWorker::createSceneShareTexture(TextureBuffer* buffer)
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

bool OpenglChannelWorker::readFromGPU(TextureBuffer* buffer)
{
    // The buffer's context table is keyed by the scene.
    if (!glInited || !buffer || !buffer->getShareContext(sceneId))
        return false;
    if (!makeCurrent()) {
        qCDebug(lcGpu) << "[OpenglChannelWorker::readFromGPU]This fails in makeCurrent";
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
        flushOutsideTextureLock();
        source->bind();
        buffer->copyToReadTexture(context, width, height);
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
