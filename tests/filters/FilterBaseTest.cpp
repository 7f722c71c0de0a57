// The filter classes: the widened face area of each, the per-frame face
// lists, parameter setting and what the factory makes; and, on code paths
// that no pass calls yet, one check each: the page fit and the CPU `filter`
// routines on cv::Mat.
#include <array>
#include <memory>

#include <QPointer>
#include <gtest/gtest.h>

#include "LogCapture.h"
#include "filters/OpenglBasicImageFilter.h"
#include "filters/OpenglFaceAreaFilter.h"
#include "filters/OpenglSlimFaceFilter.h"
#include "filters/OpenglSmoothAndWhiteningFilter.h"
#include "filters/OpenglWhiteningFilter.h"
#include "lumen_fx/ImageFilterTypes.h"


namespace {


// A face per box; face i has 98 points, point k at (x0 + 1000 i + k, y0 + 2k).
FaceDetectResult makeResult(const std::vector<cv::Rect>& rects, bool withPoints = true, int x0 = 10, int y0 = 20)
{
    FaceDetectResult r;
    r.faceRects = rects;
    for (int i = 0; withPoints && i < static_cast<int>(rects.size()); ++i) {
        r.keyPoints.emplace_back();
        for (int k = 0; k < 98; ++k)
            r.keyPoints.back().insert(r.keyPoints.back().end(), {x0 + 1000 * i + k, y0 + 2 * k});
    }
    return r;
}

// The widened area of a face's parameters, or the box as detected.
cv::Rect rectOf(const BeautyFilterBase::ParaMap& p, bool detected = false)
{
    auto at = [&](const std::string& area, const std::string& box) { return int(p.at(detected ? box : area)); };
    return {at(face_area_x, detect_face_area_x), at(face_area_y, detect_face_area_y),
            at(face_area_width, detect_face_area_width), at(face_area_height, detect_face_area_height)};
}

// Stands in for a GPU worker on the CPU path: counts the pictures it is given.
class RecordingRenderer : public QObject {
    Q_OBJECT
public:
    Q_INVOKABLE bool doPreWork(uchar*, int, int) { return ++calls > 0; }
    int calls = 0;
};

// How many faces each of a filter's lists holds: parameters, mouth, contour and all points.
std::vector<size_t> listSizes(BeautyFilterBase& f)
{
    return {f.faceParas().size(), f.mouthPoints().size(), f.contourPoints().size(), f.facePoints().size()};
}

template <class Filter>
struct WithRenderer : Filter {
    explicit WithRenderer(QObject* r) { this->renderer = r; }
};

}  // namespace


TEST(ExpandFaceArea, EachClassWithItsOwnRule)
{
    BeautyFilterBase base;
    OpenglFaceAreaFilter area;
    OpenglSlimFaceFilter slim;
    OpenglWhiteningFilter whitening;
    OpenglSmoothAndWhiteningFilter both;
    // Frame 1000 x 800 throughout.
    const std::tuple<std::vector<BeautyFilterBase*>, cv::Rect, cv::Rect> cases[] = {
        // The base's own rule, which no filter of a pass uses: dx, dy a tenth
        // of the box; x - dx/2, y - 2 dy, height + 3 dy; cut at the left and
        // top, the former x is added to the width, the height grows by 2 dy
        // plus the former y.
        {{&base}, {100, 200, 200, 100}, {90, 160, 240, 160}},
        {{&base}, {5, 10, 200, 100}, {0, 0, 244, 150}},
        // Face area and slim face: one rule.
        {{&area, &slim}, {100, 200, 200, 100}, {0, 180, 400, 140}},
        {{&area, &slim}, {300, 300, 101, 50}, {250, 290, 200, 70}},  // width 201 -> 200
        {{&area, &slim}, {900, 700, 100, 100}, {850, 680, 148, 120}},
        {{&area, &slim}, {-201, 100, 100, 100}, {-201, 100, 100, 100}},  // beyond -0.2 W
        {{&area, &slim}, {100, 861, 100, 100}, {100, 861, 100, 100}},    // beyond 1.2 H
        {{&area, &slim}, {-200, 100, 100, 100}, {0, 80, 200, 140}},      // on the margin: widened
        // Whitening grows by the full height; the two whitening classes
        // refuse boxes near the top, the smooth one below 10 %.
        {{&whitening}, {300, 300, 101, 50}, {250, 250, 200, 150}},
        {{&whitening}, {-301, 300, 100, 100}, {-301, 300, 100, 100}},
        {{&whitening}, {-290, 300, 100, 100}, {0, 200, 200, 300}},
        {{&whitening}, {1201, 300, 100, 100}, {1201, 300, 100, 100}},
        {{&whitening}, {300, 40, 100, 100}, {250, 0, 200, 300}},
        {{&both}, {300, 40, 100, 100}, {300, 40, 100, 100}},
        {{&whitening, &both}, {300, 7, 100, 100}, {300, 7, 100, 100}},
        {{&whitening, &both}, {300, 150, 100, 100}, {250, 50, 200, 300}},
    };
    for (const auto& [filters, box, want] : cases)
        for (BeautyFilterBase* f : filters)
            EXPECT_EQ(f->expandFaceArea(box, 1000, 800), want) << f->metaObject()->className() << " " << box;
}

