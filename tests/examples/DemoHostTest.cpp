// The demo refuses a merged size that the scene would drop, before it makes
// anything, with a message that says the limits; it used to merge for four
// seconds and then say only that no picture came.
#include <QFile>
#include <QProcess>
#include <gtest/gtest.h>

#include "TestUtil.h"

TEST(DemoHost, RefusesAMergedSizeBeyondTheLimits)
{
    const QString out = testutil::outputPath("demo") + "/refused.png";
    QFile::remove(out);
    const struct { const char* size; bool refused; } cases[] = {
        {"2560x720", true}, {"1080x1921", true}, {"1x1", true}, {"1920x1080", false}, {"1080x1920", false}};
    for (const auto& c : cases) {
        QProcess demo;
        // A size that passes goes on to the picture, which isn't there.
        demo.start(LUMEN_DEMO_HOST, {"-s", c.size, "-o", out, out + ".missing.png"});
        ASSERT_TRUE(demo.waitForFinished(30000)) << c.size;
        const QString err = QString::fromLocal8Bit(demo.readAllStandardError());
        EXPECT_EQ(demo.exitCode(), c.refused ? 2 : 1) << c.size << ": " << err.toStdString();
        EXPECT_EQ(err.contains(QString("bad --size '%1': the merged picture can be at most 1920x1080").arg(c.size)),
                  c.refused)
            << err.toStdString();
    }
    EXPECT_FALSE(QFile::exists(out));
}
