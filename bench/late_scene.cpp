// How long a scene first fed while other scenes are busy takes to show its
// first picture, through the public interface as a host runs it.
//
// The load: three scenes of four channels each, every channel with skin
// smoothing, red lips, whitening and slim face on 1920x1080 frames of the
// portrait, all fed, merged and fetched 15 times a second by a thread of
// their own. Before the load starts, the program makes a number of late
// scenes, each with one channel; after a warm-up it feeds and merges them one
// after another, as a host does with a classroom that joins late: a fixed
// 1280x720 picture merged into 1280x720 over black every 150 ms, until the
// fetched picture shows the channel's picture. The program prints each late
// scene's wait and their median and longest.
//
// A first picture takes a chain of turns at the driver, each after the one
// before: the scene's context, the channel's context and shared texture, two
// frames of the channel (its first frame keeps the scene reading the picture
// it was given, which is none yet), a merge and its read-back. The late
// scene's and its channel's threads go first at each of those turns until the
// picture shows; each turn still waits for the one at work to end.
//
//   lumen_fx_late_scene [late scenes, 8] [load channels, 12]
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <thread>
#include <vector>

#include <QCoreApplication>
#include <QGuiApplication>
#include <QImage>
#include <QPainter>

#include <lumen_fx/OpenglImageManager.h>
#include "../examples/OpenglCheck.h"
#include "stress/ControlScenes.h"

namespace {

const int kLoadWidth = 1920;
const int kLoadHeight = 1080;
const int kChannelsPerScene = 4;
const double kWarmUpSeconds = 10.0;
const qint64 kGiveUpMs = 30000;

struct Load {
    OpenglImageManager* m = nullptr;
    std::vector<int> scenes;
    std::vector<std::vector<int>> channels;  // per scene
    std::vector<QImage> frames;              // per channel of a scene
    std::atomic<bool> stop{false};
};

void setUpLoad(Load& load, const QImage& portrait, int channelCount)
{
    load.m = OpenglImageManager::instance();
    for (int i = 0; i < kChannelsPerScene; ++i) {
        QImage frame(kLoadWidth, kLoadHeight, QImage::Format_RGBA8888);
        frame.fill(QColor(80 + 30 * i, 100, 120));
        const QImage face = portrait.scaled(900, 900, Qt::KeepAspectRatio, Qt::SmoothTransformation);
        QPainter(&frame).drawImage(300 + 200 * i, 90, face);
        load.frames.push_back(frame);
    }
    _strength_param smooth{60, true}, lips{60, true}, whitening{60, true};
    _slim_face_param slim{60};
    for (int made = 0; made < channelCount;) {
        const int scene = load.m->genSceneFilters();
        load.scenes.push_back(scene);
        load.channels.emplace_back();
        for (int i = 0; i < kChannelsPerScene && made < channelCount; ++i, ++made) {
            const int channel = load.m->genChannelFilters(scene, true);
            load.m->addChannelImageFilter(scene, channel, SMOOTH, &smooth);
            load.m->addChannelImageFilter(scene, channel, REDLIPS, &lips);
            load.m->addChannelImageFilter(scene, channel, WHITENING, &whitening);
            load.m->addChannelImageFilter(scene, channel, SLIMFACE, &slim);
            load.channels.back().push_back(channel);
        }
    }
}

// Feeds, merges and fetches every load scene 15 times a second.
void runLoad(Load& load)
{
    auto next = std::chrono::steady_clock::now();
    QImage merged;
    while (!load.stop.load()) {
        for (size_t s = 0; s < load.scenes.size(); ++s) {
            QList<_channel_merge_param> params;
            for (size_t i = 0; i < load.channels[s].size(); ++i) {
                load.m->sendChannelFrame(load.scenes[s], load.channels[s][i], load.frames[i], false, true, false);
                _channel_merge_param p;
                p.channelId = load.channels[s][i];
                p.rect = QRect(int(i % 2) * kLoadWidth / 2, int(i / 2) * kLoadHeight / 2, kLoadWidth / 2,
                               kLoadHeight / 2);
                params.append(p);
            }
            load.m->mergeImages(load.scenes[s], params, kLoadWidth, kLoadHeight, QColor(30, 30, 30), QImage(),
                                QImage());
            load.m->getMergeImg(load.scenes[s], merged);
        }
        next += std::chrono::milliseconds(66);
        std::this_thread::sleep_until(next);
    }
}

// Feeds and checks one late scene every 150 ms until it shows its picture.
qint64 firstPicture(stress::ControlScene& late)
{
    const auto start = std::chrono::steady_clock::now();
    auto next = start;
    while (late.firstShownMs() < 0) {
        late.feed();
        late.check(QString());
        QCoreApplication::processEvents();
        if (std::chrono::steady_clock::now() - start > std::chrono::milliseconds(kGiveUpMs))
            return -1;
        next += std::chrono::milliseconds(150);
        std::this_thread::sleep_until(next);
    }
    return late.firstShownMs();
}

}  // namespace

int main(int argc, char** argv)
{
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    if (qEnvironmentVariableIsEmpty("QT_LOGGING_RULES"))
        qputenv("QT_LOGGING_RULES", "*.info=false;*.debug=false");
    QGuiApplication app(argc, argv);
    if (!openglAvailable(argv[0]))
        return 1;
    const int lateCount = argc > 1 ? std::max(1, std::atoi(argv[1])) : 8;
    const int loadChannels = argc > 2 ? std::max(0, std::atoi(argv[2])) : 12;
    const QImage portrait(LUMEN_SAMPLE_PICTURE);
    if (portrait.isNull()) {
        std::fprintf(stderr, "cannot read %s\n", LUMEN_SAMPLE_PICTURE);
        return 1;
    }

    Load load;
    setUpLoad(load, portrait, loadChannels);
    std::vector<std::unique_ptr<stress::ControlScene>> late;
    for (int i = 0; i < lateCount; ++i)
        late.push_back(std::make_unique<stress::ControlScene>(
            load.m, stress::ControlPlan{QSize(1280, 720), QSize(1280, 720), QPoint(0, 0), qRgb(0, 0, 0), true},
            i % 8));
    std::thread loader(runLoad, std::ref(load));
    std::this_thread::sleep_for(std::chrono::duration<double>(kWarmUpSeconds));

    std::printf("late scenes first fed while %d channels in %zu scenes draw 1920x1080 frames with four face effects\n",
                loadChannels, load.scenes.size());
    std::vector<qint64> waits;
    for (int i = 0; i < lateCount; ++i) {
        const qint64 ms = firstPicture(*late[i]);
        if (ms < 0)
            std::printf("late scene %d: no picture in %lld s\n", i + 1, static_cast<long long>(kGiveUpMs / 1000));
        else
            std::printf("late scene %d: first picture after %lld ms\n", i + 1, static_cast<long long>(ms));
        std::fflush(stdout);
        waits.push_back(ms < 0 ? kGiveUpMs : ms);
    }
    load.stop = true;
    loader.join();
    std::sort(waits.begin(), waits.end());
    std::printf("first picture: median %lld ms, longest %lld ms\n", static_cast<long long>(waits[waits.size() / 2]),
                static_cast<long long>(waits.back()));
    std::fflush(stdout);
    return 0;
}
