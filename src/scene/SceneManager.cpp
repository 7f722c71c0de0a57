#include "scene/SceneManager.h"

#include <chrono>

#include <QCoreApplication>
#include <QDebug>
#include <QThread>

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/mem.h>
}

#include "base/DriverLock.h"
#include "base/Logging.h"
#include "merge/OpenglFileMerger.h"
#include "scene/TextureBuffer.h"

namespace {

const QColor kEmptyGrey(53, 53, 53, 255);

// Replaces `image` with a picture of the size, filled with the empty-picture grey.
void remakeGrey(QImage*& image, uchar*& bits, int width, int height)
{
    delete image;
    image = new QImage(width, height, QImage::Format_BGR888);
    image->fill(kEmptyGrey);
    bits = image->bits();
}

}  // namespace

SceneManager::SceneManager(int sceneId_, QObject* parent) : QObject(parent)
{
    init(sceneId_);
    thread->start(QThread::InheritPriority);
}

SceneManager::SceneManager(int sceneId_, NoThreadStart) : QObject(nullptr)
{
    init(sceneId_);
}

void SceneManager::init(int sceneId_)
{
    sceneId = sceneId_;
    thread = new QThread();
    // The name the thread carries in the system, for hosts' tools.
    thread->setObjectName(QStringLiteral("lumen-scene%1").arg(sceneId));
    qRegisterMetaType<FilterParaType>("FilterParaType");
    moveToThread(thread);
    connect(thread, &QThread::started, this, &SceneManager::process, Qt::AutoConnection);
    connect(this, &SceneManager::finished, thread, &QThread::quit, Qt::AutoConnection);
    connect(this, &SceneManager::clearFin, this, [this]() { stopSemaphore.release(1); }, Qt::DirectConnection);
    connect(thread, &QThread::finished, this, &QObject::deleteLater, Qt::AutoConnection);
    connect(thread, &QThread::finished, thread, &QObject::deleteLater, Qt::AutoConnection);
    connect(this, &SceneManager::doPauseWork, this, &SceneManager::onDoPauseWork, Qt::QueuedConnection);
    sceneBuffer = new TextureBuffer();
    merger = new OpenglFileMerger(sceneId);
    merger->setMergeTextureBuffer(sceneBuffer);
}

SceneManager::~SceneManager()
{
    qCInfo(lcScene) << "~SceneManager()";
    // The stop path deletes the scene on its own thread: the merger, a
    // surface, is deleted on the application's thread.
    OpenglWorkerBase::dispose(merger);
    merger = nullptr;
    qDeleteAll(requests);
    requests.clear();
    for (QImage*& image : spareImages) {
        delete image;
        image = nullptr;
    }
    delete bgrImage;
    delete finalImage;
    delete mergedImage;
    delete outputImage;
    // The merger is gone, and with it the only user of its buffer.
    delete sceneBuffer;
}

int64_t SceneManager::nowNs()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

void SceneManager::addChannel(int channelId, std::shared_ptr<TextureBuffer> buffer)
{
    channelTextures[channelId] = std::move(buffer);
    merger->setTextureBuffers(OpenglFileMerger::BufferMap(channelTextures.begin(), channelTextures.end()));
}

void SceneManager::requestStop()
{
    qCInfo(lcScene) << "[SceneManager::requestStop] stopping scene" << sceneId;
    stopRequested = true;
}

void SceneManager::mergeImages(const QList<_channel_merge_param>& params, int width, int height,
                               const QColor& background, const QImage& graffiti, const QImage&)
{
    QMutexLocker locker(&requestMutex);
    auto* request = new MergeRequest;
    request->params = params;
    request->width = width;
    request->height = height;
    request->background = background;
    requests.append(request);
    if (requests.size() > 1)
        delete requests.takeFirst();
    QMutexLocker graffitiLocker(&graffitiMutex);
    graffitiSource = graffiti;
}

int SceneManager::pendingRequests()
{
    QMutexLocker locker(&requestMutex);
    return requests.size();
}

bool SceneManager::getMergeImg(QImage& image)
{
    QMutexLocker locker(&outputMutex);
    if (outputImage && !outputImage->isNull()) {
        image = *outputImage;
        return true;
    }
    return false;
}

void SceneManager::startGenBgr(bool first, bool second)
{
    QMutexLocker locker(&bgrMutex);
    qCInfo(lcScene) << "[SceneManager::startGenBgr]start generate bgr!";
    genBgr = first;
    genBgrSecond = second;
    bgrCount = 0;
}

