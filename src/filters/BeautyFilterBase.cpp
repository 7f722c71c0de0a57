#include "filters/BeautyFilterBase.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include <QDebug>
#include <QImage>
#include <QMetaObject>
#include <QReadLocker>
#include <QWriteLocker>

#include "base/Logging.h"
#include "convert/FrameConverter.h"
#include "face/KeyPointLayout.h"
#include "filters/FaceBoxes.h"
#include "filters/PageFit.h"
#include "lumen_fx/ImageFilterTypes.h"

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/imgutils.h>
#include <libavutil/mem.h>
}

BeautyFilterBase::BeautyFilterBase() = default;

BeautyFilterBase::~BeautyFilterBase()
{
    qDeleteAll(faceResults_);
    faceResults_.clear();
}

void BeautyFilterBase::updateParasAndFaceInfo(const ParaMap& paras, const FaceDetectResult& faceDetectResult,
                                              int width, int height)
{
    setParas(paras);
    updateFaceInfo(faceDetectResult, width, height);
}

void BeautyFilterBase::setParas(const ParaMap& paras)
{
    // The channel size only counts when this very call carries it.
    int channelW = 0;
    int channelH = 0;
    for (const auto& kv : paras) {
        auto it = paras_.find(kv.first);
        if (it == paras_.end())
            continue;
        it->second = kv.second;
        if (kv.first == first_page_width)
            firstPageWidth_ = static_cast<float>(kv.second);
        else if (kv.first == first_page_height)
            firstPageHeight_ = static_cast<float>(kv.second);
        else if (kv.first == channel_width)
            channelW = truncToInt(kv.second);
        else if (kv.first == channel_height)
            channelH = truncToInt(kv.second);
    }

    if (firstPageWidth_ == 0.0f || firstPageHeight_ == 0.0f || channelW == 0 || channelH == 0)
        return;

    // Fit an imported page to the channel's class of resolution.
    const QSize page = pagefit::fitFirstPage(firstPageWidth_, firstPageHeight_, channelW, channelH);
    const int w = page.width();
    const int h = page.height();
    firstPageWidth_ = static_cast<float>(w);
    firstPageHeight_ = static_cast<float>(h);
    paras_[first_page_width] = w;
    paras_[first_page_height] = h;
}

void BeautyFilterBase::setFilePath(const std::string& path)
{
    filePath_ = path;
}

cv::Rect BeautyFilterBase::expandFaceArea(cv::Rect rect, int width, int height)
{
    const cv::Rect box = rect;
    const float W = static_cast<float>(width);
    const float H = static_cast<float>(height);
    if (box.x < -0.1f * W || box.y < -0.1f * H)
        return box;
    if (box.x + box.width > 1.1f * W || box.y + box.height > 1.1f * H)
        return box;

    const int dx = static_cast<int>(0.1f * box.width);
    const int dy = static_cast<int>(0.2f * box.height);
    const int nx = box.x - dx / 2;
    const int ny = box.y - 2 * dy;

    cv::Rect out;
    out.x = nx < 1 ? 0 : nx;
    out.y = ny < 1 ? 0 : ny;

    // Asymmetric on purpose: a box cut at the left keeps its former x as
    // extra width, and one cut at the top grows by 2 dy rather than 3 dy.
    out.width = box.width + 2 * dx;
    if (nx < 1) {
        out.width += box.x;
        if (out.x + out.width > width)
            out.width = width - box.x;
    } else if (out.x + out.width > width) {
        out.width = width - out.x;
    }

    if (ny < 1) {
        out.height = box.height + 2 * dy + box.y;
        if (out.height > height)
            out.height = height - box.y;
    } else {
        out.height = box.height + 3 * dy;
        if (out.y + out.height > height)
            out.height = height - out.y;
    }

    out.width = out.width / 4 * 4;
    return out;
}

bool BeautyFilterBase::takeFaceDetectResult(FaceDetectResult& result)
{
    // One reader per filter: the entry is dropped under the read side, which
    // still shuts the writer out.
    QReadLocker locker(&faceResultLock_);
    if (faceResults_.isEmpty())
        return false;
    FaceDetectResult* entry = faceResults_.first();
    if (&result != entry) {
        result.faceRects = entry->faceRects;
        result.keyPoints = entry->keyPoints;
        result.faceTriplets = entry->faceTriplets;
        result.faceValueLists = entry->faceValueLists;
    }
    ++faceResultAge_;
    if (faceResultAge_ > faceResultMaxAge_) {
        delete faceResults_.takeFirst();
        faceResultAge_ = 0;
    }
    return true;
}

