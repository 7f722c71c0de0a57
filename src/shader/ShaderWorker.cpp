#include "shader/ShaderWorker.h"

#include <QDebug>
#include <QOpenGLContext>
#include <QOpenGLExtraFunctions>
#include <QOpenGLShaderProgram>
#include <QVector3D>

#include <cmath>

#include <opencv2/imgproc.hpp>

#include "base/Logging.h"
#include "shader/OpenGLHelper.h"
#include "shader/UniformCache.h"

namespace {

// The default full-screen quad: x, y, z, s, t per vertex, 20 bytes each.
const float kQuadVertices[20] = {
    -1.0f, -1.0f, 0.0f, 0.0f, 0.0f,  //
    1.0f,  -1.0f, 0.0f, 1.0f, 0.0f,  //
    -1.0f, 1.0f,  0.0f, 0.0f, 1.0f,  //
    1.0f,  1.0f,  0.0f, 1.0f, 1.0f,  //
};
const quint16 kQuadIndices[4] = {0, 1, 2, 3};
const int kVertexStride = 5 * sizeof(float);

// Which of the 20 lip points make up each lip, and how far each is moved, as
// y in picture pixels for a shift of a hundredth of the face's height: the
// upper lip is outer points 0 to 6 (2 to 4 raised, 3 by half as much) and
// inner points 13 to 15; the lower lip is point 0, outer points 6 to 11
// (7 to 11 lowered) and inner points 17 to 19.
bool upperLipPoint(int i, int shift, float& dy)
{
    dy = static_cast<float>((i >= 2 && i <= 4 ? -shift : 0) + (i == 3 ? shift / 2 : 0));
    return i <= 6 || (i >= 13 && i <= 15);
}

bool lowerLipPoint(int i, int shift, float& dy)
{
    dy = static_cast<float>(i >= 7 && i <= 11 ? shift : 0);
    return i == 0 || (i >= 6 && i <= 11) || i >= 17;
}

// The Delaunay triangles of one lip's points that lie a pixel or more inside
// the picture, with the mouth's centre where given.
std::vector<cv::Vec6f> triangulateLip(const std::vector<int>& lipPoints, bool (*lipPoint)(int, int, float&),
                                      int shift, const cv::Point2f* centre, int width, int height)
{
    cv::Subdiv2D subdiv(cv::Rect(0, 0, width, height));
    for (int i = 0; i < static_cast<int>(lipPoints.size() / 2); ++i) {
        float dy = 0.0f;
        if (!lipPoint(i, shift, dy))
            continue;
        const float x = static_cast<float>(lipPoints[2 * i]);
        const float y = static_cast<float>(lipPoints[2 * i + 1]) + dy;
        if (x >= 1.0f && y >= 1.0f && x <= width - 1 && y <= height - 1)
            subdiv.insert(cv::Point2f(x, y));
    }
    if (centre)
        subdiv.insert(*centre);
    std::vector<cv::Vec6f> triangles;
    subdiv.getTriangleList(triangles);
    return triangles;
}

}  // namespace

ShaderWorker::ShaderWorker(const QString& vertexPath, const QString& fragmentPath)
{
    initializeOpenGLFunctions();
    functionsReady = true;
    initialised = initShaders(vertexPath, fragmentPath) == 1;
}

ShaderWorker::ShaderWorker() = default;

ShaderWorker::~ShaderWorker()
{
    // GL names are freed through the share group: at once when a context of
    // the group is current, otherwise when one next is.
    if (program) {
        if (QOpenGLContext::currentContext())
            program->release();
        delete program;
        program = nullptr;
    }
    vertexBuffer.destroy();
    indexBuffer.destroy();
    if (vertexArrayName != 0 && vertexArrayContext && QOpenGLContext::currentContext() == vertexArrayContext)
        vertexArrayContext->extraFunctions()->glDeleteVertexArrays(1, &vertexArrayName);
    vertexArrayName = 0;
}

int ShaderWorker::initShaders(const QString& vertexPath, const QString& fragmentPath)
{
    qCInfo(lcGpu) << "[ShaderWorker::initShaders]:" << vertexPath;
    if (!program)
        program = new QOpenGLShaderProgram();

    QByteArray vertexCode = OpenGLHelper::versionHeader(1) + OpenGLHelper::loadShaderFile(vertexPath);
    if (!vertexCode.startsWith("#version")) {
        qCInfo(lcGpu) << "get glsl version fail,vertexcode:" << vertexCode;
        return 0;
    }
    if (!program->addShaderFromSourceCode(QOpenGLShader::Vertex, vertexCode)) {
        LUMEN_WARNING(lcGpu) << "init vertex shader fail!";
        return 0;
    }

    QByteArray fragmentCode = OpenGLHelper::versionHeader(2) + OpenGLHelper::loadShaderFile(fragmentPath);
    if (!fragmentCode.startsWith("#version")) {
        qCInfo(lcGpu) << "get glsl version fail,fragmentcode:" << fragmentCode;
        return 0;
    }
    if (!program->addShaderFromSourceCode(QOpenGLShader::Fragment, fragmentCode)) {
        LUMEN_WARNING(lcGpu) << "init fragment shader fail!";
        return 0;
    }
    if (!program->link()) {
        LUMEN_WARNING(lcGpu) << "link shader fail!";
        return 0;
    }
    if (!program->bind()) {
        qCDebug(lcGpu) << "bind shader fail!";
        return 0;
    }
    return 1;
}

