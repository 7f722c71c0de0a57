// The lips mesh: what it covers of the 20 lip points' outline, the open
// mouth left as a hole, the outer lip line moved by the face's height, points
// at the border left out, and the vertex layout. The mesh is computed on the
// CPU; without a current context nothing is uploaded.
#include <cmath>
#include <set>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include "LogCapture.h"
#include "gpu/GlTestSupport.h"
#include "shader/ShaderWorker.h"

namespace {

const int kWidth = 400;
const int kHeight = 300;

// Lip points around (100, 100): outer 0 (left corner) to 6 (right corner)
// over the top, 7 to 11 back along the bottom; inner 12 (left), 13 to 15 on
// top, 16 (right), 17 to 19 at the bottom.
std::vector<int> lips(int innerTop, int innerBottom)
{
    return {60,  100,      70,  90,       85,  85,       100, 88,         115, 85,          130, 90,
            140, 100,      130, 110,      115, 115,      100, 117,        85,  115,         70,  110,
            70,  100,      85,  innerTop, 100, innerTop, 115, innerTop,   130, 100,         115, innerBottom,
            100, innerBottom, 85, innerBottom};
}

std::vector<std::vector<cv::Point2f>> triangles(const ShaderWorker& worker)
{
    const std::vector<float>& v = worker.lipsVertices();
    std::vector<std::vector<cv::Point2f>> result;
    for (size_t i = 0; i + 15 <= v.size(); i += 15) {
        result.emplace_back();
        for (int k = 0; k < 3; ++k)
            result.back().emplace_back((v[i + 5 * k] + 1) * kWidth / 2, (v[i + 5 * k + 1] + 1) * kHeight / 2);
    }
    return result;
}

}  // namespace

TEST(LipsMesh, CoversTheLipsAndLeavesTheOpenMouth)
{
    std::vector<int> atBorder = lips(97, 101);
    atBorder[2] = 0;  // lip point 1 at x 0
    using Points = std::vector<cv::Point2f>;
    struct Case {
        const char* label;
        std::vector<int> points;
        std::map<std::string, double> params;
        Points covered, uncovered, corners, notCorners;
    } cases[] = {
        {"closed", lips(97, 101), {}, {{100, 99.5f}, {101, 90.5f}, {101, 112.5f}}, {{100, 83}, {100, 119}, {55, 100}},
         {{100, 88}, {100, 97}, {100, 101}}, {}},
        {"open", lips(94, 108), {}, {{101, 90.5f}, {101, 112.5f}}, {{100.3f, 101.2f}, {99.7f, 100.8f}}, {},
         {{100, 101}}},
        // A face 250 pixels high moves the outer lines by 2: points 2 and 4 up
        // by 2, point 3 up by 1, points 7 to 11 down by 2.
        {"shifted", lips(97, 101), {{"face_area_width", 999}, {"face_area_height", 250}}, {}, {},
         {{85, 83}, {115, 83}, {100, 87}, {100, 119}, {70, 112}, {70, 90}, {100, 97}}, {{85, 85}, {100, 117}}},
        {"below 100 pixels", lips(97, 101), {{"face_area_height", 99}}, {}, {}, {{85, 85}, {100, 88}, {100, 117}}, {}},
        {"at the border", atBorder, {}, {{101, 112.5f}}, {}, {}, {{0, 90}}},
    };
    for (const Case& c : cases) {
        ShaderWorker worker;
        worker.buildLipsMesh(c.points, c.params, kWidth, kHeight);
        ASSERT_GT(worker.getIndexCount(), 0) << c.label;
        EXPECT_EQ(worker.getIndexCount() * 5, static_cast<int>(worker.lipsVertices().size())) << c.label;
        std::set<std::pair<int, int>> corners;
        auto covers = [&](cv::Point2f p) {
            bool in = false;
            for (const auto& t : triangles(worker))
                in = in || cv::pointPolygonTest(t, p, false) > 0;
            return in;
        };
        for (const auto& t : triangles(worker))
            for (const cv::Point2f& p : t)
                corners.insert({static_cast<int>(std::lround(p.x)), static_cast<int>(std::lround(p.y))});
        for (const cv::Point2f& p : c.covered)
            EXPECT_TRUE(covers(p)) << c.label << " " << p;
        for (const cv::Point2f& p : c.uncovered)
            EXPECT_FALSE(covers(p)) << c.label << " " << p;
        for (const cv::Point2f& p : c.corners)
            EXPECT_EQ(corners.count({int(p.x), int(p.y)}), 1u) << c.label << " " << p;
        for (const cv::Point2f& p : c.notCorners)
            EXPECT_EQ(corners.count({int(p.x), int(p.y)}), 0u) << c.label << " " << p;
    }
}

TEST(LipsMesh, VerticesRoundToWholePixelsAndUpload)
{
    const std::array<float, 5> v = ShaderWorker::lipsVertex(10.4f, 29.6f, 200, 100);
    const float want[5] = {-0.9f, -0.4f, 0, 0.05f, 0.3f};  // (10, 30) in device and texture coordinates
    for (int i = 0; i < 5; ++i)
        EXPECT_NEAR(v[i], want[i], 1e-6) << i;
    gltest::ScopedContext gl;
    ASSERT_TRUE(gl.ok);
    ShaderWorker worker;
    worker.buildLipsMesh(lips(94, 108), {}, kWidth, kHeight);
    EXPECT_GT(worker.getIndexCount(), 0);
    EXPECT_EQ(gl.functions->glGetError(), static_cast<GLenum>(GL_NO_ERROR));
    // A list without the inner middle points builds nothing, and says so.
    LogCapture log;
    std::vector<int> shortList = lips(97, 101);
    shortList.resize(36);
    worker.buildLipsMesh(shortList, {}, kWidth, kHeight);
    EXPECT_EQ(worker.getIndexCount(), 0);
    EXPECT_TRUE(worker.lipsVertices().empty());
    EXPECT_TRUE(log.contains("[ShaderWorker::buildLipsMesh]", QtWarningMsg));
}
