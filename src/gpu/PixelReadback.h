#pragma once
// Reading a framebuffer back into a host's picture through pixel pack
// buffers. Every read of the channel worker and the scene's merger goes
// through here. The rows come out as a QImage holds them: each padded to a
// multiple of 4 bytes, the pack alignment that is set for the read, so that
// a picture of 3 bytes a pixel gets whole rows, the tail of its last ones
// included.

#include <QOpenGLBuffer>
#include <QOpenGLFunctions>

namespace readback {

// How a read of width x height pixels in a GL pixel format lies in memory.
struct Layout {
    GLenum format = GL_RGBA;
    int width = 0;
    int height = 0;
    int bytesPerPixel = 4;
    int rowBytes = 0;  // padded to a multiple of 4
    int byteCount() const { return rowBytes * height; }
    // What a pack buffer is given for the read: the padded picture, and at
    // least 4 bytes a pixel, so that a buffer serves both formats.
    int capacity() const;
};

// The layout of a read in GL_RGB, GL_BGR (3 bytes a pixel), GL_RGBA or
// GL_BGRA (4). No GL.
Layout layout(int width, int height, GLenum format);

// GL_RGBA with alpha, else `withoutAlpha`: the "ByAlpha" of the readers.
inline GLenum formatByAlpha(bool withAlpha, GLenum withoutAlpha = GL_RGB)
{
    return withAlpha ? GL_RGBA : withoutAlpha;
}

// Starts the transfer of the bound framebuffer's pixels into `buffer`,
// which is created for streaming reads and grown when it is smaller than the
// read needs. The buffer is left bound.
void start(QOpenGLFunctions* gl, QOpenGLBuffer& buffer, const Layout& layout);

// Copies what a read left in `buffer` into `target` and releases the buffer.
void finish(QOpenGLBuffer& buffer, uchar* target, const Layout& layout);

// Gives `buffer` `bytes` of storage, creating it for streaming reads where
// needed; it is left unbound.
void allocate(QOpenGLBuffer& buffer, int bytes);

// Both: the bound framebuffer's pixels of this frame into `target`.
void readNow(QOpenGLFunctions* gl, QOpenGLBuffer& buffer, uchar* target, const Layout& layout);

// The pixel pack buffers of one read path, owned by it: a pair that reads
// as a ring, and one for reads that wait for their frame.
class PathBuffers {
public:
    // Reads this frame, through the single buffer.
    void readNow(QOpenGLFunctions* gl, uchar* target, const Layout& layout);
    // Starts this frame's read in the ring and hands out the one started at
    // the call before, so that nothing waits for the transfer just started.
    // With `firstRead` (the first read after a change of size) it hands out
    // this frame's and clears the flag.
    void readRing(QOpenGLFunctions* gl, uchar* target, const Layout& layout, bool& firstRead);
    // Gives every buffer `bytes` of storage, creating it where needed.
    void allocate(int bytes);

    // The three buffers, for the destruction paths of their worker.
    QOpenGLBuffer* buffer(int i) { return i == 0 ? &ring[0] : i == 1 ? &ring[1] : &single; }
    static constexpr int kCount = 3;

private:
    QOpenGLBuffer ring[2] = {QOpenGLBuffer(QOpenGLBuffer::PixelPackBuffer),
                             QOpenGLBuffer(QOpenGLBuffer::PixelPackBuffer)};
    QOpenGLBuffer single{QOpenGLBuffer::PixelPackBuffer};
    int current = 0;  // the ring's buffer that takes the next read
};

}  // namespace readback
