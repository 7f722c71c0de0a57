#include "kvodnnl/kvodnnl.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <exception>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <thread>

#include <pthread.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <dlib/image_processing/frontal_face_detector.h>
#include <dlib/image_processing/shape_predictor.h>
#include <dlib/opencv/cv_image.h>
#include <opencv2/calib3d.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/objdetect.hpp>

#include "FaceFilter.h"

namespace KVOAI {

namespace {

const char* const kDefaultModelPath = "/usr/share/dlib/shape_predictor_68_face_landmarks.dat";
const char* const kModelPathVariable = "KVODNNL_LANDMARK_MODEL";
// OpenCV's LBP frontal face cascade (Debian's opencv-data); it proposes the
// small faces, which the HOG detector then confirms.
const char* const kCascadePath = "/usr/share/opencv4/lbpcascades/lbpcascade_frontalface.xml";

// Side of the square that the HOG detector scans; faces much smaller than this
// are not found by it unless the picture is enlarged.
constexpr double kHogWindow = 80.0;
// Side of the cascade's window.
constexpr double kCascadeWindow = 24.0;
// The HOG detector searches the whole picture for faces down to this fraction
// of its shorter side, on a grey copy reduced just enough for that...
constexpr double kHogSmallestFraction = 1.0 / 6.0;
// ...and the cascade for those down to this fraction, and never below
// kSmallestFace pixels.
constexpr double kSmallestFraction = 1.0 / 20.0;
constexpr double kSmallestFace = 36.0;
// Scale step of the cascade's own pyramid.
constexpr double kCascadeStep = 1.2;
// Windows that pass the cascade with at least this weight are candidates, at
// most kCandidatesPerTask of them a task, the strongest first.
constexpr double kCandidateWeight = 0.0;
constexpr size_t kCandidatesPerTask = 6;
// Faces near a known place are searched in a square of this many face sizes,
// scaled so that the face measures about kNearFace pixels.
constexpr double kNearRegion = 2.0;
constexpr double kNearFace = 90.0;
// A followed face is looked for on this many levels of the HOG pyramid
// there: faces from about 0.9 to 1.3 times its last size (a pyramid step is
// 5/6). Larger steps between two calls are left to the whole-picture search
// that a lost face starts.
constexpr unsigned long kNearLevels = 3;
// HOG score that a candidate of a whole-picture search must reach near its
// place to count as a face. Textures such as badges, folds and a turned
// mission patch reach about 0.3 in the whole picture's pass but stay below 0
// here, while the faces that the landmark model can fit score 0.8 and more.
constexpr double kConfirmScore = 0.3;
// A followed face whose box differs from its look when the HOG detector last
// found it there by at most kStillPatch grey levels (mean absolute difference
// of kPatchSide x kPatchSide reductions) keeps its box without a new search,
// for up to kRecheckCalls calls.
constexpr int kPatchSide = 16;
constexpr double kStillPatch = 2.0;
constexpr int kRecheckCalls = 10;
// A face whose box is the one its key points were fitted on, and whose look
// there differs by at most kSameLook grey levels in every cell of the
// kPatchSide x kPatchSide reduction, keeps those key points: sensor noise
// moves a cell by a level or two, an eye that closes or a mouth that opens by
// far more.
constexpr double kSameLook = 4.0;
// A followed face found again with a box that overlaps its old one by this
// much (intersection over union) keeps the old box.
constexpr double kKeepBoxOverlap = 0.8;
// In a picture that differs from the last on the whole, the followed faces
// are given up once this many searched for near their places are all lost.
constexpr int kCutLosses = 2;
// Calls between the starts of two searches of the whole picture while nothing
// else asks for one, when no face is followed and when some are.
constexpr int kSearchPeriod = 10;
constexpr int kFollowedSearchPeriod = 15;
// A search of the whole picture that a new picture or `flagA` asked for is
// finished, by the calling thread if need be, on the kSearchCalls-th call
// since it began.
constexpr int kSearchCalls = 5;
// Niceness of the search thread (see setpriority(2)).
constexpr int kSearchNice = 10;
// A call takes on a part of a whole-picture search only while its estimated
// end, the key points of its faces included, stays within this many
// milliseconds of the call's start, and adds new faces only within
// kMergeBudgetMs.
constexpr double kHelpBudgetMs = 18.0;
// A search that must end by its kSearchCalls-th call takes up to this many
// milliseconds of each call before that one, so that little is left for it.
constexpr double kUrgentHelpBudgetMs = 22.0;
constexpr double kMergeBudgetMs = 22.0;
// Key points are fitted while the call's estimated end stays within this
// many milliseconds of its start.
constexpr double kFitBudgetMs = 24.0;
// Side to which the part of a picture round a face is reduced to measure how
// far the face moved.
constexpr double kMotionSide = 96.0;
// A face that moved by at most this fraction of its width since its key points
// were fitted, and whose look there is the one they were fitted on (within
// kMovedLook), keeps them, moved along.
constexpr double kMotionReach = 0.25;
// The look of a face that moved is compared at the nearest whole pixel: the
// rest of the step changes its cells by a few grey levels more.
constexpr double kMovedLook = 8.0;
// A picture counts as a new one when the mean absolute difference of its 32 x
// 32 grey signature from the last picture's passes kChangeThreshold, or when
// kChangedPatches of the signature's patch means differ by more than
// kChangedPatch grey levels; below kSameThreshold two pictures count as the
// same one.
constexpr double kChangeThreshold = 10.0;
constexpr double kChangedPatch = 10.0;
constexpr int kChangedPatches = 4;
constexpr double kSameThreshold = 3.0;
constexpr int kThumbSide = 32;
constexpr int kPatch = 4;
// Thickness of an eyebrow as a fraction of its length.
constexpr double kBrowThickness = 0.15;

// ---------------------------------------------------------------------------
// The 98-point layout, made from the 68 points of the landmark model
// (0-16 jaw, 17-21 and 22-26 brows, 27-30 bridge, 31-35 nose base,
// 36-41 and 42-47 eyes, 48-59 outer lips, 60-67 inner lips).
//
//   Copy a           model point a
//   Mid a, b         midpoint of a and b
//   BrowLower a, b   midpoint of a and b, moved down the face by the
//                    thickness of the brow that runs from c to d
//   Lid a, b, c, d   the lid curve through a, b, c, d half way from b to c
//   Centre a, b      mean of model points a to b
// ---------------------------------------------------------------------------
enum Rule { Copy, Mid, BrowLower, Lid, Centre };

struct PointRule {
    Rule rule;
    int a, b, c, d;
};

const PointRule kLayout98[98] = {
    // 0-32 contour: the jaw's 17 points at even indices, midpoints between.
    {Copy, 0, 0, 0, 0}, {Mid, 0, 1, 0, 0}, {Copy, 1, 0, 0, 0}, {Mid, 1, 2, 0, 0},
    {Copy, 2, 0, 0, 0}, {Mid, 2, 3, 0, 0}, {Copy, 3, 0, 0, 0}, {Mid, 3, 4, 0, 0},
    {Copy, 4, 0, 0, 0}, {Mid, 4, 5, 0, 0}, {Copy, 5, 0, 0, 0}, {Mid, 5, 6, 0, 0},
    {Copy, 6, 0, 0, 0}, {Mid, 6, 7, 0, 0}, {Copy, 7, 0, 0, 0}, {Mid, 7, 8, 0, 0},
    {Copy, 8, 0, 0, 0}, {Mid, 8, 9, 0, 0}, {Copy, 9, 0, 0, 0}, {Mid, 9, 10, 0, 0},
    {Copy, 10, 0, 0, 0}, {Mid, 10, 11, 0, 0}, {Copy, 11, 0, 0, 0}, {Mid, 11, 12, 0, 0},
    {Copy, 12, 0, 0, 0}, {Mid, 12, 13, 0, 0}, {Copy, 13, 0, 0, 0}, {Mid, 13, 14, 0, 0},
    {Copy, 14, 0, 0, 0}, {Mid, 14, 15, 0, 0}, {Copy, 15, 0, 0, 0}, {Mid, 15, 16, 0, 0},
    {Copy, 16, 0, 0, 0},
    // 33-41 left brow: upper edge outer to inner, lower edge back.
    {Copy, 17, 0, 0, 0}, {Copy, 18, 0, 0, 0}, {Copy, 19, 0, 0, 0}, {Copy, 20, 0, 0, 0},
    {Copy, 21, 0, 0, 0},
    {BrowLower, 20, 21, 17, 21}, {BrowLower, 19, 20, 17, 21}, {BrowLower, 18, 19, 17, 21},
    {BrowLower, 17, 18, 17, 21},
    // 42-50 right brow: upper edge inner to outer, lower edge back.
    {Copy, 22, 0, 0, 0}, {Copy, 23, 0, 0, 0}, {Copy, 24, 0, 0, 0}, {Copy, 25, 0, 0, 0},
    {Copy, 26, 0, 0, 0},
    {BrowLower, 25, 26, 22, 26}, {BrowLower, 24, 25, 22, 26}, {BrowLower, 23, 24, 22, 26},
    {BrowLower, 22, 23, 22, 26},
    // 51-54 nose bridge down to the tip, 55-59 base of the nose.
    {Copy, 27, 0, 0, 0}, {Copy, 28, 0, 0, 0}, {Copy, 29, 0, 0, 0}, {Copy, 30, 0, 0, 0},
    {Copy, 31, 0, 0, 0}, {Copy, 32, 0, 0, 0}, {Copy, 33, 0, 0, 0}, {Copy, 34, 0, 0, 0},
    {Copy, 35, 0, 0, 0},
    // 60-67 left eye: outer corner, upper lid, inner corner, lower lid.
    {Copy, 36, 0, 0, 0}, {Copy, 37, 0, 0, 0}, {Lid, 36, 37, 38, 39}, {Copy, 38, 0, 0, 0},
    {Copy, 39, 0, 0, 0}, {Copy, 40, 0, 0, 0}, {Lid, 39, 40, 41, 36}, {Copy, 41, 0, 0, 0},
    // 68-75 right eye: inner corner, upper lid, outer corner, lower lid.
    {Copy, 42, 0, 0, 0}, {Copy, 43, 0, 0, 0}, {Lid, 42, 43, 44, 45}, {Copy, 44, 0, 0, 0},
    {Copy, 45, 0, 0, 0}, {Copy, 46, 0, 0, 0}, {Lid, 45, 46, 47, 42}, {Copy, 47, 0, 0, 0},
    // 76-95 mouth in the model's order: outer line 76-87, inner line 88-95.
    {Copy, 48, 0, 0, 0}, {Copy, 49, 0, 0, 0}, {Copy, 50, 0, 0, 0}, {Copy, 51, 0, 0, 0},
    {Copy, 52, 0, 0, 0}, {Copy, 53, 0, 0, 0}, {Copy, 54, 0, 0, 0}, {Copy, 55, 0, 0, 0},
    {Copy, 56, 0, 0, 0}, {Copy, 57, 0, 0, 0}, {Copy, 58, 0, 0, 0}, {Copy, 59, 0, 0, 0},
    {Copy, 60, 0, 0, 0}, {Copy, 61, 0, 0, 0}, {Copy, 62, 0, 0, 0}, {Copy, 63, 0, 0, 0},
    {Copy, 64, 0, 0, 0}, {Copy, 65, 0, 0, 0}, {Copy, 66, 0, 0, 0}, {Copy, 67, 0, 0, 0},
    // 96, 97 eye centres.
    {Centre, 36, 41, 0, 0}, {Centre, 42, 47, 0, 0},
};


using HogDetector = dlib::frontal_face_detector;
using Predictor = dlib::shape_predictor;

// ---------------------------------------------------------------------------
// Models, read once per process and shared by all detectors. The landmark
// model is only read and is shared as it is. The HOG detector and the cascade
// keep scratch state while they scan, so every scan borrows a set of scanners
// from a pool that grows to the number of scans at work at once.
// ---------------------------------------------------------------------------
struct Scanners {
    HogDetector hog;       // the whole pyramid
    HogDetector hogLevel;  // one level of it
    HogDetector hogNear;   // the first kNearLevels levels
    cv::CascadeClassifier cascade;
    bool hasCascade = false;
};

struct ModelStore {
    std::mutex mutex;
    std::unique_ptr<HogDetector> hog;
    std::unique_ptr<HogDetector> hogLevel;
    std::unique_ptr<HogDetector> hogNear;
    bool cascadeTried = false;
    std::string cascadeText;  // empty when the cascade can't be read
    std::vector<std::unique_ptr<Scanners>> idle;
    std::map<std::string, std::shared_ptr<const Predictor>> predictors;
};

ModelStore& modelStore()
{
    static ModelStore* store = new ModelStore;  // outlives every detector
    return *store;
}

// Reads the HOG detector and the cascade once; the caller holds the lock.
void loadScannerModels(ModelStore& store)
{
    if (!store.hog) {
        store.hog = std::make_unique<HogDetector>(dlib::get_frontal_face_detector());
        std::vector<HogDetector::feature_vector_type> weights;
        for (unsigned long i = 0; i < store.hog->num_detectors(); ++i)
            weights.push_back(store.hog->get_w(i));
        const auto levels = [&](unsigned long count) {
            HogDetector::image_scanner_type scanner;
            scanner.copy_configuration(store.hog->get_scanner());
            scanner.set_max_pyramid_levels(count);
            return std::make_unique<HogDetector>(scanner, store.hog->get_overlap_tester(), weights);
        };
        store.hogLevel = levels(1);
        store.hogNear = levels(kNearLevels);
    }
    if (!store.cascadeTried) {
        store.cascadeTried = true;
        std::ifstream file(kCascadePath, std::ios::binary);
        std::stringstream text;
        text << file.rdbuf();
        store.cascadeText = text.str();
        if (store.cascadeText.empty())
            std::fprintf(stderr, "kvodnnl: cannot read the face cascade %s; faces smaller than %d pixels will "
                                 "not be found\n",
                         kCascadePath, static_cast<int>(kHogWindow));
    }
}

std::unique_ptr<Scanners> makeScanners(ModelStore& store)
{
    auto made = std::make_unique<Scanners>(
        Scanners{*store.hog, *store.hogLevel, *store.hogNear, cv::CascadeClassifier(), false});
    if (!store.cascadeText.empty()) {
        // read() reports whether the cascade was understood; empty() stays
        // true for a cascade read this way.
        cv::FileStorage storage(store.cascadeText, cv::FileStorage::READ | cv::FileStorage::MEMORY);
        made->hasCascade = made->cascade.read(storage.getFirstTopLevelNode());
    }
    return made;
}

// Fills the pool so that one detector's two threads find their scanners
// ready; called when a detector is made.
void prepareScanners(size_t count)
{
    ModelStore& store = modelStore();
    std::lock_guard<std::mutex> lock(store.mutex);
    loadScannerModels(store);
    while (store.idle.size() < count)
        store.idle.push_back(makeScanners(store));
}

// A set of scanners borrowed from the pool for as long as it lives.
class ScannerLease {
public:
    ScannerLease()
    {
        ModelStore& store = modelStore();
        std::lock_guard<std::mutex> lock(store.mutex);
        if (store.idle.empty()) {
            loadScannerModels(store);
            scanners_ = makeScanners(store);
        } else {
            scanners_ = std::move(store.idle.back());
            store.idle.pop_back();
        }
    }
    ~ScannerLease()
    {
        ModelStore& store = modelStore();
        std::lock_guard<std::mutex> lock(store.mutex);
        store.idle.push_back(std::move(scanners_));
    }
    ScannerLease(const ScannerLease&) = delete;
    ScannerLease& operator=(const ScannerLease&) = delete;
    Scanners* operator->() const { return scanners_.get(); }

private:
    std::unique_ptr<Scanners> scanners_;
};

// Null, with one warning per path and process, when the file can't be read.
std::shared_ptr<const Predictor> loadPredictor(const std::string& path)
{
    ModelStore& store = modelStore();
    std::lock_guard<std::mutex> lock(store.mutex);
    auto found = store.predictors.find(path);
    if (found != store.predictors.end())
        return found->second;

    std::shared_ptr<Predictor> predictor;
    try {
        auto loaded = std::make_shared<Predictor>();
        dlib::deserialize(path) >> *loaded;
        if (loaded->num_parts() == 68)
            predictor = loaded;
        else
            std::fprintf(stderr, "kvodnnl: landmark model %s has %lu points, 68 needed; no faces will be found\n",
                         path.c_str(), static_cast<unsigned long>(loaded->num_parts()));
    } catch (const std::exception& e) {
        std::string reason = e.what();
        const size_t cut = reason.find('\n');
        if (cut != std::string::npos)
            reason.resize(cut);
        std::fprintf(stderr, "kvodnnl: cannot read the landmark model %s (%s); no faces will be found\n",
                     path.c_str(), reason.c_str());
    }
    store.predictors[path] = predictor;
    return predictor;
}

std::string modelPathFromEnvironment()
{
    const char* path = std::getenv(kModelPathVariable);
    return (path && *path) ? std::string(path) : std::string(kDefaultModelPath);
}

// ---------------------------------------------------------------------------
// Geometry helpers
// ---------------------------------------------------------------------------
cv::Point2d toPoint(const dlib::point& p)
{
    return cv::Point2d(static_cast<double>(p.x()), static_cast<double>(p.y()));
}

dlib::rectangle scaleRect(const dlib::rectangle& r, double factor, double dx, double dy)
{
    // dlib's rectangles include their right and bottom edges.
    return dlib::rectangle(std::lround(r.left() / factor + dx), std::lround(r.top() / factor + dy),
                           std::lround((r.right() + 1) / factor + dx) - 1,
                           std::lround((r.bottom() + 1) / factor + dy) - 1);
}

dlib::rectangle toDlib(const cv::Rect& r)
{
    return dlib::rectangle(r.x, r.y, r.x + r.width - 1, r.y + r.height - 1);
}

cv::Rect2d toRect2d(const dlib::rectangle& r)
{
    return cv::Rect2d(r.left(), r.top(), r.width(), r.height());
}

// Whether two boxes stand for one face: they overlap well, or one's centre
// lies in the other and their sizes are alike.
bool sameFace(const dlib::rectangle& a, const dlib::rectangle& b)
{
    if (smoothing::FaceFilter::overlap(toRect2d(a), toRect2d(b)) > 0.3)
        return true;
    const double ratio = static_cast<double>(a.width()) / std::max<double>(1.0, b.width());
    return ratio > 0.6 && ratio < 1.6 && (a.contains(dlib::center(b)) || b.contains(dlib::center(a)));
}

std::vector<cv::Point2d> layout98(const dlib::full_object_detection& shape)
{
    std::vector<cv::Point2d> model(68);
    for (unsigned long i = 0; i < 68; ++i)
        model[i] = toPoint(shape.part(i));

    // "Down the face": perpendicular to the line through the outer eye
    // corners, pointing towards the nose tip.
    cv::Point2d across = model[45] - model[36];
    const double acrossLength = std::hypot(across.x, across.y);
    cv::Point2d down(0.0, 1.0);
    if (acrossLength > 0) {
        down = cv::Point2d(-across.y / acrossLength, across.x / acrossLength);
        const cv::Point2d eyesMid = (model[36] + model[45]) * 0.5;
        if ((model[30] - eyesMid).dot(down) < 0)
            down = -down;
    }

    std::vector<cv::Point2d> out(98);
    for (int k = 0; k < 98; ++k) {
        const PointRule& r = kLayout98[k];
        switch (r.rule) {
        case Copy:
            out[k] = model[r.a];
            break;
        case Mid:
            out[k] = (model[r.a] + model[r.b]) * 0.5;
            break;
        case BrowLower: {
            const cv::Point2d length = model[r.d] - model[r.c];
            out[k] = (model[r.a] + model[r.b]) * 0.5 + down * (kBrowThickness * std::hypot(length.x, length.y));
            break;
        }
        case Lid:
            // Cubic through the four points, evaluated half way from b to c.
            out[k] = (model[r.b] * 9.0 + model[r.c] * 9.0 - model[r.a] - model[r.d]) * (1.0 / 16.0);
            break;
        case Centre: {
            cv::Point2d sum(0, 0);
            for (int i = r.a; i <= r.b; ++i)
                sum += model[i];
            out[k] = sum * (1.0 / (r.b - r.a + 1));
            break;
        }
        }
    }
    return out;
}

// Head pose from six landmarks and a generic face in the camera frame of a
// frontal face (x right, y down, z away from the viewer), in units of a fifth
// of a millimetre: outer eye corners 90 mm apart, their depths behind the
// nose tip after common adult measurements, the frontal layout after a fit of
// the landmark model to a frontal portrait.
struct Pose {
    double pitch = 0, yaw = 0, roll = 0;
};

// `points`: the 98 key points of kvodnnl.h.
Pose estimatePose(const std::vector<cv::Point2d>& points, const cv::Size& pictureSize)
{
    // A plain array: no destructor runs at exit under a detector still at work.
    static const cv::Point3d genericFace[] = {
        {0.0, 0.0, 0.0},          // nose tip (54)
        {0.0, 382.0, 100.0},      // chin (16)
        {-225.0, -185.0, 175.0},  // outer corner of the left eye (60)
        {225.0, -185.0, 175.0},   // outer corner of the right eye (72)
        {-170.0, 100.0, 150.0},   // left mouth corner (76)
        {170.0, 100.0, 150.0},    // right mouth corner (82)
    };
    const std::vector<cv::Point3d> generic(std::begin(genericFace), std::end(genericFace));
    const std::vector<cv::Point2d> seen = {points[54], points[16], points[60], points[72], points[76], points[82]};

    const double focal = pictureSize.width;
    const cv::Matx33d camera(focal, 0, pictureSize.width / 2.0, 0, focal, pictureSize.height / 2.0, 0, 0, 1);

    // Start from a frontal face at the distance that the eye span suggests.
    const cv::Point2d span = seen[3] - seen[2];
    const double spanPixels = std::max(1.0, std::hypot(span.x, span.y));
    const double z = focal * 450.0 / spanPixels;
    cv::Mat rvec = (cv::Mat_<double>(3, 1) << 0, 0, 0);
    cv::Mat tvec = (cv::Mat_<double>(3, 1) << (seen[0].x - pictureSize.width / 2.0) * z / focal,
                    (seen[0].y - pictureSize.height / 2.0) * z / focal, z);
    Pose pose;
    if (!cv::solvePnP(generic, seen, camera, cv::noArray(), rvec, tvec, true, cv::SOLVEPNP_ITERATIVE))
        return pose;

    cv::Matx33d R;
    cv::Rodrigues(rvec, R);
    // Measure against the line of sight rather than the camera's axis, so
    // that a face looking into the lens has no pitch or yaw wherever it sits
    // in the picture.
    const cv::Vec3d sight = cv::normalize(cv::Vec3d(tvec.at<double>(0), tvec.at<double>(1), tvec.at<double>(2)));
    const cv::Vec3d axis = cv::Vec3d(0, 0, 1).cross(sight);
    const double sine = cv::norm(axis);
    if (sine > 1e-9) {
        const cv::Vec3d turn = axis * (std::atan2(sine, sight[2]) / sine);
        cv::Matx33d toSight;
        cv::Rodrigues(turn, toSight);
        R = toSight.t() * R;
    }
    // R = Rx(pitch) * Ry(yaw) * Rz(roll)
    const double toDegrees = 180.0 / CV_PI;
    pose.yaw = std::asin(std::max(-1.0, std::min(1.0, R(0, 2)))) * toDegrees;
    pose.pitch = std::atan2(-R(1, 2), R(2, 2)) * toDegrees;
    pose.roll = std::atan2(-R(0, 1), R(0, 0)) * toDegrees;
    return pose;
}


struct Detection {
    dlib::rectangle box;  // pixels of the picture
    double score = 0;
};

using Clock = std::chrono::steady_clock;

double millisecondsSince(Clock::time_point start)
{
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

// A grey picture handed to Run, shared by the calling thread and the search
// thread, with its 32 x 32 signature of patch means.
struct Picture {
    cv::Mat grey;
    cv::Mat thumb;
};
using PicturePtr = std::shared_ptr<const Picture>;

// A few thousand pixel reads whatever the picture's size.
cv::Mat signature(const cv::Mat& picture)
{
    cv::Mat thumb(kThumbSide, kThumbSide, CV_32F);
    for (int gy = 0; gy < kThumbSide; ++gy) {
        const int cy = std::max(0, std::min(picture.rows - kPatch, (2 * gy + 1) * picture.rows / (2 * kThumbSide)));
        for (int gx = 0; gx < kThumbSide; ++gx) {
            const int cx = std::max(0, std::min(picture.cols - kPatch, (2 * gx + 1) * picture.cols / (2 * kThumbSide)));
            int sum = 0, count = 0;
            for (int y = cy; y < cy + kPatch && y < picture.rows; ++y) {
                const uchar* row = picture.ptr<uchar>(y);
                for (int x = cx; x < cx + kPatch && x < picture.cols; ++x, ++count)
                    sum += row[x];
            }
            thumb.at<float>(gy, gx) = count ? static_cast<float>(sum) / count : 0.f;
        }
    }
    return thumb;
}

// Mean absolute difference of two pictures' signatures; large for pictures
// of different sizes.
double difference(const Picture& a, const Picture& b)
{
    if (a.grey.size() != b.grey.size())
        return 1e9;
    return cv::norm(a.thumb, b.thumb, cv::NORM_L1) / (kThumbSide * kThumbSide);
}

// How `b` differs from `a`: on the whole (a new picture), in a few places by
// much (a face come or gone, or anything else that moves), or hardly.
enum class Change { None, Local, Whole };
Change pictureChange(const Picture& a, const Picture& b)
{
    if (difference(a, b) > kChangeThreshold)
        return Change::Whole;
    cv::Mat changed;
    cv::absdiff(a.thumb, b.thumb, changed);
    return cv::countNonZero(changed > kChangedPatch) >= kChangedPatches ? Change::Local : Change::None;
}

// The box's part of the picture reduced to kPatchSide x kPatchSide; empty when
// the box lies outside the picture.
cv::Mat patchOf(const cv::Mat& picture, const dlib::rectangle& box)
{
    const cv::Rect inside = cv::Rect(static_cast<int>(box.left()), static_cast<int>(box.top()),
                                     static_cast<int>(box.width()), static_cast<int>(box.height()))
        & cv::Rect(0, 0, picture.cols, picture.rows);
    cv::Mat patch;
    if (inside.width >= kPatchSide && inside.height >= kPatchSide)
        cv::resize(picture(inside), patch, cv::Size(kPatchSide, kPatchSide), 0, 0, cv::INTER_AREA);
    return patch;
}

// The best face near `box`: the HOG detector run over a square of
// kNearRegion box sizes round the box's centre, scaled so that the box
// measures kNearFace pixels. The face must lie within half a box width of the
// old centre and be of a similar size.
bool searchNear(const cv::Mat& picture, const dlib::rectangle& box, double threshold, HogDetector& hog,
                Detection& result)
{
    const double w = static_cast<double>(box.width());
    const double h = static_cast<double>(box.height());
    const cv::Point2d centre(box.left() + w / 2.0, box.top() + h / 2.0);
    const cv::Rect region = cv::Rect(cvRound(centre.x - w * kNearRegion / 2), cvRound(centre.y - h * kNearRegion / 2),
                                     cvRound(w * kNearRegion), cvRound(h * kNearRegion))
        & cv::Rect(0, 0, picture.cols, picture.rows);
    const double scale = kNearFace / std::max(1.0, std::max(w, h));
    if (region.width * scale < kHogWindow || region.height * scale < kHogWindow)
        return false;

    cv::Mat scanned;
    cv::resize(picture(region), scanned, cv::Size(), scale, scale, scale < 1.0 ? cv::INTER_AREA : cv::INTER_LINEAR);
    std::vector<dlib::rect_detection> hits;
    hog(dlib::cv_image<unsigned char>(scanned), hits, threshold);

    bool found = false;
    double bestDistance = 0.5 * w;
    for (const dlib::rect_detection& hit : hits) {
        const dlib::rectangle r = scaleRect(hit.rect, scale, region.x, region.y);
        const double rw = static_cast<double>(r.width());
        const double distance
            = std::hypot(r.left() + rw / 2.0 - centre.x, r.top() + r.height() / 2.0 - centre.y);
        if (distance <= bestDistance && rw > 0.6 * w && rw < 1.6 * w) {
            bestDistance = distance;
            result = {r, hit.detection_confidence};
            found = true;
        }
    }
    return found;
}

// How far the picture moved from `before` to `after` round `box`: phase
// correlation of the box and a margin of a quarter of it all round, reduced
// to at most kMotionSide pixels a side. Zero when the two differ in size or
// the part is too small.
cv::Point2d motion(const cv::Mat& before, const cv::Mat& after, const dlib::rectangle& box)
{
    const double w = static_cast<double>(box.width());
    const double h = static_cast<double>(box.height());
    const cv::Rect region = cv::Rect(cvRound(box.left() - w / 4), cvRound(box.top() - h / 4), cvRound(w * 1.5),
                                     cvRound(h * 1.5))
        & cv::Rect(0, 0, before.cols, before.rows);
    if (before.size() != after.size() || region.width < kPatchSide || region.height < kPatchSide)
        return {};
    const double scale = std::min(1.0, kMotionSide / std::max(region.width, region.height));
    cv::Mat a, b;
    cv::resize(before(region), a, cv::Size(), scale, scale, cv::INTER_AREA);
    cv::resize(after(region), b, cv::Size(), scale, scale, cv::INTER_AREA);
    a.convertTo(a, CV_32F);
    b.convertTo(b, CV_32F);
    cv::Mat window;
    cv::createHanningWindow(window, a.size(), CV_32F);
    return cv::phaseCorrelate(a, b, window) / scale;
}

// ---------------------------------------------------------------------------
// Search of the whole picture
//
// A search is cut into tasks of a few milliseconds each, so that the
// detector's own thread and, when the search falls behind, the calling thread
// can share it, and so that it can follow a picture that keeps changing:
//   Hog      the HOG detector on the picture reduced so that the smallest
//            faces it looks for measure its window: one pyramid level a
//            task for the larger levels, the rest of the pyramid in one
//   Cascade  the cascade on a band of face sizes, over a part of the picture
//            reduced so that the band's smallest faces measure its window
//   Confirm  a candidate of the other two, searched for with the HOG
//            detector near its place at kNearFace pixels, on kNearLevels
//            levels as a followed face is
// Every task scans the latest picture handed in when it starts. A new search
// marks all the plan's tasks to do again and goes on from where the last one
// stood, so that a picture that changes at every call is still searched
// whole, one part after the other.
// ---------------------------------------------------------------------------
struct Task {
    enum Kind { Hog, Cascade, Confirm } kind = Hog;
    double scale = 1;           // Hog, Cascade: reduction of the picture before the scan
    bool restOfPyramid = false; // Hog: this level and all smaller ones
    cv::Rect tile;              // Cascade: part of the picture scanned
    int smallest = 0, largest = 0;  // Cascade: window sizes scanned in the reduced part
    dlib::rectangle box;        // Confirm: the candidate
    double work = 0;            // millions of HOG pixels or of cascade windows
};

// Millions of pixels that a HOG pyramid scans, for a base level of `pixels`:
// each level is 5/6 of the one before on each side.
constexpr double kPyramidSum = 1.0 / (1.0 - 25.0 / 36.0);
// ...and for its first kNearLevels levels: the millions of pixels of a
// search near a place, per million of its base level.
constexpr double kNearSum = (1.0 - 25.0 / 36.0 * 25.0 / 36.0 * 25.0 / 36.0) / (1.0 - 25.0 / 36.0);
static_assert(kNearLevels == 3, "kNearSum counts three levels");
// Most work for one task of the plan, in millions of HOG pixels and of
// cascade windows: a few milliseconds each.
constexpr double kTaskHogPixels = 0.25;
constexpr double kTaskCascadeWindows = 0.09;

// Cuts a scan into strips of rows, each taking at most `maxWork`, that
// overlap by `margin` rows so that no face of the scan is cut in two.
void addStrips(std::vector<Task>& out, Task scan, cv::Size size, double work, double maxWork, int margin)
{
    const int parts = std::max(1, std::min(8, static_cast<int>(std::ceil(work / maxWork))));
    for (int p = 0; p < parts; ++p) {
        const int top = std::max(0, size.height * p / parts - margin / 2);
        const int bottom = std::min(size.height, size.height * (p + 1) / parts + margin / 2);
        scan.tile = cv::Rect(0, top, size.width, bottom - top);
        scan.work = work * scan.tile.height / size.height;
        out.push_back(scan);
    }
}

// Milliseconds per million HOG pixels and per million cascade windows, as
// measured over the process's recent tasks.
std::atomic<double> hogRate{30.0};
std::atomic<double> cascadeRate{150.0};

// Milliseconds to fit the key points of one face.
std::atomic<double> fitRate{2.0};

double estimate(const Task& task)
{
    return task.work * (task.kind == Task::Cascade ? cascadeRate : hogRate).load(std::memory_order_relaxed);
}

void measured(const Task& task, double milliseconds)
{
    if (task.work <= 0)
        return;
    std::atomic<double>& rate = task.kind == Task::Cascade ? cascadeRate : hogRate;
    const double old = rate.load(std::memory_order_relaxed);
    rate.store(old + 0.2 * (milliseconds / task.work - old), std::memory_order_relaxed);
}

std::vector<Task> planSearch(cv::Size size)
{
    std::vector<Task> hog, cascade;
    const double shorter = std::min(size.width, size.height);
    const double hogSmallest = std::max(kHogWindow, kHogSmallestFraction * shorter);
    // The larger pyramid levels one at a time, the rest together.
    double scale = kHogWindow / hogSmallest;  // at most 1
    for (int level = 0; level < 6 && shorter * scale >= kHogWindow; ++level, scale *= 5.0 / 6.0) {
        Task t;
        t.kind = Task::Hog;
        t.scale = scale;
        t.restOfPyramid = level == 5;
        const double pixels = size.area() * scale * scale * 1e-6;
        if (t.restOfPyramid) {
            t.tile = cv::Rect(cv::Point(), size);
            t.work = pixels * kPyramidSum;
            hog.push_back(t);
        } else {
            addStrips(hog, t, size, pixels, kTaskHogPixels, static_cast<int>(1.25 * kHogWindow / scale));
        }
    }
    // The cascade on octaves of face sizes up to a little over the HOG pass's
    // smallest, each on the picture reduced so that the octave's smallest
    // faces measure the cascade's window. The cascade steps through the
    // octave by kCascadeStep with a stride of two pixels.
    const double smallest = std::max(kSmallestFace, kSmallestFraction * shorter);
    for (double low = smallest; low < 1.1 * hogSmallest; low *= 2) {
        const double high = std::min(2 * low, 1.1 * hogSmallest);
        Task t;
        t.kind = Task::Cascade;
        t.scale = kCascadeWindow / low;
        t.smallest = static_cast<int>(kCascadeWindow);
        t.largest = static_cast<int>(std::ceil(high * t.scale));
        double windows = 0;
        for (double s = 1; s * kCascadeWindow <= t.largest; s *= kCascadeStep)
            windows += size.area() * t.scale * t.scale / (4 * s * s) * 1e-6;
        addStrips(cascade, t, size, windows, kTaskCascadeWindows, static_cast<int>(std::ceil(1.1 * high)));
    }
    // Larger faces are the likelier and the cheaper to find: the coarse
    // levels and octaves first, the cascade's parts woven in between.
    std::reverse(hog.begin(), hog.end());
    std::reverse(cascade.begin(), cascade.end());
    std::vector<Task> plan;
    for (size_t i = 0; i < std::max(hog.size(), cascade.size()); ++i) {
        if (i < hog.size())
            plan.push_back(hog[i]);
        if (i < cascade.size())
            plan.push_back(cascade[i]);
    }
    return plan;
}

// Candidates (Hog, Cascade) or a confirmed face (Confirm) of one task.
std::vector<Detection> runTask(const Task& task, const cv::Mat& picture, Scanners& scanners)
{
    std::vector<Detection> out;
    if (task.kind == Task::Confirm) {
        Detection d;
        if (searchNear(picture, task.box, kConfirmScore, scanners.hogNear, d))
            out.push_back(d);
        return out;
    }
    cv::Mat reduced;
    const cv::Rect tile = task.tile & cv::Rect(0, 0, picture.cols, picture.rows);
    if (tile.empty())
        return out;
    if (task.scale < 1.0) {
        // A sliver of a tile at the picture's edge may reduce to nothing.
        if (cvRound(tile.width * task.scale) < 1 || cvRound(tile.height * task.scale) < 1)
            return out;
        cv::resize(picture(tile), reduced, cv::Size(), task.scale, task.scale, cv::INTER_AREA);
    } else
        reduced = picture(tile);
    if (task.kind == Task::Hog) {
        std::vector<dlib::rect_detection> hits;
        HogDetector& hog = task.restOfPyramid ? scanners.hog : scanners.hogLevel;
        hog(dlib::cv_image<unsigned char>(reduced), hits, 0.0);
        for (const dlib::rect_detection& hit : hits)
            out.push_back({scaleRect(hit.rect, task.scale, tile.x, tile.y), hit.detection_confidence});
    } else if (scanners.hasCascade) {
        // Every window that passes the cascade, strongest first, one a face:
        // grouping neighbours, as the cascade does by default, loses faces
        // that only a window or two pass. The cascade runs inside a loop of
        // OpenCV's own, which keeps it from spreading over all processors: the
        // calling thread keeps the others.
        std::vector<cv::Rect> hits;
        std::vector<int> levels;
        std::vector<double> weights;
        cv::parallel_for_(cv::Range(0, 1), [&](const cv::Range&) {
            scanners.cascade.detectMultiScale(reduced, hits, levels, weights, kCascadeStep, 0, 0,
                                              cv::Size(task.smallest, task.smallest),
                                              cv::Size(task.largest, task.largest), true);
        });
        std::vector<size_t> order(hits.size());
        for (size_t i = 0; i < order.size(); ++i)
            order[i] = i;
        std::sort(order.begin(), order.end(), [&](size_t a, size_t b) { return weights[a] > weights[b]; });
        for (size_t i : order) {
            if (weights[i] < kCandidateWeight || out.size() >= kCandidatesPerTask)
                break;
            const dlib::rectangle box = scaleRect(toDlib(hits[i]), task.scale, tile.x, tile.y);
            bool seen = false;
            for (const Detection& d : out)
                seen = seen || sameFace(d.box, box);
            if (!seen)
                out.push_back({box, weights[i]});
        }
    }
    return out;
}

}  // namespace

// ---------------------------------------------------------------------------
// FaceDetectorImpl
// ---------------------------------------------------------------------------
class FaceDetectorImpl {
public:
    FaceDetectorImpl();
    ~FaceDetectorImpl();

