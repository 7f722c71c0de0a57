// A host that ends its process while the engine works: scenes merging, channels
// with face effects, picture settings and a sticker, one scene channel still
// waiting for its first merge, one channel outside any merge. The last line on stdout before the exit is
// "exiting <steady clock in ns>", so that a caller can time the exit itself.
//
//   lumen_fx_exit_host return       the application goes away with main's scope
//   lumen_fx_exit_host exit         exit(0) on the main thread, application alive
//   lumen_fx_exit_host delete-app   the application is deleted, then main returns
//   lumen_fx_exit_host busy-exit    exit(0) while a host thread still feeds frames
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QGuiApplication>
#include <QImage>
#include <QThread>

#include <lumen_fx/OpenglImageManager.h>

namespace {

struct Engine {
    int faceScene = -1, plainScene = -1, plainChannel = -1, waitingChannel = -1, loneChannel = -1;
    QList<int> faceChannels;
};

// Face channels with all four effects, the picture pass and a sticker.
Engine build(OpenglImageManager* m)
{
    Engine e;
    e.faceScene = m->genSceneFilters();
    e.plainScene = m->genSceneFilters();
    _strength_param strength{80, true};
    _slim_face_param slim{80};
    _basic_image_param basic{};
    basic.alpha = 1, basic.centerYOffset = 0.5, basic.isRoundCamera = 1;
    std::string sticker = LUMEN_STICKER_DIR "/glasses01.png";
    for (int i = 0; i < 3; ++i) {
        const int c = m->genChannelFilters(e.faceScene, true);
        for (ImageFilterType type : {SMOOTH, REDLIPS, WHITENING})
            m->addChannelImageFilter(e.faceScene, c, type, &strength);
        m->addChannelImageFilter(e.faceScene, c, SLIMFACE, &slim);
        m->addChannelImageFilter(e.faceScene, c, BASICIMAGE, &basic);
        m->addChannelImageFilter(e.faceScene, c, STICKER, &sticker);
        e.faceChannels << c;
    }
    e.plainChannel = m->genChannelFilters(e.plainScene, true);
    e.waitingChannel = m->genChannelFilters(e.plainScene, true);  // never listed in a merge
    e.loneChannel = m->genChannelFilters(e.plainScene, false);
    return e;
}

void feedOnce(OpenglImageManager* m, const Engine& e, const QImage& picture)
{
    QList<_channel_merge_param> faces;
    for (int i = 0; i < e.faceChannels.size(); ++i) {
        m->sendChannelFrame(e.faceScene, e.faceChannels[i], picture, false, true, false);
        faces.push_back({e.faceChannels[i], QRect(i * 213, 0, 213, 240), 0, {}});
    }
    m->mergeImages(e.faceScene, faces, 640, 240, Qt::black, QImage(), QImage());
    for (int c : {e.plainChannel, e.waitingChannel, e.loneChannel})
        m->sendChannelFrame(e.plainScene, c, picture, false, true, false);
    m->mergeImages(e.plainScene, {{e.plainChannel, QRect(0, 0, 320, 240), 0, {}}}, 320, 240, Qt::black, QImage(),
                   QImage());
    QImage merged;
    m->getMergeImg(e.faceScene, merged);
}

}  // namespace

int main(int argc, char** argv)
{
    const std::string mode = argc > 1 ? argv[1] : "return";
    if (mode != "return" && mode != "exit" && mode != "delete-app" && mode != "busy-exit") {
        std::fprintf(stderr, "unknown mode '%s'\n", mode.c_str());
        return 2;
    }
    auto* app = new QGuiApplication(argc, argv);
    QImage picture(LUMEN_SAMPLE_PICTURE);
    picture = picture.scaled(320, 320).convertToFormat(QImage::Format_RGBA8888);

    OpenglImageManager* m = OpenglImageManager::instance();
    const Engine engine = build(m);

    // Frames and merges come from a host thread while the main thread serves
    // its event loop, as in an application.
    std::atomic<bool> feeding{true};
    std::thread feeder([&] {
        while (feeding) {
            feedOnce(m, engine, picture);
            QThread::msleep(30);
        }
    });
    const QDeadlineTimer settled(700);
    while (!settled.hasExpired()) {
        QCoreApplication::processEvents();
        QThread::msleep(5);
    }

    if (mode == "busy-exit") {
        feeder.detach();
    } else {
        feeding = false;
        feeder.join();
    }
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    std::printf("exiting %lld\n", static_cast<long long>(std::chrono::nanoseconds(now).count()));
    std::fflush(stdout);
    if (mode == "exit" || mode == "busy-exit")
        std::exit(0);
    if (mode == "delete-app") {
        delete app;
        // The engine has let go of everything; the process goes on without it.
        QThread::msleep(50);
        return 0;
    }
    std::unique_ptr<QGuiApplication> scope(app);
    return 0;
}
