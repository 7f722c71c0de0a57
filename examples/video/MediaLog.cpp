#include "MediaLog.h"

#include <cstdarg>
#include <map>
#include <mutex>

extern "C" {
#include <libavutil/log.h>
}

namespace {

std::mutex watchedMutex;
std::map<const void*, std::atomic<int>*> watched;

void logged(void* context, int level, const char* format, va_list arguments)
{
    if (level <= AV_LOG_ERROR && context) {
        std::lock_guard<std::mutex> lock(watchedMutex);
        const auto it = watched.find(context);
        if (it != watched.end())
            ++*it->second;
    }
    av_log_default_callback(context, level, format, arguments);
}

}  // namespace

void countMediaErrors(const void* context, std::atomic<int>* count)
{
    static std::once_flag installed;
    std::call_once(installed, [] { av_log_set_callback(logged); });
    std::lock_guard<std::mutex> lock(watchedMutex);
    watched[context] = count;
}

void forgetMediaErrors(const void* context)
{
    std::lock_guard<std::mutex> lock(watchedMutex);
    watched.erase(context);
}
