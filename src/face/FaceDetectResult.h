#pragma once
// The result of one face detection: four parallel lists, one element per face.

#include <vector>

#include <QMetaType>
#include <opencv2/core/types.hpp>

struct FaceDetectResult {
    std::vector<cv::Rect> faceRects;               // pixels of the source picture
    std::vector<std::vector<int>> keyPoints;       // 98 points, interleaved x and y
    std::vector<std::vector<float>> faceTriplets;  // head pose, three values a face
    std::vector<std::vector<float>> faceValueLists;
};

Q_DECLARE_METATYPE(FaceDetectResult)
