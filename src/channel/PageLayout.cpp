#include "channel/PageLayout.h"

#include <algorithm>

#include <QPainter>
#include <QPen>

namespace pagelayout {

void keepWithinLimit(QImage& image)
{
    if (image.width() <= kPageLimit && image.height() <= kPageLimit)
        return;
    const float ratio = static_cast<float>(image.height()) / static_cast<float>(image.width());
    if (image.height() > kPageLimit) {
        image = image.scaled(static_cast<int>(kPageLimit / ratio), kPageLimit, Qt::IgnoreAspectRatio,
                             Qt::SmoothTransformation);
        if (image.format() != QImage::Format_RGBA8888)
            image = image.convertToFormat(QImage::Format_RGBA8888);
    }
    if (image.width() > kPageLimit) {
        image = image.scaled(kPageLimit, static_cast<int>(ratio * kPageLimit), Qt::IgnoreAspectRatio,
                             Qt::SmoothTransformation);
        if (image.format() != QImage::Format_RGBA8888)
            image = image.convertToFormat(QImage::Format_RGBA8888);
    }
}

void fitToWidth(QImage& image, int width, int height)
{
    if (image.width() == width)
        return;
    const double fitted = image.height() * (static_cast<double>(width) / image.width());
    if (fitted > kPageLimit) {
        // Taller than any page: straight to the size that the page limit
        // would shrink it to. A sliver fitted to a wide page first would be
        // hundreds of thousands of rows high, gigabytes of pixels.
        const int narrowed = std::max(1, static_cast<int>(kPageLimit * width / fitted));
        image = image.scaled(narrowed, kPageLimit, Qt::IgnoreAspectRatio, Qt::SmoothTransformation)
                    .convertToFormat(QImage::Format_RGBA8888);
        return;
    }
    const int newHeight =
        static_cast<int>(image.height() * (static_cast<float>(width) / static_cast<float>(image.width())));
    image = image.scaled(width, newHeight, Qt::IgnoreAspectRatio, Qt::SmoothTransformation)
                .convertToFormat(QImage::Format_RGBA8888);
    // Compares the new height with the target width, as the page layout wants.
    if (newHeight >= width)
        return;
    QImage bar(width, (height - newHeight) / 2, QImage::Format_RGBA8888);
    bar.fill(QColor(245, 246, 247, 255));
    QImage full(width, height, QImage::Format_RGBA8888);
    full.fill(QColor(245, 246, 247, 255));
    {
        QPainter painter(&full);
        painter.drawImage(0, 0, bar);
        painter.drawImage(0, bar.height(), image);
        painter.drawImage(0, bar.height() + image.height(), bar);
    }
    image = full;
}

void joinPages(float offset, QImage& image, const QImage& nextPage)
{
    QImage joined(image.width(), image.height() + nextPage.height(), image.format());
    {
        QPainter painter(&joined);
        painter.setPen(QPen(Qt::gray, 2, Qt::SolidLine));
        if (offset > 1.0f) {
            painter.drawImage(0, 0, image);
            painter.drawImage(0, image.height(), nextPage);
            painter.drawLine(0, image.height(), joined.width(), image.height());
        } else if (offset < 0.0f) {
            painter.drawImage(0, 0, nextPage);
            painter.drawImage(0, nextPage.height(), image);
            painter.drawLine(0, nextPage.height(), joined.width(), nextPage.height());
        }
    }
    image = joined;
}

}  // namespace pagelayout
