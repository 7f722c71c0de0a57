// ShaderWorker: matrices, program building, and every shader file of the
// channel and the merger, linked on the test machine's context.
#include <gtest/gtest.h>

#include <cmath>

#include <QOpenGLShaderProgram>
#include <QtMath>
#include <QTemporaryDir>
#include <QVector3D>

#include "gpu/GlTestSupport.h"
#include "shader/ShaderWorker.h"

namespace {

bool near(const QVector3D& a, const QVector3D& b, float eps = 1e-5f)
{
    return (a - b).length() < eps;
}

::testing::AssertionResult sameMatrix(const QMatrix4x4& a, const QMatrix4x4& b)
{
    for (int i = 0; i < 16; ++i)
        if (std::abs(a.constData()[i] - b.constData()[i]) > 1e-6f)
            return ::testing::AssertionFailure() << "element " << i << ": " << a.constData()[i] << " vs "
                                                 << b.constData()[i];
    return ::testing::AssertionSuccess();
}

QString writeFile(QTemporaryDir& dir, const char* name, const char* text)
{
    const QString path = dir.filePath(name);
    QFile file(path);
    file.open(QIODevice::WriteOnly);
    file.write(text);
    return path;
}

}  // namespace

// The matrix operations need no context: without a program nothing is uploaded.
TEST(ShaderWorkerMatrix, RotateAboutYEdgePivotsAtTheEdgeOnTheAngleSide)
{
    ShaderWorker worker;
    worker.resetMatrices();
    worker.rotateAboutEdge(30.0f, 0.0f, 1.0f, 0.0f);
    const QMatrix4x4 m = worker.model();
    // The edge x = +1 stays in place, the opposite edge swings out of the plane.
    EXPECT_TRUE(near(m.map(QVector3D(1, -1, 0)), QVector3D(1, -1, 0)));
    EXPECT_TRUE(near(m.map(QVector3D(1, 1, 0)), QVector3D(1, 1, 0)));
    const QVector3D far = m.map(QVector3D(-1, 0, 0));
    EXPECT_NEAR(far.x(), 1.0f - 2.0f * std::cos(qDegreesToRadians(30.0f)), 1e-5f);
    EXPECT_NEAR(std::abs(far.z()), 1.0f, 1e-5f);  // 2 sin 30

    worker.resetMatrices();
    worker.rotateAboutEdge(-30.0f, 0.0f, 1.0f, 0.0f);
    const QMatrix4x4 n = worker.model();
    EXPECT_TRUE(near(n.map(QVector3D(-1, -1, 0)), QVector3D(-1, -1, 0)));
    EXPECT_TRUE(near(n.map(QVector3D(-1, 1, 0)), QVector3D(-1, 1, 0)));
    EXPECT_FALSE(near(n.map(QVector3D(1, 0, 0)), QVector3D(1, 0, 0)));
    // Both turns bring the free edge to the same side of the plane: the y
    // axis is inverted, and the pivot moves with the sign of the angle.
    EXPECT_NEAR(n.map(QVector3D(1, 0, 0)).z(), far.z(), 1e-5f);
}

TEST(ShaderWorkerMatrix, RotateAboutXEdgePivotsInY)
{
    ShaderWorker worker;
    worker.resetMatrices();
    worker.rotateAboutEdge(30.0f, 1.0f, 0.0f, 0.0f);
    EXPECT_TRUE(near(worker.model().map(QVector3D(-1, 1, 0)), QVector3D(-1, 1, 0)));
    EXPECT_TRUE(near(worker.model().map(QVector3D(1, 1, 0)), QVector3D(1, 1, 0)));
    worker.resetMatrices();
    worker.rotateAboutEdge(-30.0f, 1.0f, 0.0f, 0.0f);
    EXPECT_TRUE(near(worker.model().map(QVector3D(0, -1, 0)), QVector3D(0, -1, 0)));
    EXPECT_FALSE(near(worker.model().map(QVector3D(0, 1, 0)), QVector3D(0, 1, 0)));
}

TEST(ShaderWorkerMatrix, RotateAboutZTurnsAboutTheCentre)
{
    ShaderWorker worker;
    worker.resetMatrices();
    worker.rotateAboutEdge(30.0f, 0.0f, 0.0f, 1.0f);
    const QMatrix4x4 m = worker.model();
    EXPECT_TRUE(near(m.map(QVector3D(0, 0, 0)), QVector3D(0, 0, 0)));
    const float c = std::cos(qDegreesToRadians(30.0f));
    const float s = std::sin(qDegreesToRadians(30.0f));
    EXPECT_TRUE(near(m.map(QVector3D(1, 0, 0)), QVector3D(c, s, 0)));
}

TEST(ShaderWorkerMatrix, NullAxisWithZeroAngleLeavesTheModelAlone)
{
    ShaderWorker worker;
    worker.resetMatrices();
    worker.translateModel(0.25f, -0.5f, 0.0f);
    const QMatrix4x4 before = worker.model();
    worker.rotateAboutEdge(0.0f, 0.0f, 0.0f, 0.0f);
    EXPECT_TRUE(sameMatrix(worker.model(), before));
}

TEST(ShaderWorkerMatrix, FlipProjectionTwiceIsIdentityAndMvpFollows)
{
    ShaderWorker worker;
    worker.resetMatrices();
    worker.applyPerspective90();
    const QMatrix4x4 projection = worker.projection();
    worker.flipProjection();
    EXPECT_FALSE(sameMatrix(worker.projection(), projection));
    // A half turn about y mirrors x.
    QMatrix4x4 flipped;
    flipped.setToIdentity();
    flipped.rotate(180.0f, 0, 1, 0);
    EXPECT_TRUE(near(flipped.map(QVector3D(0.5f, 0.25f, 0)), QVector3D(-0.5f, 0.25f, 0)));
    worker.flipProjection();
    EXPECT_TRUE(sameMatrix(worker.projection(), projection));
    EXPECT_TRUE(sameMatrix(worker.mvp(), worker.projection() * worker.view() * worker.model()));
}

