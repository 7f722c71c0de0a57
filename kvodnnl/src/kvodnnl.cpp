#include "kvodnnl/kvodnnl.h"

#include <cmath>
#include <cstdio>
#include <exception>
#include <memory>
#include <string>

#include <opencv2/imgproc.hpp>

#include "FaceFilter.h"
#include "HeadPose.h"
#include "KeyPoints.h"
#include "Merge.h"
#include "Models.h"
#include "Scheduler.h"
#include "Signature.h"
#include "Timing.h"
#include "Tracker.h"
#include "Tuning.h"

namespace KVOAI {

using namespace kvodnnl;

namespace {

// Whether Run takes `image`: 8 bits a channel, 3 or 4 channels.
bool takes(const cv::Mat& image)
{
    return !image.empty() && image.dims == 2 && image.depth() == CV_8U
        && (image.channels() == 3 || image.channels() == 4);
}

// A smoothed face as Run hands it out, with the head pose of its key points
// on a picture of `pictureSize`.
FaceDetector::Face toFace(const smoothing::FaceFilter::Face& smoothed, double score, const cv::Size& pictureSize)
{
    FaceDetector::Face face;
    face.points.reserve(196);
    for (const cv::Point2d& p : smoothed.points) {
        face.points.push_back(cvRound(p.x));
        face.points.push_back(cvRound(p.y));
    }
    face.box = {cvRound(smoothed.box.x), cvRound(smoothed.box.y), cvRound(smoothed.box.br().x),
                cvRound(smoothed.box.br().y)};
    const Pose pose = estimatePose(smoothed.points, pictureSize);
    face.triple = {static_cast<int>(std::lround(pose.pitch)), static_cast<int>(std::lround(pose.yaw)),
                   static_cast<int>(std::lround(pose.roll))};
    face.floatsA = {static_cast<float>(pose.pitch), static_cast<float>(pose.yaw), static_cast<float>(pose.roll)};
    face.floatsC = {static_cast<float>(score)};
    return face;
}

}  // namespace

// ---------------------------------------------------------------------------
// FaceDetectorImpl
// ---------------------------------------------------------------------------
class FaceDetectorImpl {
public:
    FaceDetectorImpl();

    std::vector<FaceDetector::Face> faces;

    void run(const cv::Mat& image, bool searchWholePicture);
    void forget();

private:
    bool ensureModels();
    void show(const std::vector<Track>& shown, std::vector<std::vector<cv::Point2d>> points,
              const cv::Size& pictureSize);

    std::string modelPath = modelPathFromEnvironment();
    // Milliseconds that handing out a face takes at the end of a call
    // (smoothing, head pose), as measured over the recent calls: the budgets
    // of a call with many faces leave that time free.
    double showPerFace = 0.15;
    bool modelsTried = false;
    std::shared_ptr<const Predictor> predictor;
    bool warnedInput = false;

    PicturePtr last;
    std::vector<Track> tracks;
    smoothing::FaceFilter filter;
    // Last, so that its thread ends before the rest goes.
    Scheduler scheduler;
};

FaceDetectorImpl::FaceDetectorImpl()
{
    if (ensureModels()) {
        prepareScanners(2);
        scheduler.start(predictor);
    }
}

bool FaceDetectorImpl::ensureModels()
{
    if (!modelsTried) {
        modelsTried = true;
        predictor = loadPredictor(modelPath);
    }
    return predictor != nullptr;
}

// Smooths the key points of the faces shown (`points`, one list a face, empty
// for a face without any) with those of the last call and fills `faces`.
void FaceDetectorImpl::show(const std::vector<Track>& shown, std::vector<std::vector<cv::Point2d>> points,
                            const cv::Size& pictureSize)
{
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
    for (size_t i = 0; i < fitted.size(); ++i)
        faces.push_back(toFace(fitted[i], scores[i], pictureSize));
}

// After a picture that can't be read: no face is followed into the next one.
void FaceDetectorImpl::forget()
{
    tracks.clear();
    filter.clear();
    last.reset();
    scheduler.forget();
}

void FaceDetectorImpl::run(const cv::Mat& image, bool wholePicture)
{
    const Clock::time_point start = Clock::now();
    faces.clear();
    if (!takes(image)) {
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
    const PicturePtr before = last;
    Change change = before ? pictureChange(*before, *picture) : Change::Whole;
    last = picture;

    bool lost = false;
    std::vector<Track> kept = follow(tracks, before.get(), *picture, change == Change::Whole, lost, start);
    std::vector<Detection> followed;
    std::vector<dlib::rectangle> boxes;
    for (const Track& t : kept) {
        followed.push_back(t.detection);
        boxes.push_back(t.detection.box);
    }
    if (before)
        change = sceneChange(change, *before, *picture, boxes, lost);

    const bool busy = scheduler.schedule(picture, change, followed, lost, wholePicture);
    // While faces are shown, a search asked for by a picture that keeps
    // changing is left to the detector's thread: the calling thread joins in
    // from the second call on the same picture.
    const bool urgent = scheduler.urgent();
    const bool finish = urgent && scheduler.callsSinceSearch() >= kSearchCalls;
    if (busy && (followed.empty() || (urgent && scheduler.callsSinceSearch() >= 2))) {
        // Key points are fitted again only on faces whose box moved.
        size_t refits = 0;
        for (const Track& t : kept)
            refits += t.fitted.empty() || t.fitBox != t.detection.box;
        const double budget = loaded(finish ? kFinishBudgetMs : urgent ? kUrgentHelpBudgetMs : kHelpBudgetMs);
        scheduler.help(start, budget, refits * fitMilliseconds() + kept.size() * showPerFace);
    }
    // Faces added by the search come with the key points fitted where it
    // found them.
    std::vector<Track> added;
    scheduler.putBack(mergeFound(scheduler.takeFound(), picture, followed, added, start,
                                 loaded(finish ? kFinishBudgetMs : kMergeBudgetMs), showPerFace));
    for (Track& t : added)
        kept.push_back(std::move(t));
    tracks = std::move(kept);
    const double fitBudget = loaded(finish ? kFinishBudgetMs : kFitBudgetMs) - tracks.size() * showPerFace;
    std::vector<std::vector<cv::Point2d>> points = keyPoints(picture, tracks, start, fitBudget, *predictor);
    const Clock::time_point shown = Clock::now();
    show(tracks, std::move(points), picture->grey.size());
    if (!tracks.empty())
        showPerFace += 0.2 * (millisecondsSince(shown) / tracks.size() - showPerFace);
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
