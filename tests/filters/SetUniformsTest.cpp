// setUniforms of the face filters, read back from a real linked program.
#include <functional>
#include <vector>

#include <QOpenGLShaderProgram>

#include "LogCapture.h"
#include "filters/OpenglFaceAreaFilter.h"
#include "filters/OpenglSlimFaceFilter.h"
#include "filters/OpenglWhiteningFilter.h"
#include "gpu/GlTestSupport.h"
#include "lumen_fx/ImageFilterTypes.h"

namespace {

const char* const kFloats[] = {"smoothStrength", "redLipsStrength", "redden",       "whitening",
                               "pinking",        "slimStrength",    "textureWidth", "textureHeight"};
const char* const kAreas[] = {"smooth_face_area", "whitening_face_area", "slim_face_area"};

BeautyFilterBase::ParaMap withArea(const std::string& key, double value)
{
    return {{face_area_x, 100}, {face_area_y, 200}, {face_area_width, 300}, {face_area_height, 400}, {key, value}};
}

}  // namespace

TEST(FilterUniforms, EachFilterSetsItsUniforms)
{
    gltest::ScopedContext gl;
    ASSERT_TRUE(gl.ok);
    // A fragment shader that declares and uses every uniform the face
    // filters set, so that the linker keeps each one.
    QByteArray fragment = "#version 120\n", sum = "vec4 s = vec4(0.0)";
    for (const char* name : kFloats)
        fragment += QByteArray("uniform float ") + name + ";\n", sum += QByteArray(" + vec4(") + name + ")";
    for (const char* name : kAreas)
        fragment += QByteArray("uniform vec4 ") + name + ";\n", sum += QByteArray(" + ") + name;
    QOpenGLShaderProgram program;
    ASSERT_TRUE(program.addShaderFromSourceCode(QOpenGLShader::Vertex, "void main() { gl_Position = vec4(0.0); }"));
    ASSERT_TRUE(program.addShaderFromSourceCode(QOpenGLShader::Fragment, fragment + "void main() { " + sum +
                                                                             "; gl_FragColor = s; }\n"));
    ASSERT_TRUE(program.link() && program.bind()) << program.log().toStdString();
    OpenglFaceAreaFilter area;
    OpenglWhiteningFilter whitening;
    OpenglSlimFaceFilter slim;
    using Values = std::vector<std::pair<const char*, std::vector<float>>>;
    const std::vector<float> normalised = {0.1f, 0.25f, 0.3f, 0.5f};
    // Each call on a 1000 x 800 frame unless named; every uniform held -7
    // before, so untouched ones keep it.
    const std::pair<std::function<void()>, Values> cases[] = {
        {[&] { whitening.setUniforms(&program, withArea(whitening_strength, 100), 1000, 800); },
         {{"whitening", {1}}, {"pinking", {1}}, {"redden", {0.5f}}, {"whitening_face_area", normalised},
          {"textureWidth", {1000}}, {"textureHeight", {800}}, {"smoothStrength", {-7}}}},
        {[&] { whitening.setUniforms(&program, {{whitening_strength, -40}}, 500, 400); },
         {{"whitening", {-0.4f}}, {"redden", {-0.2f}}, {"whitening_face_area", {0, 0, 0, 0}}}},
        {[&] { area.setUniforms(&program, withArea(smooth_strength, 100), 1000, 800); },  // overshoots
         {{"smoothStrength", {1.5f}}, {"smooth_face_area", normalised}, {"redLipsStrength", {-7}}}},
        // whitening and pinking go through the integer setter, which a float
        // uniform refuses.
        {[&] { area.setUniforms(&program, withArea(redlips_strength, 100), 1000, 800); },
         {{"redLipsStrength", {0.125f}}, {"redden", {1}}, {"smoothStrength", {-7}}, {"whitening", {-7}},
          {"pinking", {-7}}, {"smooth_face_area", normalised}}},
        {[&] { slim.setUniforms(&program, withArea(slim_face_strength, 100), 1000, 800); },  // in pixels
         {{"slimStrength", {1}}, {"textureWidth", {1000}}, {"textureHeight", {800}},
          {"slim_face_area", {100, 200, 300, 400}}}},
        {[&] { slim.setUniforms(&program, withArea("", 0), 640, 480); },
         {{"slimStrength", {-7}}, {"textureWidth", {640}}}},
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        for (const char* name : kFloats)
            program.setUniformValue(name, -7.0f);
        for (const char* name : kAreas)
            program.setUniformValue(name, -7.0f, -7.0f, -7.0f, -7.0f);
        cases[i].first();
        for (const auto& [name, want] : cases[i].second) {
            std::vector<float> got(want.size());
            gl.functions->glGetUniformfv(program.programId(), program.uniformLocation(name), got.data());
            EXPECT_EQ(got, want) << "case " << i << ": " << name;
        }
    }
    // Without a program nothing is set, and slim face says so. The map is
    // taken by value: the filters' own parameters stay.
    LogCapture log;
    area.setUniforms(nullptr, withArea(smooth_strength, 50), 640, 480);
    whitening.setUniforms(nullptr, withArea(whitening_strength, 50), 640, 480);
    slim.setUniforms(nullptr, withArea(slim_face_strength, 50), 640, 480);
    EXPECT_EQ(area.paras().at(smooth_strength), 0);
    EXPECT_TRUE(log.contains("[OpenglSlimFaceFilter::setUniforms]", QtWarningMsg));
}
