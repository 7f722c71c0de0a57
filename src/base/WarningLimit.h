#pragma once
// Warnings about a host's bad calls are limited, so that a host with a bug
// doesn't flood its own log: the first one of each message is written as it
// is; repeats from the same place in the code are written at most once every
// ten seconds, saying how many like them were left out since. Texts that
// differ only in their numbers (ids, sizes, types) are the same message. Use
// LUMEN_WARNING(category) where qCWarning(category) would stand; info lines
// are never limited.

#include <mutex>
#include <optional>

#include <QDebug>
#include <QHash>
#include <QLoggingCategory>
#include <QString>

namespace lumenlog {

const qint64 kWarningIntervalMs = 10000;

// The message a warning belongs to: its category and its text with every
// number (sign and decimals included) folded to '#'.
QString warningKey(const char* category, const QString& text);

// Knows the messages seen, counts repeats per call site and decides which
// warnings are written.
class WarningLimiter {
public:
    struct Verdict {
        bool write = true;
        int leftOut = 0;  // warnings of the message not written since the last one written
        qint64 sinceMs = 0;  // how long ago that one was written
    };
    // At most this many messages are remembered; past it, a new text counts
    // as a repeat until older messages have been quiet for the interval.
    static const int kMaxMessages = 256;

    // A warning of message `key` from call site `site`.
    Verdict admit(const QString& key, const QString& site, qint64 nowMs);
    void reset();

private:
    struct Site {
        qint64 writtenMs = 0;
        int leftOut = 0;
    };
    void makeRoom(qint64 nowMs);

    std::mutex mutex_;
    QHash<QString, qint64> messages_;  // the time each was last seen
    QHash<QString, Site> sites_;
};

// The limiter of the process.
WarningLimiter& warningLimiter();
// Forgets every message seen, for tests that count warnings.
void resetWarningLimits();

// Collects one warning's text, and on destruction writes it through Qt's
// message logger if the limiter lets it through.
class LimitedWarning {
public:
    // `site` and `siteLine` name the call site whatever the build; `file`,
    // `line` and `function` are the message context Qt's logger gets.
    LimitedWarning(const QLoggingCategory& category, const char* site, int siteLine, const char* file, int line,
                   const char* function);
    ~LimitedWarning();
    LimitedWarning(const LimitedWarning&) = delete;
    LimitedWarning& operator=(const LimitedWarning&) = delete;
    QDebug& stream() { return *debug_; }

private:
    const QLoggingCategory& category_;
    const char* site_;
    int siteLine_;
    const char* file_;
    int line_;
    const char* function_;
    QString text_;
    std::optional<QDebug> debug_;
};

}  // namespace lumenlog

#define LUMEN_WARNING(category)                                                                                   \
    for (bool lumenWarningEnabled = category().isWarningEnabled(); lumenWarningEnabled; lumenWarningEnabled = false) \
    ::lumenlog::LimitedWarning(category(), __FILE__, __LINE__, QT_MESSAGELOG_FILE, QT_MESSAGELOG_LINE,                \
                               QT_MESSAGELOG_FUNC)                                                               \
        .stream()
