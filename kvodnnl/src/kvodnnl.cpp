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

#include <dlib/image_processing/shape_predictor.h>
#include <dlib/opencv/cv_image.h>
#include <opencv2/calib3d.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/objdetect.hpp>

#include "Boxes.h"
#include "FaceFilter.h"
#include "HeadPose.h"
#include "Layout.h"
#include "Models.h"
#include "Scan.h"
#include "SearchPlan.h"
#include "Signature.h"
#include "Timing.h"
#include "Tuning.h"

namespace KVOAI {

using namespace kvodnnl;

namespace {

// Milliseconds to fit the key points of one face.
std::atomic<double> fitRate{2.0};

// The 68 points of a fit.
std::vector<cv::Point2d> modelPoints(const dlib::full_object_detection& shape)
{
    std::vector<cv::Point2d> model(68);
    for (unsigned long i = 0; i < 68; ++i)
        model[i] = cv::Point2d(static_cast<double>(shape.part(i).x()), static_cast<double>(shape.part(i).y()));
    return model;
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
        friend const dlib::rectangle& boxOf(const Found& found) { return found.detection.box; }
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
    void runOne(std::unique_lock<std::mutex>& lock, const Task& task, uint64_t search, Clock::time_point start);
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
        friend const dlib::rectangle& boxOf(const Track& track) { return track.detection.box; }
    };
    static Track newTrack(const Detection& detection, const cv::Mat& grey);
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
            const auto again = findFace(shared.found, d.box);
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
        const bool taken = std::any_of(shared.candidates.begin(), shared.candidates.end(),
                                       [&](const dlib::rectangle& k) { return overlap(k, candidate.box) > 0.5; });
        if (holdsFace(shared.known, candidate.box) || taken)
            continue;
        shared.candidates.push_back(candidate.box);
        shared.confirms.push_back(confirmTask(candidate.box));
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
        const Clock::time_point start = Clock::now();
        shared.workerEnds = after(start, estimate(task));
        try {
            runOne(lock, task, search, start);
        } catch (const std::exception& e) {
            if (!warned)
                std::fprintf(stderr, "kvodnnl: a search of the whole picture failed: %s\n", e.what());
            warned = true;
        }
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
            const Clock::time_point deadline = after(start, budget - reserve);
            if (shared.workerEnds > deadline || wake.wait_until(lock, deadline) == std::cv_status::timeout)
                return;
            continue;
        }
        if (!finish && millisecondsSince(start) + estimate(*next) + reserve > budget)
            return;
        Task task;
        uint64_t search = 0;
        takeTask(task, search);
        runOne(lock, task, search, Clock::now());
    }
}

// Runs `task`, taken for `search` and started at `start`, on the latest
// picture with the lock let go meanwhile, and takes in what it found. The
// lock is held again on return, also when the task fails.
void FaceDetectorImpl::runOne(std::unique_lock<std::mutex>& lock, const Task& task, uint64_t search,
                              Clock::time_point start)
{
    const PicturePtr picture = shared.latest;
    lock.unlock();
    std::vector<Detection> out;
    try {
        ScannerLease scanners;
        out = runTask(task, picture->grey, *scanners);
    } catch (...) {
        lock.lock();
        finishTask(task, search, picture, out, millisecondsSince(start));
        throw;
    }
    const double spent = millisecondsSince(start);
    lock.lock();
    finishTask(task, search, picture, out, spent);
}

// Adds the faces that the search confirmed and that are not followed yet.
// Those confirmed on another picture than this call's are searched for near
// their place first. Unless `all`, faces beyond the call's budget wait for
// the next call, except a first face on a call that shows none.
void FaceDetectorImpl::merge(const PicturePtr& picture, std::vector<Detection>& followed, Clock::time_point start,
                             bool all)
{
    std::vector<Found> found, later;
    {
        std::lock_guard<std::mutex> lock(mutex);
        found.swap(shared.found);
    }
    if (found.empty())
        return;
    const double confirm = confirmMilliseconds();
    std::unique_ptr<ScannerLease> scanners;
    for (const Found& f : found) {
        if (holdsFace(followed, f.detection.box))
            continue;
        const bool same = difference(*f.picture, *picture) <= kSameThreshold;
        const double fit = fitRate.load(std::memory_order_relaxed);
        // While no face is shown, one found on this very picture is added
        // whatever the call has taken: the search may have used the budget,
        // and would again on every call of a picture handed in repeatedly.
        const bool first = same && followed.empty();
        if (!all && !first
            && millisecondsSince(start) + (same ? 0.0 : confirm) + fit * (followed.size() + 1)
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
        if (searchNear(picture->grey, f.detection.box, 0.0, **scanners, d) && !holdsFace(followed, d.box))
            followed.push_back(d);
    }
    if (!later.empty()) {
        // Those found again meanwhile keep the newer find.
        std::lock_guard<std::mutex> lock(mutex);
        for (const Found& f : later)
            if (!holdsFace(shared.found, f.detection.box))
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
            track.fitted = layout98(modelPoints(shape));
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
            if (!searchNear(picture.grey, track.detection.box, 0.0, **scanners, next.detection)) {
                lost = true;
                continue;
            }
            ++found;
            // A face found where it was keeps its box, so that its key points
            // don't follow the box's steps between pyramid levels.
            if (overlap(next.detection.box, track.detection.box) >= kKeepBoxOverlap)
                next.detection.box = track.detection.box;
            next.fitted = track.fitted;
            next.fitBox = track.fitBox;
            next.fitLook = track.fitLook;
            next.fitPicture = track.fitPicture;
            next.fitAge = track.fitAge;
            next.patch = patchOf(picture.grey, next.detection.box);
        }
        if (!holdsFace(kept, next.detection.box))
            kept.push_back(next);
    }
    return kept;
}

// A face that the search found, new to the calls, on the grey picture `grey`.
FaceDetectorImpl::Track FaceDetectorImpl::newTrack(const Detection& detection, const cv::Mat& grey)
{
    Track track;
    track.detection = detection;
    track.patch = patchOf(grey, detection.box);
    return track;
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
        kept.push_back(newTrack(followed[i], picture->grey));
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
