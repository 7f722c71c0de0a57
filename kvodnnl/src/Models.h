#pragma once
// The models, read once per process and shared by all detectors. The landmark
// model is only read and is shared as it is. The HOG detector and the cascade
// keep scratch state while they scan, so every scan borrows a set of scanners
// from a pool that grows to the number of scans at work at once.
#include <cstddef>
#include <memory>
#include <string>

namespace KVOAI::kvodnnl {

class Predictor;
struct Scanners;

// Fills the pool so that one detector's two threads find their scanners
// ready; called when a detector is made.
void prepareScanners(size_t count);

// A set of scanners borrowed from the pool for as long as it lives.
class ScannerLease {
public:
    ScannerLease();
    ~ScannerLease();
    ScannerLease(const ScannerLease&) = delete;
    ScannerLease& operator=(const ScannerLease&) = delete;
    Scanners& operator*() const { return *scanners_; }

private:
    std::unique_ptr<Scanners> scanners_;
};

// The landmark model of `path`; null, with one warning per path and process,
// when the file can't be read or isn't a model of 68 points.
std::shared_ptr<const Predictor> loadPredictor(const std::string& path);

// dlib's landmark model where Debian installs it.
inline constexpr char kDefaultModelPath[] = "/usr/share/dlib/shape_predictor_68_face_landmarks.dat";

// The file named by KVODNNL_LANDMARK_MODEL when set, otherwise kDefaultModelPath.
std::string modelPathFromEnvironment();

}  // namespace KVOAI::kvodnnl
