#include "gpu/FaceRegions.h"

#include <algorithm>
#include <cmath>

#include <QLineF>
#include <QPointF>

#include "lumen_fx/ImageFilterTypes.h"

namespace faceregions {

namespace {

double valueOr0(const std::map<std::string, double>& map, const std::string& key)
{
    auto it = map.find(key);
    return it == map.end() ? 0.0 : it->second;
}

// The contour points that the jaw warp pulls and the point each one is
// pulled towards, as in the shader: 5 to 27 without the chin's 16.
int slimTarget(int k)
{
    return (k <= 8 || k >= 24) ? 53 : 90;
}

}  // namespace

// The frame pixels between edges given in doubles, cut to the frame; edges
// that aren't numbers give the whole frame.
QRect frameRegion(double left, double top, double right, double bottom, int width, int height)
{
    if (!std::isfinite(left) || !std::isfinite(top) || !std::isfinite(right) || !std::isfinite(bottom))
        return QRect(0, 0, width, height);
    auto cut = [](double v, int limit) { return static_cast<int>(std::max(0.0, std::min<double>(limit, v))); };
    const int x0 = cut(std::floor(left), width), x1 = cut(std::ceil(right), width);
    const int y0 = cut(std::floor(top), height), y1 = cut(std::ceil(bottom), height);
    return QRect(x0, y0, x1 - x0, y1 - y0);
}

// Where smoothing can change a pixel: its Gaussian weight over the face area
// is cut to 0 below exp(-4), that is outside the ellipse of half axes
// 0.4 * sqrt(8) of the area's size round its centre. The ellipse is covered
// by bands of rows, each as wide as the ellipse in it, rounded outwards.
std::vector<QRect> smoothRegion(const std::map<std::string, double>& face, int width, int height)
{
    const double x = valueOr0(face, face_area_x), y = valueOr0(face, face_area_y);
    const double w = valueOr0(face, face_area_width), h = valueOr0(face, face_area_height);
    if (!(w > 0) || !(h > 0) || !std::isfinite(x + y + w + h))
        return {QRect(0, 0, width, height)};
    const double reach = 0.4 * std::sqrt(8.0);
    const double cx = x + w / 2, cy = y + h / 2, a = reach * w + 2, b = reach * h + 2;
    const int kBands = 16;
    std::vector<QRect> bands;
    for (int i = 0; i < kBands; ++i) {
        const double top = cy - b + 2 * b * i / kBands, bottom = cy - b + 2 * b * (i + 1) / kBands;
        const double nearest = std::max(top, std::min(bottom, cy));
        const double half = a * std::sqrt(std::max(0.0, 1.0 - (nearest - cy) * (nearest - cy) / (b * b))) + 2;
        const QRect band = frameRegion(cx - half, top - 1, cx + half, bottom + 1, width, height);
        if (!band.isEmpty())
            bands.push_back(band);
    }
    return bands;
}

// How far from a pixel the smoothing shader reads: 20 / 640 of the width
// across, 20 / 1136 of the height down, and one more texel for the filtering.
int smoothMargin(int width, int height)
{
    return static_cast<int>(std::ceil(std::max(width * 20.0 / 640.0, height * 20.0 / 1136.0))) + 2;
}

// Where the jaw warp can move a pixel. Each of its pulls reaches one eye
// distance round its contour point and moves what it reaches by at most its
// own length, so a pixel further than the eye distance plus all the lengths
// from every pulled point never moves, and a moved one reads at most that sum
// (`reads`) away. The points are relative to the face area's corner.
QRect slimRegion(const std::map<std::string, double>& face, const std::vector<int32_t>& points, int width,
                 int height, int& reads)
{
    auto at = [&](int k) { return QPointF(points[2 * k], points[2 * k + 1]); };
    // Every pull at the larger of the shader's two scales.
    const double scale = std::fabs(valueOr0(face, slim_face_strength) / 100.0 * 0.012 * 2.0);
    double lengths = 0;
    double left = at(5).x(), right = left, top = at(5).y(), bottom = top;
    for (int k = 5; k <= 27; ++k) {
        if (k == 16)
            continue;
        lengths += QLineF(at(k), at(slimTarget(k))).length() * scale;
        left = std::min(left, at(k).x()), right = std::max(right, at(k).x());
        top = std::min(top, at(k).y()), bottom = std::max(bottom, at(k).y());
    }
    const double radius = QLineF(at(96), at(97)).length();
    const double grow = radius + lengths + 2;
    const double ox = valueOr0(face, face_area_x) - grow, oy = valueOr0(face, face_area_y) - grow;
    reads = std::isfinite(lengths) ? static_cast<int>(std::min<double>(std::ceil(lengths), width + height)) + 2
                                   : width + height;
    return frameRegion(ox + left, oy + top, ox + right + 2 * grow, oy + bottom + 2 * grow, width, height);
}

// The frame pixels that a mesh of x, y, z, s, t vertices reads, with a texel
// round them for the filtering.
QRect meshArea(const std::vector<float>& vertices, int width, int height)
{
    if (vertices.size() < 5)
        return QRect();
    double left = width, top = height, right = 0, bottom = 0;
    for (size_t i = 0; i + 4 < vertices.size(); i += 5) {
        left = std::min<double>(left, vertices[i + 3] * width);
        right = std::max<double>(right, vertices[i + 3] * width);
        top = std::min<double>(top, vertices[i + 4] * height);
        bottom = std::max<double>(bottom, vertices[i + 4] * height);
    }
    return frameRegion(left - 2, top - 2, right + 2, bottom + 2, width, height);
}

}  // namespace faceregions
