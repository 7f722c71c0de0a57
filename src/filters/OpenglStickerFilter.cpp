#include "filters/OpenglStickerFilter.h"

#include <QDebug>
#include <QImageReader>
#include <QJsonDocument>
#include <QJsonObject>
#include <QPainter>
#include <QSvgRenderer>

#include "base/Logging.h"
#include "filters/FaceBoxes.h"
#include "lumen_fx/ImageFilterTypes.h"

namespace {

const int kLargestSticker = 4096;

// 33 members; pig has no StickerType, and nine types (beard, crown,
// fatherchristmas, glasses02, gauzemask, prince, sheep, spy, sun) have no
// member: both kept as the catalogue was made.
const char kCatalogue[] = R"({
"bear": {"base_x_scale": 1.3, "base_y_scale": 1.5, "center_index": 52, "sticker_anchor_x": 0.5, "sticker_anchor_y": 0.7, "sticker_scaled": 0, "angle_limit": 0},
"beret": {"base_x_scale": 1.6, "base_y_scale": 1.8, "center_index": 52, "sticker_anchor_x": 0.515, "sticker_anchor_y": 0.92, "sticker_scaled": 0, "angle_limit": 1},
"cat": {"base_x_scale": 1.5, "base_y_scale": 1.5, "center_index": 54, "sticker_anchor_x": 0.5, "sticker_anchor_y": 0.9, "sticker_scaled": 0, "angle_limit": 0},
"cow": {"base_x_scale": 1.9, "base_y_scale": 1.9, "center_index": 51, "sticker_anchor_x": 0.7, "sticker_anchor_y": 0.73, "sticker_scaled": 0, "angle_limit": 0},
"cuteglasses": {"base_x_scale": 1.0, "base_y_scale": 1.0, "center_index": 51, "sticker_anchor_x": 0.5, "sticker_anchor_y": 0.6, "sticker_scaled": 0, "angle_limit": 1},
"deer": {"base_x_scale": 1.5, "base_y_scale": 1.95, "center_index": 51, "sticker_anchor_x": 0.5, "sticker_anchor_y": 0.65, "sticker_scaled": 0, "angle_limit": 0},
"faceplates": {"base_x_scale": 1.4, "base_y_scale": 1.5, "center_index": 51, "sticker_anchor_x": 0.58, "sticker_anchor_y": 0.48, "sticker_scaled": 1, "angle_limit": 0},
"fullmark": {"base_x_scale": 1.5, "base_y_scale": 1.5, "center_index": 51, "sticker_anchor_x": 0.7, "sticker_anchor_y": 0.78, "sticker_scaled": 0, "angle_limit": 0},
"glasses01": {"base_x_scale": 1.1, "base_y_scale": 1.1, "center_index": 51, "sticker_anchor_x": 0.5, "sticker_anchor_y": 0.18, "sticker_scaled": 0, "angle_limit": 1},
"goodstudy": {"base_x_scale": 2.2, "base_y_scale": 1.95, "center_index": 51, "sticker_anchor_x": 0.7, "sticker_anchor_y": 0.75, "sticker_scaled": 0, "angle_limit": 0},
"idea": {"base_x_scale": 1.4, "base_y_scale": 1.8, "center_index": 45, "sticker_anchor_x": 0.85, "sticker_anchor_y": 0.7, "sticker_scaled": 1, "angle_limit": 0},
"joker01": {"base_x_scale": 1.7, "base_y_scale": 2, "center_index": 54, "sticker_anchor_x": 0.48, "sticker_anchor_y": 0.97, "sticker_scaled": 0, "angle_limit": 0},
"joker02": {"base_x_scale": 1.8, "base_y_scale": 2.36, "center_index": 51, "sticker_anchor_x": 0.5, "sticker_anchor_y": 0.72, "sticker_scaled": 0, "angle_limit": 0},
"koala": {"base_x_scale": 1.82, "base_y_scale": 2.24, "center_index": 52, "sticker_anchor_x": 0.53, "sticker_anchor_y": 0.75, "sticker_scaled": 0, "angle_limit": 0},
"medal": {"base_x_scale": 0.7, "base_y_scale": 0.7, "center_index": 54, "offset_x_scale_factor": 0.5, "offset_y_scale_factor": 0.25},
"music": {"base_x_scale": 0.7, "base_y_scale": 0.7, "center_index": 54, "offset_x_scale_factor": -0.05, "offset_y_scale_factor": 2.0},
"pig": {"base_x_scale": 0.7, "base_y_scale": 0.7, "center_index": 54, "offset_x_scale_factor": -0.05, "offset_y_scale_factor": 2.0},
"pikaqiu": {"base_x_scale": 1.8, "base_y_scale": 2.4, "center_index": 51, "sticker_anchor_x": 0.7, "sticker_anchor_y": 0.8, "sticker_scaled": 0, "angle_limit": 0},
"pumpkin": {"base_x_scale": 2, "base_y_scale": 2, "center_index": 79, "sticker_anchor_x": 0.51, "sticker_anchor_y": 0.8, "sticker_scaled": 1, "angle_limit": 0},
"rabbit": {"base_x_scale": 2.1, "base_y_scale": 2.4, "center_index": 54, "sticker_anchor_x": 0.51, "sticker_anchor_y": 0.87, "sticker_scaled": 0, "angle_limit": 0},
"spaceman": {"base_x_scale": 1.8, "base_y_scale": 1.6, "center_index": 79, "sticker_anchor_x": 0.5, "sticker_anchor_y": 0.75, "sticker_scaled": 1, "angle_limit": 0},
"star": {"base_x_scale": 1.3, "base_y_scale": 1.8, "center_index": 51, "sticker_anchor_x": 0.51, "sticker_anchor_y": 0.6, "sticker_scaled": 0, "angle_limit": 0},
"watermelon": {"base_x_scale": 1.8, "base_y_scale": 1.8, "center_index": 79, "sticker_anchor_x": 0.46, "sticker_anchor_y": 0.75, "sticker_scaled": 1, "angle_limit": 0},
"girl1": {"base_x_scale": 2.4, "base_y_scale": 2.0, "center_index": 79, "sticker_anchor_x": 0.5, "sticker_anchor_y": 0.75, "sticker_scaled": 1, "angle_limit": 0},
"girl2": {"base_x_scale": 2.4, "base_y_scale": 2.0, "center_index": 79, "sticker_anchor_x": 0.5, "sticker_anchor_y": 0.75, "sticker_scaled": 1, "angle_limit": 0},
"girl3": {"base_x_scale": 2.4, "base_y_scale": 2.0, "center_index": 79, "sticker_anchor_x": 0.5, "sticker_anchor_y": 0.75, "sticker_scaled": 1, "angle_limit": 0},
"boy1": {"base_x_scale": 2.4, "base_y_scale": 2.0, "center_index": 79, "sticker_anchor_x": 0.5, "sticker_anchor_y": 0.75, "sticker_scaled": 1, "angle_limit": 0},
"boy2": {"base_x_scale": 2.4, "base_y_scale": 2.0, "center_index": 79, "sticker_anchor_x": 0.5, "sticker_anchor_y": 0.75, "sticker_scaled": 1, "angle_limit": 0},
"boy3": {"base_x_scale": 2.4, "base_y_scale": 2.0, "center_index": 79, "sticker_anchor_x": 0.5, "sticker_anchor_y": 0.75, "sticker_scaled": 1, "angle_limit": 0},
"newyear1": {"base_x_scale": 1.65, "base_y_scale": 2.05, "center_index": 51, "sticker_anchor_x": 0.5, "sticker_anchor_y": 0.75, "sticker_scaled": 0, "angle_limit": 0},
"newyear2": {"base_x_scale": 1.5, "base_y_scale": 1, "center_index": 51, "sticker_anchor_x": 0.2, "sticker_anchor_y": 1.4, "sticker_scaled": 1, "angle_limit": 0},
"subscribe": {"base_x_scale": 1.5, "base_y_scale": 1.5, "center_index": 51, "sticker_anchor_x": 0.8, "sticker_anchor_y": 1.4, "sticker_scaled": 0, "angle_limit": 0},
"bowknot": {"base_x_scale": 1.9, "base_y_scale": 1.6, "center_index": 79, "sticker_anchor_x": 0.5, "sticker_anchor_y": 1.15, "sticker_scaled": 1, "angle_limit": 0}
})";

}  // namespace

