// GLSL version detection and the headers put in front of the shader files.
#include <gtest/gtest.h>

#include <QTemporaryDir>

#include "gpu/GlTestSupport.h"
#include "shader/OpenGLHelper.h"

using namespace OpenGLHelper;

namespace {
const char kFallbackWarning[] = "Failed to detect glsl version using GL_SHADING_LANGUAGE_VERSION!";
}

TEST(OpenGLHelperVersion, ParsesMajorTimesHundredPlusMinorAsRead)
{
    gltest::LogCapture log;
    EXPECT_EQ(parseGlslVersion("4.60"), 460);
    EXPECT_EQ(parseGlslVersion("4.6"), 406);  // the minor number is added as read
    EXPECT_EQ(parseGlslVersion("1.30"), 130);
    EXPECT_EQ(parseGlslVersion("4.50 NVIDIA via Cg compiler"), 450);
    EXPECT_EQ(parseGlslVersion("OpenGL ES GLSL ES 3.00"), 300);
    EXPECT_EQ(parseGlslVersion("OpenGL ES GLSL ES 1.00", true, 2), 100);
    EXPECT_FALSE(log.contains(kFallbackWarning));
}

TEST(OpenGLHelperVersion, TextWithoutDotFallsBackWithWarning)
{
    {
        gltest::LogCapture log;
        EXPECT_EQ(parseGlslVersion("450"), 110);
        EXPECT_TRUE(log.contains(kFallbackWarning));
    }
    gltest::LogCapture log;
    EXPECT_EQ(parseGlslVersion(""), 110);
    EXPECT_EQ(parseGlslVersion(nullptr), 110);
    // On ES the fallback follows the context's major version.
    EXPECT_EQ(parseGlslVersion("garbage", true, 2), 100);
    EXPECT_EQ(parseGlslVersion("garbage", true, 3), 300);
    EXPECT_EQ(log.messages().count(kFallbackWarning), 4);
}

TEST(OpenGLHelperVersion, NoContextGivesZeroAndDetectsLater)
{
    resetCachedGlslVersion();
    ASSERT_EQ(QOpenGLContext::currentContext(), nullptr);
    {
        gltest::LogCapture log;
        EXPECT_EQ(GLSLVersion(), 0);
        EXPECT_TRUE(log.contains("OpenGLHelper::GLSLVersion: current context is null"));
    }
    EXPECT_LT(cachedGlslVersion(), 0) << "nothing is cached without a context";

    gltest::ScopedContext gl;
    ASSERT_TRUE(gl.ok);
    const char* text = reinterpret_cast<const char*>(gl.functions->glGetString(GL_SHADING_LANGUAGE_VERSION));
    const int expected = parseGlslVersion(text);
    EXPECT_GE(expected, 130) << text;
    EXPECT_EQ(GLSLVersion(), expected);
    EXPECT_EQ(cachedGlslVersion(), expected);
    EXPECT_FALSE(isOpenGLES());
}

TEST(OpenGLHelperHeader, VertexHeaderMapsAttributesFrom130On)
{
    const QByteArray at120 = versionHeaderFor(1, 120, false);
    EXPECT_TRUE(at120.startsWith("#version 120\n"));
    EXPECT_TRUE(at120.contains("#define highp\n#define mediump\n#define lowp\n"));
    EXPECT_FALSE(at120.contains("#define attribute in"));
    EXPECT_FALSE(at120.contains("#define texture2D"));  // a vertex shader gets no texture alias

    const QByteArray at130 = versionHeaderFor(1, 130, false);
    EXPECT_TRUE(at130.startsWith("#version 130\n"));
    EXPECT_TRUE(at130.contains("#define attribute in\n#define varying out\n"));
    EXPECT_FALSE(at130.contains("out_color"));
}

TEST(OpenGLHelperHeader, FragmentHeaderDeclaresOutColorAndTextureAlias)
{
    const QByteArray at330 = versionHeaderFor(2, 330, false);
    EXPECT_TRUE(at330.startsWith("#version 330\n"));
    EXPECT_TRUE(at330.contains("#define varying in\n#define gl_FragColor out_color\nout vec4 gl_FragColor;\n"));
    // texture2D maps to texture by the #else branch of the version test.
    EXPECT_TRUE(at330.contains("#if __VERSION__ < 130\n#define texture texture2D\n#else\n#define texture2D texture\n"
                               "#endif // < 130\n"));

    const QByteArray at120 = versionHeaderFor(2, 120, false);
    EXPECT_FALSE(at120.contains("out_color"));
    EXPECT_TRUE(at120.contains("#define texture texture2D"));
}

TEST(OpenGLHelperHeader, EsHeaderHasPrecisionAndNoVersionLine)
{
    const QByteArray es = versionHeaderFor(2, 300, true);
    EXPECT_FALSE(es.contains("#version"));
    EXPECT_TRUE(es.startsWith("precision mediump int;\nprecision mediump float;\n"));
    EXPECT_EQ(precisionHeaderFor(1, true), QByteArray("precision mediump int;\nprecision mediump float;\n"));
}

TEST(OpenGLHelperHeader, HeaderOfCurrentContextNamesItsVersion)
{
    gltest::ScopedContext gl;
    ASSERT_TRUE(gl.ok);
    const QByteArray header = versionHeader(1);
    EXPECT_TRUE(header.startsWith("#version " + QByteArray::number(GLSLVersion()) + "\n")) << header.constData();
}

TEST(OpenGLHelperLoad, ReadsResourcesAndPlainFiles)
{
    const QByteArray resource = loadShaderFile(":/filters/image_filter_vertex.glsl");
    EXPECT_TRUE(resource.contains("a_position"));
    EXPECT_FALSE(resource.contains("#version")) << "the files carry no version line";

    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const QString path = dir.filePath("plain.glsl");
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write("void main() {}\n");
    file.close();
    EXPECT_EQ(loadShaderFile(path), QByteArray("void main() {}\n"));
}

TEST(OpenGLHelperLoad, MissingFileGivesEmptyTextAndWarning)
{
    gltest::LogCapture log;
    EXPECT_TRUE(loadShaderFile(":/filters/no_such_file.glsl").isEmpty());
    EXPECT_TRUE(log.contains("Can not load shader :/filters/no_such_file.glsl:"));
}
