// The filter base: per-frame face lists, parameter setting with page fitting,
// and the detection mailbox.

#include <gtest/gtest.h>

#include "filters/BeautyFilterBase.h"
#include "filters/OpenglFaceAreaFilter.h"
#include "filters/OpenglWhiteningFilter.h"
#include "lumen_fx/ImageFilterTypes.h"

namespace {

// A filter that takes the page and channel keys, as the basic image filter does.
class PageFilter : public BeautyFilterBase {
public:
    PageFilter()
    {
        paras_[first_page_width] = 0;
        paras_[first_page_height] = 0;
        paras_[channel_width] = 0;
        paras_[channel_height] = 0;
    }
};

// 98 points; point k at (x0 + k, y0 + 2k).
std::vector<int> makePoints(int x0, int y0)
{
    std::vector<int> pts;
    for (int k = 0; k < 98; ++k) {
        pts.push_back(x0 + k);
        pts.push_back(y0 + 2 * k);
    }
    return pts;
}

FaceDetectResult makeResult(const std::vector<cv::Rect>& rects, bool withPoints = true)
{
    FaceDetectResult r;
    r.faceRects = rects;
    if (withPoints)
        for (size_t i = 0; i < rects.size(); ++i)
            r.keyPoints.push_back(makePoints(1000 * static_cast<int>(i) + 10, 20));
    return r;
}

cv::Rect areaOf(const std::map<std::string, double>& p)
{
    return cv::Rect(static_cast<int>(p.at(face_area_x)), static_cast<int>(p.at(face_area_y)),
                    static_cast<int>(p.at(face_area_width)), static_cast<int>(p.at(face_area_height)));
}

cv::Rect detectOf(const std::map<std::string, double>& p)
{
    return cv::Rect(static_cast<int>(p.at(detect_face_area_x)), static_cast<int>(p.at(detect_face_area_y)),
                    static_cast<int>(p.at(detect_face_area_width)),
                    static_cast<int>(p.at(detect_face_area_height)));
}

}  // namespace

// ---------------------------------------------------------------------------
// updateFaceInfo
// ---------------------------------------------------------------------------

TEST(FilterFaceInfo, OneFaceGivesAreaPointsAndParameters)
{
    OpenglFaceAreaFilter f;
    FaceDetectResult r;
    r.faceRects = {cv::Rect(150, 120, 200, 200)};
    r.keyPoints = {makePoints(150, 120)};
    f.updateFaceInfo(r, 640, 480);

    auto faces = f.faceParas();
    ASSERT_EQ(faces.size(), 1u);
    // Raw box to detect_face_area_*, widened area to face_area_*.
    EXPECT_EQ(detectOf(faces[0]), cv::Rect(150, 120, 200, 200));
    EXPECT_EQ(areaOf(faces[0]), cv::Rect(50, 80, 400, 280));
    // The filter's own parameters travel in each face's map.
    EXPECT_EQ(faces[0].count(smooth_strength), 1u);
    EXPECT_EQ(areaOf(f.paras()), cv::Rect(50, 80, 400, 280));

    auto mouth = f.mouthPoints();
    auto contour = f.contourPoints();
    auto points = f.facePoints();
    ASSERT_EQ(mouth.size(), 1u);
    ASSERT_EQ(contour.size(), 1u);
    ASSERT_EQ(points.size(), 1u);

    // Mouth: points 76 to 95, frame pixels.
    ASSERT_EQ(mouth[0].size(), 40u);
    EXPECT_EQ(mouth[0][0], 150 + 76);
    EXPECT_EQ(mouth[0][1], 120 + 2 * 76);
    EXPECT_EQ(mouth[0][38], 150 + 95);
    EXPECT_EQ(mouth[0][39], 120 + 2 * 95);
    // Contour: points 0 to 32, frame pixels.
    ASSERT_EQ(contour[0].size(), 66u);
    EXPECT_EQ(contour[0][0], 150);
    EXPECT_EQ(contour[0][65], 120 + 2 * 32);
    // All points, relative to the area's origin.
    ASSERT_EQ(points[0].size(), 196u);
    for (int k = 0; k < 98; ++k) {
        EXPECT_EQ(points[0][2 * k], 150 + k - 50) << "point " << k;
        EXPECT_EQ(points[0][2 * k + 1], 120 + 2 * k - 80) << "point " << k;
    }
    EXPECT_TRUE(f.faceRects().empty());
    EXPECT_TRUE(f.faceAngles().empty());
}

