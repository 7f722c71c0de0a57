// The worker base and the channel worker: frame set-up, framebuffers, the
// input texture, the read-backs and the passes that exist so far.
#include <cstring>
#include <vector>

#include <gtest/gtest.h>

#include <QOpenGLFramebufferObject>
#include <QOpenGLTexture>

#include "filters/BeautyFilterBase.h"
#include "gpu/GlTestSupport.h"
#include "gpu/OpenglChannelWorker.h"
#include "scene/TextureBuffer.h"
#include "shader/ShaderWorker.h"
#include "TestUtil.h"

namespace {

// Opens the protected state that the checks need.
class ProbeWorker : public OpenglChannelWorker {
public:
    ProbeWorker() : OpenglChannelWorker(1, 2) {}
    bool current() { return makeCurrent(); }
    bool textureHasAlpha() const { return inputTexHasAlpha; }
    int textureWidth() const { return inputTexWidth; }
    GLuint plainTexture() const { return textures[0]; }
    void copyTexture(GLuint texture) { drawTexture(fbo, texture, imageProgram, false); }
};

QImage pattern(int width, int height, QImage::Format format)
{
    QImage image(width, height, QImage::Format_RGBA8888);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            image.setPixelColor(x, y, QColor((x * 37) % 256, (y * 53) % 256, ((x + y) * 11) % 256));
    return image.convertToFormat(format);
}

QImage readBack(ProbeWorker& worker, int width, int height)
{
    QImage out(width, height, QImage::Format_RGBA8888);
    out.fill(Qt::transparent);
    worker.readLastFboByAlpha(out.bits(), width, height, true);
    return out;
}

}  // namespace

TEST(OpenglWorkerFrame, EmptyFramesAreRefusedAndRebuildNothing)
{
    ProbeWorker worker;
    QImage image = pattern(64, 32, QImage::Format_RGBA8888);
    EXPECT_FALSE(worker.doPreWork(nullptr, 64, 32));
    EXPECT_NE(worker.glContext(), nullptr) << "the context is made before the frame is checked";
    EXPECT_FALSE(worker.isGlInited());
    EXPECT_EQ(worker.frameFbo(), nullptr);
    EXPECT_FALSE(worker.doPreWork(image.bits(), 0, 32));
    EXPECT_FALSE(worker.doPreWork(image.bits(), 64, 0));
    EXPECT_EQ(worker.frameFbo(), nullptr);

    ASSERT_TRUE(worker.doPreWork(image.bits(), 64, 32));
    worker.doneCurrent();
    ASSERT_TRUE(worker.isGlInited());
    ASSERT_NE(worker.frameFbo(), nullptr);
    EXPECT_EQ(worker.frameFbo()->size(), QSize(64, 32));
    EXPECT_NE(worker.basicShader(), nullptr);
    EXPECT_TRUE(worker.basicShader()->isInitialised()) << "every program links, the basic one last";

    EXPECT_FALSE(worker.doPreWork(image.bits(), 0, 16));
    EXPECT_FALSE(worker.doPreWork(nullptr, 16, 16));
    EXPECT_EQ(worker.getFrameWidth(), 64);
    EXPECT_EQ(worker.getFrameHeight(), 32);
    EXPECT_EQ(worker.frameFbo()->size(), QSize(64, 32));
}

TEST(OpenglWorkerFrame, SizeChangeRebuildsFramebuffersAndRestartsReadback)
{
    ProbeWorker worker;
    QImage first = pattern(64, 32, QImage::Format_RGBA8888);
    ASSERT_TRUE(worker.doPreWork(first.bits(), 64, 32));
    EXPECT_TRUE(worker.isFirstFrame());
    std::vector<uchar> sink(64 * 32 * 4);
    worker.readFboToBuffer(worker.frameFbo(), sink.data(), 64, 32, true);
    EXPECT_FALSE(worker.isFirstFrame());
    worker.doneCurrent();

    // Same size: nothing rebuilt.
    ASSERT_TRUE(worker.doPreWork(first.bits(), 64, 32));
    worker.doneCurrent();
    EXPECT_FALSE(worker.isFirstFrame());

    QImage second = pattern(40, 48, QImage::Format_RGBA8888);
    ASSERT_TRUE(worker.doPreWork(second.bits(), 40, 48));
    worker.doneCurrent();
    EXPECT_TRUE(worker.isFirstFrame());
    EXPECT_EQ(worker.frameFbo()->size(), QSize(40, 48));
    ASSERT_NE(worker.backFbo(), nullptr);
    EXPECT_EQ(worker.backFbo()->size(), QSize(40, 48));

    // resetSize forces the next frame through resize at an unchanged size.
    ASSERT_TRUE(worker.current());
    worker.readFboToBuffer(worker.frameFbo(), sink.data(), 40, 48, true);
    worker.doneCurrent();
    EXPECT_FALSE(worker.isFirstFrame());
    worker.resetSize();
    EXPECT_EQ(worker.getFrameWidth(), 0);
    ASSERT_TRUE(worker.doPreWork(second.bits(), 40, 48));
    worker.doneCurrent();
    EXPECT_TRUE(worker.isFirstFrame());
    EXPECT_EQ(worker.getFrameWidth(), 40);
}

