// Makes the project's sample clip from its portrait: a slow camera move over
// the person (pan, zoom in on the face and out, a small tilt, a change of
// light) with a quiet chord as its sound.
//
//   lumen_fx_make_clip PORTRAIT OUTPUT [seconds, 8] [WIDTHxHEIGHT, 1280x720] [frames a second, 25]
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include <QGuiApplication>
#include <QImage>

extern "C" {
#include <libavutil/log.h>
}

#include "ClipMaker.h"
#include "SampleFootage.h"

namespace {

// A soft major chord that fades in and out.
float chord(double t, double seconds)
{
    const double pi = 3.14159265358979323846;
    const double fade = std::min({1.0, t / 0.5, std::max(0.0, seconds - t) / 0.5});
    const double s = std::sin(2 * pi * 220 * t) + 0.6 * std::sin(2 * pi * 277.18 * t)
                     + 0.5 * std::sin(2 * pi * 329.63 * t);
    return static_cast<float>(0.08 * fade * s);
}

}  // namespace

int main(int argc, char** argv)
{
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QGuiApplication app(argc, argv);
    av_log_set_level(AV_LOG_ERROR);
    if (argc < 3) {
        std::fprintf(stderr, "usage: %s PORTRAIT OUTPUT [seconds] [WIDTHxHEIGHT] [fps]\n", argv[0]);
        return 2;
    }
    const QImage portrait(argv[1]);
    if (portrait.isNull()) {
        std::fprintf(stderr, "%s: cannot read '%s'\n", argv[0], argv[1]);
        return 1;
    }
    ClipFormat clip;
    clip.seconds = argc > 3 ? std::atof(argv[3]) : 8;
    if (argc > 4) {
        const QStringList size = QString(argv[4]).split('x');
        clip.size = QSize(size.value(0).toInt(), size.value(1).toInt());
    }
    clip.fps = argc > 5 ? std::atof(argv[5]) : 25;
    if (!(clip.seconds > 0) || clip.size.isEmpty() || !(clip.fps > 0)) {
        std::fprintf(stderr, "%s: bad length, size or rate\n", argv[0]);
        return 2;
    }
    const SampleFootage footage(portrait, clip.size, clip.seconds);
    QString error;
    const double seconds = clip.seconds;
    if (!writeClip(argv[2], clip, [&](double t) { return footage.frame(t); },
                   [seconds](double t) { return chord(t, seconds); }, error)) {
        std::fprintf(stderr, "%s: %s\n", argv[0], qPrintable(error));
        return 1;
    }
    return 0;
}