TEST(FilterFaceInfo, SecondSightingInsideFirstBoxIsDroppedOnlyWhenStrictlyInside)
{
    OpenglFaceAreaFilter f;
    const cv::Rect first(150, 120, 200, 200);
    // Corner on the first box's left edge, corner on its top edge, strictly
    // inside, and one overlapping only the second.
    f.updateFaceInfo(makeResult({first, cv::Rect(150, 300, 100, 100), cv::Rect(200, 120, 50, 50),
                                 cv::Rect(151, 121, 50, 50), cv::Rect(160, 330, 50, 50)}),
                     640, 480);
    auto faces = f.faceParas();
    ASSERT_EQ(faces.size(), 4u);
    EXPECT_EQ(detectOf(faces[0]), first);
    EXPECT_EQ(detectOf(faces[1]), cv::Rect(150, 300, 100, 100));
    EXPECT_EQ(detectOf(faces[2]), cv::Rect(200, 120, 50, 50));
    // Only the first box is compared against: the fifth lies inside the second.
    EXPECT_EQ(detectOf(faces[3]), cv::Rect(160, 330, 50, 50));

    // The lists stay aligned with the accepted faces, not the result's index:
    // the fourth accepted face carries the result's fifth point list.
    auto points = f.facePoints();
    auto contour = f.contourPoints();
    ASSERT_EQ(points.size(), 4u);
    EXPECT_EQ(contour[3][0], 4 * 1000 + 10);
}

TEST(FilterFaceInfo, BoxesBeyondTheMarginsAreDropped)
{
    OpenglFaceAreaFilter f;
    // Frame 640 x 480: margins -128 and 768 across, -96 and 576 down. Each box
    // is a first box of its own call, so the overlap test doesn't interfere.
    struct Case {
        cv::Rect box;
        bool kept;
    } cases[] = {
        {cv::Rect(-129, 100, 100, 100), false}, {cv::Rect(-128, 100, 100, 100), true},
        {cv::Rect(100, -97, 100, 100), false},  {cv::Rect(100, -96, 100, 100), true},
        {cv::Rect(600, 100, 169, 100), false},  {cv::Rect(600, 100, 168, 100), true},
        {cv::Rect(100, 400, 100, 177), false},  {cv::Rect(100, 400, 100, 176), true},
    };
    for (const Case& c : cases) {
        f.updateFaceInfo(makeResult({c.box}), 640, 480);
        EXPECT_EQ(f.faceParas().size(), c.kept ? 1u : 0u) << c.box;
        EXPECT_EQ(f.facePoints().size(), c.kept ? 1u : 0u) << c.box;
    }
}

TEST(FilterFaceInfo, BoxPartlyOutsideIsClampedBeforeWidening)
{
    OpenglFaceAreaFilter f;
    f.updateFaceInfo(makeResult({cv::Rect(-100, 10, 100, 100)}), 640, 480);
    auto faces = f.faceParas();
    ASSERT_EQ(faces.size(), 1u);
    // The detection keeps the raw box; the area grows from (0, 10, 100, 100).
    EXPECT_EQ(detectOf(faces[0]), cv::Rect(-100, 10, 100, 100));
    EXPECT_EQ(areaOf(faces[0]), cv::Rect(0, 0, 200, 140));

    f.updateFaceInfo(makeResult({cv::Rect(600, 400, 100, 100)}), 640, 480);
    faces = f.faceParas();
    ASSERT_EQ(faces.size(), 1u);
    // Clamped to (600, 400, 40, 80): dx 20, dy 16.
    EXPECT_EQ(areaOf(faces[0]), cv::Rect(580, 384, 60, 96));
}

TEST(FilterFaceInfo, EachClassWidensWithItsOwnRule)
{
    OpenglFaceAreaFilter smooth;
    OpenglWhiteningFilter whitening;
    const FaceDetectResult r = makeResult({cv::Rect(300, 200, 100, 100)});
    smooth.updateFaceInfo(r, 1000, 800);
    whitening.updateFaceInfo(r, 1000, 800);
    ASSERT_EQ(smooth.faceParas().size(), 1u);
    ASSERT_EQ(whitening.faceParas().size(), 1u);
    EXPECT_EQ(areaOf(smooth.faceParas()[0]), cv::Rect(250, 180, 200, 140));
    EXPECT_EQ(areaOf(whitening.faceParas()[0]), cv::Rect(250, 100, 200, 300));
}

TEST(FilterFaceInfo, FaceWithoutKeyPointsGetsEmptyLists)
{
    OpenglFaceAreaFilter f;
    f.updateFaceInfo(makeResult({cv::Rect(100, 100, 100, 100)}, false), 640, 480);
    ASSERT_EQ(f.faceParas().size(), 1u);
    ASSERT_EQ(f.facePoints().size(), 1u);
    EXPECT_TRUE(f.facePoints()[0].empty());
    EXPECT_TRUE(f.mouthPoints()[0].empty());
    EXPECT_TRUE(f.contourPoints()[0].empty());
}

