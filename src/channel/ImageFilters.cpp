// A channel's object: its making, the host's side of its calls (pictures,
// records read and queued to the channel's thread) and its stop path. The
// channel's thread is in ImageFiltersSlots.cpp (the queued calls),
// ImageFiltersLoop.cpp (the loop) and ImageFiltersPasses.cpp (the passes).
#include "channel/ImageFilters.h"

#include <QThread>
#include <opencv2/core.hpp>

#include "base/Logging.h"
#include "face/DnnFaceDetector.h"
#include "filters/BeautyFilterBase.h"
#include "gpu/OpenglChannelWorker.h"
#include "scene/TextureBuffer.h"

Q_DECLARE_METATYPE(cv::Mat)

ImageFilters::ImageFilters(int sceneId, int channelId, bool isSceneChannel, QObject* parent)
    : QObject(parent)
{
    init(sceneId, channelId, isSceneChannel);
    thread->start(QThread::InheritPriority);
    placeholderImage = QImage(1280, 720, QImage::Format_RGBA8888);
    placeholderImage.fill(QColor(53, 53, 53, 255));
    makeWorker();
}

ImageFilters::ImageFilters(int sceneId, int channelId, bool isSceneChannel, NoThreadStart) : QObject(nullptr)
{
    init(sceneId, channelId, isSceneChannel);
    placeholderImage = QImage(1280, 720, QImage::Format_RGBA8888);
    placeholderImage.fill(QColor(53, 53, 53, 255));
    makeWorker();
}

void ImageFilters::init(int sceneId_, int channelId_, bool isSceneChannel_)
{
    isSceneChannel = isSceneChannel_;
    sceneId = sceneId_;
    channelId = channelId_;
    thread = new QThread();
    // The name the thread carries in the system, for hosts' tools.
    thread->setObjectName(QStringLiteral("lumen-channel%1").arg(channelId));
    qCInfo(lcChannel) << "ImageFilters::ImageFilters";

    textureBuffer_ = std::make_shared<TextureBuffer>();
    faceDetector = std::make_shared<DnnFaceDetector>();

    registerMetaTypes();

    moveToThread(thread);
    connectSignals();
}

void ImageFilters::registerMetaTypes()
{
    qRegisterMetaType<cv::Mat>("cv::Mat");
    qRegisterMetaType<ImageFilterType>("ImageFilterType");
    qRegisterMetaType<std::string>("std::string");
    qRegisterMetaType<FilterParaMap>("std::map<std::string, double>");
    qRegisterMetaType<FilterParaType>("FilterParaType");
}

void ImageFilters::connectSignals()
{
    connect(thread, &QThread::started, this, &ImageFilters::process, Qt::AutoConnection);
    connect(this, &ImageFilters::finished, thread, &QThread::quit, Qt::AutoConnection);
    connect(thread, &QThread::finished, this, &QObject::deleteLater, Qt::AutoConnection);
    connect(thread, &QThread::finished, thread, &QObject::deleteLater, Qt::AutoConnection);
    connect(this, &ImageFilters::clearFin, this, [this]() { stopSemaphore.release(1); }, Qt::DirectConnection);
    connect(this, &ImageFilters::UpdateBgImg, this, &ImageFilters::onUpdateBgImg, Qt::QueuedConnection);
    connect(this, &ImageFilters::doPauseWork, this, &ImageFilters::onDoPauseWork, Qt::QueuedConnection);
    connect(this, &ImageFilters::AddImageFilter, this, &ImageFilters::onAddImageFilter, Qt::AutoConnection);
    connect(this, &ImageFilters::RemoveImageFilter, this, &ImageFilters::onRemoveImageFilter, Qt::AutoConnection);
    connect(this, &ImageFilters::clearFrame, this, &ImageFilters::onClearFrame, Qt::AutoConnection);
    connect(this, &ImageFilters::SetFilterParameter, this, &ImageFilters::onSetFilterParameter,
            Qt::AutoConnection);
    connect(this, &ImageFilters::StopAllFilters, this, &ImageFilters::onStopAllFilters, Qt::AutoConnection);
    connect(this, &ImageFilters::RestartAllFilters, this, &ImageFilters::onRestartAllFilters, Qt::AutoConnection);
}

void ImageFilters::makeWorker()
{
    channelWorker.reset(new OpenglChannelWorker(channelId, sceneId));
    channelWorker->setTextureBuffer(textureBuffer_.get());
}

ImageFilters::~ImageFilters()
{
    qCInfo(lcChannel) << "[ImageFilters::~ImageFilters()]release image filters.";
    // The stop path deletes the channel on its own thread: the worker, a
    // surface, is deleted on the application's thread.
    OpenglWorkerBase::dispose(channelWorker.release());
    faceDetector.reset();
    textureBuffer_.reset();
    for (auto& kv : filters)
        delete kv.second;
    filters.clear();
    qDeleteAll(frameRecords);
    frameRecords.clear();
}

void ImageFilters::writeFrame(const QImage& image, bool skipFaces, bool isChanged, bool isDirect)
{
    directFrame = isDirect;
    QMutexLocker locker(&srcMutex);
    if (isDirect)
        directImage = image;
    srcImage = image;
    if (isChanged)
        ++pictureChanges;
    locker.unlock();
    skipFaceFilters = skipFaces;
    if (isChanged)
        refreshFrames = kIdleRefreshFrames;
}

TextureBuffer* ImageFilters::textureBuffer() const
{
    return textureBuffer_.get();
}

std::shared_ptr<TextureBuffer> ImageFilters::sharedTextureBuffer() const
{
    return textureBuffer_;
}

