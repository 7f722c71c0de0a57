// ShaderWorker: the matrices, the GLSL headers put in front of the shader
// files, program building and its failures, and the lips mesh.
#include <set>

#include <QVector3D>
#include <QTemporaryFile>
#include <opencv2/imgproc.hpp>

#include "LogCapture.h"
#include "shader/OpenGLHelper.h"
#include "shader/ShaderReference.h"
#include "shader/UniformCache.h"

using namespace OpenGLHelper;

// Where the uploaded mvp takes a point. The merger translates, scales and
// turns about a null axis at angle 0; the turns about an edge (the free edge
// swings to z -1) and the flipped projection no pass uses yet.
TEST(ShaderWorker, MatricesComposeAsTheDrawsNeedThem)
{
    const float c = std::cos(M_PI / 6);
    const std::tuple<std::function<void(ShaderWorker&)>, QVector3D, QVector3D> cases[] = {
        {[](ShaderWorker& w) { w.translateModel(0.5f, 0, 0), w.scaleModel(0.5, 2), w.rotateAboutEdge(0, 0, 0, 0); },
         {1, 1, 0}, {1, 2, 0}},
        {[](ShaderWorker& w) { w.rotateAboutEdge(30, 0, 1, 0); }, {-1, 0, 0}, {1 - 2 * c, 0, -1}},
        {[](ShaderWorker& w) { w.rotateAboutEdge(-30, 1, 0, 0); }, {0, 1, 0}, {0, 2 * c - 1, -1}},
        {[](ShaderWorker& w) { w.rotateAboutEdge(30, 0, 0, 1); }, {1, 0, 0}, {c, 0.5f, 0}},
        {[](ShaderWorker& w) { w.flipProjection(); }, {0.5f, 0.25f, 0}, {-0.5f, 0.25f, 0}},
    };
    for (const auto& [ops, in, out] : cases) {
        ShaderWorker worker;
        worker.resetMatrices();
        ops(worker);
        EXPECT_LT((worker.mvp().map(in) - out).length(), 1e-5) << in.x() << "," << in.y() << " to " << out.x();
    }
}

TEST(ShaderWorker, GlslVersionAndHeaders)
{
    // Text, ES, ES major version, the version, whether it warns.
    const std::tuple<const char*, bool, int, int, bool> texts[] = {
        {"4.60", false, 0, 460, false}, {"4.6", false, 0, 406, false},  // the minor number is added as read
        {"4.50 NVIDIA via Cg compiler", false, 0, 450, false}, {"OpenGL ES GLSL ES 3.00", false, 0, 300, false},
        {"OpenGL ES GLSL ES 1.00", true, 2, 100, false}, {"450", false, 0, 110, true}, {nullptr, false, 0, 110, true},
        {"garbage", true, 2, 100, true}, {"garbage", true, 3, 300, true},  // on ES by the major version
    };
    for (const auto& [text, es, esMajor, want, warns] : texts) {
        LogCapture log;
        EXPECT_EQ(parseGlslVersion(text, es, esMajor), want) << (text ? text : "null");
        EXPECT_EQ(log.contains("Failed to detect glsl version"), warns) << (text ? text : "null");
    }
    // Kind, version, ES, how the header starts, texts it has, texts it has not.
    const std::tuple<int, int, bool, const char*, std::vector<const char*>, std::vector<const char*>> headers[] = {
        {1, 120, false, "#version 120\n", {"#define highp\n#define mediump\n#define lowp\n"}, {"#define attribute"}},
        {1, 130, false, "#version 130\n", {"#define attribute in\n#define varying out\n"}, {}},
        {2, 120, false, "#version 120\n", {"#define texture texture2D"}, {"out_color"}},
        {2, 300, true, "precision mediump int;\nprecision mediump float;\n", {}, {"#version"}},
    };
    for (const auto& [kind, version, es, start, has, hasNot] : headers) {
        const QByteArray header = versionHeaderFor(kind, version, es);
        EXPECT_TRUE(header.startsWith(start)) << kind << " " << version << "\n" << header.constData();
        for (const char* text : has)
            EXPECT_TRUE(header.contains(text)) << kind << " " << version << ": " << text;
        for (const char* text : hasNot)
            EXPECT_FALSE(header.contains(text)) << kind << " " << version << ": " << text;
    }
    // The version comes from the current context only, and is cached then;
    // the headers of versions from 130 on are used by every compile here.
    resetCachedGlslVersion();
    EXPECT_EQ(GLSLVersion(), 0);
    EXPECT_LT(cachedGlslVersion(), 0);
    gltest::ScopedContext gl;
    ASSERT_TRUE(gl.ok);
    EXPECT_EQ(GLSLVersion(), parseGlslVersion((const char*)gl.functions->glGetString(GL_SHADING_LANGUAGE_VERSION)));
    EXPECT_EQ(cachedGlslVersion(), GLSLVersion());
}

