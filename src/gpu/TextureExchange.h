#pragma once
// What the GPU rooms ask of a channel's exchange point with its scene: the
// shared texture pair that the channel's worker writes and the scene's merger
// reads, the share handshake between their contexts, and the plain picture
// used where the texture path isn't. The scene's TextureBuffer is the one
// implementation; the workers and the merger know it only through this, so
// that they need nothing from the scene above them.

#include <QtGlobal>

class QImage;
class QOpenGLContext;

class TextureExchange {
public:
    virtual ~TextureExchange() = default;

    // All GL operations take their functions from `context`, which must be current.
    virtual void createTextures(QOpenGLContext* context, int width, int height) = 0;
    virtual void copyToWriteTexture(QOpenGLContext* context, int width, int height) = 0;
    virtual void copyToReadTexture(QOpenGLContext* context, int width, int height) = 0;
    virtual int bindWriteTexture(QOpenGLContext* context) = 0;
    virtual void bindReadTexture(QOpenGLContext* context) = 0;
    virtual void unbindTexture(QOpenGLContext* context) = 0;
    virtual void unbindAndClearReady(QOpenGLContext* context) = 0;
    virtual void deleteTextures(QOpenGLContext* context) = 0;
    virtual void getSize(int* width, int* height) = 0;

    virtual QOpenGLContext* getShareContext(int sceneId) = 0;
    virtual void setShareContext(int sceneId, QOpenGLContext* context) = 0;
    virtual bool isShareReady(int sceneId) = 0;

    virtual bool getImage(QImage& image) = 0;
    virtual bool isImageMode() = 0;
    virtual bool isPremulAlpha() = 0;

    // Counts the completed changes of what a scene draws from the exchange.
    virtual quint64 generation() const = 0;
};
