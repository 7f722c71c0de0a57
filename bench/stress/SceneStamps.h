#pragma once
// Colour stamps that say which scene a picture was fed to. Each scene has a
// pair of colours, painted as two blocks side by side; a merged picture
// shows a scene's stamp where two runs of its colours meet, along a row or a
// column, in either order (so a stamp mirrored or turned by quarter turns is
// still found). The colours stay clear of black, white and grey, which
// filters and clamping produce.

#include <QImage>
#include <QRgb>

namespace stress {

const int kStampScenes = 8;
// Shortest run of a stamp colour that counts, in pixels.
const int kStampMinRun = 3;
// How far a channel of a pixel may be from a stamp colour and still match it.
const int kStampTolerance = 4;

struct Stamp {
    QRgb left;
    QRgb right;
};

// The stamp of scene `index`, 0 to kStampScenes - 1.
Stamp sceneStamp(int index);

// The picture with scene `index`'s stamp painted a tenth of the way in from
// its top-left corner, each block a tenth of its width and height; pictures
// smaller than 40x30 come back as they are.
QImage stamped(const QImage& picture, int index);

// The stamps the picture shows: bit i set when scene i's stamp is in it.
unsigned stampsIn(const QImage& picture);

}  // namespace stress
