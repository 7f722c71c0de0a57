// lumen_fx_video: plays video files through lumen_fx as cameras would, with
// effects on every channel, and records the merged picture with the first
// input's sound. A host of the public interface only.
//
//   lumen_fx_video [effect and picture options] INPUT... -o OUTPUT.mp4
#include <csignal>
#include <cstdio>

#include <QGuiApplication>
#include <QLoggingCategory>

#include "../OpenglCheck.h"
#include "Recorder.h"
#include "RecorderOptions.h"

extern "C" {
#include <libavutil/log.h>
}

namespace {

void onSignal(int) { Recorder::interrupt(); }

}  // namespace

int main(int argc, char** argv)
{
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QGuiApplication app(argc, argv);
    RecorderOptions options;
    QString message;
    switch (parseRecorderOptions(app.arguments(), options, message)) {
    case ParseResult::Done:
        std::printf("%s", qPrintable(message));
        return 0;
    case ParseResult::Error:
        std::fprintf(stderr, "lumen_fx_video: %s\nTry 'lumen_fx_video --help'.\n", qPrintable(message));
        return 2;
    case ParseResult::Run:
        break;
    }
    // Unless asked, the engine tells only its warnings (rules in QT_LOGGING_RULES
    // still win), and FFmpeg nothing: the recorder says what went wrong itself.
    if (!options.verbose) {
        QLoggingCategory::setFilterRules("lumen_fx.*.info=false\nlumen_fx.*.debug=false");
        av_log_set_level(AV_LOG_FATAL);
    }
    if (!openglAvailable(argv[0]))
        return 1;
    std::signal(SIGINT, onSignal);
    std::signal(SIGTERM, onSignal);
    Recorder recorder(options);
    return recorder.run();
}
