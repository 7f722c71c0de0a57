// The stress program's scene stamps: a stamp is found in a picture however the
// merge scales, turns or mirrors it, and nothing else is ever taken for one.
#include <QImage>
#include <QPainter>
#include <QTransform>

#include <gtest/gtest.h>

#include "stress/ControlScenes.h"
#include "stress/SceneStamps.h"
#include "TestUtil.h"

namespace {

using stress::stamped;
using stress::stampsIn;

QImage portrait() { return testutil::portrait(QImage::Format_RGB32).scaled(640, 480); }

// Each channel of every pixel moved by `delta`, as a brightness filter does.
QImage brighter(const QImage& picture, int delta)
{
    QImage out = picture.convertToFormat(QImage::Format_RGB32);
    for (int y = 0; y < out.height(); ++y) {
        auto* line = reinterpret_cast<QRgb*>(out.scanLine(y));
        for (int x = 0; x < out.width(); ++x)
            line[x] = qRgb(qBound(0, qRed(line[x]) + delta, 255), qBound(0, qGreen(line[x]) + delta, 255),
                           qBound(0, qBlue(line[x]) + delta, 255));
    }
    return out;
}

// Two pictures side by side on a black canvas, as a merge of two channels.
QImage sideBySide(const QImage& a, const QImage& b)
{
    QImage canvas(a.width() + b.width() + 40, std::max(a.height(), b.height()), QImage::Format_RGB32);
    canvas.fill(Qt::black);
    QPainter painter(&canvas);
    painter.drawImage(0, 0, a);
    painter.drawImage(a.width() + 40, 0, b);
    return canvas;
}

TEST(SceneStamps, AStampIsFoundThroughWhatAMergeDoesToItAndNothingElseIsTakenForOne)
{
    const QImage two = stamped(portrait(), 2);
    const struct { const char* name; QImage picture; unsigned expected; } cases[] = {
        {"as stamped", two, 1u << 2},
        {"scaled to a third, smoothly", two.scaled(213, 160, Qt::IgnoreAspectRatio, Qt::SmoothTransformation), 1u << 2},
        {"scaled up, smoothly", two.scaled(1500, 1100, Qt::IgnoreAspectRatio, Qt::SmoothTransformation), 1u << 2},
        {"turned a quarter", two.transformed(QTransform().rotate(90)), 1u << 2},
        {"turned three quarters", two.transformed(QTransform().rotate(270)), 1u << 2},
        {"mirrored", two.mirrored(true, false), 1u << 2},
        {"upside down", two.mirrored(false, true), 1u << 2},
        {"two scenes' channels merged", sideBySide(stamped(portrait(), 1), stamped(portrait(), 4)),
         (1u << 1) | (1u << 4)},
        {"no stamp", portrait(), 0},
        {"no stamp, scaled", portrait().scaled(1920, 1080, Qt::IgnoreAspectRatio, Qt::SmoothTransformation), 0},
        {"brightened by 20", brighter(two, 20), 0},
        {"darkened by 5", brighter(two, -5), 0},
        {"scaled to a twelfth", two.scaled(53, 40, Qt::IgnoreAspectRatio, Qt::SmoothTransformation), 1u << 2},
        {"scaled to a fortieth", two.scaled(16, 12, Qt::IgnoreAspectRatio, Qt::SmoothTransformation), 0},
        {"grey", [] { QImage g(320, 240, QImage::Format_RGB888); g.fill(QColor(53, 53, 53)); return g; }(), 0},
        {"a null picture", QImage(), 0},
    };
    for (const auto& c : cases)
        EXPECT_EQ(stampsIn(c.picture), c.expected) << c.name;
}

TEST(SceneStamps, EveryScenesStampIsItsOwnAndLossyFormatsNeverShowAnother)
{
    for (int i = 0; i < stress::kStampScenes; ++i) {
        EXPECT_EQ(stampsIn(stamped(portrait(), i)), 1u << i) << "scene " << i;
        // Formats of fewer bits lose the stamp's colours: their own stamp may
        // go, another's must not come.
        for (QImage::Format format : {QImage::Format_RGB16, QImage::Format_Indexed8, QImage::Format_Grayscale8,
                                      QImage::Format_RGB444}) {
            const unsigned found = stampsIn(stamped(portrait().convertToFormat(format), i));
            EXPECT_EQ(found & ~(1u << i), 0u) << "scene " << i << " format " << format;
        }
    }
    const QImage tiny = portrait().scaled(39, 29);
    EXPECT_EQ(stamped(tiny, 3), tiny);
}

TEST(SceneStamps, AControlPictureCarriesItsStampAndDifferencesCountTheWorstChannel)
{
    const QImage control = stress::controlPicture(QSize(1280, 720), 5);
    EXPECT_EQ(stampsIn(control), 1u << 5);
    QImage changed = control.convertToFormat(QImage::Format_RGB888);
    EXPECT_EQ(stress::worstDifference(control, changed), 0);
    changed.scanLine(700)[3 * 1000 + 1] ^= 0x07;  // one channel of one pixel, by up to 7
    const int expected =
        std::abs(int(control.pixelColor(1000, 700).green()) - int(changed.pixelColor(1000, 700).green()));
    EXPECT_EQ(stress::worstDifference(control, changed), expected);
    EXPECT_EQ(stress::worstDifference(control, control.scaled(1280, 719)), 256);
}

}  // namespace
