#pragma once
// The registry behind OpenglImageManager: scenes and channels by id. The maps
// hold plain pointers; scenes and channels live to the end of the process (or
// of the host's application), where shutdown() stops them in order.

#include <map>
#include <utility>

#include <QMutex>
#include <QReadWriteLock>

class ImageFilters;
class OpenglImageManager;
class QCoreApplication;
class SceneManager;

class OpenglImageManagerPrivate {
public:
    std::map<int, SceneManager*> scenes;
    bool sceneShareEnabled = true;
    bool channelFlag = false;
    int channelValue = 0;
    std::map<std::pair<int, int>, ImageFilters*> channels;
    int nextChannelId = 0;
    int nextSceneId = 0;
    int defaultFps = 15;
    bool reservedFlag = true;
    QMutex channelMutex;
    QMutex sceneMutex;
    bool genBgrFirst = false;
    bool genBgrSecond = false;

    // Held for reading by the calls that reach a channel outside the maps'
    // locks, and for writing while shutdown() takes the maps: no channel is
    // stopped under a call that is still using it. Taken before sceneMutex.
    QReadWriteLock forwardLock;
    // Set when the process exits: nothing is made after that.
    bool closed = false;
    // The application whose destruction stops the engine.
    QCoreApplication* hookedApplication = nullptr;
    // How long a creation from another thread waits for the application's thread.
    int creationWaitMs = 5000;

    // Looks a channel up by its (scene, channel) pair under channelMutex. The
    // caller holds forwardLock for reading while it uses the result.
    ImageFilters* findChannel(int sceneId, int channelId);

    // The creations, on the application's thread.
    int makeScene();
    int makeChannel(int sceneId, bool isSceneChannel);

    // Stops every channel, then every scene, each through its loop on its own
    // thread, waits for their threads (10 s at most) and forgets them. With
    // `forGood` (the process exits) nothing is made afterwards.
    void shutdown(bool forGood);

private:
    // Registers the shutdown with the current application, once per application.
    void hookApplication();
};

OpenglImageManagerPrivate* imageManagerPrivate(const OpenglImageManager* manager);
