// The scene's merger: placement of the channel pictures, the background, the
// overlay, the read-back ring and the shared-texture path from a channel.
#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include <QPainter>
#include <gtest/gtest.h>

#include "TestUtil.h"
#include "gpu/GlTestSupport.h"
#include "gpu/OpenglChannelWorker.h"
#include "merge/OpenglFileMerger.h"
#include "scene/TextureBuffer.h"

namespace {

const int kScene = 4;
const QColor kBackground(10, 20, 30);

// Channel buffers in image mode, ready for the scene.
OpenglFileMerger::BufferMap channels(const std::vector<std::pair<int, QImage>>& pictures)
{
    OpenglFileMerger::BufferMap buffers;
    for (const auto& picture : pictures) {
        auto buffer = std::make_shared<TextureBuffer>();
        buffer->setShareReady(kScene, true);
        buffer->setImage(picture.second);
        buffers[picture.first] = buffer;
    }
    return buffers;
}

_channel_merge_param entry(int channelId, const QRect& rect) { return {channelId, rect, 0.0, QImage()}; }

QImage solid(int width, int height, const QColor& colour, QImage::Format format = QImage::Format_RGBA8888)
{
    QImage image(width, height, format);
    image.fill(colour);
    return image;
}

// The merged frame (or with `final`, the frame with overlay) as the scene
// reads it: BGR bytes, row 0 at the top.
QImage readMerged(OpenglFileMerger& merger, int width, int height, bool synchronous = true, bool final = false)
{
    QImage image = solid(width, height, QColor(1, 2, 3), QImage::Format_BGR888);
    if (final)
        merger.readFinalImage(image.bits(), width, height, false, synchronous);
    else
        merger.readLastFboByAlpha(image.bits(), width, height, false, synchronous);
    return image;
}

// Every pixel of the rectangle has the colour.
::testing::AssertionResult region(const QImage& image, const QRect& rect, const QColor& colour)
{
    return gltest::sameImage(image.copy(rect), solid(rect.width(), rect.height(), colour), 2, "region");
}

QImage halves(const QColor& top, const QColor& bottom)
{
    QImage picture = solid(100, 50, top);
    QPainter(&picture).fillRect(0, 25, 100, 25, bottom);
    return picture;
}

}  // namespace

TEST(OpenglFileMergerPlacement, PicturesAreFittedCentredAndDrawnInListOrder)
{
    // Merges in a row on one merger: the channels' pictures, the list, the
    // frame, its background colour, and the colours of regions of the result.
    const QColor yellow(250, 200, 0), cyan(0, 200, 250), pink(200, 30, 90), grey(200, 200, 200);
    struct Merge { const char* what; std::vector<std::pair<int, QImage>> pictures; QList<_channel_merge_param> list;
                   QSize size; QColor background; std::vector<std::pair<QRect, QColor>> regions; };
    // Twice in a row: uploaded into new textures, then into the ones made.
    const Merge converted = {
        "pictures in other formats are converted",
        {{1, solid(32, 32, grey, QImage::Format_Grayscale8)}, {2, solid(32, 32, yellow, QImage::Format_ARGB32)},
         {3, solid(32, 32, Qt::green).convertToFormat(QImage::Format_Indexed8)}},
        {entry(1, QRect(0, 0, 32, 32)), entry(2, QRect(32, 0, 32, 32)), entry(3, QRect(64, 0, 32, 32))}, {96, 32},
        kBackground, {{{0, 0, 32, 32}, grey}, {{32, 0, 32, 32}, yellow}, {{64, 0, 32, 32}, Qt::green}}};
    std::vector<Merge> merges = {
        {"a wide picture is centred down, counted from the top", {{1, halves(Qt::red, Qt::blue)}},
         {entry(1, QRect(0, 0, 100, 100))}, {100, 100}, kBackground,
         {{{0, 0, 100, 25}, kBackground}, {{0, 25, 100, 25}, Qt::red}, {{0, 50, 100, 25}, Qt::blue},
          {{0, 75, 100, 25}, kBackground}}},
        {"a tall picture is centred across", {{1, solid(50, 100, Qt::green)}}, {entry(1, QRect(0, 0, 100, 100))},
         {100, 100}, kBackground,
         {{{0, 0, 25, 100}, kBackground}, {{25, 0, 50, 100}, Qt::green}, {{75, 0, 25, 100}, kBackground}}},
        {"rectangles are offset; a picture twice its rectangle is scaled down",
         {{1, solid(40, 30, yellow)}, {2, solid(80, 40, cyan, QImage::Format_RGB888)}},
         {entry(1, QRect(10, 60, 40, 30)), entry(2, QRect(60, 10, 40, 20))}, {120, 100}, kBackground,
         {{{10, 60, 40, 30}, yellow}, {{0, 0, 10, 100}, kBackground}, {{10, 50, 50, 10}, kBackground},
          {{10, 90, 50, 10}, kBackground}, {{60, 10, 40, 20}, cyan}, {{60, 30, 60, 10}, kBackground},
          {{100, 0, 20, 30}, kBackground}}},
        {"a later entry covers an earlier; unknown channels and ones without a picture are passed over",
         {{1, solid(60, 60, Qt::red)}, {2, solid(60, 60, Qt::green, QImage::Format_RGB32)}, {3, QImage()}},
         {entry(1, QRect(0, 0, 60, 60)), entry(99, QRect(0, 0, 100, 100)), entry(3, QRect(0, 0, 100, 100)),
          entry(2, QRect(40, 40, 60, 60))},
         {100, 100}, kBackground,
         {{{0, 0, 60, 40}, Qt::red}, {{0, 40, 40, 20}, Qt::red}, {{40, 40, 60, 60}, Qt::green},
          {{60, 0, 40, 40}, kBackground}, {{0, 60, 40, 40}, kBackground}}},
        converted,
        converted,
        {"an empty list shows the background colour", {}, {}, {64, 48}, pink, {{{0, 0, 64, 48}, pink}}},
        {"at the same size another colour doesn't refill it", {}, {}, {64, 48}, Qt::green, {{{0, 0, 64, 48}, pink}}},
        {"another size does", {}, {}, {32, 32}, Qt::green, {{{0, 0, 32, 32}, Qt::green}}},
    };
    // Drawn at a quarter of its size, a picture is read from its smaller
    // mipmap levels: these must follow each upload.
    for (QColor c : {Qt::red, Qt::green, Qt::blue})
        merges.push_back({"shrunk, one colour after another", {{1, solid(128, 128, c)}}, {entry(1, {8, 8, 32, 32})},
                          {64, 64}, kBackground, {{{8, 8, 32, 32}, c}}});
    OpenglFileMerger merger(kScene);
    for (size_t i = 0; i < merges.size(); ++i) {
        const Merge& m = merges[i];
        merger.setTextureBuffers(channels(m.pictures));
        merger.mergeImages(m.list, m.size.width(), m.size.height(), m.background, QImage());
        const QImage out = readMerged(merger, m.size.width(), m.size.height());
        for (const auto& r : m.regions)
            EXPECT_TRUE(region(out, r.first, r.second)) << "merge " << i << ": " << m.what;
    }
}