void ShaderWorker::bind()
{
    if (program)
        program->bind();
}

void ShaderWorker::setUniformFloat(const char* name, float value)
{
    if (program)
        uniforms::set(program, name, value);
}

void ShaderWorker::setUniformInt(const char* name, int value)
{
    if (program)
        uniforms::set(program, name, static_cast<GLint>(value));
}

void ShaderWorker::setQuadAttributes()
{
    if (!program)
        return;
    program->enableAttributeArray("a_position");
    program->setAttributeBuffer("a_position", GL_FLOAT, 0, 3, kVertexStride);
    program->enableAttributeArray("a_texcoord");
    program->setAttributeBuffer("a_texcoord", GL_FLOAT, 3 * sizeof(float), 2, kVertexStride);
}

bool ShaderWorker::prepareBuffers()
{
    QOpenGLContext* current = QOpenGLContext::currentContext();
    if (!current)
        return false;
    for (QOpenGLBuffer* buffer : {&vertexBuffer, &indexBuffer}) {
        if (!buffer->isCreated()) {
            buffer->create();
            buffer->setUsagePattern(QOpenGLBuffer::StaticDraw);
        }
    }
    if (vertexArrayName == 0) {
        current->extraFunctions()->glGenVertexArrays(1, &vertexArrayName);
        vertexArrayContext = current;
    }
    return vertexBuffer.isCreated() && indexBuffer.isCreated();
}

void ShaderWorker::uploadMesh(const float* vertices, int vertexCount, const quint16* indices, int count)
{
    indexCount = count;
    if (!prepareBuffers())
        return;
    bindVertexArray(true);
    vertexBuffer.bind();
    vertexBuffer.allocate(vertices, vertexCount * kVertexStride);
    indexBuffer.bind();
    indexBuffer.allocate(indices, count * static_cast<int>(sizeof(quint16)));
    setQuadAttributes();
    bindVertexArray(false);
    vertexBuffer.release();
    indexBuffer.release();
}

void ShaderWorker::initVertices()
{
    uploadMesh(kQuadVertices, 4, kQuadIndices, 4);
}

void ShaderWorker::bindVertexArray(bool on)
{
    QOpenGLContext* current = QOpenGLContext::currentContext();
    if (vertexArrayName != 0 && current && current == vertexArrayContext)
        current->extraFunctions()->glBindVertexArray(on ? vertexArrayName : 0);
}

void ShaderWorker::updateMatrix()
{
    mvpMatrix = projectionMatrix * viewMatrix * modelMatrix;
    if (program)
        uniforms::set(program, "mvpMatrix", mvpMatrix);
}

void ShaderWorker::resetMatrices()
{
    projectionMatrix.setToIdentity();
    viewMatrix.setToIdentity();
    modelMatrix.setToIdentity();
    updateMatrix();
}

void ShaderWorker::applyPerspective90()
{
    projectionMatrix.perspective(90.0f, 1.0f, 0.1f, 100.0f);
    viewMatrix.translate(0.0f, 0.0f, -1.0f);
}

void ShaderWorker::applyPerspective45()
{
    projectionMatrix.perspective(45.0f, 1.7777778f, 0.1f, 100.0f);
    viewMatrix.lookAt(QVector3D(0.0f, 0.0f, 2.0f), QVector3D(0.0f, 0.0f, 0.0f), QVector3D(0.0f, 1.0f, 0.0f));
}

void ShaderWorker::flipProjection()
{
    projectionMatrix.rotate(180.0f, 0.0f, 1.0f, 0.0f);
    updateMatrix();
}

void ShaderWorker::rotateModel(float angle, float x, float y, float z)
{
    modelMatrix.rotate(angle, x, y, z);
    updateMatrix();
}

void ShaderWorker::rotateAboutEdge(float angle, float x, float y, float z)
{
    const float side = angle >= 0.0f ? 1.0f : -1.0f;
    if (y != 0.0f) {
        modelMatrix.translate(side, 0.0f, 0.0f);
        // The sign of y is inverted here and nowhere else.
        modelMatrix.rotate(angle, x, -y, z);
        modelMatrix.translate(-side, 0.0f, 0.0f);
    } else if (x == 0.0f) {
        modelMatrix.rotate(angle, x, y, z);
    } else {
        modelMatrix.translate(0.0f, side, 0.0f);
        modelMatrix.rotate(angle, x, y, z);
        modelMatrix.translate(0.0f, -side, 0.0f);
    }
    updateMatrix();
}

void ShaderWorker::scaleModel(double x, double y)
{
    modelMatrix.scale(static_cast<float>(x), static_cast<float>(y));
    updateMatrix();
}

void ShaderWorker::translateModel(float x, float y, float z)
{
    modelMatrix.translate(x, y, z);
    updateMatrix();
}

