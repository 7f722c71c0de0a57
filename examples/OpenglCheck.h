#pragma once
// Whether this process can make an OpenGL context at all. Without one the
// engine drops every frame and merge (with debug lines only), so a host that
// measures or writes pictures says so and stops instead of reporting figures
// or a picture of nothing.
#include <cstdio>

#include <QOffscreenSurface>
#include <QOpenGLContext>

inline bool openglAvailable(const char* program)
{
    QOffscreenSurface surface;
    surface.create();
    QOpenGLContext context;
    const bool made = surface.isValid() && context.create() && context.makeCurrent(&surface);
    if (made)
        context.doneCurrent();
    else
        std::fprintf(stderr,
                     "%s: no OpenGL context can be made here; run it with a display, for example "
                     "QT_QPA_PLATFORM=offscreen xvfb-run -a %s\n",
                     program, program);
    return made;
}
