// The reductions that the search scans a picture in: where their parts lie in
// the picture, and which pictures share them.
#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include "Reductions.h"
#include "Signature.h"

namespace {

using namespace KVOAI::kvodnnl;

Picture pictureOf(const cv::Mat& grey) { return Picture{grey, signature(grey)}; }

// The centre of the brightness of `grey` above its background.
cv::Point2d brightCentre(const cv::Mat& grey)
{
    cv::Mat lit;
    cv::subtract(grey, cv::Scalar::all(40), lit);
    const cv::Moments m = cv::moments(lit);
    return {m.m10 / m.m00, m.m01 / m.m00};
}

// A square of light in a part of a reduction lies where the part's origin
// and the scale say: at every scale the search uses, by half and less too
// (made from the half), and in parts that begin anywhere. The part covers
// its tile, but for the last reduced pixel at the picture's edge, and no more
// than a reduced pixel round it.
TEST(KvodnnlReductions, PartsLieWhereTheirOriginSays)
{
    cv::Mat grey(720, 1280, CV_8U, cv::Scalar::all(40));
    const cv::Rect square(613, 301, 24, 24);
    grey(square).setTo(220);
    const cv::Point2d centre(square.x + square.width / 2.0, square.y + square.height / 2.0);
    Reductions reductions(pictureOf(grey));
    const cv::Rect tiles[] = {{0, 0, 1280, 720}, {0, 250, 1280, 130}, {37, 211, 650, 197}, {601, 299, 41, 41}};
    for (const double scale : {0.667, 0.6086, 0.5, 0.463, 0.333, 0.268}) {
        for (const cv::Rect& tile : tiles) {
            cv::Point2d origin;
            const cv::Mat part = reductions.part(scale, tile, origin);
            ASSERT_FALSE(part.empty()) << scale << " " << tile;
            const cv::Point2d seen = brightCentre(part);
            for (const bool across : {true, false}) {
                const double at = across ? origin.x : origin.y;
                const double end = at + (across ? part.cols : part.rows) / scale;
                const int first = across ? tile.x : tile.y, last = across ? tile.br().x : tile.br().y;
                // A reduction drops what is left of the picture's last pixels.
                const double dropped = last == (across ? grey.cols : grey.rows) ? 1 / scale : 1e-9;
                EXPECT_NEAR(at + ((across ? seen.x : seen.y) + 0.5) / scale, across ? centre.x : centre.y, 0.75)
                    << scale << " " << tile;
                EXPECT_TRUE(at <= first && at > first - 1 / scale) << scale << " " << tile;
                EXPECT_TRUE(end >= last - dropped && end < last + 1 / scale + 1e-9) << scale << " " << tile;
            }
        }
    }
    // A tile outside the picture, and a sliver that reduces to nothing.
    cv::Point2d origin;
    EXPECT_TRUE(reductions.part(0.5, {1300, 0, 50, 50}, origin).empty());
    Reductions sliver(pictureOf(cv::Mat(1, 1280, CV_8U, cv::Scalar::all(90))));
    EXPECT_TRUE(sliver.part(0.333, {0, 0, 1280, 1}, origin).empty());
}

// Pictures that hardly differ from the one that reductions were made of share
// them, for as many pictures as asked; a changed picture, one of another
// size, or the next after that many, gets reductions of its own.
TEST(KvodnnlReductions, StillPicturesShareThemForAWhile)
{
    cv::Mat grey(360, 640, CV_8U);
    cv::randu(grey, 30, 220);
    cv::Mat noisy = grey.clone();
    noisy(cv::Rect(10, 10, 4, 4)) += 2;  // sensor noise
    cv::Mat changed;
    cv::GaussianBlur(grey, changed, cv::Size(), 4.0);
    changed += 40;

    const std::shared_ptr<Reductions> first = Reductions::forPicture(pictureOf(grey), nullptr, 3);
    std::shared_ptr<Reductions> current = first;
    for (int i = 2; i <= 4; ++i) {
        current = Reductions::forPicture(pictureOf(noisy), current, 3);
        EXPECT_EQ(current == first, i <= 3) << "picture " << i;
    }
    const std::shared_ptr<Reductions> fresh = Reductions::forPicture(pictureOf(grey), nullptr, 100);
    EXPECT_NE(Reductions::forPicture(pictureOf(changed), fresh, 100), fresh);
    EXPECT_NE(Reductions::forPicture(pictureOf(grey(cv::Rect(0, 0, 320, 180)).clone()), fresh, 100), fresh);
    EXPECT_EQ(Reductions::forPicture(pictureOf(noisy), fresh, 100), fresh);
}

}  // namespace
