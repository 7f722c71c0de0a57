// Stickers and face effects through the public interface: the portrait in
// 1280 x 720 frames, a channel with our own sticker or an effect beside a
// plain control channel, and where the merged pictures differ, against the
// face's points as the detector library finds them in the same frame or as a
// turn of the frame takes those of the upright face.
#include <cmath>
#include <functional>

#include <QPainter>
#include <QThread>
#include <gtest/gtest.h>
#include <kvodnnl/kvodnnl.h>
#include <opencv2/imgproc.hpp>

#include "TestUtil.h"
#include "kvodnnl/Calls.h"
#include "lumen_fx/OpenglImageManager.h"

namespace {

// The portrait in a grey frame, in each of `places` (720 high in the middle
// by default), moved and turned by `at`.
QImage frame(const QTransform& at = {}, const std::vector<QRect>& places = {{280, 0, 720, 720}})
{
    QImage f(1280, 720, QImage::Format_RGBA8888);
    f.fill(QColor(90, 100, 110));
    QPainter p(&f);
    p.setRenderHint(QPainter::SmoothPixmapTransform);
    p.setTransform(at);
    for (const QRect& r : places)
        p.drawImage(r, testutil::portrait());
    return f;
}

struct Face {
    QPointF leftEye, rightEye;
    double browTop, eyes;  // the highest eyebrow point; the eye distance
    QPointF mouth;         // the mean of the mouth's points
};

// The faces of a frame that shows `count` faces, as the detector library
// sees them.
std::vector<Face> faces(const QImage& picture, size_t count = 1)
{
    static KVOAI::FaceDetector detector(KVOAI::DEFAULT, 1, 1);
    std::vector<Face> out;
    // A new picture shows its faces within a few calls (see calls::settle).
    for (const auto& f : calls::settle(detector, calls::rgb(picture), count, true)) {
        auto at = [&](int k) { return QPointF(f.points[2 * k], f.points[2 * k + 1]); };
        double top = 1e9;
        for (int k = 33; k <= 50; ++k)
            top = std::min(top, at(k).y());
        QPointF mouth;
        for (int k = 76; k <= 95; ++k)
            mouth += at(k) / 20;
        out.push_back({at(96), at(97), top, QLineF(at(96), at(97)).length(), mouth});
    }
    return out;
}

// Where a channel with the filters that `add` gives it differs from a plain
// one, in frame pixels, once that holds `expected`.
std::vector<QPoint> changedPixels(const std::function<void(OpenglImageManager*, int, int)>& add, const QImage& picture,
                                  const std::function<bool(const std::vector<QPoint>&)>& expected)
{
    OpenglImageManager* m = OpenglImageManager::instance();
    const int scene = m->genSceneFilters(), withSticker = m->genChannelFilters(scene, true),
              plain = m->genChannelFilters(scene, true);
    add(m, scene, withSticker);
    _channel_merge_param a{withSticker, QRect(0, 0, 960, 540), 0, {}}, b{plain, QRect(960, 0, 960, 540), 0, {}};
    std::vector<QPoint> changed;
    testutil::waitFor([&] {
        m->sendChannelFrame(scene, withSticker, picture, false, true, false);
        m->sendChannelFrame(scene, plain, picture, false, true, false);
        m->mergeImages(scene, {a, b}, 1920, 540, Qt::black, QImage(), QImage());
        QThread::msleep(70);
        QImage merged;
        changed.clear();
        if (!m->getMergeImg(scene, merged) || merged.size() != QSize(1920, 540))
            return false;
        for (int y = 0; y < 540; ++y)
            for (int x = 0; x < 960; ++x) {
                const QRgb p = merged.pixel(x, y), q = merged.pixel(x + 960, y);
                if (std::abs(qRed(p) - qRed(q)) + std::abs(qGreen(p) - qGreen(q)) + std::abs(qBlue(p) - qBlue(q)) > 60)
                    changed.emplace_back(x * 4 / 3, y * 4 / 3);
            }
        return changed.size() > 50 && expected(changed);
    }, 20000);
    return changed;
}

std::vector<QPoint> stickerPixels(const char* name, const QImage& picture,
                                  const std::function<bool(const std::vector<QPoint>&)>& expected)
{
    std::string path = std::string(LUMEN_STICKER_DIR) + "/" + name + ".png";
    return changedPixels([&](OpenglImageManager* m, int scene, int channel) {
        m->addChannelImageFilter(scene, channel, STICKER, &path);
    }, picture, expected);
}

QPointF centroid(const std::vector<QPoint>& points)
{
    QPointF sum;
    for (const QPoint& p : points)
        sum += p;
    return points.empty() ? sum : sum / points.size();
}

// The slope, in degrees, of the line that fits the points best; none for
// fewer than two.
double slope(const std::vector<QPoint>& points)
{
    if (points.size() < 2)
        return std::nan("");
    std::vector<cv::Point2f> at;
    for (const QPoint& p : points)
        at.emplace_back(p.x(), p.y());
    cv::Vec4f line;
    cv::fitLine(at, line, cv::DIST_L2, 0, 0.01, 0.01);
    return std::atan2(line[1], line[0]) * 180 / M_PI;
}

// How far apart two lines' slopes are, in degrees (a line's slope is the
// same turned half round).
double slopeGap(double a, double b) { return std::abs(std::remainder(a - b, 180.0)); }

// The points closer to `at` than `reach`.
std::vector<QPoint> within(const std::vector<QPoint>& all, QPointF at, double reach)
{
    std::vector<QPoint> near;
    std::copy_if(all.begin(), all.end(), std::back_inserter(near),
                 [&](QPoint p) { return QLineF(at, p).length() < reach; });
    return near;
}

}  // namespace

