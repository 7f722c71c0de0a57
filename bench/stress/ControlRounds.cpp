#include "stress/ControlRounds.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include <unistd.h>

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QThread>

namespace stress {

namespace {

// The stacks of every thread of the process, written by gdb into `path`.
void writeStacks(const QString& path)
{
    const QString command = QStringLiteral("gdb -p %1 -batch -ex 'thread apply all bt 30' > '%2' 2>&1")
                                .arg(getpid())
                                .arg(path);
    const int status = std::system(qPrintable(command));
    std::printf("the late control scene shows nothing yet: stacks written to %s (status %d)\n", qPrintable(path),
                status);
    std::fflush(stdout);
}

}  // namespace

void feedAndCheck(Controls& controls, bool all, const QString& failureDir, StampChecker& checker)
{
    for (auto& control : controls) {
        if (all || !control->late()) {
            control->feed();
            control->check(failureDir);
            if (!control->lastFetched().isNull())
                checker.offer(control->scene(), control->ownStamp(), control->lastFetched());
        }
    }
}

void runAfterStorm(Controls& controls, const QString& failureDir, StampChecker& checker)
{
    QElapsedTimer timer;
    timer.start();
    bool stacksWritten = false;
    int rounds = 0;
    qint64 longestFeedsMs = 0, longestEventsMs = 0;
    qint64 stacksMs = 0;  // gdb stops every thread while it writes: the window is longer by that
    while (timer.elapsed() - stacksMs < kAfterStormMs) {
        QElapsedTimer round;
        round.start();
        feedAndCheck(controls, true, failureDir, checker);
        longestFeedsMs = std::max(longestFeedsMs, round.restart());
        for (auto& control : controls) {
            if (!stacksWritten && control->late() && control->firstShownMs() < 0
                && control->sinceFirstFeedMs() >= kStacksAfterMs) {
                QElapsedTimer writing;
                writing.start();
                writeStacks(QDir(failureDir).filePath(QStringLiteral("stacks-late-control.txt")));
                stacksMs = writing.elapsed();
                round.restart();
                stacksWritten = true;
            }
        }
        QCoreApplication::processEvents();
        longestEventsMs = std::max(longestEventsMs, round.elapsed());
        ++rounds;
        QThread::msleep(kAfterStormPeriodMs);
    }
    std::printf("after the storm: %d rounds in %lld ms; feeding and checking the controls took %lld ms at the "
                "longest, the GUI thread's events %lld ms; writing the stacks %lld ms (the late control's times "
                "include it)\n",
                rounds, static_cast<long long>(timer.elapsed()), static_cast<long long>(longestFeedsMs),
                static_cast<long long>(longestEventsMs), static_cast<long long>(stacksMs));
}

}  // namespace stress
