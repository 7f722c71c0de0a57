#pragma once
// Base of the filter objects: a record of one filter's settings and of the
// per-frame face data that goes with them. A filter holds no GPU state: the
// channel's GPU worker owns the shader programs and asks the filter to turn its
// parameters into uniforms (setUniforms) and for the face lists of the frame.
//
// Threading: the mailbox (updateFaceDetectResult / takeFaceDetectResult) is
// guarded by its own lock. Everything else must run on the pipeline's thread.

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include <QList>
#include <QObject>
#include <QReadWriteLock>
#include <opencv2/core.hpp>

#include "base/Numbers.h"
#include "face/FaceDetectResult.h"
#include "filters/StickerInfo.h"

class QImage;
class QOpenGLShaderProgram;
struct AVFrame;

class BeautyFilterBase : public QObject {
    Q_OBJECT
public:
    using ParaMap = std::map<std::string, double>;

    BeautyFilterBase();
    ~BeautyFilterBase() override;

    // Entry point kept for hosts that feed parameters and faces in one call.
    virtual void updateParasAndFaceInfo(const ParaMap& paras, const FaceDetectResult& faceDetectResult,
                                        int width, int height);
    // Takes the values of registered keys; others are ignored. Fits the first
    // page size to the channel's class of resolution when the call carries
    // channel_width and channel_height.
    virtual void setParas(const ParaMap& paras);
    virtual void setFilePath(const std::string& path);
    // Widens a face box to the area that the filter works on.
    virtual cv::Rect expandFaceArea(cv::Rect rect, int width, int height);

    // CPU face masks (8-bit pictures).
    virtual cv::Mat blendWithGaussianMask(cv::Mat& foreground, cv::Mat& background);
    virtual cv::Mat restoreSideStrips(const cv::Mat& image, const cv::Mat& source);
    virtual cv::Mat fadeWithGaussianMask(const cv::Mat& image);

    // Reads the mailbox; an entry expires after faceResultMaxAge + 1 reads.
    virtual bool takeFaceDetectResult(FaceDetectResult& result);
    // Rebuilds the per-frame face lists from a detection on a frame of
    // width x height pixels.
    virtual void updateFaceInfo(const FaceDetectResult& result, int width, int height);

    // Per accepted face of the current frame (copies; index i is one face).
    virtual std::vector<ParaMap> faceParas();
    virtual std::vector<std::vector<int32_t>> mouthPoints();
    virtual std::vector<std::vector<int32_t>> contourPoints();
    virtual std::vector<std::vector<int32_t>> facePoints();
    virtual std::vector<cv::Rect> faceRects();
    virtual std::vector<std::vector<float>> faceAngles();
    virtual void stickerImage(QImage& image);

    // Turns `paras` into uniforms of `program`, which the caller has bound.
    virtual void setUniforms(QOpenGLShaderProgram* program, ParaMap paras, int width, int height);
    virtual void reservedHook();
    virtual StickerInfo stickerInfo();

    virtual int32_t cornerRadius();
    virtual int32_t isMirrored();
    virtual int32_t isRoundCamera();
    virtual int32_t isClip();
    virtual float channelWidth();
    virtual float channelHeight();
    virtual float resWidth();
    virtual float resHeight();
    virtual float scale();
    virtual float centerXOffset();
    virtual float centerYOffset();
    virtual float rotationX();
    virtual float rotationY();
    virtual float rotationZ();
    virtual int32_t fileType();
    virtual float firstPageWidth();
    virtual float firstPageHeight();
    virtual ParaMap paras();

signals:
    void finished();

public slots:
    // Mailbox for detections delivered by signal; keeps only the newest.
    virtual void updateFaceDetectResult(FaceDetectResult faceDetectResult);

protected:
    // Finds the face boxes of `result` that lie wholly inside `src`, widens each
    // with expandFaceArea, writes the face_area_* keys and returns one copy of
    // the parameters per box. With `points`, also gives each box's key points
    // moved to the area's origin. Used by the CPU `filter` routines.
    std::vector<ParaMap> collectFaceAreas(const cv::Mat& src, const FaceDetectResult& result,
                                          std::vector<std::vector<int32_t>>* points = nullptr);
    // Writes the four face_area_* keys.
    void writeFaceArea(const cv::Rect& area);

    // The picture and frame entries of the CPU `filter` family wrap the
    // class's own cv::Mat routine, given here as `matFilter` (src, dst).
    using MatFilter = std::function<void(cv::Mat& src, cv::Mat& dst)>;
    // QImage -> BGR Mat -> matFilter -> `dst`. When the routine leaves its
    // output empty, `dst` keeps what it held.
    void filterImageThroughMat(const QImage& src, QImage& dst, const MatFilter& matFilter);
    // AVFrame -> BGR Mat -> matFilter -> new YUV420P frame, whose planes are
    // copied into `dst` when its width, height and format match; the new frame
    // is freed. Frames without a width or height are ignored; `who` names the
    // caller in log lines.
    void filterFrameThroughMat(AVFrame* src, AVFrame* dst, const MatFilter& matFilter, const char* who);

    ParaMap paras_;
    std::map<std::string, std::string> filterTexts_;
    std::string filePath_;
    QList<FaceDetectResult*> faceResults_;
    QReadWriteLock faceResultLock_;
    std::vector<ParaMap> faceParas_;
    std::vector<std::vector<int32_t>> mouthPoints_;
    std::vector<std::vector<int32_t>> contourPoints_;
    std::vector<std::vector<int32_t>> facePoints_;
    std::vector<std::vector<float>> faceAngles_;
    std::vector<cv::Rect> faceRects_;
    int32_t faceResultAge_ = 0;
    int32_t faceResultMaxAge_ = 10;
    StickerInfo stickerInfo_;
    float scale_ = 1.0f;
    float centerXOffset_ = 0.5f;
    float centerYOffset_ = 0.5f;
    float rotationX_ = 0.0f;
    float rotationY_ = 0.0f;
    float rotationZ_ = 0.0f;
    float firstPageWidth_ = 0.0f;
    float firstPageHeight_ = 0.0f;
    int32_t cornerRadius_ = 0;
    int32_t isMirrored_ = 0;
    int32_t isRoundCamera_ = 0;
    int32_t isClip_ = 0;
    int32_t fileType_ = 0;
    float channelWidth_ = 1280.0f;
    float channelHeight_ = 720.0f;
    float resWidth_ = 1280.0f;
    float resHeight_ = 720.0f;
};

// The rule of expandFaceArea shared by the face area, slim face, whitening and
// smooth-and-whitening filters. A box is returned unchanged when it starts
// before (nearX * W, nearY * H) or ends after (farX * W, farY * H); otherwise
// it grows by dyFactor * height above and below and by half its width on
// either side, is cut at the frame and its width rounded down to a multiple
// of 4.
struct FaceAreaExpansion {
    float nearX;
    float nearY;
    float farX;
    float farY;
    float dyFactor;
};
cv::Rect expandFaceAreaWith(const cv::Rect& rect, int width, int height, const FaceAreaExpansion& rule);

// A face box moved and cut to lie within a frame of `width` x `height`
// from its top left corner.
cv::Rect clampToFrame(cv::Rect rect, int width, int height);


// Hands a picture to a filter's CPU renderer, when it has one.
void handPictureToRenderer(QObject* renderer, uchar* data, int width, int height, const char* who);
