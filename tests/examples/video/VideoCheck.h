#pragma once
// Helpers of the recorder's tests: clips made for them, the recorder run as
// a program of its own, and what its output holds, read back with FFmpeg.
#include <functional>
#include <string>
#include <vector>

#include <QColor>
#include <QImage>
#include <QString>
#include <QStringList>

namespace videocheck {

// Names a parameterised test after its case's `name`.
struct ByName { template <class Info> std::string operator()(const Info& info) const { return info.param.name; } };

// A folder of the test's own under the test output, emptied.
QString scratch(const char* name);

// The bundled portrait as camera footage (SampleFootage) with a sine tone;
// frame i shows the footage at footageTime(i / fps).
bool writeFaceClip(const QString& path, const QSize& size, double fps, double seconds, bool sound = true,
                   const std::function<double(double)>& footageTime = nullptr);
// Pictures of one colour whose level climbs from 60 to 220 over the clip:
// `colour(level)` gives the picture's colour.
bool writeRampClip(const QString& path, const QSize& size, double fps, double seconds,
                   const std::function<QColor(int)>& colour, const QString& encoder = QString());
int rampLevel(double t, double seconds);
// A sound file without pictures.
bool writeSoundOnly(const QString& path, double seconds);

struct Probe {
    bool ok = false, sound = false;
    int width = 0, height = 0;
    long long frames = 0;       // video packets, one picture each
    double videoSeconds = 0;    // from the first picture's start to the last one's end
    double soundSeconds = 0;
};
Probe probe(const QString& path);

// The time of the first sample above half of full scale in a video's sound; -1 if none.
double firstLoudSound(const QString& path);

// Pictures of a video at the given times (ascending), read in one pass.
std::vector<QImage> picturesAt(const QString& path, const std::vector<double>& times);

struct RunResult {
    bool finished = false, crashed = false;
    int status = -1;
    QString out, err;
    // Finished, without a crash, with status `want`.
    bool endedWith(int want) const { return finished && !crashed && status == want; }
    std::string report() const { return "status " + std::to_string(status) + ": " + err.toStdString(); }
};
// Runs lumen_fx_video with the arguments (quiet), up to `timeoutMs`.
RunResult record(const QStringList& arguments, int timeoutMs = 120000);

// Mean of each colour channel over an area.
struct Mean {
    double red = 0, green = 0, blue = 0;
    double grey() const { return (red + green + blue) / 3; }
};
Mean meanOf(const QImage& picture, const QRect& area);

}  // namespace videocheck
