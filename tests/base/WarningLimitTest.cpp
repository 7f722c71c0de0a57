// Repeated warnings: the first of each message is written as it is; repeats
// from one place in the code, one in ten seconds at most, which counts those
// left out. Texts that differ only in their numbers are one message.
#include <QLoggingCategory>
#include <QString>

#include <gtest/gtest.h>

#include "LogCapture.h"
#include "base/WarningLimit.h"

namespace {

Q_LOGGING_CATEGORY(lcLimitTest, "lumen_fx.limittest")

using lumenlog::kWarningIntervalMs;
using lumenlog::warningKey;
using lumenlog::WarningLimiter;

TEST(WarningLimit, TextsThatDifferOnlyInTheirNumbersAreOneMessage)
{
    const struct { const char *a, *b; bool same; } cases[] = {
        {"[F::f] 5 is not a filter type; call dropped", "[F::f] 17 is not a filter type; call dropped", true},
        {"[F::f] -2 is not a filter type", "[F::f] 16 is not a filter type", true},
        {"dropped a frame of 1921 x 1080", "dropped a frame of 3 x 3", true},
        {"a ratio of 1.5 kept", "a ratio of 20 kept", true},
        {"channel_height of filter type 7", "channel_width of filter type 7", false},
        {"[F::addImageFilter] null record", "[F::setFilterPara] null record", false},
        {"face 2 has fewer than 98 key points", "face 2 has fewer than 98 key points, skipped", false},
        {"range 3-4", "range 3", false},
    };
    for (const auto& c : cases)
        EXPECT_EQ(warningKey("lumen_fx.channel", c.a) == warningKey("lumen_fx.channel", c.b), c.same)
            << c.a << " | " << c.b;
    EXPECT_NE(warningKey("lumen_fx.channel", "no picture"), warningKey("lumen_fx.gpu", "no picture"));
    EXPECT_EQ(warningKey("c", "x-12.5y7 -"), QString("c:x#y# -"));
}

TEST(WarningLimit, EachMessageIsWrittenOnceThenOnePlaceWritesOneRepeatInTenSeconds)
{
    // leftOut: for a written warning, how many it reports left out.
    const qint64 t = kWarningIntervalMs;
    const struct { const char *key, *site; qint64 atMs; bool write; int leftOut; } steps[] = {
        {"a", "s1", 0, true, 0},
        {"a", "s1", 1, false, 1},
        {"b", "s1", 2, true, 0},   // a new message of the same place is written at once...
        {"b", "s1", 3, false, 2},  // ...its repeats wait with those of the place
        {"c", "s2", 4, true, 0},   // another place is not held back by the first
        {"c", "s2", 5, false, 1},
        {"a", "s1", 5000, false, 3},
        {"a", "s1", t - 1, false, 4},
        {"a", "s1", t, true, 4},
        {"b", "s1", t + 1, false, 1},
        {"c", "s2", t + 5, true, 1},
        {"a", "s1", 3 * t, true, 1},
        {"a", "s1", 5 * t, true, 0},  // a quiet place writes again at once
    };
    WarningLimiter limiter;
    for (const auto& step : steps) {
        const WarningLimiter::Verdict verdict = limiter.admit(step.key, step.site, step.atMs);
        EXPECT_EQ(verdict.write, step.write) << step.key << " at " << step.atMs;
        EXPECT_EQ(verdict.leftOut, step.leftOut) << step.key << " at " << step.atMs;
    }
}

TEST(WarningLimit, PastTheMessagesRememberedNewTextsCountAsRepeats)
{
    WarningLimiter limiter;
    for (int i = 0; i < WarningLimiter::kMaxMessages; ++i)
        ASSERT_TRUE(limiter.admit(QString("text %1").arg(QChar('a' + i % 26)) + QString(i / 26, 'z'), "s:1", 0).write);
    // Full: new texts are repeats of their place...
    EXPECT_TRUE(limiter.admit("new one", "s:2", 1).write);
    EXPECT_FALSE(limiter.admit("new two", "s:2", 2).write);
    EXPECT_FALSE(limiter.admit("new three", "s:1", 3).write);
    // ...until the old messages have been quiet for the interval.
    const qint64 t = kWarningIntervalMs;
    EXPECT_TRUE(limiter.admit("new two", "s:2", t + 10).write);   // a first now
    EXPECT_TRUE(limiter.admit("new two", "s:2", t + 11).write);   // its place last wrote at 1
    EXPECT_FALSE(limiter.admit("new two", "s:2", t + 12).write);
    EXPECT_TRUE(limiter.admit("new four", "s:2", t + 13).write);  // a first again
}

TEST(WarningLimit, TheMacroWritesTheFirstAsItIsHoldsBackTheRepeatsAndHonoursASilencedCategory)
{
    LogCapture log;
    for (int type = 20; type < 120; ++type)
        LUMEN_WARNING(lcLimitTest) << "[Test::call]" << type << "is not a filter type; call dropped";
    for (int i = 0; i < 3; ++i)
        LUMEN_WARNING(lcLimitTest).nospace() << "[Test::other] record " << i << " refused";
    EXPECT_EQ(log.count("is not a filter type"), 1) << log.all();
    EXPECT_EQ(log.count("[Test::call] 20 is not a filter type; call dropped", QtWarningMsg), 1) << log.all();
    EXPECT_EQ(log.count("[Test::other] record 0 refused", QtWarningMsg), 1) << log.all();
    EXPECT_EQ(log.count("refused"), 1) << log.all();

    // A new capture forgets the limits: the same warning is written again.
    LogCapture again;
    LUMEN_WARNING(lcLimitTest) << "[Test::call]" << 7 << "is not a filter type; call dropped";
    EXPECT_TRUE(again.contains("[Test::call] 7 is not a filter type; call dropped", QtWarningMsg)) << again.all();

    // A silenced category writes nothing and counts nothing: nothing of the
    // line is even formatted, and the next line of that text is a first.
    QLoggingCategory::setFilterRules("lumen_fx.limittest.warning=false");
    int evaluated = 0;
    LUMEN_WARNING(lcLimitTest) << "[Test::quiet]" << ++evaluated;
    QLoggingCategory::setFilterRules(QString());
    EXPECT_EQ(evaluated, 0);
    LUMEN_WARNING(lcLimitTest) << "[Test::quiet]" << 1;
    EXPECT_EQ(again.count("[Test::quiet] 1", QtWarningMsg), 1) << again.all();
}

}  // namespace
