#pragma once
// The audio of a video file being written: a stream of the output file, and
// its packets handed to the muxer as the pictures reach their times.
#include <functional>
#include <memory>

#include <QString>

struct AVFormatContext;
struct AVStream;
struct AVCodecContext;
struct AVFrame;
struct AVPacket;

class AudioSource {
public:
    virtual ~AudioSource() = default;
    // Adds the audio stream to the output; false, with a message, when it can't go there.
    virtual bool addStream(AVFormatContext* out, QString& error) = 0;
    // Writes the audio that plays before `seconds` of the output.
    virtual bool writeUntil(AVFormatContext* out, double seconds, QString& error) = 0;
    // Writes the rest up to `seconds`, where the output ends, and flushes.
    virtual bool finish(AVFormatContext* out, double seconds, QString& error) = 0;
};

// The audio stream of a file copied packet for packet, as it is, in step with
// that file's video: `origin` is the time of its first picture, in seconds of
// the file, which becomes 0 of the output. Packets past the output's end are
// left out.
class CopiedAudio : public AudioSource {
public:
    // Null when the file has no audio stream.
    static std::unique_ptr<CopiedAudio> open(const QString& path, double origin);
    ~CopiedAudio() override;

    bool addStream(AVFormatContext* out, QString& error) override;
    bool writeUntil(AVFormatContext* out, double seconds, QString& error) override;
    bool finish(AVFormatContext* out, double seconds, QString& error) override;

private:
    CopiedAudio() = default;
    // Reads the file's next audio packet into `packet_`; false at its end.
    bool readPacket();
    double packetTime() const;

    AVFormatContext* file_ = nullptr;
    int stream_ = -1;
    AVStream* outStream_ = nullptr;
    AVPacket* packet_ = nullptr;
    bool pending_ = false;  // packet_ holds a packet not yet written
    bool ended_ = false;
    double origin_ = 0;
};

// A generated sound, encoded to AAC at 48 kHz, mono: `wave(t)` gives the
// sample at t seconds, from -1 to 1.
class GeneratedAudio : public AudioSource {
public:
    explicit GeneratedAudio(std::function<float(double)> wave);
    ~GeneratedAudio() override;

    bool addStream(AVFormatContext* out, QString& error) override;
    bool writeUntil(AVFormatContext* out, double seconds, QString& error) override;
    bool finish(AVFormatContext* out, double seconds, QString& error) override;

private:
    bool writeSamples(AVFormatContext* out, long long until, bool last, QString& error);
    bool encode(AVFormatContext* out, AVFrame* frame, QString& error);

    std::function<float(double)> wave_;
    AVCodecContext* encoder_ = nullptr;
    AVStream* outStream_ = nullptr;
    long long samples_ = 0;  // samples encoded so far
};
