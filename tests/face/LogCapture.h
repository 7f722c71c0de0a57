#pragma once
// Collects the Qt log lines written while it lives.

#include <QString>
#include <QStringList>
#include <QtGlobal>

class LogCapture {
public:
    LogCapture()
    {
        current() = this;
        previous = qInstallMessageHandler(&LogCapture::handler);
    }
    ~LogCapture()
    {
        qInstallMessageHandler(previous);
        current() = nullptr;
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    bool contains(const QString& text) const
    {
        for (const QString& line : lines)
            if (line.contains(text))
                return true;
        return false;
    }

    QStringList lines;

private:
    static void handler(QtMsgType, const QMessageLogContext&, const QString& msg)
    {
        if (current())
            current()->lines << msg;
    }
    static LogCapture*& current()
    {
        static LogCapture* capture = nullptr;
        return capture;
    }
    QtMessageHandler previous = nullptr;
};
