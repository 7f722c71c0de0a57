#pragma once
// A VideoWriter on a thread of its own, so that encoding doesn't hold up the
// player's clock. Pictures wait in a short queue; a full queue makes push wait.
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>

#include "VideoWriter.h"

class AsyncWriter {
public:
    explicit AsyncWriter(std::unique_ptr<VideoWriter> writer, int depth = 8);
    // Stops the thread; an unfinished file is removed.
    ~AsyncWriter();

    // Queues the next picture; false once writing has failed (see error()).
    bool push(const QImage& picture);
    // Writes what is queued and puts the file in place.
    bool finish(QString& error);
    QString error() const;
    const VideoWriter& writer() const { return *writer_; }

private:
    void run();

    std::unique_ptr<VideoWriter> writer_;
    const int depth_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<QImage> queue_;
    bool closing_ = false;
    bool busy_ = false;
    QString error_;
    std::thread thread_;
};
