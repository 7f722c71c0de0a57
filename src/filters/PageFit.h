#pragma once
// The size an imported document page is shown at: fitted to the class of
// resolution of the channel it is shown in (720p or 1080p, lying or
// standing), then kept within the texture limits of a page.

#include <QSize>

namespace pagefit {

// A channel up to 1280 x 720 (lying) or 720 x 1280 (standing) shows pages
// at that size; a larger one at 1920 x 1080 or 1080 x 1920.
constexpr int kSmallLongSide = 1280;
constexpr int kSmallShortSide = 720;
constexpr int kLargeLongSide = 1920;
constexpr int kLargeShortSide = 1080;
// The texture limits of a page wider than tall and of one taller than wide;
// they differ on purpose.
constexpr int kWidePageLimit = 5760;
constexpr int kTallPageLimit = 5400;

// The size a channel of `channel` shows a page of `page` at: the page's width
// (lying) or height (standing) brought down to the target's, keeping its
// shape, then kept within the limits; the width a multiple of 4. A page
// smaller than the target keeps its size.
QSize fitFirstPage(float pageWidth, float pageHeight, int channelWidth, int channelHeight);

}  // namespace pagefit
