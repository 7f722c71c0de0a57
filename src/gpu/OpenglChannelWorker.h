#pragma once
// The GPU worker of one channel. It draws a channel's passes, ping-pongs
// between its two frame framebuffers, and leaves the result in a framebuffer
// from which it goes out either as a copy into the scene's shared texture
// (readFromGPU) or read back into a picture (readLastFboByAlpha).

#include <map>
#include <vector>

#include <QImage>

#include <opencv2/core/types.hpp>

#include "face/KeyPointLayout.h"
#include "filters/StickerInfo.h"
#include "gpu/OpenglWorkerBase.h"
#include "gpu/PictureGeometry.h"
#include "lumen_fx/ImageFilterTypes.h"

class BeautyFilterBase;
class QOpenGLFramebufferObject;
class QOpenGLTexture;
class ShaderWorker;
class TextureExchange;

class OpenglChannelWorker : public OpenglWorkerBase {
    Q_OBJECT
public:
    using FilterMap = std::map<ImageFilterType, BeautyFilterBase*>;

    OpenglChannelWorker(int channelId, int sceneId);
    ~OpenglChannelWorker() override;

    // --- what the channel pipeline calls ---
    void passThrough(QImage& image, bool useShareTexture);
    void copyToShare(QImage& image);
    void renderFaceFilters(const FilterMap& filters, QImage& image, bool useShareTexture, bool firstFaceOnly,
                           bool toImage);
    void renderSticker(const FilterMap& filters, QImage& image, bool useShareTexture, bool unused, bool toImage);
    void renderBasicImage(const FilterMap& filters, QImage& image, bool noRotation, bool useShareTexture);
    bool createSceneShareTexture(TextureExchange* buffer);
    bool readFromGPU(TextureExchange* buffer);
    bool isFrameSkipped() const { return frameSkipped; }
    void setAllowInFrame(bool flag) { allowInFrame = flag; }

    // --- replaced operations of the base ---
    // Each frame starts unskipped: the gate of the picture pass decides anew.
    bool doPreWork(uchar* data, int width, int height) override;
    using OpenglWorkerBase::doPreWork;
    void releaseTextures() override;
    bool initOpenGL(int width, int height) override;
    using OpenglWorkerBase::initOpenGL;
    bool createShaders() override;
    void createFbos(int width, int height) override;
    void clearFbos(int width, int height) override;
    void createTextures() override;
    virtual void readLastFboByAlpha(uchar* dst, int width, int height, bool hasAlpha);

    // --- passes ---
    // The first pass: the picture (or the share texture) into target.
    void drawInput(QOpenGLFramebufferObject* target, const QImage& image, bool useShareTexture, bool premul);
    // A copy pass of a texture into target through program.
    void drawTexture(QOpenGLFramebufferObject* target, GLuint texture, ShaderWorker* program, bool premul);
    // Copies fbo into the buffer's first (write) texture, at frame size.
    void copyFboToShare();
    // The face passes in their fixed order; the result ends in fbo. Whether
    // the picture is opaque comes from renderFaceFilters, which calls it.
    void applyFaceFilters(const FilterMap& filters, const QImage& image, bool useShareTexture, bool firstFaceOnly);
    void drawSmooth(BeautyFilterBase* filter, bool premul);
    void drawSlimFace(BeautyFilterBase* filter, bool firstFaceOnly, bool premul);
    void drawFaceArea(BeautyFilterBase* filter, bool premul);
    void drawWhitening(BeautyFilterBase* filter, bool premul);
    // On an opaque picture (the default) the face passes and the sticker work
    // only where they can change a pixel, in place; off, every pass draws the
    // whole frame. Both give the same picture.
    void setRegionPasses(bool on) { regionPasses = on; }
    // Whether the frame's passes may work in place: region passes are on and
    // the picture comes from `image`, whose every pixel is opaque. With alpha
    // 1 the premultiplying copies of the chain change nothing, so they are
    // left out and each pass touches only its region.
    bool inPlaceFrame(const QImage& image, bool useShareTexture) const;
    bool lastFrameInPlace() const { return inPlace; }
    // Whether the face and sticker renders copy their result into the share
    // texture for a later pass of the frame to take (the default).
    void setShareCopyWanted(bool wanted) { shareCopyWanted = wanted; }

    // --- geometry of the picture pass ---
    // Colour, scale, mirror and perspective of the picture into fbo, then the
    // clip passes when the filter clips or makes a round camera. A frame that
    // fails the page gate is left out (isFrameSkipped).
    void drawBasicImage(const QImage& image, BeautyFilterBase* filter, bool noRotation, bool useShareTexture);
    // Cuts the channel's box out of fbo into clipFbo, and with a rotation in
    // x or y turns it in perspective into clipRotateFbo.
    void drawClip(BeautyFilterBase* filter, float rotationX, float rotationY, bool round);
    // The matrices of the first clip pass: the picture scaled to the box and
    // moved by the centre offsets.
    void placeClip(float centerX, float centerY, float scale);
    // Remakes the clip framebuffers and their pack buffers at a new size.
    void rebuildClipFbos(int width, int height);

