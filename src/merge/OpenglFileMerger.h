#pragma once
// The GPU worker of a scene: draws the channels' pictures into one frame.

#include <map>

#include <QColor>
#include <QImage>
#include <QList>
#include <QObject>

#include "lumen_fx/ImageFilterTypes.h"

class TextureBuffer;

class OpenglFileMerger : public QObject {
    Q_OBJECT
public:
    explicit OpenglFileMerger(int sceneId) : sceneId(sceneId) {}
    ~OpenglFileMerger() override = default;

    void setMergeTextureBuffer(TextureBuffer* buffer) { mergeTextureBuffer = buffer; }
    void setTextureBuffers(std::map<int, TextureBuffer*> buffers) { textureBuffers = std::move(buffers); }
    void mergeImages(const QList<_channel_merge_param>&, int, int, const QColor&, const QImage&) {}
    virtual void readLastFboByAlpha(uchar*, int, int, bool, bool) {}
    void readFinalImage(uchar*, int, int, bool, bool) {}
    virtual void releaseTextures() {}
    virtual void releaseGlObjects() {}

private:
    int sceneId;
    TextureBuffer* mergeTextureBuffer = nullptr;
    std::map<int, TextureBuffer*> textureBuffers;
};
