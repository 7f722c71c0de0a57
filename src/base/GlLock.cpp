#include "base/GlLock.h"

#include "base/DriverLock.h"

QReadWriteLock& sharedTextureLock()
{
    // Never destroyed: threads that stop while the process exits still take it.
    static QReadWriteLock* lock = new QReadWriteLock(QReadWriteLock::NonRecursive);
    return *lock;
}

SharedTexturesLocked::SharedTexturesLocked(Mode mode) : mode(mode)
{
    relock();
}

SharedTexturesLocked::~SharedTexturesLocked()
{
    unlock();
}

void SharedTexturesLocked::unlock()
{
    if (!locked)
        return;
    sharedTextureLock().unlock();
    locked = false;
}

void SharedTexturesLocked::relock()
{
    if (locked)
        return;
    QReadWriteLock& lock = sharedTextureLock();
    const bool writing = mode == Writing;
    if (!(writing ? lock.tryLockForWrite() : lock.tryLockForRead())) {
        const int holds = setGlDriverAside();
        if (writing)
            lock.lockForWrite();
        else
            lock.lockForRead();
        // Every thread that waits for the lock now waits for this one: all
        // the scenes' merges, while it writes. It goes first at the driver.
        UrgentGlDriverTurns urgent;
        takeGlDriverBack(holds);
    }
    locked = true;
}
