#pragma once
// The search of the whole picture behind the calls: which search is due, the
// tasks of the searches under way, shared between the detector's own thread
// and the calling thread, and the faces they found.
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

#include "Boxes.h"
#include "Models.h"
#include "Reductions.h"
#include "SearchPlan.h"
#include "Signature.h"
#include "Timing.h"
#include "Tracker.h"
#include "Tuning.h"

namespace KVOAI::kvodnnl {

// A face that the search confirmed, with the picture it was confirmed on and
// its key points fitted there.
struct Found {
    Track track;
    PicturePtr picture;
};

inline const dlib::rectangle& boxOf(const Found& found) { return found.track.detection.box; }

class Scheduler {
public:
    Scheduler() = default;
    // Ends the detector's thread after the task it is on.
    ~Scheduler();
    Scheduler(const Scheduler&) = delete;
    Scheduler& operator=(const Scheduler&) = delete;

    // Starts the detector's thread, "kvodnnl-search", at niceness kSearchNice.
    // The faces confirmed are fitted with `predictor`'s key points by the
    // thread that confirms them.
    void start(std::shared_ptr<const Predictor> predictor);

    // Hands in the picture of a call and starts a new search when one is due:
    // at once for a new picture (`change` Whole) and for `wholePicture` (unless
    // such a search is under way), and, once the last search is done, when a
    // face was `lost`, when no face is `followed` and the picture changed in a
    // few places, or after the calls of the period. Returns whether a search
    // is under way.
    bool schedule(const PicturePtr& picture, Change change, const std::vector<Detection>& followed, bool lost,
                  bool wholePicture);

    // Whether the latest search must end by its kSearchCalls-th call...
    bool urgent() const { return urgent_; }
    // ...and the calls since it began, this one included.
    int callsSinceSearch() const { return callsSinceSearch_; }

    // Takes on tasks of the search while they fit into `budget` milliseconds
    // from the call's start less `reserve`, waiting meanwhile for the
    // detector's thread to end a task that it should end within them.
    void help(Clock::time_point start, double budget, double reserve);

    // The faces that the search confirmed and that wait to be shown...
    std::vector<Found> takeFound();
    // ...and those of them left for a later call, given back: a face found
    // again meanwhile keeps its newer find.
    void putBack(const std::vector<Found>& later);

    // After a picture that can't be read: the finds and the candidates
    // waiting are dropped.
    void forget();

private:
    // What the search shares between the threads, under `mutex_`.
    struct Shared {
        std::vector<Task> plan;         // the tasks of a whole search of pictures of planSize
        cv::Size planSize;
        std::vector<uint64_t> takenFor; // the search each plan task was last taken for
        size_t cursor = 0;              // the plan task to try first
        std::deque<Task> confirms;      // candidates waiting
        std::vector<dlib::rectangle> known;       // faces followed when the search began, and confirmed since
        std::vector<dlib::rectangle> candidates;  // candidates taken in this search
        std::vector<Found> found;       // confirmed faces not yet handed out
        int newFaces = 0;               // faces that the latest search confirmed
        uint64_t search = 0;            // the latest search; 0 before the first
        int running = 0;                // tasks at work
        Clock::time_point workerEnds;   // when the detector's thread should end its task
        PicturePtr latest;
        std::shared_ptr<Reductions> reductions;  // what the latest picture is scanned in
        bool stop = false;
    };

    // These are called with the lock held.
    void replan(cv::Size size);
    void startSearch(const std::vector<Detection>& followed, bool mustEnd);
    bool searching() const;
    const Task* nextTask(size_t& planIndex) const;
    bool takeTask(Task& task, uint64_t& search);
    void runOne(std::unique_lock<std::mutex>& lock, const Task& task, uint64_t search);
    void finishTask(const Task& task, uint64_t search, const PicturePtr& picture, const std::vector<Detection>& out,
                    std::vector<Track>& fitted, double milliseconds);
    void addFound(std::vector<Track>& fitted, uint64_t search, const PicturePtr& picture);
    void addCandidates(const std::vector<Detection>& out);

    void workLoop();

    // The calling thread's own.
    int callsSinceSearch_ = 0;  // calls since the latest search began
    int followedPeriod_ = kFollowedSearchPeriod;  // the period while faces are followed
    bool urgent_ = false;       // the latest search must end by its kSearchCalls-th call

    std::shared_ptr<const Predictor> predictor_;
    mutable std::mutex mutex_;
    std::condition_variable wake_;
    Shared shared_;
    std::thread worker_;
};

}  // namespace KVOAI::kvodnnl