OpenglStickerFilter::OpenglStickerFilter() : stickerEnum(QMetaEnum::fromType<CommonEnum::StickerType>())
{
    paras_[sticker_type] = 0;
    faceResultMaxAge_ = 5;
}

OpenglStickerFilter::~OpenglStickerFilter()
{
    qCInfo(lcFilters) << "~OpenglStickerFilter()";
    delete renderer;
    delete stickerImage_;
    delete stickerSource_;
    delete svgRenderer;
}

const char* OpenglStickerFilter::catalogue() { return kCatalogue; }

void OpenglStickerFilter::setFilePath(const std::string& path)
{
    if (path.empty())
        return;
    QString name = QString::fromStdString(path);
    name = name.mid(name.lastIndexOf('/') + 1);
    if (name.contains('_'))
        name = name.mid(name.lastIndexOf('_') + 1);
    name.chop(4);  // the extension
    bool known = false;
    const int value = stickerEnum.keyToValue(name.toUpper().toLatin1().constData(), &known);
    if (known)
        paras_[sticker_type] = value;
    if (!known || value == 0)
        return;
    delete stickerSource_;
    // A picture is scaled to the frame anyway; one larger than any frame
    // would only cost its memory three times over while it is converted.
    const QSize size = QImageReader(QString::fromStdString(path)).size();
    QImage loaded;
    if (size.width() <= kLargestSticker && size.height() <= kLargestSticker)
        loaded = QImage(QString::fromStdString(path));
    else
        LUMEN_WARNING(lcFilters) << "[OpenglStickerFilter::setFilePath]" << path.c_str() << "is" << size.width() << "x"
                                 << size.height() << "; stickers are at most" << kLargestSticker << "a side";
    // Red and blue exchanged, as the sticker goes to the GPU.
    stickerSource_ = new QImage(loaded.convertToFormat(QImage::Format_RGBA8888).rgbSwapped());
    sourceChanged = true;
    if (stickerSource_->isNull())
        LUMEN_WARNING(lcFilters) << "[OpenglStickerFilter::setFilePath] no picture in" << path.c_str()
                                 << "; no sticker until another file arrives";
}

