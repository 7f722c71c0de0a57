#pragma once
// The largest picture a scene merges to, which the hosts check a size asked
// for against before they start: the scene drops a merge beyond it.
#include <QSize>
#include <QString>

// 1920x1080 lying, 1080x1920 standing, and at least 2x2.
const QSize kLargestMerge(1920, 1080);

inline bool mergeSizeAllowed(const QSize& size)
{
    if (size.width() < 2 || size.height() < 2)
        return false;
    const QSize limit = size.width() >= size.height() ? kLargestMerge : kLargestMerge.transposed();
    return size.width() <= limit.width() && size.height() <= limit.height();
}

// What a host says of a size beyond the limits, after its own words.
inline QString mergeSizeLimits()
{
    return QString("the merged picture can be at most %1x%2 lying or %2x%1 standing, and at least 2x2")
        .arg(kLargestMerge.width())
        .arg(kLargestMerge.height());
}
