// The scene's merger: placement of the channel pictures, the background, the
// overlay, the read-back ring and the shared-texture path from a channel.
#include <map>
#include <memory>

#include <gtest/gtest.h>

#include <QPainter>

#include "gpu/GlTestSupport.h"
#include "gpu/OpenglChannelWorker.h"
#include "merge/OpenglFileMerger.h"
#include "scene/TextureBuffer.h"
#include "TestUtil.h"

namespace {

const int kScene = 4;
const QColor kBackground(10, 20, 30);

// Channel buffers in image mode, ready for the scene.
class Channels {
public:
    TextureBuffer* add(int channelId, const QImage& picture)
    {
        auto& buffer = buffers[channelId];
        if (!buffer)
            buffer = std::make_shared<TextureBuffer>();
        buffer->setShareReady(kScene, true);
        buffer->setImage(picture);
        return buffer.get();
    }
    OpenglFileMerger::BufferMap map() const { return buffers; }
    OpenglFileMerger::BufferMap buffers;
};

_channel_merge_param entry(int channelId, const QRect& rect)
{
    _channel_merge_param param;
    param.channelId = channelId;
    param.rect = rect;
    return param;
}

QImage solid(int width, int height, const QColor& colour, QImage::Format format = QImage::Format_RGBA8888)
{
    QImage image(width, height, format);
    image.fill(colour);
    return image;
}

// The merged frame as the scene reads it: BGR bytes, row 0 at the top.
QImage readMerged(OpenglFileMerger& merger, int width, int height, bool synchronous = true)
{
    QImage image(width, height, QImage::Format_BGR888);
    image.fill(QColor(1, 2, 3));
    merger.readLastFboByAlpha(image.bits(), width, height, false, synchronous);
    return image;
}

QImage readFinal(OpenglFileMerger& merger, int width, int height)
{
    QImage image(width, height, QImage::Format_BGR888);
    image.fill(QColor(1, 2, 3));
    merger.readFinalImage(image.bits(), width, height, false, true);
    return image;
}

// Every pixel of the rows [top, bottom) and columns [left, right) has the colour.
::testing::AssertionResult region(const QImage& image, int left, int top, int right, int bottom, const QColor& colour,
                                  int tolerance = 1)
{
    for (int y = top; y < bottom; ++y)
        for (int x = left; x < right; ++x) {
            const QColor c = image.pixelColor(x, y);
            if (std::abs(c.red() - colour.red()) > tolerance || std::abs(c.green() - colour.green()) > tolerance
                || std::abs(c.blue() - colour.blue()) > tolerance)
                return ::testing::AssertionFailure() << "pixel " << x << "," << y << " is " << c.red() << ","
                                                     << c.green() << "," << c.blue() << ", expected "
                                                     << colour.red() << "," << colour.green() << ","
                                                     << colour.blue();
        }
    return ::testing::AssertionSuccess();
}

}  // namespace

TEST(OpenglFileMergerPlacement, PictureIsFittedCentredAndCountedFromTheTop)
{
    // 100 x 50, the upper half red, the lower half blue.
    QImage picture = solid(100, 50, Qt::red);
    QPainter(&picture).fillRect(0, 25, 100, 25, Qt::blue);
    Channels channels;
    channels.add(1, picture);
    OpenglFileMerger merger(kScene);
    merger.setTextureBuffers(channels.map());
    merger.mergeImages({entry(1, QRect(0, 0, 100, 100))}, 100, 100, kBackground, QImage());
    const QImage out = readMerged(merger, 100, 100);
    out.save(testutil::outputPath("merge_placement.png"));
    EXPECT_TRUE(region(out, 0, 0, 100, 25, kBackground));
    EXPECT_TRUE(region(out, 0, 25, 100, 50, Qt::red)) << "the picture's top row lies 25 rows from the top";
    EXPECT_TRUE(region(out, 0, 50, 100, 75, Qt::blue));
    EXPECT_TRUE(region(out, 0, 75, 100, 100, kBackground));

    // A tall picture is centred across.
    channels.add(1, solid(50, 100, Qt::green));
    merger.mergeImages({entry(1, QRect(0, 0, 100, 100))}, 100, 100, kBackground, QImage());
    const QImage tall = readMerged(merger, 100, 100);
    EXPECT_TRUE(region(tall, 0, 0, 25, 100, kBackground));
    EXPECT_TRUE(region(tall, 25, 0, 75, 100, Qt::green));
    EXPECT_TRUE(region(tall, 75, 0, 100, 100, kBackground));
}

