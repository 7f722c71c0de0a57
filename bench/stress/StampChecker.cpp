#include "stress/StampChecker.h"

#include <cstdio>

#include <QDir>

#include "stress/SceneStamps.h"

namespace stress {

namespace {

const size_t kQueueLimit = 2;

}  // namespace

StampChecker::StampChecker(const QString& failureDir) : failureDir_(failureDir)
{
    thread_ = std::thread(&StampChecker::run, this);
}

StampChecker::~StampChecker()
{
    finish();
}

void StampChecker::offer(int scene, unsigned own, const QImage& picture)
{
    std::lock_guard<std::mutex> lock(mutex_);
    ++offered_;
    if (stopping_ || queue_.size() >= kQueueLimit)
        return;
    queue_.push_back(Item{scene, own, picture});
    wake_.notify_one();
}

void StampChecker::finish()
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
        wake_.notify_one();
    }
    if (thread_.joinable())
        thread_.join();
}

void StampChecker::run()
{
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        wake_.wait(lock, [this] { return stopping_ || !queue_.empty(); });
        if (queue_.empty())
            return;
        const Item item = queue_.front();
        queue_.pop_front();
        lock.unlock();
        checkOne(item);
        lock.lock();
    }
}

void StampChecker::checkOne(const Item& item)
{
    const unsigned found = stampsIn(item.picture);
    const unsigned foreign = found & ~item.own;
    std::lock_guard<std::mutex> lock(mutex_);
    ++checked_;
    showingOwn_ += (found & item.own) != 0;
    if (!foreign)
        return;
    ++failures_;
    if (!firstFailure_.isEmpty())
        return;
    firstFailure_ = QDir(failureDir_).filePath(QStringLiteral("isolation-scene%1.png").arg(item.scene));
    item.picture.save(firstFailure_);
    std::printf("isolation: a picture of scene %d shows the stamp of another scene (stamps 0x%x, its own 0x%x); "
                "written to %s\n",
                item.scene, found, item.own, qPrintable(firstFailure_));
    std::fflush(stdout);
}

long StampChecker::failures() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return failures_;
}

QString StampChecker::summary() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return QStringLiteral("isolation: %1 of %2 pictures fetched from the scenes checked, %3 of them showing their "
                          "own scene's stamp, %4 showing another scene's")
        .arg(checked_)
        .arg(offered_)
        .arg(showingOwn_)
        .arg(failures_);
}

}  // namespace stress
