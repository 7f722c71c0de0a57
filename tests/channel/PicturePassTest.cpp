// The picture pass of a channel (colour, opacity, scale, mirror, corners,
// round camera, clip, rotation, pages), driven through the channel's frame
// step with a real worker: its pixels against the CPU cases, and its bad
// input. The arithmetic of its geometry is tested on its own.
#include <QOpenGLContext>
#include <QOpenGLFunctions>

#include "LogCapture.h"
#include "channel/ImageFilters.h"
#include "channel/PictureCases.h"
#include "gpu/OpenglChannelWorker.h"

namespace {

// A channel without its thread; the host's calls reach its slots directly.
class PictureChannel : public ImageFilters {
public:
    PictureChannel() : ImageFilters(0, 0, false, NoThreadStart{})
    {
        connect(this, &ImageFilters::AddImageFilter, this, [this](auto t, bool f) { onAddImageFilter(t, f); },
                Qt::DirectConnection);
        connect(this, &ImageFilters::SetFilterParameter, this, [this](auto t, auto p) { onSetFilterParameter(t, p); },
                Qt::DirectConnection);
    }
    // One frame of `src` after the host sent `record`; the frame's read-back.
    QImage frame(QImage src, _basic_image_param record)
    {
        setFilterPara(BASICIMAGE, BASICIMAGEPARA, &record);
        QImage dst;
        runFilters(src, dst, false, true, false);
        return dst;
    }
    OpenglChannelWorker& worker() { return *channelWorker; }
    using ImageFilters::fitPage;
};

}  // namespace

TEST(PicturePass, EachSettingGivesThePixelsOfItsCase)
{
    PictureChannel channel;  // one channel through all of them, as a host changes its settings
    for (const picture::Case& c : picture::cases()) {
        // The pass reads the rotation that the last frame's uniforms wrote:
        // the second frame shows the settings.
        channel.frame(picture::gradientPicture(), picture::settings(c.set));
        const QImage out = channel.frame(picture::gradientPicture(), picture::settings(c.set));
        EXPECT_TRUE(gltest::sameImage(out, picture::expected(c), 2, c.name, picture::pinned(c))) << c.name;
        EXPECT_FALSE(channel.worker().isFrameSkipped()) << c.name;
    }
}

// Mirrored, the turn about y changes sign, so that the picture turns the
// same way on screen: it is the tilt of the mirrored picture.
TEST(PicturePass, AMirroredTiltTurnsTheSameWayOnScreen)
{
    PictureChannel plain, mirrored;
    const _basic_image_param tilt = picture::settings([](auto& p) { p.rotationY = 35; });
    _basic_image_param mirroredTilt = tilt;
    mirroredTilt.isMirrored = 1;
    const QImage a = plain.frame(picture::gradientPicture().mirrored(true, false), tilt);
    const QImage b = mirrored.frame(picture::gradientPicture(), mirroredTilt);
    auto opaque = [&](int x, int y) {  // and so are its neighbours: away from the rim
        return qAlpha(a.pixel(x, y)) > 150 && qAlpha(a.pixel(std::max(x - 1, 0), y)) > 150 &&
               qAlpha(a.pixel(std::min(x + 1, 63), y)) > 150;
    };
    EXPECT_FALSE(gltest::sameImage(a.mirrored(true, false), a, 8, "asymmetric", opaque));
    EXPECT_TRUE(gltest::sameImage(b, a, 8, "mirrored", opaque));
    // With a clip the tilt is a second pass, at the clip size.
    const QImage c = plain.frame(picture::gradientPicture(), picture::settings([](auto& p) {
        p.isClip = 1, p.channelWidth = 32, p.channelHeight = 48, p.rotationY = 30;
    }));
    ASSERT_EQ(c.size(), QSize(32, 48));
    EXPECT_EQ(qAlpha(c.pixel(31, 0)), 0);
    EXPECT_EQ(qAlpha(c.pixel(16, 24)), 255);
}

// A picture shrunk to a third reads the smaller levels made from this frame:
// a checkerboard of single pixels turns grey, where level 0 alone would show
// black and white; one at its own size keeps its pixels.
TEST(PicturePass, AShrunkPictureIsFilteredAndAnUnshrunkOneIsNot)
{
    PictureChannel channel;
    auto board = [](QColor a, QColor b) {
        return reference::picture(96, 48, [=](int x, int y) { return (x + y) % 2 ? a : b; });
    };
    const QImage blackWhite = board(Qt::black, Qt::white);
    const struct { double scale; bool grey; } cases[] = {{-50.0 / 3, true}, {0, false}};
    for (const auto& c : cases) {
        // A frame of another picture first, so that levels from an earlier
        // frame would show.
        const auto record = picture::settings([&](auto& p) { p.scale = c.scale; });
        channel.frame(board(Qt::red, Qt::red), record);
        const QImage out = channel.frame(blackWhite, record);
        int grey = 0, extreme = 0;
        for (int y = 20; y < 28; ++y)
            for (int x = 44; x < 52; ++x) {
                const QColor v = out.pixelColor(x, y);
                grey += v.red() > 60 && v.red() < 195 && v.green() == v.red() && v.alpha() == 255;
                extreme += (v.red() < 20 || v.red() > 235) && v.green() == v.red() && v.alpha() == 255;
            }
        EXPECT_EQ(grey, c.grey ? 64 : 0) << c.scale;
        EXPECT_EQ(extreme, c.grey ? 0 : 64) << c.scale;
    }
}

