// Where the face passes draw on an opaque frame, worked without GL.
#include <algorithm>
#include <cmath>
#include <map>
#include <string>
#include <vector>

#include <QRect>
#include <gtest/gtest.h>

#include "gpu/FaceRegions.h"
#include "lumen_fx/ImageFilterTypes.h"

namespace {

// A close-up's jaw relative to its face area: the contour 5 to 27 down the
// sides and round the chin (16) of a face 300 pixels wide, the nose (53) and
// mouth (90) in the middle, eyes (96, 97) 110 pixels apart.
std::vector<int32_t> closeUpPoints()
{
    std::vector<int32_t> points(196, 0);
    auto put = [&](int k, double x, double y) {
        points[2 * k] = static_cast<int32_t>(std::lround(x));
        points[2 * k + 1] = static_cast<int32_t>(std::lround(y));
    };
    for (int k = 5; k <= 27; ++k) {
        const double turn = M_PI - M_PI * (k - 5) / 22;
        put(k, 170 + 150 * std::cos(turn), 120 + 210 * std::sin(turn));
    }
    put(53, 170, 150), put(90, 170, 250), put(96, 115, 90), put(97, 225, 90);
    return points;
}

// Where the jaw warp reads for the frame pixel centred at (x, y), as its
// shader works it: each contour point pulled in turn towards the nose or the
// mouth, with a falloff out to the eye distance.
QPointF warped(double x, double y, const std::vector<int32_t>& points, QPointF corner, double strength)
{
    auto at = [&](int k) { return QPointF(points[2 * k], points[2 * k + 1]); };
    const double eyes = std::hypot(at(97).x() - at(96).x(), at(97).y() - at(96).y());
    QPointF c = QPointF(x, y) - corner;
    const double lift = strength / 100 * 0.012;
    for (int s = 5; s <= 15; ++s)
        for (int k : {s, 32 - s}) {
            const QPointF origin = at(k);
            const QPointF pull = (at(s <= 8 ? 53 : 90) - origin) * lift * (s <= 7 ? 1 : 2);
            const double away = std::hypot(c.x() - origin.x(), c.y() - origin.y());
            c -= pull * std::clamp(1.0 - away / eyes, 0.0, 1.0);
        }
    return c + corner;
}

}  // namespace

// Every pixel that the warp moves lies in its region, and every place a moved
// pixel reads lies within `reads` of it, for a face in the frame, one cut by
// its edge, and pulls weak and strong.
TEST(FaceRegions, SlimRegionCoversEveryPixelTheWarpMovesAndReads)
{
    const std::vector<int32_t> points = closeUpPoints();
    const struct { const char* name; QPointF corner; double strength; } cases[] = {
        {"a close-up", {480, 120}, 80}, {"at full strength", {480, 120}, 100},
        {"far beyond it", {480, 120}, 600}, {"cut by the left edge", {-90, 200}, 100}};
    const int width = 1280, height = 720;
    for (const auto& c : cases) {
        const std::map<std::string, double> face = {
            {face_area_x, c.corner.x()}, {face_area_y, c.corner.y()}, {slim_face_strength, c.strength}};
        int reads = 0;
        const QRect region = faceregions::slimRegion(face, points, width, height, reads);
        const QRectF readable = QRectF(region).adjusted(-reads, -reads, reads, reads);
        int moved = 0, outside = 0, readOutside = 0;
        for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x) {
                const QPointF to = warped(x + 0.5, y + 0.5, points, c.corner, c.strength);
                if (std::abs(to.x() - x - 0.5) < 1e-9 && std::abs(to.y() - y - 0.5) < 1e-9)
                    continue;
                ++moved;
                outside += region.contains(x, y) ? 0 : 1;
                const QPointF read(std::clamp(to.x(), 0.0, width - 0.5), std::clamp(to.y(), 0.0, height - 0.5));
                readOutside += readable.contains(read) ? 0 : 1;
            }
        EXPECT_GT(moved, 10000) << c.name;
        EXPECT_EQ(outside, 0) << c.name << ": moved pixels outside the region";
        EXPECT_EQ(readOutside, 0) << c.name << ": reads outside the copied area";
    }
}