void ShaderWorker::setModel(const QMatrix4x4& model)
{
    modelMatrix = model;
    updateMatrix();
}

void ShaderWorker::draw(GLenum mode)
{
    if (!program || indexCount <= 0 || !QOpenGLContext::currentContext())
        return;
    if (!functionsReady) {
        initializeOpenGLFunctions();
        functionsReady = true;
    }
    // The buffers and attribute pointers are set again for each draw, which
    // also serves a context without this worker's vertex array.
    bindVertexArray(true);
    vertexBuffer.bind();
    indexBuffer.bind();
    setQuadAttributes();
    glDrawElements(mode, indexCount, GL_UNSIGNED_SHORT, nullptr);
    bindVertexArray(false);
    vertexBuffer.release();
    indexBuffer.release();
}

void ShaderWorker::drawStrip()
{
    draw(GL_TRIANGLE_STRIP);
}

void ShaderWorker::drawTriangles()
{
    draw(GL_TRIANGLES);
}

void ShaderWorker::setMaterialUniforms()
{
    if (!program)
        return;
    uniforms::set(program, "modelMatrix", modelMatrix);
    uniforms::set(program, "viewMatrix", viewMatrix);
    uniforms::set(program, "projMatrix", projectionMatrix);
    uniforms::set(program, "mvp_matrix", mvpMatrix);
    uniforms::set(program, "myMaterial.m_diffuse", 0);
    uniforms::set(program, "myMaterial.m_specular", 0);
    uniforms::set(program, "myMaterial.m_shiness", 32);
    uniforms::set(program, "myLight.m_pos", QVector3D(3.0f, 3.0f, 3.0f));
    uniforms::set(program, "myLight.m_ambient", QVector3D(1.0f, 1.0f, 1.0f));
    uniforms::set(program, "myLight.m_diffuse", QVector3D(0.8f, 0.8f, 0.8f));
    uniforms::set(program, "myLight.m_specular", QVector3D(0.9f, 0.9f, 0.9f));
    uniforms::set(program, "myLight.m_c", 1.0f);
    uniforms::set(program, "myLight.m_l", 0.09f);
    uniforms::set(program, "myLight.m_q", 0.032f);
}

std::array<float, 5> ShaderWorker::lipsVertex(float x, float y, int width, int height)
{
    const float nx = 2.0f * std::round(x) / width - 1.0f;
    const float ny = 2.0f * std::round(y) / height - 1.0f;
    return {nx, ny, 0.0f, (nx + 1.0f) * 0.5f, (ny + 1.0f) * 0.5f};
}

void ShaderWorker::buildLipsMesh(std::vector<int> lipPoints, std::map<std::string, double> params, int width,
                                 int height)
{
    lastLipsVertices.clear();
    indexCount = 0;
    // Lip points 14 and 18 (the inner middle) are needed for the mouth centre.
    if (lipPoints.size() < 38) {
        LUMEN_WARNING(lcGpu) << "[ShaderWorker::buildLipsMesh] lip point list too short:" << lipPoints.size();
        return;
    }
    if (width <= 0 || height <= 0) {
        LUMEN_WARNING(lcGpu) << "[ShaderWorker::buildLipsMesh] invalid picture size" << width << "x" << height;
        return;
    }

    const cv::Point2f centre(static_cast<float>((lipPoints[28] + lipPoints[36]) / 2),
                             static_cast<float>((lipPoints[29] + lipPoints[37]) / 2));
    const bool mouthOpen = lipPoints[37] > lipPoints[29] + 5;
    const bool centreInside = mouthOpen && centre.x > 0 && centre.y > 0 && centre.x < width && centre.y < height;
    const auto faceHeight = params.find("face_area_height");
    const int shift = static_cast<int>((faceHeight == params.end() ? 0.0 : faceHeight->second) / 100.0);

    std::vector<cv::Vec6f> triangles =
        triangulateLip(lipPoints, upperLipPoint, shift, centreInside ? &centre : nullptr, width, height);
    const std::vector<cv::Vec6f> lower =
        triangulateLip(lipPoints, lowerLipPoint, shift, centreInside ? &centre : nullptr, width, height);
    triangles.insert(triangles.end(), lower.begin(), lower.end());

    for (const cv::Vec6f& t : triangles) {
        // An open mouth stays a hole: no triangle keeps its centre.
        if (mouthOpen && ((t[0] == centre.x && t[1] == centre.y) || (t[2] == centre.x && t[3] == centre.y) ||
                          (t[4] == centre.x && t[5] == centre.y)))
            continue;
        for (int k = 0; k < 3; ++k) {
            const std::array<float, 5> v = lipsVertex(t[2 * k], t[2 * k + 1], width, height);
            lastLipsVertices.insert(lastLipsVertices.end(), v.begin(), v.end());
        }
    }

    const int vertexCount = static_cast<int>(lastLipsVertices.size() / 5);
    std::vector<quint16> indices(vertexCount);
    for (int i = 0; i < vertexCount; ++i)
        indices[i] = static_cast<quint16>(i);
    uploadMesh(lastLipsVertices.data(), vertexCount, indices.data(), vertexCount);
}
