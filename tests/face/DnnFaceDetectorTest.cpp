// DnnFaceDetector: how the library's records become FaceDetectResult lists.
// The library call is replaced by faces that the test injects.
#include <stdexcept>

#include <gtest/gtest.h>

#include "face/DnnFaceDetector.h"
#include "LogCapture.h"
#include "TestUtil.h"

namespace {

using Face = DnnFaceDetector::Face;

Face makeFace(std::vector<int> box, std::vector<int> triple, int pointBase, std::vector<float> score)
{
    Face f;
    for (int i = 0; i < 196; ++i)
        f.points.push_back(pointBase + i);
    f.box = std::move(box);
    f.triple = std::move(triple);
    f.floatsA = {1.f};
    f.floatsB = {2.f};
    f.floatsC = std::move(score);
    f.valueA = 7.f;
    f.valueB = 8.f;
    return f;
}

class InjectedDetector : public DnnFaceDetector {
public:
    std::vector<Face> faces;
    int libraryCalls = 0;
    cv::Mat frameSeen;

    const std::vector<Face>& seenByProgram() const { return lastFaces; }

protected:
    const std::vector<Face>& runLibrary(const cv::Mat& frame) override
    {
        ++libraryCalls;
        frameSeen = frame.clone();
        return faces;
    }
};

struct Lists {
    std::vector<cv::Rect> rects;
    std::vector<std::vector<int>> points;
    std::vector<std::vector<float>> triplets;
    std::vector<std::vector<float>> values;
};

}  // namespace

TEST(DnnFaceDetector, LibraryRecordsBecomeResultLists)
{
    InjectedDetector d;
    d.faces = {makeFace({10, 20, 110, 220}, {3, -1, 2}, 0, {0.75f}),
               makeFace({-5, 300, 60, 380}, {-10, 20, -30}, 1000, {0.5f, 0.25f})};
    QImage img(64, 48, QImage::Format_RGB32);
    img.fill(Qt::gray);
    FaceDetectResult r;
    EXPECT_TRUE(d.detectFaces(img, r, false));
    EXPECT_EQ(d.libraryCalls, 1);

    ASSERT_EQ(r.faceRects.size(), 2u);
    ASSERT_EQ(r.keyPoints.size(), 2u);
    ASSERT_EQ(r.faceTriplets.size(), 2u);
    ASSERT_EQ(r.faceValueLists.size(), 2u);
    EXPECT_EQ(r.faceRects[0], cv::Rect(10, 20, 100, 200));
    EXPECT_EQ(r.faceRects[1], cv::Rect(-5, 300, 65, 80));  // no clipping here
    EXPECT_EQ(r.keyPoints[0], d.faces[0].points);
    EXPECT_EQ(r.keyPoints[1], d.faces[1].points);
    EXPECT_EQ(r.faceTriplets[0], (std::vector<float>{3.0f, -1.0f, 2.0f}));
    EXPECT_EQ(r.faceTriplets[1], (std::vector<float>{-10.0f, 20.0f, -30.0f}));
    EXPECT_EQ(r.faceValueLists[0], (std::vector<float>{0.75f}));
    EXPECT_EQ(r.faceValueLists[1], (std::vector<float>{0.5f, 0.25f}));

    ASSERT_EQ(d.seenByProgram().size(), 2u);
    EXPECT_EQ(d.seenByProgram()[1].box, d.faces[1].box);
    EXPECT_EQ(d.seenByProgram()[0].valueB, 8.f);
}

TEST(DnnFaceDetector, ListsAreAppendedTo)
{
    InjectedDetector d;
    d.faces = {makeFace({1, 2, 3, 4}, {0, 0, 0}, 0, {})};
    Lists l;
    l.rects.emplace_back(9, 9, 9, 9);
    l.points.push_back({});
    l.triplets.push_back({});
    l.values.push_back({});
    d.runDetector(cv::Mat(4, 4, CV_8UC3, cv::Scalar::all(0)), l.rects, l.points, l.triplets, l.values);
    ASSERT_EQ(l.rects.size(), 2u);
    EXPECT_EQ(l.rects[0], cv::Rect(9, 9, 9, 9));
    EXPECT_EQ(l.rects[1], cv::Rect(1, 2, 2, 2));
    EXPECT_EQ(l.triplets[1].size(), 3u);
}

