#pragma once
// Writes a short clip from pictures and a sound given as functions of time:
// the project's sample clip, and the clips that the tests and benchmarks play.
#include <functional>

#include <QImage>
#include <QSize>
#include <QString>

struct ClipFormat {
    QSize size{1280, 720};
    double fps = 25;
    double seconds = 6;
    QString encoder;  // empty: the recorder's default
};

// Frame i shows picture(i / fps); with a `wave`, the clip has a sound track
// of its samples (-1 to 1) as long as the pictures. False, with a message, on failure.
bool writeClip(const QString& path, const ClipFormat& clip, const std::function<QImage(double)>& picture,
               const std::function<float(double)>& wave, QString& error);
