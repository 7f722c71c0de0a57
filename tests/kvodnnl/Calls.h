#pragma once
// A still picture handed to a detector as a camera would hand it in, until
// the detector shows its faces.
//
// Every call keeps to its budget and the detector's own thread does the rest
// of a search between calls: a quiet machine shows a new picture's faces by
// about the fifth call, a loaded one or a build with sanitizers later. Tests
// wait for them by the clock, as a host's camera would.
//
// The pictures handed in are mostly the bundled portrait, placed on a canvas.
#include <algorithm>
#include <chrono>
#include <functional>
#include <thread>
#include <vector>

#include <QImage>
#include <QPainter>
#include <QTransform>
#include <kvodnnl/kvodnnl.h>
#include <opencv2/core.hpp>

#include "TestUtil.h"

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

// The bundled portrait as the library takes pictures.
inline cv::Mat portrait() { return rgb(testutil::portrait(QImage::Format_RGB888)); }

// The 512 x 512 portrait turned by `degrees` about its centre, clockwise as
// seen (Qt's y axis points down), and moved by (x, y).
inline QTransform place(int x, int y, double degrees = 0)
{
    return QTransform().translate(256, 256).rotate(degrees).translate(-256, -256) * QTransform::fromTranslate(x, y);
}

// The portrait placed on a grey canvas of `size`; unless `whole`, with the
// suit below the shoulders painted over (its mission patch is seen as a face
// at some turns).
inline cv::Mat onCanvas(QSize size, const QTransform& placed, bool whole = true)
{
    QImage canvas(size, QImage::Format_RGB32);
    canvas.fill(QColor(120, 120, 120));
    QPainter p(&canvas);
    p.setRenderHint(QPainter::SmoothPixmapTransform);
    p.setTransform(placed);
    p.drawImage(0, 0, testutil::portrait(QImage::Format_RGB32));
    if (!whole)
        p.fillRect(QRect(0, 300, 512, 212), QColor(120, 120, 120));
    p.end();
    return rgb(canvas);
}

// Point `k` of the 98 of face `f`.
inline QPointF pt(const Face& f, int k) { return QPointF(f.points.at(2 * k), f.points.at(2 * k + 1)); }

// The largest distance of a point of `f` from where `placed` takes the same
// point of `g`.
inline double worstPoint(const Face& f, const Face& g, const QTransform& placed = {})
{
    double worst = 0;
    for (int k = 0; k < 98; ++k)
        worst = std::max(worst, QLineF(pt(f, k), placed.map(pt(g, k))).length());
    return worst;
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
