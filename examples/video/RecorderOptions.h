#pragma once
// The recorder's command line.
#include <QColor>
#include <QSize>
#include <QStringList>

#include "../EffectOptions.h"

struct RecorderOptions {
    QStringList inputs;
    QString output;
    QSize size;  // of the merged picture; empty: chosen from the inputs
    QColor background = Qt::black;
    double fps = 0;       // 0: the first input's rate
    double duration = 0;  // 0: as long as the longest input
    bool compare = false;
    QString encoder;  // empty: H.264 where there is an encoder, else MPEG-4 Part 2
    EffectSettings effects;
    QString png;       // a picture of one recorded frame, or empty
    double pngAt = -1;  // its time in seconds; negative: the middle
    bool quiet = false;    // no progress line, even on a terminal
    bool verbose = false;  // the engine's and FFmpeg's own messages too
};

enum class ParseResult { Run, Done, Error };

// Reads `arguments` (the program's name first). Done after --help (its text in
// `message`), Error with the reason in `message`.
ParseResult parseRecorderOptions(const QStringList& arguments, RecorderOptions& options, QString& message);
