#pragma once
// The engine's end at process exit. Scenes and channels run until the process
// ends; at that end they must stop, each on its own thread, before the GL
// driver, Qt's platform plugin or the library's statics are torn down.

namespace engineexit {

// Sets what runs at exit: the facade's shutdown. It must be idempotent.
void setHandler(void (*handler)());

// Registers the handler with atexit once more. Exit handlers and static
// destructors run in the reverse order of their registration, so a
// registration made after a worker's first GL frame runs before whatever the
// driver, Qt and OpenCV set up for that frame is destroyed. Any thread.
void arm();

}  // namespace engineexit
