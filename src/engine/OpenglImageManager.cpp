#include "lumen_fx/OpenglImageManager.h"

#include <atomic>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QElapsedTimer>
#include <QDebug>
#include <QGuiApplication>
#include <QThread>
#include <QWaitCondition>

#if defined(__GLIBC__)
#include <malloc.h>
#endif

#include "base/Logging.h"
#include "channel/ImageFilters.h"
#include "engine/EngineExit.h"
#include "engine/OpenglImageManagerPrivate.h"
#include "gpu/OpenglWorkerBase.h"
#include "scene/SceneManager.h"

namespace {

// How long the shutdown waits for all threads together. A stop takes one tick
// of each loop, well under a second; only a thread stuck in the driver or in
// its first face detection (loading the model) takes longer, and going on
// without it would pull Qt and the driver away under it.
constexpr int kStopWaitMs = 10000;

// The record is never freed: host threads that still call while the process
// exits find empty maps, not freed memory.
std::atomic<OpenglImageManagerPrivate*> liveRecord{nullptr};

void shutdownAtExit()
{
    if (OpenglImageManagerPrivate* d = liveRecord.load())
        d->shutdown(true);
}

void shutdownWithApplication()
{
    if (OpenglImageManagerPrivate* d = liveRecord.load())
        d->shutdown(false);
}

// Pictures, and the GL driver's storage for them, are blocks of megabytes,
// made and freed on many threads, at every change of a picture's size. glibc
// serves such blocks from their own mappings at first, but after the first
// one is freed it raises its threshold and serves them from per-thread arenas,
// whose freed space stays with the process: under a storm of size changes the
// resident memory settled at twice the working set and kept creeping. A fixed
// threshold of 256 KiB keeps every such block in a mapping of its own, given
// back when freed. A host that sets MALLOC_MMAP_THRESHOLD_ keeps its choice.
void keepLargeBlocksMapped()
{
#if defined(__GLIBC__)
    static const bool done = [] {
        if (!qEnvironmentVariableIsSet("MALLOC_MMAP_THRESHOLD_"))
            mallopt(M_MMAP_THRESHOLD, 256 * 1024);
        return true;
    }();
    Q_UNUSED(done);
#endif
}

// A creation handed to the application's thread.
struct CreationCall {
    enum State { Waiting, Running, Done, Abandoned };
    QMutex mutex;
    QWaitCondition changed;
    State state = Waiting;
    int result = -1;
};

// Qt makes offscreen surfaces on the application's thread only. A call from
// another thread hands the creation to that thread and waits, holding no lock
// of the engine, so the application's thread is never stuck behind it. If that
// thread doesn't take the call in time (no event loop, or busy), the call is
// abandoned and the caller gets -1.
int onApplicationThread(const char* function, int waitMs, const std::function<int()>& make)
{
    QCoreApplication* app = QCoreApplication::instance();
    if (!qobject_cast<QGuiApplication*>(app)) {
        LUMEN_WARNING(lcEngine).nospace() << "[OpenglImageManager::" << function
                                          << "] no QGuiApplication: create it before the first scene or channel";
        return -1;
    }
    if (QThread::currentThread() == app->thread())
        return make();

    auto call = std::make_shared<CreationCall>();
    QMetaObject::invokeMethod(
        app,
        [call, make] {
            {
                QMutexLocker locker(&call->mutex);
                if (call->state == CreationCall::Abandoned)
                    return;
                call->state = CreationCall::Running;
            }
            const int result = make();
            QMutexLocker locker(&call->mutex);
            call->result = result;
            call->state = CreationCall::Done;
            call->changed.wakeAll();
        },
        Qt::QueuedConnection);

    const QDeadlineTimer deadline(waitMs);
    QMutexLocker locker(&call->mutex);
    while (call->state != CreationCall::Done) {
        if (call->state == CreationCall::Running) {
            call->changed.wait(&call->mutex);
            continue;
        }
        if (!call->changed.wait(&call->mutex, deadline) && call->state == CreationCall::Waiting) {
            call->state = CreationCall::Abandoned;
            LUMEN_WARNING(lcEngine).nospace() << "[OpenglImageManager::" << function
                                              << "] the application's thread took no events for " << waitMs
                                              << " ms; nothing made";
            return -1;
        }
    }
    return call->result;
}

// Ends the threads of objects whose loops were told to stop. Each object
// deletes itself on its own thread when its thread finishes; the thread
// object is deleted here once it has finished.
void joinThreads(const std::vector<std::pair<int, QThread*>>& threads, const QDeadlineTimer& deadline,
                 const char* kind)
{
    for (const auto& entry : threads) {
        QThread* thread = entry.second;
        QObject::disconnect(thread, &QThread::finished, thread, &QObject::deleteLater);
        // The loop has returned or will: its thread leaves its event loop at once.
        thread->quit();
    }
    for (const auto& entry : threads) {
        QThread* thread = entry.second;
        if (thread->wait(deadline))
            delete thread;
        else
            LUMEN_WARNING(lcEngine) << "[OpenglImageManager::shutdown]" << kind << entry.first
                                    << "did not stop in time";
    }
}

}  // namespace

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

void OpenglImageManagerPrivate::hookApplication()
{
    QCoreApplication* app = QCoreApplication::instance();
    if (hookedApplication == app)
        return;
    // Runs in the application's destructor, while Qt's platform plugin and the
    // GL driver are still there.
    qAddPostRoutine(&shutdownWithApplication);
    hookedApplication = app;
}

