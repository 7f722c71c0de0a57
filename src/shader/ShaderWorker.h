#pragma once
// One shader program with its quad (a vertex and an index buffer) and the
// model, view and projection matrices whose product it keeps uploaded as
// "mvpMatrix". Every pass of the GPU workers draws through one of these.

#include <QMatrix4x4>
#include <QOpenGLBuffer>
#include <QOpenGLFunctions>
#include <QString>

#include <array>
#include <map>
#include <string>
#include <vector>

class QOpenGLContext;
class QOpenGLShaderProgram;

class ShaderWorker : protected QOpenGLFunctions {
public:
    // Builds the program from the two files; isInitialised() tells the result.
    ShaderWorker(const QString& vertexPath, const QString& fragmentPath);
    // The same members, no program: isInitialised() stays false.
    ShaderWorker();
    virtual ~ShaderWorker();

    ShaderWorker(const ShaderWorker&) = delete;
    ShaderWorker& operator=(const ShaderWorker&) = delete;

    // 1 on success, 0 otherwise. The program stays bound on success.
    int initShaders(const QString& vertexPath, const QString& fragmentPath);
    bool isInitialised() const { return initialised; }
    QOpenGLShaderProgram* shaderProgram() const { return program; }

    void bind();
    void setUniformFloat(const char* name, float value);
    void setUniformInt(const char* name, int value);

    // Uploads the default quad and points "a_position" and "a_texcoord" at it.
    void initVertices();

    void resetMatrices();
    void applyPerspective90();
    void applyPerspective45();
    void flipProjection();
    void rotateModel(float angle, float x, float y, float z);
    // Turns the model about an edge of the quad instead of its centre: for a y
    // axis about x = +1 (angle >= 0) or x = -1, for an x axis likewise in y.
    void rotateAboutEdge(float angle, float x, float y, float z);
    void scaleModel(double x, double y);
    void translateModel(float x, float y, float z);
    // Replaces the model matrix with one worked out elsewhere.
    void setModel(const QMatrix4x4& model);

    void drawStrip();
    void drawTriangles();

    // Triangulates the 20 lip points of a face (key points 76 to 95 as x, y
    // in picture pixels) into a mesh of the upper and the lower lip, leaving
    // an open mouth as a hole, and uploads it for drawTriangles. The vertex
    // buffer then holds the mesh instead of the quad until initVertices.
    void buildLipsMesh(std::vector<int> lipPoints, std::map<std::string, double> params, int width, int height);
    // One mesh vertex (x, y, z, s, t) of a triangle corner in picture pixels:
    // rounded to whole pixels first, then to device coordinates.
    static std::array<float, 5> lipsVertex(float x, float y, int width, int height);
    // The vertices (x, y, z, s, t each) of the last lips mesh.
    const std::vector<float>& lipsVertices() const { return lastLipsVertices; }

    // The lighting and matrix uniforms of the textured mesh path.
    void setMaterialUniforms();

    const QMatrix4x4& mvp() const { return mvpMatrix; }
    const QMatrix4x4& projection() const { return projectionMatrix; }
    const QMatrix4x4& view() const { return viewMatrix; }
    const QMatrix4x4& model() const { return modelMatrix; }
    int getIndexCount() const { return indexCount; }

protected:
    // Recomputes mvpMatrix = projection * view * model and uploads it.
    void updateMatrix();
    void draw(GLenum mode);
    // Points the two quad attributes of the program at the bound vertex buffer.
    void setQuadAttributes();
    // Binds this worker's vertex array (on) or none (off), in its own context only.
    void bindVertexArray(bool on);
    // Creates the two buffers and the vertex array in the current context,
    // once; false without a context.
    bool prepareBuffers();
    // Sets the index count and, in a current context, uploads `vertexCount`
    // vertices (x, y, z, s, t) and `count` indices for the draws.
    void uploadMesh(const float* vertices, int vertexCount, const quint16* indices, int count);

    QOpenGLShaderProgram* program = nullptr;
    QMatrix4x4 mvpMatrix;
    QMatrix4x4 projectionMatrix;
    QMatrix4x4 viewMatrix;
    QMatrix4x4 modelMatrix;
    QOpenGLBuffer vertexBuffer{QOpenGLBuffer::VertexBuffer};
    QOpenGLBuffer indexBuffer{QOpenGLBuffer::IndexBuffer};
    int32_t indexCount = 4;
    // Reserved values beside the index count; nothing reads them.
    float reserved[4] = {1.0f, 0.0f, 0.0f, 1.0f};
    bool initialised = false;
    std::vector<float> lastLipsVertices;
    bool functionsReady = false;
    // A vertex array of the context that prepared the quad, so that the draws
    // work on a core profile too (which has no default one). Vertex arrays
    // are not shared between contexts: it is deleted only in its own.
    GLuint vertexArrayName = 0;
    QOpenGLContext* vertexArrayContext = nullptr;
};
