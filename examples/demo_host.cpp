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
#include "OpenglCheck.h"

namespace {

struct Options {
    QStringList inputs;
    QString output = "lumen_fx_demo.png";
    int width = 1280;
    int height = 720;
    QColor background = QColor(20, 40, 80);
    // Face effects and their strengths; a negative strength leaves the effect off.
    double smooth = -1;
    double redLips = -1;
    double whitening = -1;
    double slimFace = -1;
    // Picture colour and geometry: the record as the host sends it, and whether any option set it.
    _basic_image_param basic = defaultBasic();
    bool picture = false;
    // A face sticker: a file, or the name of one of the project's own stickers.
    std::string sticker;
    bool effects() const
    {
        return smooth >= 0 || redLips >= 0 || whitening >= 0 || slimFace >= 0 || picture || !sticker.empty();
    }

    static _basic_image_param defaultBasic()
    {
        _basic_image_param p{};
        p.alpha = 1.0;
        p.centerXOffset = 0.5;
        p.centerYOffset = 0.5;
        return p;
    }
};

// The picture options: name, help, and the field of the record each sets.
struct PictureOption {
    const char* name;
    const char* help;
    double _basic_image_param::*real;
    int32_t _basic_image_param::*integer;
};
const PictureOption kPictureOptions[] = {
    {"brightness", "Brightness, -100 to 100 (100 adds half of full white).", &_basic_image_param::brightness, nullptr},
    {"contrast", "Contrast, -100 (flat grey) to 100.", &_basic_image_param::contrast, nullptr},
    {"saturation", "Saturation, -50 (grey) to 50.", &_basic_image_param::saturation, nullptr},
    {"opacity", "Opacity, 0 to 1 (default 1).", &_basic_image_param::alpha, nullptr},
    {"scale", "Scale strength: 25 doubles the size, -12.5 halves it.", &_basic_image_param::scale, nullptr},
    {"rotate-x", "Tilt about the horizontal axis, degrees.", &_basic_image_param::rotationX, nullptr},
    {"rotate-y", "Tilt about the vertical axis, degrees.", &_basic_image_param::rotationY, nullptr},
    {"rotate-z", "Turn in the picture plane, degrees (90, 180, 270).", &_basic_image_param::rotationZ, nullptr},
    {"corner-radius", "Rounded corners, radius in pixels.", nullptr, &_basic_image_param::cornerRadius},
    {"mirror", "1 mirrors left and right.", nullptr, &_basic_image_param::isMirrored},
    {"round-camera", "1 shows the round picture of the shorter side.", nullptr, &_basic_image_param::isRoundCamera},
    {"clip-width", "Channel box width: with clip-height, cuts the picture to that shape.",
     &_basic_image_param::channelWidth, nullptr},
    {"clip-height", "Channel box height.", &_basic_image_param::channelHeight, nullptr},
    {"center-x", "Horizontal place of the clip in the picture, 0 to 1 (default 0.5).",
     &_basic_image_param::centerXOffset, nullptr},
    {"center-y", "Vertical place of the clip in the picture, 0 to 1 (default 0.5).",
     &_basic_image_param::centerYOffset, nullptr},
};

bool parseOptions(const QCoreApplication& app, Options& options)
{
    QCommandLineParser parser;
    parser.setApplicationDescription("Merges channels of sample pictures with lumen_fx and writes a PNG.");
    parser.addHelpOption();
    parser.addPositionalArgument("pictures", "Input pictures, one channel each (default: the bundled portrait, twice).");
    QCommandLineOption outOption({"o", "output"}, "Output PNG path.", "path", options.output);
    QCommandLineOption sizeOption({"s", "size"}, "Merged size, WIDTHxHEIGHT.", "size", "1280x720");
    QCommandLineOption bgOption({"b", "background"}, "Background colour (#rrggbb or a colour name).", "colour",
                                options.background.name());
    QCommandLineOption smoothOption("smooth", "Skin smoothing with this strength (e.g. 80).", "strength");
    QCommandLineOption lipsOption("redlips", "Red lips with this strength (e.g. 100).", "strength");
    QCommandLineOption whiteningOption("whitening", "Whitening with this strength (e.g. 60).", "strength");
    QCommandLineOption slimOption("slimface", "Slim face with this strength (e.g. 100).", "strength");
    parser.addOption(outOption);
    parser.addOption(sizeOption);
    parser.addOption(bgOption);
    parser.addOption(smoothOption);
    parser.addOption(lipsOption);
    parser.addOption(whiteningOption);
    parser.addOption(slimOption);
    QCommandLineOption stickerOption("sticker",
                                     "A face sticker: a PNG file, or one of the project's own by name (glasses01, "
                                     "cuteglasses, beret, bear, rabbit, faceplates, medal). The pictures go into "
                                     "1280x720 frames, as a camera gives them.",
                                     "name");
    parser.addOption(stickerOption);
    QList<QCommandLineOption> pictureOptions;
    for (const PictureOption& o : kPictureOptions) {
        pictureOptions << QCommandLineOption(o.name, o.help, "value");
        parser.addOption(pictureOptions.last());
    }
    parser.process(app);

    auto strength = [&](const QCommandLineOption& o, double& out) {
        if (!parser.isSet(o))
            return true;
        bool ok = false;
        out = parser.value(o).toDouble(&ok);
        if (!ok) {
            std::fprintf(stderr, "bad strength '%s'\n", qPrintable(parser.value(o)));
            return false;
        }
        return true;
    };
    if (!strength(smoothOption, options.smooth) || !strength(lipsOption, options.redLips)
        || !strength(whiteningOption, options.whitening) || !strength(slimOption, options.slimFace))
        return false;
    for (int i = 0; i < pictureOptions.size(); ++i) {
        double value = 0;
        if (!parser.isSet(pictureOptions[i]))
            continue;
        if (!strength(pictureOptions[i], value))
            return false;
        const PictureOption& o = kPictureOptions[i];
        if (o.real)
            options.basic.*o.real = value;
        else
            options.basic.*o.integer = static_cast<int32_t>(value);
        options.picture = true;
    }
    if (parser.isSet(stickerOption)) {
        const QString name = parser.value(stickerOption);
        options.sticker = (name.contains('/') || name.endsWith(".png") ? name
                                                                       : QString(LUMEN_STICKER_DIR "/%1.png").arg(name))
                              .toStdString();
    }
    // A channel box cuts the picture to its shape.
    options.basic.isClip = options.basic.channelWidth > 0 && options.basic.channelHeight > 0;

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
        if (!options.sticker.empty())
            picture = cameraFrame(picture);
        pictures << picture.convertToFormat(QImage::Format_RGBA8888);
        channels << manager->genChannelFilters(scene, true);
        std::printf("scene %d: channel %d <- %s (%dx%d)\n", scene, channels.last(), qPrintable(path),
                    picture.width(), picture.height());
    }

