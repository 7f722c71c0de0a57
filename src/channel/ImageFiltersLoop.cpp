// A channel's loop on its thread: the tick, its pacing and rate, the
// handshake with the scene, and the hand-over of each frame's result.
#include "channel/ImageFilters.h"

#include <chrono>

#include <QCoreApplication>
#include <QThread>

#include "base/DriverLock.h"
#include "base/ExitHooks.h"
#include "base/Logging.h"
#include "channel/FilterKinds.h"
#include "channel/FramePacing.h"
#include "gpu/OpenglChannelWorker.h"
#include "scene/TextureBuffer.h"

namespace {

constexpr int64_t kFpsChangeHoldNs = 30001000000LL;

}  // namespace

int64_t ImageFilters::nowNs()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

void ImageFilters::sleepMs(int ms)
{
    QThread::msleep(static_cast<unsigned long>(ms));
}

void ImageFilters::pace()
{
    const int sleep = tickSleepMs((nowNs() - lastTickNs) / 1000000, frameIntervalMs);
    if (sleep >= 0)
        sleepMs(sleep);
    lastTickNs = nowNs();
}

void ImageFilters::adaptFps(int frameMs)
{
    const FpsStep step = adaptFpsStep(frameMs, frameIntervalMs, currentFps, fpsUpCount, fpsDownCount);
    if (!step.change)
        return;
    lastFpsChangeNs = nowNs();
    qCInfo(lcChannel) << "@@@change to new Fps:" << step.target;
    if (step.signal)
        emit fpsChangedForPerformance(step.target);
    currentFps = step.target;
    frameIntervalMs = 1000 / step.target;
}

void ImageFilters::process()
{
    lastTickNs = nowNs();
    lastFpsChangeNs = lastTickNs;
    while (!stopRequested) {
        tick();
        if (channelWorker)
            channelWorker->endGlTurn();  // no step keeps the driver's turn
    }
    closeAll();
}

void ImageFilters::tick()
{
    // Until its first frame can be seen, the channel goes first at the
    // driver (base/DriverLock.h).
    setGlDriverUrgent(firstPictureUrgent(frameShown, firstFrameTries));
    if (filtersStopped || clearOutput || refreshFrames == 0) {
        idleTick();
        return;
    }
    QImage src;
    quint64 handedIn = 0;
    {
        QMutexLocker locker(&srcMutex);
        src = srcImage;
        handedIn = pictureChanges;
    }
    if (src.isNull()) {
        pace();
        QCoreApplication::processEvents();
        return;
    }
    firstFrameTries += frameShown ? 0 : 1;
    // Waiting for the scene: no pacing and no events on this path.
    if (!shareHandshakeDone(src))
        return;
    if (clipSettleFrames > 0) {
        --clipSettleFrames;
        pace();
        return;
    }
    if (directFrame) {
        handOverDirectFrame();
        pace();
        return;
    }

    if (filters.empty()) {
        filters[NOFILTER] = nullptr;
        channelWorker->setClip(false);
    }
    if (filters.size() == 1 && filters.count(NOFILTER))
        channelWorker->setClip(false);

    // The same picture, settings and faces as the last frame delivered: its
    // output stands.
    const bool repeatable = outputFollowsInputs();
    const FrameInputs inputs = frameInputs(src, handedIn);
    if (repeatable && repeat.unchanged(inputs)) {
        pace();
        QCoreApplication::processEvents();
        return;
    }
    repeat.forget();
    workOnFrame(src, inputs, repeatable);
}

