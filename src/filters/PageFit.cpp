#include "filters/PageFit.h"

#include "base/Numbers.h"

namespace pagefit {

namespace {

QSize targetFor(int channelWidth, int channelHeight)
{
    if (channelWidth > channelHeight) {
        const bool small = channelWidth <= kSmallLongSide && channelHeight <= kSmallShortSide;
        return small ? QSize(kSmallLongSide, kSmallShortSide) : QSize(kLargeLongSide, kLargeShortSide);
    }
    const bool small = channelWidth <= kSmallShortSide && channelHeight <= kSmallLongSide;
    return small ? QSize(kSmallShortSide, kSmallLongSide) : QSize(kLargeShortSide, kLargeLongSide);
}

}  // namespace

QSize fitFirstPage(float pageWidth, float pageHeight, int channelWidth, int channelHeight)
{
    const QSize target = targetFor(channelWidth, channelHeight);
    int w = truncToInt(pageWidth);
    int h = truncToInt(pageHeight);
    const double ratio = static_cast<double>(h) / static_cast<double>(w);
    const bool landscape = target.width() > target.height();
    if (w > target.width() && landscape) {
        w = target.width();
        h = truncToInt(target.width() * ratio);
    } else if (h > target.height() && !landscape) {
        h = target.height();
        w = truncToInt(target.height() / ratio);
    }
    if (h < w && w > kWidePageLimit) {
        w = kWidePageLimit;
        h = truncToInt(ratio * kWidePageLimit);
    }
    if (h > w && h > kTallPageLimit) {
        h = kTallPageLimit;
        w = truncToInt(kTallPageLimit / ratio);
    }
    return QSize(w / 4 * 4, h);
}

}  // namespace pagefit
