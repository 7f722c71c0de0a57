#pragma once
// The effect and picture options that the example hosts share: their names
// on the command line, how they read, and how they go on a channel.
#include <string>

#include <QCommandLineOption>
#include <QCommandLineParser>
#include <QList>
#include <QString>

#include <lumen_fx/OpenglImageManager.h>

struct EffectSettings {
    // Face effects and their strengths; a negative strength leaves the effect off.
    double smooth = -1;
    double redLips = -1;
    double whitening = -1;
    double slimFace = -1;
    // Picture colour and geometry: the record as the host sends it, and whether any option set it.
    _basic_image_param basic = plainPicture();
    bool picture = false;
    // A face sticker file; empty for none.
    std::string sticker;

    bool any() const { return faceEffects() || picture || !sticker.empty(); }
    bool faceEffects() const { return smooth >= 0 || redLips >= 0 || whitening >= 0 || slimFace >= 0; }
    // One line that names what is on, e.g. "smooth 80, red lips 150, sticker bear".
    QString describe() const;

    static _basic_image_param plainPicture();
};

// Adds the options to a parser and reads them back.
class EffectOptions {
public:
    void addTo(QCommandLineParser& parser);
    // False, with a message in `error`, for a value that doesn't read as a number.
    bool read(const QCommandLineParser& parser, EffectSettings& out, QString& error) const;

private:
    QList<QCommandLineOption> strengths_;  // smooth, red lips, whitening, slim face
    QList<QCommandLineOption> picture_;    // one per picture option, in table order
    QList<QCommandLineOption> sticker_;
};

// A sticker named on the command line: a file as it stands, or the name of one
// of the project's own stickers (installed beside the program, or in the build).
QString stickerPath(const QString& nameOrFile);

// Puts the settings on a channel: face effects, then the picture settings and the sticker.
void applyEffects(const OpenglImageManager* manager, int scene, int channel, EffectSettings& settings);
