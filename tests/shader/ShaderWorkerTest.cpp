// ShaderWorker: the matrices, program building, and every shader file of the
// channel and the merger, linked on the test machine's context.
#include <cmath>
#include <functional>

#include <QOpenGLShaderProgram>
#include <QTemporaryDir>
#include <QVector3D>
#include <gtest/gtest.h>

#include "LogCapture.h"
#include "gpu/GlTestSupport.h"
#include "shader/ShaderWorker.h"

// Where the uploaded mvp takes a point; NaN in `out` means "any". The
// operations need no context: without a program nothing is uploaded.
TEST(ShaderWorkerMatrix, OperationsComposeAsTheDrawsNeedThem)
{
    const float c = std::cos(M_PI / 6), nan = NAN;
    struct Case {
        const char* label;
        std::function<void(ShaderWorker&)> ops;
        QVector3D in, out;
    };
    const Case cases[] = {
        // A y axis turns about the edge x = +1 for a positive angle, x = -1
        // otherwise, with the axis inverted: the free edge swings to z -1.
        {"y+ pivot", [](ShaderWorker& w) { w.rotateAboutEdge(30, 0, 1, 0); }, {1, 1, 0}, {1, 1, 0}},
        {"y+ free edge", [](ShaderWorker& w) { w.rotateAboutEdge(30, 0, 1, 0); }, {-1, 0, 0}, {1 - 2 * c, 0, -1}},
        {"y- pivot", [](ShaderWorker& w) { w.rotateAboutEdge(-30, 0, 1, 0); }, {-1, -1, 0}, {-1, -1, 0}},
        {"y- free edge", [](ShaderWorker& w) { w.rotateAboutEdge(-30, 0, 1, 0); }, {1, 0, 0}, {2 * c - 1, 0, -1}},
        // An x axis likewise in y, not inverted.
        {"x+ pivot", [](ShaderWorker& w) { w.rotateAboutEdge(30, 1, 0, 0); }, {-1, 1, 0}, {-1, 1, 0}},
        {"x+ free edge", [](ShaderWorker& w) { w.rotateAboutEdge(30, 1, 0, 0); }, {0, -1, 0}, {0, 1 - 2 * c, -1}},
        {"x- free edge", [](ShaderWorker& w) { w.rotateAboutEdge(-30, 1, 0, 0); }, {0, 1, 0}, {0, 2 * c - 1, -1}},
        // A z axis turns about the centre; a null axis at angle 0 does nothing.
        {"z", [](ShaderWorker& w) { w.rotateAboutEdge(30, 0, 0, 1); }, {1, 0, 0}, {c, 0.5f, 0}},
        {"null axis", [](ShaderWorker& w) { w.translateModel(0.25f, -0.5f, 0); w.rotateAboutEdge(0, 0, 0, 0); },
         {0, 0, 0}, {0.25f, -0.5f, 0}},
        {"scale after translate", [](ShaderWorker& w) { w.translateModel(0.5f, 0, 0); w.scaleModel(0.5, 2); },
         {1, 1, 0}, {1, 2, 0}},
        {"flip mirrors x", [](ShaderWorker& w) { w.flipProjection(); }, {0.5f, 0.25f, 0}, {-0.5f, 0.25f, 0}},
        {"flip twice", [](ShaderWorker& w) { w.flipProjection(); w.flipProjection(); }, {0.5f, 0.25f, 0.5f},
         {0.5f, 0.25f, 0.5f}},
        // The perspectives upload nothing themselves.
        {"perspective without upload", [](ShaderWorker& w) { w.applyPerspective90(); }, {0.5f, 0.5f, 0},
         {0.5f, 0.5f, 0}},
        // At 90 degrees the quad one unit in front of the camera fills the view.
        {"perspective 90", [](ShaderWorker& w) { w.applyPerspective90(); w.translateModel(0, 0, 0); }, {1, 1, 0},
         {1, 1, nan}},
        // 45 degrees, 16:9, the camera two units away.
        {"perspective 45", [](ShaderWorker& w) { w.applyPerspective45(); w.translateModel(0, 0, 0); }, {1, 1, 0},
         {1.2071068f / 1.7777778f, 1.2071068f, nan}},
    };
    for (const Case& k : cases) {
        ShaderWorker worker;
        worker.resetMatrices();
        k.ops(worker);
        const QVector3D got = worker.mvp().map(k.in);
        EXPECT_NEAR(got.x(), k.out.x(), 1e-5) << k.label;
        EXPECT_NEAR(got.y(), k.out.y(), 1e-5) << k.label;
        EXPECT_NEAR(got.z(), std::isnan(k.out.z()) ? got.z() : k.out.z(), 1e-5) << k.label;
    }
}

TEST(ShaderWorkerProgram, EveryShaderPairCompilesAndLinks)
{
    gltest::ScopedContext gl;
    ASSERT_TRUE(gl.ok);
    for (const char* name : {"image_filter", "file_merger", "basic_image_filter", "face_area_filter",
                             "whitening_filter", "slimface_filter", "sticker_filter"}) {
        LogCapture log;
        ShaderWorker worker(QString(":/filters/%1_vertex.glsl").arg(name),
                            QString(":/filters/%1_fragment.glsl").arg(name));
        ASSERT_TRUE(worker.isInitialised()) << name << "\n" << log.all();
        for (const char* attribute : {"a_position", "a_texcoord"})
            EXPECT_GE(worker.shaderProgram()->attributeLocation(attribute), 0) << name << " " << attribute;
        for (const char* uniform : {"premulAlpha", "mvpMatrix"})
            EXPECT_GE(worker.shaderProgram()->uniformLocation(uniform), 0) << name << " " << uniform;
        worker.resetMatrices();
        worker.initVertices();
        EXPECT_EQ(gl.functions->glGetError(), GLenum(GL_NO_ERROR)) << name;
    }
}

TEST(ShaderWorkerProgram, FailuresStopAtTheFirstBadStage)
{
    gltest::ScopedContext gl;
    ASSERT_TRUE(gl.ok);
    QTemporaryDir dir;
    QFile broken(dir.filePath("broken_vertex.glsl"));
    ASSERT_TRUE(broken.open(QIODevice::WriteOnly));
    broken.write("void main() { this is not glsl }\n");
    broken.close();
    {
        // A vertex stage that fails leaves the fragment file unread.
        LogCapture log;
        ShaderWorker worker(broken.fileName(), dir.filePath("missing_fragment.glsl"));
        EXPECT_FALSE(worker.isInitialised());
        EXPECT_TRUE(log.contains("init vertex shader fail!", QtWarningMsg));
        EXPECT_FALSE(log.contains("Can not load shader"));
    }
    // A missing fragment file leaves the header alone, without a main: the
    // compiler or, as on Mesa, the linker refuses it.
    LogCapture log;
    ShaderWorker worker(":/filters/image_filter_vertex.glsl", ":/filters/no_such_fragment.glsl");
    EXPECT_FALSE(worker.isInitialised());
    EXPECT_TRUE(log.contains("Can not load shader"));
    EXPECT_TRUE(log.contains("init fragment shader fail!") || log.contains("link shader fail!")) << log.all();
    // Without a program uniforms and draws do nothing.
    ShaderWorker none;
    none.setUniformFloat("premulAlpha", 1.0f);
    none.drawStrip();
    EXPECT_EQ(none.shaderProgram(), nullptr);
}