void ImageFilters::requestStop()
{
    qCInfo(lcChannel) << "[ImageFilters::requestStop] stopping channel" << channelId;
    stopRequested = true;
}

void ImageFilters::setSceneShareEnabled(bool enabled)
{
    sceneShareEnabled = enabled;
}

void ImageFilters::setManagerFlag(bool flag)
{
    managerFlag = flag;
}

void ImageFilters::setManagerValue(int value)
{
    managerValue = value;
}

void ImageFilters::setFrameRate(int fps)
{
    if (fps <= 0) {
        LUMEN_WARNING(lcChannel) << "[ImageFilters::setFrameRate] ignored a frame rate of" << fps << "on channel"
                                 << channelId;
        return;
    }
    configuredFps = fps;
    currentFps = fps;
    frameIntervalMs = 1000 / fps;
}

QImage ImageFilters::sourceImage()
{
    QMutexLocker locker(&srcMutex);
    return srcImage;
}

QImage ImageFilters::destinationImage()
{
    QMutexLocker locker(&dstMutex);
    return dstImage;
}

// Host thread: the calls to the channel's thread, one waiting per type and kind (see FilterInbox).

void ImageFilters::postAdd(ImageFilterType type, bool isFaceDetect)
{
    if (inbox.offerAdd(type))
        emit AddImageFilter(type, isFaceDetect);
}

void ImageFilters::emitParameters(ImageFilterType type, FilterParaMap par)
{
    if (inbox.offerParameters(type, par))
        emit SetFilterParameter(type, par);
}

void ImageFilters::postBgImg(ImageFilterType type, const std::string& path, bool isBgBlured, bool isBgTransparent,
                             bool isGreenScreen)
{
    if (inbox.offerPicture(type, RecordPicture{path, isBgBlured, isBgTransparent, isGreenScreen}))
        emit UpdateBgImg(type, path, isBgBlured, isBgTransparent, isGreenScreen);
}

bool ImageFilters::isFilterTypeValue(ImageFilterType type, const char* function)
{
    if (isFilterType(type))
        return true;
    if (type == NOFILTER)
        LUMEN_WARNING(lcChannel).nospace() << "[ImageFilters::" << function
                                           << "] filter type 0 is not a filter; call dropped";
    else
        LUMEN_WARNING(lcChannel).nospace() << "[ImageFilters::" << function << "] " << int(type)
                                           << " is not a filter type; call dropped";
    return false;
}

void ImageFilters::addImageFilter(ImageFilterType type, void* para)
{
    if (!isFilterTypeValue(type, "addImageFilter"))
        return;
    if (type != UNUSEDFILTER && para == nullptr) {
        LUMEN_WARNING(lcChannel) << "[ImageFilters::addImageFilter] null parameter record for filter type" << int(type)
                                 << "; call dropped";
        return;
    }
    FilterParaMap par;
    if (readRecord(type, para, false, par))
        emitParameters(type, par);
}

void ImageFilters::setFilterPara(ImageFilterType type, FilterParaType paraType, void* para)
{
    if (!isFilterTypeValue(type, "setFilterPara"))
        return;
    FilterParaMap par;
    const bool matches = paraTypeBelongs(type, paraType);
    if (!matches) {
        // A mismatched pair never reads the record: an empty map goes out.
        emitParameters(type, par);
        return;
    }
    if (para == nullptr) {
        LUMEN_WARNING(lcChannel) << "[ImageFilters::setFilterPara] null parameter record for filter type" << int(type)
                                 << "; call dropped";
        return;
    }
    if (readRecord(type, para, true, par))
        emitParameters(type, par);
}

bool ImageFilters::readRecord(ImageFilterType type, void* para, bool fromSetter, FilterParaMap& par)
{
    const RecordReading reading = readFilterRecord(type, para, fromSetter);
    if (!reading.notFinite.empty()) {
        const char* function = fromSetter ? "setFilterPara" : "addImageFilter";
        LUMEN_WARNING(lcChannel).nospace() << "[ImageFilters::" << function << "] " << reading.notFinite.c_str() << " of filter type " << int(type)
                                           << " is not a finite number; call dropped";
        return false;
    }
    if (reading.add)
        postAdd(type, reading.faceDetect);
    if (reading.hasPicture) {
        const RecordPicture& p = reading.picture;
        postBgImg(type, p.path, p.isBgBlured, p.isBgTransparent, p.isGreenScreen);
    }
    par = reading.parameters;
    return reading.sendsParameters;
}

void ImageFilters::closeAll()
{
    qCInfo(lcChannel) << "[ImageFilters] closeAll";
    for (auto& kv : filters) {
        if (createsFilterObject(static_cast<ImageFilterType>(kv.first)) && kv.second)
            delete kv.second;
    }
    filters.clear();
    if (channelWorker) {
        channelWorker->releaseTextures();
        channelWorker->releaseGlObjects();
        channelWorker->releaseShareTextures();
        // The context goes on the thread that made it; the worker object stays.
        channelWorker->releaseContext();
    }
    // A scene that still lists the channel passes over its slot from now on.
    textureBuffer_->setImageMode(true);
    textureBuffer_->setImage(QImage());
    qDeleteAll(frameRecords);
    frameRecords.clear();
    dropPictures();
    emit clearFin();
}

void ImageFilters::stop()
{
    qCInfo(lcChannel) << "[ImageFilters::stop] Stopping...";
    if (QThread::currentThread() == thread) {
        stopRequested = true;
        emit finished();
        return;
    }
    QMetaObject::invokeMethod(this, "stop", Qt::QueuedConnection);
}

void ImageFilters::waitThreadStop()
{
    stopSemaphore.tryAcquire(1, 1000);
}
