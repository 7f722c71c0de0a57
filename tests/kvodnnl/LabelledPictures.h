#pragma once
// Labelled pictures made from the bundled portrait, for the face detector's
// recall and false faces: 1280 x 720 pictures with several small copies of
// the portrait's head at known places on varied backgrounds, and pictures
// without anyone in them (textures, the portrait with its head painted over,
// turned copies of the mission patch on its suit). Red-first, 3 channels.
// Also the edits tests make to pictures: moved, and with sensor noise.
#include <cmath>
#include <string>
#include <vector>

#include <opencv2/imgproc.hpp>

namespace labelled {

struct Picture {
    std::string name;
    cv::Mat rgb;
    std::vector<cv::Rect> faces;
};

// The face's box in the portrait, as the detector finds it, and the square of
// head and shoulders round it that is pasted.
const cv::Rect kPortraitFace(181, 79, 93, 93);
const cv::Rect kPortraitHead(120, 20, 220, 220);
const cv::Rect kPortraitPatch(128, 340, 90, 90);

inline cv::Mat background(int kind, const cv::Mat& portrait)
{
    cv::Mat out(720, 1280, CV_8UC3);
    if (kind == 0)
        out.setTo(cv::Scalar::all(120));
    else if (kind == 1)
        cv::RNG(7).fill(out, cv::RNG::NORMAL, cv::Scalar::all(128), cv::Scalar::all(45));
    else if (kind == 2)
        for (int y = 0; y < out.rows; ++y)
            for (int x = 0; x < out.cols; ++x)
                out.at<cv::Vec3b>(y, x) = cv::Vec3b(x * 200 / out.cols + 20, y * 150 / out.rows + 40, 90);
    else  // the suit, flag and patch below the head, enlarged
        cv::resize(portrait(cv::Rect(0, 250, 512, 262)), out, out.size());
    return out;
}

// Pictures with faces `width` pixels wide, five or six a picture, on each of
// four backgrounds.
inline std::vector<Picture> withFaces(const cv::Mat& portrait, const std::vector<int>& widths)
{
    std::vector<Picture> out;
    for (int width : widths)
        for (int kind = 0; kind < 4; ++kind) {
            Picture p{"faces " + std::to_string(width) + " px on background " + std::to_string(kind),
                      background(kind, portrait), {}};
            const double s = width / static_cast<double>(kPortraitFace.width);
            cv::Mat head;
            cv::resize(portrait(kPortraitHead), head, cv::Size(), s, s, cv::INTER_AREA);
            for (int i = 0; i < 6; ++i) {
                const int x = 40 + (i % 3) * 420 + (kind * 37 + i * 53) % 120;
                const int y = 40 + (i / 3) * 340 + (kind * 29 + i * 41) % 90;
                const cv::Rect at(x, y, head.cols, head.rows);
                if ((at & cv::Rect(0, 0, p.rgb.cols, p.rgb.rows)) != at)
                    continue;
                head.copyTo(p.rgb(at));
                p.faces.push_back(cv::Rect(x + cvRound((kPortraitFace.x - kPortraitHead.x) * s),
                                           y + cvRound((kPortraitFace.y - kPortraitHead.y) * s), width, width));
            }
            out.push_back(p);
        }
    return out;
}

// `picture` turned by `degrees` about its centre and scaled by `scale`, with
// its centre put at `at` on `canvas`.
inline void paste(cv::Mat& canvas, const cv::Mat& picture, double degrees, double scale, cv::Point2f at)
{
    cv::Mat m = cv::getRotationMatrix2D(cv::Point2f(picture.cols / 2.f, picture.rows / 2.f), degrees, scale);
    m.at<double>(0, 2) += at.x - picture.cols / 2.0;
    m.at<double>(1, 2) += at.y - picture.rows / 2.0;
    cv::warpAffine(picture, canvas, m, canvas.size(), cv::INTER_LINEAR, cv::BORDER_TRANSPARENT);
}

// Classroom pictures as a camera at the front of a room sees them: three rows
// of heads, faces 30 to 45 pixels wide at the back, 45 to 62 in the middle
// and 62 to 80 in front, each head with its own light (gain and offset), some
// mirrored and some leaning by up to `lean` degrees, over one of the
// backgrounds above or a dim room. The same `seed` gives the same pictures.
inline std::vector<Picture> classroom(const cv::Mat& portrait, int count, int seed, double lean = 8.0)
{
    struct Row { int top, smallest, largest; };
    const Row rows[] = {{20, 30, 45}, {180, 45, 62}, {390, 62, 80}};
    cv::RNG rng(static_cast<uint64_t>(seed));
    cv::Mat mirrored;
    cv::flip(portrait, mirrored, 1);
    std::vector<Picture> out;
    for (int i = 0; i < count; ++i) {
        Picture p{"classroom " + std::to_string(seed) + "." + std::to_string(i), background(i % 4, portrait), {}};
        if (i % 5 == 4)
            p.rgb.convertTo(p.rgb, -1, 0.45, 10);  // a dim room
        for (const Row& row : rows) {
            for (int x = rng.uniform(0, 40); x < 1280;) {
                const int width = rng.uniform(row.smallest, row.largest + 1);
                const double s = width / static_cast<double>(kPortraitFace.width);
                const int side = cvRound(kPortraitHead.width * s);
                if (x + side > 1280)
                    break;
                const bool flip = rng.uniform(0, 2) == 1;
                const double degrees = rng.uniform(-lean, lean);
                const double gain = rng.uniform(0.6, 1.3), offset = rng.uniform(-30.0, 30.0);
                cv::Mat head;
                const cv::Rect source = flip ? cv::Rect(portrait.cols - kPortraitHead.br().x, kPortraitHead.y,
                                                        kPortraitHead.width, kPortraitHead.height)
                                             : kPortraitHead;
                (flip ? mirrored : portrait)(source).convertTo(head, -1, gain, offset);
                const cv::Point2f centre(x + side / 2.f, row.top + rng.uniform(0, 20) + side / 2.f);
                paste(p.rgb, head, degrees, s, centre);
                // The face's centre, turned with the head about the head's centre.
                cv::Point2d face = (cv::Point2d(kPortraitFace.x, kPortraitFace.y) + cv::Point2d(46.5, 46.5))
                    - (cv::Point2d(kPortraitHead.x, kPortraitHead.y) + cv::Point2d(110, 110));
                face.x = flip ? -face.x : face.x;
                const double a = -degrees * CV_PI / 180.0;
                face = cv::Point2d(face.x * std::cos(a) - face.y * std::sin(a),
                                   face.x * std::sin(a) + face.y * std::cos(a))
                    * s;
                p.faces.push_back(cv::Rect(cvRound(centre.x + face.x - width / 2.0),
                                           cvRound(centre.y + face.y - width / 2.0), width, width));
                x += side + rng.uniform(0, 30);
            }
        }
        out.push_back(p);
    }
    return out;
}

inline std::vector<Picture> withoutFaces(const cv::Mat& portrait)
{
    std::vector<Picture> out;
    cv::Mat noise(720, 1280, CV_8UC3), blurred;
    cv::RNG(3).fill(noise, cv::RNG::NORMAL, cv::Scalar::all(128), cv::Scalar::all(50));
    out.push_back({"noise", noise.clone(), {}});
    for (double sigma : {2.0, 6.0}) {
        cv::GaussianBlur(noise, blurred, cv::Size(), sigma);
        cv::normalize(blurred, blurred, 0, 255, cv::NORM_MINMAX);
        out.push_back({"blobs " + std::to_string(sigma), blurred.clone(), {}});
    }
    cv::Mat waves(720, 1280, CV_8UC3), checks(720, 1280, CV_8UC3);
    for (int y = 0; y < 720; ++y)
        for (int x = 0; x < 1280; ++x) {
            waves.at<cv::Vec3b>(y, x) = cv::Vec3b::all(cv::saturate_cast<uchar>(128 + 100 * std::sin(x * 0.05) * std::cos(y * 0.07)));
            checks.at<cv::Vec3b>(y, x) = cv::Vec3b::all(((x / 16 + y / 16) % 2) ? 200 : 60);
        }
    out.push_back({"waves", waves, {}});
    out.push_back({"checks", checks, {}});
    out.push_back({"gradient", background(2, portrait), {}});

    // The portrait with its head painted over by the wall behind it.
    cv::Mat headless = portrait.clone();
    cv::resize(portrait(cv::Rect(300, 0, 60, 60)), headless(cv::Rect(130, 0, 200, 210)), cv::Size(200, 210));
    for (double scale : {0.8, 1.3, 1.9})
        for (int degrees : {0, 20, -20, 90, 180}) {
            Picture p{"headless portrait x" + std::to_string(scale) + " turned " + std::to_string(degrees),
                      cv::Mat(720, 1280, CV_8UC3, cv::Scalar::all(110)), {}};
            paste(p.rgb, headless, degrees, scale, cv::Point2f(640, 360));
            out.push_back(p);
        }
    // The mission patch at seven sizes and three turns a picture, turned in
    // steps of 15 degrees all round.
    const cv::Mat patch = portrait(kPortraitPatch);
    for (int first = 0; first < 360; first += 45) {
        Picture p{"patches turned from " + std::to_string(first), cv::Mat(720, 1280, CV_8UC3, cv::Scalar::all(120)),
                  {}};
        const int sizes[] = {36, 44, 54, 66, 80, 100, 130};
        for (int row = 0; row < 3; ++row)
            for (int col = 0; col < 7; ++col)
                paste(p.rgb, patch, first + 15 * row, sizes[col] / static_cast<double>(patch.cols),
                      cv::Point2f(90 + col * 180, 120 + row * 240));
        out.push_back(p);
    }
    return out;
}

// `picture` moved by `by` in a picture of `size` (its own by default), its
// edges mirrored.
inline cv::Mat shifted(const cv::Mat& picture, cv::Point2d by, cv::Size size = {})
{
    cv::Mat out;
    cv::warpAffine(picture, out, cv::Matx23d(1, 0, by.x, 0, 1, by.y), size.empty() ? picture.size() : size,
                   cv::INTER_LINEAR, cv::BORDER_REFLECT);
    return out;
}

// `picture` with sensor noise of `sigma` grey levels.
inline cv::Mat withNoise(const cv::Mat& picture, double sigma)
{
    cv::Mat noise(picture.size(), CV_16SC(picture.channels())), sum;
    cv::randn(noise, 0, sigma);
    picture.convertTo(sum, CV_16S);
    cv::Mat(sum + noise).convertTo(sum, CV_8U);
    return sum;
}

// Intersection over union.
inline double overlap(const cv::Rect& a, const cv::Rect& b)
{
    const double inter = (a & b).area();
    return inter > 0 ? inter / (a.area() + b.area() - inter) : 0.0;
}

}  // namespace labelled