TEST(OpenglFileMergerOverlay, GraffitiShowsOnlyInTheFinalFrame)
{
    OpenglFileMerger merger(kScene);
    merger.setTextureBuffers(channels({{1, solid(64, 64, QColor(0, 0, 200))}}));
    const QList<_channel_merge_param> list{entry(1, QRect(0, 0, 64, 64))};
    merger.mergeImages(list, 64, 64, kBackground, QImage());
    EXPECT_EQ(readMerged(merger, 64, 64, true, true), readMerged(merger, 64, 64)) << "no overlay: the two agree";
    // An opaque white stroke upper left, a half transparent red square lower right, clear elsewhere.
    QImage graffiti = solid(64, 64, Qt::transparent, QImage::Format_ARGB32);
    QPainter(&graffiti).fillRect(0, 0, 16, 8, Qt::white);
    QPainter(&graffiti).fillRect(32, 32, 32, 32, QColor(255, 0, 0, 128));
    merger.mergeImages(list, 64, 64, kBackground, graffiti);
    const QImage final = readMerged(merger, 64, 64, true, true);
    EXPECT_TRUE(region(readMerged(merger, 64, 64), {0, 0, 64, 64}, QColor(0, 0, 200)));
    EXPECT_TRUE(region(final, {0, 0, 16, 8}, Qt::white));
    EXPECT_TRUE(region(final, {16, 8, 16, 24}, QColor(0, 0, 200)));
    EXPECT_TRUE(region(final, {32, 32, 32, 32}, QColor(128, 0, 100))) << "premultiplied over";
}

TEST(OpenglFileMergerReadback, RingHandsOutTheFramePreviouslyDrawn)
{
    // Each row merges one colour and reads: the frame drawn the time before,
    // except at the first read after a change of size, or a synchronous read.
    const struct { QColor drawn; int size; bool synchronous; QColor read; } steps[] = {
        {Qt::red, 32, false, Qt::red},     {Qt::green, 32, false, Qt::red},    {Qt::blue, 32, false, Qt::green},
        {Qt::white, 32, true, Qt::white},  {Qt::yellow, 16, false, Qt::yellow}, {Qt::cyan, 16, false, Qt::yellow}};
    OpenglFileMerger merger(kScene);
    for (const auto& s : steps) {
        merger.setTextureBuffers(channels({{1, solid(s.size, s.size, s.drawn)}}));
        merger.mergeImages({entry(1, QRect(0, 0, s.size, s.size))}, s.size, s.size, kBackground, QImage());
        EXPECT_TRUE(region(readMerged(merger, s.size, s.size, s.synchronous), {0, 0, s.size, s.size}, s.read))
            << s.drawn.name().toStdString();
    }
    // Nothing in the engine reads with alpha: one check that it gives RGBA bytes.
    QImage rgba(16, 16, QImage::Format_RGBA8888);
    merger.readLastFboByAlpha(rgba.bits(), 16, 16, true, true);
    EXPECT_EQ(rgba.pixelColor(3, 3), QColor(Qt::cyan));
}