TEST(ShaderWorkerMatrix, PerspectivesSetProjectionAndViewWithoutUpload)
{
    ShaderWorker worker;
    worker.resetMatrices();
    worker.applyPerspective90();
    QMatrix4x4 expectedProjection;
    expectedProjection.perspective(90.0f, 1.0f, 0.1f, 100.0f);
    EXPECT_TRUE(sameMatrix(worker.projection(), expectedProjection));
    // The quad at z = 0 sits one unit in front of the camera and, at 90
    // degrees, fills the view exactly.
    const QVector3D corner = (worker.projection() * worker.view()).map(QVector3D(1, 1, 0));
    EXPECT_NEAR(corner.x(), 1.0f, 1e-5f);
    EXPECT_NEAR(corner.y(), 1.0f, 1e-5f);
    // No upload: mvp is recomputed only by the uploading operations.
    EXPECT_TRUE(sameMatrix(worker.mvp(), QMatrix4x4()));

    worker.resetMatrices();
    worker.applyPerspective45();
    QMatrix4x4 expectedView;
    expectedView.lookAt(QVector3D(0, 0, 2), QVector3D(0, 0, 0), QVector3D(0, 1, 0));
    EXPECT_TRUE(sameMatrix(worker.view(), expectedView));
}

TEST(ShaderWorkerMatrix, ScaleAndTranslateComposeOnTheModel)
{
    ShaderWorker worker;
    worker.resetMatrices();
    worker.translateModel(0.5f, 0.0f, 0.0f);
    worker.scaleModel(0.5, 2.0);
    EXPECT_TRUE(near(worker.mvp().map(QVector3D(1, 1, 0)), QVector3D(1.0f, 2.0f, 0)));
    worker.resetMatrices();
    EXPECT_TRUE(sameMatrix(worker.mvp(), QMatrix4x4()));
}

TEST(ShaderWorkerProgram, DefaultConstructedHasNoProgramAndIgnoresUniforms)
{
    ShaderWorker worker;
    EXPECT_FALSE(worker.isInitialised());
    EXPECT_EQ(worker.shaderProgram(), nullptr);
    worker.setUniformFloat("premulAlpha", 1.0f);  // no program: nothing happens
    worker.drawStrip();
    EXPECT_EQ(worker.getIndexCount(), 4);
}

TEST(ShaderWorkerProgram, EveryShaderPairCompilesAndLinks)
{
    gltest::ScopedContext gl;
    ASSERT_TRUE(gl.ok);
    const char* pairs[] = {"image_filter",     "file_merger",     "basic_image_filter", "face_area_filter",
                           "whitening_filter", "slimface_filter", "sticker_filter"};
    for (const char* name : pairs) {
        const QString vertex = QString(":/filters/%1_vertex.glsl").arg(name);
        const QString fragment = QString(":/filters/%1_fragment.glsl").arg(name);
        gltest::LogCapture log;
        ShaderWorker worker(vertex, fragment);
        EXPECT_TRUE(worker.isInitialised()) << name << "\n" << qPrintable(log.messages().join("\n"));
        ASSERT_NE(worker.shaderProgram(), nullptr);
        EXPECT_TRUE(worker.shaderProgram()->isLinked()) << name;
        EXPECT_GE(worker.shaderProgram()->attributeLocation("a_position"), 0) << name;
        EXPECT_GE(worker.shaderProgram()->attributeLocation("a_texcoord"), 0) << name;
        EXPECT_GE(worker.shaderProgram()->uniformLocation("premulAlpha"), 0) << name;
        EXPECT_GE(worker.shaderProgram()->uniformLocation("mvpMatrix"), 0) << name;
        worker.resetMatrices();
        worker.initVertices();
        EXPECT_EQ(gl.functions->glGetError(), GLenum(GL_NO_ERROR)) << name;
    }
}

TEST(ShaderWorkerProgram, FailedVertexCompileLeavesFragmentFileUnread)
{
    gltest::ScopedContext gl;
    ASSERT_TRUE(gl.ok);
    QTemporaryDir dir;
    const QString broken = writeFile(dir, "broken_vertex.glsl", "void main() { this is not glsl }\n");
    gltest::LogCapture log;
    ShaderWorker worker(broken, dir.filePath("missing_fragment.glsl"));
    EXPECT_FALSE(worker.isInitialised());
    EXPECT_TRUE(log.contains("init vertex shader fail!"));
    EXPECT_FALSE(log.contains("Can not load shader")) << "the fragment file must not be read";
}

TEST(ShaderWorkerProgram, MissingFragmentFileFailsTheFragmentStage)
{
    gltest::ScopedContext gl;
    ASSERT_TRUE(gl.ok);
    gltest::LogCapture log;
    ShaderWorker worker(":/filters/image_filter_vertex.glsl", ":/filters/no_such_fragment.glsl");
    EXPECT_FALSE(worker.isInitialised());
    EXPECT_TRUE(log.contains("Can not load shader"));
    // The header alone has no main: the compiler or, as on Mesa, the linker refuses it.
    EXPECT_TRUE(log.contains("init fragment shader fail!") || log.contains("link shader fail!"));
}