void BeautyFilterBase::updateFaceInfo(const FaceDetectResult& result, int width, int height)
{
    faceParas_.clear();
    facePoints_.clear();
    faceAngles_.clear();
    faceRects_.clear();
    mouthPoints_.clear();
    contourPoints_.clear();

    const std::vector<cv::Rect> rects = result.faceRects;
    const std::vector<std::vector<int>> keyPoints = result.keyPoints;
    if (rects.empty())
        return;

    const cv::Rect first = rects.front();
    for (size_t i = 0; i < rects.size(); ++i) {
        cv::Rect rect = rects[i];
        if (!faceboxes::takesBox(i, rect, first, width, height, faceboxes::SameFace::StartsInside,
                                 faceboxes::kFaceBounds))
            continue;

        paras_[detect_face_area_x] = rect.x;
        paras_[detect_face_area_y] = rect.y;
        paras_[detect_face_area_width] = rect.width;
        paras_[detect_face_area_height] = rect.height;

        rect = clampToFrame(rect, width, height);
        // Cannot be positive after the clamp; kept as a guard.
        const int overflow = rect.y + rect.height - height;

        const cv::Rect area = expandFaceArea(rect, width, height);
        writeFaceArea(area);

        std::vector<int32_t> points;
        std::vector<int32_t> mouth;
        std::vector<int32_t> contour;
        if (i < keyPoints.size()) {
            points = keyPoints[i];
            const size_t count = points.size() / 2;
            for (size_t k = 0; k < count; ++k) {
                if (k >= keypoints::kMouthFirst && k <= keypoints::kMouthLast) {
                    mouth.push_back(points[2 * k]);
                    mouth.push_back(points[2 * k + 1]);
                }
                if (k <= keypoints::kContourLast) {
                    contour.push_back(points[2 * k]);
                    contour.push_back(points[2 * k + 1]);
                }
            }
            for (size_t j = 0; j + 1 < points.size(); j += 2) {
                points[j] -= area.x;
                points[j + 1] -= area.y;
                if (overflow > 0)
                    points[j + 1] += overflow;
            }
        }

        faceParas_.push_back(paras_);
        mouthPoints_.push_back(mouth);
        contourPoints_.push_back(contour);
        facePoints_.push_back(points);
    }
}

std::vector<BeautyFilterBase::ParaMap> BeautyFilterBase::faceParas()
{
    return faceParas_;
}

std::vector<std::vector<int32_t>> BeautyFilterBase::mouthPoints()
{
    return mouthPoints_;
}

std::vector<std::vector<int32_t>> BeautyFilterBase::contourPoints()
{
    return contourPoints_;
}

std::vector<std::vector<int32_t>> BeautyFilterBase::facePoints()
{
    return facePoints_;
}

std::vector<cv::Rect> BeautyFilterBase::faceRects()
{
    return faceRects_;
}

std::vector<std::vector<float>> BeautyFilterBase::faceAngles()
{
    return faceAngles_;
}

void BeautyFilterBase::stickerImage(QImage&) {}

void BeautyFilterBase::setUniforms(QOpenGLShaderProgram*, ParaMap, int, int) {}

void BeautyFilterBase::reservedHook() {}

StickerInfo BeautyFilterBase::stickerInfo()
{
    return stickerInfo_;
}

int32_t BeautyFilterBase::cornerRadius()
{
    return cornerRadius_;
}

int32_t BeautyFilterBase::isMirrored()
{
    return isMirrored_;
}

int32_t BeautyFilterBase::isRoundCamera()
{
    return isRoundCamera_;
}

int32_t BeautyFilterBase::isClip()
{
    return isClip_;
}

float BeautyFilterBase::channelWidth()
{
    return channelWidth_;
}

float BeautyFilterBase::channelHeight()
{
    return channelHeight_;
}

float BeautyFilterBase::resWidth()
{
    return resWidth_;
}

float BeautyFilterBase::resHeight()
{
    return resHeight_;
}

float BeautyFilterBase::scale()
{
    return scale_;
}

float BeautyFilterBase::centerXOffset()
{
    return centerXOffset_;
}

float BeautyFilterBase::centerYOffset()
{
    return centerYOffset_;
}

float BeautyFilterBase::rotationX()
{
    return rotationX_;
}

float BeautyFilterBase::rotationY()
{
    return rotationY_;
}

float BeautyFilterBase::rotationZ()
{
    return rotationZ_;
}

int32_t BeautyFilterBase::fileType()
{
    return fileType_;
}

float BeautyFilterBase::firstPageWidth()
{
    return firstPageWidth_;
}

float BeautyFilterBase::firstPageHeight()
{
    return firstPageHeight_;
}

BeautyFilterBase::ParaMap BeautyFilterBase::paras()
{
    return paras_;
}

void BeautyFilterBase::updateFaceDetectResult(FaceDetectResult faceDetectResult)
{
    QWriteLocker locker(&faceResultLock_);
    faceResults_.append(new FaceDetectResult(faceDetectResult));
    if (faceResults_.size() > 1)
        delete faceResults_.takeFirst();
    faceResultAge_ = 0;
}

void BeautyFilterBase::writeFaceArea(const cv::Rect& area)
{
    paras_[face_area_x] = area.x;
    paras_[face_area_y] = area.y;
    paras_[face_area_width] = area.width;
    paras_[face_area_height] = area.height;
}

