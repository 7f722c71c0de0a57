#pragma once
// Face stickers (STICKER): a picture drawn over each face, placed by a record
// of the sticker catalogue. The filter holds the picture, scaled to the
// frame, and the record of the current sticker type; the channel worker builds
// each face's matrix from the record and the face's points and angles.

#include <QMetaEnum>

#include "filters/BeautyFilterBase.h"

class QSvgRenderer;

class OpenglStickerFilter : public BeautyFilterBase {
    Q_OBJECT
public:
    OpenglStickerFilter();
    ~OpenglStickerFilter() override;

    // The catalogue: one JSON object, a member per sticker.
    static const char* catalogue();

    // Selects the sticker type by the file's last word ("a_bear.png" and
    // "bear.png" select BEAR) and loads the picture; the path isn't kept.
    void setFilePath(const std::string& path) override;
    // Per face: the parameters, points in frame pixels, angles and box. Stricter
    // than the base about repeated faces and the frame's edges; makes the
    // sticker picture at the frame size.
    void updateFaceInfo(const FaceDetectResult& result, int width, int height) override;
    void stickerImage(QImage& image) override;
    // Sets no uniform: loads the catalogue record of sticker_type when it changed.
    void setUniforms(QOpenGLShaderProgram* program, ParaMap paras, int width, int height) override;

    // CPU path: draws the sticker through an SVG renderer, which nothing makes.
    virtual void filter(cv::Mat& src, cv::Mat& dst, const FaceDetectResult& result);

protected:
    QObject* renderer = nullptr;  // owned CPU-path GPU worker; nothing sets it
    QImage* stickerImage_ = nullptr;  // the sticker at the frame's size
    QImage* stickerSource_ = nullptr;  // the sticker as loaded
    QSvgRenderer* svgRenderer = nullptr;
    QMetaEnum stickerEnum;
    int32_t stickerType = 0;
    bool sourceChanged = false;
};
