#include "AsyncWriter.h"

AsyncWriter::AsyncWriter(std::unique_ptr<VideoWriter> writer, int depth)
    : writer_(std::move(writer)), depth_(std::max(1, depth)), thread_([this] { run(); })
{
}

AsyncWriter::~AsyncWriter()
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        closing_ = true;
        queue_.clear();
    }
    changed_.notify_all();
    thread_.join();
}

void AsyncWriter::run()
{
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        changed_.wait(lock, [this] { return closing_ || !queue_.empty(); });
        if (queue_.empty())
            return;
        const QImage picture = queue_.front();
        queue_.pop_front();
        busy_ = true;
        const bool failed = !error_.isEmpty();
        lock.unlock();
        QString failure;
        const bool ok = !failed && writer_->write(picture, failure);
        lock.lock();
        busy_ = false;
        if (!ok && error_.isEmpty())
            error_ = failure;
        changed_.notify_all();
    }
}

bool AsyncWriter::push(const QImage& picture)
{
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] { return int(queue_.size()) < depth_ || !error_.isEmpty(); });
    if (!error_.isEmpty())
        return false;
    queue_.push_back(picture);
    changed_.notify_all();
    return true;
}

bool AsyncWriter::finish(QString& error)
{
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] { return (queue_.empty() && !busy_) || !error_.isEmpty(); });
    if (!error_.isEmpty()) {
        error = error_;
        return false;
    }
    // The thread waits for pictures with the lock let go: finishing here is alone with the writer.
    if (!writer_->finish(error_)) {
        error = error_;
        return false;
    }
    return true;
}

QString AsyncWriter::error() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return error_;
}