TEST(OpenglFileMergerPlacement, RectangleOffsetAndScaling)
{
    Channels channels;
    channels.add(1, solid(40, 30, QColor(250, 200, 0)));
    // A picture of twice the rectangle's size is scaled down into it.
    channels.add(2, solid(80, 40, QColor(0, 200, 250), QImage::Format_RGB888));
    OpenglFileMerger merger(kScene);
    merger.setTextureBuffers(channels.map());
    merger.mergeImages({entry(1, QRect(10, 60, 40, 30)), entry(2, QRect(60, 10, 40, 20))}, 120, 100, kBackground,
                       QImage());
    const QImage out = readMerged(merger, 120, 100);
    EXPECT_TRUE(region(out, 10, 60, 50, 90, QColor(250, 200, 0)));
    EXPECT_TRUE(region(out, 0, 0, 10, 100, kBackground));
    EXPECT_TRUE(region(out, 10, 50, 60, 60, kBackground));
    EXPECT_TRUE(region(out, 10, 90, 60, 100, kBackground));
    EXPECT_TRUE(region(out, 60, 10, 100, 30, QColor(0, 200, 250)));
    EXPECT_TRUE(region(out, 60, 30, 120, 40, kBackground));
    EXPECT_TRUE(region(out, 100, 0, 120, 30, kBackground));
}

TEST(OpenglFileMergerPlacement, LaterEntryCoversEarlierAndMissingBufferIsSkipped)
{
    Channels channels;
    channels.add(1, solid(60, 60, Qt::red));
    channels.add(2, solid(60, 60, Qt::green, QImage::Format_RGB32));
    channels.add(3, QImage());  // a channel with no picture yet
    OpenglFileMerger merger(kScene);
    merger.setTextureBuffers(channels.map());
    merger.mergeImages({entry(1, QRect(0, 0, 60, 60)), entry(99, QRect(0, 0, 100, 100)),
                        entry(3, QRect(0, 0, 100, 100)), entry(2, QRect(40, 40, 60, 60))},
                       100, 100, kBackground, QImage());
    const QImage out = readMerged(merger, 100, 100);
    out.save(testutil::outputPath("merge_order.png"));
    EXPECT_TRUE(region(out, 0, 0, 60, 40, Qt::red));
    EXPECT_TRUE(region(out, 0, 40, 40, 60, Qt::red));
    EXPECT_TRUE(region(out, 40, 40, 100, 100, Qt::green)) << "the later entry covers the earlier one";
    EXPECT_TRUE(region(out, 60, 0, 100, 40, kBackground));
    EXPECT_TRUE(region(out, 0, 60, 40, 100, kBackground));
}

TEST(OpenglFileMergerBackground, EmptyListGivesTheFirstBackgroundColour)
{
    Channels channels;
    OpenglFileMerger merger(kScene);
    merger.setTextureBuffers(channels.map());
    merger.mergeImages({}, 64, 48, QColor(200, 30, 90), QImage());
    EXPECT_TRUE(region(readMerged(merger, 64, 48), 0, 0, 64, 48, QColor(200, 30, 90)));
    // Same size, another colour: the background picture isn't refilled.
    merger.mergeImages({}, 64, 48, QColor(0, 255, 0), QImage());
    EXPECT_TRUE(region(readMerged(merger, 64, 48), 0, 0, 64, 48, QColor(200, 30, 90)));
    // Another size makes a new picture in the new colour.
    merger.mergeImages({}, 32, 32, QColor(0, 255, 0), QImage());
    EXPECT_TRUE(region(readMerged(merger, 32, 32), 0, 0, 32, 32, QColor(0, 255, 0)));
}

