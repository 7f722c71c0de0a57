#include "Predictor.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <istream>

#include <sys/mman.h>

#include <dlib/image_processing/shape_predictor.h>
#include <dlib/opencv/cv_image.h>

namespace KVOAI::kvodnnl {

namespace {

// shape += step * leaf, for the model's 136 numbers. Most of a fit is spent
// here; built for AVX2 too, chosen as the processor allows.
__attribute__((target_clones("avx2", "default"))) void addLeaf(float* __restrict shape,
                                                                const std::int16_t* __restrict leaf, float step,
                                                                size_t size)
{
    for (size_t i = 0; i < size; ++i)
        shape[i] += step * static_cast<float>(leaf[i]);
}

// Leaves asked for ahead of the one added, and the bytes a processor reads
// from memory at once.
constexpr size_t kLeavesAhead = 6;
constexpr std::uintptr_t kCacheLine = 64;

// The largest magnitude of a leaf's number, in steps of its tree.
constexpr float kMostSteps = 32767.0f;

// Asks for `bytes` at `data` to be kept in huge pages where the system allows
// it, before they are first written. The leaves fill 33 MB and a fit reads
// 7,500 of them all over it: in pages of 4 KB, most reads look up their page
// too.
void preferHugePages(const void* data, size_t bytes)
{
    constexpr std::uintptr_t huge = std::uintptr_t(2) << 20;
    const std::uintptr_t at = reinterpret_cast<std::uintptr_t>(data);
    const std::uintptr_t begin = (at + huge - 1) & ~(huge - 1);
    const std::uintptr_t end = (at + bytes) & ~(huge - 1);
    if (end > begin)
        madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);
}

void fail(const char* what)
{
    throw dlib::serialization_error(std::string("landmark model: ") + what);
}

// Appends a tree's leaves to `leaves` as whole multiples of a step of its own,
// the step to `steps`. The step is the tree's largest number over 32,767, so
// that each number is kept within a 65,000th of the tree's largest.
void addTree(const std::vector<dlib::matrix<float, 0, 1>>& values, std::vector<std::int16_t>& leaves,
             std::vector<float>& steps)
{
    float largest = 0.0f;
    for (const dlib::matrix<float, 0, 1>& leaf : values)
        largest = std::max(largest, dlib::max(dlib::abs(leaf)));
    const float step = largest > 0.0f ? largest / kMostSteps : 1.0f;
    steps.push_back(step);
    for (const dlib::matrix<float, 0, 1>& leaf : values)
        for (float v : leaf)
            leaves.push_back(static_cast<std::int16_t>(std::lround(v / step)));
}

}  // namespace

void Predictor::walk(const Cascade& cascade, const std::vector<float>& features, float* shape,
                     std::vector<const std::int16_t*>& chosen) const
{
    const size_t size = static_cast<size_t>(initial_.size());
    const Split* splits = cascade.splits.data();
    const std::int16_t* leaves = leaves_.data() + cascade.leaves;
    // The features of a cascade are read before its trees: each tree's leaf
    // is known before any is added. A whole tree: node i's children are
    // 2i+1 (the difference passes the threshold) and 2i+2, and the leaves
    // follow the splits.
    chosen.resize(trees_);
    for (size_t tree = 0; tree < trees_; ++tree, splits += splitsPerTree_) {
        size_t node = 0;
        while (node < splitsPerTree_) {
            const Split& s = splits[node];
            node = features[s.first] - features[s.second] > s.threshold ? 2 * node + 1 : 2 * node + 2;
        }
        chosen[tree] = leaves + (tree * (splitsPerTree_ + 1) + node - splitsPerTree_) * size;
    }
    // Then they are added in the trees' order, each leaf asked of memory a
    // few trees before it is added: the leaves lie all over the model, and
    // read one after the other, a fit spent most of its time waiting for
    // them.
    const size_t bytes = size * sizeof(std::int16_t);
    for (size_t tree = 0; tree < trees_; ++tree) {
        if (tree + kLeavesAhead < trees_) {
            const std::uintptr_t next = reinterpret_cast<std::uintptr_t>(chosen[tree + kLeavesAhead]);
            for (std::uintptr_t line = next & ~(kCacheLine - 1); line < next + bytes; line += kCacheLine)
                __builtin_prefetch(reinterpret_cast<const void*>(line));
        }
        addLeaf(shape, chosen[tree], cascade.steps[tree], size);
    }
}

