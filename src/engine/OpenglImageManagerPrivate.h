#pragma once
// The registry behind OpenglImageManager: scenes and channels by id. The maps
// hold plain pointers and delete nothing; scenes and channels live to the end
// of the process.

#include <map>
#include <utility>

#include <QMutex>

class ImageFilters;
class OpenglImageManager;
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

    // Looks a channel up by its (scene, channel) pair under channelMutex.
    ImageFilters* findChannel(int sceneId, int channelId);
    // Looks a scene up under sceneMutex.
    SceneManager* findScene(int sceneId);
};

OpenglImageManagerPrivate* imageManagerPrivate(const OpenglImageManager* manager);
