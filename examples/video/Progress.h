#pragma once
// What the recorder tells while it works and when it is done.
#include <QList>
#include <QString>

struct RecordingFigures {
    long long recorded = 0;  // frames written
    long long repeated = 0;  // of those, frames that showed the merged picture before them again
    double fps = 25;
    double videoSeconds = 0;  // of output recorded
    double totalSeconds = 0;  // expected length of the output; 0 where unknown
    double wallSeconds = 0;   // real time spent playing
    double clockSeconds = 0;  // of that, the time the player's clock ran (it stops while the machine catches up)
    double cpuSeconds = 0;    // the process's CPU time meanwhile
    QList<int> framesRead;    // per input
    QStringList inputs;
};

// How fast the recording went against real time: 1 when the player's clock
// never had to wait for the machine, less when it did.
double speedOf(const RecordingFigures& f);

// The one-line bar for a terminal: frames, seconds done, speed, time left, in `width` characters.
QString progressLine(const RecordingFigures& f, int width);

// The closing line: frames read per input, frames recorded and repeated, speed and cores busy.
QString summaryLine(const RecordingFigures& f, const QString& output);