TEST(DnnFaceDetector, NoFacesLeavesEverythingEmpty)
{
    InjectedDetector d;
    d.faces = {makeFace({1, 2, 3, 4}, {0, 0, 0}, 0, {})};
    Lists l;
    d.runDetector(cv::Mat(4, 4, CV_8UC3, cv::Scalar::all(0)), l.rects, l.points, l.triplets, l.values);
    ASSERT_EQ(d.seenByProgram().size(), 1u);

    d.faces.clear();
    Lists e;
    d.runDetector(cv::Mat(4, 4, CV_8UC3, cv::Scalar::all(0)), e.rects, e.points, e.triplets, e.values);
    EXPECT_TRUE(e.rects.empty());
    EXPECT_TRUE(e.points.empty());
    EXPECT_TRUE(e.triplets.empty());
    EXPECT_TRUE(e.values.empty());
    EXPECT_TRUE(d.seenByProgram().empty());
}

TEST(DnnFaceDetector, EmptyPicturesNeverReachTheLibrary)
{
    InjectedDetector d;
    d.faces = {makeFace({1, 2, 3, 4}, {0, 0, 0}, 0, {})};
    FaceDetectResult r;
    EXPECT_FALSE(d.detectFaces(QImage(), r, false));
    Lists l;
    d.detectImage(QImage(), l.rects, l.points, l.triplets, l.values);
    d.runDetector(cv::Mat(), l.rects, l.points, l.triplets, l.values);
    d.runDetector(cv::Mat(0, 5, CV_8UC3), l.rects, l.points, l.triplets, l.values);
    EXPECT_EQ(d.libraryCalls, 0);
    EXPECT_TRUE(l.rects.empty());

    // A format the converter refuses: its warning, and no library call.
    LogCapture log;
    d.detectImage(QImage(16, 16, QImage::Format_Mono), l.rects, l.points, l.triplets, l.values);
    EXPECT_EQ(d.libraryCalls, 0);
    EXPECT_TRUE(log.contains("Invalid image format"));
}

TEST(DnnFaceDetector, LibrarySeesTheWholePictureRedFirst)
{
    InjectedDetector d;
    QImage img(31, 17, QImage::Format_ARGB32);
    img.fill(QColor(250, 10, 20));
    Lists l;
    d.detectImage(img, l.rects, l.points, l.triplets, l.values);
    ASSERT_EQ(d.libraryCalls, 1);
    ASSERT_EQ(d.frameSeen.size(), cv::Size(31, 17));
    ASSERT_EQ(d.frameSeen.type(), CV_8UC4);
    EXPECT_EQ(d.frameSeen.at<cv::Vec4b>(16, 30), cv::Vec4b(250, 10, 20, 255));
}

TEST(DnnFaceDetector, ShortBoxThrowsSubscriptError)
{
    InjectedDetector d;
    d.faces = {makeFace({1, 2, 3}, {0, 0, 0}, 0, {})};
    Lists l;
    try {
        d.runDetector(cv::Mat(4, 4, CV_8UC3, cv::Scalar::all(0)), l.rects, l.points, l.triplets, l.values);
        FAIL() << "no exception";
    } catch (const std::out_of_range& e) {
        EXPECT_STREQ(e.what(), "invalid vector subscript");
    }
}

TEST(DnnFaceDetector, FindsThePortraitThroughTheLibrary)
{
    DnnFaceDetector d;
    const QImage portrait(testutil::testDataPath("astronaut.png"));
    ASSERT_FALSE(portrait.isNull());
    for (QImage::Format format : {QImage::Format_RGB32, QImage::Format_RGB888, QImage::Format_RGBA8888}) {
        SCOPED_TRACE(format);
        FaceDetectResult r;
        std::vector<cv::Rect> rects;
        std::vector<std::vector<int>> points;
        std::vector<std::vector<float>> triplets, values;
        d.detectImage(portrait.convertToFormat(format), rects, points, triplets, values);
        ASSERT_EQ(rects.size(), 1u);
        ASSERT_EQ(points[0].size(), 196u);
        ASSERT_EQ(triplets[0].size(), 3u);
        ASSERT_EQ(values[0].size(), 1u);
        // Box around the face, eye centres inside it.
        EXPECT_TRUE(rects[0].contains(cv::Point(points[0][192], points[0][193])));
        EXPECT_TRUE(rects[0].contains(cv::Point(points[0][194], points[0][195])));
        EXPECT_NEAR(rects[0].x + rects[0].width / 2, 228, 12);
        EXPECT_NEAR(rects[0].y + rects[0].height / 2, 126, 12);
    }
}
