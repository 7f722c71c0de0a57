#pragma once
// kvodnnl: face detection with boxes and 98 key points per face.
//
// A FaceDetector finds frontal faces in a stream of pictures, fits 98 key
// points to each and estimates the head pose. The landmark model is found by
// the library itself: the file named by the environment variable
// KVODNNL_LANDMARK_MODEL when set, otherwise
// /usr/share/dlib/shape_predictor_68_face_landmarks.dat. The models (the
// landmark model, dlib's HOG face detector and OpenCV's LBP face cascade from
// /usr/share/opencv4/lbpcascades) are read once per process, when the first
// detector is made; later detectors share them. Without a readable landmark
// model the library writes one warning to stderr and reports no faces;
// without the cascade it warns once and finds no faces narrower than about
// 80 pixels.
//
// Over time, each call of Run:
//   - follows the faces of the last call: a face whose box still looks as it
//     did keeps its box, any other is searched for near its last place; a
//     face not found there is dropped at once. In a picture that differs much
//     from the last one on the whole, once the first two faces searched for
//     are not found, the rest are dropped too (the picture is another scene).
//     A call searches for faces near their places for about 10 ms; the boxes
//     of those left move as their part of the picture moved, and they are
//     searched for first on the next call;
//   - has the whole picture searched, in the background: on the first call,
//     whenever the picture differs much from the last one on the whole, when
//     `flagA` is true, when a followed face is lost, and otherwise every 15
//     calls (every 10 while no face is shown, or every 5 while none is shown
//     and the picture changes in a few places). The search finds faces from
//     about 40 pixels wide (the HOG detector for faces from a sixth of the
//     picture's shorter side up, the cascade, each of whose finds the HOG
//     detector confirms, for smaller ones down to 36 pixels or a twentieth of
//     the shorter side), and then, with the cascade, for the sizes between
//     the cascade's steps. It is cut into tasks of a few milliseconds that
//     run on a thread of the detector's own; the calling thread takes some on
//     as well while its call stays within about 18 ms (22 ms for a search
//     asked for by a new picture or `flagA`), when no face is shown or the
//     search was asked for so. A face the HOG detector confirms must pass the
//     cascade too, in the frame its key points lean in, and the thread that
//     confirms it fits those key points. Faces that the search finds are
//     shown from the first call that ends after they were found, the call
//     whose own tasks found them included (after a new search near their
//     place when the picture has changed since);
//   - ends a search asked for by a new picture or by `flagA` from its fifth
//     call on, doing what is left itself within about 26 ms of each call: a
//     still picture of a few faces handed in repeatedly shows them by the
//     fifth call, one of many small faces (a classroom of 27) by about the
//     tenth (the first call of a new detector shows those that the tasks it
//     took on found, often none). `flagA` true thus no longer means a search
//     within the call; while such a search is under way, further `flagA`
//     calls join it;
//   - fits key points to a face only when its look changed: a face that
//     looks as it did where its points were fitted keeps them, moved along
//     when it moved by up to a quarter of its width. Once a call has taken
//     about 24 ms, a face that needs a new fit keeps its points too, moved as
//     its part of the picture moved, and is fitted on a later call (those
//     waiting longest first); a face without points yet is always fitted.
//     The budgets of a call leave the time that handing out its faces takes;
//   - smooths each face's key points and box with those of the same face in
//     the last call (matched by the overlap of their boxes): strongly while
//     the face keeps still, hardly while it moves. A face new to a call, or
//     back after a call without it, starts with its own unsmoothed values.
// The search thread, named "kvodnnl-search", runs at a lower priority
// (niceness 10) than the threads that call, so that it takes what their work
// leaves of the processors.
// The search thread is started with the detector and ended, after the task
// it is on (a few milliseconds), by its destruction; no thread of the library
// outlives its detector. While a cascade task runs, OpenCV's parallel loops
// elsewhere in the process run on one thread.
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
    // first, as described at the top of this file. Any other picture gives no
    // faces and nothing is followed into the next one. `flagA` true asks for
    // a search of the whole picture, ended from the fifth call on. `flagB`,
    // `a`, `b` and `c` are accepted for compatibility and not used. The
    // returned list stays valid until the next Run or the detector's
    // destruction. One thread at a time per detector; different detectors may
    // run on different threads at once.
    const std::vector<Face>& Run(const cv::Mat& image, bool flagA, bool flagB, int a, int b, float c);

private:
    FaceDetectorImpl* impl_;
};

}  // namespace KVOAI
