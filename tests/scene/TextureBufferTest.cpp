#include <atomic>
#include <future>
#include <thread>

#include <QThread>

#include <QOffscreenSurface>
#include <QOpenGLContext>
#include <QOpenGLFramebufferObject>
#include <QOpenGLFunctions>
#include <gtest/gtest.h>

#include "scene/TextureBuffer.h"

namespace {

// A current GL context on an offscreen surface, for the texture operations.
class GlFixture : public ::testing::Test {
protected:
    void SetUp() override
    {
        surface.create();
        ASSERT_TRUE(context.create());
        ASSERT_TRUE(context.makeCurrent(&surface));
        f = context.functions();
    }
    void TearDown() override { context.doneCurrent(); }

    // Reads one RGBA pixel of a texture by attaching it to a framebuffer.
    QColor texturePixel(unsigned int texture, int x, int y)
    {
        GLuint fb = 0;
        f->glGenFramebuffers(1, &fb);
        f->glBindFramebuffer(GL_FRAMEBUFFER, fb);
        f->glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, texture, 0);
        uchar px[4] = {0, 0, 0, 0};
        f->glReadPixels(x, y, 1, 1, GL_RGBA, GL_UNSIGNED_BYTE, px);
        f->glBindFramebuffer(GL_FRAMEBUFFER, 0);
        f->glDeleteFramebuffers(1, &fb);
        return QColor(px[0], px[1], px[2], px[3]);
    }

    QOffscreenSurface surface;
    QOpenGLContext context;
    QOpenGLFunctions* f = nullptr;
};

}  // namespace

TEST(TextureBuffer, FreshBufferState)
{
    TextureBuffer buffer;
    QImage out;
    EXPECT_TRUE(buffer.isImageMode());
    EXPECT_FALSE(buffer.isPremulAlpha());
    EXPECT_FALSE(buffer.getImage(out));
    EXPECT_FALSE(buffer.isShareReady(0));
    EXPECT_FALSE(buffer.isShareReady(7));
    EXPECT_EQ(buffer.getShareContext(0), nullptr);
    int w = -1;
    int h = -1;
    buffer.getSize(&w, &h);
    EXPECT_EQ(w, 0);
    EXPECT_EQ(h, 0);
}

TEST(TextureBuffer, ImageSharesDataAndNullBlanksTheSlot)
{
    TextureBuffer buffer;
    QImage img(8, 8, QImage::Format_RGBA8888);
    img.fill(Qt::red);
    buffer.setImage(img);
    QImage out;
    ASSERT_TRUE(buffer.getImage(out));
    EXPECT_EQ(out.constBits(), img.constBits());
    buffer.setImage(QImage());
    EXPECT_FALSE(buffer.getImage(out));
    EXPECT_TRUE(out.isNull());
}

TEST(TextureBuffer, ShareTablesArePerScene)
{
    TextureBuffer buffer;
    auto* fake = reinterpret_cast<QOpenGLContext*>(0x1234);
    buffer.setShareContext(2, fake);
    buffer.setShareReady(2, true);
    EXPECT_EQ(buffer.getShareContext(2), fake);
    EXPECT_EQ(buffer.getShareContext(3), nullptr);
    EXPECT_TRUE(buffer.isShareReady(2));
    EXPECT_FALSE(buffer.isShareReady(3));
    buffer.setShareReady(2, false);
    EXPECT_FALSE(buffer.isShareReady(2));
    buffer.setImageMode(false);
    buffer.setPremulAlpha(true);
    EXPECT_FALSE(buffer.isImageMode());
    EXPECT_TRUE(buffer.isPremulAlpha());
}