TEST(ShaderWorker, BuildingStopsAtTheFirstBadStage)
{
    gltest::ScopedContext gl;
    ASSERT_TRUE(gl.ok);
    QTemporaryFile broken;
    ASSERT_TRUE(broken.open() && broken.write("void main() { this is not glsl }\n") > 0 && broken.flush());
    EXPECT_EQ(loadShaderFile(broken.fileName()), "void main() { this is not glsl }\n");
    // A vertex stage that fails leaves the fragment file unread; a missing
    // fragment file leaves the header alone, which the compiler or linker
    // refuses.
    LogCapture log;
    EXPECT_FALSE(ShaderWorker(broken.fileName(), ":/filters/missing.glsl").isInitialised());
    EXPECT_TRUE(log.contains("init vertex shader fail!", QtWarningMsg));
    EXPECT_FALSE(log.contains("Can not load shader"));
    EXPECT_FALSE(ShaderWorker(":/filters/image_filter_vertex.glsl", ":/filters/missing.glsl").isInitialised());
    EXPECT_TRUE(log.contains("Can not load shader :/filters/missing.glsl"));
}

// Uniform locations are looked up once per program: a name asked again comes
// from the program's table (a name it lacks too, as -1), a second program
// has a table of its own, and what the table gives is what GL gives.
TEST(ShaderWorker, UniformLocationsAreLookedUpOncePerProgram)
{
    gltest::ScopedContext gl;
    ASSERT_TRUE(gl.ok);
    ShaderWorker basic(":/filters/basic_image_filter_vertex.glsl", ":/filters/basic_image_filter_fragment.glsl");
    ShaderWorker whitening(":/filters/whitening_filter_vertex.glsl", ":/filters/whitening_filter_fragment.glsl");
    ASSERT_TRUE(basic.isInitialised());
    ASSERT_TRUE(whitening.isInitialised());
    QOpenGLShaderProgram* program = basic.shaderProgram();
    const int before = uniforms::cachedNames(program);
    const int brightness = uniforms::location(program, "brightness");
    EXPECT_GE(brightness, 0);
    EXPECT_EQ(brightness, program->uniformLocation("brightness"));
    EXPECT_EQ(uniforms::location(program, "brightness"), brightness);
    EXPECT_EQ(uniforms::location(program, "noSuchUniform"), -1);
    EXPECT_EQ(uniforms::location(program, "noSuchUniform"), -1);
    EXPECT_EQ(uniforms::cachedNames(program), before + 2);
    // The other program's "whitening" is its own, not the first one's -1.
    EXPECT_EQ(uniforms::location(whitening.shaderProgram(), "whitening"),
              whitening.shaderProgram()->uniformLocation("whitening"));
    EXPECT_GE(uniforms::location(whitening.shaderProgram(), "whitening"), 0);
    EXPECT_EQ(uniforms::location(program, "whitening"), -1);
    // A value set through the table reaches the program.
    basic.bind();
    uniforms::set(program, "brightness", 0.25f);
    GLfloat read = 0;
    gl.context.functions()->glGetUniformfv(program->programId(), brightness, &read);
    EXPECT_FLOAT_EQ(read, 0.25f);
    EXPECT_EQ(uniforms::location(nullptr, "brightness"), -1);
}

namespace {

// Lip points around (100, 100) of a 400 x 300 picture: outer 0 (left
// corner) to 6 (right corner) over the top, 7 to 11 back along the bottom;
// inner 12 (left), 13 to 15 on top, 16 (right), 17 to 19 at the bottom.
std::vector<int> lips(int innerTop, int innerBottom)
{
    return {60,  100, 70, 90,       85,  85,       100, 88,       115, 85,          130, 90,          140, 100,
            130, 110, 115, 115,     100, 117,      85,  115,      70,  110,         70,  100,         85,  innerTop,
            100, innerTop, 115, innerTop, 130, 100, 115, innerBottom, 100, innerBottom, 85, innerBottom};
}

}  // namespace

