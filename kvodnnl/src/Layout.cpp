#include "Layout.h"

#include <cmath>

namespace KVOAI::kvodnnl {

namespace {

// Thickness of an eyebrow as a fraction of its length.
constexpr double kBrowThickness = 0.15;

// How each of the 98 points is made from the model's points:
//   Copy a           model point a
//   Mid a, b         midpoint of a and b
//   BrowLower a, b   midpoint of a and b, moved down the face by the
//                    thickness of the brow that runs from c to d
//   Lid a, b, c, d   the lid curve through a, b, c, d half way from b to c
//   Centre a, b      mean of model points a to b
enum Rule { Copy, Mid, BrowLower, Lid, Centre };

struct PointRule {
    Rule rule;
    int a, b, c, d;
};

const PointRule kLayout98[98] = {
    // 0-32 contour: the jaw's 17 points at even indices, midpoints between.
    {Copy, 0, 0, 0, 0}, {Mid, 0, 1, 0, 0}, {Copy, 1, 0, 0, 0}, {Mid, 1, 2, 0, 0},
    {Copy, 2, 0, 0, 0}, {Mid, 2, 3, 0, 0}, {Copy, 3, 0, 0, 0}, {Mid, 3, 4, 0, 0},
    {Copy, 4, 0, 0, 0}, {Mid, 4, 5, 0, 0}, {Copy, 5, 0, 0, 0}, {Mid, 5, 6, 0, 0},
    {Copy, 6, 0, 0, 0}, {Mid, 6, 7, 0, 0}, {Copy, 7, 0, 0, 0}, {Mid, 7, 8, 0, 0},
    {Copy, 8, 0, 0, 0}, {Mid, 8, 9, 0, 0}, {Copy, 9, 0, 0, 0}, {Mid, 9, 10, 0, 0},
    {Copy, 10, 0, 0, 0}, {Mid, 10, 11, 0, 0}, {Copy, 11, 0, 0, 0}, {Mid, 11, 12, 0, 0},
    {Copy, 12, 0, 0, 0}, {Mid, 12, 13, 0, 0}, {Copy, 13, 0, 0, 0}, {Mid, 13, 14, 0, 0},
    {Copy, 14, 0, 0, 0}, {Mid, 14, 15, 0, 0}, {Copy, 15, 0, 0, 0}, {Mid, 15, 16, 0, 0},
    {Copy, 16, 0, 0, 0},
    // 33-41 left brow: upper edge outer to inner, lower edge back.
    {Copy, 17, 0, 0, 0}, {Copy, 18, 0, 0, 0}, {Copy, 19, 0, 0, 0}, {Copy, 20, 0, 0, 0},
    {Copy, 21, 0, 0, 0},
    {BrowLower, 20, 21, 17, 21}, {BrowLower, 19, 20, 17, 21}, {BrowLower, 18, 19, 17, 21},
    {BrowLower, 17, 18, 17, 21},
    // 42-50 right brow: upper edge inner to outer, lower edge back.
    {Copy, 22, 0, 0, 0}, {Copy, 23, 0, 0, 0}, {Copy, 24, 0, 0, 0}, {Copy, 25, 0, 0, 0},
    {Copy, 26, 0, 0, 0},
    {BrowLower, 25, 26, 22, 26}, {BrowLower, 24, 25, 22, 26}, {BrowLower, 23, 24, 22, 26},
    {BrowLower, 22, 23, 22, 26},
    // 51-54 nose bridge down to the tip, 55-59 base of the nose.
    {Copy, 27, 0, 0, 0}, {Copy, 28, 0, 0, 0}, {Copy, 29, 0, 0, 0}, {Copy, 30, 0, 0, 0},
    {Copy, 31, 0, 0, 0}, {Copy, 32, 0, 0, 0}, {Copy, 33, 0, 0, 0}, {Copy, 34, 0, 0, 0},
    {Copy, 35, 0, 0, 0},
    // 60-67 left eye: outer corner, upper lid, inner corner, lower lid.
    {Copy, 36, 0, 0, 0}, {Copy, 37, 0, 0, 0}, {Lid, 36, 37, 38, 39}, {Copy, 38, 0, 0, 0},
    {Copy, 39, 0, 0, 0}, {Copy, 40, 0, 0, 0}, {Lid, 39, 40, 41, 36}, {Copy, 41, 0, 0, 0},
    // 68-75 right eye: inner corner, upper lid, outer corner, lower lid.
    {Copy, 42, 0, 0, 0}, {Copy, 43, 0, 0, 0}, {Lid, 42, 43, 44, 45}, {Copy, 44, 0, 0, 0},
    {Copy, 45, 0, 0, 0}, {Copy, 46, 0, 0, 0}, {Lid, 45, 46, 47, 42}, {Copy, 47, 0, 0, 0},
    // 76-95 mouth in the model's order: outer line 76-87, inner line 88-95.
    {Copy, 48, 0, 0, 0}, {Copy, 49, 0, 0, 0}, {Copy, 50, 0, 0, 0}, {Copy, 51, 0, 0, 0},
    {Copy, 52, 0, 0, 0}, {Copy, 53, 0, 0, 0}, {Copy, 54, 0, 0, 0}, {Copy, 55, 0, 0, 0},
    {Copy, 56, 0, 0, 0}, {Copy, 57, 0, 0, 0}, {Copy, 58, 0, 0, 0}, {Copy, 59, 0, 0, 0},
    {Copy, 60, 0, 0, 0}, {Copy, 61, 0, 0, 0}, {Copy, 62, 0, 0, 0}, {Copy, 63, 0, 0, 0},
    {Copy, 64, 0, 0, 0}, {Copy, 65, 0, 0, 0}, {Copy, 66, 0, 0, 0}, {Copy, 67, 0, 0, 0},
    // 96, 97 eye centres.
    {Centre, 36, 41, 0, 0}, {Centre, 42, 47, 0, 0},
};

}  // namespace

std::vector<cv::Point2d> layout98(const std::vector<cv::Point2d>& model)
{
    // "Down the face": perpendicular to the line through the outer eye
    // corners, pointing towards the nose tip.
    cv::Point2d across = model[45] - model[36];
    const double acrossLength = std::hypot(across.x, across.y);
    cv::Point2d down(0.0, 1.0);
    if (acrossLength > 0) {
        down = cv::Point2d(-across.y / acrossLength, across.x / acrossLength);
        const cv::Point2d eyesMid = (model[36] + model[45]) * 0.5;
        if ((model[30] - eyesMid).dot(down) < 0)
            down = -down;
    }

    std::vector<cv::Point2d> out(98);
    for (int k = 0; k < 98; ++k) {
        const PointRule& r = kLayout98[k];
        switch (r.rule) {
        case Copy:
            out[k] = model[r.a];
            break;
        case Mid:
            out[k] = (model[r.a] + model[r.b]) * 0.5;
            break;
        case BrowLower: {
            const cv::Point2d length = model[r.d] - model[r.c];
            out[k] = (model[r.a] + model[r.b]) * 0.5 + down * (kBrowThickness * std::hypot(length.x, length.y));
            break;
        }
        case Lid:
            // Cubic through the four points, evaluated half way from b to c.
            out[k] = (model[r.b] * 9.0 + model[r.c] * 9.0 - model[r.a] - model[r.d]) * (1.0 / 16.0);
            break;
        case Centre: {
            cv::Point2d sum(0, 0);
            for (int i = r.a; i <= r.b; ++i)
                sum += model[i];
            out[k] = sum * (1.0 / (r.b - r.a + 1));
            break;
        }
        }
    }
    return out;
}

}  // namespace KVOAI::kvodnnl
