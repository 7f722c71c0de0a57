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

class QOpenGLContext;

// The pause mode of channels and scenes that keeps their GPU state through a
// pause (a channel then reads back every frame). Nothing sets it.
constexpr int kPauseKeepingGpuState = 6;


class TextureBuffer {
public:
    TextureBuffer();
    ~TextureBuffer();
    TextureBuffer(const TextureBuffer&) = delete;
    TextureBuffer& operator=(const TextureBuffer&) = delete;

    // All GL operations take their functions from `context`, which must be current.
    void createTextures(QOpenGLContext* context, int width, int height);
    void copyToWriteTexture(QOpenGLContext* context, int width, int height);
    void copyToReadTexture(QOpenGLContext* context, int width, int height);

    QOpenGLContext* getShareContext(int sceneId);
    void setShareContext(int sceneId, QOpenGLContext* context);
    bool isShareReady(int sceneId);
    void setShareReady(int sceneId, bool ready);

    bool getImage(QImage& image);
    void setImage(const QImage& image);
    bool isImageMode();
    void setImageMode(bool imageMode);
    bool isPremulAlpha();
    void setPremulAlpha(bool premulAlpha);

    void getSize(int* width, int* height);
    int bindWriteTexture(QOpenGLContext* context);
    void bindReadTexture(QOpenGLContext* context);
    void unbindTexture(QOpenGLContext* context);
    void unbindAndClearReady(QOpenGLContext* context);
    void deleteTextures(QOpenGLContext* context);

    bool texturesAreReady();
    // Counts the changes of what a scene draws from this buffer: its picture,
    // its read texture and their modes. The count moves once a change is
    // complete, so a scene that reads it before drawing never keeps a frame
    // drawn from a change half made.
    quint64 generation() const { return changes.load(); }
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
