#include "kvodnnl/kvodnnl.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include <dlib/image_processing/frontal_face_detector.h>
#include <dlib/image_processing/shape_predictor.h>
#include <dlib/opencv/cv_image.h>
#include <opencv2/calib3d.hpp>
#include <opencv2/imgproc.hpp>

namespace KVOAI {

namespace {

const char* const kDefaultModelPath = "/usr/share/dlib/shape_predictor_68_face_landmarks.dat";
const char* const kModelPathVariable = "KVODNNL_LANDMARK_MODEL";

// Side of the square that the HOG detector scans; faces much smaller than this
// are not found.
constexpr double kHogWindow = 80.0;
// A full search looks for faces down to this fraction of the picture's
// shorter side, on a grey copy reduced just enough for that.
constexpr double kSmallestFaceFraction = 1.0 / 6.0;
// A followed face is searched in a region of this many face sizes, scaled so
// that the face measures about kTrackFaceSize pixels.
constexpr double kTrackRegion = 2.0;
constexpr double kTrackFaceSize = 110.0;
// After this many followed calls the whole picture is searched again, so that
// faces that came in meanwhile are found.
constexpr int kMaxTrackedRuns = 15;
// Mean absolute difference of the 32 x 32 grey signatures above which a
// picture counts as a different one.
constexpr double kChangeThreshold = 10.0;
constexpr int kThumbSide = 32;
constexpr int kPatch = 4;
// Score that a face must pass in a search of the whole picture. Above dlib's
// own threshold of 0: textures such as badges and fabric folds score up to
// about 0.1, while faces that the landmark model can fit score well above.
constexpr double kWholePictureThreshold = 0.2;
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
// Models, read once per process and shared by all detectors. The HOG detector
// keeps scratch state while it scans, so each detector scans with its own
// copy; the landmark model is only read and is shared as it is.
// ---------------------------------------------------------------------------
struct ModelStore {
    std::mutex mutex;
    std::unique_ptr<HogDetector> hog;
    std::map<std::string, std::shared_ptr<const Predictor>> predictors;
};

ModelStore& modelStore()
{
    static ModelStore* store = new ModelStore;  // outlives every detector
    return *store;
}

HogDetector copyHogDetector()
{
    ModelStore& store = modelStore();
    std::lock_guard<std::mutex> lock(store.mutex);
    if (!store.hog)
        store.hog = std::make_unique<HogDetector>(dlib::get_frontal_face_detector());
    return *store.hog;
}

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

double overlap(const dlib::rectangle& a, const dlib::rectangle& b)
{
    const double inter = static_cast<double>(a.intersect(b).area());
    const double uni = static_cast<double>(a.area() + b.area()) - inter;
    return uni > 0 ? inter / uni : 0.0;
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

Pose estimatePose(const dlib::full_object_detection& shape, const cv::Size& pictureSize)
{
    // A plain array: no destructor runs at exit under a detector still at work.
    static const cv::Point3d genericFace[] = {
        {0.0, 0.0, 0.0},          // nose tip (30)
        {0.0, 382.0, 100.0},      // chin (8)
        {-225.0, -185.0, 175.0},  // outer corner of the left eye (36)
        {225.0, -185.0, 175.0},   // outer corner of the right eye (45)
        {-170.0, 100.0, 150.0},   // left mouth corner (48)
        {170.0, 100.0, 150.0},    // right mouth corner (54)
    };
    const std::vector<cv::Point3d> generic(std::begin(genericFace), std::end(genericFace));
    const std::vector<cv::Point2d> seen = {toPoint(shape.part(30)), toPoint(shape.part(8)),
                                           toPoint(shape.part(36)), toPoint(shape.part(45)),
                                           toPoint(shape.part(48)), toPoint(shape.part(54))};

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

}  // namespace

// ---------------------------------------------------------------------------
// FaceDetectorImpl
// ---------------------------------------------------------------------------
class FaceDetectorImpl {
public:
    std::vector<FaceDetector::Face> faces;

    void run(const cv::Mat& image, bool searchWholePicture);

private:
    bool ensureModels();
    bool pictureChanged(const cv::Mat& grey);
    std::vector<Detection> searchWholePicture(const cv::Mat& grey);
    bool followFaces(const cv::Mat& grey, std::vector<Detection>& found);
    void addFace(const cv::Mat& grey, const Detection& detection);

    std::string modelPath = modelPathFromEnvironment();
    bool modelsTried = false;
    std::unique_ptr<HogDetector> hog;
    std::shared_ptr<const Predictor> predictor;
    bool warnedInput = false;

    cv::Mat grey;
    cv::Mat reduced;
    cv::Mat thumb;
    cv::Mat lastThumb;
    cv::Size lastPictureSize;
    std::vector<dlib::rectangle> tracks;
    int trackedRuns = 0;
};

bool FaceDetectorImpl::ensureModels()
{
    if (!modelsTried) {
        modelsTried = true;
        predictor = loadPredictor(modelPath);
        if (predictor)
            hog = std::make_unique<HogDetector>(copyHogDetector());
    }
    return predictor && hog;
}

// A 32 x 32 grid of small patch means stands for the picture; it costs a few
// thousand pixel reads whatever the picture's size.
bool FaceDetectorImpl::pictureChanged(const cv::Mat& picture)
{
    thumb.create(kThumbSide, kThumbSide, CV_32F);
    for (int gy = 0; gy < kThumbSide; ++gy) {
        const int cy = std::min(picture.rows - kPatch, (2 * gy + 1) * picture.rows / (2 * kThumbSide));
        for (int gx = 0; gx < kThumbSide; ++gx) {
            const int cx = std::min(picture.cols - kPatch, (2 * gx + 1) * picture.cols / (2 * kThumbSide));
            int sum = 0;
            for (int y = std::max(0, cy); y < std::max(0, cy) + kPatch && y < picture.rows; ++y) {
                const uchar* row = picture.ptr<uchar>(y);
                for (int x = std::max(0, cx); x < std::max(0, cx) + kPatch && x < picture.cols; ++x)
                    sum += row[x];
            }
            thumb.at<float>(gy, gx) = static_cast<float>(sum) / (kPatch * kPatch);
        }
    }
    bool changed = true;
    if (!lastThumb.empty() && lastPictureSize == picture.size())
        changed = cv::norm(thumb, lastThumb, cv::NORM_L1) / (kThumbSide * kThumbSide) > kChangeThreshold;
    std::swap(thumb, lastThumb);
    lastPictureSize = picture.size();
    return changed;
}

std::vector<Detection> FaceDetectorImpl::searchWholePicture(const cv::Mat& picture)
{
    const int shorter = std::min(picture.cols, picture.rows);
    const double scale = std::min(1.0, kHogWindow / (kSmallestFaceFraction * shorter));
    const cv::Mat* scanned = &picture;
    if (scale < 1.0) {
        cv::resize(picture, reduced, cv::Size(), scale, scale, cv::INTER_AREA);
        scanned = &reduced;
    }
    std::vector<dlib::rect_detection> hits;
    (*hog)(dlib::cv_image<unsigned char>(*scanned), hits, kWholePictureThreshold);

    std::vector<Detection> found;
    for (const dlib::rect_detection& hit : hits)
        found.push_back({scaleRect(hit.rect, scanned == &picture ? 1.0 : scale, 0, 0), hit.detection_confidence});
    return found;
}

// Searches each face of the previous call near its old place. False when one
// of them is not found there, or two of them turn into one.
bool FaceDetectorImpl::followFaces(const cv::Mat& picture, std::vector<Detection>& found)
{
    found.clear();
    const cv::Rect whole(0, 0, picture.cols, picture.rows);
    for (const dlib::rectangle& track : tracks) {
        const double w = static_cast<double>(track.width());
        const double h = static_cast<double>(track.height());
        const cv::Point2d centre(track.left() + w / 2.0, track.top() + h / 2.0);
        const cv::Rect region = cv::Rect(cvRound(centre.x - w * kTrackRegion / 2), cvRound(centre.y - h * kTrackRegion / 2),
                                         cvRound(w * kTrackRegion), cvRound(h * kTrackRegion))
            & whole;
        if (region.width < kHogWindow / 2 || region.height < kHogWindow / 2)
            return false;

        const double scale = std::min(1.0, kTrackFaceSize / std::max(w, h));
        const cv::Mat* scanned;
        cv::Mat view = picture(region);
        if (scale < 1.0) {
            cv::resize(view, reduced, cv::Size(), scale, scale, cv::INTER_AREA);
            scanned = &reduced;
        } else {
            scanned = &view;
        }
        std::vector<dlib::rect_detection> hits;
        (*hog)(dlib::cv_image<unsigned char>(*scanned), hits);

        // The hit nearest the old centre, if it is near enough and of a
        // similar size.
        const Detection* best = nullptr;
        Detection candidate;
        double bestDistance = 0.5 * w;
        for (const dlib::rect_detection& hit : hits) {
            const dlib::rectangle box = scaleRect(hit.rect, scanned == &view ? 1.0 : scale, region.x, region.y);
            const double bw = static_cast<double>(box.width());
            const double dx = box.left() + bw / 2.0 - centre.x;
            const double dy = box.top() + box.height() / 2.0 - centre.y;
            const double distance = std::hypot(dx, dy);
            if (distance <= bestDistance && bw > 0.6 * w && bw < 1.6 * w) {
                bestDistance = distance;
                candidate = {box, hit.detection_confidence};
                best = &candidate;
            }
        }
        if (!best)
            return false;
        for (const Detection& other : found)
            if (overlap(other.box, best->box) > 0.5)
                return false;
        found.push_back(*best);
    }
    return true;
}

void FaceDetectorImpl::addFace(const cv::Mat& picture, const Detection& detection)
{
    const dlib::full_object_detection shape = (*predictor)(dlib::cv_image<unsigned char>(picture), detection.box);
    if (shape.num_parts() != 68)
        return;

    FaceDetector::Face face;
    const std::vector<cv::Point2d> points = layout98(shape);
    face.points.reserve(196);
    for (const cv::Point2d& p : points) {
        face.points.push_back(cvRound(p.x));
        face.points.push_back(cvRound(p.y));
    }
    face.box = {static_cast<int>(detection.box.left()), static_cast<int>(detection.box.top()),
                static_cast<int>(detection.box.right() + 1), static_cast<int>(detection.box.bottom() + 1)};
    const Pose pose = estimatePose(shape, picture.size());
    face.triple = {static_cast<int>(std::lround(pose.pitch)), static_cast<int>(std::lround(pose.yaw)),
                   static_cast<int>(std::lround(pose.roll))};
    face.floatsA = {static_cast<float>(pose.pitch), static_cast<float>(pose.yaw), static_cast<float>(pose.roll)};
    face.floatsC = {static_cast<float>(detection.score)};
    faces.push_back(std::move(face));
}

void FaceDetectorImpl::run(const cv::Mat& image, bool wholePicture)
{
    faces.clear();
    if (image.empty() || image.dims != 2 || image.depth() != CV_8U
        || (image.channels() != 3 && image.channels() != 4)) {
        if (!image.empty() && !warnedInput) {
            warnedInput = true;
            std::fprintf(stderr, "kvodnnl: pictures must have 8 bits a channel and 3 or 4 channels; "
                                 "this one (type %d) gives no faces\n",
                         image.type());
        }
        tracks.clear();
        return;
    }
    if (!ensureModels())
        return;

    cv::cvtColor(image, grey, image.channels() == 4 ? cv::COLOR_RGBA2GRAY : cv::COLOR_RGB2GRAY);
    const bool changed = pictureChanged(grey);

    std::vector<Detection> found;
    const bool followed = !wholePicture && !changed && !tracks.empty() && trackedRuns < kMaxTrackedRuns
        && followFaces(grey, found);
    if (followed) {
        ++trackedRuns;
    } else {
        found = searchWholePicture(grey);
        trackedRuns = 0;
    }

    tracks.clear();
    for (const Detection& detection : found) {
        tracks.push_back(detection.box);
        addFace(grey, detection);
    }
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