void OpenglStickerFilter::updateFaceInfo(const FaceDetectResult& result, int width, int height)
{
    // The lips and contour lists are not this filter's; they stay as they are.
    faceParas_.clear();
    facePoints_.clear();
    faceAngles_.clear();
    faceRects_.clear();
    const std::vector<cv::Rect>& rects = result.faceRects;
    if (rects.empty())
        return;
    const cv::Rect first = rects.front();
    for (size_t i = 0; i < rects.size(); ++i) {
        cv::Rect rect = rects[i];
        // Stricter than the face filters on purpose; a face touching the top
        // or left edge gets no sticker.
        if (!faceboxes::takesBox(i, rect, first, width, height, faceboxes::SameFace::StartsInSpan,
                                 faceboxes::kStickerBounds))
            continue;
        rect = clampToFrame(rect, width, height);
        faceParas_.push_back(paras_);
        facePoints_.push_back(i < result.keyPoints.size() ? result.keyPoints[i] : std::vector<int32_t>());
        faceAngles_.push_back(i < result.faceTriplets.size() ? result.faceTriplets[i] : std::vector<float>());
        faceRects_.push_back(rect);
        if (!stickerImage_ || stickerImage_->size() != QSize(width, height) || sourceChanged) {
            if (!stickerSource_)
                break;
            delete stickerImage_;
            stickerImage_ = new QImage(stickerSource_->isNull() ? QImage()
                                                                : stickerSource_->scaled(width, height, Qt::IgnoreAspectRatio,
                                                                                         Qt::SmoothTransformation));
            sourceChanged = false;
        }
    }
}

void OpenglStickerFilter::stickerImage(QImage& image)
{
    if (stickerImage_)
        image = *stickerImage_;
}

void OpenglStickerFilter::setUniforms(QOpenGLShaderProgram*, ParaMap paras, int, int)
{
    auto it = paras.find(sticker_type);
    if (it == paras.end())
        return;
    const int32_t type = truncToInt(it->second);
    if (type == stickerType)
        return;
    stickerType = type;
    QJsonObject member;
    const char* key = type >= 1 && type <= 41 ? stickerEnum.valueToKey(type) : nullptr;
    if (key)
        member = QJsonDocument::fromJson(kCatalogue).object().value(QString(key).toLower()).toObject();
    // A type without a member keeps the previous sticker's placement.
    if (member.isEmpty())
        return;
    StickerInfo info;
    info.base_x_scale = static_cast<float>(member.value("base_x_scale").toDouble());
    info.base_y_scale = static_cast<float>(member.value("base_y_scale").toDouble());
    info.center_index = static_cast<float>(member.value("center_index").toInt());
    info.sticker_scaled = static_cast<float>(member.value("sticker_scaled").toInt());
    info.angle_limit = static_cast<float>(member.value("angle_limit").toInt());
    if (member.contains("offset_x_scale_factor"))
        info.offset_x_scale_factor = static_cast<float>(member.value("offset_x_scale_factor").toDouble());
    if (member.contains("offset_y_scale_factor"))
        info.offset_y_scale_factor = static_cast<float>(member.value("offset_y_scale_factor").toDouble());
    info.sticker_anchor_x = static_cast<float>(member.value("sticker_anchor_x").toDouble());
    info.sticker_anchor_y = static_cast<float>(member.value("sticker_anchor_y").toDouble());
    stickerInfo_ = info;
}

void OpenglStickerFilter::filter(cv::Mat& src, cv::Mat& dst, const FaceDetectResult& result)
{
    if (src.empty())
        return;
    if (!svgRenderer || !svgRenderer->isValid()) {
        qCDebug(lcFilters) << "[OpenglStickerFilter::filter]sticker svg not exist,nothing to do!";
        return;
    }
    bool drawn = false;
    for (const cv::Rect& r : result.faceRects) {
        if (r.x + r.width + r.width / 50 > src.cols || r.y + r.height + r.height / 50 > src.rows
            || r.x - r.width / 20 < 0 || r.y - r.height / 3 < 0)
            continue;
        if (!stickerImage_ || stickerImage_->size() != QSize(src.cols, src.rows)) {
            delete stickerImage_;
            stickerImage_ = new QImage(src.cols, src.rows, QImage::Format_ARGB32_Premultiplied);
        }
        QPainter painter(stickerImage_);
        svgRenderer->render(&painter);
        painter.end();
        handPictureToRenderer(renderer, stickerImage_->bits(), src.cols, src.rows, "OpenglStickerFilter::filter");
        src.copyTo(dst);
        drawn = true;
    }
    if (!drawn)
        src.copyTo(dst);
}
