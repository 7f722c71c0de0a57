#pragma once
// Helpers for the tests that draw: a context of their own, the log lines of a
// stretch of code, and pixels read straight from a framebuffer.

#include <mutex>
#include <vector>

#include <QImage>
#include <QOffscreenSurface>
#include <QOpenGLContext>
#include <QOpenGLFramebufferObject>
#include <QOpenGLFunctions>
#include <QString>
#include <QStringList>
#include <QSurfaceFormat>

namespace gltest {

// A 3.3 compatibility context on an offscreen surface, current while the
// object lives. Build it on the thread of the QGuiApplication.
class ScopedContext {
public:
    explicit ScopedContext(QSurfaceFormat::OpenGLContextProfile profile = QSurfaceFormat::CompatibilityProfile)
    {
        QSurfaceFormat format;
        format.setVersion(3, 3);
        format.setProfile(profile);
        surface.setFormat(format);
        surface.create();
        context.setFormat(format);
        ok = context.create() && context.makeCurrent(&surface);
        if (ok)
            functions = context.functions();
    }
    ~ScopedContext()
    {
        if (ok)
            context.doneCurrent();
    }
    bool makeCurrent() { return context.makeCurrent(&surface); }

    QOffscreenSurface surface;
    QOpenGLContext context;
    QOpenGLFunctions* functions = nullptr;
    bool ok = false;
};

// Collects the log lines written while it lives (and still prints them).
class LogCapture {
public:
    LogCapture()
    {
        std::lock_guard<std::mutex> lock(mutex());
        lines().clear();
        previous = qInstallMessageHandler(&LogCapture::handler);
    }
    ~LogCapture() { qInstallMessageHandler(previous); }

    QStringList messages() const
    {
        std::lock_guard<std::mutex> lock(mutex());
        return lines();
    }
    bool contains(const QString& text) const
    {
        for (const QString& line : messages())
            if (line.contains(text))
                return true;
        return false;
    }

private:
    static void handler(QtMsgType, const QMessageLogContext&, const QString& message)
    {
        {
            std::lock_guard<std::mutex> lock(mutex());
            lines().append(message);
        }
        fprintf(stderr, "%s\n", qPrintable(message));
    }
    static std::mutex& mutex()
    {
        static std::mutex m;
        return m;
    }
    static QStringList& lines()
    {
        static QStringList l;
        return l;
    }
    QtMessageHandler previous = nullptr;
};

// The framebuffer's pixels as RGBA bytes, row 0 first (the bottom row in GL
// terms, the top row of a picture that was uploaded as it is).
inline QImage readRgba(QOpenGLFunctions* f, QOpenGLFramebufferObject* fbo)
{
    QImage image(fbo->width(), fbo->height(), QImage::Format_RGBA8888);
    fbo->bind();
    f->glPixelStorei(GL_PACK_ALIGNMENT, 4);
    f->glReadPixels(0, 0, fbo->width(), fbo->height(), GL_RGBA, GL_UNSIGNED_BYTE, image.bits());
    QOpenGLFramebufferObject::bindDefault();
    return image;
}

// Bytes of one pixel of an RGBA8888 picture.
struct Rgba {
    int r, g, b, a;
};
inline Rgba rgbaAt(const QImage& image, int x, int y)
{
    const uchar* p = image.constScanLine(y) + 4 * x;
    return {p[0], p[1], p[2], p[3]};
}

}  // namespace gltest
