// Where the recorder puts its inputs, and what its progress line says: pure
// functions, no engine.
#include <gtest/gtest.h>

#include "GridLayout.h"
#include "Progress.h"

namespace {

// cell: the size of each picture.
struct GridCase { const char* name; QList<QSize> inputs; bool compare; QSize size; int columns, rows; QSize cell; };

const QSize k720(1280, 720), k1080(1920, 1080);

QList<QSize> times(int n, const QSize& size) { return QVector<QSize>(n, size).toList(); }

const GridCase kGrids[] = {
    {"OneFillsThePicture", {k720}, false, k720, 1, 1, k720},
    {"TwoSideBySide", {k720, k720}, false, k1080, 2, 1, QSize(960, 540)},
    {"ThreeInTwoByTwo", {k720, QSize(853, 479), QSize(320, 240)}, false, k1080, 2, 2, QSize(960, 540)},
    {"FourInTwoByTwo", times(4, k720), false, k1080, 2, 2, QSize(960, 540)},
    {"FiveInThreeByTwo", times(5, k720), false, k1080, 3, 2, QSize(640, 360)},
    {"NineInThreeByThree", times(9, k720), false, k1080, 3, 3, QSize(640, 360)},
    {"PairOfOne", {k720}, true, QSize(1920, 540), 1, 1, QSize(960, 540)},
    {"PairsOfTwoStacked", {k720, k720}, true, k1080, 1, 2, QSize(960, 540)},
    {"StandingPicturesInALyingMerge", {QSize(720, 1280), QSize(720, 1280)}, false, k1080, 2, 1,
     QSize(608, 1080)},
};

void PrintTo(const GridCase& c, std::ostream* os) { *os << c.name; }

class Grid : public ::testing::TestWithParam<GridCase> {};

}  // namespace

TEST_P(Grid, CellsAreLargestWithinThePictureWithoutOverlap)
{
    const GridCase& c = GetParam();
    const GridLayout grid = layoutGrid(c.inputs, c.compare, c.size);
    EXPECT_EQ(grid.columns, c.columns);
    EXPECT_EQ(grid.rows, c.rows);
    ASSERT_EQ(grid.cells.size(), c.inputs.size() * (c.compare ? 2 : 1));
    QRect all;
    for (int i = 0; i < grid.cells.size(); ++i) {
        const GridCell& cell = grid.cells[i];
        EXPECT_NEAR(cell.rect.width(), c.cell.width(), 1) << i;
        EXPECT_NEAR(cell.rect.height(), c.cell.height(), 1) << i;
        EXPECT_TRUE(QRect(QPoint(0, 0), c.size).contains(cell.rect)) << i;
        EXPECT_EQ(cell.input, c.compare ? i / 2 : i);
        EXPECT_EQ(cell.effects, !c.compare || i % 2 == 1) << "before on the left, after on the right";
        for (int j = 0; j < i; ++j)
            EXPECT_FALSE(cell.rect.intersects(grid.cells[j].rect)) << i << " and " << j;
        all |= cell.rect;
    }
    // The grid sits in the middle.
    EXPECT_NEAR(all.center().x(), c.size.width() / 2.0, 1.5);
    EXPECT_NEAR(all.center().y(), c.size.height() / 2.0, 1.5);
}

INSTANTIATE_TEST_SUITE_P(Video, Grid, ::testing::ValuesIn(kGrids),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(Grid, DefaultSizesAreEvenAndWithinTheMergeLimits)
{
    const struct { QList<QSize> inputs; bool compare; QSize expected; } cases[] = {
        {{QSize(1280, 720)}, false, QSize(1280, 720)},
        {{QSize(853, 479)}, false, QSize(852, 478)},
        {{QSize(3840, 2160)}, false, QSize(1920, 1080)},
        {{QSize(1080, 1920)}, false, QSize(1080, 1920)},
        {{QSize(1280, 720)}, true, QSize(1920, 540)},
        {{QSize(640, 480)}, true, QSize(1280, 480)},
        {{QSize(640, 360), QSize(320, 240)}, false, QSize(1920, 1080)},
    };
    for (const auto& c : cases) {
        const QSize size = defaultMergeSize(c.inputs, c.compare);
        EXPECT_EQ(size, c.expected) << c.inputs.first().width() << "x" << c.inputs.first().height();
        EXPECT_TRUE(mergeSizeAllowed(size));
    }
    EXPECT_FALSE(mergeSizeAllowed(QSize(1921, 1080)));
    EXPECT_FALSE(mergeSizeAllowed(QSize(1080, 1921)));
    EXPECT_FALSE(mergeSizeAllowed(QSize(1, 1)));
    EXPECT_EQ(evenSize(QSize(853, 479)), QSize(854, 480));
}

TEST(Progress, SpeedTimeLeftAndTheBarFitTheTerminal)
{
    RecordingFigures f;
    f.recorded = 100;
    f.videoSeconds = 4;
    f.totalSeconds = 8;
    f.wallSeconds = 5;
    f.clockSeconds = 4;  // the clock waited one second in five
    EXPECT_DOUBLE_EQ(speedOf(f), 0.8);
    const QString line = progressLine(f, 72);
    EXPECT_EQ(line.size(), 72);
    EXPECT_TRUE(line.contains("100 frames  4.0/8.0 s  0.80x  5 s left")) << line.toStdString();
    EXPECT_NEAR(line.count('#'), (line.indexOf(']') - 1) / 2.0, 0.5) << "half done, half the bar";
    EXPECT_EQ(progressLine(f, 20).size(), 20);
    f.totalSeconds = 0;
    EXPECT_TRUE(progressLine(f, 72).contains("4.0/? s  0.80x  -- left"));
}