// The page gate: an offset outside [0, 1] is left out, and so is the first
// frame back inside; the next is drawn. The pass reads the offset that the
// last frame's uniforms wrote, so its part of the gate is a frame late. A
// page bigger than 7680 is fitted; a file page to the page width, between bars.
TEST(PicturePass, PageGateAndPages)
{
    PictureChannel channel;
    const float offsets[] = {0.5f, 1.5f, -0.5f, 0.5f, 0.5f, 0.5f};
    const bool skipped[] = {false, true, true, false, true, false};
    for (int i = 0; i < 6; ++i) {
        channel.frame(picture::gradientPicture(), picture::settings([&](auto& p) { p.centerYOffset = offsets[i]; }));
        EXPECT_EQ(channel.worker().isFrameSkipped(), skipped[i]) << i;
    }
    QImage tall(100, 9000, QImage::Format_RGBA8888);
    channel.fitPage(tall, 0, 0, 0, 0);
    EXPECT_EQ(tall.size(), QSize(85, 7680));
    QImage page(320, 120, QImage::Format_RGBA8888);
    page.fill(Qt::red);
    channel.fitPage(page, 0, 2, 1e9f, 480);  // no such page: left as it is
    EXPECT_EQ(page.size(), QSize(320, 120));
    // A sliver fitted to a wide page would be far taller than any page: it
    // ends at the page limit's height, not as a null picture of terabytes.
    QImage sliver(1, 7680, QImage::Format_RGBA8888);
    sliver.fill(Qt::blue);
    channel.fitPage(sliver, 0, 2, 7680, 480);
    EXPECT_EQ(sliver.size(), QSize(1, 7680));
    EXPECT_EQ(sliver.pixelColor(0, 3000), QColor(Qt::blue));
    channel.fitPage(page, 0, 2, 640, 480);
    const QColor bar(245, 246, 247);
    ASSERT_EQ(page.size(), QSize(640, 480));
    const std::pair<int, QColor> rows[] = {{119, bar}, {120, Qt::red}, {359, Qt::red}, {360, bar}};
    for (const auto& [y, colour] : rows)
        EXPECT_EQ(page.pixelColor(5, y), colour) << "row " << y;
}

TEST(PicturePass, BadSettingsWarnAtMostAndLeaveNoGlError)
{
    PictureChannel channel;
    LogCapture log;
    using P = _basic_image_param;
    const std::function<void(P&)> settings[] = {
        [](P& p) { p.isClip = 1; },  // no channel size: no box
        [](P& p) { p.isClip = 1, p.channelWidth = -5, p.channelHeight = 100; },
        [](P& p) { p.isRoundCamera = 1, p.scale = -25; },  // a scale of 0
        [](P& p) { p.scale = 1e300, p.cornerRadius = 2147483647, p.rotationX = 1e30, p.rotationZ = 1e9; },
        [](P& p) { p.rotationZ = 45, p.brightness = -1e308, p.alpha = 1e300, p.isMirrored = -7; },
        [](P& p) { p.isClip = 1, p.channelWidth = 1e300, p.channelHeight = 1e-300, p.centerXOffset = 1e30; },
        [](P& p) { p.isClip = 1, p.firstPageWidth = 1e30, p.fileType = 2, p.channelWidth = 64, p.channelHeight = 48; },
    };
    // The log's own limit on repeats is lifted at each frame: the channel
    // itself warns once for each box, not for each frame; the rotation of one
    // setting meets the clip of the next in one frame.
    for (const auto& set : settings) {
        for (int frame = 0; frame < 2; ++frame) {
            lumenlog::resetWarningLimits();
            channel.frame(picture::gradientPicture(), picture::settings(set));
        }
    }
    EXPECT_EQ(log.count("[OpenglChannelWorker::drawClip]", QtWarningMsg), 5) << log.all();
    // Infinity and NaN never arrive.
    _basic_image_param nan = picture::settings([](auto& p) { p.rotationZ = std::nan(""); });
    channel.setFilterPara(BASICIMAGE, BASICIMAGEPARA, &nan);
    EXPECT_TRUE(log.contains("rotation_z of filter type 6 is not a finite number", QtWarningMsg)) << log.all();
    // Still a channel: the plain picture comes out, and GL has nothing to say.
    EXPECT_TRUE(gltest::sameImage(channel.frame(picture::gradientPicture(), picture::settings()),
                                  picture::expected(picture::cases().front()), 2, "after"));
    for (int frame = 0; frame < 2; ++frame)
        channel.frame(QImage(100000, 10, QImage::Format_RGBA8888), picture::settings());
    EXPECT_EQ(log.count("[OpenglWorkerBase::doPreWork] dropped a frame of 100000 x 10", QtWarningMsg), 1);
    ASSERT_TRUE(channel.worker().doPreWork(picture::gradientPicture().bits(), 64, 48));
    EXPECT_EQ(QOpenGLContext::currentContext()->functions()->glGetError(), GLenum(GL_NO_ERROR));
    channel.worker().doneCurrent();
}
