// The recorder as a user runs it: clips made here go in, and the video that
// comes out is read back: its length and frames at the output rate, its size,
// its sound, the effects on the face and nowhere else, a grid of inputs of
// mixed sizes and rates, damaged inputs, an interrupted recording.
#include <cmath>

#include <QFile>
#include <gtest/gtest.h>

#include "ClipMaker.h"
#include "GridLayout.h"
#include "SampleFootage.h"
#include "TestUtil.h"
#include "VideoCheck.h"

using namespace videocheck;

namespace {

// The recorder's clock keeps each picture's time within a frame or two of the
// input's; sanitized builds run the engine several times slower.
// A channel with face effects can lag the plain one: by a frame or two, or,
// sanitized, by seconds (a single face detection takes up to 3 s there).
#if defined(__SANITIZE_ADDRESS__)
const double kTimeSlack = 0.3;
const double kFaceLag = 5;
#else
const double kTimeSlack = 0.15;
const double kFaceLag = 1.2;
#endif

// The share of the bytes left as they are, and whether the file is cut off there or the next tenth overwritten.
struct Damage { const char* name; const char* file; double keep; bool cut; };

void PrintTo(const Damage& d, std::ostream* os) { *os << d.name; }

class DamagedInput : public ::testing::TestWithParam<Damage> {};

struct Sync { const char* name; QStringList effects; };

void PrintTo(const Sync& s, std::ostream* os) { *os << s.name; }

class PicturesAndSound : public ::testing::TestWithParam<Sync> {};

}  // namespace

TEST(VideoRecorder, BeforeAndAfterShowTheEffectsOnTheFaceOnlyWithTheSoundKept)
{
    const QString dir = scratch("compare");
    const QString clip = dir + "/face.mp4", out = dir + "/out.mp4";
    // The camera moves for a second, then holds still for longer than the
    // effects channel can lag, and moves on: near the end of the hold before
    // and after show the same picture.
    const double seconds = 1.6 + kFaceLag, still = 1.0 + kFaceLag, frames = seconds * 25;
    const auto hold = [&](double t) { return t < 1 ? t : t < still ? 1.0 : t - kFaceLag; };
    ASSERT_TRUE(writeFaceClip(clip, QSize(1280, 720), 25, seconds, true, hold));
    const RunResult run = record({"--compare", "--redlips", "300", "--smooth", "100", clip, "-o", out});
    ASSERT_TRUE(run.endedWith(0)) << run.report();
    EXPECT_TRUE(run.out.contains(QString("read %1 (face.mp4); recorded %1 frames").arg(frames)))
        << run.out.toStdString();
    EXPECT_FALSE(run.err.contains("warning")) << run.err.toStdString();

    const Probe p = probe(out);
    ASSERT_TRUE(p.ok);
    EXPECT_EQ(QSize(p.width, p.height), QSize(1920, 540));
    EXPECT_NEAR(p.frames, frames, 1);
    EXPECT_NEAR(p.videoSeconds, seconds, 0.04);
    ASSERT_TRUE(p.sound);
    EXPECT_NEAR(p.soundSeconds, p.videoSeconds, 0.05);

    const std::vector<QImage> at = picturesAt(out, {still - 0.1});
    ASSERT_EQ(at.size(), 1u);
    // The mouth of the portrait where the camera holds still, in the half before
    // (at 0.75 of the clip's size) and in the half after; its redness is red
    // over the mean of green and blue.
    const SampleFootage footage(testutil::portrait(), QSize(1280, 720), seconds);
    const QRectF mouth(205, 140, 40, 15);
    const auto before = [&](QPointF point) { return footage.toFrame(point, 1.0) * 0.75; };
    const QRect lips = QRectF(before(mouth.topLeft()), before(mouth.bottomRight())).normalized().toRect();
    auto redness = [&](const QRect& r) { const Mean m = meanOf(at[0], r); return m.red - (m.green + m.blue) / 2; };
    const double plainLips = redness(lips), redLips = redness(lips.translated(960, 0));
    EXPECT_GT(redLips, plainLips + 6) << "lips " << redLips << " against " << plainLips;
    // Far from the face, after is before: the wall at the left and the desk at the bottom.
    for (const QRect& far : {QRect(10, 10, 60, 200), QRect(20, 480, 200, 50), QRect(880, 20, 70, 120)}) {
        const Mean a = meanOf(at[0], far), b = meanOf(at[0], far.translated(960, 0));
        EXPECT_NEAR(a.red, b.red, 3) << far.x() << "," << far.y();
        EXPECT_NEAR(a.green, b.green, 3) << far.x() << "," << far.y();
        EXPECT_NEAR(a.blue, b.blue, 3) << far.x() << "," << far.y();
    }
    QFile::remove(testutil::outputPath("video-compare.png"));
    at[0].save(testutil::outputPath("video-compare.png"));
}