TEST(OpenglFileMergerReadback, RingHandsOutTheFramePreviouslyDrawn)
{
    Channels channels;
    OpenglFileMerger merger(kScene);
    merger.setTextureBuffers(channels.map());
    const QRect all(0, 0, 32, 32);
    auto mergeColour = [&](const QColor& colour, int size) {
        channels.add(1, solid(size, size, colour));
        merger.setTextureBuffers(channels.map());
        merger.mergeImages({entry(1, QRect(0, 0, size, size))}, size, size, kBackground, QImage());
    };
    mergeColour(Qt::red, 32);
    EXPECT_TRUE(region(readMerged(merger, 32, 32, false), 0, 0, 32, 32, Qt::red)) << "first read after a resize";
    mergeColour(Qt::green, 32);
    EXPECT_TRUE(region(readMerged(merger, 32, 32, false), 0, 0, 32, 32, Qt::red)) << "one frame old";
    mergeColour(Qt::blue, 32);
    EXPECT_TRUE(region(readMerged(merger, 32, 32, false), 0, 0, 32, 32, Qt::green));
    mergeColour(Qt::white, 32);
    EXPECT_TRUE(region(readMerged(merger, 32, 32, false), 0, 0, 32, 32, Qt::blue));
    // A synchronous read always takes the frame just drawn.
    EXPECT_TRUE(region(readMerged(merger, 32, 32, true), 0, 0, 32, 32, Qt::white));

    // A new size starts the ring over.
    mergeColour(Qt::yellow, 16);
    EXPECT_TRUE(region(readMerged(merger, 16, 16, false), 0, 0, 16, 16, Qt::yellow));
    mergeColour(Qt::cyan, 16);
    EXPECT_TRUE(region(readMerged(merger, 16, 16, false), 0, 0, 16, 16, Qt::yellow));
    Q_UNUSED(all);
}

TEST(OpenglFileMergerReadback, WithAlphaReadsRgbaAndNothingBeforeTheFirstMerge)
{
    OpenglFileMerger merger(kScene);
    std::vector<uchar> untouched(16 * 16 * 4, 0x5A);
    merger.readLastFboByAlpha(untouched.data(), 16, 16, true, false);
    EXPECT_EQ(untouched[0], 0x5A) << "a merger that has drawn nothing reads nothing";

    Channels channels;
    channels.add(1, solid(16, 16, QColor(40, 80, 120)));
    merger.setTextureBuffers(channels.map());
    merger.mergeImages({entry(1, QRect(0, 0, 16, 16))}, 16, 16, kBackground, QImage());
    QImage rgba(16, 16, QImage::Format_RGBA8888);
    merger.readLastFboByAlpha(rgba.bits(), 16, 16, true, true);
    const gltest::Rgba p = gltest::rgbaAt(rgba, 3, 3);
    EXPECT_EQ(p.r, 40);
    EXPECT_EQ(p.g, 80);
    EXPECT_EQ(p.b, 120);
    EXPECT_EQ(p.a, 255);
}

TEST(OpenglFileMergerOverlay, GraffitiShowsOnlyInTheFinalFrame)
{
    Channels channels;
    channels.add(1, solid(64, 64, QColor(0, 0, 200)));
    OpenglFileMerger merger(kScene);
    merger.setTextureBuffers(channels.map());
    const QList<_channel_merge_param> params{entry(1, QRect(0, 0, 64, 64))};

    merger.mergeImages(params, 64, 64, kBackground, QImage());
    EXPECT_EQ(readFinal(merger, 64, 64), readMerged(merger, 64, 64)) << "no overlay: the two frames agree";

    // An opaque white stroke in the upper left, a half transparent red square
    // lower right, clear elsewhere.
    QImage graffiti(64, 64, QImage::Format_ARGB32);
    graffiti.fill(Qt::transparent);
    QPainter painter(&graffiti);
    painter.fillRect(0, 0, 16, 8, Qt::white);
    painter.fillRect(32, 32, 32, 32, QColor(255, 0, 0, 128));
    painter.end();
    merger.mergeImages(params, 64, 64, kBackground, graffiti);
    const QImage merged = readMerged(merger, 64, 64);
    const QImage final = readFinal(merger, 64, 64);
    final.save(testutil::outputPath("merge_graffiti.png"));
    EXPECT_TRUE(region(merged, 0, 0, 64, 64, QColor(0, 0, 200)));
    EXPECT_TRUE(region(final, 0, 0, 16, 8, Qt::white));
    EXPECT_TRUE(region(final, 16, 8, 32, 32, QColor(0, 0, 200)));
    // Premultiplied over: 255 * 0.5 + 0, 0, 200 * 0.5.
    EXPECT_TRUE(region(final, 32, 32, 64, 64, QColor(128, 0, 100), 2));
}

