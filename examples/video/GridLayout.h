#pragma once
// Where the inputs of a recording go in the merged picture: one input fills
// it; two to nine share it in a grid of equal cells, chosen so that the
// pictures are as large as they can be. With `compare` each input takes two
// cells side by side, plain (before) and with the effects (after).
#include <QList>
#include <QRect>
#include <QSize>

#include "MergeLimits.h"

struct GridCell {
    QRect rect;
    int input = 0;
    bool effects = true;  // false: the plain cell of a before-and-after pair
};

struct GridLayout {
    QSize size;  // of the merged picture
    int columns = 1;
    int rows = 1;
    QList<GridCell> cells;
};

// The merged picture's size when none is asked for: a single input's own
// size (twice as wide with `compare`), shrunk into the merge limits; 1920x1080
// for several. Always even, as the encoders need.
QSize defaultMergeSize(const QList<QSize>& inputs, bool compare);

// Rounds each side up to an even number.
QSize evenSize(const QSize& size);

// The grid of the inputs (sizes in input order) in a merged picture of `size`.
// The cells take the shape of the first input (of a pair with `compare`), and
// the grid is centred; a picture of another shape is fitted into its cell.
GridLayout layoutGrid(const QList<QSize>& inputs, bool compare, const QSize& size);