// Another output rate, and a length shorter than the input: frames and sound
// end together at the length asked for.
TEST(VideoRecorder, RateAndLengthAsAsked)
{
    const QString dir = scratch("rate");
    const QString clip = dir + "/face.mp4", out = dir + "/out.mkv";
    ASSERT_TRUE(writeFaceClip(clip, QSize(640, 360), 25, 2.5));
    const RunResult run = record({"--fps", "10", "--duration", "1.2", "-s", "853x479", clip, "-o", out});
    ASSERT_TRUE(run.endedWith(0)) << run.report();
    EXPECT_FALSE(run.err.contains("warning")) << "an input left before its end is not cut off\n"
                                              << run.err.toStdString();
    EXPECT_TRUE(run.out.contains("recorded 12 frames (1.20 s at 10 fps)")) << run.out.toStdString();
    const Probe p = probe(out);
    EXPECT_EQ(QSize(p.width, p.height), QSize(854, 480)) << "odd sides rounded up";
    EXPECT_EQ(p.frames, 12);
    EXPECT_NEAR(p.videoSeconds, 1.2, 0.01);
    EXPECT_NEAR(p.soundSeconds, 1.2, 0.05);
}

// MPEG-4 Part 2 in AVI, VP9 in Matroska at an odd size, an animated GIF.
TEST(VideoRecorder, GridOfMixedKindsSizesAndRatesPlaysEachInputAtItsOwnTimes)
{
    const QString dir = scratch("grid");
    // The channel of each ramp: 0 red, 1 green, 2 blue.
    const struct { const char* name; QSize size; double fps, seconds; int channel; const char* encoder; } inputs[] = {
        {"a.avi", {640, 360}, 25, 2, 0, "mpeg4"}, {"b.mkv", {853, 479}, 30, 3, 1, "libvpx-vp9"},
        {"c.gif", {320, 240}, 15, 1, 2, "gif"}};
    QStringList args;
    QList<QSize> sizes;
    for (const auto& in : inputs) {
        const auto colour = [c = in.channel](int l) { return QColor(c ? 40 : l, c == 1 ? l : 40, c == 2 ? l : 40); };
        ASSERT_TRUE(writeRampClip(dir + "/" + in.name, in.size, in.fps, in.seconds, colour, in.encoder)) << in.name;
        args << dir + "/" + in.name;
        sizes << in.size;
    }
    const QString out = dir + "/grid.mp4";
    const RunResult run = record(args + QStringList{"-o", out});
    ASSERT_TRUE(run.endedWith(0)) << run.report();
    EXPECT_TRUE(run.out.contains("read 50 (a.avi), 90 (b.mkv), 15 (c.gif); recorded 75 frames"))
        << run.out.toStdString();
    const Probe p = probe(out);
    EXPECT_EQ(QSize(p.width, p.height), QSize(1920, 1080));
    EXPECT_NEAR(p.frames, 75, 1);  // as long as the longest input, at the first one's rate
    EXPECT_FALSE(p.sound);

    const GridLayout grid = layoutGrid(sizes, false, QSize(1920, 1080));
    ASSERT_EQ(grid.cells.size(), 3);
    const std::vector<double> times = {0.5, 1.5, 2.5};
    const std::vector<QImage> pictures = picturesAt(out, times);
    ASSERT_EQ(pictures.size(), times.size());
    for (size_t k = 0; k < times.size(); ++k) {
        for (int i = 0; i < 3; ++i) {
            const QRect cell = grid.cells[i].rect;
            const Mean m = meanOf(pictures[k], QRect(cell.center() - QPoint(40, 40), QSize(80, 80)));
            const double level[3] = {m.red, m.green, m.blue};
            // An input that ended holds its last picture.
            const double last = inputs[i].seconds - 1 / inputs[i].fps;
            const double lo = rampLevel(std::min(times[k] - kTimeSlack, last), inputs[i].seconds);
            const double hi = rampLevel(std::min(times[k] + kTimeSlack, last), inputs[i].seconds);
            EXPECT_GE(level[inputs[i].channel], lo - 6) << inputs[i].name << " at " << times[k];
            EXPECT_LE(level[inputs[i].channel], hi + 6) << inputs[i].name << " at " << times[k];
            EXPECT_NEAR(level[(inputs[i].channel + 1) % 3], 40, 8) << inputs[i].name << " at " << times[k];
        }
        // The 4:3 input is fitted into its cell: the background beside it.
        const QRect c = grid.cells[2].rect;
        EXPECT_LT(meanOf(pictures[k], QRect(c.x() + 10, c.center().y() - 40, 60, 80)).grey(), 8);
    }
}

