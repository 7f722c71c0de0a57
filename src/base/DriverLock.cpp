#include "base/DriverLock.h"

#include <condition_variable>
#include <mutex>

namespace {

thread_local int heldHere = 0;
thread_local bool urgentHere = false;

// The turn: taken or free, and the threads waiting for it by urgency. A
// thread that gives it back wakes one urgent waiter if there is one, else one
// other; a thread that comes by while it is free takes it at once, unless an
// urgent one waits, as with a plain mutex.
struct Turn {
    std::mutex mutex;
    std::condition_variable urgentWake;
    std::condition_variable otherWake;
    bool taken = false;
    int urgentWaiting = 0;
    int otherWaiting = 0;
};

Turn& turn()
{
    // Never destroyed: threads that stop while the process exits still take it.
    static Turn* instance = new Turn;
    return *instance;
}

}  // namespace

void takeGlDriver()
{
    if (heldHere > 0) {
        ++heldHere;
        return;
    }
    Turn& t = turn();
    std::unique_lock<std::mutex> lock(t.mutex);
    if (urgentHere) {
        ++t.urgentWaiting;
        t.urgentWake.wait(lock, [&t] { return !t.taken; });
        --t.urgentWaiting;
    } else {
        ++t.otherWaiting;
        t.otherWake.wait(lock, [&t] { return !t.taken && t.urgentWaiting == 0; });
        --t.otherWaiting;
    }
    t.taken = true;
    heldHere = 1;
}

void releaseGlDriver()
{
    if (--heldHere > 0)
        return;
    Turn& t = turn();
    std::lock_guard<std::mutex> lock(t.mutex);
    t.taken = false;
    if (t.urgentWaiting > 0)
        t.urgentWake.notify_one();
    else if (t.otherWaiting > 0)
        t.otherWake.notify_one();
}

bool holdsGlDriverLock()
{
    return heldHere > 0;
}

int glDriverHolds()
{
    return heldHere;
}

int glDriverWaiters()
{
    Turn& t = turn();
    std::lock_guard<std::mutex> lock(t.mutex);
    return t.urgentWaiting + t.otherWaiting;
}

void setGlDriverUrgent(bool urgent)
{
    urgentHere = urgent;
}

bool isGlDriverUrgent()
{
    return urgentHere;
}

UrgentGlDriverTurns::UrgentGlDriverTurns() : wasUrgent(urgentHere)
{
    setGlDriverUrgent(true);
}

UrgentGlDriverTurns::~UrgentGlDriverTurns()
{
    urgentHere = wasUrgent;
}

int setGlDriverAside()
{
    const int holds = heldHere;
    if (holds > 0) {
        heldHere = 1;
        releaseGlDriver();
    }
    return holds;
}

void takeGlDriverBack(int holds)
{
    if (holds <= 0)
        return;
    takeGlDriver();
    heldHere = holds;
}

GlDriverTurn::GlDriverTurn()
{
    takeGlDriver();
}

GlDriverTurn::~GlDriverTurn()
{
    releaseGlDriver();
}