TEST(OpenglFileMergerTextures, PicturesOfChannelsAndOverlaysNotDrawnAreLetGo)
{
    OpenglFileMerger merger(kScene);
    merger.setTextureBuffers(channels({{1, solid(300, 200, Qt::red)}, {2, solid(40, 40, Qt::blue)}}));
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
    EXPECT_TRUE(region(readMerged(merger, 16, 16), {0, 0, 16, 16}, Qt::red));
}

TEST(OpenglFileMergerShare, ChannelResultReachesTheSceneThroughTheSharedTexture)
{
    QImage portrait = testutil::portrait().scaled(256, 256);
    ASSERT_FALSE(portrait.isNull());
    TextureBuffer buffer;
    OpenglChannelWorker worker(7, kScene);
    worker.setTextureBuffer(&buffer);
    OpenglFileMerger merger(kScene);
    merger.setTextureBuffers({{7, std::shared_ptr<TextureBuffer>(&buffer, [](TextureBuffer*) {})}});
    const QList<_channel_merge_param> list{entry(7, QRect(64, 32, 256, 256))};

    // The handshake, as the channel's loop runs it.
    merger.mergeImages(list, 384, 320, kBackground, QImage());
    QOpenGLContext* sceneContext = buffer.getShareContext(kScene);
    ASSERT_NE(sceneContext, nullptr);
    worker.setShareContext(sceneContext);
    ASSERT_TRUE(worker.doPreWork(portrait.bits(), portrait.width(), portrait.height()));
    ASSERT_TRUE(worker.createSceneShareTexture(&buffer));
    buffer.setShareReady(kScene, true);
    buffer.setImageMode(false);
    buffer.setImage(solid(256, 256, Qt::magenta));  // must not be what is drawn

    // Two frames: each is drawn, copied on the GPU, and drawn by the scene upright at its place.
    for (QImage frame : {portrait, portrait.mirrored(true, false)}) {
        worker.passThrough(frame, false);
        ASSERT_TRUE(worker.readFromGPU(&buffer));
        merger.mergeImages(list, 384, 320, kBackground, QImage());
        QImage want = solid(384, 320, kBackground, QImage::Format_RGB32);
        QPainter(&want).drawImage(64, 32, frame);
        EXPECT_TRUE(gltest::sameImage(readMerged(merger, 384, 320), want, 1, "frame"));
        EXPECT_FALSE(buffer.texturesAreReady()) << "the scene marks the texture as drawn";
    }
}

// A merge over the same request and the same pictures keeps its frame; a
// change of any one input draws anew.
TEST(OpenglFileMergerRedraw, EachInputChangeShowsInTheNextFrame)
{
    OpenglFileMerger merger(kScene);
    const auto buffer = std::make_shared<TextureBuffer>();
    buffer->setShareReady(kScene, true);
    buffer->setImage(solid(40, 40, Qt::red));
    merger.setTextureBuffers({{1, buffer}});
    // A change, and the colours then at (30, 30) and at (2, 2).
    const struct { const char* change; std::function<void(QColor&, QRect&)> apply; QColor atCentre, atCorner; }
    steps[] = {
        {"first", [](QColor&, QRect&) {}, Qt::red, kBackground},
        {"nothing", [](QColor&, QRect&) {}, Qt::red, kBackground},
        {"background", [](QColor& bg, QRect&) { bg = Qt::white; }, Qt::red, Qt::white},
        {"rectangle", [](QColor&, QRect& r) { r = QRect(0, 0, 60, 60); }, Qt::red, Qt::red},
        {"picture", [&](QColor&, QRect&) { buffer->setImage(solid(40, 40, Qt::blue)); }, Qt::blue, Qt::blue},
    };
    QColor bg = kBackground;
    QRect rect(20, 20, 20, 20);
    for (const auto& s : steps) {
        s.apply(bg, rect);
        merger.mergeImages({entry(1, rect)}, 60, 60, bg, QImage());
        const QImage frame = readMerged(merger, 60, 60);
        EXPECT_TRUE(region(frame, QRect(30, 30, 1, 1), s.atCentre)) << s.change;
        EXPECT_TRUE(region(frame, QRect(2, 2, 1, 1), s.atCorner)) << s.change;
    }
}
