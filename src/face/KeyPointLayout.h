#pragma once
// Where the parts of a face sit in the detector's list of 98 key points
// (x and y of each, interleaved).

namespace keypoints {

constexpr int kCount = 98;
constexpr int kFloats = 2 * kCount;
// The jaw line, from one ear to the other.
constexpr int kContourFirst = 0;
constexpr int kContourLast = 32;
// The outer and inner lip lines.
constexpr int kMouthFirst = 76;
constexpr int kMouthLast = 95;
// The pupils.
constexpr int kLeftPupil = 96;
constexpr int kRightPupil = 97;

}  // namespace keypoints
