// The video recorder on camera-like clips, as a user runs it: the portrait
// filmed close up, zooming in and out and tilting, at 1280x720 and 25 frames
// a second. Each scenario runs lumen_fx_video on the clips several times and
// prints the medians of what its summary line tells: the speed against real
// time, the frames recorded and repeated, and the CPU cores busy.
//
//   lumen_fx_video_bench [runs, 3] [seconds of each clip, 10]
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include <QGuiApplication>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>

#include "ClipMaker.h"
#include "SampleFootage.h"

extern "C" {
#include <libavutil/log.h>
}

namespace {

struct Scenario {
    const char* name;
    int inputs;
    QStringList options;
};

const QStringList kFaceEffects = {"--smooth", "80", "--redlips", "150", "--whitening", "60", "--slimface", "60"};

const Scenario kScenarios[] = {
    {"one input, four face effects", 1, kFaceEffects},
    {"one input, before and after (the main job's effects)", 1,
     {"--compare", "--smooth", "100", "--whitening", "50", "--redlips", "250", "--sticker", "cuteglasses"}},
    {"four inputs in a grid, no effects", 4, {}},
    {"four inputs in a grid, four face effects", 4, kFaceEffects},
};

struct Figures {
    double speed = 0, cores = 0, recorded = 0, repeated = 0;
};

bool parse(const QString& summary, Figures& f)
{
    static const QRegularExpression line(
        R"(recorded (\d+) frames .*, (\d+) repeated .* speed ([\d.]+)x real time, ([\d.]+) cores busy)");
    const QRegularExpressionMatch m = line.match(summary);
    if (!m.hasMatch())
        return false;
    f.recorded = m.captured(1).toDouble();
    f.repeated = m.captured(2).toDouble();
    f.speed = m.captured(3).toDouble();
    f.cores = m.captured(4).toDouble();
    return true;
}

double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v.empty() ? 0 : v[v.size() / 2];
}

// The camera clips, each with its own room and place of the person.
bool makeClips(const QTemporaryDir& dir, double seconds, QStringList& clips)
{
    const QImage portrait(LUMEN_SAMPLE_PICTURE);
    for (int i = 0; i < 4; ++i) {
        const SampleFootage footage(portrait, QSize(1280, 720), seconds, i);
        const QString path = dir.filePath(QString("camera%1.mp4").arg(i));
        QString error;
        if (!writeClip(path, ClipFormat{QSize(1280, 720), 25, seconds, QString()},
                       [&](double t) { return footage.frame(t); }, nullptr, error)) {
            std::fprintf(stderr, "cannot make %s: %s\n", qPrintable(path), qPrintable(error));
            return false;
        }
        clips << path;
    }
    return true;
}

}  // namespace

int main(int argc, char** argv)
{
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QGuiApplication app(argc, argv);
    av_log_set_level(AV_LOG_ERROR);
    const int runs = argc > 1 ? std::max(1, std::atoi(argv[1])) : 3;
    const double seconds = argc > 2 ? std::max(2.0, std::atof(argv[2])) : 10.0;
    QTemporaryDir dir;
    QStringList clips;
    if (!makeClips(dir, seconds, clips))
        return 1;
    std::printf("clips of %.0f s, 1280x720 at 25 frames a second; medians of %d runs\n", seconds, runs);
    std::printf("%-55s %7s %9s %9s %6s\n", "scenario", "speed", "recorded", "repeated", "cores");
    for (const Scenario& s : kScenarios) {
        std::vector<double> speed, cores, recorded, repeated;
        for (int r = 0; r < runs; ++r) {
            QProcess recorder;
            recorder.start(LUMEN_VIDEO_HOST, QStringList{"-q"} + s.options + clips.mid(0, s.inputs)
                                                 + QStringList{"-o", dir.filePath("out.mp4")});
            recorder.waitForFinished(-1);
            const QString out = QString::fromLocal8Bit(recorder.readAllStandardOutput());
            Figures f;
            if (recorder.exitCode() != 0 || !parse(out, f)) {
                std::fprintf(stderr, "%s: the run failed\n%s%s\n", s.name, qPrintable(out),
                             qPrintable(QString::fromLocal8Bit(recorder.readAllStandardError())));
                return 1;
            }
            speed.push_back(f.speed);
            cores.push_back(f.cores);
            recorded.push_back(f.recorded);
            repeated.push_back(f.repeated);
        }
        std::printf("%-55s %6.2fx %9.0f %9.0f %6.2f\n", s.name, median(speed), median(recorded), median(repeated),
                    median(cores));
        std::fflush(stdout);
    }
    return 0;
}