TEST(OpenglWorkerTexture, InputTextureFollowsAlphaAndContent)
{
    ProbeWorker worker;
    QImage opaque = pattern(32, 16, QImage::Format_RGB888);
    worker.passThrough(opaque, false);
    EXPECT_FALSE(worker.textureHasAlpha());
    EXPECT_EQ(worker.textureWidth(), 32);
    EXPECT_EQ(readBack(worker, 32, 16), opaque.convertToFormat(QImage::Format_RGBA8888));

    // Same size, now with alpha: the texture is rebuilt for it, and the pass
    // writes premultiplied colour.
    QImage translucent(32, 16, QImage::Format_RGBA8888);
    translucent.fill(QColor(200, 100, 40, 128));
    worker.passThrough(translucent, false);
    EXPECT_TRUE(worker.textureHasAlpha());
    const QImage out = readBack(worker, 32, 16);
    const gltest::Rgba p = gltest::rgbaAt(out, 5, 5);
    EXPECT_NEAR(p.r, 200 * 128 / 255, 1);
    EXPECT_NEAR(p.g, 100 * 128 / 255, 1);
    EXPECT_NEAR(p.b, 40 * 128 / 255, 1);
    EXPECT_EQ(p.a, 128);

    // Same size and alpha: new content goes into the same texture.
    QImage next(32, 16, QImage::Format_RGBA8888);
    next.fill(QColor(10, 220, 30, 255));
    worker.passThrough(next, false);
    EXPECT_EQ(readBack(worker, 32, 16), next);
}

TEST(OpenglWorkerReadback, WithoutAlphaThreeBytesPerPixelAreRead)
{
    ProbeWorker worker;
    QImage image = pattern(8, 4, QImage::Format_RGBA8888);
    worker.passThrough(image, false);
    ASSERT_TRUE(worker.current());
    // Twice: through the first-frame path, then through the swapped buffers.
    for (int round = 0; round < 2; ++round) {
        std::vector<uchar> bytes(8 * 4 * 4, 0xAB);
        worker.readFboToBuffer(worker.frameFbo(), bytes.data(), 8, 4, false);
        for (int i = 0; i < 8 * 4; ++i) {
            const uchar* src = image.constBits() + 4 * i;
            ASSERT_EQ(bytes[3 * i + 0], src[0]) << "pixel " << i << " round " << round;
            ASSERT_EQ(bytes[3 * i + 1], src[1]);
            ASSERT_EQ(bytes[3 * i + 2], src[2]);
        }
        for (size_t i = 8 * 4 * 3; i < bytes.size(); ++i)
            ASSERT_EQ(bytes[i], 0xAB) << "nothing beyond 3 bytes a pixel";
    }
    worker.doneCurrent();
}

TEST(OpenglWorkerReadback, PortraitComesBackUnchangedAndUpright)
{
    QImage portrait(testutil::testDataPath("astronaut.png"));
    ASSERT_FALSE(portrait.isNull());
    portrait = portrait.convertToFormat(QImage::Format_RGBA8888);
    ProbeWorker worker;
    worker.passThrough(portrait, false);
    const QImage out = readBack(worker, portrait.width(), portrait.height());
    out.save(testutil::outputPath("worker_passthrough.png"));
    EXPECT_EQ(out, portrait) << "row 0 of the result is row 0 of the picture";
}

TEST(OpenglWorkerPasses, FiltersWithoutFacesLeaveTheFrameUnchanged)
{
    ProbeWorker worker;
    TextureBuffer buffer;
    worker.setTextureBuffer(&buffer);
    BeautyFilterBase filter;
    OpenglChannelWorker::FilterMap filters{{SMOOTH, &filter}, {WHITENING, &filter}};
    QImage image = pattern(48, 24, QImage::Format_RGBA8888);

    QImage inPlace = image.copy();
    worker.renderFaceFilters(filters, inPlace, false, false, true);
    EXPECT_EQ(inPlace, image) << "toImage writes the result over the picture";

    worker.renderSticker({{STICKER, &filter}}, image, false, false, false);
    EXPECT_NE(buffer.writeTextureId(), 0u) << "without toImage the result goes to the share texture";
    EXPECT_EQ(readBack(worker, 48, 24), image);

    worker.renderBasicImage({{BASICIMAGE, &filter}}, image, false, false);
    EXPECT_FALSE(worker.isFrameSkipped());
    EXPECT_EQ(readBack(worker, 48, 24), image);

    // The basic pass can take its source from the share texture that the
    // earlier pass filled.
    QImage other = pattern(48, 24, QImage::Format_RGBA8888).mirrored(true, false);
    worker.renderBasicImage({{BASICIMAGE, &filter}}, other, false, true);
    EXPECT_EQ(readBack(worker, 48, 24), image);
}

TEST(OpenglWorkerPasses, CopyToShareFillsTheWriteTexture)
{
    ProbeWorker worker;
    TextureBuffer buffer;
    worker.setTextureBuffer(&buffer);
    QImage image = pattern(16, 16, QImage::Format_RGBA8888);
    EXPECT_EQ(buffer.writeTextureId(), 0u);
    worker.copyToShare(image);
    const GLuint name = buffer.writeTextureId();
    ASSERT_NE(name, 0u);
    // Draw the write texture back into the frame and read it.
    ASSERT_TRUE(worker.doPreWork(image.bits(), 16, 16));
    worker.copyTexture(name);
    worker.doneCurrent();
    EXPECT_EQ(readBack(worker, 16, 16), image);
}

TEST(OpenglWorkerTexture, StreamedUploadLagsOneFrame)
{
    ProbeWorker worker;
    QImage a(8, 8, QImage::Format_RGBA8888), b(8, 8, QImage::Format_RGBA8888), c(8, 8, QImage::Format_RGBA8888);
    a.fill(Qt::red);
    b.fill(Qt::green);
    c.fill(Qt::blue);
    ASSERT_TRUE(worker.doPreWork(a.bits(), 8, 8));
    for (const QImage* frame : {&a, &b, &c})
        worker.uploadTextureByPbo(GL_TEXTURE0, *frame);
    worker.copyTexture(worker.plainTexture());
    worker.doneCurrent();
    EXPECT_EQ(readBack(worker, 8, 8), b) << "after the third upload the texture holds the second picture";
}
