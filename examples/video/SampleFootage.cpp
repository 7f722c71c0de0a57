#include "SampleFootage.h"

#include <algorithm>
#include <cmath>

#include <QLinearGradient>
#include <QPainter>

namespace {

const double kPi = 3.14159265358979323846;

// 0 at 0, 1 at 1, with no jolt at either end.
double ease(double x)
{
    x = std::clamp(x, 0.0, 1.0);
    return x * x * (3 - 2 * x);
}

// The room behind the person: a wall in light and shade, a window, a shelf.
QImage paintRoom(const QSize& size, int variant)
{
    const int hue = (30 + 70 * variant) % 360;
    QImage room(size, QImage::Format_RGB32);
    QPainter painter(&room);
    QLinearGradient wall(0, 0, size.width(), size.height());
    wall.setColorAt(0, QColor::fromHsv(hue, 60, 200));
    wall.setColorAt(1, QColor::fromHsv(hue, 90, 120));
    painter.fillRect(room.rect(), wall);
    const double w = size.width(), h = size.height();
    painter.fillRect(QRectF(0.06 * w, 0.12 * h, 0.2 * w, 0.42 * h), QColor(190, 215, 235));  // window
    painter.setPen(QPen(QColor(250, 250, 245), 0.012 * w));
    painter.drawRect(QRectF(0.06 * w, 0.12 * h, 0.2 * w, 0.42 * h));
    painter.drawLine(QPointF(0.16 * w, 0.12 * h), QPointF(0.16 * w, 0.54 * h));
    painter.fillRect(QRectF(0.72 * w, 0.3 * h, 0.24 * w, 0.025 * h), QColor::fromHsv((hue + 180) % 360, 120, 90));
    for (int i = 0; i < 5; ++i)  // books on the shelf
        painter.fillRect(QRectF((0.74 + 0.035 * i) * w, (0.2 + 0.02 * (i % 2)) * h, 0.025 * w, (0.1 - 0.02 * (i % 2)) * h),
                         QColor::fromHsv((hue + 60 * i) % 360, 150, 160));
    painter.fillRect(QRectF(0, 0.86 * h, w, 0.14 * h), QColor::fromHsv(hue, 50, 70));  // desk
    return room;
}

}  // namespace

SampleFootage::SampleFootage(const QImage& portrait, const QSize& size, double seconds, int variant)
    : portrait_(portrait.convertToFormat(QImage::Format_RGB888)),
      room_(paintRoom(size * 1.3, variant)),
      size_(size),
      seconds_(std::max(0.1, seconds))
{
    // The person sits in the middle (a little aside in other variants), the head near the top.
    const double height = 0.95 * size.height();
    const double width = height * portrait_.width() / std::max(1, portrait_.height());
    const double x = (size.width() - width) / 2 + ((variant + 1) % 3 - 1) * 0.12 * size.width();
    placed_ = QRectF(x, size.height() - height, width, height);
}

double SampleFootage::zoom(double t) const
{
    // In to 1.8 over the first half, holding a moment, then back out to 1.3.
    const double u = t / seconds_;
    return u < 0.5 ? 1 + 0.8 * ease(u / 0.45) : 1.8 - 0.5 * ease((u - 0.55) / 0.45);
}

double SampleFootage::tilt(double t) const { return 5 * std::sin(2 * kPi * t / seconds_); }

double SampleFootage::light(double t) const { return 1 - 0.18 * std::sin(kPi * t / seconds_); }

QTransform SampleFootage::camera(double t) const
{
    // The camera looks from the middle of the room towards the face as it zooms in.
    const QPointF face = placed_.topLeft() + QPointF(235.0 / 512 * placed_.width(), 165.0 / 512 * placed_.height());
    const QPointF middle(size_.width() / 2.0, size_.height() / 2.0);
    const double z = zoom(t);
    const double towards = std::clamp((z - 1) / 0.8, 0.0, 1.0);
    const QPointF look = middle + (face - middle) * towards + QPointF(20 * std::sin(2 * kPi * t / seconds_), 0);
    QTransform view;
    view.translate(middle.x(), middle.y());
    view.rotate(tilt(t));
    view.scale(z, z);
    view.translate(-look.x(), -look.y());
    return view;
}

QPointF SampleFootage::toFrame(const QPointF& portraitPoint, double t) const
{
    const QPointF inRoom(placed_.x() + portraitPoint.x() / portrait_.width() * placed_.width(),
                         placed_.y() + portraitPoint.y() / portrait_.height() * placed_.height());
    return camera(t).map(inRoom);
}

QImage SampleFootage::frame(double t) const
{
    QImage out(size_, QImage::Format_RGB32);
    QPainter painter(&out);
    painter.setRenderHint(QPainter::SmoothPixmapTransform);
    painter.setTransform(camera(t));
    // The room reaches beyond the frame, so that no corner is empty when the camera tilts.
    painter.drawImage(QRectF(-0.15 * size_.width(), -0.15 * size_.height(), 1.3 * size_.width(), 1.3 * size_.height()),
                      room_);
    painter.drawImage(placed_, portrait_);
    painter.resetTransform();
    // The light dims and warms: the picture multiplied by a colour a little below white.
    const double light = this->light(t);
    painter.setCompositionMode(QPainter::CompositionMode_Multiply);
    painter.fillRect(out.rect(), QColor::fromRgbF(std::min(1.0, light + 0.05), light, std::max(0.0, light - 0.06)));
    painter.end();
    return out.convertToFormat(QImage::Format_RGB888);
}