TEST(FilterFaceInfo, OneFaceGivesAreaPointsAndParameters)
{
    OpenglFaceAreaFilter f;
    f.setParas({{smooth_strength, 70}});
    const FaceDetectResult r = makeResult({{150, 120, 200, 200}}, true, 150, 120);
    f.updateFaceInfo(r, 640, 480);
    ASSERT_EQ(listSizes(f), std::vector<size_t>(4, 1));
    EXPECT_EQ(rectOf(f.faceParas()[0], true), cv::Rect(150, 120, 200, 200)) << "the raw box";
    EXPECT_EQ(rectOf(f.faceParas()[0]), cv::Rect(50, 80, 400, 280)) << "the widened area";
    EXPECT_EQ(f.faceParas()[0].at(smooth_strength), 70) << "the filter's own parameters in each face's map";
    // Mouth: points 76 to 95 and contour: points 0 to 32, in frame pixels;
    // all points relative to the area's origin.
    const std::vector<int>& all = r.keyPoints[0];
    EXPECT_EQ(f.mouthPoints()[0], std::vector<int>(all.begin() + 152, all.begin() + 192));
    EXPECT_EQ(f.contourPoints()[0], std::vector<int>(all.begin(), all.begin() + 66));
    EXPECT_EQ(f.facePoints()[0], makeResult({{}}, true, 150 - 50, 120 - 80).keyPoints[0]);
    // A face without key points gets empty lists; an empty result empties
    // them and keeps the last area.
    f.updateFaceInfo(makeResult({{100, 100, 100, 100}}, false), 640, 480);
    ASSERT_EQ(listSizes(f), std::vector<size_t>(4, 1));
    EXPECT_EQ(f.facePoints()[0].size() + f.mouthPoints()[0].size() + f.contourPoints()[0].size(), 0u);
    f.updateFaceInfo(FaceDetectResult(), 640, 480);
    EXPECT_EQ(listSizes(f), std::vector<size_t>(4, 0));
    EXPECT_EQ(rectOf(f.paras()), cv::Rect(50, 80, 200, 140));
    EXPECT_EQ(rectOf(f.paras(), true), cv::Rect(100, 100, 100, 100));
}

TEST(FilterFaceInfo, WhichFacesAreAccepted)
{
    OpenglFaceAreaFilter f;
    // Frame 640 x 480: margins -128 and 768 across, -96 and 576 down.
    const std::pair<cv::Rect, bool> alone[] = {
        {{-129, 100, 100, 100}, false}, {{-128, 100, 100, 100}, true}, {{100, -97, 100, 100}, false},
        {{100, -96, 100, 100}, true},   {{600, 100, 169, 100}, false}, {{600, 100, 168, 100}, true},
        {{100, 400, 100, 177}, false},  {{100, 400, 100, 176}, true},
    };
    for (const auto& [box, accepted] : alone) {
        f.updateFaceInfo(makeResult({box}), 640, 480);
        EXPECT_EQ(listSizes(f), std::vector<size_t>(4, accepted)) << box;
    }
    // A later box strictly inside the first is dropped; corners on its edges,
    // or inside a later box only, are not. The lists follow the accepted
    // faces: the fourth has the fifth's points.
    const std::vector<cv::Rect> boxes = {
        {150, 120, 200, 200}, {150, 300, 100, 100}, {200, 120, 50, 50}, {151, 121, 50, 50}, {160, 330, 50, 50}};
    f.updateFaceInfo(makeResult(boxes), 640, 480);
    ASSERT_EQ(listSizes(f), std::vector<size_t>(4, 4));
    for (int i : {0, 1, 2, 3})
        EXPECT_EQ(rectOf(f.faceParas()[i], true), boxes[i < 3 ? i : 4]);
    EXPECT_EQ(f.contourPoints()[3][0], 4 * 1000 + 10);
    // Clamped to the frame before widening; each class by its own rule.
    OpenglWhiteningFilter whitening;
    const std::tuple<BeautyFilterBase*, cv::Rect, cv::Rect> widened[] = {
        {&f, {-100, 10, 100, 100}, {0, 0, 200, 140}},
        {&f, {600, 400, 100, 100}, {580, 384, 60, 96}},  // (600, 400, 40, 80): dx 20, dy 16
        {&whitening, {300, 200, 100, 100}, {250, 100, 200, 300}},
    };
    for (const auto& [filter, box, want] : widened) {
        filter->updateFaceInfo(makeResult({box}), 640, 480);
        ASSERT_EQ(filter->faceParas().size(), 1u);
        EXPECT_EQ(rectOf(filter->faceParas()[0]), want) << box;
        EXPECT_EQ(rectOf(filter->faceParas()[0], true), box);
    }
}

