#include "stress/SceneStamps.h"

#include <algorithm>
#include <cstdlib>
#include <vector>

#include <QPainter>

namespace stress {

namespace {

// Mid-level colours, far apart from each other and from greys: scene i's
// stamp is the pair 2i, 2i + 1.
const QRgb kPalette[2 * kStampScenes] = {
    qRgb(200, 40, 120), qRgb(40, 170, 200), qRgb(180, 200, 40), qRgb(120, 60, 210),  qRgb(60, 200, 110),
    qRgb(215, 120, 40), qRgb(90, 40, 160),  qRgb(160, 100, 200), qRgb(40, 90, 60),  qRgb(240, 220, 100),
    qRgb(110, 150, 40), qRgb(200, 60, 60),  qRgb(60, 60, 200),   qRgb(140, 220, 180), qRgb(220, 140, 220),
    qRgb(100, 200, 230)};

bool near(QRgb a, QRgb b)
{
    return std::abs(qRed(a) - qRed(b)) <= kStampTolerance && std::abs(qGreen(a) - qGreen(b)) <= kStampTolerance &&
           std::abs(qBlue(a) - qBlue(b)) <= kStampTolerance;
}

// Which stamp colour a pixel is: 2 * scene for a left block, 2 * scene + 1
// for a right one, -1 for none.
int colourCode(QRgb pixel)
{
    for (int i = 0; i < 2 * kStampScenes; ++i) {
        if (near(pixel, kPalette[i]))
            return i;
    }
    return -1;
}

// Whether any stamp colour lies within the tolerance of the 8x8x8 box of
// colours that has `bin` as its top 5 bits a channel: a quick first test.
const std::vector<bool>& binsNearStamps()
{
    static const std::vector<bool> bins = [] {
        std::vector<bool> near(1 << 15, false);
        for (QRgb colour : kPalette) {
            const int c[3] = {qRed(colour), qGreen(colour), qBlue(colour)};
            int lo[3], hi[3];
            for (int k = 0; k < 3; ++k) {
                lo[k] = std::max(0, c[k] - kStampTolerance) >> 3;
                hi[k] = std::min(255, c[k] + kStampTolerance) >> 3;
            }
            for (int r = lo[0]; r <= hi[0]; ++r)
                for (int g = lo[1]; g <= hi[1]; ++g)
                    for (int b = lo[2]; b <= hi[2]; ++b)
                        near[(r << 10) | (g << 5) | b] = true;
        }
        return near;
    }();
    return bins;
}

// Finds, along one line of `n` colour codes `stride` apart, the scenes whose
// two colours have runs of kStampMinRun or more that end and start within
// two pixels of each other.
unsigned stampsAlong(const signed char* codes, int n, int stride)
{
    unsigned found = 0;
    int lastCode = -1, lastEnd = -100;  // the last long enough run
    int start = 0;
    for (int x = 1; x <= n; ++x) {
        if (x < n && codes[x * stride] == codes[start * stride])
            continue;
        const int code = codes[start * stride];
        if (code >= 0 && x - start >= kStampMinRun) {
            if (lastCode >= 0 && (lastCode ^ 1) == code && start - lastEnd <= 2)
                found |= 1u << (code / 2);
            lastCode = code;
            lastEnd = x;
        }
        start = x;
    }
    return found;
}

}  // namespace

Stamp sceneStamp(int index)
{
    const int i = ((index % kStampScenes) + kStampScenes) % kStampScenes;
    return Stamp{kPalette[2 * i], kPalette[2 * i + 1]};
}

QImage stamped(const QImage& picture, int index)
{
    if (picture.width() < 40 || picture.height() < 30)
        return picture;
    QImage out = picture.convertToFormat(QImage::Format_ARGB32);
    const Stamp stamp = sceneStamp(index);
    const int w = out.width() / 10, h = out.height() / 10;
    QPainter painter(&out);
    painter.fillRect(w, h, w, h, QColor(stamp.left));
    painter.fillRect(2 * w, h, w, h, QColor(stamp.right));
    painter.end();
    return out.convertToFormat(picture.format());
}

unsigned stampsIn(const QImage& picture)
{
    if (picture.isNull())
        return 0;
    const QImage rgb = picture.convertToFormat(QImage::Format_RGB32);
    const int w = rgb.width(), h = rgb.height();
    const std::vector<bool>& bins = binsNearStamps();
    std::vector<signed char> codes(size_t(w) * size_t(h), -1);
    bool any = false;
    for (int y = 0; y < h; ++y) {
        const QRgb* line = reinterpret_cast<const QRgb*>(rgb.constScanLine(y));
        for (int x = 0; x < w; ++x) {
            const QRgb p = line[x];
            if (!bins[((qRed(p) >> 3) << 10) | ((qGreen(p) >> 3) << 5) | (qBlue(p) >> 3)])
                continue;
            codes[size_t(y) * w + x] = static_cast<signed char>(colourCode(p));
            any = true;
        }
    }
    if (!any)
        return 0;
    unsigned found = 0;
    for (int y = 0; y < h; ++y)
        found |= stampsAlong(codes.data() + size_t(y) * w, w, 1);
    for (int x = 0; x < w; ++x)
        found |= stampsAlong(codes.data() + x, h, w);
    return found;
}

}  // namespace stress
