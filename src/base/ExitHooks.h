#pragma once
// The hooks by which the engine stops its scenes and channels at process
// exit, before the GL driver, Qt's platform plugin or the library's statics
// are torn down. Every layer arms them when it first sets up process-wide
// state; the engine sets what they run.

namespace engineexit {

// Sets what runs at exit: the facade's shutdown. It must be idempotent.
void setHandler(void (*handler)());

// Registers the handler with atexit once more. Exit handlers and static
// destructors run in the reverse order of their registration, so a
// registration made right after something first set up the driver's, Qt's or
// OpenCV's process-wide state (a worker's context, its shaders, a channel's
// first detection) runs before that state is destroyed. Any thread; a few
// registrations per worker.
void arm();

}  // namespace engineexit
