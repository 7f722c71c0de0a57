// A host that ends its process while the engine works: scenes merging, channels
// filtering faces, one scene channel still waiting for its first merge, one
// channel outside any merge. The last line on stdout before the exit is
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
#include <cstring>
#include <memory>
#include <thread>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QGuiApplication>
#include <QImage>
#include <QThread>

#include <lumen_fx/OpenglImageManager.h>

namespace {

long long steadyNs()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

struct Engine {
    int faceScene = -1;
    int plainScene = -1;
    QList<int> faceChannels;
    int plainChannel = -1;
    int waitingChannel = -1;
    int loneChannel = -1;
};

Engine build(OpenglImageManager* m)
{
    Engine e;
    e.faceScene = m->genSceneFilters();
    e.plainScene = m->genSceneFilters();
    for (int i = 0; i < 3; ++i) {
        const int c = m->genChannelFilters(e.faceScene, true);
        _strength_param strength{80, true};
        _slim_face_param slim{80};
        m->addChannelImageFilter(e.faceScene, c, SMOOTH, &strength);
        m->addChannelImageFilter(e.faceScene, c, REDLIPS, &strength);
        m->addChannelImageFilter(e.faceScene, c, WHITENING, &strength);
        m->addChannelImageFilter(e.faceScene, c, SLIMFACE, &slim);
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
        _channel_merge_param p;
        p.channelId = e.faceChannels[i];
        p.rect = QRect(i * 213, 0, 213, 240);
        faces << p;
    }
    m->mergeImages(e.faceScene, faces, 640, 240, Qt::black, QImage(), QImage());
    m->sendChannelFrame(e.plainScene, e.plainChannel, picture, false, true, false);
    m->sendChannelFrame(e.plainScene, e.waitingChannel, picture, false, true, false);
    m->sendChannelFrame(e.plainScene, e.loneChannel, picture, false, true, false);
    _channel_merge_param plain;
    plain.channelId = e.plainChannel;
    plain.rect = QRect(0, 0, 320, 240);
    m->mergeImages(e.plainScene, {plain}, 320, 240, Qt::black, QImage(), QImage());
    QImage merged;
    m->getMergeImg(e.faceScene, merged);
}

void announceExit()
{
    std::printf("exiting %lld\n", steadyNs());
    std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv)
{
    const char* mode = argc > 1 ? argv[1] : "return";
    if (std::strcmp(mode, "return") != 0 && std::strcmp(mode, "exit") != 0 && std::strcmp(mode, "delete-app") != 0
        && std::strcmp(mode, "busy-exit") != 0) {
        std::fprintf(stderr, "unknown mode '%s'\n", mode);
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
    QElapsedTimer timer;
    timer.start();
    while (timer.elapsed() < 700) {
        QCoreApplication::processEvents();
        QThread::msleep(5);
    }

    if (std::strcmp(mode, "busy-exit") == 0) {
        feeder.detach();
        announceExit();
        std::exit(0);
    }
    feeding = false;
    feeder.join();
    if (std::strcmp(mode, "exit") == 0) {
        announceExit();
        std::exit(0);
    }
    if (std::strcmp(mode, "delete-app") == 0) {
        announceExit();
        delete app;
        // The engine has let go of everything; the process goes on without it.
        QThread::msleep(50);
        return 0;
    }
    announceExit();
    std::unique_ptr<QGuiApplication> scope(app);
    return 0;
}