// A damaged input plays as far as it decodes: a warning, status 0, a video that plays.
TEST_P(DamagedInput, PlaysAsFarAsItDecodesWithAWarning)
{
    const Damage& d = GetParam();
    const QString dir = scratch(d.name);
    const QString clip = dir + "/" + d.file, out = dir + "/out.mp4";
    ASSERT_TRUE(writeFaceClip(clip, QSize(640, 360), 25, 3, true));
    QFile file(clip);
    ASSERT_TRUE(file.open(QIODevice::ReadWrite));
    const qint64 at = static_cast<qint64>(file.size() * d.keep);
    if (d.cut) {
        file.resize(at);
    } else {
        file.seek(at);
        file.write(QByteArray(static_cast<int>(file.size() / 10), char(0x5a)));
    }
    file.close();
    const RunResult run = record({clip, "-o", out});
    ASSERT_TRUE(run.endedWith(0)) << run.report();
    EXPECT_TRUE(run.err.contains("warning: '" + clip + "'")) << run.err.toStdString();
    const Probe p = probe(out);
    ASSERT_TRUE(p.ok);
    EXPECT_GT(p.frames, 10);
    EXPECT_EQ(picturesAt(out, {0.2}).size(), 1u);
}

INSTANTIATE_TEST_SUITE_P(Video, DamagedInput,
                         ::testing::Values(Damage{"CutOffMp4", "cut.mp4", 0.5, true},
                                           Damage{"CutOffMatroska", "cut.mkv", 0.5, true},
                                           Damage{"OverwrittenMatroska", "hole.mkv", 0.4, false}), ByName());

// A flash in the pictures and a beep in the sound at the same moment stay
// together in the output, whether the channel hands its pictures on as they
// are or runs its face effects first.
TEST_P(PicturesAndSound, StayTogether)
{
    const QString dir = scratch(GetParam().name);
    const QString clip = dir + "/flash.mp4", out = dir + "/out.mp4";
    const auto lit = [](double t) { return t >= 2.0 && t < 2.2; };
    const ClipFormat format{QSize(640, 360), 25, 4, QString()};
    QString error;
    ASSERT_TRUE(writeClip(
        clip, format,
        [&](double t) {
            QImage picture(format.size, QImage::Format_RGB888);
            picture.fill(lit(t) ? QColor(Qt::white) : QColor(20, 20, 20));
            return picture;
        },
        [&](double t) { return lit(t) ? static_cast<float>(0.5 * std::sin(2 * M_PI * 1000 * t)) : 0.0f; }, error))
        << error.toStdString();
    const RunResult run = record(GetParam().effects + QStringList{clip, "-o", out});
    ASSERT_TRUE(run.endedWith(0)) << run.report();

    std::vector<double> times;
    for (int i = 0; i < 100; ++i)
        times.push_back(i / 25.0);
    const std::vector<QImage> pictures = picturesAt(out, times);
    ASSERT_EQ(pictures.size(), times.size());
    double flash = -1;
    for (size_t i = 0; i < pictures.size() && flash < 0; ++i)
        if (meanOf(pictures[i], pictures[i].rect()).grey() > 128)
            flash = times[i];
    const double beep = firstLoudSound(out);
    EXPECT_NEAR(beep, 2.0, 0.03) << "the sound is copied as it is";
    EXPECT_NEAR(flash, beep, 2.0 / 25 + (kTimeSlack - 0.15)) << "flash at " << flash;
}

INSTANTIATE_TEST_SUITE_P(Video, PicturesAndSound,
                         ::testing::Values(Sync{"HandedOn", {}}, Sync{"FaceEffects", {"--smooth", "60"}},
                                           Sync{"PicturePass", {"--brightness", "0"}}), ByName());
