#pragma once
// A still picture handed to a detector as a camera would hand it in, until
// the detector shows its faces.
//
// Every call keeps to its budget and the detector's own thread does the rest
// of a search between calls: a quiet machine shows a new picture's faces by
// about the fifth call, a loaded one or a build with sanitizers later. Tests
// wait for them by the clock, as a host's camera would.
#include <chrono>
#include <functional>
#include <thread>
#include <vector>

#include <QImage>
#include <kvodnnl/kvodnnl.h>
#include <opencv2/core.hpp>

namespace calls {

using Face = KVOAI::FaceDetector::Face;

// `image` as the library takes pictures: red first, 3 channels, a Mat that
// owns its pixels.
inline cv::Mat rgb(const QImage& image)
{
    const QImage converted = image.convertToFormat(QImage::Format_RGB888);
    return cv::Mat(converted.height(), converted.width(), CV_8UC3, const_cast<uchar*>(converted.constBits()),
                   converted.bytesPerLine())
        .clone();
}

// Hands `picture` to `detector` a call every 33 ms, at least `least` calls
// and then until a call shows `count` faces, for up to `seconds`; `each`, if
// given, sees the faces of every call with its number. Returns the last
// call's faces.
inline std::vector<Face> settle(KVOAI::FaceDetector& detector, const cv::Mat& picture, size_t count,
                                bool flagA = false, int least = 5, double seconds = 10.0,
                                const std::function<void(const std::vector<Face>&, int)>& each = {})
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    std::vector<Face> faces;
    for (int call = 1;; ++call) {
        const auto next = std::chrono::steady_clock::now() + std::chrono::milliseconds(33);
        faces = detector.Run(picture, flagA, false, 1, 1, 50.f);
        if (each)
            each(faces, call);
        if ((call >= least && faces.size() == count) || std::chrono::steady_clock::now() > end)
            return faces;
        std::this_thread::sleep_until(next);
    }
}

}  // namespace calls
