#include "Predictor.h"

#include <istream>

#include <dlib/image_processing/shape_predictor.h>
#include <dlib/opencv/cv_image.h>

namespace KVOAI::kvodnnl {

namespace {

// shape += leaf, for the model's 136 numbers. Most of a fit is spent here;
// built for AVX2 too, chosen as the processor allows.
__attribute__((target_clones("avx2", "default"))) void addLeaf(float* __restrict shape,
                                                                const float* __restrict leaf, size_t size)
{
    for (size_t i = 0; i < size; ++i)
        shape[i] += leaf[i];
}

void fail(const char* what)
{
    throw dlib::serialization_error(std::string("landmark model: ") + what);
}

}  // namespace

void Predictor::walk(const Cascade& cascade, const std::vector<float>& features, float* shape) const
{
    const size_t size = static_cast<size_t>(initial_.size());
    const Split* splits = cascade.splits.data();
    const float* leaves = cascade.leaves.data();
    for (size_t tree = 0; tree < trees_; ++tree, splits += splitsPerTree_) {
        // A whole tree: node i's children are 2i+1 (the difference passes
        // the threshold) and 2i+2, and the leaves follow the splits.
        size_t node = 0;
        while (node < splitsPerTree_) {
            const Split& s = splits[node];
            node = features[s.first] - features[s.second] > s.threshold ? 2 * node + 1 : 2 * node + 2;
        }
        addLeaf(shape, leaves + (tree * (splitsPerTree_ + 1) + node - splitsPerTree_) * size, size);
    }
}

std::vector<cv::Point2d> Predictor::operator()(const cv::Mat& grey, const dlib::rectangle& box) const
{
    const dlib::cv_image<unsigned char> picture(grey);
    dlib::matrix<float, 0, 1> shape = initial_;
    std::vector<float> features;
    for (const Cascade& cascade : cascades_) {
        dlib::impl::extract_feature_pixel_values(picture, box, shape, initial_, cascade.anchors, cascade.deltas,
                                                 features);
        walk(cascade, features, &shape(0));
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
    for (size_t c = 0; c < forests.size(); ++c) {
        Predictor::Cascade cascade;
        if (forests[c].size() != made.trees_ || anchors[c].size() != deltas[c].size())
            fail("uneven cascades");
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
            for (const dlib::matrix<float, 0, 1>& leaf : tree.leaf_values) {
                if (static_cast<size_t>(leaf.size()) != size)
                    fail("a leaf of another size");
                cascade.leaves.insert(cascade.leaves.end(), leaf.begin(), leaf.end());
            }
        }
        cascade.anchors = std::move(anchors[c]);
        cascade.deltas = std::move(deltas[c]);
        made.cascades_.push_back(std::move(cascade));
    }
    item = std::move(made);
}

}  // namespace KVOAI::kvodnnl
