#include "channel/ImageFilters.h"

#include <algorithm>
#include <chrono>
#include <cmath>

#include <QCoreApplication>
#include <QDebug>
#include <QPainter>
#include <QPen>
#include <QThread>
#include <QTransform>
#include <opencv2/core.hpp>

#include "engine/EngineExit.h"
#include "engine/Logging.h"
#include "face/DnnFaceDetector.h"
#include "filters/BeautyFilterBase.h"
#include "filters/FilterFactory.h"
#include "gpu/OpenglChannelWorker.h"
#include "scene/TextureBuffer.h"

Q_DECLARE_METATYPE(cv::Mat)

namespace {

constexpr int64_t kFpsChangeHoldNs = 30001000000LL;

// The filter types, SLIMFACE to SMOOTHWHITENING; NOFILTER is the empty set's marker.
bool isFilterType(int type)
{
    return type >= SLIMFACE && type <= SMOOTHWHITENING;
}
constexpr int kIdleRefreshFrames = 20;
constexpr int kPageLimit = 7680;

// Feature bits that a filter type ORs into neededFeatures.
uint32_t featureBits(ImageFilterType type)
{
    switch (type) {
    case SLIMFACE: return 3;
    case SMOOTH: return 1;
    case REDLIPS: return 1;
    case WHITENING: return 2;
    case STICKER: return 7;
    case BASICIMAGE: return 9;
    case SMOOTHWHITENING: return 10;
    default: return 0;
    }
}

bool createsFilterObject(ImageFilterType type)
{
    return featureBits(type) != 0;
}

bool isFaceFilterType(int type)
{
    return type == SLIMFACE || type == SMOOTH || type == REDLIPS || type == WHITENING || type == SMOOTHWHITENING;
}

// The record keys of _basic_image_param, in the order of the record.
FilterParaMap basicImageParas(const _basic_image_param& p)
{
    FilterParaMap par;
    par[scale_strength] = p.scale;
    par[brightness_strength] = p.brightness;
    par[contrast_strength] = p.contrast;
    par[saturation_strength] = p.saturation;
    par[alpha_strength] = p.alpha;
    par[rotation_x] = p.rotationX;
    par[rotation_y] = p.rotationY;
    par[rotation_z] = p.rotationZ;
    par[is_mirrored] = p.isMirrored;
    par[corner_radius] = p.cornerRadius;
    par[is_round_camera] = p.isRoundCamera;
    par[is_clip] = p.isClip;
    par[channel_width] = p.channelWidth;
    par[channel_height] = p.channelHeight;
    par[res_width] = p.resWidth;
    par[res_height] = p.resHeight;
    par[center_x_offset] = p.centerXOffset;
    par[center_y_offset] = p.centerYOffset;
    par[first_page_width] = p.firstPageWidth;
    par[first_page_height] = p.firstPageHeight;
    par[file_type] = p.fileType;
    return par;
}

const std::string& strengthKey(ImageFilterType type)
{
    switch (type) {
    case SMOOTH: return smooth_strength;
    case REDLIPS: return redlips_strength;
    case WHITENING: return whitening_strength;
    default: return smooth_whitening_strength;
    }
}

}  // namespace

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

// ---------------------------------------------------------------------------
// Host thread
// ---------------------------------------------------------------------------

