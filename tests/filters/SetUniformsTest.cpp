// setUniforms of the face filters, read back from a real linked program.

#include <array>
#include <memory>

#include <QOffscreenSurface>
#include <QOpenGLContext>
#include <QOpenGLFunctions>
#include <QOpenGLShaderProgram>
#include <gtest/gtest.h>

#include "filters/OpenglFaceAreaFilter.h"
#include "filters/OpenglSlimFaceFilter.h"
#include "filters/OpenglSmoothAndWhiteningFilter.h"
#include "filters/OpenglWhiteningFilter.h"
#include "lumen_fx/ImageFilterTypes.h"

namespace {

const char* kVertex = R"(#version 120
attribute vec4 a_position;
void main() { gl_Position = a_position; }
)";

// Declares every uniform that the face filters set, and uses each one so that
// the linker keeps it.
const char* kFragment = R"(#version 120
uniform float smoothStrength;
uniform float redLipsStrength;
uniform float redden;
uniform float whitening;
uniform float pinking;
uniform float slimStrength;
uniform float textureWidth;
uniform float textureHeight;
uniform vec4 smooth_face_area;
uniform vec4 whitening_face_area;
uniform vec4 slim_face_area;
void main() {
    float s = smoothStrength + redLipsStrength + redden + whitening + pinking + slimStrength
            + textureWidth + textureHeight;
    gl_FragColor = vec4(s) + smooth_face_area + whitening_face_area + slim_face_area;
}
)";

using Vec4 = std::array<float, 4>;

class FilterUniforms : public ::testing::Test {
protected:
    void SetUp() override
    {
        surface.create();
        ASSERT_TRUE(context.create());
        ASSERT_TRUE(context.makeCurrent(&surface));
        gl = context.functions();
        program = std::make_unique<QOpenGLShaderProgram>();
        ASSERT_TRUE(program->addShaderFromSourceCode(QOpenGLShader::Vertex, kVertex)) << program->log().toStdString();
        ASSERT_TRUE(program->addShaderFromSourceCode(QOpenGLShader::Fragment, kFragment))
            << program->log().toStdString();
        ASSERT_TRUE(program->link()) << program->log().toStdString();
        ASSERT_TRUE(program->bind());
        // A known value in every uniform, so that untouched ones can be told apart.
        for (const char* name : {"smoothStrength", "redLipsStrength", "redden", "whitening", "pinking",
                                 "slimStrength", "textureWidth", "textureHeight"})
            program->setUniformValue(name, -7.0f);
        for (const char* name : {"smooth_face_area", "whitening_face_area", "slim_face_area"})
            program->setUniformValue(name, -7.0f, -7.0f, -7.0f, -7.0f);
        while (gl->glGetError() != GL_NO_ERROR) {
        }
    }

    void TearDown() override
    {
        program.reset();
        context.doneCurrent();
    }

    float f(const char* name)
    {
        const int loc = program->uniformLocation(name);
        EXPECT_GE(loc, 0) << name;
        float v = 0;
        gl->glGetUniformfv(program->programId(), loc, &v);
        return v;
    }

    Vec4 v4(const char* name)
    {
        const int loc = program->uniformLocation(name);
        EXPECT_GE(loc, 0) << name;
        Vec4 v{};
        gl->glGetUniformfv(program->programId(), loc, v.data());
        return v;
    }

    QOffscreenSurface surface;
    QOpenGLContext context;
    QOpenGLFunctions* gl = nullptr;
    std::unique_ptr<QOpenGLShaderProgram> program;
};

const std::map<std::string, double> kArea = {
    {face_area_x, 100}, {face_area_y, 200}, {face_area_width, 300}, {face_area_height, 400}};

std::map<std::string, double> with(const std::string& key, double value)
{
    auto m = kArea;
    m[key] = value;
    return m;
}

}  // namespace

TEST_F(FilterUniforms, WhiteningAtFullStrength)
{
    OpenglWhiteningFilter filter;
    filter.setUniforms(program.get(), with(whitening_strength, 100), 1000, 800);
    EXPECT_FLOAT_EQ(f("whitening"), 1.0f);
    EXPECT_FLOAT_EQ(f("pinking"), 1.0f);
    EXPECT_FLOAT_EQ(f("redden"), 0.5f);
    EXPECT_EQ(v4("whitening_face_area"), (Vec4{0.1f, 0.25f, 0.3f, 0.5f}));
    EXPECT_FLOAT_EQ(f("textureWidth"), 1000.0f);
    EXPECT_FLOAT_EQ(f("textureHeight"), 800.0f);
    EXPECT_FLOAT_EQ(f("smoothStrength"), -7.0f);
    EXPECT_EQ(gl->glGetError(), static_cast<GLenum>(GL_NO_ERROR));
}

