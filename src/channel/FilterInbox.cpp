#include "channel/FilterInbox.h"

namespace {

// Leaves `value` under `type`: true when nothing waited there before.
template <typename Value>
bool leave(std::map<int, Value>& waiting, int type, const Value& value)
{
    auto queued = waiting.find(type);
    if (queued != waiting.end()) {
        queued->second = value;
        return false;
    }
    waiting.emplace(type, value);
    return true;
}

}  // namespace

bool FilterInbox::offerAdd(int type)
{
    QMutexLocker locker(&mutex_);
    return adds_.insert(type).second;
}

bool FilterInbox::offerParameters(int type, const FilterParaMap& parameters)
{
    QMutexLocker locker(&mutex_);
    return leave(parameters_, type, parameters);
}

bool FilterInbox::offerPicture(int type, const RecordPicture& picture)
{
    QMutexLocker locker(&mutex_);
    return leave(pictures_, type, picture);
}

void FilterInbox::takeAdd(int type)
{
    QMutexLocker locker(&mutex_);
    adds_.erase(type);
}

void FilterInbox::takeParameters(int type, FilterParaMap& parameters)
{
    QMutexLocker locker(&mutex_);
    auto newest = parameters_.find(type);
    if (newest == parameters_.end())
        return;
    parameters = std::move(newest->second);
    parameters_.erase(newest);
}

void FilterInbox::takePicture(int type, std::string& path)
{
    QMutexLocker locker(&mutex_);
    auto newest = pictures_.find(type);
    if (newest == pictures_.end())
        return;
    path = newest->second.path;
    pictures_.erase(newest);
}