void ImageFilters::workOnFrame(QImage& src, const FrameInputs& inputs, bool repeatable)
{
    facesRepeated = true;
    QImage dst;
    const int64_t started = nowNs();
    const bool readBack = !(sceneShareEnabled && isSceneChannel && pauseMode != kPauseKeepingGpuState);
    runFilters(src, dst, false, readBack, false);
    const int64_t ended = nowNs();
    // After the first frame, with its face detection: the exit handler then
    // runs before what the detector set up is destroyed.
    if (!exitHookArmed) {
        engineexit::arm();
        exitHookArmed = true;
    }
    if (configuredFps > 15 && ended - lastFpsChangeNs >= kFpsChangeHoldNs)
        adaptFps(static_cast<int>((ended - started) / 1000000));

    textureBuffer_->setPremulAlpha(false);
    if (skipOutputOnce) {
        skipOutputOnce = false;
        return;
    }
    if (refreshFrames > 0)
        --refreshFrames;
    if (channelWorker->isFrameSkipped())
        return;
    deliver(dst);
    if (repeatable) {
        FrameInputs after = inputs;
        after.exchange = textureBuffer_ ? textureBuffer_->generation() : 0;
        repeat.delivered(after, facesRepeated);
    }
    pace();
    QCoreApplication::processEvents();
}

FrameInputs ImageFilters::frameInputs(const QImage& src, quint64 handedIn) const
{
    FrameInputs inputs;
    inputs.picture = src.cacheKey();
    inputs.handedIn = handedIn;
    inputs.settings = settingsChanges;
    inputs.exchange = textureBuffer_ ? textureBuffer_->generation() : 0;
    inputs.faceless = skipFaceFilters.load();
    return inputs;
}

bool ImageFilters::outputFollowsInputs() const
{
    // The sticker, the picture pass and the page layout may animate or turn
    // pages from frame to frame; the face passes draw what the picture and
    // the faces give.
    for (const auto& kv : filters)
        if (kv.first != NOFILTER && !isFaceFilterType(kv.first))
            return false;
    return true;
}

void ImageFilters::idleTick()
{
    pace();
    if (clearOutput) {
        textureBuffer_->setImageMode(true);
        textureBuffer_->setImage(QImage());
    }
    lastTickNs = nowNs();
    QCoreApplication::processEvents();
}

bool ImageFilters::shareHandshakeDone(const QImage& src)
{
    if (!sceneShareEnabled || !isSceneChannel || shareTextureReady)
        return true;
    // Wait, without events, until the scene publishes its context, then make
    // the shared textures in a context that shares with it.
    QOpenGLContext* context = textureBuffer_->getShareContext(sceneId);
    if (!context) {
        sleepMs(50);
        return false;
    }
    channelWorker->setShareContext(context);
    channelWorker->doPreWork(const_cast<uchar*>(src.constBits()), src.width(), src.height());
    if (channelWorker->createSceneShareTexture(textureBuffer_.get())) {
        textureBuffer_->setShareReady(sceneId, true);
        shareTextureReady = true;
    }
    return true;
}

void ImageFilters::handOverDirectFrame()
{
    QImage direct;
    {
        QMutexLocker locker(&srcMutex);
        direct = directImage;
    }
    textureBuffer_->setImageMode(true);
    textureBuffer_->setImage(direct);
    frameShown = true;
}

void ImageFilters::deliver(const QImage& dst)
{
    if (!isSceneChannel) {
        QMutexLocker locker(&dstMutex);
        dstImage = dst;
        frameShown = true;
        return;
    }
    if (!sceneShareEnabled || filters.empty()) {
        if (!textureBuffer_->isImageMode())
            textureBuffer_->setImageMode(true);
        textureBuffer_->setImage(dst);
        frameShown = true;
        return;
    }
    // The frame after which the scene reads the texture is the first it shows.
    frameShown = frameShown || clipSettleFrames != 0;
    if (clipSettleFrames == 0) {
        clipSettleFrames = -1;
    } else if (textureBuffer_->isImageMode()) {
        textureBuffer_->setImageMode(false);
        // The scene draws the texture now; the last picture would otherwise
        // stay for as long as the texture path runs.
        textureBuffer_->setImage(QImage());
    }
    channelWorker->readFromGPU(textureBuffer_.get());
}
