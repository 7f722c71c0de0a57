#pragma once
// Camera-like footage made from a still portrait: the person in a room, and
// a camera that pans, zooms in on the face and out again, tilts a little,
// while the light changes. Every frame is a function of its time.
#include <QImage>
#include <QPointF>
#include <QSize>
#include <QTransform>

class SampleFootage {
public:
    // `variant` gives the room another colour and the person another place,
    // so that several clips can be told apart.
    SampleFootage(const QImage& portrait, const QSize& size, double seconds, int variant = 0);

    // The frame at `t` seconds (0 to the clip's length), Format_RGB888.
    QImage frame(double t) const;
    // Where a point of the portrait lies in the frame at `t`.
    QPointF toFrame(const QPointF& portraitPoint, double t) const;
    // Camera at `t`: how far it has zoomed in (1 at the start), its tilt in degrees, and the light (1 is full).
    double zoom(double t) const;
    double tilt(double t) const;
    double light(double t) const;

private:
    QTransform camera(double t) const;

    QImage portrait_;
    QImage room_;
    QSize size_;
    double seconds_;
    QRectF placed_;  // the portrait in the room, at zoom 1
};