void SceneManager::updateMergeImg(QImage*& dstImage)
{
    QMutexLocker locker(&outputMutex);
    if (dstImage && !dstImage->isNull()) {
        if (!outputImage)
            outputImage = new QImage(dstImage->size(), dstImage->format());
        *outputImage = *dstImage;
    }
}

bool SceneManager::requestFitsLimits(int width, int height) const
{
    if (width > height)
        return width <= 1920 && height <= 1080;
    if (width < height)
        return width <= 1080 && height <= 1920;
    return true;  // squares are not limited
}

void SceneManager::process()
{
    lastTickNs = nowNs();
    while (!stopRequested) {
        tick();
        if (merger)
            merger->endGlTurn();  // no step keeps the driver's turn
    }
    cleanUp(false);
    emit clearFin();
}

void SceneManager::tick()
{
    if (paused) {
        pausedTick();
        return;
    }
    MergeRequest request;
    if (!takeRequest(request)) {
        endTick();
        return;
    }
    const int width = request.width;
    const int height = request.height;
    mergeWidth = width;
    mergeHeight = height;
    // A request that can't be served is dropped without pacing or events.
    if (width == 0 || height == 0)
        return;
    if (width < 0 || height < 0) {
        LUMEN_WARNING(lcScene) << "[SceneManager::process] dropped a merge of negative size" << width << "x" << height;
        return;
    }
    if (!requestFitsLimits(width, height))
        return;

    // Until its first picture shows every channel, the scene goes first at
    // the driver (base/DriverLock.h).
    setGlDriverUrgent(firstPictureUrgent(pictureShown, firstPictureTries));
    mergeAndRead(request);
    // A read-back gives the frame composed before it.
    pictureShown = pictureShown || (composedAll && merger->lastReadWrote());
    composedAll = !request.params.isEmpty() && merger->lastChannelsDrawn() >= request.params.size();
    firstPictureTries += pictureShown ? 0 : 1;
    setGlDriverUrgent(firstPictureUrgent(pictureShown, firstPictureTries));
    publishOutput();
    if (genBgr)
        keepBgr();
    endTick();
}

void SceneManager::pausedTick()
{
    QThread::msleep(50);
    {
        QMutexLocker locker(&requestMutex);
        qDeleteAll(requests);
        requests.clear();
        requests.append(new MergeRequest(idleRequest));
    }
    lastTickNs = nowNs();
    QCoreApplication::processEvents();
}

bool SceneManager::takeRequest(MergeRequest& request)
{
    QMutexLocker locker(&requestMutex);
    if (requests.isEmpty())
        return false;
    MergeRequest* first = requests.takeFirst();
    request = *first;
    delete first;
    return true;
}

void SceneManager::mergeAndRead(const MergeRequest& request)
{
    const int width = request.width;
    const int height = request.height;
    QImage graffiti;
    {
        QMutexLocker locker(&graffitiMutex);
        graffiti = graffitiSource;
        hasGraffiti = !graffiti.isNull();
    }
    // The picture published last: it stays the merged one should this merge
    // not be read back into the buffer taken for it.
    QImage published;
    if (!mergedImage || mergedImage->width() != width || mergedImage->height() != height) {
        remakeGrey(mergedImage, mergedBits, width, height);
    } else {
        published = *mergedImage;
        takeUnsharedBuffer();
    }
    if (!finalImage || finalImage->width() != width || finalImage->height() != height)
        remakeGrey(finalImage, finalBits, width, height);

    if (hasGraffiti || !request.params.isEmpty())
        merger->mergeImages(request.params, width, height, request.background, graffiti);
    // Read-backs under the read lock, outside the merger's draw, which takes it too.
    if (hasGraffiti) {
        GlDriverTurn turn;
        SharedTexturesLocked locker(SharedTexturesLocked::Reading);
        merger->readFinalImage(finalBits, finalImage->width(), finalImage->height(), false, false);
    }
    if (!request.params.isEmpty()) {
        GlDriverTurn turn;
        SharedTexturesLocked locker(SharedTexturesLocked::Reading);
        merger->readLastFboByAlpha(mergedBits, width, height, false, false);
        if (!merger->lastReadWrote() && !published.isNull() && published.constBits() != mergedImage->constBits()) {
            mergedImage->swap(published);
            mergedBits = nullptr;  // taken again before the next read-back
        }
        hadChannels = true;
    } else if (hadChannels) {
        // The last channel has left: draw once more and go back to grey.
        merger->mergeImages(request.params, width, height, request.background, graffiti);
        remakeGrey(mergedImage, mergedBits, width, height);
        hadChannels = false;
    }
}

