#pragma once
// dlib's landmark model (a cascade of regression forests), read from dlib's
// own file and laid out flat: the splits of a cascade in one block and the leaf
// vectors of all in another, in the order the forests are walked. dlib keeps every leaf in a
// heap block of its own, and a fit, which reads 7,500 leaves of 544 bytes
// scattered over 65 MB, spent most of its time waiting for memory: this layout,
// with each cascade's leaves asked for before they are added, fits the same
// points in a fifth to a third of the time. The leaves are kept as 16-bit
// multiples of a step of their tree, in half the memory: a fit reads 272
// bytes a leaf and takes another fifth less time, on a cold cache. Its
// points are then dlib's within about a pixel, not to the last digit: a
// thousandth of a pixel of difference moves some feature pixel to its
// neighbour, and a tree may take another leaf from there on.
#include <cstdint>
#include <iosfwd>
#include <vector>

#include <dlib/geometry/rectangle.h>
#include <dlib/geometry/vector.h>
#include <dlib/matrix.h>
#include <opencv2/core/mat.hpp>
#include <opencv2/core/types.hpp>

namespace KVOAI::kvodnnl {

class Predictor {
public:
    // The number of points of the model; 0 before one is read.
    unsigned long num_parts() const { return static_cast<unsigned long>(initial_.size() / 2); }

    // The model's points of the face in `box` of the grey picture `grey`, in
    // picture coordinates, unrounded: what dlib's shape_predictor gives before
    // it rounds them to whole pixels.
    std::vector<cv::Point2d> operator()(const cv::Mat& grey, const dlib::rectangle& box) const;

    // Reads a model as dlib serialises its shape_predictor. Throws
    // dlib::serialization_error for a file that is not one, or one whose
    // forests are not whole trees over its own features.
    friend void deserialize(Predictor& item, std::istream& in);

private:
    struct Split {
        std::uint32_t first;
        std::uint32_t second;
        float threshold;
    };
    struct Cascade {
        std::vector<unsigned long> anchors;          // the nearest model point of each feature pixel
        std::vector<dlib::vector<float, 2>> deltas;  // and the feature pixel's offset from it
        std::vector<Split> splits;                   // splitsPerTree_ of each tree, tree after tree
        std::vector<float> steps;                    // each tree's leaves are whole multiples of its step
        size_t leaves = 0;                           // where its leaves begin in leaves_
    };

    // Adds the leaves of `cascade`'s trees that `features` lead to to
    // `shape`; `chosen` is room for them.
    void walk(const Cascade& cascade, const std::vector<float>& features, float* shape,
              std::vector<const std::int16_t*>& chosen) const;

    dlib::matrix<float, 0, 1> initial_;
    std::vector<Cascade> cascades_;
    // splitsPerTree_ + 1 vectors of initial_.size() a tree, cascade after
    // cascade, in steps of their tree.
    std::vector<std::int16_t> leaves_;
    size_t trees_ = 0;
    size_t splitsPerTree_ = 0;
};

}  // namespace KVOAI::kvodnnl
