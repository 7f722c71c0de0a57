#include "face/FaceDetector.h"

#include <QCoreApplication>
#include <QDebug>
#include <QElapsedTimer>
#include <QMetaObject>
#include <QThread>

#include "base/Logging.h"
#include "convert/FrameConverter.h"

namespace {

constexpr qint64 kSlowDetectionNs = 31000000;
constexpr qint32 kFastIntervalMs = 33;
constexpr qint32 kSlowIntervalMs = 66;

}  // namespace

FaceDetector::FaceDetector(QObject* parent) : QObject(parent)
{
    qRegisterMetaType<FaceDetectResult>("FaceDetectResult");
    // The virtual clock is not yet reachable here; the base clock is the one
    // every detector uses unless a subclass sets its own start value.
    lastCallNs = FaceDetector::clockNs();
}

FaceDetector::~FaceDetector()
{
    cachedResult.reset();
}

qint64 FaceDetector::clockNs() const
{
    static QElapsedTimer timer = [] {
        QElapsedTimer t;
        t.start();
        return t;
    }();
    return timer.nsecsElapsed();
}

bool FaceDetector::detectFaces(const QImage& image, FaceDetectResult& result, bool extraFlag_)
{
    if (image.isNull())
        return false;

    const qint64 now = clockNs();
    const qint64 gapMs = (now - lastCallNs) / 1000000;
    lastCallNs = now;
    if (gapMs < 0)
        return false;

    if (cachedResult && !cachedResult->faceRects.empty() && gapMs < detectIntervalMs) {
        result = *cachedResult;
        return true;
    }

    extraFlag = extraFlag_;
    const qint64 before = clockNs();
    detectImage(image, result.faceRects, result.keyPoints, result.faceTriplets, result.faceValueLists);
    const qint64 took = clockNs() - before;

    if (took >= kSlowDetectionNs) {
        detectIntervalMs = kSlowIntervalMs;
        qCDebug(lcFace).nospace() << "@@@face detect main func consume(ms):" << took / 1000000
                           << ", change to new detect duration:" << detectIntervalMs;
    } else {
        detectIntervalMs = kFastIntervalMs;
    }

    if (!cachedResult)
        cachedResult = std::make_shared<FaceDetectResult>(result);
    else
        *cachedResult = result;

    return !result.faceRects.empty();
}

void FaceDetector::detectImage(const QImage&, std::vector<cv::Rect>&, std::vector<std::vector<int>>&,
                               std::vector<std::vector<float>>&, std::vector<std::vector<float>>&)
{
}

void FaceDetector::detectFrame(const cv::Mat&, std::vector<cv::Rect>&, std::vector<std::vector<int>>&,
                               std::vector<std::vector<float>>&)
{
}

void FaceDetector::setModelFile(const std::string& path)
{
    if (&path != &modelPath)
        modelPath = path;
}

void FaceDetector::resetState()
{
}

void FaceDetector::process()
{
    if (stopRequested) {
        qCInfo(lcFace) << "[FaceDetector] stop process";
        return;
    }
    for (;;) {
        FaceDetectResult result;
        QImage image;
        if (!srcImages.isEmpty()) {
            image = srcImages.takeFirst();
            const cv::Mat frame = FrameConverter::instance()->qimageToBgrMat(image);
            detectFrame(frame, result.faceRects, result.keyPoints, result.faceTriplets);
            if (!result.faceRects.empty())
                emit faceDetectResultGot(result);
        }
        QThread::msleep(5);
        QCoreApplication::processEvents();
        if (stopRequested) {
            qCInfo(lcFace) << "[FaceDetector] stop process";
            return;
        }
    }
}

void FaceDetector::start()
{
    qCInfo(lcFace) << "[FaceDetector] Starting...";
    if (QThread::currentThread() == workerThread)
        ready();
    else
        QMetaObject::invokeMethod(this, "start", Qt::QueuedConnection);
}

void FaceDetector::stop()
{
    qCInfo(lcFace) << "[FaceDetector] Stopping...";
    if (QThread::currentThread() == workerThread)
        quit();
    else
        QMetaObject::invokeMethod(this, "stop", Qt::QueuedConnection);
}

void FaceDetector::quit()
{
    qCInfo(lcFace) << "[FaceDetector] Quitting...";
    stopRequested = true;
    emit finished();
}

void FaceDetector::writeSrcFrame(cv::Mat inMat)
{
    srcFrames.append(inMat);
    if (srcFrames.size() >= 2)
        srcFrames.removeFirst();
}

void FaceDetector::writeSrcImage(QImage image)
{
    srcImages.append(image);
    if (srcImages.size() >= 2)
        srcImages.removeFirst();
}
