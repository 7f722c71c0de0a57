// Demo host: drives lumen_fx through its public interface only. It makes a
// scene with channels fed from sample pictures, asks for a merge and writes
// the merged picture as a PNG.
#include <cstdio>
#include <cstdlib>

#include <QCommandLineParser>
#include <QElapsedTimer>
#include <QGuiApplication>
#include <QImage>
#include <QPainter>
#include <QThread>

#include <lumen_fx/OpenglImageManager.h>
#include "EffectOptions.h"
#include "MergeLimits.h"
#include "OpenglCheck.h"

namespace {

struct Options {
    QStringList inputs;
    QString output = "lumen_fx_demo.png";
    int width = 1280;
    int height = 720;
    QColor background = QColor(20, 40, 80);
    EffectSettings effects;
};

bool parseOptions(const QCoreApplication& app, Options& options)
{
    QCommandLineParser parser;
    parser.setApplicationDescription("Merges channels of sample pictures with lumen_fx and writes a PNG. With "
                                     "effects, every channel but the first gets them: before (left), after (right).");
    parser.addHelpOption();
    parser.addPositionalArgument("pictures", "Input pictures, one channel each (default: the bundled portrait, twice).");
    QCommandLineOption outOption({"o", "output"}, "Output PNG path.", "path", options.output);
    QCommandLineOption sizeOption({"s", "size"}, "Merged size, WIDTHxHEIGHT.", "size", "1280x720");
    QCommandLineOption bgOption({"b", "background"}, "Background colour (#rrggbb or a colour name).", "colour",
                                options.background.name());
    parser.addOption(outOption);
    parser.addOption(sizeOption);
    parser.addOption(bgOption);
    EffectOptions effectOptions;
    effectOptions.addTo(parser);
    parser.process(app);

    QString error;
    if (!effectOptions.read(parser, options.effects, error)) {
        std::fprintf(stderr, "%s\n", qPrintable(error));
        return false;
    }
    options.inputs = parser.positionalArguments();
    if (options.inputs.isEmpty())
        options.inputs << LUMEN_SAMPLE_PICTURE << LUMEN_SAMPLE_PICTURE;
    options.output = parser.value(outOption);
    const QStringList size = parser.value(sizeOption).split('x');
    bool okW = false;
    bool okH = false;
    if (size.size() == 2) {
        options.width = size[0].toInt(&okW);
        options.height = size[1].toInt(&okH);
    }
    if (!okW || !okH || options.width <= 0 || options.height <= 0) {
        std::fprintf(stderr, "bad --size '%s', expected WIDTHxHEIGHT\n", qPrintable(parser.value(sizeOption)));
        return false;
    }
    if (!mergeSizeAllowed(QSize(options.width, options.height))) {
        std::fprintf(stderr, "bad --size '%s': %s\n", qPrintable(parser.value(sizeOption)),
                     qPrintable(mergeSizeLimits()));
        return false;
    }
    options.background = QColor(parser.value(bgOption));
    if (!options.background.isValid()) {
        std::fprintf(stderr, "bad --background '%s'\n", qPrintable(parser.value(bgOption)));
        return false;
    }
    return true;
}

// A picture in the middle of a 1280x720 frame, fitted to its height.
QImage cameraFrame(const QImage& picture)
{
    QImage frame(1280, 720, QImage::Format_RGBA8888);
    frame.fill(QColor(60, 70, 80));
    const QImage fitted = picture.scaled(1280, 720, Qt::KeepAspectRatio, Qt::SmoothTransformation);
    QPainter(&frame).drawImage((1280 - fitted.width()) / 2, (720 - fitted.height()) / 2, fitted);
    return frame;
}

// Lays n channels out side by side over the merged picture.
QList<_channel_merge_param> layout(const QList<int>& channels, int width, int height)
{
    QList<_channel_merge_param> params;
    const int n = channels.size();
    for (int i = 0; i < n; ++i) {
        _channel_merge_param p;
        p.channelId = channels[i];
        const int x0 = width * i / n;
        const int x1 = width * (i + 1) / n;
        p.rect = QRect(x0 + 8, 8, x1 - x0 - 16, height - 16);
        params << p;
    }
    return params;
}

}  // namespace

int main(int argc, char** argv)
{
    QGuiApplication app(argc, argv);
    Options options;
    if (!parseOptions(app, options))
        return 2;
    if (!openglAvailable(argv[0]))
        return 1;

    OpenglImageManager* manager = OpenglImageManager::instance();
    const int scene = manager->genSceneFilters();
    QList<int> channels;
    QList<QImage> pictures;
    for (const QString& path : options.inputs) {
        QImage picture(path);
        if (picture.isNull()) {
            std::fprintf(stderr, "cannot read picture '%s'\n", qPrintable(path));
            return 1;
        }
        if (!options.effects.sticker.empty())
            picture = cameraFrame(picture);
        pictures << picture.convertToFormat(QImage::Format_RGBA8888);
        channels << manager->genChannelFilters(scene, true);
        std::printf("scene %d: channel %d <- %s (%dx%d)\n", scene, channels.last(), qPrintable(path),
                    picture.width(), picture.height());
    }

    // With effects, every channel but the first gets them: the merged picture
    // then shows the plain picture (before) beside the filtered ones (after).
    EffectSettings& effects = options.effects;
    if (effects.any()) {
        for (int i = 1; i < channels.size(); ++i)
            applyEffects(manager, scene, channels[i], effects);
        std::printf("effects on channels after the first: %s\n", qPrintable(effects.describe()));
        // Let the channels take their filters before the first frame.
        QThread::msleep(200);
    }
    // Effects need the channel's GPU path; plain channels are handed over directly.
    const bool direct = !effects.any();
    const QList<_channel_merge_param> params = layout(channels, options.width, options.height);
    QImage merged;
    QElapsedTimer timer;
    timer.start();
    int rounds = 0;
    // The read-back lags one merge behind, and the first merge of a channel
    // only sets up the texture exchange: keep frames and merges coming for a while.
    while (timer.elapsed() < (direct ? 1500 : 4000)) {
        for (int i = 0; i < channels.size(); ++i)
            manager->sendChannelFrame(scene, channels[i], pictures[i], false, true, direct);
        manager->mergeImages(scene, params, options.width, options.height, options.background, QImage(), QImage());
        QThread::msleep(70);
        ++rounds;
    }
    if (!manager->getMergeImg(scene, merged)) {
        std::fprintf(stderr, "no merged picture after %d rounds\n", rounds);
        return 1;
    }
    if (!merged.save(options.output, "PNG")) {
        std::fprintf(stderr, "cannot write '%s'\n", qPrintable(options.output));
        return 1;
    }
    std::printf("merged %d channel(s) into %dx%d over %s in %d rounds\n", int(channels.size()), merged.width(),
                merged.height(), qPrintable(options.background.name()), rounds);
    if (effects.any())
        std::printf("before (left) and after (right): ");
    std::printf("wrote %s\n", qPrintable(options.output));
    // The engine stops its scenes and channels when the application goes.
    return 0;
}
