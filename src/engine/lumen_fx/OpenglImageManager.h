#pragma once
// lumen_fx: real-time GPU effects on video pictures, and composition of the
// pictures of several channels into one.
//
// A host gets the one instance, makes a scene, makes channels in that scene,
// sets their filters, feeds them pictures, asks the scene to merge and fetches
// the merged picture. Scenes and channels are known by integer ids.
//
// Threads. The host's QGuiApplication must exist before the first scene or
// channel; without one, genSceneFilters and genChannelFilters give -1 and a
// warning. Every operation may be called from any thread, at any time:
// - genSceneFilters and genChannelFilters make their objects on the
//   application's thread, where Qt makes offscreen surfaces. Called from
//   another thread, they hand the work to the application's thread and wait
//   for it, up to 5 s; if that thread takes no events meanwhile (no running
//   event loop), they give -1 and a warning. No lock of the engine is held
//   while they wait, so the application's thread may itself be calling the
//   engine.
// - The other operations return at once: pictures, parameters and merge
//   requests are handed over, and the newest one of each kind wins.
// Each scene and each channel runs on a thread of its own, with its own
// OpenGL context.
//
// The end. Scenes and channels live until the application or the process
// ends; there is no call to remove one. When the QGuiApplication is destroyed
// (a return from main, or a delete), and when the process exits otherwise
// (exit() with the application alive), the engine stops every channel and
// then every scene on its own thread, releases their GL objects there, and
// waits for them (one frame of work; 10 s at most) before Qt and the GL
// driver go away. After an exit nothing new is made; after the application's
// destruction a new QGuiApplication can make new scenes.

#include <QColor>
#include <QImage>
#include <QList>

#include "ImageFilterTypes.h"

#define LUMEN_FX_EXPORT __attribute__((visibility("default")))

class OpenglImageManagerPrivate;

class LUMEN_FX_EXPORT OpenglImageManager {
public:
    static OpenglImageManager* instance();

    // Makes a scene and returns its id.
    int genSceneFilters() const;
    // Makes a channel in a scene; returns its id, or -1 for an unknown scene.
    int genChannelFilters(int sceneId, bool isSceneChannel) const;
    // Adds a filter to a channel; `para` points at the record of the type.
    void addChannelImageFilter(int sceneId, int channelId, ImageFilterType type, void* para) const;
    // Sets the parameters of a channel's filter, adding the filter if needed.
    void setChannelFilterParas(int sceneId, int channelId, ImageFilterType type, FilterParaType paraType,
                               void* para) const;
    // Hands a picture to a channel. The newest picture replaces an older one.
    void sendChannelFrame(int sceneId, int channelId, const QImage& image, bool skipFaceFilters, bool isChanged,
                          bool isDirect) const;
    // Asks a scene to draw the listed channels into one picture of the size.
    void mergeImages(int sceneId, const QList<_channel_merge_param>& params, int width, int height,
                     const QColor& background, const QImage& graffiti, const QImage& unusedImage) const;
    // Copies the scene's last merged picture into `image` (Format_BGR888).
    bool getMergeImg(int sceneId, QImage& image) const;

private:
    OpenglImageManager();
    ~OpenglImageManager();
    OpenglImageManager(const OpenglImageManager&) = delete;
    OpenglImageManager& operator=(const OpenglImageManager&) = delete;

    OpenglImageManagerPrivate* d;
    friend OpenglImageManagerPrivate* imageManagerPrivate(const OpenglImageManager* manager);
};