TEST(OpenglFileMergerTextures, ShrunkPictureShowsEachNewFrame)
{
    // Drawn at a quarter of its size, the picture is read from its smaller
    // mipmap levels: these must follow each upload.
    Channels channels;
    OpenglFileMerger merger(kScene);
    for (const QColor& colour : {QColor(Qt::red), QColor(Qt::green), QColor(Qt::blue)}) {
        channels.add(1, solid(128, 128, colour));
        merger.setTextureBuffers(channels.map());
        merger.mergeImages({entry(1, QRect(8, 8, 32, 32))}, 64, 64, kBackground, QImage());
        EXPECT_TRUE(region(readMerged(merger, 64, 64), 8, 8, 40, 40, colour, 2));
    }
}

TEST(OpenglFileMergerTextures, PicturesOfChannelsAndOverlaysNotDrawnAreLetGo)
{
    Channels channels;
    channels.add(1, solid(300, 200, Qt::red));
    channels.add(2, solid(40, 40, Qt::blue));
    OpenglFileMerger merger(kScene);
    merger.setTextureBuffers(channels.map());
    const QImage overlay = solid(64, 64, QColor(0, 0, 0, 0), QImage::Format_ARGB32);
    merger.mergeImages({entry(1, QRect(0, 0, 32, 32)), entry(2, QRect(32, 0, 32, 32))}, 64, 64, kBackground,
                       overlay);
    EXPECT_EQ(merger.heldPictureTextures(), 3u);
    merger.mergeImages({entry(2, QRect(32, 0, 32, 32))}, 64, 64, kBackground, QImage());
    EXPECT_EQ(merger.heldPictureTextures(), 1u) << "channel 1 and the overlay were not drawn";
    merger.mergeImages({}, 64, 64, kBackground, QImage());
    EXPECT_EQ(merger.heldPictureTextures(), 0u);
}

TEST(OpenglFileMergerShare, HandshakeWaitsUntilTheChannelIsReady)
{
    auto buffer = std::make_shared<TextureBuffer>();
    buffer->setImage(solid(16, 16, Qt::red));
    OpenglFileMerger merger(kScene);
    merger.setTextureBuffers({{1, buffer}});
    merger.mergeImages({entry(1, QRect(0, 0, 16, 16))}, 16, 16, kBackground, QImage());
    ASSERT_NE(merger.glContext(), nullptr);
    EXPECT_EQ(buffer->getShareContext(kScene), merger.glContext()) << "the merger publishes its context";
    EXPECT_FALSE(merger.isGlInited()) << "and leaves that merge";

    buffer->setShareReady(kScene, true);
    merger.mergeImages({entry(1, QRect(0, 0, 16, 16))}, 16, 16, kBackground, QImage());
    EXPECT_TRUE(region(readMerged(merger, 16, 16), 0, 0, 16, 16, Qt::red));
}

