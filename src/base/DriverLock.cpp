#include "base/DriverLock.h"

#include <QRecursiveMutex>

namespace {

thread_local int heldHere = 0;

QRecursiveMutex& driverLock()
{
    // Never destroyed: threads that stop while the process exits still take it.
    static QRecursiveMutex* lock = new QRecursiveMutex;
    return *lock;
}

}  // namespace

void takeGlDriver()
{
    driverLock().lock();
    ++heldHere;
}

void releaseGlDriver()
{
    --heldHere;
    driverLock().unlock();
}

bool holdsGlDriverLock()
{
    return heldHere > 0;
}

int glDriverHolds()
{
    return heldHere;
}

int setGlDriverAside()
{
    const int holds = heldHere;
    for (int i = 0; i < holds; ++i)
        releaseGlDriver();
    return holds;
}

void takeGlDriverBack(int holds)
{
    for (int i = 0; i < holds; ++i)
        takeGlDriver();
}

GlDriverTurn::GlDriverTurn()
{
    takeGlDriver();
}

GlDriverTurn::~GlDriverTurn()
{
    releaseGlDriver();
}
