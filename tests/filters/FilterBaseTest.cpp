// The filter base: the widened face area of each class, the per-frame face
// lists, parameter setting with page fitting, and the detection mailbox.
#include <tuple>

#include <gtest/gtest.h>

#include "filters/BeautyFilterBase.h"
#include "filters/OpenglFaceAreaFilter.h"
#include "filters/OpenglSlimFaceFilter.h"
#include "filters/OpenglSmoothAndWhiteningFilter.h"
#include "filters/OpenglWhiteningFilter.h"
#include "lumen_fx/ImageFilterTypes.h"

namespace {

// 98 points; point k at (x0 + k, y0 + 2k).
std::vector<int> makePoints(int x0, int y0)
{
    std::vector<int> pts;
    for (int k = 0; k < 98; ++k)
        pts.insert(pts.end(), {x0 + k, y0 + 2 * k});
    return pts;
}

// Face i's points start at (1000 i + 10, 20).
FaceDetectResult makeResult(const std::vector<cv::Rect>& rects, bool withPoints = true)
{
    FaceDetectResult r;
    r.faceRects = rects;
    for (size_t i = 0; withPoints && i < rects.size(); ++i)
        r.keyPoints.push_back(makePoints(1000 * static_cast<int>(i) + 10, 20));
    return r;
}

cv::Rect rectOf(const BeautyFilterBase::ParaMap& p, bool detected = false)
{
    auto at = [&](const std::string& area, const std::string& detect) {
        return static_cast<int>(p.at(detected ? detect : area));
    };
    return {at(face_area_x, detect_face_area_x), at(face_area_y, detect_face_area_y),
            at(face_area_width, detect_face_area_width), at(face_area_height, detect_face_area_height)};
}

// A filter that takes the page and channel keys, as the basic image filter does.
class PageFilter : public BeautyFilterBase {
public:
    PageFilter()
    {
        for (const std::string& key : {first_page_width, first_page_height, channel_width, channel_height})
            paras_[key] = 0;
    }
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
    struct Case {
        std::vector<BeautyFilterBase*> filters;
        cv::Rect box, want;
    } cases[] = {
        // The base: dx, dy a tenth of the box; x - dx/2, y - 2 dy, height + 3 dy.
        {{&base}, {100, 200, 200, 100}, {90, 160, 240, 160}},
        {{&base}, {900, 300, 150, 100}, {893, 260, 104, 160}},  // cut right, width to a multiple of 4
        {{&base}, {100, 700, 100, 100}, {95, 660, 120, 140}},   // cut at the bottom
        // Left and top cut: the former x is added to the width, the height
        // grows by 2 dy plus the former y; too wide or high: W or H minus the
        // former x or y.
        {{&base}, {5, 10, 200, 100}, {0, 0, 244, 150}},
        {{&base}, {2, 300, 990, 100}, {0, 260, 996, 160}},
        {{&base}, {100, 5, 100, 790}, {95, 0, 120, 795}},
        {{&base}, {-101, 100, 100, 100}, {-101, 100, 100, 100}},  // beyond the margins: unchanged
        {{&base}, {100, -81, 100, 100}, {100, -81, 100, 100}},
        {{&base}, {1001, 100, 100, 100}, {1001, 100, 100, 100}},
        {{&base}, {100, 781, 100, 100}, {100, 781, 100, 100}},
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
    for (const Case& c : cases)
        for (BeautyFilterBase* f : c.filters)
            EXPECT_EQ(f->expandFaceArea(c.box, 1000, 800), c.want) << f->metaObject()->className() << " " << c.box;
}

TEST(FilterFaceInfo, OneFaceGivesAreaPointsAndParameters)
{
    OpenglFaceAreaFilter f;
    FaceDetectResult r = makeResult({{150, 120, 200, 200}});
    r.keyPoints = {makePoints(150, 120)};
    f.updateFaceInfo(r, 640, 480);
    const auto faces = f.faceParas();
    ASSERT_EQ(faces.size(), 1u);
    EXPECT_EQ(rectOf(faces[0], true), cv::Rect(150, 120, 200, 200)) << "the raw box";
    EXPECT_EQ(rectOf(faces[0]), cv::Rect(50, 80, 400, 280)) << "the widened area";
    EXPECT_EQ(faces[0].count(smooth_strength), 1u) << "the filter's own parameters in each face's map";
    EXPECT_EQ(rectOf(f.paras()), cv::Rect(50, 80, 400, 280));
    ASSERT_EQ(f.mouthPoints().size(), 1u);
    ASSERT_EQ(f.contourPoints().size(), 1u);
    ASSERT_EQ(f.facePoints().size(), 1u);
    // Mouth: points 76 to 95 and contour: points 0 to 32, in frame pixels;
    // all points relative to the area's origin.
    const std::vector<int> all = makePoints(150, 120);
    EXPECT_EQ(f.mouthPoints()[0], std::vector<int>(all.begin() + 152, all.begin() + 192));
    EXPECT_EQ(f.contourPoints()[0], std::vector<int>(all.begin(), all.begin() + 66));
    EXPECT_EQ(f.facePoints()[0], makePoints(150 - 50, 120 - 80));
    EXPECT_TRUE(f.faceRects().empty());
    EXPECT_TRUE(f.faceAngles().empty());

    // A face without key points gets empty lists; an empty result empties
    // them and keeps the last area.
    f.updateFaceInfo(makeResult({{100, 100, 100, 100}}, false), 640, 480);
    ASSERT_EQ(f.facePoints().size(), 1u);
    EXPECT_TRUE(f.facePoints()[0].empty() && f.mouthPoints()[0].empty() && f.contourPoints()[0].empty());
    f.updateFaceInfo(FaceDetectResult(), 640, 480);
    EXPECT_TRUE(f.faceParas().empty() && f.mouthPoints().empty() && f.contourPoints().empty());
    EXPECT_TRUE(f.facePoints().empty());
    EXPECT_EQ(rectOf(f.paras()), cv::Rect(50, 80, 200, 140));
    EXPECT_EQ(rectOf(f.paras(), true), cv::Rect(100, 100, 100, 100));

    f.updateParasAndFaceInfo({{smooth_strength, 70}}, r, 640, 480);
    EXPECT_EQ(f.faceParas().at(0).at(smooth_strength), 70);
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
    for (const auto& c : alone) {
        f.updateFaceInfo(makeResult({c.first}), 640, 480);
        EXPECT_EQ(f.faceParas().size(), c.second ? 1u : 0u) << c.first;
        EXPECT_EQ(f.facePoints().size(), c.second ? 1u : 0u) << c.first;
    }
    // A later box strictly inside the first is dropped; corners on its edges,
    // or inside a later box only, are not.
    const cv::Rect boxes[] = {{150, 120, 200, 200}, {150, 300, 100, 100}, {200, 120, 50, 50}, {151, 121, 50, 50},
                              {160, 330, 50, 50}};
    f.updateFaceInfo(makeResult(std::vector<cv::Rect>(std::begin(boxes), std::end(boxes))), 640, 480);
    const auto faces = f.faceParas();
    ASSERT_EQ(faces.size(), 4u);
    for (int i : {0, 1, 2})
        EXPECT_EQ(rectOf(faces[i], true), boxes[i]);
    EXPECT_EQ(rectOf(faces[3], true), boxes[4]);
    // The lists follow the accepted faces: the fourth has the fifth's points.
    ASSERT_EQ(f.contourPoints().size(), 4u);
    EXPECT_EQ(f.contourPoints()[3][0], 4 * 1000 + 10);

    // Clamped to the frame before widening; each class by its own rule.
    OpenglWhiteningFilter whitening;
    const std::tuple<BeautyFilterBase*, cv::Rect, cv::Rect> widened[] = {
        {&f, {-100, 10, 100, 100}, {0, 0, 200, 140}},
        {&f, {600, 400, 100, 100}, {580, 384, 60, 96}},  // (600, 400, 40, 80): dx 20, dy 16
        {&whitening, {300, 200, 100, 100}, {250, 100, 200, 300}},
    };
    for (const auto& c : widened) {
        std::get<0>(c)->updateFaceInfo(makeResult({std::get<1>(c)}), 640, 480);
        ASSERT_EQ(std::get<0>(c)->faceParas().size(), 1u);
        EXPECT_EQ(rectOf(std::get<0>(c)->faceParas()[0]), std::get<2>(c)) << std::get<1>(c);
        EXPECT_EQ(rectOf(std::get<0>(c)->faceParas()[0], true), std::get<1>(c));
    }
}

TEST(FilterSetParas, RegisteredKeysAndThePageFittedToTheChannel)
{
    OpenglWhiteningFilter whitening;
    const size_t keys = whitening.paras().size();
    whitening.setParas({{"no_such_key", 3}, {smooth_strength, 50}, {whitening_strength, 40}});
    EXPECT_EQ(whitening.paras().size(), keys) << "only registered keys are taken";
    EXPECT_EQ(whitening.paras().count(smooth_strength), 0u);
    EXPECT_EQ(whitening.paras().at(whitening_strength), 40);

    struct Case {
        double pageW, pageH, chanW, chanH;
        float wantW, wantH;
    } cases[] = {
        {4000, 3000, 1280, 720, 1280, 960},    // landscape 720p
        {4000, 3000, 1920, 1080, 1920, 1440},  // landscape 1080p
        {4000, 3000, 1281, 720, 1920, 1440},   // just above 720p
        {1000, 3000, 720, 1280, 424, 1280},    // portrait: height fitted, width to a multiple of 4
        {1001, 700, 1280, 720, 1000, 700},     // no fit, width still rounded down
        {1000, 6000, 1280, 720, 900, 5400},    // tall page in landscape: height cap
        {8000, 1000, 720, 1280, 5760, 720},    // wide page in portrait: width cap
    };
    for (const Case& c : cases) {
        PageFilter f;
        f.setParas({{first_page_width, c.pageW}, {first_page_height, c.pageH}, {channel_width, c.chanW},
                    {channel_height, c.chanH}});
        EXPECT_EQ(cv::Point2f(f.firstPageWidth(), f.firstPageHeight()), cv::Point2f(c.wantW, c.wantH))
            << c.pageW << "x" << c.pageH << " in " << c.chanW << "x" << c.chanH;
        EXPECT_EQ(f.paras().at(first_page_width), c.wantW);
        EXPECT_EQ(f.paras().at(first_page_height), c.wantH);
    }
    // Without a channel size the page is kept as it is; a later call with
    // one fits the page stored before, and counts only in that call.
    PageFilter f;
    f.setParas({{first_page_width, 4000}, {first_page_height, 3000}});
    EXPECT_EQ(f.firstPageWidth(), 4000.0f);
    f.setParas({{channel_width, 1280}, {channel_height, 720}});
    EXPECT_EQ(cv::Point2f(f.firstPageWidth(), f.firstPageHeight()), cv::Point2f(1280, 960));
    f.setParas({{first_page_width, 4000}, {first_page_height, 3000}});
    EXPECT_EQ(f.firstPageWidth(), 4000.0f);
    // The fields that the channel's picture path reads and no parameter sets:
    // their defaults are the behaviour.
    EXPECT_EQ(std::make_tuple(f.centerYOffset(), f.rotationZ(), f.fileType(), f.isClip()),
              std::make_tuple(0.5f, 0.0f, 0, 0));
    // A filter without the page keys never fits.
    OpenglFaceAreaFilter area;
    area.setParas({{first_page_width, 4000}, {first_page_height, 3000}, {channel_width, 1280}, {channel_height, 720}});
    EXPECT_EQ(area.firstPageWidth(), 0.0f);
}

TEST(FilterMailbox, NewestEntryIsReadElevenTimesThenDropped)
{
    OpenglFaceAreaFilter f;
    FaceDetectResult out = makeResult({{9, 9, 9, 9}});
    EXPECT_FALSE(f.takeFaceDetectResult(out));
    FaceDetectResult old = makeResult({{1, 1, 1, 1}});
    f.updateFaceDetectResult(old);
    for (int i = 0; i < 5; ++i)
        ASSERT_TRUE(f.takeFaceDetectResult(out));
    // A newer entry replaces the older and has its full eleven reads; it
    // arrives as a slot too.
    f.updateFaceDetectResult(makeResult({{2, 2, 2, 2}}));
    FaceDetectResult in = makeResult({{3, 3, 3, 3}});
    in.faceTriplets = {{0.1f, 0.2f, 0.3f}};
    in.faceValueLists = {{0.9f}};
    ASSERT_TRUE(QMetaObject::invokeMethod(&f, "updateFaceDetectResult", Qt::DirectConnection,
                                          Q_ARG(FaceDetectResult, in)));
    for (int i = 1; i <= 11; ++i) {
        FaceDetectResult got;
        ASSERT_TRUE(f.takeFaceDetectResult(got)) << "read " << i;
        EXPECT_EQ(got.faceRects, in.faceRects);
        EXPECT_EQ(got.keyPoints, in.keyPoints);
        EXPECT_EQ(got.faceTriplets, in.faceTriplets);
        EXPECT_EQ(got.faceValueLists, in.faceValueLists);
    }
    FaceDetectResult untouched = makeResult({{9, 9, 9, 9}});
    EXPECT_FALSE(f.takeFaceDetectResult(untouched));
    EXPECT_EQ(untouched.faceRects[0], cv::Rect(9, 9, 9, 9));
}