void SceneManager::publishOutput()
{
    QMutexLocker locker(&outputMutex);
    if (!mergedImage || mergedImage->isNull())
        return;
    if (!outputImage)
        outputImage = new QImage(mergedImage->size(), mergedImage->format());
    // Shared: the next merge reads into a buffer that no one else holds.
    *outputImage = *mergedImage;
}

void SceneManager::takeUnsharedBuffer()
{
    // The picture published last may still be in a host's hands, and the
    // read-back writes straight into the buffer's bytes: it goes into a
    // buffer that only this scene holds. Buffers come round again once the
    // host lets them go; a few wait for that, the rest are let go.
    if (!mergedImage)
        return;
    if (mergedImage->isDetached()) {
        mergedBits = mergedImage->bits();
        return;
    }
    for (QImage& spare : unsharedBuffers) {
        if (spare.size() == mergedImage->size() && spare.format() == mergedImage->format() && spare.isDetached()) {
            mergedImage->swap(spare);
            mergedBits = mergedImage->bits();
            return;
        }
    }
    const int kWaiting = 3;
    unsharedBuffers.insert(unsharedBuffers.begin(), *mergedImage);
    if (unsharedBuffers.size() > kWaiting)
        unsharedBuffers.pop_back();
    *mergedImage = QImage(mergedImage->size(), mergedImage->format());
    mergedBits = mergedImage->bits();
}

void SceneManager::keepBgr()
{
    if (hasGraffiti) {
        GlDriverTurn turn;
        SharedTexturesLocked locker(SharedTexturesLocked::Reading);
        merger->readFinalImage(finalBits, finalImage->width(), finalImage->height(), false, false);
        storeBgr(*finalImage);
    } else {
        storeBgr(*mergedImage);
    }
    QMutexLocker locker(&bgrMutex);
    if (bgrCount < 3)
        ++bgrCount;
}

void SceneManager::endTick()
{
    // Queued slots run here; then the rest of the tick is slept, or 5 ms after
    // an overrun. A clock that ran backwards doesn't sleep.
    QCoreApplication::processEvents();
    const int64_t elapsed = (nowNs() - lastTickNs) / 1000000;
    if (elapsed >= 0)
        QThread::msleep(static_cast<unsigned long>(elapsed < frameIntervalMs ? frameIntervalMs - elapsed : 5));
    lastTickNs = nowNs();
}

void SceneManager::storeBgr(const QImage& image)
{
    QMutexLocker locker(&bgrMutex);
    if (bgrImage && bgrImage->width() == image.width() && bgrImage->height() == image.height()) {
        *bgrImage = image;
        return;
    }
    delete bgrImage;
    bgrImage = new QImage(image.size(), image.format());
    *bgrImage = image;
}

void SceneManager::cleanUp(bool keepOutput)
{
    if (merger) {
        merger->releaseTextures();
        merger->releaseGlObjects();
        // At the stop the context goes too, on the thread that made it.
        if (!keepOutput)
            merger->releaseContext();
    }
    for (QImage*& image : spareImages) {
        delete image;
        image = nullptr;
    }
    delete bgrImage;
    bgrImage = nullptr;
    delete finalImage;
    finalImage = nullptr;
    finalBits = nullptr;
    delete mergedImage;
    mergedImage = nullptr;
    mergedBits = nullptr;
    unsharedBuffers.clear();
    if (!keepOutput) {
        QMutexLocker locker(&outputMutex);
        delete outputImage;
        outputImage = nullptr;
    }
    if (!keepOutput) {
        QMutexLocker locker(&frameMutex);
        if (frame) {
            av_freep(&frame->data[0]);
            av_frame_free(&frame);
            frame = nullptr;
        }
    }
    {
        QMutexLocker locker(&requestMutex);
        qDeleteAll(requests);
        requests.clear();
    }
    QReadLocker locker(&recordLock);
    frameRecords.clear();
}

void SceneManager::stop()
{
    qCDebug(lcScene) << "[SceneManager] Stopping scene:" << sceneId;
    if (QThread::currentThread() == thread) {
        stopRequested = true;
        emit finished();
        return;
    }
    QMetaObject::invokeMethod(this, "stop", Qt::QueuedConnection);
}

void SceneManager::onDoPauseWork(bool isPaused)
{
    if (!isPaused) {
        paused = false;
        return;
    }
    paused = true;
    if (pauseMode == kPauseKeepingGpuState)
        return;
    cleanUp(true);
}

void SceneManager::waitThreadStop()
{
    stopSemaphore.tryAcquire(1, 1000);
}
