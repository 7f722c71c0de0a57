#include "engine/EngineExit.h"

#include <thread>

#include <QImage>
#include <QOffscreenSurface>
#include <QOpenGLContext>
#include <QOpenGLFramebufferObject>
#include <QOpenGLFunctions>
#include <QOpenGLShaderProgram>
#include <QReadWriteLock>
#include <opencv2/imgproc.hpp>

#include "base/DriverLock.h"
#include "base/Logging.h"
#include "channel/ImageFilters.h"

namespace {

// Each of these makes, on first use, process-wide state that registers its
// own destructor: the logging categories, the meta types of the queued
// calls, the contended state of Qt's read-write locks, the GL driver and the
// compiler behind it (at the first draw), Qt's image conversions, OpenCV.
void bringUpProcessWideState()
{
    for (const QLoggingCategory& category : {std::cref(lcEngine()), std::cref(lcChannel()), std::cref(lcScene()),
                                              std::cref(lcGpu()), std::cref(lcFilters()), std::cref(lcFace()),
                                              std::cref(lcConvert())})
        (void)category.isDebugEnabled();
    ImageFilters::registerMetaTypes();

    QReadWriteLock lock;
    lock.lockForWrite();
    std::thread contender([&lock] {
        if (lock.tryLockForRead(20))
            lock.unlock();
    });
    contender.join();
    lock.unlock();

    QOffscreenSurface surface;
    surface.create();
    GlDriverTurn turn;
    QOpenGLContext context;
    if (context.create() && context.makeCurrent(&surface)) {
        QOpenGLFunctions* f = context.functions();
        QOpenGLShaderProgram program;
        program.addShaderFromSourceCode(QOpenGLShader::Vertex,
                                        "attribute vec4 a_position; void main() { gl_Position = a_position; }");
        program.addShaderFromSourceCode(QOpenGLShader::Fragment, "void main() { gl_FragColor = vec4(1.0); }");
        program.bindAttributeLocation("a_position", 0);
        if (program.link()) {
            QOpenGLFramebufferObject target(8, 8);
            target.bind();
            program.bind();
            const GLfloat quad[] = {-1, -1, 1, -1, -1, 1, 1, 1};
            f->glVertexAttribPointer(0, 2, GL_FLOAT, GL_FALSE, 0, quad);
            f->glEnableVertexAttribArray(0);
            f->glDrawArrays(GL_TRIANGLE_STRIP, 0, 4);
            f->glDisableVertexAttribArray(0);
            uchar pixel[4];
            f->glReadPixels(0, 0, 1, 1, GL_RGBA, GL_UNSIGNED_BYTE, pixel);
            target.release();
        }
        context.doneCurrent();
    }

    QImage picture(512, 512, QImage::Format_ARGB32);
    picture.fill(Qt::gray);
    picture = picture.convertToFormat(QImage::Format_RGBA8888).scaled(256, 256, Qt::IgnoreAspectRatio,
                                                                      Qt::SmoothTransformation);
    cv::Mat mat(512, 512, CV_8UC3, cv::Scalar(128, 128, 128));
    cv::Mat grey;
    cv::cvtColor(mat, grey, cv::COLOR_BGR2GRAY);
    cv::resize(grey, grey, cv::Size(), 0.5, 0.5, cv::INTER_AREA);
}

}  // namespace

namespace engineexit {

void bringUpAndArm()
{
    static const bool done = [] {
        bringUpProcessWideState();
        arm();
        return true;
    }();
    (void)done;
}

}  // namespace engineexit
