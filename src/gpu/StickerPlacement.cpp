#include "gpu/StickerPlacement.h"

#include <algorithm>
#include <cmath>

#include <QVector2D>
#include <QVector3D>

#include "base/Numbers.h"

namespace stickerplacement {

namespace {

float angleAt(const std::vector<float>& angles, size_t i)
{
    return i < angles.size() ? angles[i] : 0.0f;
}

void turnBy(QMatrix4x4& m, const Turn& turn)
{
    m.rotate(turn.pitch, 1.0f, 0.0f, 0.0f);
    m.rotate(turn.yaw, 0.0f, 1.0f, 0.0f);
    m.rotate(turn.roll, 0.0f, 0.0f, 1.0f);
}

}  // namespace

float eyeDistance(const std::vector<int32_t>& keyPoints)
{
    const double left = keyPoints[2 * kLeftPupil];
    const double right = keyPoints[2 * kRightPupil];
    return static_cast<float>(std::fabs(left - right));
}

float smoothedEyeDistance(float now, float before)
{
    const float weight = std::exp(-(before - now) * (before - now) / 50.0f);
    return now * (1.0f - weight) + before * weight;
}

Turn stickerTurn(const StickerInfo& info, const std::vector<float>& angles)
{
    const Turn face{angleAt(angles, 0), angleAt(angles, 1), angleAt(angles, 2)};
    Turn turn = face;
    const bool lookingDown = face.pitch < -2.0f && -10.0f < face.roll && face.roll < 10.0f;
    if (info.angle_limit == 1.0f && lookingDown) {
        if (face.yaw > 20.0f) {
            turn.yaw = 20.0f;
            turn.roll = face.roll * 0.5f;
        } else if (face.yaw < -20.0f) {
            turn.yaw = -20.0f;
            turn.pitch = face.pitch * 0.5f;
        }
    }
    return turn;
}

std::optional<QMatrix4x4> stickerModel(const StickerInfo& info, const std::vector<int32_t>& keyPoints,
                                       const std::vector<int32_t>* previousKeyPoints,
                                       const std::vector<float>& angles, int frameWidth, int frameHeight)
{
    if (keyPoints.size() < kEyeDistanceFloats)
        return std::nullopt;
    float eyes = eyeDistance(keyPoints);
    if (previousKeyPoints) {
        if (previousKeyPoints->size() < kEyeDistanceFloats)
            return std::nullopt;
        eyes = smoothedEyeDistance(eyes, eyeDistance(*previousKeyPoints));
    }
    const Turn turn = stickerTurn(info, angles);
    const float W = static_cast<float>(frameWidth);
    const float H = static_cast<float>(frameHeight);
    const float aspect = W / H;

    // The frame's middle row as the face's turn shows it, in a square space:
    // the eye distance over its half length moves the anchor by the record's
    // offsets, over the distance of its quarters sizes the sticker.
    QMatrix4x4 turned;
    turnBy(turned, turn);
    turned.scale(1.0f, 1.0f / aspect);
    const QVector2D centre = turned.map(QVector3D(frameWidth / 2, frameHeight / 2, 0)).toVector2D();
    const QVector2D firstQuarter = turned.map(QVector3D(frameWidth / 4, frameHeight / 2, 0)).toVector2D();
    const QVector2D lastQuarter = turned.map(QVector3D(3 * frameWidth / 4, frameHeight / 2, 0)).toVector2D();
    const float offsetRatio = eyes / centre.length();
    const float sizeRatio = eyes / (firstQuarter - lastQuarter).length();

    // The key point the sticker hangs on.
    const size_t hang = 2 * static_cast<size_t>(std::max(0, truncToInt(info.center_index)));
    if (hang + 1 >= keyPoints.size())
        return std::nullopt;
    QMatrix4x4 model;
    model.translate(keyPoints[hang] / (W / 2) - 1.0f - offsetRatio * info.offset_x_scale_factor,
                    keyPoints[hang + 1] / (H / 2) - 1.0f - offsetRatio * info.offset_y_scale_factor, 0.0f);
    model.scale(1.0f, aspect);
    // Wider as the face rolls, by the roll it has. The constant 3.14 as the
    // catalogue's placements were tuned with it.
    const float rollWidening = std::fabs(std::cos(angleAt(angles, 2) * 3.14f / 180.0f));
    model.scale(sizeRatio * info.base_x_scale / rollWidening, sizeRatio * info.base_y_scale / rollWidening);
    turnBy(model, turn);
    if (info.sticker_scaled == 0.0f)
        model.scale(1.0f, aspect > 1.0f ? 1.0f / aspect : aspect);
    // The sticker's anchor, in its own picture, onto that point.
    model.translate(W * info.sticker_anchor_x / (W / 2) - 1.0f, (1.0f - info.sticker_anchor_y) * H / (H / 2) - 1.0f,
                    0.0f);
    return model;
}

}  // namespace stickerplacement
