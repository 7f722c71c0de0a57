#pragma once
// kvodnnl: face detection with boxes and 98 key points per face.
//
// A FaceDetector finds frontal faces in a picture, fits 98 key points to each
// and estimates the head pose. The landmark model is found by the library
// itself: the file named by the environment variable KVODNNL_LANDMARK_MODEL
// when set, otherwise /usr/share/dlib/shape_predictor_68_face_landmarks.dat.
// The model is read once per process, on the first Run that needs it. Without
// a readable model the library writes one warning to stderr and reports no
// faces.
//
// Key point layout (point k is points[2k], points[2k + 1]; "left" and "right"
// are the picture's, not the person's):
//   0-32   face contour, from the left temple down round the chin to the right
//          temple; 16 is the bottom of the chin
//   33-41  left eyebrow: 33-37 upper edge from its outer to its inner end,
//          38-41 lower edge back from the inner end to the outer one
//   42-50  right eyebrow: 42-46 upper edge from its inner to its outer end,
//          47-50 lower edge back from the outer end to the inner one
//   51-54  nose bridge, from between the eyes down to the tip (54)
//   55-59  base of the nose, left to right
//   60-67  left eye: 60 outer corner, 61-63 upper lid, 64 inner corner,
//          65-67 lower lid back to the outer corner
//   68-75  right eye: 68 inner corner, 69-71 upper lid, 72 outer corner,
//          73-75 lower lid back to the inner corner
//   76-87  outer lip line: 76 left corner, 77-81 upper lip to 82 the right
//          corner, 83-87 lower lip back to the left (79 top of the upper lip)
//   88-95  inner lip line: 88 left corner, 89-91 upper (90 its middle),
//          92 right corner, 93-95 lower (94 its middle)
//   96, 97 centres of the left and the right eye
//
// Head pose (Face::triple), in whole degrees, as rotations of the head from a
// pose that looks straight into the lens, measured about the line of sight in
// the camera frame of the picture (x right, y down, z away from the viewer):
//   triple[0] pitch, about x: positive when the face looks down
//   triple[1] yaw,   about y: positive when the face turns towards the
//             picture's left
//   triple[2] roll,  about z: positive when the head leans clockwise as the
//             picture is seen (the right eye lower than the left one)
// The head's rotation is Rx(pitch) * Ry(yaw) * Rz(roll).

#include <vector>

#include <opencv2/core.hpp>

#if defined(KVODNNL_BUILDING)
#define KVODNNL_API __attribute__((visibility("default")))
#else
#define KVODNNL_API
#endif

namespace KVOAI {

// Detection runs on the processor whatever device is asked for.
enum ComputeDeviceType : int {
    CPU = 0,
    DEFAULT = 1,
    GPU = 2,
};

class FaceDetectorImpl;

class KVODNNL_API FaceDetector {
public:
    struct Face {
        std::vector<int> points;     // 98 points, interleaved x, y, in pixels of the picture
        std::vector<int> box;        // left, top, right, bottom in pixels of the picture
        std::vector<int> triple;     // pitch, yaw, roll in whole degrees (see above)
        std::vector<float> floatsA;  // pitch, yaw, roll in degrees, unrounded
        std::vector<float> floatsB;  // empty
        std::vector<float> floatsC;  // detection score (above 0; higher is surer)
        float valueA = 0.f;          // 0
        float valueB = 0.f;          // 0
    };

    // `device`, `a` and `b` are accepted for compatibility and not used.
    FaceDetector(ComputeDeviceType device, unsigned int a, unsigned int b);
    ~FaceDetector();
    FaceDetector(const FaceDetector&) = delete;
    FaceDetector& operator=(const FaceDetector&) = delete;

    // Finds the faces of `image`: 8 bits a channel, 3 or 4 channels, red
    // first. Any other picture gives no faces. While the faces of the previous
    // call can be followed in a picture that has not changed much, they are
    // searched near their last place; `flagA` true asks for a search of the
    // whole picture instead. `flagB`, `a`, `b` and `c` are accepted for
    // compatibility and not used. The returned list stays valid until the
    // next Run or the detector's destruction. One thread at a time per
    // detector.
    const std::vector<Face>& Run(const cv::Mat& image, bool flagA, bool flagB, int a, int b, float c);

private:
    FaceDetectorImpl* impl_;
};

}  // namespace KVOAI