TEST(FilterFaceInfo, EmptyResultEmptiesListsAndKeepsLastArea)
{
    OpenglFaceAreaFilter f;
    f.updateFaceInfo(makeResult({cv::Rect(150, 120, 200, 200)}), 640, 480);
    ASSERT_EQ(f.faceParas().size(), 1u);

    f.updateFaceInfo(FaceDetectResult(), 640, 480);
    EXPECT_TRUE(f.faceParas().empty());
    EXPECT_TRUE(f.mouthPoints().empty());
    EXPECT_TRUE(f.contourPoints().empty());
    EXPECT_TRUE(f.facePoints().empty());
    EXPECT_EQ(areaOf(f.paras()), cv::Rect(50, 80, 400, 280));
    EXPECT_EQ(detectOf(f.paras()), cv::Rect(150, 120, 200, 200));
}

TEST(FilterFaceInfo, UpdateParasAndFaceInfoDoesBoth)
{
    OpenglFaceAreaFilter f;
    f.updateParasAndFaceInfo({{smooth_strength, 70}}, makeResult({cv::Rect(150, 120, 200, 200)}), 640, 480);
    ASSERT_EQ(f.faceParas().size(), 1u);
    EXPECT_EQ(f.faceParas()[0].at(smooth_strength), 70);
}

// ---------------------------------------------------------------------------
// setParas
// ---------------------------------------------------------------------------

TEST(FilterSetParas, OnlyRegisteredKeysAreTaken)
{
    OpenglWhiteningFilter f;
    const auto before = f.paras();
    f.setParas({{"no_such_key", 3}, {smooth_strength, 50}, {whitening_strength, 40}});
    auto after = f.paras();
    EXPECT_EQ(after.size(), before.size());
    EXPECT_EQ(after.count("no_such_key"), 0u);
    EXPECT_EQ(after.count(smooth_strength), 0u);
    EXPECT_EQ(after.at(whitening_strength), 40);
}

TEST(FilterSetParas, PageFitsTheChannelsClassOfResolution)
{
    struct Case {
        double pageW, pageH, chanW, chanH;
        float wantW, wantH;
    } cases[] = {
        {4000, 3000, 1280, 720, 1280, 960},   // landscape 720p
        {4000, 3000, 1920, 1080, 1920, 1440}, // landscape 1080p
        {4000, 3000, 1281, 720, 1920, 1440},  // just above 720p
        {1000, 3000, 720, 1280, 424, 1280},   // portrait: height fitted, width to a multiple of 4
        {1001, 700, 1280, 720, 1000, 700},    // no fit, width still rounded down
        {1000, 6000, 1280, 720, 900, 5400},   // tall page in landscape: height cap
        {8000, 1000, 720, 1280, 5760, 720},   // wide page in portrait: width cap
    };
    for (const Case& c : cases) {
        PageFilter f;
        f.setParas({{first_page_width, c.pageW}, {first_page_height, c.pageH}, {channel_width, c.chanW},
                    {channel_height, c.chanH}});
        EXPECT_EQ(f.firstPageWidth(), c.wantW) << c.pageW << "x" << c.pageH << " in " << c.chanW << "x" << c.chanH;
        EXPECT_EQ(f.firstPageHeight(), c.wantH) << c.pageW << "x" << c.pageH << " in " << c.chanW << "x" << c.chanH;
        EXPECT_EQ(f.paras().at(first_page_width), c.wantW);
        EXPECT_EQ(f.paras().at(first_page_height), c.wantH);
    }
}

TEST(FilterSetParas, PageWithoutChannelSizeIsStoredUnfitted)
{
    PageFilter f;
    f.setParas({{first_page_width, 4000}, {first_page_height, 3000}});
    EXPECT_EQ(f.firstPageWidth(), 4000.0f);
    EXPECT_EQ(f.firstPageHeight(), 3000.0f);
    EXPECT_EQ(f.paras().at(first_page_width), 4000);

    // The channel size counts only in the call that carries it, and then fits
    // the page stored before.
    f.setParas({{channel_width, 1280}, {channel_height, 720}});
    EXPECT_EQ(f.firstPageWidth(), 1280.0f);
    EXPECT_EQ(f.firstPageHeight(), 960.0f);

    PageFilter g;
    g.setParas({{channel_width, 1280}, {channel_height, 720}});
    g.setParas({{first_page_width, 4000}, {first_page_height, 3000}});
    EXPECT_EQ(g.firstPageWidth(), 4000.0f);
}

