// Where a sticker goes on a 1280 x 720 frame, worked in pixels: the
// sticker's anchor lands on its key point (less the offsets of the offset
// kind), and its width runs along the face's turn, bx times the eye distance
// (smoothed against the face before) over |cos roll| each side. The placement
// is worked without GL; the worker's sticker program takes it as it is.
#include <cmath>
#include <optional>

#include <QMatrix4x4>
#include <gtest/gtest.h>

#include "filters/OpenglStickerFilter.h"
#include "gpu/OpenglChannelWorker.h"
#include "gpu/StickerPlacement.h"
#include "shader/ShaderWorker.h"

using stickerplacement::stickerModel;

namespace {

class PlacingWorker : public OpenglChannelWorker {
public:
    PlacingWorker() : OpenglChannelWorker(1, 1) {}
    std::vector<std::vector<int32_t>>& previousPoints() { return lastPoints; }
};

// A face with the pupils (points 96, 97) at (600, 290) and (600 + eyes, 290)
// and every other point at (640, 300).
std::vector<int32_t> face(int eyes = 80)
{
    std::vector<int32_t> p(196);
    for (size_t i = 0; i < p.size(); i += 2)
        p[i] = 640, p[i + 1] = 300;
    p[192] = 600, p[193] = 290, p[194] = 600 + eyes, p[195] = 290;
    return p;
}

StickerInfo record(const char* name)
{
    OpenglStickerFilter f;
    const int type = QMetaEnum::fromType<CommonEnum::StickerType>().keyToValue(name);
    f.setUniforms(nullptr, {{sticker_type, double(type)}}, 0, 0);
    return f.stickerInfo();
}

}  // namespace

TEST(StickerPlacement, AnchorOnTheKeyPointWidthAlongTheTurn)
{
    StickerInfo unlimited = record("GLASSES01");
    unlimited.angle_limit = 0;
    const float offsetRatio = 80 / std::hypot(640.0f, 360 / (1280 / 720.0f));  // e / |c| without a turn
    // Angles: pitch, yaw, roll; before: the eye distance of the face drawn
    // before; anchor: where the anchor lands; eyes: the eye distance used;
    // turn: the angles that turn it.
    const struct { const char* name; StickerInfo info; std::vector<float> angles; std::optional<int> before;
                   QPointF anchor; float eyes; std::vector<float> turn; } cases[] = {
        {"still", record("GLASSES01"), {0, 0, 0}, {}, {640, 300}, 80, {0, 0, 0}},
        {"rolled", record("GLASSES01"), {0, 0, 20}, {}, {640, 300}, 80, {0, 0, 20}},
        // Looking down with a large yaw: yaw held at 20, the roll halved.
        {"limited", record("GLASSES01"), {-5, 30, 8}, {}, {640, 300}, 80, {-5, 20, 4}},
        {"unlimited", unlimited, {-5, 30, 8}, {}, {640, 300}, 80, {-5, 30, 8}},
        {"limited pitch", record("GLASSES01"), {-6, -25, 5}, {}, {640, 300}, 80, {-3, -20, 5}},
        // Rolled by 12 the limit doesn't hold; nor looking up.
        {"rolled past the limit", record("GLASSES01"), {-5, 30, 12}, {}, {640, 300}, 80, {-5, 30, 12}},
        {"looking up", record("GLASSES01"), {5, 30, 8}, {}, {640, 300}, 80, {5, 30, 8}},
        // exp(-(e1 - e)^2 / 50) of the old size stays.
        {"a little larger", record("GLASSES01"), {0, 0, 0}, 75, {640, 300}, 80 - 5 * std::exp(-0.5f), {0, 0, 0}},
        {"much larger", record("GLASSES01"), {0, 0, 0}, 50, {640, 300}, 80, {0, 0, 0}},
        // The offset kind: the top right corner, moved by e / |c| x the factors.
        {"medal", record("MEDAL"), {0, 0, 0}, {}, {640 - offsetRatio * 0.5f * 640, 300 - offsetRatio * 0.25f * 360}, 80, {0, 0, 0}},
    };
    for (const auto& c : cases) {
        const std::vector<int32_t> before = c.before ? face(*c.before) : std::vector<int32_t>();
        const std::optional<QMatrix4x4> model =
            stickerModel(c.info, face(), c.before ? &before : nullptr, c.angles, 1280, 720);
        ASSERT_TRUE(model) << c.name;
        auto pixel = [&](float x, float y) {
            const QVector3D ndc = model->map(QVector3D(x, y, 0));
            return QPointF((ndc.x() + 1) * 640, (ndc.y() + 1) * 360);
        };
        // The anchor is measured from the right and from the top of the picture.
        const QPointF a(1 - 2 * c.info.sticker_anchor_x, 2 * c.info.sticker_anchor_y - 1);
        const QPointF at = pixel(a.x(), a.y()), along = pixel(a.x() + 1, a.y()) - at;
        EXPECT_LT(QLineF(at, c.anchor).length(), 0.01) << c.name << ": at " << at.x() << ", " << at.y();
        QMatrix4x4 turn;
        turn.rotate(c.turn[0], 1, 0, 0), turn.rotate(c.turn[1], 0, 1, 0), turn.rotate(c.turn[2], 0, 0, 1);
        const QVector3D x = turn.map(QVector3D(1, 0, 0));
        const float k = std::fabs(std::cos(c.angles[2] * 3.14f / 180));
        EXPECT_NEAR(QLineF(QPointF(), along).length(), c.eyes * c.info.base_x_scale / k, 0.01) << c.name;
        EXPECT_NEAR(std::atan2(along.y(), along.x()), std::atan2(x.y(), x.x()), 1e-4) << c.name;
    }
    // No sticker without 98 points, nor after a face without them, nor on a
    // key point the list doesn't have.
    const std::vector<int32_t> few(10, 1);
    EXPECT_FALSE(stickerModel(record("GLASSES01"), std::vector<int32_t>(194, 1), nullptr, {0, 0, 0}, 1280, 720));
    EXPECT_FALSE(stickerModel(record("GLASSES01"), face(), &few, {0, 0, 0}, 1280, 720));
    StickerInfo beyond = record("GLASSES01");
    beyond.center_index = 98;
    EXPECT_FALSE(stickerModel(beyond, face(), nullptr, {0, 0, 0}, 1280, 720));
}

// The worker's sticker program takes the placement as its model, with the
// face drawn before; a face it can't place leaves the identity.
TEST(StickerPlacement, TheWorkerDrawsWithThePlacement)
{
    PlacingWorker worker;
    QImage frame(1280, 720, QImage::Format_RGBA8888);
    ASSERT_TRUE(worker.doPreWork(frame.bits(), 1280, 720));
    const std::vector<int32_t> before = face(75);
    worker.previousPoints() = {before};
    ASSERT_TRUE(worker.positionSticker(record("GLASSES01"), face(), {-5, 30, 8}));
    EXPECT_EQ(worker.stickerShader()->mvp(), *stickerModel(record("GLASSES01"), face(), &before, {-5, 30, 8}, 1280, 720));
    EXPECT_FALSE(worker.positionSticker(record("GLASSES01"), std::vector<int32_t>(194, 1), {0, 0, 0}));
    EXPECT_TRUE(worker.stickerShader()->mvp().isIdentity());
    worker.doneCurrent();
}
