// GLSL version detection, the headers put in front of the shader files, and
// their loading.
#include <QTemporaryDir>
#include <gtest/gtest.h>

#include "LogCapture.h"
#include "gpu/GlTestSupport.h"
#include "shader/OpenGLHelper.h"

using namespace OpenGLHelper;

TEST(OpenGLHelper, ParsesVersionTextsAndFallsBackWithAWarning)
{
    const char warning[] = "Failed to detect glsl version using GL_SHADING_LANGUAGE_VERSION!";
    struct Case {
        const char* text;
        bool es;
        int esMajor, want;
        bool warns;
    } cases[] = {
        {"4.60", false, 0, 460, false},
        {"4.6", false, 0, 406, false},  // the minor number is added as read
        {"1.30", false, 0, 130, false},
        {"4.50 NVIDIA via Cg compiler", false, 0, 450, false},
        {"OpenGL ES GLSL ES 3.00", false, 0, 300, false},
        {"OpenGL ES GLSL ES 1.00", true, 2, 100, false},
        {"450", false, 0, 110, true},
        {"", false, 0, 110, true},
        {nullptr, false, 0, 110, true},
        {"garbage", true, 2, 100, true},  // on ES the fallback follows the major version
        {"garbage", true, 3, 300, true},
    };
    for (const Case& c : cases) {
        LogCapture log;
        EXPECT_EQ(parseGlslVersion(c.text, c.es, c.esMajor), c.want) << (c.text ? c.text : "null");
        EXPECT_EQ(log.count(warning), c.warns ? 1 : 0) << (c.text ? c.text : "null");
    }
}

TEST(OpenGLHelper, VersionComesFromTheCurrentContextOnly)
{
    resetCachedGlslVersion();
    ASSERT_EQ(QOpenGLContext::currentContext(), nullptr);
    {
        LogCapture log;
        EXPECT_EQ(GLSLVersion(), 0);
        EXPECT_TRUE(log.contains("OpenGLHelper::GLSLVersion: current context is null"));
    }
    EXPECT_LT(cachedGlslVersion(), 0) << "nothing is cached without a context";
    gltest::ScopedContext gl;
    ASSERT_TRUE(gl.ok);
    const int expected =
        parseGlslVersion(reinterpret_cast<const char*>(gl.functions->glGetString(GL_SHADING_LANGUAGE_VERSION)));
    EXPECT_GE(expected, 130);
    EXPECT_EQ(GLSLVersion(), expected);
    EXPECT_EQ(cachedGlslVersion(), expected);
    EXPECT_FALSE(isOpenGLES());
    EXPECT_TRUE(versionHeader(1).startsWith("#version " + QByteArray::number(expected) + "\n"));
}

TEST(OpenGLHelper, HeadersMapTheOldDialectByVersionAndKind)
{
    const char precision[] = "precision mediump int;\nprecision mediump float;\n";
    const char noPrecision[] = "#define highp\n#define mediump\n#define lowp\n";
    const char vertexIn[] = "#define attribute in\n#define varying out\n";
    const char fragmentOut[] = "#define varying in\n#define gl_FragColor out_color\nout vec4 gl_FragColor;\n";
    const char textureAlias[] = "#if __VERSION__ < 130\n#define texture texture2D\n#else\n#define texture2D texture\n"
                                "#endif // < 130\n";
    struct Case {
        int kind, version;
        bool es;
        const char* start;
        std::vector<const char*> has, hasNot;
    } cases[] = {
        {1, 120, false, "#version 120\n", {noPrecision}, {"#define attribute in", "#define texture2D"}},
        {1, 130, false, "#version 130\n", {vertexIn}, {"out_color"}},
        {2, 330, false, "#version 330\n", {fragmentOut, textureAlias}, {}},
        {2, 120, false, "#version 120\n", {"#define texture texture2D"}, {"out_color"}},
        {2, 300, true, precision, {}, {"#version"}},
    };
    for (const Case& c : cases) {
        const QByteArray header = versionHeaderFor(c.kind, c.version, c.es);
        EXPECT_TRUE(header.startsWith(c.start)) << c.kind << " " << c.version << "\n" << header.constData();
        for (const char* text : c.has)
            EXPECT_TRUE(header.contains(text)) << c.kind << " " << c.version << ": " << text;
        for (const char* text : c.hasNot)
            EXPECT_FALSE(header.contains(text)) << c.kind << " " << c.version << ": " << text;
    }
    EXPECT_EQ(precisionHeaderFor(1, true), QByteArray(precision));
}

TEST(OpenGLHelper, LoadsResourcesAndPlainFiles)
{
    const QByteArray resource = loadShaderFile(":/filters/image_filter_vertex.glsl");
    EXPECT_TRUE(resource.contains("a_position"));
    EXPECT_FALSE(resource.contains("#version")) << "the files carry no version line";
    QTemporaryDir dir;
    QFile file(dir.filePath("plain.glsl"));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write("void main() {}\n");
    file.close();
    EXPECT_EQ(loadShaderFile(file.fileName()), QByteArray("void main() {}\n"));
    LogCapture log;
    EXPECT_TRUE(loadShaderFile(":/filters/no_such_file.glsl").isEmpty());
    EXPECT_TRUE(log.contains("Can not load shader :/filters/no_such_file.glsl:"));
}
