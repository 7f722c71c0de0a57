#pragma once
// Where the face passes of an opaque frame can change a pixel, and how far
// from it their shaders read, worked without GL. A pass drawn in place
// touches only these rectangles of frame pixels (rows from the top, as the
// pictures' own) and copies first what it reads around them.

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include <QRect>

namespace faceregions {

// The frame pixels between edges given in doubles, cut to the frame; edges
// that aren't numbers give the whole frame.
QRect frameRegion(double left, double top, double right, double bottom, int width, int height);

// Where smoothing can change a pixel of the face whose parameters are
// `face` (its face area): bands of rows that cover the ellipse outside which
// the shader's weight is cut to 0. A face without an area gives the frame.
std::vector<QRect> smoothRegion(const std::map<std::string, double>& face, int width, int height);

// How far from a pixel the smoothing shader reads.
int smoothMargin(int width, int height);

// Where the jaw warp of a face (its parameters and 98 key points) can move a
// pixel; `reads` is how far from a moved pixel the warp reads.
QRect slimRegion(const std::map<std::string, double>& face, const std::vector<int32_t>& points, int width,
                 int height, int& reads);

// The frame pixels that a mesh of x, y, z, s, t vertices reads, with a texel
// round them for the filtering.
QRect meshArea(const std::vector<float>& vertices, int width, int height);

}  // namespace faceregions
