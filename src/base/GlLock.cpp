#include "base/GlLock.h"

QReadWriteLock& sharedTextureLock()
{
    // Never destroyed: threads that stop while the process exits still take it.
    static QReadWriteLock* lock = new QReadWriteLock(QReadWriteLock::NonRecursive);
    return *lock;
}