TEST_F(FilterUniforms, WhiteningWithoutStrengthSetsOnlyTheArea)
{
    OpenglWhiteningFilter filter;
    // Negative strengths pass through unclamped.
    filter.setUniforms(program.get(), {{whitening_strength, -40}}, 1000, 800);
    EXPECT_FLOAT_EQ(f("whitening"), -0.4f);
    EXPECT_FLOAT_EQ(f("redden"), -0.2f);
    filter.setUniforms(program.get(), kArea, 500, 400);
    EXPECT_FLOAT_EQ(f("whitening"), -0.4f);
    EXPECT_EQ(v4("whitening_face_area"), (Vec4{0.2f, 0.5f, 0.6f, 1.0f}));
}

TEST_F(FilterUniforms, SmoothOvershootsAndReadsMissingAreaAsZero)
{
    OpenglFaceAreaFilter filter;
    filter.setUniforms(program.get(), with(smooth_strength, 100), 1000, 800);
    EXPECT_FLOAT_EQ(f("smoothStrength"), 1.5f);
    EXPECT_EQ(v4("smooth_face_area"), (Vec4{0.1f, 0.25f, 0.3f, 0.5f}));
    EXPECT_FLOAT_EQ(f("redLipsStrength"), -7.0f);

    filter.setUniforms(program.get(), {{smooth_strength, 40}}, 1000, 800);
    EXPECT_FLOAT_EQ(f("smoothStrength"), 0.6f);
    EXPECT_EQ(v4("smooth_face_area"), (Vec4{0, 0, 0, 0}));
}

TEST_F(FilterUniforms, RedLipsMovesAnEighthOfTheWay)
{
    OpenglFaceAreaFilter filter;
    program->setUniformValue("whitening", 0.7f);
    filter.setUniforms(program.get(), with(redlips_strength, 100), 1000, 800);
    EXPECT_FLOAT_EQ(f("redLipsStrength"), 0.125f);
    EXPECT_FLOAT_EQ(f("redden"), 1.0f);
    EXPECT_FLOAT_EQ(f("smoothStrength"), -7.0f);
    EXPECT_EQ(v4("smooth_face_area"), (Vec4{0.1f, 0.25f, 0.3f, 0.5f}));
    // whitening and pinking go through the integer setter, which a float
    // uniform refuses: they keep what they held.
    EXPECT_FLOAT_EQ(f("whitening"), 0.7f);
    EXPECT_FLOAT_EQ(f("pinking"), -7.0f);
}

TEST_F(FilterUniforms, SlimFaceInPixels)
{
    OpenglSlimFaceFilter filter;
    filter.setUniforms(program.get(), with(slim_face_strength, 100), 1000, 800);
    EXPECT_FLOAT_EQ(f("slimStrength"), 1.0f);
    EXPECT_FLOAT_EQ(f("textureWidth"), 1000.0f);
    EXPECT_FLOAT_EQ(f("textureHeight"), 800.0f);
    EXPECT_EQ(v4("slim_face_area"), (Vec4{100, 200, 300, 400}));

    filter.setUniforms(program.get(), kArea, 640, 480);
    EXPECT_FLOAT_EQ(f("slimStrength"), 1.0f);
    EXPECT_FLOAT_EQ(f("textureWidth"), 640.0f);
}

TEST_F(FilterUniforms, SmoothAndWhiteningDrivesBothEffects)
{
    OpenglSmoothAndWhiteningFilter filter;
    filter.setUniforms(program.get(), with(smooth_whitening_strength, 100), 1000, 800);
    EXPECT_FLOAT_EQ(f("smoothStrength"), 1.0f);
    EXPECT_FLOAT_EQ(f("whitening"), 1.0f);
    EXPECT_FLOAT_EQ(f("redden"), 0.0f);
    EXPECT_FLOAT_EQ(f("pinking"), 0.0f);
    EXPECT_EQ(v4("smooth_face_area"), (Vec4{0.1f, 0.25f, 0.3f, 0.5f}));
    EXPECT_EQ(v4("whitening_face_area"), (Vec4{0.1f, 0.25f, 0.3f, 0.5f}));

    filter.setUniforms(program.get(), with(smooth_whitening_strength, 35), 1000, 800);
    EXPECT_FLOAT_EQ(f("smoothStrength"), 0.35f);
    EXPECT_FLOAT_EQ(f("whitening"), 0.35f);
}

TEST(FilterUniformsWithoutProgram, NullProgramIsSkipped)
{
    OpenglFaceAreaFilter area;
    OpenglWhiteningFilter whitening;
    OpenglSmoothAndWhiteningFilter both;
    OpenglSlimFaceFilter slim;
    area.setUniforms(nullptr, with(smooth_strength, 50), 640, 480);
    area.setUniforms(nullptr, with(redlips_strength, 50), 640, 480);
    whitening.setUniforms(nullptr, with(whitening_strength, 50), 640, 480);
    both.setUniforms(nullptr, with(smooth_whitening_strength, 50), 640, 480);
    slim.setUniforms(nullptr, with(slim_face_strength, 50), 640, 480);
    // The map is taken by value: the filter's own parameters stay as they were.
    EXPECT_EQ(area.paras().at(smooth_strength), 0);
    EXPECT_EQ(slim.paras().at(slim_face_strength), 0);
}
