#pragma once
// The compositor of one scene. It owns a thread and a file merger; channels
// register their TextureBuffer with it. On request its thread draws the listed
// channels into one picture, reads it back and keeps it for the host.

#include <atomic>
#include <cstdint>
#include <map>
#include <vector>
#include <memory>

#include <QColor>
#include <QImage>
#include <QList>
#include <QMutex>
#include <QObject>
#include <QReadWriteLock>
#include <QSemaphore>

#include "lumen_fx/ImageFilterTypes.h"

struct AVFrame;
class OpenglFileMerger;
class QOpenGLContext;
class QThread;
class TextureBuffer;

struct MergeRequest {
    QList<_channel_merge_param> params;
    int width = 0;
    int height = 0;
    QColor background;
};

class SceneManager : public QObject {
    Q_OBJECT
public:
    SceneManager(int sceneId, QObject* parent = nullptr);
    ~SceneManager() override;

    // Host thread. The scene keeps a share of the buffer, so that a channel
    // that stops doesn't leave the merger drawing from freed memory.
    void addChannel(int channelId, std::shared_ptr<TextureBuffer> buffer);
    void mergeImages(const QList<_channel_merge_param>& params, int width, int height, const QColor& background,
                     const QImage& graffiti, const QImage& unusedImage);
    bool getMergeImg(QImage& image);
    void startGenBgr(bool first, bool second);

    int lastMergeWidth() const { return mergeWidth; }
    int lastMergeHeight() const { return mergeHeight; }
    int pendingRequests();

    // Any thread: ends the loop at its next check, without waiting for events.
    // The clean-up then runs on the scene's thread; join the thread to wait.
    void requestStop();
    QThread* workerThread() const { return thread; }

signals:
    void upChannelShareTex();
    void setShareCtx(QOpenGLContext* shareCtx, int width, int height);
    void finished();
    void doPauseWork(bool isPaused);
    void clearFin();
    void sigDoMergeWork();

public slots:
    void updateMergeImg(QImage*& dstImage);
    void process();
    void stop();
    void onDoPauseWork(bool isPaused);
    void waitThreadStop();

protected:
    struct NoThreadStart {};
    // For tests: the object without a running thread, driven one tick at a time.
    SceneManager(int sceneId, NoThreadStart);
    void tick();
    bool requestFitsLimits(int width, int height) const;
    int firstPictureTries = 0;  // merges before a picture showed all their channels

private:
    void init(int sceneId);
    void cleanUp(bool keepOutput);
    void storeBgr(const QImage& image);
    // The steps of a tick.
    void pausedTick();
    bool takeRequest(MergeRequest& request);
    void mergeAndRead(const MergeRequest& request);
    void publishOutput();
    // Makes mergedImage a buffer that no one else holds before a read-back.
    void takeUnsharedBuffer();
    void keepBgr();
    void endTick();
    static int64_t nowNs();

    bool frameHeightMatches = false;
    std::atomic<bool> stopRequested{false};
    std::atomic<bool> paused{false};
    int mergeWidth = 0;
    int mergeHeight = 0;
    QMutex frameMutex;
    QMutex requestMutex;
    QMutex outputMutex;
    QMutex spareMutexA;
    QMutex spareMutexB;
    QMutex graffitiMutex;
    QMutex bgrMutex;
    QThread* thread = nullptr;
    AVFrame* frame = nullptr;
    std::map<int, std::shared_ptr<TextureBuffer>> channelTextures;
    QList<MergeRequest*> requests;
    OpenglFileMerger* merger = nullptr;
    TextureBuffer* sceneBuffer = nullptr;
    QReadWriteLock recordLock{QReadWriteLock::NonRecursive};
    QList<void*> frameRecords;
    int sceneId = 0;
    QImage* finalImage = nullptr;
    QImage* mergedImage = nullptr;
    QImage* outputImage = nullptr;
    QImage* bgrImage = nullptr;
    QImage* spareImages[4] = {nullptr, nullptr, nullptr, nullptr};
    // Merged pictures of the size in use, waiting until no host holds them.
    std::vector<QImage> unsharedBuffers;
    int64_t lastTickNs = 0;
    int configuredFps = 15;
    int frameIntervalMs = 66;
    MergeRequest idleRequest;
    QImage graffitiSource;
    uchar* mergedBits = nullptr;
    uchar* finalBits = nullptr;
    bool hadChannels = false;
    // Whether a picture read back has shown every channel its merge listed,
    // and whether the last merge drew all those it listed.
    bool pictureShown = false;
    bool composedAll = false;
    bool hasGraffiti = false;
    bool genBgr = false;
    bool genBgrSecond = false;
    int bgrCount = 0;
    int pauseMode = -1;
    QSemaphore stopSemaphore{0};
};
