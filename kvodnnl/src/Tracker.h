#pragma once
// The faces that the calls follow from one picture to the next.
#include <vector>

#include <opencv2/core.hpp>

#include "Boxes.h"
#include "Signature.h"
#include "Timing.h"

namespace KVOAI::kvodnnl {

// A face of the last call, and a small grey copy of its box as it was when
// the HOG detector last found it there.
struct Track {
    Detection detection;
    cv::Mat patch;
    int unchecked = 0;  // calls since the HOG detector last found it
    // The key points last fitted, with the box and the look they were fitted
    // on.
    std::vector<cv::Point2d> fitted;
    dlib::rectangle fitBox;
    cv::Mat fitLook;
    PicturePtr fitPicture;
    int fitAge = 0;  // calls since, in which it needed a fit and got none
};

inline const dlib::rectangle& boxOf(const Track& track) { return track.detection.box; }

// A face that the search found, new to the calls, on the grey picture `grey`.
inline Track newTrack(const Detection& detection, const cv::Mat& grey)
{
    Track track;
    track.detection = detection;
    track.patch = patchOf(grey, detection.box);
    return track;
}

// The faces of the last call (`tracks`) in a new picture. A face whose box
// looks as it did when the HOG detector last found it there keeps its box for
// up to kRecheckCalls calls; any other is searched for near its old place,
// and `lost` is set when one of them is not found. In a picture that differs
// on the whole (`cut`), once the first kCutLosses searched for are all lost,
// the rest are taken for lost too: the picture is another scene, and the
// search of the whole picture that it starts has the time instead. Once the
// call that began at `start` has taken kFollowBudgetMs, the faces left are
// not searched for: their boxes move as their part of the picture moved since
// `before`, the last call's picture, and they are searched for first on the
// next call; in a picture that differs on the whole, unless every face
// searched for was found, they are taken for lost. A call searches for one
// face at least.
std::vector<Track> follow(const std::vector<Track>& tracks, const Picture* before, const Picture& picture, bool cut,
                          bool& lost, Clock::time_point start);

}  // namespace KVOAI::kvodnnl
