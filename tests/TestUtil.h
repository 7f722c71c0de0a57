#pragma once
// Helpers shared by the tests.

#include <chrono>
#include <functional>
#include <string>

#include <QCoreApplication>
#include <QDir>
#include <QImage>
#include <QThread>

namespace testutil {

// Polls `condition` while processing events, up to `timeoutMs`.
inline bool waitFor(const std::function<bool()>& condition, int timeoutMs = 5000)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (std::chrono::steady_clock::now() < deadline) {
        if (condition())
            return true;
        QCoreApplication::processEvents();
        QThread::msleep(5);
    }
    return condition();
}

inline QString testDataPath(const char* name) { return QString(LUMEN_TESTDATA_DIR) + "/" + name; }

// The bundled portrait (512x512, one frontal face), in the format asked for.
inline QImage portrait(QImage::Format format = QImage::Format_RGBA8888)
{
    static const QImage loaded(testDataPath("astronaut.png"));
    return loaded.convertToFormat(format);
}

// Where tests write the pictures that a person should look at.
inline QString outputPath(const char* name)
{
    QDir().mkpath(LUMEN_TEST_OUTPUT_DIR);
    return QString(LUMEN_TEST_OUTPUT_DIR) + "/" + name;
}

}  // namespace testutil
