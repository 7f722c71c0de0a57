#include "base/ExitHooks.h"

#include <atomic>
#include <cstdlib>

namespace {

std::atomic<void (*)()> exitHandler{nullptr};

void runHandler()
{
    if (void (*handler)() = exitHandler.load())
        handler();
}

}  // namespace

namespace engineexit {

void setHandler(void (*handler)())
{
    exitHandler = handler;
}

void arm()
{
    std::atexit(&runHandler);
}

}  // namespace engineexit
