// A channel's passes over one frame: face detection and the face passes, the
// sticker pass, the picture pass with its page layout, and the read-back.
#include "channel/ImageFilters.h"

#include <QTransform>

#include "base/Logging.h"
#include "channel/PageLayout.h"
#include "face/DnnFaceDetector.h"
#include "filters/BeautyFilterBase.h"
#include "gpu/OpenglChannelWorker.h"

bool ImageFilters::hasFilter(ImageFilterType type) const
{
    return filters.count(type) != 0;
}

void ImageFilters::runFilters(QImage& src, QImage& dst, bool skipGeometry, bool readBack, bool skipAll)
{
    if (filters.empty())
        return;
    {
        QMutexLocker locker(&srcMutex);
        const QImage::Format f = src.format();
        if (f != QImage::Format_RGBA8888 && f != QImage::Format_RGB888 && f != QImage::Format_RGBA8888_Premultiplied)
            src = src.convertToFormat(QImage::Format_RGBA8888);
        dst = src;
    }

    bool beautyRan = false;
    bool stickerRan = false;
    bool basicRan = false;
    if (!skipAll && !skipFaceFilters) {
        bool facePresent = false;
        for (const auto& kv : filters)
            facePresent = facePresent || isFaceFilterType(kv.first);
        if (facePresent)
            beautyRan = runFacePass(dst, false, false);
        if (hasFilter(STICKER))
            stickerRan = runFacePass(dst, true, beautyRan);
    }

    if (hasFilter(BASICIMAGE)) {
        basicRan = runPicturePass(dst, skipGeometry, beautyRan || stickerRan);
    } else {
        // A clip belongs to the frame whose picture pass drew it: without
        // that pass the frame goes out of fbo again.
        channelWorker->setClip(false);
        if (hasFilter(NOFILTER))
            channelWorker->passThrough(src, false);
    }

    if (!readBack) {
        if (!beautyRan && !stickerRan && !basicRan)
            channelWorker->copyToShare(dst);
        return;
    }

    bool clipped = false;
    int width = 0;
    int height = 0;
    channelWorker->getClipInfo(&clipped, &width, &height);
    if (!clipped) {
        channelWorker->getReadSize(&width, &height);
        if (width == 0)
            width = dst.width();
        if (height == 0)
            height = dst.height();
    }
    dst = QImage(width, height, QImage::Format_RGBA8888);
    channelWorker->readLastFboByAlpha(dst.bits(), width, height, true);
}

bool ImageFilters::runFacePass(QImage& image, bool stickerPass, bool hadEarlierFilter)
{
    bool ran = false;
    FaceDetectResult result;
    if (!faceDetector)
        return false;
    faceDetector->detectFaces(image, result, false);
    if (!stickerPass) {
        const bool same = result.faceRects == lastFaces.faceRects && result.keyPoints == lastFaces.keyPoints;
        facesRepeated = facesRepeated && same;
        lastFaces = result;
    }
    OpenglChannelWorker::FilterMap local;
    for (const auto& kv : filters) {
        const bool selected = stickerPass ? kv.first == STICKER : isFaceFilterType(kv.first);
        if (!selected || kv.second == nullptr)
            continue;
        kv.second->updateFaceInfo(result, image.width(), image.height());
        local[static_cast<ImageFilterType>(kv.first)] = kv.second;
        ran = true;
    }
    if (ran && channelWorker) {
        // The share texture carries the result on only to a later pass of
        // this frame; the scene takes its picture through a copy of its own.
        channelWorker->setShareCopyWanted(hasFilter(BASICIMAGE) || (!stickerPass && hasFilter(STICKER)));
        if (stickerPass)
            channelWorker->renderSticker(local, image, hadEarlierFilter, workerOutputFlag, false);
        else
            channelWorker->renderFaceFilters(local, image, false, workerOutputFlag, false);
        channelWorker->setShareCopyWanted(true);
    }
    return ran;
}

bool ImageFilters::runPicturePass(QImage& image, bool skipGeometry, bool hadEarlierFilter)
{
    BeautyFilterBase* filter = filters[BASICIMAGE];
    if (!filter)
        return false;
    FaceDetectResult empty;
    filter->updateFaceInfo(empty, image.width(), image.height());
    OpenglChannelWorker::FilterMap local;
    local[BASICIMAGE] = filter;
    if (!channelWorker)
        return false;

    const float offset = filter->centerYOffset();
    const int rotation = truncToInt(filter->rotationZ());
    const int fileType = filter->fileType();
    float pageWidth = filter->firstPageWidth();
    float pageHeight = filter->firstPageHeight();
    const int clip = filter->isClip();

    bool transition = false;
    int nextState = 1;
    if (!skipGeometry) {
        if (rotation != 0) {
            QTransform transform;
            transform.rotate(rotation, Qt::ZAxis);
            QImage turned(image.size(), QImage::Format_RGBA8888);
            if (hadEarlierFilter) {
                channelWorker->setClip(false);
                channelWorker->readLastFboByAlpha(turned.bits(), turned.width(), turned.height(), true);
            } else {
                turned = image;
            }
            image = turned.transformed(transform, Qt::FastTransformation);
            if (rotation == 90 || rotation == 270)
                std::swap(pageWidth, pageHeight);
        }
        if (clip != 0) {
            fitPage(image, rotation, fileType, pageWidth, pageHeight);
            if (offset > 1.0f || offset < 0.0f) {
                QImage next;
                {
                    QMutexLocker locker(&nextPageMutex);
                    next = nextPageImage;
                }
                if (!next.isNull()) {
                    fitPage(next, rotation, fileType, pageWidth, pageHeight);
                    mergeNextPage(offset, image, next);
                    transition = true;
                }
                clipTransition = 1;
            }
        }
        if (rotation != 0)
            hadEarlierFilter = false;
    }
    if (offset >= 0.0f && offset <= 1.0f) {
        nextState = 0;
        transition = clipTransition == 1;
    }
    channelWorker->setAllowInFrame(transition);
    clipTransition = nextState;
    channelWorker->renderBasicImage(local, image, skipGeometry, hadEarlierFilter);
    return true;
}

void ImageFilters::fitPage(QImage& image, int, int fileType, float pageWidth, float pageHeight)
{
    if (fileType == 2 && pageWidth != 0.0f && pageHeight != 0.0f) {
        // The page's own size, which a picture of that size would only carry.
        const QSize page(truncToInt(pageWidth), truncToInt(pageHeight));
        if (page.width() >= 1 && page.height() >= 1 && page.width() <= pagelayout::kPageLimit && page.height() <= pagelayout::kPageLimit) {
            fitToWidth(image, page.width(), page.height());
        } else if (page != refusedPage) {
            LUMEN_WARNING(lcChannel) << "[ImageFilters::fitPage] a page of" << page.width() << "x" << page.height()
                                     << "is not fitted to; first_page_width and first_page_height go up to"
                                     << pagelayout::kPageLimit;
        }
        refusedPage = page;
    }
    pagelayout::keepWithinLimit(image);
}

void ImageFilters::fitToWidth(QImage& image, int width, int height)
{
    pagelayout::fitToWidth(image, width, height);
}

void ImageFilters::mergeNextPage(float offset, QImage& image, const QImage& nextPage)
{
    qCDebug(lcChannel) << "ImageFilters::mergeNextPage";
    pagelayout::joinPages(offset, image, nextPage);
}