    std::vector<FaceDetector::Face> faces;

    void run(const cv::Mat& image, bool searchWholePicture);
    void forget();

private:
    // What the search shares between the threads, under `mutex`.
    struct Found {
        Detection detection;
        PicturePtr picture;  // where it was confirmed
    };
    struct Shared {
        std::vector<Task> plan;         // the tasks of a whole search of pictures of planSize
        cv::Size planSize;
        std::vector<uint64_t> takenFor; // the search each plan task was last taken for
        size_t cursor = 0;              // the plan task to try first
        std::deque<Task> confirms;      // candidates waiting
        std::vector<dlib::rectangle> known;       // faces followed when the search began, and confirmed since
        std::vector<dlib::rectangle> candidates;  // candidates taken in this search
        std::vector<Found> found;       // confirmed faces not yet handed out
        uint64_t search = 0;            // the latest search; 0 before the first
        int running = 0;                // tasks at work
        Clock::time_point workerEnds;   // when the detector's thread should end its task
        PicturePtr latest;
        bool stop = false;
    };

    bool ensureModels();
    void workLoop();
    bool searching() const;  // with the lock held
    const Task* nextTask(size_t& planIndex) const;
    bool takeTask(Task& task, uint64_t& search);
    void finishTask(const Task& task, uint64_t search, const PicturePtr& picture, const std::vector<Detection>& out,
                    double milliseconds);
    void startSearch(const std::vector<Detection>& followed, bool urgent);
    void help(Clock::time_point start, bool finish, double budget, double reserve);
    void merge(const PicturePtr& picture, std::vector<Detection>& followed, Clock::time_point start, bool all);