TEST(OpenglFileMergerShare, ChannelResultReachesTheSceneThroughTheSharedTexture)
{
    QImage portrait(testutil::testDataPath("astronaut.png"));
    ASSERT_FALSE(portrait.isNull());
    portrait = portrait.convertToFormat(QImage::Format_RGBA8888).scaled(256, 256);

    TextureBuffer buffer;
    OpenglChannelWorker worker(7, kScene);
    worker.setTextureBuffer(&buffer);
    OpenglFileMerger merger(kScene);
    merger.setTextureBuffers({{7, std::shared_ptr<TextureBuffer>(&buffer, [](TextureBuffer*) {})}});
    const QList<_channel_merge_param> params{entry(7, QRect(64, 32, 256, 256))};

    // The handshake, as the channel's loop runs it.
    merger.mergeImages(params, 384, 320, kBackground, QImage());
    QOpenGLContext* sceneContext = buffer.getShareContext(kScene);
    ASSERT_NE(sceneContext, nullptr);
    worker.setShareContext(sceneContext);
    ASSERT_TRUE(worker.doPreWork(portrait.bits(), portrait.width(), portrait.height()));
    ASSERT_TRUE(worker.createSceneShareTexture(&buffer));
    EXPECT_TRUE(QOpenGLContext::areSharing(worker.glContext(), sceneContext));
    buffer.setShareReady(kScene, true);

    // A frame: draw, copy on the GPU, and the scene draws the texture.
    worker.passThrough(portrait, false);
    buffer.setImageMode(false);
    ASSERT_TRUE(worker.readFromGPU(&buffer));
    buffer.setImage(solid(256, 256, Qt::magenta));  // must not be what is drawn
    merger.mergeImages(params, 384, 320, kBackground, QImage());
    const QImage out = readMerged(merger, 384, 320);
    out.save(testutil::outputPath("merge_shared_texture.png"));

    EXPECT_TRUE(region(out, 0, 0, 384, 32, kBackground));
    EXPECT_TRUE(region(out, 0, 0, 64, 320, kBackground));
    EXPECT_TRUE(region(out, 320, 0, 384, 320, kBackground));
    EXPECT_TRUE(region(out, 0, 288, 384, 320, kBackground));
    int worst = 0;
    for (int y = 0; y < 256; y += 5)
        for (int x = 0; x < 256; x += 5) {
            const QColor expected = portrait.pixelColor(x, y);
            const QColor got = out.pixelColor(64 + x, 32 + y);
            worst = std::max({worst, std::abs(expected.red() - got.red()), std::abs(expected.green() - got.green()),
                              std::abs(expected.blue() - got.blue())});
        }
    EXPECT_LE(worst, 1) << "the channel's picture, upright, at its place";
    EXPECT_FALSE(buffer.texturesAreReady()) << "the scene marks the texture as drawn";

    // The next frame replaces the texture's content.
    QImage next = portrait.mirrored(true, false);
    worker.passThrough(next, false);
    ASSERT_TRUE(worker.readFromGPU(&buffer));
    merger.mergeImages(params, 384, 320, kBackground, QImage());
    const QImage second = readMerged(merger, 384, 320);
    EXPECT_EQ(second.pixelColor(64 + 10, 32 + 20), next.pixelColor(10, 20));
    EXPECT_EQ(second.pixelColor(64 + 200, 32 + 100), next.pixelColor(200, 100));
}

TEST(OpenglFileMergerPicture, FourPortraitsWithOverlay)
{
    QImage portrait(testutil::testDataPath("astronaut.png"));
    ASSERT_FALSE(portrait.isNull());
    Channels channels;
    channels.add(1, portrait.convertToFormat(QImage::Format_RGBA8888));
    channels.add(2, portrait.convertToFormat(QImage::Format_RGB32).mirrored(true, false));
    channels.add(3, portrait.convertToFormat(QImage::Format_RGB888).scaled(256, 128));
    channels.add(4, portrait.convertToFormat(QImage::Format_Grayscale8));
    OpenglFileMerger merger(kScene);
    merger.setTextureBuffers(channels.map());
    QImage graffiti(960, 540, QImage::Format_ARGB32);
    graffiti.fill(Qt::transparent);
    QPainter painter(&graffiti);
    painter.setPen(QPen(QColor(255, 220, 0, 200), 12));
    painter.drawLine(40, 500, 920, 40);
    painter.end();
    merger.mergeImages({entry(1, QRect(0, 0, 480, 270)), entry(2, QRect(480, 0, 480, 270)),
                        entry(3, QRect(0, 270, 480, 270)), entry(4, QRect(480, 270, 480, 270))},
                       960, 540, QColor(245, 246, 247), graffiti);
    const QImage final = readFinal(merger, 960, 540);
    final.save(testutil::outputPath("merge_four_channels.png"));
    // Upper left: the portrait's own top left corner at the fitted place.
    const QImage fitted = portrait.convertToFormat(QImage::Format_RGBA8888).scaled(270, 270, Qt::IgnoreAspectRatio,
                                                                                 Qt::SmoothTransformation);
    const QColor expected = fitted.pixelColor(135, 60);
    const QColor got = final.pixelColor(105 + 135, 60);
    EXPECT_NEAR(got.red(), expected.red(), 16);
    EXPECT_NEAR(got.green(), expected.green(), 16);
    EXPECT_NEAR(got.blue(), expected.blue(), 16);
    EXPECT_TRUE(region(final, 0, 0, 100, 100, QColor(245, 246, 247))) << "page margin around the fitted portrait";
}
