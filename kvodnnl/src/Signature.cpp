#include "Signature.h"

#include <algorithm>
#include <cmath>

#include <opencv2/imgproc.hpp>

#include "Tuning.h"

namespace KVOAI::kvodnnl {

cv::Mat signature(const cv::Mat& picture)
{
    cv::Mat thumb(kThumbSide, kThumbSide, CV_32F);
    for (int gy = 0; gy < kThumbSide; ++gy) {
        const int cy = std::max(0, std::min(picture.rows - kPatch, (2 * gy + 1) * picture.rows / (2 * kThumbSide)));
        for (int gx = 0; gx < kThumbSide; ++gx) {
            const int cx = std::max(0, std::min(picture.cols - kPatch, (2 * gx + 1) * picture.cols / (2 * kThumbSide)));
            int sum = 0, count = 0;
            for (int y = cy; y < cy + kPatch && y < picture.rows; ++y) {
                const uchar* row = picture.ptr<uchar>(y);
                for (int x = cx; x < cx + kPatch && x < picture.cols; ++x, ++count)
                    sum += row[x];
            }
            thumb.at<float>(gy, gx) = count ? static_cast<float>(sum) / count : 0.f;
        }
    }
    return thumb;
}

double difference(const Picture& a, const Picture& b)
{
    if (a.grey.size() != b.grey.size())
        return 1e9;
    return cv::norm(a.thumb, b.thumb, cv::NORM_L1) / (kThumbSide * kThumbSide);
}

Change pictureChange(const Picture& a, const Picture& b)
{
    if (difference(a, b) > kChangeThreshold)
        return Change::Whole;
    cv::Mat changed;
    cv::absdiff(a.thumb, b.thumb, changed);
    return cv::countNonZero(changed > kChangedPatch) >= kChangedPatches ? Change::Local : Change::None;
}

namespace {

// How far the content of `a` lies moved in `b`, by phase correlation with a
// Hanning window, and how sure the correlation is of it (its peak, 0 to 1).
cv::Point2d shiftBetween(const cv::Mat& a, const cv::Mat& b, double& response)
{
    cv::Mat window;
    cv::createHanningWindow(window, a.size(), CV_32F);
    // OpenCV 4.6 multiplies the pictures it correlates by the window in
    // place: it gets copies.
    return cv::phaseCorrelate(a.clone(), b.clone(), window, &response);
}

// Where the camera's move from `a` to `b` takes each point of `a`, as a
// shift, a zoom and a turn about the picture's centre: the shift of the
// whole first, and then what is left of the move from the shifts of nine
// overlapping parts, fitted by least squares (parts too plain to correlate
// left out). Only the shift when the parts tell nothing.
cv::Matx23d cameraMove(const cv::Mat& a, const cv::Mat& b)
{
    double response = 0;
    const cv::Point2d whole = shiftBetween(a, b, response);
    cv::Mat back;
    cv::warpAffine(b, back, cv::Matx23d(1, 0, -whole.x, 0, 1, -whole.y), b.size(), cv::INTER_LINEAR,
                   cv::BORDER_REPLICATE);
    const cv::Point2d centre((a.cols - 1) / 2.0, (a.rows - 1) / 2.0);
    const cv::Size part(a.cols / 2, a.rows / 2);
    cv::Mat lhs(0, 4, CV_64F), rhs(0, 1, CV_64F);
    for (int py = 0; py < 3; ++py) {
        for (int px = 0; px < 3; ++px) {
            const cv::Rect r(px * a.cols / 4, py * a.rows / 4, part.width, part.height);
            const cv::Point2d d = shiftBetween(a(r), back(r), response);
            if (response < kMovedPartResponse)
                continue;
            const double ux = r.x + (r.width - 1) / 2.0 - centre.x, uy = r.y + (r.height - 1) / 2.0 - centre.y;
            // d = [zoom-1, -turn; turn, zoom-1] u + shift
            lhs.push_back(cv::Mat(cv::Matx14d(ux, -uy, 1, 0)));
            rhs.push_back(d.x);
            lhs.push_back(cv::Mat(cv::Matx14d(uy, ux, 0, 1)));
            rhs.push_back(d.y);
        }
    }
    double alpha = 0, beta = 0, tx = 0, ty = 0;
    if (lhs.rows >= 6) {
        cv::Mat x;
        cv::solve(lhs, rhs, x, cv::DECOMP_SVD);
        alpha = x.at<double>(0);
        beta = x.at<double>(1);
        tx = x.at<double>(2);
        ty = x.at<double>(3);
    }
    // q = (I + [alpha, -beta; beta, alpha]) (p - centre) + centre + shift
    const double m00 = 1 + alpha, m01 = -beta, m10 = beta, m11 = 1 + alpha;
    return cv::Matx23d(m00, m01, centre.x - m00 * centre.x - m01 * centre.y + tx + whole.x,
                       m10, m11, centre.y - m10 * centre.x - m11 * centre.y + ty + whole.y);
}

}  // namespace

bool movedAsAWhole(const cv::Mat& before, const cv::Mat& after)
{
    if (before.empty() || before.size() != after.size())
        return false;
    const double scale = std::min(1.0, kMovedSide / std::max(before.cols, before.rows));
    cv::Mat a, b;
    cv::resize(before, a, cv::Size(), scale, scale, cv::INTER_AREA);
    cv::resize(after, b, cv::Size(), scale, scale, cv::INTER_AREA);
    if (a.cols < kPatchSide || a.rows < kPatchSide)
        return false;
    a.convertTo(a, CV_32F);
    b.convertTo(b, CV_32F);
    const cv::Matx23d move = cameraMove(a, b);
    // A camera zooms and turns little between two pictures.
    const double zoom = std::hypot(move(0, 0), move(1, 0));
    if (std::abs(zoom - 1) > kMovedZoom || std::abs(std::atan2(move(1, 0), move(0, 0))) > kMovedTurn * CV_PI / 180)
        return false;
    // Only the part that both show counts, less a pixel for the
    // interpolation: as far in from each edge as the move takes the corners.
    double reachX = 0, reachY = 0;
    for (const cv::Point2d corner : {cv::Point2d(0, 0), cv::Point2d(a.cols - 1, 0), cv::Point2d(0, a.rows - 1),
                                     cv::Point2d(a.cols - 1, a.rows - 1)}) {
        const cv::Point2d q(move(0, 0) * corner.x + move(0, 1) * corner.y + move(0, 2),
                            move(1, 0) * corner.x + move(1, 1) * corner.y + move(1, 2));
        reachX = std::max(reachX, std::abs(q.x - corner.x));
        reachY = std::max(reachY, std::abs(q.y - corner.y));
    }
    const int marginX = static_cast<int>(std::ceil(reachX)) + 1;
    const int marginY = static_cast<int>(std::ceil(reachY)) + 1;
    if (4 * marginX > a.cols || 4 * marginY > a.rows)
        return false;
    cv::Mat back, diff;
    cv::warpAffine(b, back, move, b.size(), cv::INTER_LINEAR | cv::WARP_INVERSE_MAP);
    const cv::Rect both(marginX, marginY, a.cols - 2 * marginX, a.rows - 2 * marginY);
    // Compared a little blurred: what a fraction of a pixel left of the move
    // makes of sharp edges is not a change of the view.
    cv::Mat softA, softBack;
    cv::GaussianBlur(a, softA, cv::Size(), kMovedBlur);
    cv::GaussianBlur(back, softBack, cv::Size(), kMovedBlur);
    cv::absdiff(softA(both), softBack(both), diff);
    // Every part must match: a view that changed in a quarter of it can
    // match well on the mean.
    for (int y = 0; y < kMovedParts; ++y) {
        for (int x = 0; x < kMovedParts; ++x) {
            const cv::Rect part(x * diff.cols / kMovedParts, y * diff.rows / kMovedParts, diff.cols / kMovedParts,
                                diff.rows / kMovedParts);
            if (cv::mean(diff(part))[0] > kMovedPicture)
                return false;
        }
    }
    return true;
}

bool changedOnlyRound(const Picture& a, const Picture& b, const std::vector<dlib::rectangle>& faces)
{
    if (a.grey.size() != b.grey.size() || a.thumb.size() != b.thumb.size())
        return false;
    const double cellW = static_cast<double>(a.grey.cols) / kThumbSide;
    const double cellH = static_cast<double>(a.grey.rows) / kThumbSide;
    double sum = 0;
    int cells = 0;
    for (int gy = 0; gy < kThumbSide; ++gy) {
        for (int gx = 0; gx < kThumbSide; ++gx) {
            const double x = (gx + 0.5) * cellW, y = (gy + 0.5) * cellH;
            const bool nearFace = std::any_of(faces.begin(), faces.end(), [&](const dlib::rectangle& f) {
                const double w = static_cast<double>(f.width()), h = static_cast<double>(f.height());
                return x >= f.left() - w && x <= f.right() + w && y >= f.top() - h && y <= f.bottom() + h;
            });
            if (nearFace)
                continue;
            sum += std::abs(a.thumb.at<float>(gy, gx) - b.thumb.at<float>(gy, gx));
            ++cells;
        }
    }
    return 4 * cells >= kThumbSide * kThumbSide && sum / cells <= kChangeThreshold;
}

Change sceneChange(Change change, const Picture& before, const Picture& after,
                   const std::vector<dlib::rectangle>& followed, bool lost)
{
    if (change != Change::Whole || lost)
        return change;
    const bool sameScene
        = (!followed.empty() && changedOnlyRound(before, after, followed)) || movedAsAWhole(before.grey, after.grey);
    return sameScene ? Change::Local : Change::Whole;
}

cv::Mat patchOf(const cv::Mat& picture, const dlib::rectangle& box)
{
    const cv::Rect inside = cv::Rect(static_cast<int>(box.left()), static_cast<int>(box.top()),
                                     static_cast<int>(box.width()), static_cast<int>(box.height()))
        & cv::Rect(0, 0, picture.cols, picture.rows);
    cv::Mat patch;
    if (inside.width >= kPatchSide && inside.height >= kPatchSide)
        cv::resize(picture(inside), patch, cv::Size(kPatchSide, kPatchSide), 0, 0, cv::INTER_AREA);
    return patch;
}

cv::Point2d motion(const cv::Mat& before, const cv::Mat& after, const dlib::rectangle& box)
{
    const double w = static_cast<double>(box.width());
    const double h = static_cast<double>(box.height());
    const cv::Rect region = cv::Rect(cvRound(box.left() - w / 4), cvRound(box.top() - h / 4), cvRound(w * 1.5),
                                     cvRound(h * 1.5))
        & cv::Rect(0, 0, before.cols, before.rows);
    if (before.size() != after.size() || region.width < kPatchSide || region.height < kPatchSide)
        return {};
    const double scale = std::min(1.0, kMotionSide / std::max(region.width, region.height));
    cv::Mat a, b;
    cv::resize(before(region), a, cv::Size(), scale, scale, cv::INTER_AREA);
    cv::resize(after(region), b, cv::Size(), scale, scale, cv::INTER_AREA);
    a.convertTo(a, CV_32F);
    b.convertTo(b, CV_32F);
    cv::Mat window;
    cv::createHanningWindow(window, a.size(), CV_32F);
    return cv::phaseCorrelate(a, b, window) / scale;
}

}  // namespace KVOAI::kvodnnl
