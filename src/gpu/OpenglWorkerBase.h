#pragma once
// Base of every GPU worker. One object is at the same time the offscreen
// surface, the holder of the OpenGL context made current on it, and the owner
// of the framebuffers, pixel buffers and textures of one processing line.
//
// All GL work of a worker runs between a makeCurrent on its own surface and a
// doneCurrent, on the thread of the pipeline that drives it; the object itself
// lives on the main thread.

#include <QImage>
#include <QOffscreenSurface>
#include <QOpenGLBuffer>
#include <QOpenGLFunctions>
#include <QReadWriteLock>
#include <QSize>
#include <QString>
#include <QVector>

#include <vector>

class QOpenGLContext;
class QOpenGLFramebufferObject;
class QOpenGLTexture;
class ShaderWorker;
class TextureExchange;

// A record of the textured mesh path. The path has no caller in a channel's
// frame; the records stay empty.
struct WorkerMeshRecord {
    QImage image;
};
struct WorkerMeshTexture {
    unsigned int id = 0;
    QString type;
};

class OpenglWorkerBase : public QOffscreenSurface, protected QOpenGLFunctions {
    Q_OBJECT
public:
    OpenglWorkerBase(int channelId, int sceneId);
    ~OpenglWorkerBase() override;

    OpenglWorkerBase(const OpenglWorkerBase&) = delete;
    OpenglWorkerBase& operator=(const OpenglWorkerBase&) = delete;

    // The process-wide lock around the creation and destruction of surfaces,
    // contexts and shared textures (the same lock as sharedTextureLock()).
    static QReadWriteLock& glLock();

    // --- virtual operations, in the order of the worker's table ---
    virtual bool filterAndReadFbo(uchar* data, uchar* dst, int width, int height);
    // Forces the next frame through resize even if its size didn't change.
    virtual void resetSize();
    // Entry of every frame: makes the context current and sizes the
    // framebuffers. On true the context stays current; the caller ends with
    // doneCurrent() on both results.
    virtual bool doPreWork(uchar* data, int width, int height);
    virtual bool doPreWork(int width, int height, const QString& vertexPath, const QString& fragmentPath);
    virtual void releaseGlObjects();
    virtual void releaseTextures();
    virtual void releaseShareTextures();

    // On the thread that made the context, at the end of a stop path:
    // releases the worker's textures, buffers, framebuffers and programs with
    // the context current, then the context. The worker then holds no GL
    // state, and may be deleted on any thread.
    void releaseContext();
    // A worker is a surface, and Qt destroys surfaces on the application's
    // thread: from any other thread the worker is queued and deleted there.
    static void dispose(OpenglWorkerBase* worker);
    // Application's thread: deletes the workers queued by dispose().
    static void deleteDisposed();

public slots:
    virtual void onClearAll();

signals:
    void clearAll();

public:
    virtual void readFbo(int width, int height, uchar* dst);
    virtual bool initOpenGL(int width, int height);
    virtual bool initOpenGL(int width, int height, const QString& vertexPath, const QString& fragmentPath);
    virtual void renderImage(const QImage& image, bool flag);
    virtual bool createShader(const QString& vertexPath, const QString& fragmentPath);
    virtual bool createShaders();
    virtual bool createRenderShader(const QString& vertexPath, const QString& fragmentPath);
    virtual void createFbos(int width, int height);
    virtual void clearFbos(int width, int height);
    virtual void beforeRead(uchar* data, int width, int height);
    virtual void afterRead(uchar* data, int width, int height);
    virtual void allocatePackBuffers(int width, int height);
    virtual void recreateUnpackBuffers();
    virtual void readFboToBuffer(QOpenGLFramebufferObject* source, uchar* dst, int width, int height, bool hasAlpha);
    virtual void uploadTexture(uchar* data, bool hasAlpha);
    virtual void uploadTextureByPbo(int unit, const QImage& image);
    // The picture into the input texture on unit 0, left bound there; with
    // `mipmaps` its smaller levels are made again from it for the draw to
    // read, without them the draw reads level 0 only.
    virtual void bindQtTexture(const QImage& image, bool mipmaps = true);
    virtual GLuint createMipmapTexture(const QImage& image);
    virtual void resize(int width, int height);
    virtual void createTextures();
    virtual void initGlState();
    virtual bool initContext();
    virtual void createShareTextures(QOpenGLContext* shareWith, int width, int height);
    virtual void renderTexturedMesh(QOpenGLFramebufferObject* target, const QImage& image, bool useShareTexture,
                                    TextureExchange* buffer);
    virtual void renderMeshes(QOpenGLFramebufferObject* target);

    // --- plain accessors ---
    bool isGlInited() const { return glInited; }
    void setTextureBuffer(TextureExchange* buffer) { textureBuffer = buffer; }
    void setMergeTextureBuffer(TextureExchange* buffer) { mergeTextureBuffer = buffer; }
    void setShareContext(QOpenGLContext* context) { shareContext = context; }
    void setClip(bool flag)
    {
        isClip = flag;
        isClipPerspect = flag;
    }
    void getClipInfo(bool* flag, int* width, int* height) const
    {
        *flag = isClip;
        *width = clipWidth;
        *height = clipHeight;
    }
    void getReadSize(int* width, int* height) const
    {
        *width = readWidth;
        *height = readHeight;
    }
    // Ends the GL work of one call: releases the context from this thread,
    // and with it the turn at the driver that makeCurrent took.
    virtual void doneCurrent();
    // Gives back the context and the driver's turn if a failed step left
    // them held. Called at the end of each step of a pipeline.
    void endGlTurn();

