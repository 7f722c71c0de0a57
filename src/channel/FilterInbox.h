#pragma once
// The calls that the host's thread queued to the channel's thread and that
// haven't run yet. The host may call far faster than the channel's thread
// takes its events, or while that thread waits for its scene and takes none.
// So a call for a type whose earlier call still waits doesn't queue another:
// it leaves its values for the waiting one to deliver, as a newer frame
// replaces an older one. The slots pick the newest values up when they run.

#include <map>
#include <set>

#include <QMutex>

#include "channel/FilterKinds.h"

class FilterInbox {
public:
    // Host thread: true when no call of the kind waits for the type, so the
    // caller queues one; false when the waiting one takes the values.
    bool offerAdd(int type);
    bool offerParameters(int type, const FilterParaMap& parameters);
    bool offerPicture(int type, const RecordPicture& picture);

    // Channel thread, as the queued call runs: it is no longer waiting, and
    // the newest values left for it, if any, replace what it carries.
    void takeAdd(int type);
    void takeParameters(int type, FilterParaMap& parameters);
    void takePicture(int type, std::string& path);

private:
    QMutex mutex_;
    std::set<int> adds_;
    std::map<int, FilterParaMap> parameters_;
    std::map<int, RecordPicture> pictures_;
};
