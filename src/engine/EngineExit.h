#pragma once
// The engine's end at process exit. Scenes and channels run until the process
// ends; at that end they must stop, each on its own thread, before the GL
// driver, Qt's platform plugin or the library's statics are torn down.

#include "base/ExitHooks.h"

namespace engineexit {

// Once per process, on the application's thread before the first scene:
// brings up what the channels' first frames would otherwise set up lazily on
// their threads (the GL driver and its compiler, Qt's GL and image helpers,
// OpenCV), then arms. An exit during those first frames would otherwise
// destroy them under the channels before the handler could stop them.
void bringUpAndArm();

}  // namespace engineexit
