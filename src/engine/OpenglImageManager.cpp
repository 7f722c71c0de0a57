#include "lumen_fx/OpenglImageManager.h"

#include <utility>

#include <QDebug>

#include "channel/ImageFilters.h"
#include "engine/OpenglImageManagerPrivate.h"
#include "scene/SceneManager.h"

OpenglImageManagerPrivate* imageManagerPrivate(const OpenglImageManager* manager)
{
    return manager->d;
}

ImageFilters* OpenglImageManagerPrivate::findChannel(int sceneId, int channelId)
{
    QMutexLocker locker(&channelMutex);
    auto it = channels.find(std::make_pair(sceneId, channelId));
    return it == channels.end() ? nullptr : it->second;
}

SceneManager* OpenglImageManagerPrivate::findScene(int sceneId)
{
    QMutexLocker locker(&sceneMutex);
    auto it = scenes.find(sceneId);
    return it == scenes.end() ? nullptr : it->second;
}

OpenglImageManager* OpenglImageManager::instance()
{
    static OpenglImageManager manager;
    return &manager;
}

OpenglImageManager::OpenglImageManager() : d(new OpenglImageManagerPrivate) {}

OpenglImageManager::~OpenglImageManager()
{
    qInfo() << "~OpenglImageManager()";
    // Scenes and channels live to the end of the process: nothing is stopped here.
    delete d;
}

int OpenglImageManager::genSceneFilters() const
{
    QMutexLocker locker(&d->sceneMutex);
    const int id = d->nextSceneId++;
    auto* scene = new SceneManager(id, nullptr);
    if (d->genBgrFirst || d->genBgrSecond != d->genBgrFirst)
        scene->startGenBgr(d->genBgrFirst, d->genBgrSecond);
    d->scenes.emplace(id, scene);
    return id;
}

int OpenglImageManager::genChannelFilters(int sceneId, bool isSceneChannel) const
{
    QMutexLocker sceneLocker(&d->sceneMutex);
    QMutexLocker channelLocker(&d->channelMutex);
    auto scene = d->scenes.find(sceneId);
    if (scene == d->scenes.end())
        return -1;
    const int id = d->nextChannelId++;
    auto* channel = new ImageFilters(sceneId, id, isSceneChannel, nullptr);
    channel->setSceneShareEnabled(d->sceneShareEnabled);
    channel->setManagerValue(d->channelValue);
    channel->setFrameRate(d->defaultFps);
    channel->setManagerFlag(d->channelFlag);
    scene->second->addChannel(id, channel->textureBuffer());
    d->channels.emplace(std::make_pair(sceneId, id), channel);
    return id;
}

void OpenglImageManager::addChannelImageFilter(int sceneId, int channelId, ImageFilterType type, void* para) const
{
    if (ImageFilters* channel = d->findChannel(sceneId, channelId))
        channel->addImageFilter(type, para);
}

void OpenglImageManager::setChannelFilterParas(int sceneId, int channelId, ImageFilterType type,
                                               FilterParaType paraType, void* para) const
{
    if (ImageFilters* channel = d->findChannel(sceneId, channelId))
        channel->setFilterPara(type, paraType, para);
}

void OpenglImageManager::sendChannelFrame(int sceneId, int channelId, const QImage& image, bool skipFaceFilters,
                                          bool isChanged, bool isDirect) const
{
    if (ImageFilters* channel = d->findChannel(sceneId, channelId))
        channel->writeFrame(image, skipFaceFilters, isChanged, isDirect);
}

void OpenglImageManager::mergeImages(int sceneId, const QList<_channel_merge_param>& params, int width, int height,
                                     const QColor& background, const QImage& graffiti,
                                     const QImage& unusedImage) const
{
    QMutexLocker locker(&d->sceneMutex);
    auto scene = d->scenes.find(sceneId);
    if (scene != d->scenes.end())
        scene->second->mergeImages(params, width, height, background, graffiti, unusedImage);
}

bool OpenglImageManager::getMergeImg(int sceneId, QImage& image) const
{
    QMutexLocker locker(&d->sceneMutex);
    auto scene = d->scenes.find(sceneId);
    if (scene == d->scenes.end())
        return false;
    return scene->second->getMergeImg(image);
}
