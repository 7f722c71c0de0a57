// The worker base and the channel worker: frame set-up, framebuffers, the
// input texture, the read-backs and the plain passes.
#include <vector>

#include <QOpenGLFramebufferObject>
#include <gtest/gtest.h>

#include "filters/BeautyFilterBase.h"
#include "gpu/GlTestSupport.h"
#include "gpu/OpenglChannelWorker.h"
#include "scene/TextureBuffer.h"
#include "shader/ShaderWorker.h"

namespace {

// Opens the protected state that the checks need.
class ProbeWorker : public OpenglChannelWorker {
public:
    ProbeWorker() : OpenglChannelWorker(1, 2) {}
    bool current() { return makeCurrent(); }
    bool textureHasAlpha() const { return inputTexHasAlpha; }
    GLuint plainTexture() const { return textures[0]; }
    void copyTexture(GLuint texture) { drawTexture(fbo, texture, imageProgram, false); }

    QImage readBack(int width, int height)
    {
        QImage out(width, height, QImage::Format_RGBA8888);
        out.fill(Qt::transparent);
        readLastFboByAlpha(out.bits(), width, height, true);
        return out;
    }
};

// No two pixels alike and no symmetry, so that a flip or a shift shows.
QImage pattern(int width, int height)
{
    QImage image(width, height, QImage::Format_RGBA8888);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            image.setPixelColor(x, y, QColor((x * 37) % 256, (y * 53) % 256, ((x + y) * 11) % 256));
    return image;
}

}  // namespace

TEST(OpenglWorker, FrameSizeDrivesTheFramebuffers)
{
    ProbeWorker worker;
    QImage first = pattern(64, 32), second = pattern(40, 48), third = pattern(40, 20);
    // Empty frames are refused, before and after the first real one.
    EXPECT_FALSE(worker.doPreWork(nullptr, 64, 32));
    EXPECT_NE(worker.glContext(), nullptr) << "the context is made before the frame is checked";
    EXPECT_FALSE(worker.doPreWork(first.bits(), 0, 32));
    EXPECT_FALSE(worker.doPreWork(first.bits(), 64, 0));
    EXPECT_FALSE(worker.isGlInited());
    EXPECT_EQ(worker.frameFbo(), nullptr);
    ASSERT_TRUE(worker.doPreWork(first.bits(), 64, 32));
    EXPECT_TRUE(worker.basicShader()->isInitialised()) << "every program links, the basic one last";
    EXPECT_EQ(worker.frameFbo()->size(), QSize(64, 32));
    EXPECT_TRUE(worker.isFirstFrame());
    std::vector<uchar> sink(64 * 48 * 4);
    worker.readFboToBuffer(worker.frameFbo(), sink.data(), 64, 32, true);
    EXPECT_FALSE(worker.isFirstFrame());
    worker.doneCurrent();
    EXPECT_FALSE(worker.doPreWork(first.bits(), 0, 16));
    EXPECT_EQ(worker.getFrameWidth(), 64);

    // The same size rebuilds nothing; another width or height rebuilds both
    // framebuffers and restarts the read-back; so does resetSize.
    struct Step {
        QImage* frame;
        bool reset, firstFrame;
    } steps[] = {{&first, false, false}, {&second, false, true}, {&second, false, false}, {&third, false, true},
                 {&third, true, true}};
    for (const Step& s : steps) {
        if (s.reset) {
            worker.resetSize();
            EXPECT_EQ(worker.getFrameWidth(), 0);
        }
        ASSERT_TRUE(worker.doPreWork(s.frame->bits(), s.frame->width(), s.frame->height()));
        EXPECT_EQ(worker.isFirstFrame(), s.firstFrame) << s.frame->width() << " reset " << s.reset;
        EXPECT_EQ(worker.frameFbo()->size(), s.frame->size());
        EXPECT_EQ(worker.backFbo()->size(), s.frame->size());
        worker.readFboToBuffer(worker.frameFbo(), sink.data(), s.frame->width(), s.frame->height(), true);
        worker.doneCurrent();
    }
}

