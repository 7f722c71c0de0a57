#include "GridLayout.h"

#include <algorithm>
#include <cmath>

namespace {

// The shape that one input takes in the grid: its picture, or two of them side by side.
QSizeF unitOf(const QList<QSize>& inputs, bool compare)
{
    const QSize first = inputs.isEmpty() || inputs.first().isEmpty() ? QSize(16, 9) : inputs.first();
    return QSizeF(first.width() * (compare ? 2 : 1), first.height());
}

}  // namespace

QSize evenSize(const QSize& size)
{
    return QSize(size.width() + (size.width() & 1), size.height() + (size.height() & 1));
}

QSize defaultMergeSize(const QList<QSize>& inputs, bool compare)
{
    if (inputs.size() != 1)
        return kLargestMerge;
    const QSizeF unit = unitOf(inputs, compare);
    const QSizeF limit = unit.width() >= unit.height() ? QSizeF(kLargestMerge) : QSizeF(kLargestMerge.transposed());
    const double k = std::min({1.0, limit.width() / unit.width(), limit.height() / unit.height()});
    // Rounded down to even numbers, so that it stays within the limits.
    const int width = std::max(2, static_cast<int>(unit.width() * k) & ~1);
    const int height = std::max(2, static_cast<int>(unit.height() * k) & ~1);
    return QSize(width, height);
}

GridLayout layoutGrid(const QList<QSize>& inputs, bool compare, const QSize& size)
{
    GridLayout grid;
    grid.size = size;
    const int n = std::max(1, int(inputs.size()));
    const QSizeF unit = unitOf(inputs, compare);
    // The grid whose cells are largest; of equal ones, the one with fewer
    // empty cells, then the wider one.
    double best = -1;
    for (int columns = 1; columns <= n; ++columns) {
        const int rows = (n + columns - 1) / columns;
        const double k = std::min(size.width() / (columns * unit.width()), size.height() / (rows * unit.height()));
        const bool better = k > best * 1.0001
                            || (k > best * 0.9999 && columns * rows < grid.columns * grid.rows)
                            || (k > best * 0.9999 && columns * rows == grid.columns * grid.rows
                                && columns > grid.columns);
        if (better) {
            best = k;
            grid.columns = columns;
            grid.rows = rows;
        }
    }
    const double cellWidth = unit.width() * best, cellHeight = unit.height() * best;
    const double left = (size.width() - grid.columns * cellWidth) / 2;
    const double top = (size.height() - grid.rows * cellHeight) / 2;
    const int parts = compare ? 2 : 1;
    for (int i = 0; i < n; ++i) {
        const double x = left + (i % grid.columns) * cellWidth, y = top + (i / grid.columns) * cellHeight;
        for (int part = 0; part < parts; ++part) {
            // Cells meet on whole pixels: each edge is rounded where it lies.
            const int x0 = static_cast<int>(std::lround(x + part * cellWidth / parts));
            const int x1 = static_cast<int>(std::lround(x + (part + 1) * cellWidth / parts));
            const int y0 = static_cast<int>(std::lround(y)), y1 = static_cast<int>(std::lround(y + cellHeight));
            grid.cells.append(GridCell{QRect(x0, y0, x1 - x0, y1 - y0), i, !compare || part == 1});
        }
    }
    return grid;
}
