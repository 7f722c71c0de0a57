// The channel worker's face passes, in their fixed order: slim face, red
// lips, smoothing and whitening, each over the whole frame or, on an opaque
// picture, in place over the region where it can change a pixel.
#include "gpu/OpenglChannelWorker.h"

#include <QDebug>
#include <QOpenGLFramebufferObject>
#include <QOpenGLShaderProgram>

#include "base/Logging.h"
#include "filters/BeautyFilterBase.h"
#include "gpu/FaceRegions.h"
#include "shader/ShaderWorker.h"
#include "shader/UniformCache.h"

using faceregions::meshArea;
using faceregions::slimRegion;
using faceregions::smoothMargin;
using faceregions::smoothRegion;

namespace {

double valueOr0(const std::map<std::string, double>& map, const std::string& key)
{
    auto it = map.find(key);
    return it == map.end() ? 0.0 : it->second;
}

// The contour as x, y: 33 points.
const int kContourFloats = 66;

}  // namespace

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

void OpenglChannelWorker::applyFaceFilters(const FilterMap& filters, const QImage& image, bool useShareTexture,
                                           bool firstFaceOnly)
{
    inPlace = regionPasses && faceOutputOpaque && fbo && fboBack;
    if (!inPlace || !uploadInto(fbo, image))
        drawInput(fbo, image, useShareTexture, filters.empty());
    pingPong = false;
    if (filters.empty() || !fbo || !fboBack)
        return;

    // The face passes in their fixed order, one row a filter type, whatever
    // the map's order: whether the pass draws only with a face (and its result
    // is then copied on to the other framebuffer), and how it draws.
    using Draw = void (*)(OpenglChannelWorker&, BeautyFilterBase*, const FilterMap&, bool firstFaceOnly);
    static const struct {
        ImageFilterType type;
        bool onlyWithFaces;
        Draw draw;
    } passes[] = {
        {SLIMFACE, true,
         [](OpenglChannelWorker& w, BeautyFilterBase* f, const FilterMap&, bool firstFaceOnly) {
             w.drawSlimFace(f, firstFaceOnly, false);
         }},
        {REDLIPS, true,
         [](OpenglChannelWorker& w, BeautyFilterBase* f, const FilterMap&, bool) { w.drawFaceArea(f, false); }},
        {SMOOTH, false,
         [](OpenglChannelWorker& w, BeautyFilterBase* f, const FilterMap&, bool) { w.drawSmooth(f, false); }},
        // Over a smoothed picture, premultiplied.
        {WHITENING, false,
         [](OpenglChannelWorker& w, BeautyFilterBase* f, const FilterMap& all, bool) {
             w.drawWhitening(f, findFilter(all, SMOOTH) != nullptr);
         }},
    };
    for (const auto& pass : passes) {
        BeautyFilterBase* filter = findFilter(filters, pass.type);
        if (!filter || (pass.onlyWithFaces && filter->faceParas().empty()))
            continue;
        pass.draw(*this, filter, filters, firstFaceOnly);
        if (pass.onlyWithFaces && !inPlace)
            copyPassAndFlip();
    }
    settleResult();
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
            LUMEN_WARNING(lcGpu) << "[OpenglChannelWorker::drawSlimFace] face" << i
                                 << "has fewer than 98 key points, skipped";
        } else {
            slimFaceProgram->bind();
            filter->setUniforms(slimFaceProgram->shaderProgram(), faces[i], frameWidth, frameHeight);
            std::vector<GLfloat> keyPoints(points[i].begin(), points[i].begin() + kFacePointFloats);
            const int location = uniforms::location(slimFaceProgram->shaderProgram(), "keyPoints");
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
        const double x = valueOr0(faces[i], detect_face_area_x);
        const double y = valueOr0(faces[i], detect_face_area_y);
        const double w = valueOr0(faces[i], detect_face_area_width);
        const double h = valueOr0(faces[i], detect_face_area_height);
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
            const int location = uniforms::location(program, "keyPoints");
            if (location >= 0)
                glUniform1fv(location, kContourFloats, keyPoints.data());
        }
    }
    drawTexture(otherFbo(), currentFbo()->texture(), whiteningProgram, premul);
    pingPong = !pingPong;
}