// Each sticker where its anchor puts it on the face of the frame as the
// library finds it: still, moved by 120 pixels, turned by 20 degrees
// clockwise (the right eye lower; the library also sees a face in the turned
// mission patch, so only the largest face counts there), and on both of two
// faces apart across and down (a later face inside the first one's span
// either way gets none).
TEST(StickerRoad, EachStickerWhereItsAnchorSaysAndFollowingTheFace)
{
    using Check = std::function<bool(const std::vector<QPoint>&, const Face&, QPointF eyes)>;
    auto near = [](double reach) {
        return [reach](const std::vector<QPoint>& all, const Face& f, QPointF eyes) {
            return within(all, eyes, reach * f.eyes).size() == all.size();
        };
    };
    auto above = [](const std::vector<QPoint>& all, const Face& f, QPointF) {
        return std::all_of(all.begin(), all.end(), [&](QPoint p) { return p.y() < f.browTop; });
    };
    const struct { const char* sticker; QImage picture; Check check; size_t count = 1; } cases[] = {
        {"glasses01", frame(), near(1.6)},
        {"beret", frame(), above},   // above the eyebrows
        {"rabbit", frame(), above},  // ears on the head
        {"glasses01", frame(QTransform::fromTranslate(120, 0)), near(1.6)},
        {"glasses01", frame(QTransform().translate(640, 360).rotate(20).translate(-640, -360)),
         [&](auto& all, auto& f, QPointF eyes) { return std::abs(slope(within(all, eyes, 1.6 * f.eyes)) - 20) < 5; }},
        {"glasses01", frame({}, {{0, 0, 560, 560}, {720, 160, 560, 560}}), [](auto& all, auto&, QPointF) {
             return std::any_of(all.begin(), all.end(), [](QPoint p) { return p.x() < 640; }) &&
                    std::any_of(all.begin(), all.end(), [](QPoint p) { return p.x() >= 640; });
         }, 2},
    };
    for (const auto& c : cases) {
        std::vector<Face> seen = faces(c.picture, c.count);
        ASSERT_FALSE(seen.empty()) << c.sticker;
        const Face f = *std::max_element(seen.begin(), seen.end(), [](auto& a, auto& b) { return a.eyes < b.eyes; });
        const QPointF eyes = (f.leftEye + f.rightEye) / 2;
        const std::vector<QPoint> changed =
            stickerPixels(c.sticker, c.picture, [&](const std::vector<QPoint>& all) { return c.check(all, f, eyes); });
        EXPECT_TRUE(c.check(changed, f, eyes)) << c.sticker << " on " << &c - cases;
        EXPECT_TRUE(seen.size() > 1 || std::abs(centroid(changed).x() - eyes.x()) < 0.5 * f.eyes) << &c - cases;
    }
}

// A head that leans far, 40 and 45 degrees either way: red lips on its
// mouth, where the turn takes the upright face's, and along its line; the
// glasses on its eyes, along their line.
TEST(StickerRoad, EffectsOnAHeadThatLeansFarLandOnIt)
{
    const std::vector<Face> upright = faces(frame());
    ASSERT_EQ(upright.size(), 1u);
    for (double degrees : {40.0, -40.0, 45.0, -45.0}) {
        SCOPED_TRACE("turned by " + std::to_string(degrees));
        const QTransform turn = QTransform().translate(640, 360).rotate(degrees).translate(-640, -360);
        const QImage picture = frame(turn);
        const QPointF mouth = turn.map(upright[0].mouth);
        const QPointF eyes = turn.map((upright[0].leftEye + upright[0].rightEye) / 2);
        const double span = upright[0].eyes;
        // Red lips: every changed pixel within 0.7 eye distances of the mouth.
        _strength_param strength{400, true};
        const auto onMouth = [&](const std::vector<QPoint>& all) {
            return within(all, mouth, 0.7 * span).size() == all.size()
                && QLineF(centroid(all), mouth).length() < 0.15 * span && slopeGap(slope(all), degrees) < 8;
        };
        const std::vector<QPoint> lips = changedPixels([&](OpenglImageManager* m, int scene, int channel) {
            m->addChannelImageFilter(scene, channel, REDLIPS, &strength);
        }, picture, onMouth);
        EXPECT_TRUE(onMouth(lips)) << lips.size() << " pixels round " << centroid(lips).x() << ", "
                                   << centroid(lips).y() << " at " << slope(lips) << " degrees; the mouth at "
                                   << mouth.x() << ", " << mouth.y();
        // The glasses: round the eyes, along their line.
        const auto onEyes = [&](const std::vector<QPoint>& all) {
            const std::vector<QPoint> near = within(all, eyes, 1.6 * span);
            return near.size() > 50 && QLineF(centroid(near), eyes).length() < 0.25 * span
                && slopeGap(slope(near), degrees) < 6;
        };
        const std::vector<QPoint> glasses = stickerPixels("glasses01", picture, onEyes);
        EXPECT_TRUE(onEyes(glasses)) << glasses.size() << " pixels";
    }
}