    // --- the sticker pass ---
    // Each face of the filter gets its sticker, drawn over the picture so far.
    void drawStickers(BeautyFilterBase* filter, bool premul);
    // One face: the picture so far copied to the other framebuffer, the
    // sticker placed and blended over it. False where it can't be placed.
    bool drawSticker(const QImage& picture, const StickerInfo& info, const std::vector<int32_t>& keyPoints,
                     const cv::Rect& rect, const std::vector<float>& angles, bool premul);
    // The sticker picture into its texture on unit 1, left bound there.
    void uploadSticker(const QImage& picture, bool hasAlpha);
    // The matrices of a sticker draw from the record, the face's 98 points and
    // its angles (pitch, yaw, roll); the eye distance is smoothed against the
    // face drawn before. False, with identity matrices, without 98 points.
    bool positionSticker(const StickerInfo& info, const std::vector<int32_t>& keyPoints,
                         const std::vector<float>& angles);
    ShaderWorker* stickerShader() const { return stickerProgram; }

    // The programs, for checks.
    ShaderWorker* basicShader() const { return basicProgram; }
    ShaderWorker* imageShader() const { return imageProgram; }
    bool isPingPong() const { return pingPong; }

protected:
    // 98 key points as x, y.
    static constexpr int kFacePointFloats = keypoints::kFloats;
    // The frame's pixels for doPreWork, which only checks that there are some:
    // bits() would detach the host's shared picture, a copy of it every frame.
    static uchar* frameData(const QImage& image) { return const_cast<uchar*>(image.constBits()); }
    // Whether every pixel of the picture is opaque. 32-bit pixels with alpha
    // in the top byte of their word, as the engine hands them in, are looked
    // at; pictures of other kinds with an alpha channel count as not opaque.
    static bool allOpaque(const QImage& image);
    static BeautyFilterBase* findFilter(const FilterMap& filters, ImageFilterType type);

    // The steps of the picture pass: the picture into fbo with its colour,
    // corners, scale, mirror and perspective; its uniforms of shape.
    void drawPicture(const QImage& image, BeautyFilterBase* filter, const picturegeometry::PictureShape& shape,
                     float rotationX, float rotationY, bool useShareTexture);
    void setShapeUniforms(const picturegeometry::PictureShape& shape, int round, bool rotated);
    // Whether clip framebuffers of the size can be made; a refused size is
    // reported once and leaves the frame out.
    bool acceptClipSize(const QSize& size);
    // The first clip pass: fbo cut to the box, into clipFbo.
    void drawClipBox(const picturegeometry::ClipBox& clip, float centerX, float centerY, float scale);
    // The second: clipFbo turned in perspective into clipRotateFbo.
    void drawClipTurned(float rotationX, float rotationY);

    // The picture so far: fbo unless the last pass drew into fboBack.
    QOpenGLFramebufferObject* currentFbo() const { return pingPong ? fboBack : fbo; }
    QOpenGLFramebufferObject* otherFbo() const { return pingPong ? fbo : fboBack; }
    // Brings the result back into fbo after an odd number of passes.
    void settleInFbo();
    // The same at the end of a chain: in place, by swapping the two.
    void settleResult();
    // The output step of the face and sticker renders.
    void outputStep(QImage& image, bool toImage);
    // The copy pass of the chain: current into the other framebuffer, flip.
    void copyPassAndFlip();
    // Unbinds the picture a pass drew from: the shared write texture, or the
    // picture's own texture on unit 0.
    void unbindInput(bool fromShare);
    // One pass of `program` over `region` (rectangles of frame pixels) of the
    // current framebuffer: the region grown by `margin` (what the shader may
    // read around a pixel) is copied into the other framebuffer, and the pass
    // draws from there back, clipped to each rectangle. The rest of the
    // picture stays as it is.
    void drawInPlace(ShaderWorker* program, const std::vector<QRect>& region, int margin);
    // The first pass of an opaque frame: the picture's bytes straight into
    // target's texture. False, with nothing done, for pictures of other
    // formats or sizes.
    bool uploadInto(QOpenGLFramebufferObject* target, const QImage& image);
    // Draws what is queued before a copy into a texture (see there).
    void flushOutsideTextureLock();
    // Copies `area` of the current framebuffer into the other one.
    void copyArea(const QRect& area);
    void deletePrograms();
    void deleteOwnGlObjects() override;

    ShaderWorker* basicProgram = nullptr;
    ShaderWorker* redLipsProgram = nullptr;
    ShaderWorker* smoothProgram = nullptr;
    ShaderWorker* whiteningProgram = nullptr;
    ShaderWorker* slimFaceProgram = nullptr;
    ShaderWorker* spareImageProgram = nullptr;
    ShaderWorker* stickerProgram = nullptr;
    ShaderWorker* imageProgram = nullptr;
    // One further program slot behind imageProgram; only deleted.
    ShaderWorker* reserveProgram = nullptr;
    QOpenGLTexture* stickerTexture = nullptr;
    std::vector<cv::Rect> lastRects;
    std::vector<std::vector<int>> lastPoints;
    std::vector<std::vector<float>> lastAngles;
    bool allowInFrame = true;
    bool frameSkipped = false;
    int sourceWidth = 1280;
    int sourceHeight = 720;
    int stickerTexWidth = 0;
    int stickerTexHeight = 0;
    // The last clip size refused, so that a bad size is reported once.
    QSize refusedClip;
    bool regionPasses = true;
    // Set per frame: the passes of this frame work in place.
    bool inPlace = false;
    // The last face pass's picture was opaque.
    bool faceOutputOpaque = false;
    bool shareCopyWanted = true;
    // Set around doPreWork for a frame that will be drawn in place.
    bool clearSkipped = false;
};
