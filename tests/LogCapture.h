#pragma once
// Collects the Qt log lines written, on any thread, while it lives. One at a
// time: a new capture starts from an empty list, and with the engine's
// warning limits forgotten, so that each test sees its first warnings.

#include <mutex>
#include <utility>
#include <vector>

#include <QString>
#include <QStringList>
#include <QtGlobal>

#include "base/WarningLimit.h"

class LogCapture {
public:
    LogCapture()
    {
        std::lock_guard<std::mutex> lock(mutex);
        lines.clear();
        lumenlog::resetWarningLimits();
        previous = qInstallMessageHandler(&LogCapture::handler);
    }
    ~LogCapture() { qInstallMessageHandler(previous); }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    // How many lines contain `text`; with `type`, lines of that level only.
    int count(const QString& text, int type = -1) const
    {
        std::lock_guard<std::mutex> lock(mutex);
        int n = 0;
        for (const auto& line : lines)
            n += (type < 0 || line.first == type) && line.second.contains(text);
        return n;
    }
    bool contains(const QString& text, int type = -1) const { return count(text, type) > 0; }
    // Every line, for failure messages.
    std::string all() const
    {
        std::lock_guard<std::mutex> lock(mutex);
        QStringList text;
        for (const auto& line : lines)
            text << line.second;
        return text.join("\n").toStdString();
    }

private:
    static void handler(QtMsgType type, const QMessageLogContext&, const QString& message)
    {
        std::lock_guard<std::mutex> lock(mutex);
        lines.emplace_back(type, message);
    }
    static inline std::mutex mutex;
    static inline std::vector<std::pair<QtMsgType, QString>> lines;
    QtMessageHandler previous = nullptr;
};
