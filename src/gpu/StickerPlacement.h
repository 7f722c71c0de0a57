#pragma once
// Where a sticker goes on a face, worked without GL: the model matrix of the
// sticker's quad from the sticker's placement record, the face's 98 key
// points and its turn. The sticker hangs by its anchor on one key point of
// the record (moved by the record's offsets), is as wide as the face's eye
// distance times the record's scales, and turns with the face.

#include <cstdint>
#include <optional>
#include <vector>

#include <QMatrix4x4>

#include "face/KeyPointLayout.h"
#include "filters/StickerInfo.h"

namespace stickerplacement {

// The key points that size a sticker: the two pupils. Their horizontal
// distance is the face's eye distance.
constexpr int kLeftPupil = keypoints::kLeftPupil;
constexpr int kRightPupil = keypoints::kRightPupil;
// The numbers a key point list needs for the eye distance: up to the right
// pupil's x.
constexpr size_t kEyeDistanceFloats = 2 * kRightPupil + 1;

// The horizontal distance of the pupils, in frame pixels.
float eyeDistance(const std::vector<int32_t>& keyPoints);

// The eye distance used for a face drawn after one whose distance was
// `before`: a small change keeps the old size (the detector's jitter), a
// large one takes the new, with a Gaussian weight of the difference between.
float smoothedEyeDistance(float now, float before);

// A turn in degrees about x (pitch), y (yaw) and z (roll).
struct Turn {
    float pitch = 0.0f;
    float yaw = 0.0f;
    float roll = 0.0f;
};

// The turn the sticker takes from the face's angles (pitch, yaw, roll; a
// missing one is 0). With the record's angle limit, a face looking down
// (pitch below -2) and hardly rolled (within 10) keeps its yaw within 20:
// turned right it takes half its roll as well, turned left half its pitch.
Turn stickerTurn(const StickerInfo& info, const std::vector<float>& angles);

// The model matrix of the sticker's quad on a frame of the size, from the
// face's key points and angles and the key points of the face drawn before,
// if any. Nothing without the eye distance's points, in this face or the one
// before, or without the record's key point.
std::optional<QMatrix4x4> stickerModel(const StickerInfo& info, const std::vector<int32_t>& keyPoints,
                                       const std::vector<int32_t>* previousKeyPoints,
                                       const std::vector<float>& angles, int frameWidth, int frameHeight);

}  // namespace stickerplacement