TEST_F(GlFixture, CreateTexturesMakesThePairAtTheSize)
{
    TextureBuffer buffer;
    buffer.createTextures(&context, 64, 32);
    EXPECT_TRUE(buffer.texturesAreReady());
    EXPECT_NE(buffer.readTextureId(), 0u);
    EXPECT_NE(buffer.writeTextureId(), 0u);
    EXPECT_NE(buffer.readTextureId(), buffer.writeTextureId());
    int w = 0;
    int h = 0;
    buffer.getSize(&w, &h);
    EXPECT_EQ(w, 64);
    EXPECT_EQ(h, 32);
    buffer.unbindAndClearReady(&context);
    EXPECT_FALSE(buffer.texturesAreReady());
}

TEST_F(GlFixture, CopyToReadTextureTakesTheBoundFramebuffer)
{
    TextureBuffer buffer;
    buffer.createTextures(&context, 16, 16);
    QOpenGLFramebufferObject fbo(16, 16);
    fbo.bind();
    f->glViewport(0, 0, 16, 16);
    f->glClearColor(0.0f, 1.0f, 0.0f, 1.0f);
    f->glClear(GL_COLOR_BUFFER_BIT);
    buffer.copyToReadTexture(&context, 16, 16);
    fbo.release();
    EXPECT_EQ(texturePixel(buffer.readTextureId(), 5, 5), QColor(0, 255, 0, 255));

    // A new size recreates the texture at that size.
    QOpenGLFramebufferObject big(40, 20);
    big.bind();
    f->glViewport(0, 0, 40, 20);
    f->glClearColor(1.0f, 0.0f, 0.0f, 1.0f);
    f->glClear(GL_COLOR_BUFFER_BIT);
    buffer.copyToReadTexture(&context, 40, 20);
    big.release();
    int w = 0;
    int h = 0;
    buffer.getSize(&w, &h);
    EXPECT_EQ(w, 40);
    EXPECT_EQ(h, 20);
    EXPECT_EQ(texturePixel(buffer.readTextureId(), 39, 19), QColor(255, 0, 0, 255));
}

TEST_F(GlFixture, SameSizeCopyTakesNoWriteLockButResizeWaitsForReaders)
{
    TextureBuffer buffer;
    buffer.createTextures(&context, 16, 16);
    QOpenGLFramebufferObject fbo(32, 32);
    fbo.bind();

    std::promise<void> locked;
    std::promise<void> mayRelease;
    std::atomic<bool> released{false};
    std::thread reader([&] {
        sharedTextureLock().lockForRead();
        locked.set_value();
        mayRelease.get_future().wait();
        QThread::msleep(100);
        released = true;
        sharedTextureLock().unlock();
    });
    locked.get_future().wait();

    // Same size: no write lock, so it completes while the reader holds the lock.
    buffer.copyToReadTexture(&context, 16, 16);
    EXPECT_FALSE(released.load());

    // Another size recreates the texture under the write lock: it can only
    // finish once the reader has let go.
    mayRelease.set_value();
    buffer.copyToReadTexture(&context, 32, 32);
    EXPECT_TRUE(released.load());
    reader.join();
    int w = 0;
    int h = 0;
    buffer.getSize(&w, &h);
    EXPECT_EQ(w, 32);
    fbo.release();
}

TEST_F(GlFixture, DeleteTexturesWaitsForReadersAndTwiceIsHarmless)
{
    TextureBuffer buffer;
    buffer.createTextures(&context, 8, 8);
    // A scene drawing the texture holds the read lock: the deletion waits for it.
    std::promise<void> locked;
    std::atomic<bool> released{false};
    std::thread reader([&] {
        sharedTextureLock().lockForRead();
        locked.set_value();
        QThread::msleep(100);
        released = true;
        sharedTextureLock().unlock();
    });
    locked.get_future().wait();
    buffer.deleteTextures(&context);
    EXPECT_TRUE(released.load());
    reader.join();
    EXPECT_EQ(buffer.readTextureId(), 0u);
    EXPECT_EQ(buffer.writeTextureId(), 0u);
    buffer.deleteTextures(&context);
    int w = -1;
    int h = -1;
    buffer.getSize(&w, &h);
    EXPECT_EQ(w, 0);
    EXPECT_EQ(h, 0);
}
