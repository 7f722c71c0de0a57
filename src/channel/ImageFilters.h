#pragma once
// The pipeline of one channel. It owns a thread, takes the newest picture that
// the host handed in, runs it through face detection and the GPU filters, and
// delivers the result into the channel's TextureBuffer or its own picture.

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>

#include <QImage>
#include <QList>
#include <QMutex>
#include <QObject>
#include <QSemaphore>

#include "channel/FilterInbox.h"
#include "channel/FrameRepeat.h"
#include "face/FaceDetectResult.h"
#include "lumen_fx/ImageFilterTypes.h"

class BeautyFilterBase;
class DnnFaceDetector;
class OpenglChannelWorker;
class QThread;
class TextureBuffer;

// Placeholder record of the frame list; nothing fills it.
struct FrameRecord {
    QImage image;
    QImage second;
    QList<int> values;
};

class ImageFilters : public QObject {
    Q_OBJECT
public:
    ImageFilters(int sceneId, int channelId, bool isSceneChannel, QObject* parent = nullptr);
    ~ImageFilters() override;

    // Host thread: the newest picture replaces an older one; no pixels are copied.
    void writeFrame(const QImage& image, bool skipFaceFilters, bool isChanged, bool isDirect);
    // Host thread: read the record and queue the work to the channel's thread.
    void addImageFilter(ImageFilterType type, void* para);
    void setFilterPara(ImageFilterType type, FilterParaType paraType, void* para);

    TextureBuffer* textureBuffer() const;
    // The types that travel through the queued calls, registered with Qt.
    static void registerMetaTypes();
    // The scene's share of the buffer: it outlives the channel while the scene draws.
    std::shared_ptr<TextureBuffer> sharedTextureBuffer() const;

    // Any thread: ends the loop at its next check, also while it waits for its
    // scene without taking events. closeAll then runs on the channel's thread;
    // join workerThread() to wait for it. The object deletes itself with its thread.
    void requestStop();
    QThread* workerThread() const { return thread; }

    // Plain setters, called right after construction.
    void setSceneShareEnabled(bool enabled);
    void setManagerFlag(bool flag);
    void setManagerValue(int value);
    void setFrameRate(int fps);

    // State that the host side and tests may look at.
    int sceneIdentity() const { return sceneId; }
    int channelIdentity() const { return channelId; }
    int refreshFrameCount() const { return refreshFrames; }
    int currentFrameRate() const { return currentFps; }
    int frameInterval() const { return frameIntervalMs; }
    int configuredFrameRate() const { return configuredFps; }
    int clipSettleCount() const { return clipSettleFrames; }
    uint32_t features() const { return neededFeatures; }
    bool isStopRequested() const { return stopRequested; }
    bool areFiltersStopped() const { return filtersStopped; }
    QImage sourceImage();
    QImage destinationImage();

signals:
    void clearFin();
    void clearFrame();
    void UpdateBgImg(ImageFilterType t, std::string bgImgPath, bool isBgBlured, bool isBgTransparent,
                     bool isGreenScreen);
    void finished();
    void SendImage(QImage frame);
    void Start();
    void AddImageFilter(ImageFilterType t, bool isFaceDetect);
    void RemoveImageFilter(ImageFilterType t);
    void SetFilterParameter(ImageFilterType t, std::map<std::string, double> par);
    void StopAllFilters();
    void RestartAllFilters();
    void doPauseWork(bool isPaused);
    void bgHwNotSupport();
    void fpsChangedForPerformance(int fps);
    void sigDoFilterWork();

public slots:
    void onClearFrame();
    void onSetFilterParameter(ImageFilterType t, std::map<std::string, double> par);
    void onAddImageFilter(ImageFilterType t, bool isFaceDetect);
    void onRemoveImageFilter(ImageFilterType t);
    void onUpdateBgImg(ImageFilterType t, std::string bgImgPath, bool isBgBlured, bool isBgTransparent,
                       bool isGreenScreen);
    void onStopAllFilters();
    void onRestartAllFilters();
    void writeDstImage(QImage image);
    void writeSrcImage(QImage image, bool isChanged);
    void writeSrcImage(QImage image);
    void process();
    void stop();
    void waitThreadStop();
    void closeAll();
    void onDoPauseWork(bool isPaused);

protected:
    // For tests: build the object without starting its thread, so that the
    // loop can be driven one tick at a time with a clock of the test's own.
    struct NoThreadStart {};
    ImageFilters(int sceneId, int channelId, bool isSceneChannel, NoThreadStart);

