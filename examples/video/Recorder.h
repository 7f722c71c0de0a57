#pragma once
// Plays the inputs through the engine the way cameras would and records the
// merged picture.
//
// Each input's pictures are handed to its channels at their own times on one
// clock; the merged picture is fetched and recorded at the output rate. The
// engine is live (the newest picture wins, channels keep their own pace), so
// the clock runs in real time. When the machine can't keep up (a decoder or
// the encoder falls behind), the clock waits rather than skipping pictures:
// the output always has every frame at its real time, and the speed against
// real time drops below 1.
#include <chrono>
#include <memory>
#include <vector>

#include <QImage>

#include "AsyncWriter.h"
#include "GridLayout.h"
#include "Progress.h"
#include "RecorderOptions.h"
#include "RecordingScene.h"
#include "VideoInput.h"

class Recorder {
public:
    explicit Recorder(const RecorderOptions& options);
    ~Recorder();

    // Records; the process's exit status: 0 done, 1 an input or the output
    // failed (with a message on stderr), 130 stopped by interrupt() (what was
    // recorded until then is written).
    int run();
    // Ends the recording early; safe in a signal handler.
    static void interrupt();

private:
    struct Feed;
    bool openInputs();
    bool openOutput();
    void warmUp();
    void play();
    // Hands each input's newest due picture to its channels.
    void handIn(double now);
    bool record();
    bool finish();
    double clock() const;
    void chooseEnd();
    // The progress line, four times a second, on a terminal.
    void showProgress();

    RecorderOptions options_;
    std::vector<Feed> feeds_;
    GridLayout grid_;
    int rateNum_ = 25, rateDen_ = 1;
    std::unique_ptr<RecordingScene> scene_;
    std::unique_ptr<AsyncWriter> writer_;

    std::chrono::steady_clock::time_point start_;
    double stalled_ = 0;  // seconds the clock waited
    long long frame_ = 0;  // the next output frame
    long long lastFrame_ = -1;  // the number of frames to record, once known
    long long pngFrame_ = -1;
    bool pngWritten_ = false;
    QImage previous_;
    RecordingFigures figures_;
    double cpuAtStart_ = 0;
    std::chrono::steady_clock::time_point lastProgress_;
    bool progress_ = false;
};
