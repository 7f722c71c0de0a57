#include "RecorderOptions.h"

#include <QCommandLineParser>
#include <QFileInfo>

#include "GridLayout.h"

namespace {

const int kMostInputs = 9;

// A number above 0 (or 0 itself with `zero`), no larger than `most`; false with a message otherwise.
bool readPositive(const QCommandLineParser& parser, const QCommandLineOption& option, double most, double& out,
                  QString& message, bool zero = false)
{
    if (!parser.isSet(option))
        return true;
    bool ok = false;
    const double value = parser.value(option).toDouble(&ok);
    if (!ok || !(zero ? value >= 0 : value > 0) || value > most) {
        message = QString("bad --%1 '%2': expected a number %3 0, at most %4")
                      .arg(option.names().constLast(), parser.value(option), zero ? "from" : "above")
                      .arg(most);
        return false;
    }
    out = value;
    return true;
}

bool readSize(const QString& text, QSize& out, QString& message)
{
    const QStringList parts = text.split('x');
    bool okW = false, okH = false;
    const QSize size = parts.size() == 2 ? QSize(parts[0].toInt(&okW), parts[1].toInt(&okH)) : QSize();
    if (!okW || !okH) {
        message = QString("bad --size '%1': expected WIDTHxHEIGHT").arg(text);
        return false;
    }
    out = evenSize(size);
    if (!mergeSizeAllowed(out)) {
        message = QString("bad --size '%1': %2").arg(text, mergeSizeLimits());
        return false;
    }
    return true;
}

bool checkFiles(const RecorderOptions& options, QString& message)
{
    if (options.inputs.isEmpty() || options.inputs.size() > kMostInputs) {
        message = QString("give one to %1 input videos (got %2)").arg(kMostInputs).arg(options.inputs.size());
        return false;
    }
    if (options.output.isEmpty()) {
        message = "no output file: give -o OUTPUT.mp4";
        return false;
    }
    const QString target = QFileInfo(options.output).absoluteFilePath();
    for (const QString& input : options.inputs)
        if (QFileInfo(input).absoluteFilePath() == target) {
            message = QString("'%1' is an input: the output would overwrite it").arg(options.output);
            return false;
        }
    return true;
}

}  // namespace

ParseResult parseRecorderOptions(const QStringList& arguments, RecorderOptions& options, QString& message)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(
        "Plays video files through lumen_fx as cameras would and records the merged picture.\n"
        "One input is one channel; two to nine are a classroom, laid out in a grid. The effects and picture "
        "settings go on every channel; with --compare each input is shown twice, plain and with them.");
    const QCommandLineOption help({"h", "help"}, "This text.");
    const QCommandLineOption output({"o", "output"}, "The video to write (.mp4, .mkv, ...).", "file");
    const QCommandLineOption size({"s", "size"},
                                  "Merged size WIDTHxHEIGHT (odd sides are rounded up; default: one input's own "
                                  "size, 1920x1080 for several).",
                                  "size");
    const QCommandLineOption background({"b", "background"}, "Background colour (#rrggbb or a name; default black).",
                                        "colour");
    const QCommandLineOption fps("fps", "Output frame rate (default: the first input's).", "rate");
    const QCommandLineOption duration("duration", "Record at most this many seconds.", "seconds");
    const QCommandLineOption compare("compare", "Each input twice, side by side: plain (before), with the effects.");
    const QCommandLineOption encoder({"c", "encoder"},
                                     "FFmpeg's video encoder (default libx264 at its superfast preset, else mpeg4).",
                                     "name");
    const QCommandLineOption png("png", "Also write the recorded frame at --png-at as a PNG.", "file");
    const QCommandLineOption pngAt("png-at", "Time of that frame, seconds (default: the middle).", "seconds");
    const QCommandLineOption quiet({"q", "quiet"}, "No progress line.");
    const QCommandLineOption verbose({"v", "verbose"}, "Show the engine's and FFmpeg's own messages.");
    parser.addPositionalArgument("inputs", "Input videos, one channel each.", "INPUT...");
    for (const QCommandLineOption& o : {help, output, size, background, fps, duration, compare, encoder, png, pngAt,
                                        quiet, verbose})
        parser.addOption(o);
    EffectOptions effects;
    effects.addTo(parser);

    if (!parser.parse(arguments)) {
        message = parser.errorText();
        return ParseResult::Error;
    }
    if (parser.isSet(help)) {
        message = parser.helpText();
        return ParseResult::Done;
    }
    options.inputs = parser.positionalArguments();
    options.output = parser.value(output);
    options.compare = parser.isSet(compare);
    options.quiet = parser.isSet(quiet);
    options.verbose = parser.isSet(verbose);
    options.encoder = parser.value(encoder);
    options.png = parser.value(png);
    if (parser.isSet(background)) {
        options.background = QColor(parser.value(background));
        if (!options.background.isValid()) {
            message = QString("bad --background '%1'").arg(parser.value(background));
            return ParseResult::Error;
        }
    }
    double at = -1;
    const bool ok = checkFiles(options, message) && (!parser.isSet(size) || readSize(parser.value(size), options.size, message))
                    && readPositive(parser, fps, 120, options.fps, message)
                    && readPositive(parser, duration, 24 * 3600, options.duration, message)
                    && readPositive(parser, pngAt, 24 * 3600, at, message, true)
                    && effects.read(parser, options.effects, message);
    if (parser.isSet(pngAt))
        options.pngAt = at;
    return ok ? ParseResult::Run : ParseResult::Error;
}