    // With effects, every channel but the first gets them: the merged picture
    // then shows the plain picture (before) beside the filtered ones (after).
    if (options.effects()) {
        for (int i = 1; i < channels.size(); ++i) {
            if (options.smooth >= 0) {
                _strength_param p{options.smooth, true};
                manager->addChannelImageFilter(scene, channels[i], SMOOTH, &p);
            }
            if (options.redLips >= 0) {
                _strength_param p{options.redLips, true};
                manager->addChannelImageFilter(scene, channels[i], REDLIPS, &p);
            }
            if (options.whitening >= 0) {
                _strength_param p{options.whitening, true};
                manager->addChannelImageFilter(scene, channels[i], WHITENING, &p);
            }
            if (options.slimFace >= 0) {
                _slim_face_param p{options.slimFace};
                manager->addChannelImageFilter(scene, channels[i], SLIMFACE, &p);
            }
            if (options.picture)
                manager->addChannelImageFilter(scene, channels[i], BASICIMAGE, &options.basic);
            if (!options.sticker.empty())
                manager->addChannelImageFilter(scene, channels[i], STICKER, &options.sticker);
        }
        std::printf("effects on channels after the first: smooth %g, red lips %g, whitening %g, slim face %g "
                    "(negative: off)\n",
                    options.smooth, options.redLips, options.whitening, options.slimFace);
        if (options.picture)
            std::printf("picture settings on the same channels\n");
        if (!options.sticker.empty())
            std::printf("sticker %s on the same channels\n", options.sticker.c_str());
        // Let the channels take their filters before the first frame.
        QThread::msleep(200);
    }
    // Effects need the channel's GPU path; plain channels are handed over directly.
    const bool direct = !options.effects();
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
    if (options.effects())
        std::printf("before (left) and after (right): ");
    std::printf("wrote %s\n", qPrintable(options.output));
    // The engine stops its scenes and channels when the application goes.
    return 0;
}
