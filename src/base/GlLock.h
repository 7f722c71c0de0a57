#pragma once
// The process-wide lock of the GL objects that contexts share. Held for
// writing by whoever creates or destroys surfaces, contexts or shared
// textures, for reading by whoever reads shared textures. Not recursive.
//
// Taken inside the turn at the driver (base/DriverLock.h), but never waited
// for with the turn held: a thread that would have to wait gives the turn
// back until it has the lock. So a holder of this lock may give back the
// turn while the rasterizer draws and take it again, and the thread that
// has the turn then is never one that waits for this lock.

#include <QReadWriteLock>

QReadWriteLock& sharedTextureLock();

// The lock for a scope, taken as told above.
class SharedTexturesLocked
{
public:
    enum Mode { Reading, Writing };
    explicit SharedTexturesLocked(Mode mode);
    ~SharedTexturesLocked();
    void unlock();
    void relock();
    SharedTexturesLocked(const SharedTexturesLocked&) = delete;
    SharedTexturesLocked& operator=(const SharedTexturesLocked&) = delete;

private:
    Mode mode;
    bool locked = false;
};
