// The lips mesh: triangulation of the upper and lower lip, the shift of the
// outer lip points, the open mouth left as a hole, and the vertex layout.
// The mesh is computed on the CPU; without a current context nothing is
// uploaded, so these cases need no GL.
#include <gtest/gtest.h>

#include <cmath>
#include <set>
#include <utility>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "gpu/GlTestSupport.h"
#include "shader/ShaderWorker.h"

namespace {

const int kWidth = 400;
const int kHeight = 300;

// 20 lip points around (100, 100): outer 0 (left corner) to 6 (right
// corner) over the top, 7 to 11 back along the bottom; inner 12 (left), 13 to
// 15 on top, 16 (right), 17 to 19 at the bottom.
std::vector<int> lips(int innerTop, int innerBottom)
{
    return {60,  100, 70,  90,  85,       85,  100, 88,       115, 85,  130, 90,       140, 100, 130, 110,
            115, 115, 100, 117, 85,       115, 70,  110, 70,       100, 85,  innerTop, 100, innerTop, 115, innerTop,
            130, 100, 115, innerBottom, 100, innerBottom, 85, innerBottom};
}

using Pixel = std::pair<int, int>;

// Triangle corners of the mesh, back in picture pixels.
std::vector<std::vector<cv::Point2f>> triangles(const ShaderWorker& worker)
{
    const std::vector<float>& v = worker.lipsVertices();
    std::vector<std::vector<cv::Point2f>> result;
    for (size_t i = 0; i + 15 <= v.size(); i += 15) {
        std::vector<cv::Point2f> tri;
        for (int k = 0; k < 3; ++k)
            tri.emplace_back((v[i + 5 * k] + 1.0f) * kWidth / 2.0f, (v[i + 5 * k + 1] + 1.0f) * kHeight / 2.0f);
        result.push_back(tri);
    }
    return result;
}

std::set<Pixel> corners(const ShaderWorker& worker)
{
    std::set<Pixel> result;
    for (const auto& tri : triangles(worker))
        for (const cv::Point2f& p : tri)
            result.insert({static_cast<int>(std::lround(p.x)), static_cast<int>(std::lround(p.y))});
    return result;
}

bool covered(const ShaderWorker& worker, cv::Point2f point)
{
    for (const auto& tri : triangles(worker))
        if (cv::pointPolygonTest(tri, point, false) > 0)
            return true;
    return false;
}

double meshArea(const ShaderWorker& worker)
{
    double area = 0;
    for (const auto& tri : triangles(worker))
        area += std::abs(cv::contourArea(tri));
    return area;
}

double hullArea(const std::vector<int>& points, const std::vector<int>& indices)
{
    std::vector<cv::Point2f> chosen, hull;
    for (int i : indices)
        chosen.emplace_back(points[2 * i], points[2 * i + 1]);
    cv::convexHull(chosen, hull);
    return cv::contourArea(hull);
}

}  // namespace

TEST(LipsMesh, ClosedLipsCoverBothLipHullsWithoutACentre)
{
    ShaderWorker worker;
    const std::vector<int> points = lips(97, 101);  // 101 is not more than 97 + 5
    worker.buildLipsMesh(points, {{"face_area_height", 50}}, kWidth, kHeight);
    ASSERT_GT(worker.getIndexCount(), 0);
    EXPECT_EQ(worker.getIndexCount() * 5, static_cast<int>(worker.lipsVertices().size()));
    EXPECT_EQ(worker.getIndexCount() % 3, 0);
    // No centre: every corner is a lip point.
    EXPECT_EQ(corners(worker).count({100, 99}), 0u);
    // Nothing dropped: the Delaunay triangles fill the convex hull of each lip.
    const double expected = hullArea(points, {0, 1, 2, 3, 4, 5, 6, 13, 14, 15}) +
                             hullArea(points, {0, 6, 7, 8, 9, 10, 11, 17, 18, 19});
    EXPECT_NEAR(meshArea(worker), expected, 1e-3);
    EXPECT_TRUE(covered(worker, {100.0f, 99.5f})) << "closed mouth: the middle is drawn";
}

TEST(LipsMesh, OpenMouthDropsEveryTriangleAtTheCentre)
{
    ShaderWorker worker;
    const std::vector<int> points = lips(94, 108);  // open: centre (100, 101)
    worker.buildLipsMesh(points, {}, kWidth, kHeight);
    ASSERT_GT(worker.getIndexCount(), 0);
    EXPECT_EQ(corners(worker).count({100, 101}), 0u) << "no triangle keeps the centre as a corner";
    // Right beside the centre only triangles at the centre could lie.
    EXPECT_FALSE(covered(worker, {100.3f, 101.2f})) << "the opening stays a hole";
    EXPECT_FALSE(covered(worker, {99.7f, 100.8f})) << "the opening stays a hole";
    EXPECT_TRUE(covered(worker, {101.0f, 90.5f})) << "the upper lip itself is drawn";
    EXPECT_TRUE(covered(worker, {101.0f, 112.5f})) << "the lower lip itself is drawn";
    const double lipsOnly = hullArea(points, {0, 1, 2, 3, 4, 5, 6, 13, 14, 15}) +
                            hullArea(points, {0, 6, 7, 8, 9, 10, 11, 17, 18, 19});
    EXPECT_LT(meshArea(worker), lipsOnly);
}

