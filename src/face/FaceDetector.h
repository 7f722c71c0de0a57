#pragma once
// Face detection behind an adaptive rate limit.
//
// detectFaces keeps the last real detection and hands it back while frames
// arrive closer together than detectIntervalMs; a detection that takes too
// long widens the interval. The detection itself is the virtual detectImage,
// which this class leaves empty.
//
// The class also carries a queue-and-thread interface (start, stop, process,
// writeSrcFrame, writeSrcImage and the signals). Nothing in the pipeline
// connects or starts it: the pipeline calls detectFaces on its own thread.

#include <memory>
#include <string>
#include <vector>

#include <QImage>
#include <QList>
#include <QObject>
#include <opencv2/core.hpp>

#include "face/FaceDetectResult.h"

class QThread;

class FaceDetector : public QObject {
    Q_OBJECT
public:
    explicit FaceDetector(QObject* parent = nullptr);
    ~FaceDetector() override;

    // Appends to the (empty) lists of `result`; true when it holds a face.
    bool detectFaces(const QImage& image, FaceDetectResult& result, bool extraFlag);

    virtual void detectImage(const QImage& image, std::vector<cv::Rect>& rects,
                             std::vector<std::vector<int>>& keyPoints, std::vector<std::vector<float>>& triplets,
                             std::vector<std::vector<float>>& valueLists);
    virtual void detectFrame(const cv::Mat& frame, std::vector<cv::Rect>& rects,
                             std::vector<std::vector<int>>& keyPoints, std::vector<std::vector<float>>& triplets);
    virtual void setModelFile(const std::string& path);
    // Called by the pipeline when its frames are cleared; nothing to drop here.
    virtual void resetState();
    // The unused detection loop: takes queued images until stopRequested.
    virtual void process();

    int detectInterval() const { return detectIntervalMs; }

signals:
    void finished();
    void ready();
    void newFrameGot(cv::Mat img);
    void newImageGot(QImage img);
    void faceDetectResultGot(FaceDetectResult faceDetectResult);
    void setModelPath(std::string modelPath);

public slots:
    virtual void start();
    virtual void stop();
    void writeSrcFrame(cv::Mat inMat);
    void writeSrcImage(QImage image);

public:
    virtual void quit();

protected:
    // Monotonic clock in nanoseconds.
    virtual qint64 clockNs() const;

    QThread* workerThread = nullptr;
    bool stopRequested = false;
    QList<cv::Mat> srcFrames;
    QList<QImage> srcImages;
    std::vector<cv::Rect> lastRects;
    std::string modelPath;
    std::shared_ptr<FaceDetectResult> cachedResult;
    qint64 lastCallNs = 0;
    bool extraFlag = false;
    qint32 detectIntervalMs = 33;
};