int OpenglImageManagerPrivate::makeScene()
{
    QMutexLocker locker(&sceneMutex);
    if (closed) {
        LUMEN_WARNING(lcEngine) << "[OpenglImageManager::genSceneFilters] the process is exiting; no scene made";
        return -1;
    }
    hookApplication();
    keepLargeBlocksMapped();
    engineexit::bringUpAndArm();
    const int id = nextSceneId++;
    auto* scene = new SceneManager(id, nullptr);
    if (genBgrFirst || genBgrSecond != genBgrFirst)
        scene->startGenBgr(genBgrFirst, genBgrSecond);
    scenes.emplace(id, scene);
    return id;
}

int OpenglImageManagerPrivate::makeChannel(int sceneId, bool isSceneChannel)
{
    QMutexLocker sceneLocker(&sceneMutex);
    QMutexLocker channelLocker(&channelMutex);
    if (closed) {
        LUMEN_WARNING(lcEngine) << "[OpenglImageManager::genChannelFilters] the process is exiting; no channel made";
        return -1;
    }
    auto scene = scenes.find(sceneId);
    if (scene == scenes.end())
        return -1;
    const int id = nextChannelId++;
    auto* channel = new ImageFilters(sceneId, id, isSceneChannel, nullptr);
    channel->setSceneShareEnabled(sceneShareEnabled);
    channel->setManagerValue(channelValue);
    channel->setFrameRate(defaultFps);
    channel->setManagerFlag(channelFlag);
    scene->second->addChannel(id, channel->sharedTextureBuffer());
    channels.emplace(std::make_pair(sceneId, id), channel);
    return id;
}

void OpenglImageManagerPrivate::shutdown(bool forGood)
{
    std::map<int, SceneManager*> stoppingScenes;
    std::map<std::pair<int, int>, ImageFilters*> stoppingChannels;
    {
        QWriteLocker forwardLocker(&forwardLock);
        QMutexLocker sceneLocker(&sceneMutex);
        QMutexLocker channelLocker(&channelMutex);
        closed = closed || forGood;
        hookedApplication = nullptr;
        stoppingScenes.swap(scenes);
        stoppingChannels.swap(channels);
    }
    if (stoppingScenes.empty() && stoppingChannels.empty())
        return;
    qCInfo(lcEngine) << "[OpenglImageManager::shutdown] stopping" << stoppingChannels.size() << "channel(s) and"
            << stoppingScenes.size() << "scene(s)";

    QElapsedTimer elapsed;
    elapsed.start();
    const QDeadlineTimer deadline(kStopWaitMs);
    // Channels first: a channel still waiting for its scene's context must not
    // find that context deleted under it.
    std::vector<std::pair<int, QThread*>> threads;
    for (auto& entry : stoppingChannels) {
        threads.emplace_back(entry.first.second, entry.second->workerThread());
        entry.second->requestStop();
    }
    joinThreads(threads, deadline, "channel");
    threads.clear();
    for (auto& entry : stoppingScenes) {
        threads.emplace_back(entry.first, entry.second->workerThread());
        entry.second->requestStop();
    }
    joinThreads(threads, deadline, "scene");
    // The workers, surfaces, are deleted here while Qt's platform plugin is
    // still there; from another thread they stay queued for the application.
    QCoreApplication* app = QCoreApplication::instance();
    if (app && QThread::currentThread() == app->thread())
        OpenglWorkerBase::deleteDisposed();
    qCInfo(lcEngine) << "[OpenglImageManager::shutdown] stopped in" << elapsed.elapsed() << "ms";
}

OpenglImageManager* OpenglImageManager::instance()
{
    static OpenglImageManager manager;
    return &manager;
}

OpenglImageManager::OpenglImageManager() : d(new OpenglImageManagerPrivate)
{
    liveRecord = d;
    engineexit::setHandler(&shutdownAtExit);
}

OpenglImageManager::~OpenglImageManager()
{
    qCInfo(lcEngine) << "~OpenglImageManager()";
    // The process exits: whatever still runs stops now, in order. The record
    // stays for host threads that still call.
    d->shutdown(true);
}

int OpenglImageManager::genSceneFilters() const
{
    return onApplicationThread("genSceneFilters", d->creationWaitMs, [this] { return d->makeScene(); });
}

int OpenglImageManager::genChannelFilters(int sceneId, bool isSceneChannel) const
{
    return onApplicationThread("genChannelFilters", d->creationWaitMs,
                               [this, sceneId, isSceneChannel] { return d->makeChannel(sceneId, isSceneChannel); });
}

void OpenglImageManager::addChannelImageFilter(int sceneId, int channelId, ImageFilterType type, void* para) const
{
    QReadLocker forward(&d->forwardLock);
    if (ImageFilters* channel = d->findChannel(sceneId, channelId))
        channel->addImageFilter(type, para);
}

void OpenglImageManager::setChannelFilterParas(int sceneId, int channelId, ImageFilterType type,
                                               FilterParaType paraType, void* para) const
{
    QReadLocker forward(&d->forwardLock);
    if (ImageFilters* channel = d->findChannel(sceneId, channelId))
        channel->setFilterPara(type, paraType, para);
}

void OpenglImageManager::sendChannelFrame(int sceneId, int channelId, const QImage& image, bool skipFaceFilters,
                                          bool isChanged, bool isDirect) const
{
    QReadLocker forward(&d->forwardLock);
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
