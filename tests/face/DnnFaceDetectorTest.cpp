// DnnFaceDetector: how the library's records become FaceDetectResult lists.
// The library call is replaced by faces that the test injects, except in the
// last case.
#include <stdexcept>

#include <gtest/gtest.h>

#include "LogCapture.h"
#include "TestUtil.h"
#include "face/DnnFaceDetector.h"

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
    f.floatsC = std::move(score);
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
    std::vector<std::vector<float>> triplets, values;
    void run(InjectedDetector& d, const cv::Mat& frame) { d.runDetector(frame, rects, points, triplets, values); }
    void run(InjectedDetector& d, const QImage& image) { d.detectImage(image, rects, points, triplets, values); }
};

const cv::Mat kFrame(4, 4, CV_8UC3, cv::Scalar::all(0));

}  // namespace

TEST(DnnFaceDetector, LibraryRecordsAreAppendedAsResultLists)
{
    InjectedDetector d;
    d.faces = {makeFace({10, 20, 110, 220}, {3, -1, 2}, 0, {0.75f}),
               makeFace({-5, 300, 60, 380}, {-10, 20, -30}, 1000, {0.5f, 0.25f})};
    Lists l;
    l.rects.emplace_back(9, 9, 9, 9);
    l.points.emplace_back();
    l.triplets.emplace_back();
    l.values.emplace_back();
    l.run(d, kFrame);
    EXPECT_EQ(d.libraryCalls, 1);
    EXPECT_EQ(l.rects, (std::vector<cv::Rect>{{9, 9, 9, 9}, {10, 20, 100, 200}, {-5, 300, 65, 80}}));  // no clipping
    EXPECT_EQ(l.points, (std::vector<std::vector<int>>{{}, d.faces[0].points, d.faces[1].points}));
    EXPECT_EQ(l.triplets, (std::vector<std::vector<float>>{{}, {3, -1, 2}, {-10, 20, -30}}));
    EXPECT_EQ(l.values, (std::vector<std::vector<float>>{{}, {0.75f}, {0.5f, 0.25f}}));
    ASSERT_EQ(d.seenByProgram().size(), 2u);
    EXPECT_EQ(d.seenByProgram()[1].box, d.faces[1].box);
    EXPECT_EQ(d.seenByProgram()[0].valueB, 8.f);

    // Through detectFaces, and then no faces: everything empty again.
    FaceDetectResult r;
    EXPECT_TRUE(d.detectFaces(QImage(64, 48, QImage::Format_RGB32), r, false));
    EXPECT_EQ(r.faceRects.size(), 2u);
    d.faces.clear();
    Lists none;
    none.run(d, kFrame);
    EXPECT_TRUE(none.rects.empty() && none.points.empty() && none.triplets.empty() && none.values.empty());
    EXPECT_TRUE(d.seenByProgram().empty());

    // A box without its fourth number is a subscript error.
    d.faces = {makeFace({1, 2, 3}, {0, 0, 0}, 0, {})};
    try {
        none.run(d, kFrame);
        FAIL() << "no exception";
    } catch (const std::out_of_range& e) {
        EXPECT_STREQ(e.what(), "invalid vector subscript");
    }
}

TEST(DnnFaceDetector, LibrarySeesWholePicturesRedFirstAndNoEmptyOnes)
{
    InjectedDetector d;
    d.faces = {makeFace({1, 2, 3, 4}, {0, 0, 0}, 0, {})};
    Lists l;
    FaceDetectResult r;
    EXPECT_FALSE(d.detectFaces(QImage(), r, false));
    l.run(d, QImage());
    l.run(d, cv::Mat());
    l.run(d, cv::Mat(0, 5, CV_8UC3));
    {
        LogCapture log;  // a format the converter refuses: its warning only
        l.run(d, QImage(16, 16, QImage::Format_Mono));
        EXPECT_TRUE(log.contains("Invalid image format"));
    }
    EXPECT_EQ(d.libraryCalls, 0);
    EXPECT_TRUE(l.rects.empty());

    QImage image(31, 17, QImage::Format_ARGB32);
    image.fill(QColor(250, 10, 20));
    l.run(d, image);
    ASSERT_EQ(d.libraryCalls, 1);
    ASSERT_EQ(d.frameSeen.size(), cv::Size(31, 17));
    ASSERT_EQ(d.frameSeen.type(), CV_8UC4);
    EXPECT_EQ(d.frameSeen.at<cv::Vec4b>(16, 30), cv::Vec4b(250, 10, 20, 255));
}

TEST(DnnFaceDetector, FindsThePortraitThroughTheLibrary)
{
    DnnFaceDetector d;
    const QImage portrait(testutil::testDataPath("astronaut.png"));
    ASSERT_FALSE(portrait.isNull());
    for (QImage::Format format : {QImage::Format_RGB32, QImage::Format_RGB888, QImage::Format_RGBA8888}) {
        SCOPED_TRACE(format);
        std::vector<cv::Rect> rects;
        std::vector<std::vector<int>> points;
        std::vector<std::vector<float>> triplets, values;
        d.detectImage(portrait.convertToFormat(format), rects, points, triplets, values);
        ASSERT_EQ(rects.size(), 1u);
        ASSERT_EQ(points[0].size(), 196u);
        ASSERT_EQ(triplets[0].size(), 3u);
        ASSERT_EQ(values[0].size(), 1u);
        // A box around the face, the eye centres inside it.
        EXPECT_TRUE(rects[0].contains(cv::Point(points[0][192], points[0][193])));
        EXPECT_TRUE(rects[0].contains(cv::Point(points[0][194], points[0][195])));
        EXPECT_NEAR(rects[0].x + rects[0].width / 2, 228, 12);
        EXPECT_NEAR(rects[0].y + rects[0].height / 2, 126, 12);
    }
}