// Only registered keys are taken. A filter with the page and channel keys
// fits the page to the channel's class of resolution, in the call that
// carries the channel size.
TEST(FilterSetParas, RegisteredKeysAndThePageFittedToTheChannel)
{
    OpenglWhiteningFilter whitening;
    const size_t keys = whitening.paras().size();
    whitening.setParas({{"no_such_key", 3}, {smooth_strength, 50}, {whitening_strength, 40}});
    EXPECT_EQ(whitening.paras().size(), keys) << "unknown keys are not taken";
    EXPECT_EQ(whitening.paras().count(smooth_strength), 0u) << "nor another filter's";
    EXPECT_EQ(whitening.paras().at(whitening_strength), 40);
    const std::array<float, 6> cases[] = {
        {4000, 3000, 1280, 720, 1280, 960},  // landscape 720p
        {4000, 3000, 1281, 720, 1920, 1440},  // just above 720p
        {1000, 3000, 720, 1280, 424, 1280},   // portrait: height fitted, width to a multiple of 4
        {1000, 6000, 1280, 720, 900, 5400},   // tall page in landscape: height cap
    };
    for (const auto& [pageW, pageH, chanW, chanH, wantW, wantH] : cases) {
        OpenglBasicImageFilter f;
        f.setParas({{first_page_width, pageW}, {first_page_height, pageH}});
        f.setParas({{channel_width, chanW}, {channel_height, chanH}});
        EXPECT_EQ(cv::Point2f(f.firstPageWidth(), f.firstPageHeight()), cv::Point2f(wantW, wantH)) << pageW;
        EXPECT_EQ(f.paras().at(first_page_width), wantW);
    }
}

// A routine marks the widened area of the last face inside the picture and
// hands the picture to its renderer; the slim face without one copies it out.
TEST(FilterCpuRoutine, MarksTheFaceAreaAndHandsThePictureOn)
{
    cv::Mat noise(120, 160, CV_8UC4), dst;
    cv::randu(noise, 0, 256);
    QPointer<RecordingRenderer> renderer = new RecordingRenderer();
    {
        WithRenderer<OpenglSlimFaceFilter> slim(renderer);
        slim.filter(noise, dst, {{slim_face_strength, 80}}, makeResult({{10, 10, 20, 20}, {150, 10, 20, 20}}));
        EXPECT_EQ(slim.paras().at(slim_face_strength), 80);
        EXPECT_EQ(rectOf(slim.paras()), cv::Rect(0, 6, 40, 28));
        EXPECT_EQ(renderer->calls, 1);
        EXPECT_TRUE(dst.empty());
    }
    EXPECT_TRUE(renderer.isNull()) << "the filter owns its renderer";
    // A renderer without a picture entry is reported.
    LogCapture log;
    WithRenderer<OpenglWhiteningFilter>(new QObject()).filter(noise, dst, FaceDetectResult());
    EXPECT_TRUE(log.contains("[OpenglWhiteningFilter::filter]", QtWarningMsg));
    // The basic image class cuts the width to a multiple of 4; narrower than 4 stays.
    OpenglBasicImageFilter basic;
    for (auto [width, want] : {std::pair(13, 12), std::pair(3, 3)}) {
        cv::Mat in(5, width, CV_8UC3, cv::Scalar::all(9));
        basic.filter(in, dst, FaceDetectResult());
        ASSERT_EQ(dst.cols, want) << width;
        ASSERT_EQ(dst.rows, 5) << width;
        EXPECT_EQ(dst.at<cv::Vec3b>(4, want - 1)[0], 9) << width;
    }
}

#include "FilterBaseTest.moc"
