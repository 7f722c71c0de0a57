#include "Progress.h"

#include <algorithm>
#include <cmath>

#include <QFileInfo>

double speedOf(const RecordingFigures& f)
{
    return f.wallSeconds > 0 ? std::min(1.0, f.clockSeconds / f.wallSeconds) : 0;
}

QString progressLine(const RecordingFigures& f, int width)
{
    const double speed = speedOf(f);
    QString left = "--";
    if (f.totalSeconds > 0 && speed > 0)
        left = QString::number(std::max(0.0, (f.totalSeconds - f.videoSeconds) / speed), 'f', 0) + " s";
    const QString total = f.totalSeconds > 0 ? QString::number(f.totalSeconds, 'f', 1) : QString("?");
    const QString text = QString(" %1 frames  %2/%3 s  %4x  %5 left")
                             .arg(f.recorded)
                             .arg(f.videoSeconds, 0, 'f', 1)
                             .arg(total)
                             .arg(speed, 0, 'f', 2)
                             .arg(left);
    const int barWidth = std::max(0, width - 2 - int(text.size()));
    if (barWidth < 5)
        return text.left(width);
    const double done = f.totalSeconds > 0 ? std::clamp(f.videoSeconds / f.totalSeconds, 0.0, 1.0) : 0;
    const int filled = static_cast<int>(std::lround(done * barWidth));
    return "[" + QString(filled, '#') + QString(barWidth - filled, '.') + "]" + text;
}

QString summaryLine(const RecordingFigures& f, const QString& output)
{
    QStringList read;
    for (int i = 0; i < f.framesRead.size() && i < f.inputs.size(); ++i)
        read << QString("%1 (%2)").arg(f.framesRead[i]).arg(QFileInfo(f.inputs[i]).fileName());
    const double cores = f.wallSeconds > 0 ? f.cpuSeconds / f.wallSeconds : 0;
    return QString("read %1; recorded %2 frames (%3 s at %4 fps), %5 repeated the picture before; "
                   "speed %6x real time, %7 cores busy; wrote %8")
        .arg(read.join(", "))
        .arg(f.recorded)
        .arg(f.videoSeconds, 0, 'f', 2)
        .arg(f.fps, 0, 'g', 4)
        .arg(f.repeated)
        .arg(speedOf(f), 0, 'f', 2)
        .arg(cores, 0, 'f', 2)
        .arg(output);
}