    std::string modelPath = modelPathFromEnvironment();
    bool modelsTried = false;
    std::shared_ptr<const Predictor> predictor;
    bool warnedInput = false;

    // A face of the last call, and a small grey copy of its box as it was
    // when the HOG detector last found it there.
    struct Track {
        Detection detection;
        cv::Mat patch;
        int unchecked = 0;  // calls since the HOG detector last found it
        // The key points last fitted, with the box and the look they were
        // fitted on.
        std::vector<cv::Point2d> fitted;
        dlib::rectangle fitBox;
        cv::Mat fitLook;
        PicturePtr fitPicture;
        int fitAge = 0;  // calls since, in which it needed a fit and got none
    };
    void output(const PicturePtr& picture, std::vector<Track>& shown, Clock::time_point start, bool all);
    std::vector<Track> follow(const Picture& picture, bool cut, bool& lost);

    PicturePtr last;
    std::vector<Track> tracks;
    smoothing::FaceFilter filter;
    int callsSinceSearch = 0;  // calls since the latest search began
    bool urgent = false;       // the latest search must end by its kSearchCalls-th call

    mutable std::mutex mutex;
    std::condition_variable wake;
    Shared shared;
    std::thread worker;
};

FaceDetectorImpl::FaceDetectorImpl()
{
    if (ensureModels()) {
        prepareScanners(2);
        worker = std::thread([this] { workLoop(); });
    }
}

FaceDetectorImpl::~FaceDetectorImpl()
{
    {
        std::lock_guard<std::mutex> lock(mutex);
        shared.stop = true;
    }
    wake.notify_all();
    if (worker.joinable())
        worker.join();
}

bool FaceDetectorImpl::ensureModels()
{
    if (!modelsTried) {
        modelsTried = true;
        predictor = loadPredictor(modelPath);
    }
    return predictor != nullptr;
}

bool FaceDetectorImpl::searching() const
{
    if (!shared.confirms.empty() || shared.running > 0)
        return true;
    for (uint64_t taken : shared.takenFor)
        if (taken < shared.search)
            return true;
    return false;
}

// Confirmations first, then the plan's next task not yet taken for the
// latest search. The lock is held.
const Task* FaceDetectorImpl::nextTask(size_t& planIndex) const
{
    planIndex = shared.plan.size();
    if (!shared.confirms.empty())
        return &shared.confirms.front();
    for (size_t k = 0; k < shared.plan.size(); ++k) {
        const size_t i = (shared.cursor + k) % shared.plan.size();
        if (shared.takenFor[i] < shared.search) {
            planIndex = i;
            return &shared.plan[i];
        }
    }
    return nullptr;
}

bool FaceDetectorImpl::takeTask(Task& task, uint64_t& search)
{
    size_t i = 0;
    const Task* next = nextTask(i);
    if (!next)
        return false;
    task = *next;
    search = shared.search;
    ++shared.running;
    if (i < shared.plan.size()) {
        shared.takenFor[i] = shared.search;
        shared.cursor = (i + 1) % shared.plan.size();
    } else {
        shared.confirms.pop_front();
    }
    return true;
}

// The lock is held.
void FaceDetectorImpl::finishTask(const Task& task, uint64_t search, const PicturePtr& picture,
                                  const std::vector<Detection>& out, double milliseconds)
{
    --shared.running;
    measured(task, milliseconds);
    if (picture->grey.size() != shared.planSize)
        return;  // the picture's size changed meanwhile
    if (task.kind == Task::Confirm) {
        for (const Detection& d : out) {
            // A face found again while it waits to be shown replaces its
            // older find: the list holds each face once, however many
            // searches end before the calls find time to show it.
            const auto again = std::find_if(shared.found.begin(), shared.found.end(),
                                            [&](const Found& f) { return sameFace(f.detection.box, d.box); });
            if (again != shared.found.end())
                *again = {d, picture};
            else
                shared.found.push_back({d, picture});
            if (search == shared.search)
                shared.known.push_back(d.box);
        }
        return;
    }
    // A candidate of a face already known is dropped, and so is one much like
    // a candidate already taken; one that merely overlaps a candidate taken is
    // confirmed on its own, as the two may place the face differently.
    for (const Detection& candidate : out) {
        bool seen = false;
        for (const dlib::rectangle& k : shared.known)
            seen = seen || sameFace(k, candidate.box);
        for (const dlib::rectangle& k : shared.candidates)
            seen = seen || smoothing::FaceFilter::overlap(toRect2d(k), toRect2d(candidate.box)) > 0.5;
        if (seen)
            continue;
        shared.candidates.push_back(candidate.box);
        Task confirm;
        confirm.kind = Task::Confirm;
        confirm.box = candidate.box;
        const double side = kNearFace * kNearRegion;
        confirm.work = side * side * kNearSum * 1e-6;
        shared.confirms.push_back(confirm);
    }
}

void FaceDetectorImpl::workLoop()
{
    // The search uses what the caller's own work leaves of the processors:
    // it runs at a lower priority than the thread that made the detector.
    setpriority(PRIO_PROCESS, static_cast<id_t>(syscall(SYS_gettid)), kSearchNice);
    pthread_setname_np(pthread_self(), "kvodnnl-search");
    std::unique_lock<std::mutex> lock(mutex);
    bool warned = false;
    for (;;) {
        Task task;
        uint64_t search = 0;
        wake.wait(lock, [&] { return shared.stop || (shared.latest && takeTask(task, search)); });
        if (shared.stop)
            return;
        const PicturePtr picture = shared.latest;
        const Clock::time_point start = Clock::now();
        shared.workerEnds = start
            + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double, std::milli>(estimate(task)));
        lock.unlock();
        std::vector<Detection> out;
        try {
            ScannerLease scanners;
            out = runTask(task, picture->grey, *scanners.operator->());
        } catch (const std::exception& e) {
            if (!warned)
                std::fprintf(stderr, "kvodnnl: a search of the whole picture failed: %s\n", e.what());
            warned = true;
        }
        const double spent = millisecondsSince(start);
        lock.lock();
        finishTask(task, search, picture, out, spent);
        wake.notify_all();
    }
}

// A new search: every task of the plan is to be done again, for the latest
// picture. Faces followed now need no confirming. The lock is held.
void FaceDetectorImpl::startSearch(const std::vector<Detection>& followed, bool mustEnd)
{
    ++shared.search;
    shared.known.clear();
    shared.candidates.clear();
    for (const Detection& d : followed)
        shared.known.push_back(d.box);
    callsSinceSearch = 1;
    urgent = mustEnd;
}

// Takes on tasks of the search while they fit into `budget` milliseconds from
// the call's start less `reserve`, or, when `finish`, until the search is
// done, waiting for the detector's thread to end those it works on.
void FaceDetectorImpl::help(Clock::time_point start, bool finish, double budget, double reserve)
{
    std::unique_lock<std::mutex> lock(mutex);
    while (searching()) {
        size_t index = 0;
        const Task* next = nextTask(index);
        if (!next) {
            // All tasks taken: wait for the detector's thread if it should
            // end its own within the budget.
            if (finish) {
                wake.wait(lock);
                continue;
            }
            const Clock::time_point deadline = start
                + std::chrono::duration_cast<Clock::duration>(
                                                   std::chrono::duration<double, std::milli>(budget - reserve));
            if (shared.workerEnds > deadline || wake.wait_until(lock, deadline) == std::cv_status::timeout)
                return;
            continue;
        }
        if (!finish && millisecondsSince(start) + estimate(*next) + reserve > budget)
            return;
        Task task;
        uint64_t search = 0;
        takeTask(task, search);
        const PicturePtr picture = shared.latest;
        lock.unlock();
        std::vector<Detection> out;
        const Clock::time_point taskStart = Clock::now();
        try {
            ScannerLease scanners;
            out = runTask(task, picture->grey, *scanners.operator->());
        } catch (...) {
            lock.lock();
            finishTask(task, search, picture, out, millisecondsSince(taskStart));
            throw;
        }
        const double spent = millisecondsSince(taskStart);
        lock.lock();
        finishTask(task, search, picture, out, spent);
    }
}

// Adds the faces that the search confirmed and that are not followed yet.
// Those confirmed on another picture than this call's are searched for near
// their place first. Unless `all`, faces beyond the call's budget wait for
// the next call, except a first face on a call that shows none.
void FaceDetectorImpl::merge(const PicturePtr& picture, std::vector<Detection>& followed, Clock::time_point start,
                             bool all)
{
    std::vector<Found> found, later;
    double confirmMilliseconds = 0;
    {
        std::lock_guard<std::mutex> lock(mutex);
        found.swap(shared.found);
        const double side = kNearFace * kNearRegion;
        confirmMilliseconds = side * side * kNearSum * 1e-6 * hogRate.load(std::memory_order_relaxed);
    }
    if (found.empty())
        return;
    std::unique_ptr<ScannerLease> scanners;
    for (const Found& f : found) {
        const auto followedAlready = [&](const dlib::rectangle& box) {
            for (const Detection& d : followed)
                if (sameFace(d.box, box))
                    return true;
            return false;
        };
        if (followedAlready(f.detection.box))
            continue;
        const bool same = difference(*f.picture, *picture) <= kSameThreshold;
        const double fit = fitRate.load(std::memory_order_relaxed);
        // While no face is shown, one found on this very picture is added
        // whatever the call has taken: the search may have used the budget,
        // and would again on every call of a picture handed in repeatedly.
        const bool first = same && followed.empty();
        if (!all && !first
            && millisecondsSince(start) + (same ? 0.0 : confirmMilliseconds) + fit * (followed.size() + 1)
                > kMergeBudgetMs) {
            later.push_back(f);
            continue;
        }
        if (same) {
            followed.push_back(f.detection);
            continue;
        }
        if (!scanners)
            scanners = std::make_unique<ScannerLease>();
        Detection d;
        if (searchNear(picture->grey, f.detection.box, 0.0, (*scanners)->hogNear, d) && !followedAlready(d.box))
            followed.push_back(d);
    }
    if (!later.empty()) {
        // Those found again meanwhile keep the newer find.
        std::lock_guard<std::mutex> lock(mutex);
        for (const Found& f : later)
            if (std::none_of(shared.found.begin(), shared.found.end(),
                             [&](const Found& g) { return sameFace(g.detection.box, f.detection.box); }))
                shared.found.push_back(f);
    }
}

// Fits the key points to each face, smooths them with those of the last
// call and fills `faces`. A face keeps the points fitted before while it
// looks as it did then, where it was (a still face) or where it moved to
// (see kMotionReach; the points move with it). Unless `all`, once the call
// has taken kFitBudgetMs, any other face keeps them too, moved as its part of
// the picture moved since (see `motion`), and is fitted again on a later
// call: the faces whose points are the oldest are fitted first. A face
// without points yet is always fitted, and so is the first face that needs a
// fit.
void FaceDetectorImpl::output(const PicturePtr& picture, std::vector<Track>& shown, Clock::time_point start,
                              bool all)
{
    const cv::Mat& grey = picture->grey;
    std::vector<size_t> order;  // the faces that need a fit, the oldest fits first
    std::vector<cv::Mat> looks(shown.size());
    std::vector<std::vector<cv::Point2d>> points(shown.size());
    // How far each face that needs a fit moved since its last one; none for a
    // face without points that fit this picture, which is always fitted.
    std::vector<std::optional<cv::Point2d>> moves(shown.size());
    const auto sameLook = [&](const Track& track, const cv::Mat& look, double within = kSameLook) {
        return !look.empty() && look.size() == track.fitLook.size()
            && cv::norm(look, track.fitLook, cv::NORM_INF) <= within;
    };
    for (size_t i = 0; i < shown.size(); ++i) {
        Track& track = shown[i];
        points[i] = track.fitted;
        looks[i] = patchOf(grey, track.detection.box);
        if (track.fitted.empty() || !track.fitPicture || track.fitPicture->grey.size() != grey.size()) {
            order.push_back(i);
            continue;
        }
        if (track.fitBox == track.detection.box && sameLook(track, looks[i]))
            continue;
        // Found with another box, or moved a little: a face that looks as it
        // did where its points were fitted keeps them, moved with it.
        if (track.fitBox != track.detection.box && sameLook(track, patchOf(grey, track.fitBox)))
            continue;
        const cv::Point2d moved = motion(track.fitPicture->grey, grey, track.fitBox);
        const dlib::rectangle there
            = dlib::translate_rect(track.fitBox, dlib::point(cvRound(moved.x), cvRound(moved.y)));
        if (std::hypot(moved.x, moved.y) <= kMotionReach * static_cast<double>(track.fitBox.width())
            && sameLook(track, patchOf(grey, there), kMovedLook)) {
            for (cv::Point2d& p : points[i])
                p += moved;
            continue;
        }
        moves[i] = moved;
        order.push_back(i);
    }
    std::stable_sort(order.begin(), order.end(), [&](size_t a, size_t b) {
        if (shown[a].fitted.empty() != shown[b].fitted.empty())
            return shown[a].fitted.empty();
        return shown[a].fitAge > shown[b].fitAge;
    });
    bool fittedOne = false;
    for (size_t i : order) {
        Track& track = shown[i];
        const bool inBudget = all || !fittedOne || !moves[i]
            || millisecondsSince(start) + fitRate.load(std::memory_order_relaxed) <= kFitBudgetMs;
        if (!inBudget) {
            for (cv::Point2d& p : points[i])
                p += *moves[i];
            ++track.fitAge;
            continue;
        }
        fittedOne = true;
        const Clock::time_point fitStart = Clock::now();
        const dlib::full_object_detection shape
            = (*predictor)(dlib::cv_image<unsigned char>(grey), track.detection.box);
        // Slow fits raise the estimate at once, quick ones lower it slowly:
        // the budgets of a call rest on it.
        const double old = fitRate.load(std::memory_order_relaxed);
        const double spent = millisecondsSince(fitStart);
        fitRate.store(old + (spent > old ? 0.5 : 0.1) * (spent - old), std::memory_order_relaxed);
        track.fitted.clear();
        if (shape.num_parts() == 68)
            track.fitted = layout98(shape);
        track.fitBox = track.detection.box;
        track.fitLook = looks[i];
        track.fitPicture = picture;
        track.fitAge = 0;
        points[i] = track.fitted;
    }

    std::vector<smoothing::FaceFilter::Face> fitted;
    std::vector<double> scores;
    for (size_t i = 0; i < shown.size(); ++i) {
        if (points[i].empty())
            continue;
        const Detection& detection = shown[i].detection;
        smoothing::FaceFilter::Face face;
        face.box = cv::Rect2d(detection.box.left(), detection.box.top(), detection.box.width(),
                              detection.box.height());
        face.points = std::move(points[i]);
        face.eyeA = 96;
        face.eyeB = 97;
        fitted.push_back(std::move(face));
        scores.push_back(detection.score);
    }
    filter.update(fitted);

    for (size_t i = 0; i < fitted.size(); ++i) {
        const smoothing::FaceFilter::Face& smoothed = fitted[i];
        FaceDetector::Face face;
        face.points.reserve(196);
        for (const cv::Point2d& p : smoothed.points) {
            face.points.push_back(cvRound(p.x));
            face.points.push_back(cvRound(p.y));
        }
        face.box = {cvRound(smoothed.box.x), cvRound(smoothed.box.y), cvRound(smoothed.box.br().x),
                    cvRound(smoothed.box.br().y)};
        const Pose pose = estimatePose(smoothed.points, grey.size());
        face.triple = {static_cast<int>(std::lround(pose.pitch)), static_cast<int>(std::lround(pose.yaw)),
                       static_cast<int>(std::lround(pose.roll))};
        face.floatsA = {static_cast<float>(pose.pitch), static_cast<float>(pose.yaw), static_cast<float>(pose.roll)};
        face.floatsC = {static_cast<float>(scores[i])};
        faces.push_back(std::move(face));
    }
}

// The faces of the last call in a new picture. A face whose box looks as it
// did when the HOG detector last found it there keeps its box for up to
// kRecheckCalls calls; any other is searched for near its old place, and
// `lost` is set when one of them is not found. In a picture that differs on
// the whole (`cut`), once the first kCutLosses searched for are all lost, the
// rest are taken for lost too: the picture is another scene, and the search
// of the whole picture that it starts has the time instead.
std::vector<FaceDetectorImpl::Track> FaceDetectorImpl::follow(const Picture& picture, bool cut, bool& lost)
{
    std::vector<Track> kept;
    std::unique_ptr<ScannerLease> scanners;
    int searched = 0, found = 0;
    for (const Track& track : tracks) {
        if (cut && searched >= kCutLosses && found == 0) {
            lost = true;
            break;
        }
        Track next;
        const cv::Mat patch = patchOf(picture.grey, track.detection.box);
        if (track.unchecked + 1 < kRecheckCalls && !patch.empty() && patch.size() == track.patch.size()
            && cv::norm(patch, track.patch, cv::NORM_L1) / patch.total() <= kStillPatch) {
            next = track;
            ++next.unchecked;
        } else {
            if (!scanners)
                scanners = std::make_unique<ScannerLease>();
            ++searched;
            if (!searchNear(picture.grey, track.detection.box, 0.0, (*scanners)->hogNear, next.detection)) {
                lost = true;
                continue;
            }
            ++found;
            // A face found where it was keeps its box, so that its key points
            // don't follow the box's steps between pyramid levels.
            if (smoothing::FaceFilter::overlap(toRect2d(next.detection.box), toRect2d(track.detection.box))
                >= kKeepBoxOverlap)
                next.detection.box = track.detection.box;
            next.fitted = track.fitted;
            next.fitBox = track.fitBox;
            next.fitLook = track.fitLook;
            next.fitPicture = track.fitPicture;
            next.fitAge = track.fitAge;
            next.patch = patchOf(picture.grey, next.detection.box);
        }
        bool twice = false;
        for (const Track& other : kept)
            twice = twice || sameFace(other.detection.box, next.detection.box);
        if (!twice)
            kept.push_back(next);
    }
    return kept;
}

// After a picture that can't be read: no face is followed into the next one.
void FaceDetectorImpl::forget()
{
    tracks.clear();
    filter.clear();
    last.reset();
    std::lock_guard<std::mutex> lock(mutex);
    shared.found.clear();
    shared.confirms.clear();
}

void FaceDetectorImpl::run(const cv::Mat& image, bool wholePicture)
{
    const Clock::time_point start = Clock::now();
    faces.clear();
    if (image.empty() || image.dims != 2 || image.depth() != CV_8U
        || (image.channels() != 3 && image.channels() != 4)) {
        if (!image.empty() && !warnedInput) {
            warnedInput = true;
            std::fprintf(stderr, "kvodnnl: pictures must have 8 bits a channel and 3 or 4 channels; "
                                 "this one (type %d) gives no faces\n",
                         image.type());
        }
        forget();
        return;
    }
    if (!ensureModels())
        return;

    auto made = std::make_shared<Picture>();
    cv::cvtColor(image, made->grey, image.channels() == 4 ? cv::COLOR_RGBA2GRAY : cv::COLOR_RGB2GRAY);
    made->thumb = signature(made->grey);
    const PicturePtr picture = made;
    const Change change = last ? pictureChange(*last, *picture) : Change::Whole;
    const bool changed = change == Change::Whole;
    last = picture;

    bool lost = false;
    std::vector<Track> kept = follow(*picture, changed, lost);
    std::vector<Detection> followed;
    for (const Track& t : kept)
        followed.push_back(t.detection);

    ++callsSinceSearch;
    bool busy = false;
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (shared.planSize != picture->grey.size()) {
            shared.planSize = picture->grey.size();
            shared.plan = planSearch(shared.planSize);
            shared.takenFor.assign(shared.plan.size(), 0);
            shared.cursor = 0;
            shared.confirms.clear();
            shared.found.clear();
            shared.search = 0;
        }
        shared.latest = picture;
        const int period = followed.empty() ? kSearchPeriod : kFollowedSearchPeriod;
        // A change in a few places (in a video, most pictures have one) asks
        // for a search in the background while no face is shown, at most
        // every kSearchCalls calls: restarted on every such picture, the
        // search would never rest. Faces shown keep the regular period.
        const bool local = change == Change::Local && followed.empty() && callsSinceSearch >= kSearchCalls;
        if (changed || (wholePicture && !(urgent && searching())))
            startSearch(followed, true);
        else if ((lost || local || callsSinceSearch >= period) && !searching())
            startSearch(followed, false);
        busy = searching();
    }
    wake.notify_all();
    // While faces are shown, a search asked for by a picture that keeps
    // changing is left to the detector's thread: the calling thread joins in
    // from the second call on the same picture.
    const bool finish = urgent && callsSinceSearch >= kSearchCalls;
    if (busy && (followed.empty() || (urgent && callsSinceSearch >= 2))) {
        // Key points are fitted again only on faces whose box moved.
        size_t refits = 0;
        for (const Track& t : kept)
            refits += t.fitted.empty() || t.fitBox != t.detection.box;
        help(start, finish, urgent ? kUrgentHelpBudgetMs : kHelpBudgetMs,
             refits * fitRate.load(std::memory_order_relaxed));
    }
    merge(picture, followed, start, finish);

    // Faces added by the search start with a patch of their own.
    for (size_t i = kept.size(); i < followed.size(); ++i)
        kept.push_back({followed[i], patchOf(picture->grey, followed[i].box), 0, {}, {}, {}, {}, 0});
    tracks = std::move(kept);
    output(picture, tracks, start, finish);
}

// ---------------------------------------------------------------------------
// FaceDetector
// ---------------------------------------------------------------------------
FaceDetector::FaceDetector(ComputeDeviceType, unsigned int, unsigned int) : impl_(new FaceDetectorImpl) {}

FaceDetector::~FaceDetector()
{
    delete impl_;
}

const std::vector<FaceDetector::Face>& FaceDetector::Run(const cv::Mat& image, bool flagA, bool, int, int, float)
{
    try {
        impl_->run(image, flagA);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "kvodnnl: detection failed: %s\n", e.what());
        impl_->faces.clear();
    }
    return impl_->faces;
}

}  // namespace KVOAI
