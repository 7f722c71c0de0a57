#pragma once
// Helpers for the tests that draw: a context of their own, the bytes of a
// pixel, and the one comparison of pictures.

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <functional>

#include <QImage>
#include <QOffscreenSurface>
#include <QOpenGLContext>
#include <QOpenGLFunctions>
#include <gtest/gtest.h>

#include "TestUtil.h"

namespace gltest {

// A 3.3 context on an offscreen surface, current from construction until it
// goes. Build it on the thread of the QGuiApplication.
struct ScopedContext {
    ScopedContext()
    {
        QSurfaceFormat format;
        format.setVersion(3, 3);
        format.setProfile(QSurfaceFormat::CompatibilityProfile);
        surface.setFormat(format), context.setFormat(format);
        surface.create();
        ok = context.create() && context.makeCurrent(&surface);
        functions = context.functions();
    }
    QOffscreenSurface surface;
    QOpenGLContext context;  // leaves the thread without a current context as it goes
    QOpenGLFunctions* functions = nullptr;
    bool ok = false;
};

using Where = std::function<bool(int x, int y)>;

// How many pixels of two pictures of one size differ, as RGBA, in some byte
// by more than `tolerance`, at the pixels where `where` holds (all when it
// is empty); the first of them in `first`.
inline int differences(const QImage& a, const QImage& b, int tolerance = 0, const Where& where = {},
                       QPoint* first = nullptr)
{
    const QImage p = a.convertToFormat(QImage::Format_RGBA8888), q = b.convertToFormat(QImage::Format_RGBA8888);
    int count = 0;
    for (int y = 0; y < p.height(); ++y)
        for (int x = 0; x < p.width(); ++x) {
            const uchar *s = p.constScanLine(y) + 4 * x, *t = q.constScanLine(y) + 4 * x;
            const bool differs = std::abs(s[0] - t[0]) > tolerance || std::abs(s[1] - t[1]) > tolerance ||
                                 std::abs(s[2] - t[2]) > tolerance || std::abs(s[3] - t[3]) > tolerance;
            if (differs && (!where || where(x, y)) && count++ == 0 && first)
                *first = QPoint(x, y);
        }
    return count;
}

// Compares `actual` with `expected` as above. A difference names the first
// bad pixel and, then only, writes <test>_<label>_actual.png and
// _expected.png into the test output.
inline ::testing::AssertionResult sameImage(const QImage& actual, const QImage& expected, int tolerance = 0,
                                            const char* label = "", const Where& where = {})
{
    if (actual.size() != expected.size())
        return ::testing::AssertionFailure() << "sizes differ: " << actual.width() << "x" << actual.height()
                                             << " against " << expected.width() << "x" << expected.height();
    QPoint first;
    const int bad = differences(actual, expected, tolerance, where, &first);
    if (bad == 0)
        return ::testing::AssertionSuccess();
    const ::testing::TestInfo* test = ::testing::UnitTest::GetInstance()->current_test_info();
    std::string name = std::string(test->test_suite_name()) + "." + test->name() + "_" + label;
    std::replace_if(name.begin(), name.end(), [](char c) { return !std::isalnum(c) && c != '.' && c != '_'; }, '_');
    actual.save(testutil::outputPath((name + "_actual.png").c_str()));
    expected.save(testutil::outputPath((name + "_expected.png").c_str()));
    return ::testing::AssertionFailure() << bad << " pixels differ by more than " << tolerance << ", first at ("
                                         << first.x() << ", " << first.y() << "); see "
                                         << testutil::outputPath(name.c_str()).toStdString() << "_*.png";
}

}  // namespace gltest
