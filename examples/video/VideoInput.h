#pragma once
// One input file of the recorder: its video stream decoded on a thread of its
// own into pictures with their times, a few frames ahead of the player.
#include <atomic>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include <QImage>
#include <QString>

struct AVFormatContext;

// A decoded picture and the time it is shown at, in seconds from the
// stream's first picture.
struct DecodedFrame {
    QImage image;  // Format_RGB888
    double time = 0;
};

class VideoInput {
public:
    ~VideoInput();

    // Opens the file and its video stream and reads its first picture; null
    // with a message in `error` (naming the file and what is wrong) when it
    // can't be played.
    static std::unique_ptr<VideoInput> open(const QString& path, QString& error);

    const QString& path() const { return path_; }
    // The stream's frame rate, frames a second (25 where the file doesn't say).
    double frameRate() const { return frameRate_; }
    // The container's duration in seconds; 0 where it doesn't say.
    double statedDuration() const { return statedDuration_; }
    // Where the first picture lies in the file's own time, seconds: the 0 of the pictures' times.
    double startSeconds() const { return startSeconds_; }
    QSize firstSize() const { return first_.image.size(); }
    const QImage& firstImage() const { return first_.image; }

    // Starts decoding the rest, at most `depth` pictures ahead of take().
    void start(int depth = 6);
    // The next picture, waiting for the decoder if none is ready; false at the end.
    bool take(DecodedFrame& frame);
    // The time of the next picture, waiting for the decoder; false at the end.
    bool peekTime(double& time);
    // Stops the decoder (pictures not taken are dropped).
    void stop();

    // Pictures decoded so far, and the time where the last one ends.
    int framesRead() const;
    double endTime() const;
    // A warning for a damaged or cut-off file, once it has been read; empty otherwise.
    QString damage() const;

private:
    explicit VideoInput(const QString& path);
    bool openStream(QString& error);
    // Decodes the next picture; false at the end of what decodes.
    bool decodeNext(DecodedFrame& frame);
    bool receive(DecodedFrame& frame);
    void run();

    struct Codec;
    QString path_;
    AVFormatContext* format_ = nullptr;
    std::unique_ptr<Codec> codec_;
    int stream_ = -1;
    double frameRate_ = 25;
    double statedDuration_ = 0;
    double startSeconds_ = 0;
    DecodedFrame first_;
    bool firstTaken_ = false;

    // Written by the decoder thread.
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<DecodedFrame> queue_;
    int depth_ = 6;
    bool ended_ = false;
    bool readToEnd_ = false;  // the decoder ended at the end of what decodes, not stopped before
    bool stopping_ = false;
    int framesRead_ = 0;
    double endTime_ = 0;
    double lastTime_ = -1;
    int badPackets_ = 0;
    std::atomic<int> loggedErrors_{0};  // errors the demuxer and decoder reported
    QString readError_;
    std::thread thread_;
};
