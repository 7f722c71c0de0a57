#include "Scheduler.h"

#include <algorithm>
#include <cstdio>
#include <exception>

#include <pthread.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "KeyPoints.h"
#include "Models.h"
#include "Scan.h"
#include "Tuning.h"

namespace KVOAI::kvodnnl {

namespace {

// Milliseconds that `task` is expected to take; a face it confirms is fitted
// too.
double taskMilliseconds(const Task& task)
{
    return estimate(task) + (task.kind == Task::Confirm ? fitMilliseconds() : 0.0);
}

}  // namespace

Scheduler::~Scheduler()
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        shared_.stop = true;
    }
    wake_.notify_all();
    if (worker_.joinable())
        worker_.join();
}

void Scheduler::start(std::shared_ptr<const Predictor> predictor)
{
    predictor_ = std::move(predictor);
    worker_ = std::thread([this] { workLoop(); });
}

bool Scheduler::schedule(const PicturePtr& picture, Change change, const std::vector<Detection>& followed, bool lost,
                         bool wholePicture)
{
    ++callsSinceSearch_;
    bool busy = false;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (shared_.planSize != picture->grey.size())
            replan(picture->grey.size());
        shared_.latest = picture;
        // The pictures of a still scene are scanned in the reductions of the
        // first, for as many calls as a search may take.
        shared_.reductions = Reductions::forPicture(*picture, shared_.reductions, kSearchCalls);
        const int period = followed.empty() ? kSearchPeriod : followedPeriod_;
        // A change in a few places (in a video, most pictures have one) asks
        // for a search in the background while no face is shown, at most
        // every kSearchCalls calls: restarted on every such picture, the
        // search would never rest. Faces shown keep the period.
        const bool local = change == Change::Local && followed.empty() && callsSinceSearch_ >= kSearchCalls;
        if (change == Change::Whole || (wholePicture && !(urgent_ && searching()))) {
            startSearch(followed, true);
            followedPeriod_ = kFollowedSearchPeriod;
        } else if ((lost || local || callsSinceSearch_ >= period) && !searching()) {
            // The last search done, a search that only the period asks for
            // waits longer next time when the last one found nobody new.
            const bool quiet = !lost && !local && !followed.empty() && shared_.newFaces == 0;
            followedPeriod_ = quiet ? std::min(2 * followedPeriod_, kLongestFollowedSearchPeriod)
                                    : kFollowedSearchPeriod;
            startSearch(followed, false);
        }
        busy = searching();
    }
    wake_.notify_all();
    return busy;
}

// A plan for pictures of a new size; what was found on the old size is
// dropped.
void Scheduler::replan(cv::Size size)
{
    shared_.planSize = size;
    shared_.plan = planSearch(shared_.planSize);
    shared_.takenFor.assign(shared_.plan.size(), 0);
    shared_.cursor = 0;
    shared_.confirms.clear();
    shared_.found.clear();
    shared_.search = 0;
}

// A new search: every task of the plan is to be done again, for the latest
// picture. Faces followed now need no confirming.
void Scheduler::startSearch(const std::vector<Detection>& followed, bool mustEnd)
{
    ++shared_.search;
    shared_.newFaces = 0;
    shared_.known.clear();
    shared_.candidates.clear();
    for (const Detection& d : followed)
        shared_.known.push_back(d.box);
    callsSinceSearch_ = 1;
    urgent_ = mustEnd;
}

bool Scheduler::searching() const
{
    if (!shared_.confirms.empty() || shared_.running > 0)
        return true;
    for (uint64_t taken : shared_.takenFor)
        if (taken < shared_.search)
            return true;
    return false;
}

// Confirmations first, then the plan's next task not yet taken for the
// latest search.
const Task* Scheduler::nextTask(size_t& planIndex) const
{
    planIndex = shared_.plan.size();
    if (!shared_.confirms.empty())
        return &shared_.confirms.front();
    for (size_t k = 0; k < shared_.plan.size(); ++k) {
        const size_t i = (shared_.cursor + k) % shared_.plan.size();
        if (shared_.takenFor[i] < shared_.search) {
            planIndex = i;
            return &shared_.plan[i];
        }
    }
    return nullptr;
}

bool Scheduler::takeTask(Task& task, uint64_t& search)
{
    size_t i = 0;
    const Task* next = nextTask(i);
    if (!next)
        return false;
    task = *next;
    search = shared_.search;
    ++shared_.running;
    if (i < shared_.plan.size()) {
        shared_.takenFor[i] = shared_.search;
        shared_.cursor = (i + 1) % shared_.plan.size();
    } else {
        shared_.confirms.pop_front();
    }
    return true;
}