void ImageFilters::writeFrame(const QImage& image, bool skipFaces, bool isChanged, bool isDirect)
{
    directFrame = isDirect;
    QMutexLocker locker(&srcMutex);
    if (isDirect)
        directImage = image;
    srcImage = image;
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
        qCWarning(lcChannel) << "[ImageFilters::setFrameRate] ignored a frame rate of" << fps << "on channel" << channelId;
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

// The host may call far faster than the channel's thread takes its events, or
// while that thread waits for its scene and takes none. So a call for a type
// whose earlier call still waits in the queue doesn't queue another: it leaves
// its values for the waiting one to deliver, as a newer frame replaces an
// older one. The slots pick the newest values up when they run.

void ImageFilters::postAdd(ImageFilterType type, bool isFaceDetect)
{
    {
        QMutexLocker locker(&inboxMutex);
        if (!inbox.adds.insert(type).second)
            return;
    }
    emit AddImageFilter(type, isFaceDetect);
}

void ImageFilters::emitParameters(ImageFilterType type, FilterParaMap par)
{
    {
        QMutexLocker locker(&inboxMutex);
        auto queued = inbox.parameters.find(type);
        if (queued != inbox.parameters.end()) {
            queued->second = std::move(par);
            return;
        }
        inbox.parameters.emplace(type, par);
    }
    emit SetFilterParameter(type, par);
}

void ImageFilters::postBgImg(ImageFilterType type, const std::string& path, bool isBgBlured, bool isBgTransparent,
                             bool isGreenScreen)
{
    const Inbox::BgImg call{path, isBgBlured, isBgTransparent, isGreenScreen};
    {
        QMutexLocker locker(&inboxMutex);
        auto queued = inbox.bgImgs.find(type);
        if (queued != inbox.bgImgs.end()) {
            queued->second = call;
            return;
        }
        inbox.bgImgs.emplace(type, call);
    }
    emit UpdateBgImg(type, path, isBgBlured, isBgTransparent, isGreenScreen);
}

bool ImageFilters::isFilterTypeValue(ImageFilterType type, const char* function)
{
    if (isFilterType(type))
        return true;
    if (type == NOFILTER)
        qCWarning(lcChannel).nospace() << "[ImageFilters::" << function << "] filter type 0 is not a filter; call dropped";
    else
        qCWarning(lcChannel).nospace() << "[ImageFilters::" << function << "] " << int(type)
                             << " is not a filter type; call dropped";
    return false;
}

void ImageFilters::addImageFilter(ImageFilterType type, void* para)
{
    if (!isFilterTypeValue(type, "addImageFilter"))
        return;
    if (type != UNUSEDFILTER && para == nullptr) {
        qCWarning(lcChannel) << "[ImageFilters::addImageFilter] null parameter record for filter type" << int(type)
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
    const bool matches = (type == SLIMFACE && paraType == SLIMFACEPARA) || (type == SMOOTH && paraType == SMOOTHPARA)
                         || (type == REDLIPS && paraType == REDLIPSPARA)
                         || (type == WHITENING && paraType == WHITENINGPARA)
                         || (type == SMOOTHWHITENING && paraType == SMOOTHWHITENINGPARA)
                         || (type == STICKER && paraType == STICKERPARA)
                         || (type == BASICIMAGE && paraType == BASICIMAGEPARA);
    if (!matches) {
        // A mismatched pair never reads the record: an empty map goes out.
        emitParameters(type, par);
        return;
    }
    if (para == nullptr) {
        qCWarning(lcChannel) << "[ImageFilters::setFilterPara] null parameter record for filter type" << int(type)
                             << "; call dropped";
        return;
    }
    if (readRecord(type, para, true, par))
        emitParameters(type, par);
}

bool ImageFilters::readRecord(ImageFilterType type, void* para, bool fromSetter, FilterParaMap& par)
{
    switch (type) {
    case SLIMFACE:
        par[slim_face_strength] = static_cast<const _slim_face_param*>(para)->strength;
        postAdd(type, true);
        break;
    case SMOOTH:
    case REDLIPS:
    case WHITENING:
    case SMOOTHWHITENING: {
        const auto* rec = static_cast<const _strength_param*>(para);
        par[strengthKey(type)] = rec->strength;
        // The setter of red lips always asks for face detection.
        postAdd(type, (fromSetter && type == REDLIPS) || rec->isFaceDetect);
        break;
    }
    case STICKER: {
        const std::string path = *static_cast<const std::string*>(para);
        postAdd(type, true);
        if (!path.empty())
            postBgImg(type, path, false, false, false);
        break;
    }
    case BASICIMAGE:
        par = basicImageParas(*static_cast<const _basic_image_param*>(para));
        for (const auto& kv : par) {
            if (!std::isfinite(kv.second)) {
                qCWarning(lcChannel).nospace()
                    << "[ImageFilters::" << (fromSetter ? "setFilterPara" : "addImageFilter") << "] "
                    << kv.first.c_str() << " of filter type " << int(type) << " is not a finite number; call dropped";
                return false;
            }
        }
        postAdd(type, false);
        break;
    case HSVBACKGROUND: {
        const auto* rec = static_cast<const _hsv_background_param*>(para);
        par[hsv_h] = rec->hue;
        par[hsv_s] = rec->saturation;
        par[hsv_v] = rec->value;
        postAdd(type, false);
        if (!rec->bgImgPath.empty())
            postBgImg(type, rec->bgImgPath, false, false, false);
        break;
    }
    case RGBBACKGROUND: {
        const auto* rec = static_cast<const _rgb_background_param*>(para);
        par["rgb_r"] = rec->red;
        par["rgb_g"] = rec->green;
        par["rgb_b"] = rec->blue;
        par[similarity] = rec->similarity;
        par[smoothness] = rec->smoothness;
        par[spill] = rec->spill;
        postAdd(type, false);
        if (!rec->bgImgPath.empty())
            postBgImg(type, rec->bgImgPath, false, false, false);
        break;
    }
    case IMAGEBACKGROUND:
    case IMAGEBACKGROUND2:
    case IMAGEBACKGROUND3: {
        const std::string path = *static_cast<const std::string*>(para);
        postAdd(type, false);
        if (!path.empty())
            postBgImg(type, path, false, false, false);
        // The two further image backgrounds send no parameters.
        return type == IMAGEBACKGROUND;
    }
    case GREENSCREEN: {
        const auto* rec = static_cast<const _green_screen_param*>(para);
        par[similarity] = rec->similarity;
        par[smoothness] = rec->smoothness;
        par[spill] = rec->spill;
        postAdd(type, false);
        if (!rec->bgImgPath.empty() || rec->isBgBlured || rec->isBgTransparent || rec->isGreenScreen)
            postBgImg(type, rec->bgImgPath, rec->isBgBlured, rec->isBgTransparent, rec->isGreenScreen);
        break;
    }
    default:
        break;
    }
    return true;
}

// ---------------------------------------------------------------------------
// Channel thread: slots
// ---------------------------------------------------------------------------

void ImageFilters::onClearFrame()
{
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
    {
        QMutexLocker locker(&inboxMutex);
        auto newest = inbox.parameters.find(t);
        if (newest != inbox.parameters.end()) {
            par = std::move(newest->second);
            inbox.parameters.erase(newest);
        }
    }
    auto existing = filters.find(t);
    if (existing != filters.end() && existing->second == nullptr) {
        qCWarning(lcChannel) << "[ImageFilters::onSetFilterParameter] no filter object behind type" << int(t)
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
    {
        QMutexLocker locker(&inboxMutex);
        inbox.adds.erase(t);
    }
    refreshFrames = kIdleRefreshFrames;
    if (filters.count(t) || !isFilterType(t))
        return;
    if (!createsFilterObject(t))
        return;
    BeautyFilterBase* filter = createImageFilter(t);
    if (!filter) {
        qCWarning(lcChannel) << "[ImageFilters::onAddImageFilter] no filter object for type" << int(t);
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
    {
        QMutexLocker locker(&inboxMutex);
        auto newest = inbox.bgImgs.find(t);
        if (newest != inbox.bgImgs.end()) {
            bgImgPath = newest->second.path;
            inbox.bgImgs.erase(newest);
        }
    }
    auto it = filters.find(t);
    if (it != filters.end() && t == STICKER && it->second)
        it->second->setFilePath(bgImgPath);
    refreshFrames = kIdleRefreshFrames;
}

void ImageFilters::onStopAllFilters()
{
    filtersStopped = true;
    refreshFrames = kIdleRefreshFrames;
}

void ImageFilters::onRestartAllFilters()
{
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
    QMutexLocker locker(&srcMutex);
    srcImage = image;
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

// ---------------------------------------------------------------------------
// Channel thread: the loop
// ---------------------------------------------------------------------------

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
    const int64_t elapsed = (nowNs() - lastTickNs) / 1000000;
    if (elapsed >= 0) {
        if (elapsed < frameIntervalMs)
            sleepMs(static_cast<int>(frameIntervalMs - elapsed));
        else
            sleepMs(5);
    }
    lastTickNs = nowNs();
}

void ImageFilters::adaptFps(int frameMs)
{
    auto change = [this](int target, bool signal) {
        lastFpsChangeNs = nowNs();
        qCInfo(lcChannel) << "@@@change to new Fps:" << target;
        if (signal)
            emit fpsChangedForPerformance(target);
        currentFps = target;
        frameIntervalMs = 1000 / target;
    };
    if (frameMs > frameIntervalMs) {
        const int target = 1000 / frameMs < 15 ? 15 : 30;
        if (target >= currentFps) {
            fpsDownCount = 0;
            return;
        }
        if (fpsDownCount > 200) {
            change(target, 1000 / frameMs < 15);
            fpsDownCount = 0;
            return;
        }
        ++fpsDownCount;
        return;
    }
    if (frameMs > 0) {
        const int target = 1000 / frameMs < 15 ? 15 : 30;
        if (target <= currentFps) {
            fpsUpCount = 0;
            return;
        }
        if (fpsUpCount > 200) {
            change(target, 1000 / frameMs >= 15);
            fpsUpCount = 0;
            return;
        }
        ++fpsUpCount;
    }
}

void ImageFilters::process()
{
    lastTickNs = nowNs();
    lastFpsChangeNs = lastTickNs;
    while (!stopRequested)
        tick();
    closeAll();
}

void ImageFilters::tick()
{
    if (filtersStopped || clearOutput || refreshFrames == 0) {
        idleTick();
        return;
    }
    QImage src;
    {
        QMutexLocker locker(&srcMutex);
        src = srcImage;
    }
    if (src.isNull()) {
        pace();
        QCoreApplication::processEvents();
        return;
    }
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
    pace();
    QCoreApplication::processEvents();
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
}

void ImageFilters::deliver(const QImage& dst)
{
    if (!isSceneChannel) {
        QMutexLocker locker(&dstMutex);
        dstImage = dst;
        return;
    }
    if (!sceneShareEnabled || filters.empty()) {
        if (!textureBuffer_->isImageMode())
            textureBuffer_->setImageMode(true);
        textureBuffer_->setImage(dst);
        return;
    }
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
        if (page.width() >= 1 && page.height() >= 1 && page.width() <= kPageLimit && page.height() <= kPageLimit) {
            fitToWidth(image, page.width(), page.height());
        } else if (page != refusedPage) {
            qCWarning(lcChannel) << "[ImageFilters::fitPage] a page of" << page.width() << "x" << page.height()
                                 << "is not fitted to; first_page_width and first_page_height go up to" << kPageLimit;
        }
        refusedPage = page;
    }
    if (image.width() <= kPageLimit && image.height() <= kPageLimit)
        return;
    const float ratio = static_cast<float>(image.height()) / static_cast<float>(image.width());
    if (image.height() > kPageLimit) {
        image = image.scaled(static_cast<int>(kPageLimit / ratio), kPageLimit, Qt::IgnoreAspectRatio,
                             Qt::SmoothTransformation);
        if (image.format() != QImage::Format_RGBA8888)
            image = image.convertToFormat(QImage::Format_RGBA8888);
    }
    if (image.width() > kPageLimit) {
        image = image.scaled(kPageLimit, static_cast<int>(ratio * kPageLimit), Qt::IgnoreAspectRatio,
                             Qt::SmoothTransformation);
        if (image.format() != QImage::Format_RGBA8888)
            image = image.convertToFormat(QImage::Format_RGBA8888);
    }
}

void ImageFilters::fitToWidth(QImage& image, int width, int height)
{
    if (image.width() == width)
        return;
    const double fitted = image.height() * (static_cast<double>(width) / image.width());
    if (fitted > kPageLimit) {
        // Taller than any page: straight to the size that the page limit
        // would shrink it to. A sliver fitted to a wide page first would be
        // hundreds of thousands of rows high, gigabytes of pixels.
        const int narrowed = std::max(1, static_cast<int>(kPageLimit * width / fitted));
        image = image.scaled(narrowed, kPageLimit, Qt::IgnoreAspectRatio, Qt::SmoothTransformation)
                    .convertToFormat(QImage::Format_RGBA8888);
        return;
    }
    const int newHeight =
        static_cast<int>(image.height() * (static_cast<float>(width) / static_cast<float>(image.width())));
    image = image.scaled(width, newHeight, Qt::IgnoreAspectRatio, Qt::SmoothTransformation)
                .convertToFormat(QImage::Format_RGBA8888);
    // Compares the new height with the target width, as the page layout wants.
    if (newHeight >= width)
        return;
    QImage bar(width, (height - newHeight) / 2, QImage::Format_RGBA8888);
    bar.fill(QColor(245, 246, 247, 255));
    QImage full(width, height, QImage::Format_RGBA8888);
    full.fill(QColor(245, 246, 247, 255));
    {
        QPainter painter(&full);
        painter.drawImage(0, 0, bar);
        painter.drawImage(0, bar.height(), image);
        painter.drawImage(0, bar.height() + image.height(), bar);
    }
    image = full;
}

void ImageFilters::mergeNextPage(float offset, QImage& image, const QImage& nextPage)
{
    qCDebug(lcChannel) << "ImageFilters::mergeNextPage";
    QImage joined(image.width(), image.height() + nextPage.height(), image.format());
    {
        QPainter painter(&joined);
        painter.setPen(QPen(Qt::gray, 2, Qt::SolidLine));
        if (offset > 1.0f) {
            painter.drawImage(0, 0, image);
            painter.drawImage(0, image.height(), nextPage);
            painter.drawLine(0, image.height(), joined.width(), image.height());
        } else if (offset < 0.0f) {
            painter.drawImage(0, 0, nextPage);
            painter.drawImage(0, nextPage.height(), image);
            painter.drawLine(0, nextPage.height(), joined.width(), nextPage.height());
        }
    }
    image = joined;
}

// ---------------------------------------------------------------------------
// Stop path
// ---------------------------------------------------------------------------

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
