// The landmark model laid out flat gives the points of dlib's own
// shape_predictor on its leaves as kept, close to those of its own, and refuses a file whose trees would read past its data.
#include <algorithm>
#include <cmath>
#include <functional>
#include <sstream>
#include <string>

#include <dlib/image_processing/shape_predictor.h>
#include <dlib/opencv/cv_image.h>
#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include "Models.h"
#include "Predictor.h"
#include "TestUtil.h"

namespace {

using namespace KVOAI::kvodnnl;


// A model read once for the whole test program.
template <typename Model>
const Model& model()
{
    static const Model* read = [] {
        auto* m = new Model;
        dlib::deserialize(kDefaultModelPath) >> *m;
        return m;
    }();
    return *read;
}

// The pieces of a model as dlib writes them.
struct Pieces {
    int version = 0;
    dlib::matrix<float, 0, 1> initial;
    std::vector<std::vector<dlib::impl::regression_tree>> forests;
    std::vector<std::vector<unsigned long>> anchors;
    std::vector<std::vector<dlib::vector<float, 2>>> deltas;

    std::string written() const
    {
        std::ostringstream out;
        dlib::serialize(version, out);
        dlib::serialize(initial, out);
        dlib::serialize(forests, out);
        dlib::serialize(anchors, out);
        dlib::serialize(deltas, out);
        return out.str();
    }
};

// dlib's model with each tree's leaves rounded to whole multiples of its
// largest number over 32,767, as the flat model keeps them.
const dlib::shape_predictor& steppedModel()
{
    static const dlib::shape_predictor* made = [] {
        Pieces p;
        dlib::deserialize(kDefaultModelPath) >> p.version >> p.initial >> p.forests >> p.anchors >> p.deltas;
        for (auto& forest : p.forests)
            for (dlib::impl::regression_tree& tree : forest) {
                float largest = 0;
                for (const auto& leaf : tree.leaf_values)
                    largest = std::max(largest, dlib::max(dlib::abs(leaf)));
                const float step = largest / 32767.0f;
                for (auto& leaf : tree.leaf_values)
                    for (float& v : leaf)
                        v = static_cast<float>(std::lround(v / step)) * step;
            }
        auto* m = new dlib::shape_predictor;
        std::istringstream in(p.written());
        dlib::deserialize(*m, in);
        return m;
    }();
    return *made;
}

TEST(KvodnnlPredictor, GivesDlibsPointsBeforeTheyAreRounded)
{
    const QImage grey = testutil::portrait(QImage::Format_Grayscale8);
    ASSERT_FALSE(grey.isNull());
    const cv::Mat portrait = cv::Mat(grey.height(), grey.width(), CV_8U, const_cast<uchar*>(grey.constBits()),
                                     static_cast<size_t>(grey.bytesPerLine())).clone();
    const dlib::rectangle face(179, 83, 266, 170);  // where the HOG detector finds the face
    const auto scaled = [&](double f) {
        cv::Mat out;
        cv::resize(portrait, out, cv::Size(), f, f, cv::INTER_AREA);
        return out;
    };
    const auto turned = [&](double degrees) {
        cv::Mat out;
        cv::warpAffine(portrait, out, cv::getRotationMatrix2D(cv::Point2f(222, 126), degrees, 1.0), portrait.size());
        return out;
    };
    const auto scaledBox = [&](double f) {
        return dlib::rectangle(std::lround(179 * f), std::lround(83 * f), std::lround(266 * f), std::lround(170 * f));
    };
    const struct {
        const char* name;
        cv::Mat picture;
        dlib::rectangle box;
    } cases[] = {
        {"the portrait's face", portrait, face},
        {"a box 9 px off", portrait, dlib::translate_rect(face, 9, -6)},
        {"a box reaching past the picture", portrait, dlib::rectangle(-40, -30, 120, 130)},
        {"the face at 45 px", scaled(0.5), scaledBox(0.5)},
        {"the face at 27 px", scaled(0.3), scaledBox(0.3)},
        {"the face turned 20 degrees", turned(20), face},
        {"no face at all", cv::Mat(200, 200, CV_8U, cv::Scalar(90)), dlib::rectangle(50, 50, 149, 149)},
    };
    // The points of the model as kept are those of dlib's on the same leaves,
    // and within a pixel and a half of those of dlib's own leaves.
    for (const auto& c : cases) {
        const dlib::cv_image<unsigned char> picture(c.picture);
        const dlib::full_object_detection stepped = steppedModel()(picture, c.box);
        const dlib::full_object_detection theirs = model<dlib::shape_predictor>()(picture, c.box);
        const std::vector<cv::Point2d> ours = model<Predictor>()(c.picture, c.box);
        ASSERT_EQ(ours.size(), theirs.num_parts()) << c.name;
        int fractional = 0;
        double sum = 0;
        for (size_t i = 0; i < ours.size(); ++i) {
            EXPECT_EQ(std::lround(ours[i].x), stepped.part(i).x()) << c.name << ", point " << i;
            EXPECT_EQ(std::lround(ours[i].y), stepped.part(i).y()) << c.name << ", point " << i;
            const double off = std::hypot(ours[i].x - theirs.part(i).x(), ours[i].y - theirs.part(i).y());
            EXPECT_LT(off, 1.5) << c.name << ", point " << i;
            sum += off;
            fractional += std::abs(ours[i].x - std::round(ours[i].x)) > 0.01;
        }
        EXPECT_LT(sum / ours.size(), 0.6) << c.name;
        EXPECT_GT(fractional, 30) << c.name << ": the points should keep their fractions";
    }
}

TEST(KvodnnlPredictor, RefusesAModelThatWouldReadPastItsData)
{
    // The real model cut to its first cascade of two trees (of 500 features).
    Pieces small;
    dlib::deserialize(kDefaultModelPath) >> small.version >> small.initial >> small.forests >> small.anchors >> small.deltas;
    small.forests.resize(1);
    small.forests[0].resize(2);
    small.anchors.resize(1);
    small.deltas.resize(1);
    ASSERT_EQ(small.anchors[0].size(), 500u);
    const struct {
        const char* name;
        std::function<void(Pieces&)> change;
        bool refused;
    } cases[] = {
        {"unchanged", [](Pieces&) {}, false},
        {"another version", [](Pieces& p) { p.version = 2; }, true},
        {"a split beyond the features", [](Pieces& p) { p.forests[0][1].splits[3].idx2 = 500; }, true},
        {"a leaf of another size", [](Pieces& p) { p.forests[0][0].leaf_values[5].set_size(4); }, true},
        {"a tree with a leaf less", [](Pieces& p) { p.forests[0][1].leaf_values.pop_back(); }, true},
        {"a feature beyond the points", [](Pieces& p) { p.anchors[0][7] = 68; }, true},
        {"no cascade", [](Pieces& p) { p.forests.clear(), p.anchors.clear(); }, true},
    };
    for (const auto& c : cases) {
        Pieces changed = small;
        c.change(changed);
        std::istringstream in(changed.written());
        Predictor model;
        bool refused = false;
        try {
            deserialize(model, in);
        } catch (const dlib::serialization_error&) {
            refused = true;
        }
        EXPECT_EQ(refused, c.refused) << c.name;
        EXPECT_EQ(model.num_parts(), c.refused ? 0u : 68u) << c.name;
    }
}

}  // namespace
