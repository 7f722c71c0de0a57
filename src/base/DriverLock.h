#pragma once
// The process-wide turn at the GL driver. Every thread holds it while it
// calls GL on any context: from before it makes a context current until after
// it lets it go. Recursive, and the outermost of the engine's locks: a thread
// takes it before the shared texture lock or any GL object's mutex, never
// while it holds one of them.
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

// The turn for a scope.
class GlDriverTurn
{
public:
    GlDriverTurn();
    ~GlDriverTurn();
    GlDriverTurn(const GlDriverTurn&) = delete;
    GlDriverTurn& operator=(const GlDriverTurn&) = delete;
};
