#pragma once
// Checks, on a thread of its own, pictures fetched from the scenes: none may
// show the stamp of another scene. Pictures offered while it is busy
// are dropped, so the check never slows the storm down; the figures say how
// many were checked. The first failing picture is written to disk.

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

#include <QImage>
#include <QString>

namespace stress {

class StampChecker {
public:
    explicit StampChecker(const QString& failureDir);
    ~StampChecker();
    StampChecker(const StampChecker&) = delete;
    StampChecker& operator=(const StampChecker&) = delete;

    // A picture fetched from `scene`, whose own stamps are the bits of `own`.
    void offer(int scene, unsigned own, const QImage& picture);
    // Checks what is queued and stops the thread.
    void finish();

    // Checked pictures that showed another scene's stamp.
    long failures() const;
    // The pictures offered and checked, those that showed one of their own
    // stamps and those that showed another's.
    QString summary() const;

private:
    struct Item {
        int scene;
        unsigned own;
        QImage picture;
    };
    void run();
    void checkOne(const Item& item);

    QString failureDir_;
    mutable std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<Item> queue_;
    bool stopping_ = false;
    long offered_ = 0;
    long checked_ = 0;
    long showingOwn_ = 0;
    long failures_ = 0;
    QString firstFailure_;
    std::thread thread_;
};

}  // namespace stress