    QOpenGLContext* glContext() const { return context; }
    int getFrameWidth() const { return frameWidth; }
    int getFrameHeight() const { return frameHeight; }
    bool isFirstFrame() const { return firstFrame; }
    QOpenGLFramebufferObject* frameFbo() const { return fbo; }
    QOpenGLFramebufferObject* backFbo() const { return fboBack; }

protected:
    // makeCurrent of the worker's context on its own surface, after taking
    // the turn at the driver (base/DriverLock.h) once for this worker.
    bool makeCurrent();
    // Waits until what the context has drawn so far is rasterized, with the
    // driver's turn given back meanwhile: other contexts bin and queue their
    // frames while the rasterizer threads draw this one, and the read or
    // copy that follows finds nothing left to wait for. The caller holds no
    // lock but the turn and perhaps the shared texture lock.
    void settleOutsideTurn();
    // Deletes the programs and texture wrappers of the class. With the
    // context current their GL names go too; without, only the wrappers do,
    // and the names go with the context.
    virtual void deleteOwnGlObjects();

    ShaderWorker* shader = nullptr;
    ShaderWorker* renderShader = nullptr;
    bool glInited = false;
    bool glInitedByPaths = false;
    int frameWidth = 0;
    int frameHeight = 0;
    int readWidth = 0;
    int readHeight = 0;
    int clipWidth = 0;
    int clipHeight = 0;
    int bytesPerPixel = 4;
    GLuint textures[3] = {0, 0, 0};
    float texelWidth = 0.0f;
    float texelHeight = 0.0f;
    QOpenGLBuffer packBufferA{QOpenGLBuffer::PixelPackBuffer};
    QOpenGLBuffer packBufferB{QOpenGLBuffer::PixelPackBuffer};
    QOpenGLBuffer unpackBufferA{QOpenGLBuffer::PixelUnpackBuffer};
    QOpenGLBuffer unpackBufferB{QOpenGLBuffer::PixelUnpackBuffer};
    QOpenGLBuffer clipPackBufferA{QOpenGLBuffer::PixelPackBuffer};
    QOpenGLBuffer clipPackBufferB{QOpenGLBuffer::PixelPackBuffer};
    QOpenGLBuffer spareBuffer{QOpenGLBuffer::PixelPackBuffer};
    QOpenGLBuffer packBufferC{QOpenGLBuffer::PixelPackBuffer};
    QOpenGLBuffer packBufferD{QOpenGLBuffer::PixelPackBuffer};
    QOpenGLBuffer* readBuffer = nullptr;
    QOpenGLBuffer* readBufferBack = nullptr;
    QOpenGLBuffer* uploadBuffer0 = nullptr;
    QOpenGLBuffer* uploadBuffer1 = nullptr;
    QOpenGLBuffer* reserveBuffer0 = nullptr;
    QOpenGLBuffer* reserveBuffer1 = nullptr;
    QOpenGLContext* context = nullptr;
    bool holdsDriverTurn = false;
    QOpenGLFramebufferObject* firstFbo = nullptr;
    QOpenGLFramebufferObject* fbo = nullptr;
    QOpenGLFramebufferObject* fboBack = nullptr;
    QOpenGLFramebufferObject* clipFbo = nullptr;
    QOpenGLFramebufferObject* clipRotateFbo = nullptr;
    QString vertexPath;
    QString fragmentPath;
    bool uploadIndex = true;
    bool firstFrame = true;
    QOpenGLContext* shareContext = nullptr;
    int channelId = 0;
    int sceneId = 0;
    TextureExchange* textureBuffer = nullptr;
    TextureExchange* mergeTextureBuffer = nullptr;
    bool isClip = false;
    bool isClipPerspect = false;
    int rotationZ = 0;
    int inputTexWidth = 0;
    int inputTexHeight = 0;
    bool inputTexHasAlpha = false;
    QVector<WorkerMeshRecord> meshes;
    QVector<WorkerMeshTexture> meshTextures;
    QOpenGLTexture* inputTexture = nullptr;
    // Frame state of the ping-pong passes: false while fbo holds the current
    // picture, true while fboBack does.
    bool pingPong = false;
    // The largest side a texture and a framebuffer of the context can have,
    // read at the first frame; and the last frame size refused for it, so
    // that a flood of such frames is reported once.
    int maxFrameSide = 0;
    QSize refusedFrame;

    // Pixel buffers in the order the destruction paths walk them: the base's
    // nine, then those a subclass adds for reads of its own (and takes out
    // again in its destructor, as its members go before the base's part).
    std::vector<QOpenGLBuffer*> pixelBuffers;
    static constexpr size_t kBasePixelBuffers = 9;

    // The framebuffer that holds the frame's result, and its size: the
    // turned clip, else the clip, else the frame. A clip framebuffer that
    // isn't there leaves the choice to the next.
    struct ResultFbo {
        QOpenGLFramebufferObject* fbo;
        int width;
        int height;
        bool clipped;
    };
    ResultFbo resultFbo() const;
};
