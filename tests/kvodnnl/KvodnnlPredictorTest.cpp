// The landmark model laid out flat gives the points of dlib's own
// shape_predictor, and refuses a file whose trees would read past its data.
#include <cmath>
#include <functional>
#include <sstream>
#include <string>

#include <dlib/image_processing/shape_predictor.h>
#include <dlib/opencv/cv_image.h>
#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include "Predictor.h"
#include "TestUtil.h"

namespace {

using namespace KVOAI::kvodnnl;

const char* const kModel = "/usr/share/dlib/shape_predictor_68_face_landmarks.dat";

const dlib::shape_predictor& dlibModel()
{
    static const dlib::shape_predictor* model = [] {
        auto* read = new dlib::shape_predictor;
        dlib::deserialize(kModel) >> *read;
        return read;
    }();
    return *model;
}

const Predictor& flatModel()
{
    static const Predictor* model = [] {
        auto* read = new Predictor;
        dlib::deserialize(kModel) >> *read;
        return read;
    }();
    return *model;
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
    for (const auto& c : cases) {
        const dlib::full_object_detection theirs = dlibModel()(dlib::cv_image<unsigned char>(c.picture), c.box);
        const std::vector<cv::Point2d> ours = flatModel()(c.picture, c.box);
        ASSERT_EQ(ours.size(), theirs.num_parts()) << c.name;
        int fractional = 0;
        for (size_t i = 0; i < ours.size(); ++i) {
            EXPECT_EQ(std::lround(ours[i].x), theirs.part(i).x()) << c.name << ", point " << i;
            EXPECT_EQ(std::lround(ours[i].y), theirs.part(i).y()) << c.name << ", point " << i;
            fractional += std::abs(ours[i].x - std::round(ours[i].x)) > 0.01;
        }
        EXPECT_GT(fractional, 30) << c.name << ": the points should keep their fractions";
    }
}

using Forests = std::vector<std::vector<dlib::impl::regression_tree>>;
using Anchors = std::vector<std::vector<unsigned long>>;

// The pieces of a model as dlib writes them.
struct Pieces {
    int version = 0;
    dlib::matrix<float, 0, 1> initial;
    Forests forests;
    Anchors anchors;
    std::vector<std::vector<dlib::vector<float, 2>>> deltas;
};

// The real model cut to its first cascade of two trees (of 500 features).
Pieces smallModel()
{
    Pieces p;
    dlib::deserialize(kModel) >> p.version >> p.initial >> p.forests >> p.anchors >> p.deltas;
    p.forests.resize(1);
    p.forests[0].resize(2);
    p.anchors.resize(1);
    p.deltas.resize(1);
    return p;
}

std::string written(const Pieces& p)
{
    std::ostringstream out;
    dlib::serialize(p.version, out);
    dlib::serialize(p.initial, out);
    dlib::serialize(p.forests, out);
    dlib::serialize(p.anchors, out);
    dlib::serialize(p.deltas, out);
    return out.str();
}

TEST(KvodnnlPredictor, RefusesAModelThatWouldReadPastItsData)
{
    const Pieces small = smallModel();
    ASSERT_EQ(small.anchors[0].size(), 500u);
    const struct {
        const char* name;
        std::function<void(int&, Forests&, Anchors&)> change;
        bool refused;
    } cases[] = {
        {"unchanged", [](int&, Forests&, Anchors&) {}, false},
        {"another version", [](int& v, Forests&, Anchors&) { v = 2; }, true},
        {"a split beyond the features", [](int&, Forests& f, Anchors&) { f[0][1].splits[3].idx2 = 500; }, true},
        {"a leaf of another size", [](int&, Forests& f, Anchors&) { f[0][0].leaf_values[5].set_size(4); }, true},
        {"a tree with a leaf less", [](int&, Forests& f, Anchors&) { f[0][1].leaf_values.pop_back(); }, true},
        {"a feature beyond the points", [](int&, Forests&, Anchors& a) { a[0][7] = 68; }, true},
        {"no cascade", [](int&, Forests& f, Anchors& a) { f.clear(), a.clear(); }, true},
    };
    for (const auto& c : cases) {
        Pieces changed = small;
        c.change(changed.version, changed.forests, changed.anchors);
        std::istringstream in(written(changed));
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