std::vector<cv::Point2d> Predictor::operator()(const cv::Mat& grey, const dlib::rectangle& box) const
{
    const dlib::cv_image<unsigned char> picture(grey);
    dlib::matrix<float, 0, 1> shape = initial_;
    std::vector<float> features;
    std::vector<const std::int16_t*> chosen;
    for (const Cascade& cascade : cascades_) {
        dlib::impl::extract_feature_pixel_values(picture, box, shape, initial_, cascade.anchors, cascade.deltas,
                                                 features);
        walk(cascade, features, &shape(0), chosen);
    }
    const dlib::point_transform_affine toPicture = dlib::impl::unnormalizing_tform(box);
    std::vector<cv::Point2d> points;
    points.reserve(num_parts());
    for (unsigned long i = 0; i < num_parts(); ++i) {
        const dlib::dpoint p = toPicture(dlib::impl::location(shape, i));
        points.emplace_back(p.x(), p.y());
    }
    return points;
}

void deserialize(Predictor& item, std::istream& in)
{
    int version = 0;
    dlib::matrix<float, 0, 1> initial;
    std::vector<std::vector<dlib::impl::regression_tree>> forests;
    std::vector<std::vector<unsigned long>> anchors;
    std::vector<std::vector<dlib::vector<float, 2>>> deltas;
    dlib::deserialize(version, in);
    if (version != 1)
        fail("unknown version");
    dlib::deserialize(initial, in);
    dlib::deserialize(forests, in);
    dlib::deserialize(anchors, in);
    dlib::deserialize(deltas, in);
    if (initial.size() < 2 || initial.size() % 2 != 0 || forests.empty() || forests[0].empty()
        || anchors.size() != forests.size() || deltas.size() != forests.size())
        fail("no cascades");

    Predictor made;
    made.initial_ = initial;
    made.trees_ = forests[0].size();
    made.splitsPerTree_ = forests[0][0].splits.size();
    const size_t size = static_cast<size_t>(initial.size());
    made.leaves_.reserve(forests.size() * made.trees_ * (made.splitsPerTree_ + 1) * size);
    preferHugePages(made.leaves_.data(), made.leaves_.capacity() * sizeof(std::int16_t));
    for (size_t c = 0; c < forests.size(); ++c) {
        Predictor::Cascade cascade;
        if (forests[c].size() != made.trees_ || anchors[c].size() != deltas[c].size())
            fail("uneven cascades");
        cascade.leaves = made.leaves_.size();
        for (unsigned long anchor : anchors[c])
            if (anchor >= size / 2)
                fail("a feature beyond the points");
        for (const dlib::impl::regression_tree& tree : forests[c]) {
            if (tree.splits.size() != made.splitsPerTree_ || tree.leaf_values.size() != made.splitsPerTree_ + 1)
                fail("uneven trees");
            for (const dlib::impl::split_feature& s : tree.splits) {
                if (s.idx1 >= anchors[c].size() || s.idx2 >= anchors[c].size())
                    fail("a split beyond the features");
                cascade.splits.push_back({static_cast<std::uint32_t>(s.idx1), static_cast<std::uint32_t>(s.idx2),
                                          s.thresh});
            }
            for (const dlib::matrix<float, 0, 1>& leaf : tree.leaf_values)
                if (static_cast<size_t>(leaf.size()) != size)
                    fail("a leaf of another size");
            addTree(tree.leaf_values, made.leaves_, cascade.steps);
        }
        cascade.anchors = std::move(anchors[c]);
        cascade.deltas = std::move(deltas[c]);
        made.cascades_.push_back(std::move(cascade));
    }
    item = std::move(made);
}

}  // namespace KVOAI::kvodnnl
