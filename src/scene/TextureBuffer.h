#pragma once
// The meeting point of a channel's thread and its scene's thread: a pair of GL
// textures in contexts that share objects, or a plain picture where the
// texture path isn't in use.

#include <atomic>
#include <map>

#include <QImage>
#include <QMutex>
#include <QReadWriteLock>

#include "base/GlLock.h"
#include "gpu/TextureExchange.h"

class QOpenGLContext;

// The pause mode of channels and scenes that keeps their GPU state through a
// pause (a channel then reads back every frame). Nothing sets it.
constexpr int kPauseKeepingGpuState = 6;


class TextureBuffer : public TextureExchange {
public:
    TextureBuffer();
    ~TextureBuffer() override;
    TextureBuffer(const TextureBuffer&) = delete;
    TextureBuffer& operator=(const TextureBuffer&) = delete;

    // All GL operations take their functions from `context`, which must be current.
    void createTextures(QOpenGLContext* context, int width, int height) override;
    void copyToWriteTexture(QOpenGLContext* context, int width, int height) override;
    void copyToReadTexture(QOpenGLContext* context, int width, int height) override;

    QOpenGLContext* getShareContext(int sceneId) override;
    void setShareContext(int sceneId, QOpenGLContext* context) override;
    bool isShareReady(int sceneId) override;
    void setShareReady(int sceneId, bool ready);

    bool getImage(QImage& image) override;
    void setImage(const QImage& image);
    bool isImageMode() override;
    void setImageMode(bool imageMode);
    bool isPremulAlpha() override;
    void setPremulAlpha(bool premulAlpha);

    void getSize(int* width, int* height) override;
    int bindWriteTexture(QOpenGLContext* context) override;
    void bindReadTexture(QOpenGLContext* context) override;
    void unbindTexture(QOpenGLContext* context) override;
    void unbindAndClearReady(QOpenGLContext* context) override;
    void deleteTextures(QOpenGLContext* context) override;

    bool texturesAreReady();
    // Counts the changes of what a scene draws from this buffer: its picture,
    // its read texture and their modes. The count moves once a change is
    // complete, so a scene that reads it before drawing never keeps a frame
    // drawn from a change half made.
    quint64 generation() const override { return changes.load(); }
    unsigned int readTextureId();
    unsigned int writeTextureId();

private:
    void makeTexture(QOpenGLContext* context, unsigned int& name, int width, int height);
    void copyInto(QOpenGLContext* context, unsigned int& name, int& storedWidth, int& storedHeight, int width,
                  int height);

    QMutex imageMutex;
    QMutex textureMutex;
    QMutex readyMutex;
    QMutex flagMutex;
    int readWidth = 0;
    int readHeight = 0;
    int writeWidth = 0;
    int writeHeight = 0;
    unsigned int writeTexture = 0;
    unsigned int readTexture = 0;
    bool texturesReady = false;
    bool imageMode = true;
    bool premulAlpha = false;
    QImage image;
    std::map<int, QOpenGLContext*> shareContexts;
    std::map<int, bool> shareReady;
    std::map<int, int> spareMap;
    std::atomic<quint64> changes{0};
};
