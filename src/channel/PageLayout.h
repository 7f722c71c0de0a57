#pragma once
// The layout of document pages shown as a channel's picture: pages kept
// within the texture limit, fitted to the first page's width with margins,
// and two pages joined for a scroll across their border.

#include <QImage>

namespace pagelayout {

// The largest side a page picture may have.
constexpr int kPageLimit = 7680;

// Shrinks a picture that passes the limit on either side, keeping its shape.
void keepWithinLimit(QImage& image);
// Scales the picture to `width`; a picture then less tall than wide is
// centred in a page of `height` with margins of the page colour. One that
// would pass the limit goes straight to the size the limit allows.
void fitToWidth(QImage& image, int width, int height);
// Joins the next page below (offset above 1) or above (offset below 0) the
// picture, with a grey line at the border.
void joinPages(float offset, QImage& image, const QImage& nextPage);

}  // namespace pagelayout