TEST(OpenglWorker, InputTextureFollowsAlphaAndContent)
{
    ProbeWorker worker;
    QImage opaque = pattern(32, 16).convertToFormat(QImage::Format_RGB888);
    worker.passThrough(opaque, false);
    EXPECT_FALSE(worker.textureHasAlpha());
    EXPECT_TRUE(gltest::sameImage(worker.readBack(32, 16), opaque, 0, "opaque")) << "upright, every byte";
    // Same size, now with alpha: the texture is rebuilt for it, and the pass
    // writes premultiplied colour.
    QImage translucent(32, 16, QImage::Format_RGBA8888);
    translucent.fill(QColor(200, 100, 40, 128));
    worker.passThrough(translucent, false);
    EXPECT_TRUE(worker.textureHasAlpha());
    QImage premultiplied(32, 16, QImage::Format_RGBA8888);
    premultiplied.fill(QColor(200 * 128 / 255, 100 * 128 / 255, 40 * 128 / 255, 128));
    EXPECT_TRUE(gltest::sameImage(worker.readBack(32, 16), premultiplied, 1, "premultiplied"));
    // Same size and alpha: new content goes into the same texture.
    QImage next(32, 16, QImage::Format_RGBA8888);
    next.fill(QColor(10, 220, 30, 255));
    worker.passThrough(next, false);
    EXPECT_TRUE(gltest::sameImage(worker.readBack(32, 16), next, 0, "next"));
}

TEST(OpenglWorker, ReadbackWithoutAlphaTakesThreeBytesAPixel)
{
    ProbeWorker worker;
    QImage image = pattern(8, 4);
    worker.passThrough(image, false);
    ASSERT_TRUE(worker.current());
    // Twice: through the first-frame path, then through the swapped buffers.
    for (int round = 0; round < 2; ++round) {
        std::vector<uchar> bytes(8 * 4 * 4, 0xAB);
        worker.readFboToBuffer(worker.frameFbo(), bytes.data(), 8, 4, false);
        const QImage rgb(bytes.data(), 8, 4, 8 * 3, QImage::Format_RGB888);
        EXPECT_TRUE(gltest::sameImage(rgb, image)) << "round " << round;
        EXPECT_EQ(std::vector<uchar>(bytes.begin() + 8 * 4 * 3, bytes.end()), std::vector<uchar>(8 * 4, 0xAB))
            << "nothing beyond 3 bytes a pixel";
    }
    worker.doneCurrent();
}

TEST(OpenglWorker, PlainPassesAndTheShareTexture)
{
    ProbeWorker worker;
    TextureBuffer buffer;
    worker.setTextureBuffer(&buffer);
    BeautyFilterBase filter;
    QImage image = pattern(48, 24);
    // Filters without faces leave the frame, written over the picture.
    QImage inPlace = image.copy();
    worker.renderFaceFilters({{SMOOTH, &filter}, {WHITENING, &filter}}, inPlace, false, false, true);
    EXPECT_TRUE(gltest::sameImage(inPlace, image, 0, "face"));
    // Without toImage the result goes to the share texture.
    EXPECT_EQ(buffer.writeTextureId(), 0u);
    worker.renderSticker({{STICKER, &filter}}, image, false, false, false);
    EXPECT_NE(buffer.writeTextureId(), 0u);
    EXPECT_TRUE(gltest::sameImage(worker.readBack(48, 24), image, 0, "sticker"));
    worker.renderBasicImage({{BASICIMAGE, &filter}}, image, false, false);
    EXPECT_FALSE(worker.isFrameSkipped());
    EXPECT_TRUE(gltest::sameImage(worker.readBack(48, 24), image, 0, "basic"));
    // The basic pass can take its source from the share texture filled above.
    QImage other = image.mirrored(true, false);
    worker.renderBasicImage({{BASICIMAGE, &filter}}, other, false, true);
    EXPECT_TRUE(gltest::sameImage(worker.readBack(48, 24), image, 0, "from share"));
    // copyToShare fills the write texture: drawn back, it is the picture.
    QImage small = pattern(16, 16);
    worker.copyToShare(small);
    ASSERT_TRUE(worker.doPreWork(small.bits(), 16, 16));
    worker.copyTexture(buffer.writeTextureId());
    worker.doneCurrent();
    EXPECT_TRUE(gltest::sameImage(worker.readBack(16, 16), small, 0, "copyToShare"));
}

TEST(OpenglWorker, StreamedUploadLagsOneFrame)
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
    EXPECT_TRUE(gltest::sameImage(worker.readBack(8, 8), b)) << "after the third upload the texture holds the second";
}
