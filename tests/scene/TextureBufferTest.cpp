// The meeting point of a channel and its scene: the picture slot, and the
// textures under the process-wide lock.
#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <thread>

#include <QOpenGLFramebufferObject>
#include <gtest/gtest.h>

#include "gpu/GlTestSupport.h"
#include "scene/TextureBuffer.h"

namespace {

// A current GL context for the texture operations.
class GlFixture : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(gl.ok); }
    // One RGBA pixel of a texture, read through a framebuffer of its own.
    QColor texturePixel(unsigned int texture, int x, int y)
    {
        QOpenGLFunctions* f = gl.functions;
        GLuint fb = 0;
        uchar px[4] = {0, 0, 0, 0};
        f->glGenFramebuffers(1, &fb);
        f->glBindFramebuffer(GL_FRAMEBUFFER, fb);
        f->glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, texture, 0);
        f->glReadPixels(x, y, 1, 1, GL_RGBA, GL_UNSIGNED_BYTE, px);
        f->glBindFramebuffer(GL_FRAMEBUFFER, 0);
        f->glDeleteFramebuffers(1, &fb);
        return QColor(px[0], px[1], px[2], px[3]);
    }
    gltest::ScopedContext gl;
};

// Runs `operation` while another thread holds the shared texture lock for
// reading, until the operation returns or 300 ms have passed; true if the
// operation waited for that reader.
bool waitsForReader(const std::function<void()>& operation)
{
    std::promise<void> locked, done;
    std::atomic<bool> released{false};
    std::thread reader([&] {
        sharedTextureLock().lockForRead();
        locked.set_value();
        done.get_future().wait_for(std::chrono::milliseconds(300));
        released = true;
        sharedTextureLock().unlock();
    });
    locked.get_future().wait();
    operation();
    const bool waited = released;
    done.set_value();
    reader.join();
    return waited;
}

}  // namespace

TEST(TextureBuffer, PictureSlotHandsOutTheHostsPictureUntilBlanked)
{
    TextureBuffer buffer;
    QImage img(8, 8, QImage::Format_RGBA8888), out;
    img.fill(Qt::red);
    EXPECT_FALSE(buffer.getImage(out));
    buffer.setImage(img);
    ASSERT_TRUE(buffer.getImage(out));
    EXPECT_EQ(out.constBits(), img.constBits()) << "no pixel copied";
    buffer.setImage(QImage());
    EXPECT_FALSE(buffer.getImage(out)) << "a null picture blanks the slot";
}

TEST_F(GlFixture, CopyTakesTheBoundFramebufferAndOnlyAResizeWaitsForReaders)
{
    TextureBuffer buffer;
    buffer.createTextures(&gl.context, 16, 16);
    // The same size copies into the texture made, without the write lock;
    // another size makes it anew under the lock, once readers have let go.
    const struct { int width, height; QColor colour; bool waits; } frames[] = {
        {16, 16, Qt::green, false}, {40, 20, Qt::red, true}, {40, 20, Qt::blue, false}};
    for (const auto& f : frames) {
        QOpenGLFramebufferObject fbo(f.width, f.height);
        fbo.bind();
        gl.functions->glViewport(0, 0, f.width, f.height);
        gl.functions->glClearColor(f.colour.redF(), f.colour.greenF(), f.colour.blueF(), 1.0f);
        gl.functions->glClear(GL_COLOR_BUFFER_BIT);
        EXPECT_EQ(waitsForReader([&] { buffer.copyToReadTexture(&gl.context, f.width, f.height); }), f.waits);
        int width = 0, height = 0;
        buffer.getSize(&width, &height);
        EXPECT_EQ(QSize(width, height), QSize(f.width, f.height));
        EXPECT_EQ(texturePixel(buffer.readTextureId(), f.width - 1, f.height - 1), f.colour);
    }
}

TEST_F(GlFixture, DeleteTexturesWaitsForReadersAndTwiceIsHarmless)
{
    TextureBuffer buffer;
    buffer.createTextures(&gl.context, 8, 8);
    // A scene drawing the texture holds the read lock: the deletion waits for it.
    EXPECT_TRUE(waitsForReader([&] { buffer.deleteTextures(&gl.context); }));
    EXPECT_EQ(std::make_pair(buffer.readTextureId(), buffer.writeTextureId()), std::make_pair(0u, 0u));
    buffer.deleteTextures(&gl.context);
    int width = -1, height = -1;
    buffer.getSize(&width, &height);
    EXPECT_EQ(QSize(width, height), QSize(0, 0));
}