std::vector<BeautyFilterBase::ParaMap> BeautyFilterBase::collectFaceAreas(
    const cv::Mat& src, const FaceDetectResult& result, std::vector<std::vector<int32_t>>* points)
{
    std::vector<ParaMap> list;
    for (size_t i = 0; i < result.faceRects.size(); ++i) {
        const cv::Rect& rect = result.faceRects[i];
        if (rect.x + rect.width > src.cols || rect.y + rect.height > src.rows || rect.x < 0 || rect.y < 0)
            continue;
        const cv::Rect area = expandFaceArea(rect, src.cols, src.rows);
        if (points) {
            std::vector<int32_t> moved;
            if (i < result.keyPoints.size()) {
                moved = result.keyPoints[i];
                for (size_t j = 0; j + 1 < moved.size(); j += 2) {
                    moved[j] -= area.x;
                    moved[j + 1] -= area.y;
                }
            }
            points->push_back(moved);
        }
        writeFaceArea(area);
        list.push_back(paras_);
    }
    return list;
}

cv::Rect expandFaceAreaWith(const cv::Rect& rect, int width, int height, const FaceAreaExpansion& rule)
{
    const cv::Rect box = rect;
    const float W = static_cast<float>(width);
    const float H = static_cast<float>(height);
    if (box.x < rule.nearX * W || box.y < rule.nearY * H)
        return box;
    if (box.x + box.width > rule.farX * W || box.y + box.height > rule.farY * H)
        return box;

    const int dx = static_cast<int>(0.5f * box.width);
    const int dy = static_cast<int>(rule.dyFactor * box.height);

    cv::Rect out;
    out.x = box.x - dx;
    if (out.x < 1)
        out.x = 0;
    out.y = box.y - dy;
    if (out.y < 1)
        out.y = 0;
    out.height = box.height + 2 * dy;
    if (out.y + out.height > height)
        out.height = height - out.y;
    out.width = box.width + 2 * dx;
    if (out.x + out.width > width)
        out.width = width - out.x;
    out.width = out.width / 4 * 4;
    return out;
}

void BeautyFilterBase::filterImageThroughMat(const QImage& src, QImage& dst, const MatFilter& matFilter)
{
    cv::Mat srcMat = FrameConverter::instance()->qimageToBgrMat(src);
    cv::Mat dstMat;
    matFilter(srcMat, dstMat);
    if (dstMat.empty())
        return;
    dst = FrameConverter::instance()->matToQImage(dstMat);
}

void BeautyFilterBase::filterFrameThroughMat(AVFrame* src, AVFrame* dst, const MatFilter& matFilter,
                                             const char* who)
{
    if (!src) {
        LUMEN_WARNING(lcFilters).nospace() << "[" << who << "] no source frame; call dropped";
        return;
    }
    if (src->width < 1 || src->height < 1)
        return;

    FrameConverter* converter = FrameConverter::instance();
    cv::Mat srcMat;
    converter->frameToMat(src, srcMat, false, src->width, src->height);
    cv::Mat dstMat;
    matFilter(srcMat, dstMat);

    AVFrame* result = nullptr;
    converter->matToFrame(dstMat, result, src->width, src->height);
    if (!result)
        return;
    if (result->data[0]) {
        // `dst` is the caller's frame: only its planes can take the result.
        if (dst && dst->width == result->width && dst->height == result->height && dst->format == result->format
            && dst->data[0]) {
            av_image_copy(dst->data, dst->linesize, const_cast<const uint8_t**>(result->data), result->linesize,
                          static_cast<AVPixelFormat>(result->format), result->width, result->height);
        } else {
            LUMEN_WARNING(lcFilters).nospace() << "[" << who << "] destination frame "
                                               << (dst ? dst->width : 0) << "x" << (dst ? dst->height : 0) << " format "
                                               << (dst ? dst->format : -1) << " does not match the result "
                                               << result->width << "x" << result->height << " format " << result->format
                                               << "; result dropped";
        }
        av_freep(&result->data[0]);
    }
    av_frame_free(&result);
}

void handPictureToRenderer(QObject* renderer, uchar* data, int width, int height, const char* who)
{
    if (!renderer)
        return;
    const bool taken = QMetaObject::invokeMethod(renderer, "doPreWork", Qt::DirectConnection, Q_ARG(uchar*, data),
                                                 Q_ARG(int, width), Q_ARG(int, height));
    if (!taken)
        LUMEN_WARNING(lcFilters).nospace() << "[" << who << "] renderer " << renderer->metaObject()->className()
                                           << " takes no picture; nothing drawn";
}

cv::Rect clampToFrame(cv::Rect rect, int width, int height)
{
    rect.x = std::max(rect.x, 0);
    rect.y = std::max(rect.y, 0);
    if (rect.x + rect.width > width)
        rect.width = width - rect.x;
    if (rect.y + rect.height > height)
        rect.height = height - rect.y;
    return rect;
}

