#pragma once
// A video file written picture by picture at a constant frame rate, with an
// audio stream beside it. The file is written under a temporary name next to
// its place and renamed there only when it is complete, so a failed or
// abandoned recording leaves no broken file behind.
#include <memory>

#include <QImage>
#include <QString>

#include "AudioSource.h"

struct AVFormatContext;

struct VideoFormat {
    int width = 0;  // odd sides take pictures without chroma subsampling
    int height = 0;
    int rateNum = 25;  // frames a second, num / den
    int rateDen = 1;
    QString encoder;  // FFmpeg's name of an encoder; empty: H.264 where there is one, else MPEG-4 Part 2
};

class VideoWriter {
public:
    // Opens the output and its temporary file; null with a message when the
    // path can't be written, its container isn't known, or no encoder opens.
    // `audio` may be null. A sound that can't go into the container is left
    // out, with the reason in `audioNote`.
    static std::unique_ptr<VideoWriter> open(const QString& path, const VideoFormat& format,
                                             std::unique_ptr<AudioSource> audio, QString& error,
                                             QString* audioNote = nullptr);
    // An unfinished file is removed.
    ~VideoWriter();

    // Writes the next picture (any format; scaled if its size differs).
    bool write(const QImage& picture, QString& error);
    // Flushes the encoder, ends the audio with the pictures and puts the file in place.
    bool finish(QString& error);

    QString encoderName() const;
    bool hasAudio() const { return audio_ != nullptr; }
    long long framesWritten() const { return frames_; }
    double secondsWritten() const;

private:
    VideoWriter() = default;
    bool openEncoder(const QString& name, QString& error);
    bool convert(const QImage& picture, QString& error);
    bool drain(QString& error);
    void abandon();

    struct Codec;
    std::unique_ptr<Codec> codec_;
    VideoFormat format_;
    QString path_;
    QString temporary_;
    AVFormatContext* out_ = nullptr;
    std::unique_ptr<AudioSource> audio_;
    long long frames_ = 0;
    bool finished_ = false;
};
