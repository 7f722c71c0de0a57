// What a user gets wrong, and what goes wrong under the recorder: each ends
// with a message that names the file and the trouble, a status other than 0,
// and no output file, broken or whole, where the output was to be.
#include <csignal>

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <gtest/gtest.h>

#include "TestUtil.h"
#include "VideoCheck.h"

using namespace videocheck;

namespace {

// In the arguments %d is the test's folder, %c a good clip in it; the
// message is a regular expression that the error output matches.
struct BadCall { const char* name; QStringList arguments; int status; const char* message; };

const BadCall kBadCalls[] = {
    {"MissingFile", {"%d/nothing.mp4", "-o", "%d/out.mp4"}, 1, "'.*/nothing.mp4': no such file"},
    {"NotAVideo", {"%d/notes.mp4", "-o", "%d/out.mp4"}, 1, "'.*/notes.mp4': not a video file"},
    {"SoundOnly", {"%d/sound.m4a", "-o", "%d/out.mp4"}, 1, "'.*/sound.m4a': has no video stream \\(audio only\\)"},
    {"EmptyFile", {"%d/empty.mp4", "-o", "%d/out.mp4"}, 1, "'.*/empty.mp4': empty file"},
    {"OneBadAmongGoodOnes", {"%c", "%d/empty.mp4", "-o", "%d/out.mp4"}, 1, "'.*/empty.mp4': empty file"},
    {"OutputInAFolderThatIsNot", {"%c", "-o", "%d/no/such/folder/out.mp4"}, 1, "'.*/out.mp4': can't be written"},
    {"OutputOfNoKnownKind", {"%c", "-o", "%d/out.nokind"}, 1, "doesn't say which container"},
    {"OutputOverAnInput", {"%c", "-o", "%c"}, 2, "is an input: the output would overwrite it"},
    {"UnknownOption", {"--frobnicate", "%c", "-o", "%d/out.mp4"}, 2, "Unknown option 'frobnicate'"},
    {"UnknownEncoder", {"-c", "nosuchcodec", "%c", "-o", "%d/out.mp4"}, 1, "unknown video encoder 'nosuchcodec'"},
    {"SoundEncoderForPictures", {"-c", "aac", "%c", "-o", "%d/out.mp4"}, 1, "unknown video encoder 'aac'"},
    {"NoOutput", {"%c"}, 2, "no output file"},
    {"NoInput", {"-o", "%d/out.mp4"}, 2, "give one to 9 input videos"},
    {"MergeTooLarge", {"-s", "3840x2160", "%c", "-o", "%d/out.mp4"}, 2, "bad --size '3840x2160'"},
    {"RateOfNothing", {"--fps", "0", "%c", "-o", "%d/out.mp4"}, 2, "bad --fps '0'"},
    {"StrengthNotANumber", {"--smooth", "lots", "%c", "-o", "%d/out.mp4"}, 2, "bad --smooth 'lots'"},
};

void PrintTo(const BadCall& c, std::ostream* os) { *os << c.name; }

class RecorderRefuses : public ::testing::TestWithParam<BadCall> {};

}  // namespace

TEST_P(RecorderRefuses, WithAMessageAndNoOutputFile)
{
    const BadCall& call = GetParam();
    const QString dir = scratch(call.name);
    const QString clip = dir + "/good.mp4";
    ASSERT_TRUE(writeFaceClip(clip, QSize(320, 180), 25, 0.4, false));
    QFile text(dir + "/notes.mp4");
    ASSERT_TRUE(text.open(QIODevice::WriteOnly));
    text.write("These are notes about a video, not a video.\n");
    text.close();
    QFile(dir + "/empty.mp4").open(QIODevice::WriteOnly);
    ASSERT_TRUE(writeSoundOnly(dir + "/sound.m4a", 1.0));
    const QStringList before = QDir(dir).entryList(QDir::Files);

    QStringList arguments;
    for (QString a : call.arguments)
        arguments << a.replace("%d", dir).replace("%c", clip);
    const RunResult run = record(arguments, 60000);
    ASSERT_TRUE(run.endedWith(call.status)) << run.report();
    EXPECT_TRUE(QRegularExpression(call.message).match(run.err).hasMatch()) << run.err.toStdString();
    // Nothing new in the folder: no output, no temporary file left behind.
    EXPECT_EQ(QDir(dir).entryList(QDir::Files), before);
}

INSTANTIATE_TEST_SUITE_P(Video, RecorderRefuses, ::testing::ValuesIn(kBadCalls), ByName());

TEST(RecorderInterrupted, WritesWhatWasRecordedAndSaysSo)
{
    const QString dir = scratch("interrupted");
    const QString clip = dir + "/face.mp4", out = dir + "/out.mp4";
    ASSERT_TRUE(writeFaceClip(clip, QSize(640, 360), 25, 8, true));
    QProcess process;
    process.start(LUMEN_VIDEO_HOST, {"-q", "--smooth", "50", clip, "-o", out});
    ASSERT_TRUE(process.waitForStarted(10000));
    // Interrupted once the encoder has written some of its pictures.
    const bool underway = testutil::waitFor(
        [&] {
            const QStringList parts = QDir(dir).entryList({"out.mp4.*.part"}, QDir::Files);
            return !parts.isEmpty() && QFileInfo(dir + "/" + parts.first()).size() > 20000;
        },
        60000);
    ::kill(static_cast<pid_t>(process.processId()), SIGINT);
    ASSERT_TRUE(process.waitForFinished(60000));
    ASSERT_TRUE(underway);
    EXPECT_EQ(process.exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(process.exitCode(), 130);
    EXPECT_TRUE(QString(process.readAllStandardError()).contains("interrupted"));
    const Probe p = probe(out);
    ASSERT_TRUE(p.ok);
    EXPECT_GT(p.frames, 5);
    EXPECT_LT(p.frames, 200);
    EXPECT_NEAR(p.soundSeconds, p.videoSeconds, 0.05);
    EXPECT_TRUE(QDir(dir).entryList({"*.part"}, QDir::Files).isEmpty());
}