// Runs `task`, taken for `search`, on the latest picture with the lock let
// go meanwhile, and takes in what it found: the faces that a confirmation
// finds come with their key points, fitted by the thread that confirmed
// them. The lock is held again on return, also when the task fails.
void Scheduler::runOne(std::unique_lock<std::mutex>& lock, const Task& task, uint64_t search)
{
    const PicturePtr picture = shared_.latest;
    const std::shared_ptr<Reductions> reductions = shared_.reductions;
    lock.unlock();
    const double processorStart = threadMilliseconds();
    std::vector<Detection> out;
    std::vector<Track> fitted;
    double spent = 0;
    try {
        ScannerLease scanners;
        out = runTask(task, picture->grey, *reductions, *scanners);
        spent = threadMilliseconds() - processorStart;
        // A face confirmed is fitted, and then asked of the cascade in the
        // frame that its key points lean in.
        if (task.kind == Task::Confirm)
            for (const Detection& d : out) {
                Track track = fittedTrack(d, picture, *predictor_);
                if (cascadeAgrees(picture->grey, track.detection, *scanners))
                    fitted.push_back(std::move(track));
            }
    } catch (...) {
        lock.lock();
        out.clear();
        fitted.clear();
        finishTask(task, search, picture, out, fitted, threadMilliseconds() - processorStart);
        throw;
    }
    lock.lock();
    finishTask(task, search, picture, out, fitted, spent);
}

void Scheduler::finishTask(const Task& task, uint64_t search, const PicturePtr& picture,
                           const std::vector<Detection>& out, std::vector<Track>& fitted, double milliseconds)
{
    --shared_.running;
    measured(task, milliseconds);
    if (picture->grey.size() != shared_.planSize)
        return;  // the picture's size changed meanwhile
    if (task.kind == Task::Confirm)
        addFound(fitted, search, picture);
    else
        addCandidates(out);
}

void Scheduler::addFound(std::vector<Track>& fitted, uint64_t search, const PicturePtr& picture)
{
    for (Track& track : fitted) {
        const dlib::rectangle box = track.detection.box;
        // A face found again while it waits to be shown replaces its older
        // find: the list holds each face once, however many searches end
        // before the calls find time to show it.
        const auto again = findFace(shared_.found, box);
        if (again != shared_.found.end())
            *again = {std::move(track), picture};
        else
            shared_.found.push_back({std::move(track), picture});
        if (search == shared_.search) {
            shared_.known.push_back(box);
            ++shared_.newFaces;
        }
    }
}

// A candidate of a face already known is dropped, and so is one much like a
// candidate already taken; one that merely overlaps a candidate taken is
// confirmed on its own, as the two may place the face differently.
void Scheduler::addCandidates(const std::vector<Detection>& out)
{
    for (const Detection& candidate : out) {
        const bool taken = std::any_of(shared_.candidates.begin(), shared_.candidates.end(),
                                       [&](const dlib::rectangle& k) { return overlap(k, candidate.box) > 0.5; });
        if (holdsFace(shared_.known, candidate.box) || taken)
            continue;
        shared_.candidates.push_back(candidate.box);
        shared_.confirms.push_back(confirmTask(candidate.box, candidate.lean));
    }
}

void Scheduler::workLoop()
{
    // The search uses what the caller's own work leaves of the processors:
    // it runs at a lower priority than the thread that made the detector.
    setpriority(PRIO_PROCESS, static_cast<id_t>(syscall(SYS_gettid)), kSearchNice);
    pthread_setname_np(pthread_self(), "kvodnnl-search");
    std::unique_lock<std::mutex> lock(mutex_);
    bool warned = false;
    for (;;) {
        Task task;
        uint64_t search = 0;
        wake_.wait(lock, [&] { return shared_.stop || (shared_.latest && takeTask(task, search)); });
        if (shared_.stop)
            return;
        const Clock::time_point start = Clock::now();
        shared_.workerEnds = after(start, taskMilliseconds(task));
        try {
            runOne(lock, task, search);
        } catch (const std::exception& e) {
            if (!warned)
                std::fprintf(stderr, "kvodnnl: a search of the whole picture failed: %s\n", e.what());
            warned = true;
        }
        wake_.notify_all();
    }
}

void Scheduler::help(Clock::time_point start, double budget, double reserve)
{
    std::unique_lock<std::mutex> lock(mutex_);
    while (searching()) {
        size_t index = 0;
        const Task* next = nextTask(index);
        if (!next) {
            // All tasks taken: wait for the detector's thread if it should
            // end its own within the budget.
            const Clock::time_point deadline = after(start, budget - reserve);
            if (shared_.workerEnds > deadline || wake_.wait_until(lock, deadline) == std::cv_status::timeout)
                return;
            continue;
        }
        if (millisecondsSince(start) + taskMilliseconds(*next) + reserve > budget)
            return;
        Task task;
        uint64_t search = 0;
        takeTask(task, search);
        const TimedWork timed;
        runOne(lock, task, search);
    }
}

std::vector<Found> Scheduler::takeFound()
{
    std::vector<Found> found;
    std::lock_guard<std::mutex> lock(mutex_);
    found.swap(shared_.found);
    return found;
}

void Scheduler::putBack(const std::vector<Found>& later)
{
    if (later.empty())
        return;
    std::lock_guard<std::mutex> lock(mutex_);
    for (const Found& f : later)
        if (!holdsFace(shared_.found, boxOf(f)))
            shared_.found.push_back(f);
}

void Scheduler::forget()
{
    std::lock_guard<std::mutex> lock(mutex_);
    shared_.found.clear();
    shared_.confirms.clear();
}

}  // namespace KVOAI::kvodnnl