TEST(LipsMesh, PointsAtTheBorderAreLeftOut)
{
    ShaderWorker worker;
    std::vector<int> points = lips(97, 101);
    worker.buildLipsMesh(points, {}, kWidth, kHeight);
    const int full = worker.getIndexCount();
    points[2] = 0;  // lip point 1 at x 0
    worker.buildLipsMesh(points, {}, kWidth, kHeight);
    EXPECT_LT(worker.getIndexCount(), full);
    EXPECT_EQ(corners(worker).count({0, 90}), 0u);
    for (const Pixel& p : corners(worker))
        EXPECT_GE(p.first, 1);
}

TEST(LipsMesh, FaceHeightShiftsTheOuterLips)
{
    ShaderWorker worker;
    const std::vector<int> points = lips(97, 101);
    worker.buildLipsMesh(points, {{"face_area_width", 999}, {"face_area_height", 250}}, kWidth, kHeight);
    std::set<Pixel> c = corners(worker);
    // d = 2: points 2 and 4 rise by 2, point 3 by 2 - 1, points 7 to 11 drop by 2.
    EXPECT_EQ(c.count({85, 83}), 1u);
    EXPECT_EQ(c.count({115, 83}), 1u);
    EXPECT_EQ(c.count({100, 87}), 1u);
    EXPECT_EQ(c.count({100, 119}), 1u);
    EXPECT_EQ(c.count({70, 112}), 1u);
    EXPECT_EQ(c.count({85, 85}), 0u);
    EXPECT_EQ(c.count({70, 90}), 1u) << "point 1 does not move";
    EXPECT_EQ(c.count({100, 97}), 1u) << "inner points do not move";

    worker.buildLipsMesh(points, {{"face_area_height", 99}}, kWidth, kHeight);
    c = corners(worker);
    EXPECT_EQ(c.count({85, 85}), 1u);
    EXPECT_EQ(c.count({100, 88}), 1u);
    EXPECT_EQ(c.count({100, 117}), 1u);
}

TEST(LipsMesh, VertexLayoutRoundsBeforeDividing)
{
    const std::array<float, 5> v = ShaderWorker::lipsVertex(10.4f, 29.6f, 200, 100);
    EXPECT_FLOAT_EQ(v[0], 2.0f * 10 / 200 - 1.0f);
    EXPECT_FLOAT_EQ(v[1], 2.0f * 30 / 100 - 1.0f);
    EXPECT_FLOAT_EQ(v[2], 0.0f);
    EXPECT_FLOAT_EQ(v[3], 10.0f / 200);
    EXPECT_FLOAT_EQ(v[4], 30.0f / 100);

    // In the mesh every vertex carries its own texture coordinate.
    ShaderWorker worker;
    worker.buildLipsMesh(lips(97, 101), {}, kWidth, kHeight);
    const std::vector<float>& all = worker.lipsVertices();
    ASSERT_FALSE(all.empty());
    for (size_t i = 0; i < all.size(); i += 5) {
        EXPECT_FLOAT_EQ(all[i + 3], (all[i] + 1.0f) * 0.5f);
        EXPECT_FLOAT_EQ(all[i + 4], (all[i + 1] + 1.0f) * 0.5f);
    }
}

TEST(LipsMesh, ShortListBuildsNothing)
{
    ShaderWorker worker;
    worker.buildLipsMesh(lips(97, 101), {}, kWidth, kHeight);
    ASSERT_GT(worker.getIndexCount(), 0);
    gltest::LogCapture log;
    std::vector<int> shortList = lips(97, 101);
    shortList.resize(36);
    EXPECT_NO_THROW(worker.buildLipsMesh(shortList, {}, kWidth, kHeight));
    EXPECT_EQ(worker.getIndexCount(), 0);
    EXPECT_TRUE(worker.lipsVertices().empty());
    EXPECT_TRUE(log.contains("[ShaderWorker::buildLipsMesh]"));
}

TEST(LipsMesh, UploadsIntoTheCurrentContext)
{
    gltest::ScopedContext gl;
    ASSERT_TRUE(gl.ok);
    ShaderWorker worker;
    worker.buildLipsMesh(lips(94, 108), {}, kWidth, kHeight);
    EXPECT_GT(worker.getIndexCount(), 0);
    EXPECT_EQ(gl.functions->glGetError(), static_cast<GLenum>(GL_NO_ERROR));
}