TEST(FilterSetParas, FilterWithoutPageKeysNeverFits)
{
    OpenglFaceAreaFilter f;
    f.setParas({{first_page_width, 4000}, {first_page_height, 3000}, {channel_width, 1280}, {channel_height, 720}});
    EXPECT_EQ(f.firstPageWidth(), 0.0f);
    EXPECT_EQ(f.paras().count(first_page_width), 0u);
}

TEST(FilterSetParas, FieldsStartAtTheirDefaults)
{
    OpenglFaceAreaFilter f;
    EXPECT_EQ(f.scale(), 1.0f);
    EXPECT_EQ(f.centerXOffset(), 0.5f);
    EXPECT_EQ(f.centerYOffset(), 0.5f);
    EXPECT_EQ(f.channelWidth(), 1280.0f);
    EXPECT_EQ(f.channelHeight(), 720.0f);
    EXPECT_EQ(f.resWidth(), 1280.0f);
    EXPECT_EQ(f.resHeight(), 720.0f);
    EXPECT_EQ(f.rotationZ(), 0.0f);
    EXPECT_EQ(f.isClip(), 0);
    EXPECT_EQ(f.fileType(), 0);
    const StickerInfo info = f.stickerInfo();
    EXPECT_EQ(info.base_x_scale, 0.0f);
    EXPECT_EQ(info.angle_limit, 0.0f);
}

// ---------------------------------------------------------------------------
// Mailbox
// ---------------------------------------------------------------------------

TEST(FilterMailbox, EntryIsReadElevenTimesThenDropped)
{
    OpenglFaceAreaFilter f;
    FaceDetectResult out;
    EXPECT_FALSE(f.takeFaceDetectResult(out));

    FaceDetectResult in = makeResult({cv::Rect(1, 2, 3, 4)});
    in.faceTriplets = {{0.1f, 0.2f, 0.3f}};
    in.faceValueLists = {{0.9f}};
    f.updateFaceDetectResult(in);
    for (int i = 1; i <= 11; ++i) {
        FaceDetectResult got;
        ASSERT_TRUE(f.takeFaceDetectResult(got)) << "read " << i;
        ASSERT_EQ(got.faceRects.size(), 1u);
        EXPECT_EQ(got.faceRects[0], cv::Rect(1, 2, 3, 4));
        EXPECT_EQ(got.keyPoints, in.keyPoints);
        EXPECT_EQ(got.faceTriplets, in.faceTriplets);
        EXPECT_EQ(got.faceValueLists, in.faceValueLists);
    }
    FaceDetectResult untouched = makeResult({cv::Rect(9, 9, 9, 9)});
    EXPECT_FALSE(f.takeFaceDetectResult(untouched));
    EXPECT_EQ(untouched.faceRects[0], cv::Rect(9, 9, 9, 9));
}

TEST(FilterMailbox, NewerResultReplacesOlderAndResetsAge)
{
    OpenglFaceAreaFilter f;
    FaceDetectResult out;
    f.updateFaceDetectResult(makeResult({cv::Rect(1, 1, 1, 1)}));
    for (int i = 0; i < 5; ++i)
        ASSERT_TRUE(f.takeFaceDetectResult(out));
    f.updateFaceDetectResult(makeResult({cv::Rect(2, 2, 2, 2)}));
    f.updateFaceDetectResult(makeResult({cv::Rect(3, 3, 3, 3)}));
    // The newest alone is kept, and it has its full eleven reads.
    for (int i = 0; i < 11; ++i) {
        ASSERT_TRUE(f.takeFaceDetectResult(out)) << "read " << i + 1;
        EXPECT_EQ(out.faceRects[0], cv::Rect(3, 3, 3, 3));
    }
    EXPECT_FALSE(f.takeFaceDetectResult(out));
}

TEST(FilterMailbox, SlotIsReachableThroughTheMetaObject)
{
    OpenglFaceAreaFilter f;
    const FaceDetectResult in = makeResult({cv::Rect(5, 6, 7, 8)});
    ASSERT_TRUE(QMetaObject::invokeMethod(&f, "updateFaceDetectResult", Qt::DirectConnection,
                                          Q_ARG(FaceDetectResult, in)));
    FaceDetectResult out;
    ASSERT_TRUE(f.takeFaceDetectResult(out));
    EXPECT_EQ(out.faceRects[0], cv::Rect(5, 6, 7, 8));
    EXPECT_GE(f.metaObject()->indexOfSignal("finished()"), 0);
}
