#pragma once
// The search of the whole picture, cut into tasks.
//
// A search is cut into tasks of a few milliseconds each, so that the
// detector's own thread and, when the search falls behind, the calling thread
// can share it, and so that it can follow a picture that keeps changing:
//   Hog      the HOG detector on the picture reduced so that the smallest
//            faces it looks for measure its window: one pyramid level a
//            task for the larger levels, the rest of the pyramid in one
//   Cascade  the cascade with one window size, over a part of the picture
//            reduced so that the smallest faces of an octave of face sizes
//            measure its window
//   Confirm  a candidate of the other two, searched for with the HOG
//            detector near its place at kNearFace pixels, on kNearLevels
//            levels as a followed face is
// Every task scans the latest picture handed in when it starts. A new search
// marks all the plan's tasks to do again and goes on from where the last one
// stood, so that a picture that changes at every call is still searched
// whole, one part after the other.
#include <vector>

#include <dlib/geometry/rectangle.h>
#include <opencv2/core/types.hpp>

namespace KVOAI::kvodnnl {

struct Task {
    enum Kind { Hog, Cascade, Confirm } kind = Hog;
    double scale = 1;           // Hog, Cascade: reduction of the picture before the scan
    bool restOfPyramid = false; // Hog: this level and all smaller ones
    cv::Rect tile;              // Cascade: part of the picture scanned
    int smallest = 0, largest = 0;  // Cascade: window sizes scanned in the reduced part
    dlib::rectangle box;        // Confirm: the candidate...
    double lean = 0;            // ...and the lean it is searched for at
    double work = 0;            // millions of HOG pixels or of cascade windows
};

// The Hog and Cascade tasks of a whole search of pictures of `size`, the
// larger faces first.
std::vector<Task> planSearch(cv::Size size);

// The task that confirms a candidate at `box`, upright or leaning by `lean`
// degrees.
Task confirmTask(const dlib::rectangle& box, double lean = 0);

// Milliseconds on the clock that `task` is expected to take on the calling
// thread: the processor time at the rates measured over the process's recent
// tasks, times the slowdown...
double estimate(const Task& task);
// ...and that a search near a followed face is.
double nearMilliseconds();
// Takes a task's processor time into those rates.
void measured(const Task& task, double milliseconds);

}  // namespace KVOAI::kvodnnl
