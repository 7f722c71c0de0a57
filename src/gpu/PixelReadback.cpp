#include "gpu/PixelReadback.h"

#include <algorithm>

namespace readback {

namespace {

// The pack alignment of every read, and the row alignment of a QImage.
constexpr int kRowAlignment = 4;

// Creates the buffer for streaming reads where needed, binds it, and grows
// it to `bytes` when it is smaller.
void prepare(QOpenGLBuffer& buffer, int bytes)
{
    if (!buffer.isCreated()) {
        buffer.create();
        buffer.setUsagePattern(QOpenGLBuffer::StreamRead);
    }
    buffer.bind();
    if (buffer.size() < bytes)
        buffer.allocate(bytes);
}

}  // namespace

int Layout::capacity() const
{
    return std::max(byteCount(), width * height * 4);
}

Layout layout(int width, int height, GLenum format)
{
    Layout result;
    result.format = format;
    result.width = width;
    result.height = height;
    result.bytesPerPixel = (format == GL_RGB || format == GL_BGR) ? 3 : 4;
    const int tight = result.bytesPerPixel * width;
    result.rowBytes = (tight + kRowAlignment - 1) / kRowAlignment * kRowAlignment;
    return result;
}

void start(QOpenGLFunctions* gl, QOpenGLBuffer& buffer, const Layout& layout)
{
    prepare(buffer, layout.capacity());
    gl->glPixelStorei(GL_PACK_ALIGNMENT, kRowAlignment);
    gl->glReadPixels(0, 0, layout.width, layout.height, layout.format, GL_UNSIGNED_BYTE, nullptr);
}

void finish(QOpenGLBuffer& buffer, uchar* target, const Layout& layout)
{
    buffer.bind();
    buffer.read(0, target, layout.byteCount());
    buffer.release();
}

void readNow(QOpenGLFunctions* gl, QOpenGLBuffer& buffer, uchar* target, const Layout& layout)
{
    start(gl, buffer, layout);
    finish(buffer, target, layout);
}

void PathBuffers::readNow(QOpenGLFunctions* gl, uchar* target, const Layout& layout)
{
    readback::readNow(gl, single, target, layout);
}

void PathBuffers::readRing(QOpenGLFunctions* gl, uchar* target, const Layout& layout, bool& firstRead)
{
    QOpenGLBuffer& started = ring[current];
    QOpenGLBuffer& before = ring[1 - current];
    start(gl, started, layout);
    if (firstRead) {
        finish(started, target, layout);
        firstRead = false;
    } else {
        started.release();
        prepare(before, layout.capacity());
        finish(before, target, layout);
    }
    current = 1 - current;
}

void allocate(QOpenGLBuffer& buffer, int bytes)
{
    prepare(buffer, 0);
    buffer.allocate(bytes);
    buffer.release();
}

void PathBuffers::allocate(int bytes)
{
    for (int i = 0; i < kCount; ++i)
        readback::allocate(*buffer(i), bytes);
}

}  // namespace readback