    // One turn of the loop of process(), from the top of the loop to the check
    // of stopRequested, and its steps.
    void tick();
    void idleTick();
    // Runs the filters on the frame's picture and delivers the result.
    void workOnFrame(QImage& src, const FrameInputs& inputs, bool repeatable);
    // What a frame of `src` is worked from, for leaving out repeated frames.
    FrameInputs frameInputs(const QImage& src, quint64 handedIn) const;
    // Only face passes: nothing in the output animates by itself.
    bool outputFollowsInputs() const;
    // False while the scene channel still waits for its scene's context.
    bool shareHandshakeDone(const QImage& src);
    void handOverDirectFrame();
    // The frame's result to the buffer (texture or picture) or to dstImage.
    void deliver(const QImage& dst);
    // Holds the tick; see pacing.
    void pace();
    // Adapts the frame rate to the time that a frame took.
    void adaptFps(int frameMs);
    // Runs the filters on a picture.
    virtual void runFilters(QImage& src, QImage& dst, bool skipGeometry, bool readBack, bool skipAll);

    // The steady clock in nanoseconds, and a sleep; overridable for tests.
    virtual int64_t nowNs();
    virtual void sleepMs(int ms);

    // The face pass and the sticker pass share one routine.
    bool runFacePass(QImage& image, bool stickerPass, bool hadEarlierFilter);
    bool runPicturePass(QImage& image, bool skipGeometry, bool hadEarlierFilter);
    void fitPage(QImage& image, int rotation, int fileType, float pageWidth, float pageHeight);
    void fitToWidth(QImage& image, int width, int height);
    void mergeNextPage(float offset, QImage& image, const QImage& nextPage);

    bool hasFilter(ImageFilterType type) const;

private:
    void init(int sceneId, int channelId, bool isSceneChannel);
    void connectSignals();
    void makeWorker();
    void postAdd(ImageFilterType type, bool isFaceDetect);
    void emitParameters(ImageFilterType type, FilterParaMap par);
    void postBgImg(ImageFilterType type, const std::string& path, bool isBgBlured, bool isBgTransparent,
                   bool isGreenScreen);
    static bool isFilterTypeValue(ImageFilterType type, const char* function);
    // Reads the host's record of a type into `par` and asks for the filter
    // (and the picture that the record names). From the setter, red lips
    // always ask for face detection. False where the type sends no parameters.
    bool readRecord(ImageFilterType type, void* para, bool fromSetter, FilterParaMap& par);
    void dropPictures();

protected:
    // The ticks that a channel keeps filtering after a new picture or call.
    static constexpr int kIdleRefreshFrames = 20;

    bool isSceneChannel;
    QMutex srcMutex;
    QMutex dstMutex;
    QMutex nextPageMutex;
    QMutex spareMutex;
    std::map<int, FilterParaMap> filterParams;
    std::map<int, BeautyFilterBase*> filters;
    QList<FrameRecord*> frameRecords;
    QThread* thread = nullptr;
    QSemaphore stopSemaphore{0};
    uint32_t neededFeatures = 0;
    std::atomic<bool> stopRequested{false};
    std::atomic<bool> filtersStopped{false};
    bool clearOutput = false;
    std::atomic<bool> directFrame{false};
    std::shared_ptr<TextureBuffer> textureBuffer_;
    std::shared_ptr<DnnFaceDetector> faceDetector;
    std::unique_ptr<OpenglChannelWorker> channelWorker;
    int sceneId = 0;
    int channelId = 0;
    bool shareTextureReady = false;
    int64_t lastTickNs = 0;
    int64_t lastFpsChangeNs = 0;
    QImage placeholderImage;
    QImage srcImage;
    QImage dstImage;
    QImage nextPageImage;
    std::atomic<bool> skipFaceFilters{false};
    std::atomic<int> refreshFrames{0};
    int clipSettleFrames = 0;
    // Whether a frame of the channel has reached where it is shown: the
    // host's picture, or the scene's, in image mode or from the texture.
    bool frameShown = false;
    int firstFrameTries = 0;  // ticks with a frame before one showed
    bool workerOutputFlag = false;
    QImage scratchImage;
    std::string spareTextA;
    std::string spareTextB;
    QImage directImage;
    bool sceneShareEnabled = true;
    bool managerFlag = false;
    int managerValue = 0;
    int configuredFps = 15;
    int frameIntervalMs = 66;
    int currentFps = 15;
    int fpsUpCount = 0;
    int fpsDownCount = 0;
    double lastIsClip = 0.0;
    int clipTransition = 0;
    QSize refusedPage;  // the page size of the last fit, so that a refused one is reported once
    bool skipOutputOnce = false;
    QImage spareImageA;
    QImage spareImageB;
    int pauseMode = -1;

    // The queued calls still waiting, which newer ones leave their values with.
    FilterInbox inbox;
    // Frames whose output would be the last one's are left out.
    FrameRepeat repeat;
    quint64 settingsChanges = 0;         // calls that may change the output
    bool facesRepeated = true;           // this frame's faces were the last frame's
    FaceDetectResult lastFaces;          // the faces of the last frame worked on
    quint64 pictureChanges = 0;          // pictures handed in as changed; under srcMutex
    bool exitHookArmed = false;
};

Q_DECLARE_METATYPE(FilterParaMap)
Q_DECLARE_METATYPE(std::string)
