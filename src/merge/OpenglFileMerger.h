#pragma once
// The GPU worker of a scene: draws the channels' pictures into one frame, over
// a background colour and under an optional overlay (graffiti) picture, and
// reads the frame back for the host.

#include <map>
#include <memory>
#include <set>
#include <vector>

#include <QColor>
#include <QImage>
#include <QList>
#include <QMutex>

#include "gpu/OpenglWorkerBase.h"
#include "gpu/PixelReadback.h"
#include "lumen_fx/ImageFilterTypes.h"

class QOpenGLTexture;
class ShaderWorker;
class TextureExchange;

class OpenglFileMerger : public OpenglWorkerBase {
    Q_OBJECT
public:
    explicit OpenglFileMerger(int sceneId);
    ~OpenglFileMerger() override;

    using BufferMap = std::map<int, std::shared_ptr<TextureExchange>>;
    // Replaces the map of channel buffers. Any thread: a merge in progress
    // goes on with the map it started with, and keeps its buffers alive.
    void setTextureBuffers(BufferMap buffers);

    // Makes one frame. The list order is the drawing order: a later channel
    // covers an earlier one. Rectangles are in picture coordinates, y from the
    // top.
    void mergeImages(const QList<_channel_merge_param>& params, int width, int height, const QColor& background,
                     const QImage& graffiti);

    // Reads the frame without overlay. Not synchronous: the result is one
    // frame old, except for the first read after a size change.
    virtual void readLastFboByAlpha(uchar* target, int width, int height, bool withAlpha, bool synchronous);
    // The same for the frame with overlay.
    void readFinalImage(uchar* target, int width, int height, bool withAlpha, bool synchronous);
    // Whether the last of these reads wrote its target (it writes nothing
    // before the first frame is drawn, or when the context can't be made
    // current).
    bool lastReadWrote() const { return readWrote; }
    // How many channels the last frame composed drew a picture of.
    int lastChannelsDrawn() const { return channelsDrawn; }

    void releaseTextures() override;
    bool createShaders() override;
    void createFbos(int width, int height) override;
    void allocatePackBuffers(int width, int height) override;
    void resize(int width, int height) override;
    void createTextures() override;

    ShaderWorker* mergeProgram() const { return mergeShader; }
    // Picture textures held between merges: channels drawn from pictures, the overlay.
    size_t heldPictureTextures() const { return channelTextures.size() + (graffitiTexture ? 1 : 0); }

protected:
    void deleteOwnGlObjects() override;

    // The framebuffer roles, on members of the base.
    QOpenGLFramebufferObject* composeFbo() const { return fboBack; }
    QOpenGLFramebufferObject* mergedFbo() const { return fbo; }
    QOpenGLFramebufferObject* finalFbo() const { return firstFbo; }

    // One read path: its buffers and its first-read flag.
    void readFramebuffer(QOpenGLFramebufferObject* source, readback::PathBuffers& path, bool& firstRead,
                         uchar* target, int width, int height, bool withAlpha, bool synchronous);
    // The steps of a merge.
    bool shareHandshakeDone(const QList<_channel_merge_param>& params, const BufferMap& buffers);
    struct MergeInputs;
    static MergeInputs inputsOf(const QList<_channel_merge_param>& params, const BufferMap& buffers, int width,
                                int height, const QColor& background, const QImage& graffiti);
    // Makes the context current and the frame ready at the size; false,
    // with the context released, where it can't.
    bool beginFrame(int width, int height);
    // The background and the channels, in list order, into the compose framebuffer.
    void composeChannels(const QList<_channel_merge_param>& params, const BufferMap& buffers, int width, int height,
                         const QColor& background);
    // Draws one channel into the compose framebuffer; true if drawn from a picture.
    bool drawChannel(const _channel_merge_param& param, TextureExchange* buffer, int width, int height);
    void dropTexturesExcept(const std::set<int>& channelIds);
    // Copies the composed frame into target.
    void copyComposed(QOpenGLFramebufferObject* target);
    void drawOverlay(const QImage& graffiti);
    // Uploads a picture into the texture slot on the given unit and leaves it bound.
    void uploadPicture(QOpenGLTexture*& texture, const QImage& image, GLenum unit, QImage::Format bgraFormat,
                       bool mipmaps);
    // Draws one picture placed by the entry's rectangle, fitted and centred.
    void placePicture(int pictureWidth, int pictureHeight, const QRect& rect, double angle, int width, int height);
    void drawBackground(int width, int height, const QColor& background);

    QMutex buffersMutex;
    BufferMap textureBuffers;
    std::map<int, QOpenGLTexture*> channelTextures;
    QOpenGLTexture* graffitiTexture = nullptr;
    ShaderWorker* mergeShader = nullptr;
    QImage backgroundImage;
    // One per read path: the first read after a size change takes the buffer
    // that it has just filled. [0] merged frame, [1] final frame.
    bool firstReadFlags[4] = {true, true, true, true};
    bool readWrote = false;
    bool recordPictures = false;
    QList<_channel_merge_param> recordedParams;
    int channelsDrawn = 0;
    bool useSharedTextures = true;
    int backgroundTexWidth = 0;
    int backgroundTexHeight = 0;
    // The pack buffers of the two read paths: the merged and the final frame.
    readback::PathBuffers mergedReads;
    readback::PathBuffers finalReads;

    // What the last frame was drawn from: the request and, for each channel,
    // its buffer and the buffer's count of changes.
    struct ChannelInput {
        int channelId;
        QRect rect;
        double rotation;
        const TextureExchange* buffer;
        quint64 generation;
        bool operator==(const ChannelInput& o) const
        {
            return channelId == o.channelId && rect == o.rect && rotation == o.rotation && buffer == o.buffer
                && generation == o.generation;
        }
    };
    struct MergeInputs {
        int width = 0, height = 0;
        QRgb background = 0;
        qint64 graffiti = 0;
        std::vector<ChannelInput> channels;
        bool operator==(const MergeInputs& o) const
        {
            return width == o.width && height == o.height && background == o.background && graffiti == o.graffiti
                && channels == o.channels;
        }
    };
    MergeInputs lastInputs;
};
