#pragma once
// Helpers for the tests that draw: a context of their own, pixels read
// straight from a framebuffer, and the one comparison of pictures.

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <functional>
#include <string>
#include <tuple>

#include <QImage>
#include <QOffscreenSurface>
#include <QOpenGLContext>
#include <QOpenGLFramebufferObject>
#include <QOpenGLFunctions>
#include <QSurfaceFormat>
#include <gtest/gtest.h>

#include "TestUtil.h"

namespace gltest {

// A 3.3 context on an offscreen surface, current from construction until it
// goes. Build it on the thread of the QGuiApplication.
struct ScopedContext {
    explicit ScopedContext(QSurfaceFormat::OpenGLContextProfile profile = QSurfaceFormat::CompatibilityProfile)
    {
        QSurfaceFormat format;
        format.setVersion(3, 3);
        format.setProfile(profile);
        surface.setFormat(format);
        surface.create();
        context.setFormat(format);
        ok = context.create() && context.makeCurrent(&surface);
        functions = context.functions();
    }
    QOffscreenSurface surface;
    QOpenGLContext context;  // leaves the thread without a current context as it goes
    QOpenGLFunctions* functions = nullptr;
    bool ok = false;
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

// Compares `actual` with `expected` byte by byte as RGBA, at the pixels where
// `where` holds (all when it is empty). A difference above `tolerance` names
// the first bad pixel and, then only, writes <test>_<label>_actual.png and
// _expected.png into the test output.
inline ::testing::AssertionResult sameImage(const QImage& actual, const QImage& expected, int tolerance = 0,
                                            const char* label = "", const std::function<bool(int, int)>& where = {})
{
    if (actual.size() != expected.size())
        return ::testing::AssertionFailure() << "sizes differ: " << actual.width() << "x" << actual.height()
                                             << " against " << expected.width() << "x" << expected.height();
    const QImage a = actual.convertToFormat(QImage::Format_RGBA8888);
    const QImage e = expected.convertToFormat(QImage::Format_RGBA8888);
    int bad = 0, firstX = 0, firstY = 0;
    for (int y = 0; y < a.height(); ++y)
        for (int x = 0; x < a.width(); ++x) {
            const Rgba p = rgbaAt(a, x, y), q = rgbaAt(e, x, y);
            const int worst =
                std::max({std::abs(p.r - q.r), std::abs(p.g - q.g), std::abs(p.b - q.b), std::abs(p.a - q.a)});
            if (worst > tolerance && (!where || where(x, y)) && bad++ == 0)
                std::tie(firstX, firstY) = std::make_pair(x, y);
        }
    if (bad == 0)
        return ::testing::AssertionSuccess();
    const ::testing::TestInfo* test = ::testing::UnitTest::GetInstance()->current_test_info();
    std::string name = std::string(test->test_suite_name()) + "." + test->name() + "_" + label;
    std::replace_if(name.begin(), name.end(), [](char c) { return !std::isalnum(c) && c != '.' && c != '_'; }, '_');
    a.save(testutil::outputPath((name + "_actual.png").c_str()));
    e.save(testutil::outputPath((name + "_expected.png").c_str()));
    const Rgba p = rgbaAt(a, firstX, firstY), q = rgbaAt(e, firstX, firstY);
    return ::testing::AssertionFailure() << bad << " pixels differ by more than " << tolerance << ", first ("
                                         << firstX << ", " << firstY << "): " << p.r << " " << p.g << " " << p.b
                                         << " " << p.a << " against " << q.r << " " << q.g << " " << q.b << " "
                                         << q.a << "; see " << testutil::outputPath(name.c_str()).toStdString()
                                         << "_*.png";
}

}  // namespace gltest