// What the mesh covers of the lip outline, the open mouth left as a hole,
// the outer lip line moved by the face's height, and points at the border
// left out; the triangle corners in picture pixels.
TEST(ShaderWorker, LipsMeshCoversTheLipsAndLeavesTheOpenMouth)
{
    std::vector<int> atBorder = lips(97, 101);
    atBorder[2] = 0;  // lip point 1 at x 0
    using Points = std::vector<cv::Point2f>;
    struct Case { const char* label; std::vector<int> points; std::map<std::string, double> params;
                  Points covered, uncovered, corners, notCorners; } cases[] = {
        {"closed", lips(97, 101), {}, {{100, 99.5f}, {101, 90.5f}, {101, 112.5f}}, {{100, 83}, {100, 119}, {55, 100}},
         {{100, 88}, {100, 97}, {100, 101}}, {}},
        {"open", lips(94, 108), {}, {{101, 90.5f}, {101, 112.5f}}, {{100.3f, 101.2f}, {99.7f, 100.8f}}, {},
         {{100, 101}}},
        // A face 250 pixels high moves the outer lines by 2: points 2 and 4 up
        // by 2, point 3 up by 1, points 7 to 11 down by 2; below 100 nothing.
        {"shifted", lips(97, 101), {{"face_area_width", 999}, {"face_area_height", 250}}, {}, {},
         {{85, 83}, {115, 83}, {100, 87}, {100, 119}, {70, 112}, {70, 90}, {100, 97}}, {{85, 85}, {100, 117}}},
        {"below 100 pixels", lips(97, 101), {{"face_area_height", 99}}, {}, {}, {{85, 85}, {100, 88}, {100, 117}}, {}},
        {"at the border", atBorder, {}, {{101, 112.5f}}, {}, {}, {{0, 90}}},
    };
    for (const Case& c : cases) {
        ShaderWorker worker;
        worker.buildLipsMesh(c.points, c.params, 400, 300);
        const std::vector<float>& v = worker.lipsVertices();
        ASSERT_GT(worker.getIndexCount(), 0) << c.label;
        ASSERT_EQ(worker.getIndexCount() * 5, static_cast<int>(v.size())) << c.label;
        std::vector<Points> triangles(v.size() / 15);
        std::set<std::pair<int, int>> corners;
        for (size_t i = 0; i < v.size(); i += 5) {
            triangles[i / 15].emplace_back((v[i] + 1) * 200, (v[i + 1] + 1) * 150);
            corners.insert({int(std::lround((v[i] + 1) * 200)), int(std::lround((v[i + 1] + 1) * 150))});
            EXPECT_EQ(v[i + 3], (v[i] + 1) / 2) << "texture coordinates follow";
            EXPECT_EQ(v[i + 4], (v[i + 1] + 1) / 2) << "texture coordinates follow";
        }
        auto covers = [&](cv::Point2f p) {
            return std::any_of(triangles.begin(), triangles.end(),
                               [&](const Points& t) { return cv::pointPolygonTest(t, p, false) > 0; });
        };
        for (const auto& [points, in, corner] : {std::tuple(c.covered, true, false), {c.uncovered, false, false},
                                                 {c.corners, true, true}, {c.notCorners, false, true}})
            for (const cv::Point2f& p : points)
                EXPECT_EQ(corner ? corners.count({int(p.x), int(p.y)}) == 1 : covers(p), in) << c.label << " " << p;
    }
    // A list without the inner middle points builds nothing, and says so.
    // (The lips pass draws the uploaded mesh: FaceEffectsRoad.RedLips*.)
    ShaderWorker worker;
    worker.buildLipsMesh(lips(94, 108), {}, 400, 300);
    std::vector<int> shortList = lips(97, 101);
    shortList.resize(36);
    LogCapture log;
    worker.buildLipsMesh(shortList, {}, 400, 300);
    EXPECT_EQ(worker.getIndexCount(), 0);
    EXPECT_TRUE(log.contains("[ShaderWorker::buildLipsMesh]", QtWarningMsg));
}
