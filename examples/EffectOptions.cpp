#include "EffectOptions.h"

#include <QCoreApplication>
#include <QFileInfo>

namespace {

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

// The face effects: option name, help, and the member of the settings.
struct StrengthOption {
    const char* name;
    const char* help;
    double EffectSettings::*strength;
};
const StrengthOption kStrengthOptions[] = {
    {"smooth", "Skin smoothing with this strength (e.g. 80).", &EffectSettings::smooth},
    {"redlips", "Red lips with this strength (e.g. 100).", &EffectSettings::redLips},
    {"whitening", "Whitening with this strength (e.g. 60).", &EffectSettings::whitening},
    {"slimface", "Slim face with this strength (e.g. 100).", &EffectSettings::slimFace},
};

bool readNumber(const QCommandLineParser& parser, const QCommandLineOption& option, double& out, QString& error)
{
    if (!parser.isSet(option))
        return true;
    bool ok = false;
    const double value = parser.value(option).toDouble(&ok);
    if (!ok) {
        error = QString("bad --%1 '%2': not a number").arg(option.names().constFirst(), parser.value(option));
        return false;
    }
    out = value;
    return true;
}

}  // namespace

_basic_image_param EffectSettings::plainPicture()
{
    _basic_image_param p{};
    p.alpha = 1.0;
    p.centerXOffset = 0.5;
    p.centerYOffset = 0.5;
    return p;
}

QString EffectSettings::describe() const
{
    QStringList on;
    for (const StrengthOption& o : kStrengthOptions)
        if (this->*o.strength >= 0)
            on << QString("%1 %2").arg(o.name).arg(this->*o.strength);
    if (picture)
        on << "picture settings";
    if (!sticker.empty())
        on << "sticker " + QFileInfo(QString::fromStdString(sticker)).completeBaseName();
    return on.isEmpty() ? QString("no effects") : on.join(", ");
}

void EffectOptions::addTo(QCommandLineParser& parser)
{
    for (const StrengthOption& o : kStrengthOptions) {
        strengths_ << QCommandLineOption(o.name, o.help, "strength");
        parser.addOption(strengths_.last());
    }
    for (const PictureOption& o : kPictureOptions) {
        picture_ << QCommandLineOption(o.name, o.help, "value");
        parser.addOption(picture_.last());
    }
    sticker_ << QCommandLineOption("sticker",
                                   "A face sticker: a PNG file, or one of the project's own by name (glasses01, "
                                   "cuteglasses, beret, bear, rabbit, faceplates, medal). Stickers are placed "
                                   "for 16:9 frames.",
                                   "name");
    parser.addOption(sticker_.last());
}

bool EffectOptions::read(const QCommandLineParser& parser, EffectSettings& out, QString& error) const
{
    for (int i = 0; i < strengths_.size(); ++i)
        if (!readNumber(parser, strengths_[i], out.*kStrengthOptions[i].strength, error))
            return false;
    for (int i = 0; i < picture_.size(); ++i) {
        if (!parser.isSet(picture_[i]))
            continue;
        double value = 0;
        if (!readNumber(parser, picture_[i], value, error))
            return false;
        const PictureOption& o = kPictureOptions[i];
        if (o.real)
            out.basic.*o.real = value;
        else
            out.basic.*o.integer = static_cast<int32_t>(value);
        out.picture = true;
    }
    // A channel box cuts the picture to its shape.
    out.basic.isClip = out.basic.channelWidth > 0 && out.basic.channelHeight > 0;
    if (parser.isSet(sticker_.constFirst()))
        out.sticker = stickerPath(parser.value(sticker_.constFirst())).toStdString();
    return true;
}

QString stickerPath(const QString& nameOrFile)
{
    if (nameOrFile.contains('/') || nameOrFile.endsWith(".png"))
        return nameOrFile;
    const QString installed =
        QCoreApplication::applicationDirPath() + "/../share/lumen_fx/stickers/" + nameOrFile + ".png";
    if (QFileInfo::exists(installed))
        return QFileInfo(installed).canonicalFilePath();
    return QString(LUMEN_STICKER_DIR "/%1.png").arg(nameOrFile);
}

void applyEffects(const OpenglImageManager* manager, int scene, int channel, EffectSettings& settings)
{
    const struct {
        ImageFilterType type;
        double strength;
    } face[] = {{SMOOTH, settings.smooth}, {REDLIPS, settings.redLips}, {WHITENING, settings.whitening}};
    for (const auto& f : face) {
        if (f.strength < 0)
            continue;
        _strength_param p{f.strength, true};
        manager->addChannelImageFilter(scene, channel, f.type, &p);
    }
    if (settings.slimFace >= 0) {
        _slim_face_param p{settings.slimFace};
        manager->addChannelImageFilter(scene, channel, SLIMFACE, &p);
    }
    if (settings.picture)
        manager->addChannelImageFilter(scene, channel, BASICIMAGE, &settings.basic);
    if (!settings.sticker.empty())
        manager->addChannelImageFilter(scene, channel, STICKER, &settings.sticker);
}
