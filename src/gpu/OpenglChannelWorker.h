#pragma once
// The GPU worker of one channel.

#include <map>

#include <QImage>
#include <QObject>

#include "lumen_fx/ImageFilterTypes.h"

class BeautyFilterBase;
class QOpenGLContext;
class TextureBuffer;

class OpenglChannelWorker : public QObject {
    Q_OBJECT
public:
    using FilterMap = std::map<ImageFilterType, BeautyFilterBase*>;

    OpenglChannelWorker(int channelId, int sceneId) : channelId(channelId), sceneId(sceneId) {}
    ~OpenglChannelWorker() override = default;

    void setTextureBuffer(TextureBuffer* buffer) { textureBuffer = buffer; }
    void setShareContext(QOpenGLContext* context) { shareContext = context; }
    virtual bool doPreWork(uchar* data, int width, int height) { return data && width > 0 && height > 0; }
    virtual void doneCurrent() {}
    bool createSceneShareTexture(TextureBuffer* buffer) { return buffer != nullptr; }
    void setClip(bool flag) { isClip = flag; }
    void setAllowInFrame(bool flag) { allowInFrame = flag; }
    void renderFaceFilters(const FilterMap&, QImage&, bool, bool, bool) {}
    void renderSticker(const FilterMap&, QImage&, bool, bool, bool) {}
    void renderBasicImage(const FilterMap&, QImage&, bool, bool) {}
    void passThrough(QImage&, bool) {}
    void copyToShare(QImage&) {}
    void getClipInfo(bool* flag, int* width, int* height)
    {
        *flag = isClip;
        *width = 0;
        *height = 0;
    }
    void getReadSize(int* width, int* height)
    {
        *width = 0;
        *height = 0;
    }
    virtual void readLastFboByAlpha(uchar*, int, int, bool) {}
    bool isFrameSkipped() { return false; }
    bool readFromGPU(TextureBuffer*) { return false; }
    virtual void resetSize() {}
    virtual void releaseTextures() {}
    virtual void releaseGlObjects() {}
    virtual void releaseShareTextures() {}

private:
    int channelId;
    int sceneId;
    TextureBuffer* textureBuffer = nullptr;
    QOpenGLContext* shareContext = nullptr;
    bool isClip = false;
    bool allowInFrame = true;
};
