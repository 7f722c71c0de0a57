#pragma once
// The process-wide turn at the GL driver. Every thread holds it while it
// calls GL on any context: from before it makes a context current until after
// it lets it go, except while it waits for the rasterizer to finish what it
// has queued (a wait on a fence, which touches none of the lists below).
// Recursive. A thread takes it before any GL object's mutex; it may wait for
// it while holding the shared texture lock, which is why a holder of the turn
// never waits for that lock (base/GlLock.h).
//
// Why: the Mesa of Debian 12 (22.3) keeps, per context, a list of the
// textures that each of the context's queued scenes reads or writes. Whenever
// a context binds a texture for drawing, uploads to it, copies or maps it,
// llvmpipe walks those lists of EVERY context of the process to find out
// whether it must wait for a scene first (llvmpipe_flush_resource ->
// lp_setup_is_resource_referenced -> lp_scene_is_resource_referenced). The
// walk holds only the screen's list-of-contexts mutex; the owners of the lists
// change them without it: a draw appends to its scene's list, a flush or a new
// framebuffer starts another scene, and the start of the next scene frees the
// blocks of a finished one (lp_scene_end_rasterization). Two threads drawing
// at once in two contexts can so read freed blocks in the walk. With one
// rasterizing thread per scene this stayed rare, because all rasterizing
// queued behind one process-wide mutex of the driver; with rasterizer threads
// the contexts bin concurrently all the time and the walk crashed. Holding
// this turn, only one thread at a time changes or walks those lists, while the
// rasterizer threads draw the queued scenes in parallel.

// Take and give back the turn; each take needs its give-back on the same
// thread.
void takeGlDriver();
void releaseGlDriver();

// Whether the calling thread holds the turn (for checks and tests).
bool holdsGlDriverLock();

// How many takes of the turn the calling thread has not given back.
int glDriverHolds();

// How many threads wait for the turn now (for checks and tests).
int glDriverWaiters();

// Urgent threads go first: when the turn is given back, a waiting urgent
// thread gets it before any other. A thread is urgent while it makes its
// context, and a scene's or a channel's thread until it has shown its first
// picture: a scene or a channel that joins a busy process would otherwise
// wait behind every busy channel at each of the steps of its first picture.
// The flag is the calling thread's own and applies to its next takes.
void setGlDriverUrgent(bool urgent);
bool isGlDriverUrgent();

// Whether a scene or a channel that has tried `tries` times to show its first
// picture still goes first: until it shows one, and for at most this many
// tries, so that a scene listing a channel that never comes (or a channel
// whose scene never merges it) doesn't keep going first for ever.
constexpr int kFirstPictureUrgentTries = 450;
inline bool firstPictureUrgent(bool shown, int tries)
{
    return !shown && tries < kFirstPictureUrgentTries;
}

// Urgency for a scope, the thread's own flag given back at its end.
class UrgentGlDriverTurns
{
public:
    UrgentGlDriverTurns();
    ~UrgentGlDriverTurns();
    UrgentGlDriverTurns(const UrgentGlDriverTurns&) = delete;
    UrgentGlDriverTurns& operator=(const UrgentGlDriverTurns&) = delete;

private:
    bool wasUrgent;
};

// Gives back every take of the turn the calling thread holds and returns
// their number; takeGlDriverBack takes them again. For a wait on the
// rasterizer that calls no GL that bins, flushes or binds, by a thread that
// holds no other engine lock meanwhile.
int setGlDriverAside();
void takeGlDriverBack(int holds);

// The turn for a scope.
class GlDriverTurn
{
public:
    GlDriverTurn();
    ~GlDriverTurn();
    GlDriverTurn(const GlDriverTurn&) = delete;
    GlDriverTurn& operator=(const GlDriverTurn&) = delete;
};
