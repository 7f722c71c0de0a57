// A channel's queued calls, run on its thread: filters added, removed and
// set, the sticker's picture, pauses.
#include "channel/ImageFilters.h"

#include <cmath>

#include "base/Logging.h"
#include "channel/FilterKinds.h"
#include "face/DnnFaceDetector.h"
#include "filters/BeautyFilterBase.h"
#include "gpu/OpenglChannelWorker.h"
#include "scene/TextureBuffer.h"

void ImageFilters::onClearFrame()
{
    ++settingsChanges;
    if (channelWorker)
        channelWorker->resetSize();
    if (faceDetector)
        faceDetector->resetState();
    {
        QMutexLocker locker(&srcMutex);
        srcImage = QImage();
    }
    {
        QMutexLocker locker(&dstMutex);
        dstImage = QImage();
    }
    refreshFrames = kIdleRefreshFrames;
}

void ImageFilters::onSetFilterParameter(ImageFilterType t, std::map<std::string, double> par)
{
    ++settingsChanges;
    inbox.takeParameters(t, par);
    auto existing = filters.find(t);
    if (existing != filters.end() && existing->second == nullptr) {
        LUMEN_WARNING(lcChannel) << "[ImageFilters::onSetFilterParameter] no filter object behind type" << int(t)
                                 << "; parameters dropped";
        return;
    }
    filterParams[t] = par;
    auto clip = par.find(is_clip);
    if (clip != par.end()) {
        const double v = clip->second;
        if (v != lastIsClip || std::isnan(v) || std::isnan(lastIsClip)) {
            clipSettleFrames = 5;
            lastIsClip = v;
        }
    }
    if (existing == filters.end()) {
        refreshFrames = kIdleRefreshFrames;
        return;
    }
    existing->second->setParas(par);
    refreshFrames = kIdleRefreshFrames;
}

void ImageFilters::onAddImageFilter(ImageFilterType t, bool)
{
    ++settingsChanges;
    inbox.takeAdd(t);
    refreshFrames = kIdleRefreshFrames;
    if (filters.count(t) || !isFilterType(t))
        return;
    if (!createsFilterObject(t))
        return;
    BeautyFilterBase* filter = createImageFilter(t);
    if (!filter) {
        LUMEN_WARNING(lcChannel) << "[ImageFilters::onAddImageFilter] no filter object for type" << int(t);
        return;
    }
    filters[t] = filter;
    neededFeatures |= featureBits(t);
    // The plain-picture marker stands only for an empty set; left beside a real
    // filter, its pass-through would draw over that filter's result.
    filters.erase(NOFILTER);
}

void ImageFilters::onRemoveImageFilter(ImageFilterType t)
{
    ++settingsChanges;
    refreshFrames = kIdleRefreshFrames;
    auto it = filters.find(t);
    if (it == filters.end() || !isFilterType(t))
        return;
    if (t == BASICIMAGE) {
        delete it->second;
        filters.erase(it);
        if (channelWorker)
            channelWorker->resetSize();
        return;
    }
    if (!createsFilterObject(t))
        return;
    delete it->second;
    filters.erase(it);
    if (filters.empty()) {
        if (channelWorker)
            channelWorker->resetSize();
        if (faceDetector)
            faceDetector->resetState();
    }
}

void ImageFilters::onUpdateBgImg(ImageFilterType t, std::string bgImgPath, bool, bool, bool)
{
    ++settingsChanges;
    inbox.takePicture(t, bgImgPath);
    auto it = filters.find(t);
    if (it != filters.end() && t == STICKER && it->second)
        it->second->setFilePath(bgImgPath);
    refreshFrames = kIdleRefreshFrames;
}

void ImageFilters::onStopAllFilters()
{
    ++settingsChanges;
    filtersStopped = true;
    refreshFrames = kIdleRefreshFrames;
}

void ImageFilters::onRestartAllFilters()
{
    ++settingsChanges;
    filtersStopped = false;
    refreshFrames = kIdleRefreshFrames;
}

void ImageFilters::writeDstImage(QImage image)
{
    QMutexLocker locker(&dstMutex);
    dstImage = image;
}

void ImageFilters::writeSrcImage(QImage image, bool)
{
    // isChanged is ignored here on purpose; refreshFrames stays as it is.
    // The picture counts as new for the frames that still run.
    QMutexLocker locker(&srcMutex);
    srcImage = image;
    ++pictureChanges;
}

void ImageFilters::writeSrcImage(QImage image)
{
    writeSrcImage(image, true);
}

void ImageFilters::dropPictures()
{
    spareImageB = QImage();
    spareImageA = QImage();
    scratchImage = QImage();
    nextPageImage = QImage();
    placeholderImage = QImage();
    {
        QMutexLocker locker(&dstMutex);
        dstImage = QImage();
    }
    QMutexLocker locker(&srcMutex);
    srcImage = QImage();
}

void ImageFilters::onDoPauseWork(bool isPaused)
{
    ++settingsChanges;
    if (isPaused) {
        filtersStopped = true;
        if (pauseMode == kPauseKeepingGpuState)
            return;
        if (channelWorker) {
            channelWorker->releaseTextures();
            channelWorker->releaseGlObjects();
        }
        qDeleteAll(frameRecords);
        frameRecords.clear();
        dropPictures();
        refreshFrames = kIdleRefreshFrames;
        return;
    }
    filtersStopped = false;
    if (!channelWorker)
        makeWorker();
}
