#pragma once
// Smoothing of faces from call to call.
//
// A face's key points jitter by a pixel or so from one picture to the next
// even when the face keeps still: the detector's box snaps between the sizes
// of its pyramid and the landmark fit follows the box and the sensor's noise.
// FaceFilter takes the faces of each call, matches them to the faces of the
// call before by the overlap of their boxes, and smooths each with a one-euro
// filter: strongly while the face keeps still, hardly at all while it moves.
//
// A face is smoothed in two parts: its centre (the mean of its key points)
// and the place of each key point and box corner relative to that centre.
// A face that moves without turning keeps its relative places, so their
// smoothing costs it no lag; only the centre's filter has to keep up with the
// motion. Distances are measured in eye distances and time in calls, so the
// filter behaves alike for small and large faces.
#include <algorithm>
#include <cmath>
#include <vector>

#include <opencv2/core/types.hpp>

namespace KVOAI {
namespace smoothing {

struct Settings {
    // Cutoff, in cycles a call, of a face that keeps still.
    double minCutoff = 0.005;
    // Cutoff added for each eye distance a call of speed.
    double beta = 30.0;
    // Speeds below this many eye distances a call count as noise.
    double speedFloor = 0.008;
    // Cutoff of the speed's own smoothing.
    double speedCutoff = 0.1;
    // Boxes that overlap (intersection over union) by more than this in two
    // calls in a row are one face.
    double sameFace = 0.3;
};

// Weight of a new value in an exponential mean, for a cutoff in cycles a call.
inline double smoothingWeight(double cutoff)
{
    return 1.0 / (1.0 + 1.0 / (2.0 * CV_PI * cutoff));
}

// One-euro filter of a point: smooths its place with a cutoff that rises with
// its smoothed speed.
class OneEuro {
public:
    void reset(cv::Point2d raw)
    {
        value_ = raw;
        speed_ = cv::Point2d();
    }

    // `unit`: the eye distance in pixels.
    cv::Point2d step(cv::Point2d raw, double unit, const Settings& s)
    {
        speed_ += (raw - value_ - speed_) * smoothingWeight(s.speedCutoff);
        const double speed = std::hypot(speed_.x, speed_.y) / unit;
        const double cutoff = s.minCutoff + s.beta * std::max(0.0, speed - s.speedFloor);
        value_ += (raw - value_) * smoothingWeight(cutoff);
        return value_;
    }

    cv::Point2d value() const { return value_; }

private:
    cv::Point2d value_, speed_;
};

class FaceFilter {
public:
    struct Face {
        cv::Rect2d box;
        std::vector<cv::Point2d> points;
        int eyeA = -1, eyeB = -1;  // indices into points of the two eye centres, if known
    };

    explicit FaceFilter(Settings settings = Settings()) : settings_(settings) {}

    // Smooths the faces of one call in place. A face whose box overlaps one
    // of the last call's faces well enough continues that face's smoothing;
    // any other starts afresh and keeps its values. Faces of the last call
    // that match none of these are forgotten.
    void update(std::vector<Face>& faces)
    {
        std::vector<Track> next(faces.size());
        std::vector<bool> taken(tracks_.size(), false);
        // Best overlaps first, each track and each face used once.
        struct Pair {
            double overlap;
            size_t face, track;
        };
        std::vector<Pair> pairs;
        for (size_t f = 0; f < faces.size(); ++f)
            for (size_t t = 0; t < tracks_.size(); ++t) {
                const double o = overlap(faces[f].box, tracks_[t].box);
                if (o > settings_.sameFace && tracks_[t].corners.size() == faces[f].points.size() + 2)
                    pairs.push_back({o, f, t});
            }
        std::sort(pairs.begin(), pairs.end(), [](const Pair& a, const Pair& b) { return a.overlap > b.overlap; });
        std::vector<bool> matched(faces.size(), false);
        for (const Pair& p : pairs)
            if (!matched[p.face] && !taken[p.track]) {
                matched[p.face] = taken[p.track] = true;
                next[p.face] = std::move(tracks_[p.track]);
            }
        for (size_t f = 0; f < faces.size(); ++f) {
            if (matched[f])
                smooth(next[f], faces[f]);
            else
                start(next[f], faces[f]);
        }
        tracks_ = std::move(next);
    }

    void clear() { tracks_.clear(); }

    static double overlap(const cv::Rect2d& a, const cv::Rect2d& b)
    {
        const double inter = (a & b).area();
        const double uni = a.area() + b.area() - inter;
        return uni > 0 ? inter / uni : 0.0;
    }

private:
    // A face's smoothing state: its centre and, relative to it, its points
    // followed by the box's two corners.
    struct Track {
        cv::Rect2d box;
        OneEuro centre;
        std::vector<OneEuro> corners;
    };

    static cv::Point2d centreOf(const std::vector<cv::Point2d>& points)
    {
        cv::Point2d sum;
        for (const cv::Point2d& p : points)
            sum += p;
        return points.empty() ? sum : sum * (1.0 / points.size());
    }

    static std::vector<cv::Point2d> relative(const Face& face, cv::Point2d centre)
    {
        std::vector<cv::Point2d> out;
        out.reserve(face.points.size() + 2);
        for (const cv::Point2d& p : face.points)
            out.push_back(p - centre);
        out.push_back(face.box.tl() - centre);
        out.push_back(face.box.br() - centre);
        return out;
    }

    static double unitOf(const Face& face)
    {
        const int n = static_cast<int>(face.points.size());
        if (face.eyeA >= 0 && face.eyeB >= 0 && face.eyeA < n && face.eyeB < n) {
            const cv::Point2d d = face.points[face.eyeB] - face.points[face.eyeA];
            const double eyes = std::hypot(d.x, d.y);
            if (eyes >= 1.0)
                return eyes;
        }
        // Eyes sit about 0.45 box widths apart.
        return std::max(1.0, 0.45 * face.box.width);
    }

    void start(Track& track, const Face& face)
    {
        const cv::Point2d centre = centreOf(face.points);
        track.box = face.box;
        track.centre.reset(centre);
        const std::vector<cv::Point2d> rel = relative(face, centre);
        track.corners.resize(rel.size());
        for (size_t i = 0; i < rel.size(); ++i)
            track.corners[i].reset(rel[i]);
    }

    void smooth(Track& track, Face& face)
    {
        const double unit = unitOf(face);
        const cv::Point2d centre = track.centre.step(centreOf(face.points), unit, settings_);
        const std::vector<cv::Point2d> rel = relative(face, centreOf(face.points));
        for (size_t i = 0; i < face.points.size(); ++i)
            face.points[i] = centre + track.corners[i].step(rel[i], unit, settings_);
        const size_t n = face.points.size();
        const cv::Point2d tl = centre + track.corners[n].step(rel[n], unit, settings_);
        const cv::Point2d br = centre + track.corners[n + 1].step(rel[n + 1], unit, settings_);
        face.box = cv::Rect2d(tl, br);
        track.box = face.box;
    }

    Settings settings_;
    std::vector<Track> tracks_;
};

}  // namespace smoothing
}  // namespace KVOAI
