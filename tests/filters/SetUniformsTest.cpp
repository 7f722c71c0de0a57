// setUniforms of the face filters, read back from a real linked program.
#include <functional>
#include <vector>

#include <QOpenGLShaderProgram>
#include <gtest/gtest.h>

#include "LogCapture.h"
#include "filters/OpenglFaceAreaFilter.h"
#include "filters/OpenglSlimFaceFilter.h"
#include "filters/OpenglSmoothAndWhiteningFilter.h"
#include "filters/OpenglWhiteningFilter.h"
#include "gpu/GlTestSupport.h"
#include "lumen_fx/ImageFilterTypes.h"

namespace {

const char* const kFloats[] = {"smoothStrength", "redLipsStrength", "redden",       "whitening",
                               "pinking",        "slimStrength",    "textureWidth", "textureHeight"};
const char* const kAreas[] = {"smooth_face_area", "whitening_face_area", "slim_face_area"};

// Declares every uniform that the face filters set and uses each one, so
// that the linker keeps it.
QByteArray fragmentShader()
{
    QByteArray text = "#version 120\n";
    QByteArray sum = "vec4 s = vec4(0.0)";
    for (const char* name : kFloats) {
        text += QByteArray("uniform float ") + name + ";\n";
        sum += QByteArray(" + vec4(") + name + ")";
    }
    for (const char* name : kAreas) {
        text += QByteArray("uniform vec4 ") + name + ";\n";
        sum += QByteArray(" + ") + name;
    }
    return text + "void main() { " + sum + "; gl_FragColor = s; }\n";
}

BeautyFilterBase::ParaMap withArea(const std::string& key, double value)
{
    BeautyFilterBase::ParaMap m = {
        {face_area_x, 100}, {face_area_y, 200}, {face_area_width, 300}, {face_area_height, 400}};
    if (!key.empty())
        m[key] = value;
    return m;
}

}  // namespace

TEST(FilterUniforms, EachFilterSetsItsUniforms)
{
    gltest::ScopedContext gl;
    ASSERT_TRUE(gl.ok);
    QOpenGLShaderProgram program;
    ASSERT_TRUE(program.addShaderFromSourceCode(QOpenGLShader::Vertex, "#version 120\nattribute vec4 p;\n"
                                                                       "void main() { gl_Position = p; }\n"));
    ASSERT_TRUE(program.addShaderFromSourceCode(QOpenGLShader::Fragment, fragmentShader()))
        << program.log().toStdString();
    ASSERT_TRUE(program.link() && program.bind()) << program.log().toStdString();
    OpenglFaceAreaFilter area;
    OpenglWhiteningFilter whitening;
    OpenglSlimFaceFilter slim;
    OpenglSmoothAndWhiteningFilter both;
    using Values = std::vector<std::pair<const char*, std::vector<float>>>;
    const std::vector<float> normalised = {0.1f, 0.25f, 0.3f, 0.5f};
    // Each call on a 1000 x 800 frame unless named; every uniform held -7
    // before, so untouched ones keep it.
    struct Case {
        const char* label;
        std::function<void()> call;
        Values want;
    } cases[] = {
        {"whitening", [&] { whitening.setUniforms(&program, withArea(whitening_strength, 100), 1000, 800); },
         {{"whitening", {1}}, {"pinking", {1}}, {"redden", {0.5f}}, {"whitening_face_area", normalised},
          {"textureWidth", {1000}}, {"textureHeight", {800}}, {"smoothStrength", {-7}}}},
        {"whitening, negative, no area",
         [&] { whitening.setUniforms(&program, {{whitening_strength, -40}}, 1000, 800); },
         {{"whitening", {-0.4f}}, {"redden", {-0.2f}}, {"whitening_face_area", {0, 0, 0, 0}}}},
        {"whitening, area only, 500 x 400", [&] { whitening.setUniforms(&program, withArea("", 0), 500, 400); },
         {{"whitening", {-7}}, {"whitening_face_area", {0.2f, 0.5f, 0.6f, 1}}}},
        {"smooth overshoots", [&] { area.setUniforms(&program, withArea(smooth_strength, 100), 1000, 800); },
         {{"smoothStrength", {1.5f}}, {"smooth_face_area", normalised}, {"redLipsStrength", {-7}}}},
        {"smooth, no area", [&] { area.setUniforms(&program, {{smooth_strength, 40}}, 1000, 800); },
         {{"smoothStrength", {0.6f}}, {"smooth_face_area", {0, 0, 0, 0}}}},
        // whitening and pinking go through the integer setter, which a float
        // uniform refuses.
        {"red lips an eighth of the way",
         [&] { area.setUniforms(&program, withArea(redlips_strength, 100), 1000, 800); },
         {{"redLipsStrength", {0.125f}}, {"redden", {1}}, {"smoothStrength", {-7}}, {"smooth_face_area", normalised},
          {"whitening", {-7}}, {"pinking", {-7}}}},
        {"slim face in pixels", [&] { slim.setUniforms(&program, withArea(slim_face_strength, 100), 1000, 800); },
         {{"slimStrength", {1}}, {"textureWidth", {1000}}, {"textureHeight", {800}},
          {"slim_face_area", {100, 200, 300, 400}}}},
        {"slim face, area only, 640 x 480", [&] { slim.setUniforms(&program, withArea("", 0), 640, 480); },
         {{"slimStrength", {-7}}, {"textureWidth", {640}}}},
        {"smooth and whitening",
         [&] { both.setUniforms(&program, withArea(smooth_whitening_strength, 35), 1000, 800); },
         {{"smoothStrength", {0.35f}}, {"whitening", {0.35f}}, {"redden", {0}}, {"pinking", {0}},
          {"smooth_face_area", normalised}, {"whitening_face_area", normalised}}},
    };
    for (const Case& c : cases) {
        for (const char* name : kFloats)
            program.setUniformValue(name, -7.0f);
        for (const char* name : kAreas)
            program.setUniformValue(name, -7.0f, -7.0f, -7.0f, -7.0f);
        c.call();
        for (const auto& w : c.want) {
            std::vector<float> got(w.second.size());
            gl.functions->glGetUniformfv(program.programId(), program.uniformLocation(w.first), got.data());
            for (size_t i = 0; i < got.size(); ++i)
                EXPECT_FLOAT_EQ(got[i], w.second[i]) << c.label << ": " << w.first << "[" << i << "]";
        }
    }

    // Without a program nothing is set; slim face says so. The map is taken by
    // value: the filters' own parameters stay.
    LogCapture log;
    area.setUniforms(nullptr, withArea(smooth_strength, 50), 640, 480);
    whitening.setUniforms(nullptr, withArea(whitening_strength, 50), 640, 480);
    both.setUniforms(nullptr, withArea(smooth_whitening_strength, 50), 640, 480);
    slim.setUniforms(nullptr, withArea(slim_face_strength, 50), 640, 480);
    EXPECT_EQ(area.paras().at(smooth_strength), 0);
    EXPECT_TRUE(log.contains("[OpenglSlimFaceFilter::setUniforms]", QtWarningMsg));
}
