// A classroom scene as a host runs it, through the public interface only:
// one scene, four channels with skin smoothing, red lips, whitening and slim
// face on 1280x720 camera frames at 15 a second, and one 1920x1080 merge asked
// for and fetched after every round of frames.
//
// Each frame carries a stamp, a grey square in its top left corner whose level
// changes from frame to frame; a merged picture is new when the stamp of any
// channel in it differs from the picture fetched before. The program prints
// new merged pictures a second, the frames of each channel seen a second, the
// process's CPU time, and the share of that time each group of threads took:
// the host (this program's own thread), the channels, the scene, the
// rasteriser's threads (the drawing of channels and scene alike), the face
// detectors' search threads and any other thread.
//
//   lumen_fx_classroom [seconds, 20] [channels, 4] [frames a second, 15] [last merged picture.png]
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include <unistd.h>

#include <QDir>
#include <QFile>
#include <QGuiApplication>
#include <QImage>
#include <QPainter>

#include <lumen_fx/OpenglImageManager.h>
#include "../examples/OpenglCheck.h"

namespace {

const int kFrameWidth = 1280;
const int kFrameHeight = 720;
const int kMergeWidth = 1920;
const int kMergeHeight = 1080;
const QRect kStamp(16, 16, 64, 64);

// The portrait in a camera frame: one large face, each channel's a little
// apart from the others' in place and background.
QImage cameraFrame(const QImage& portrait, int channel)
{
    QImage frame(kFrameWidth, kFrameHeight, QImage::Format_RGBA8888);
    frame.fill(QColor(90 + 20 * channel, 100, 110));
    QPainter painter(&frame);
    const QImage scaled = portrait.scaled(720, 720, Qt::KeepAspectRatio, Qt::SmoothTransformation);
    painter.drawImage((kFrameWidth - scaled.width()) / 2 + 40 * (channel - 2), 0, scaled);
    return frame;
}

int stampLevel(int frameNumber)
{
    return 40 + (frameNumber * 53) % 180;
}

// Busy time of each thread of this process, in seconds, by thread id, with
// the thread's name.
struct ThreadTime {
    std::string name;
    double seconds = 0;
};

std::map<int, ThreadTime> threadTimes()
{
    std::map<int, ThreadTime> out;
    const double tick = static_cast<double>(sysconf(_SC_CLK_TCK));
    for (const QString& entry : QDir("/proc/self/task").entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        QFile stat("/proc/self/task/" + entry + "/stat");
        if (!stat.open(QIODevice::ReadOnly))
            continue;
        const QByteArray line = stat.readAll();
        const int open = line.indexOf('('), close = line.lastIndexOf(')');
        if (open < 0 || close < open)
            continue;
        // Fields after the name: state is the 3rd field, utime the 14th, stime the 15th.
        const QList<QByteArray> fields = line.mid(close + 2).split(' ');
        if (fields.size() < 13)
            continue;
        ThreadTime t;
        t.name = line.mid(open + 1, close - open - 1).toStdString();
        t.seconds = (fields[11].toDouble() + fields[12].toDouble()) / tick;
        out[entry.toInt()] = t;
    }
    return out;
}

std::string groupOf(const std::string& name, bool isHost)
{
    if (isHost)
        return "host";
    if (name.rfind("lumen-channel", 0) == 0)
        return "channels";
    if (name.rfind("lumen-scene", 0) == 0)
        return "scene";
    if (name.rfind("kvodnnl-search", 0) == 0)
        return "face search";
    if (name.rfind("llvmpipe", 0) == 0)
        return "rasteriser";
    return "other (" + name + ")";
}

double processCpuSeconds()
{
    timespec t{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return t.tv_sec + t.tv_nsec / 1e9;
}

}  // namespace

int main(int argc, char** argv)
{
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    qputenv("QT_LOGGING_RULES", "*.info=false;*.debug=false");
    QGuiApplication app(argc, argv);
    if (!openglAvailable(argv[0]))
        return 1;
    const double seconds = argc > 1 ? std::max(2.0, std::atof(argv[1])) : 20.0;
    const int channelCount = argc > 2 ? std::max(1, std::min(9, std::atoi(argv[2]))) : 4;
    const double rate = argc > 3 ? std::max(1.0, std::atof(argv[3])) : 15.0;

    const QImage portrait(LUMEN_SAMPLE_PICTURE);
    if (portrait.isNull()) {
        std::fprintf(stderr, "cannot read %s\n", LUMEN_SAMPLE_PICTURE);
        return 1;
    }

    OpenglImageManager* manager = OpenglImageManager::instance();
    const int scene = manager->genSceneFilters();
    std::vector<int> channels;
    std::vector<QImage> frames;
    QList<_channel_merge_param> params;
    const int columns = channelCount <= 1 ? 1 : channelCount <= 4 ? 2 : 3;
    const int rows = (channelCount + columns - 1) / columns;
    for (int i = 0; i < channelCount; ++i) {
        const int channel = manager->genChannelFilters(scene, true);
        channels.push_back(channel);
        frames.push_back(cameraFrame(portrait, i));
        _strength_param smooth{60, true}, lips{60, true}, whitening{60, true};
        _slim_face_param slim{60};
        manager->addChannelImageFilter(scene, channel, SMOOTH, &smooth);
        manager->addChannelImageFilter(scene, channel, REDLIPS, &lips);
        manager->addChannelImageFilter(scene, channel, WHITENING, &whitening);
        manager->addChannelImageFilter(scene, channel, SLIMFACE, &slim);
        _channel_merge_param p;
        p.channelId = channel;
        p.rect = QRect((i % columns) * kMergeWidth / columns, (i / columns) * kMergeHeight / rows,
                       kMergeWidth / columns, kMergeHeight / rows);
        params.append(p);
    }
    const long hostTid = static_cast<long>(gettid());

    // Where each channel's stamp lands in the merged picture: the frame is
    // fitted into its cell and centred.
    std::vector<QPoint> stampAt;
    for (const _channel_merge_param& p : params) {
        const double k = std::min(double(p.rect.width()) / kFrameWidth, double(p.rect.height()) / kFrameHeight);
        const QPointF origin(p.rect.x() + (p.rect.width() - kFrameWidth * k) / 2,
                             p.rect.y() + (p.rect.height() - kFrameHeight * k) / 2);
        stampAt.push_back((origin + QPointF(kStamp.center()) * k).toPoint());
    }

    const int kPool = 8;
    std::vector<std::vector<QImage>> pool(channelCount);
    for (int i = 0; i < channelCount; ++i)
        for (int k = 0; k < kPool; ++k)
            pool[i].push_back(frames[i].copy());
    frames.clear();

    const auto interval = std::chrono::duration<double>(1.0 / rate);
    const double warmUp = 3.0;
    auto next = std::chrono::steady_clock::now();
    const auto start = next;
    std::vector<int> lastStamp(channelCount, -1);
    std::vector<int> channelNews(channelCount, 0);
    int newPictures = 0, fetched = 0, rounds = 0, copiedFrames = 0;
    bool measuring = false;
    std::map<int, ThreadTime> before;
    double cpuBefore = 0;
    std::chrono::steady_clock::time_point measureStart;
    QImage merged;
    for (int frameNumber = 0;; ++frameNumber) {
        const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        if (!measuring && elapsed >= warmUp) {
            measuring = true;
            before = threadTimes();
            cpuBefore = processCpuSeconds();
            measureStart = std::chrono::steady_clock::now();
        }
        if (elapsed >= warmUp + seconds)
            break;
        for (int i = 0; i < channelCount; ++i) {
            // A camera hands out frames from a small pool of buffers: by the
            // time a buffer comes round again the engine has let it go, and
            // the stamp is painted without a copy.
            QImage& frame = pool[i][frameNumber % kPool];
            copiedFrames += frame.isDetached() ? 0 : 1;
            QPainter(&frame).fillRect(kStamp, QColor::fromRgb(QRgb(0x010101u * stampLevel(frameNumber + 7 * i))));
            manager->sendChannelFrame(scene, channels[i], frame, false, true, false);
        }
        manager->mergeImages(scene, params, kMergeWidth, kMergeHeight, QColor(30, 30, 30), QImage(), QImage());
        if (manager->getMergeImg(scene, merged) && measuring) {
            ++fetched;
            bool isNew = false;
            for (int i = 0; i < channelCount; ++i) {
                const int level = qGray(merged.pixel(stampAt[i]));
                if (level != lastStamp[i]) {
                    isNew = true;
                    ++channelNews[i];
                }
                lastStamp[i] = level;
            }
            newPictures += isNew ? 1 : 0;
        }
        rounds += measuring ? 1 : 0;
        next += std::chrono::duration_cast<std::chrono::steady_clock::duration>(interval);
        std::this_thread::sleep_until(next);
    }
    const double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - measureStart).count();
    const double cpu = processCpuSeconds() - cpuBefore;
    const std::map<int, ThreadTime> after = threadTimes();

    std::map<std::string, double> groups;
    double threadsTotal = 0;
    for (const auto& [tid, t] : after) {
        auto b = before.find(tid);
        const double used = t.seconds - (b == before.end() ? 0.0 : b->second.seconds);
        groups[groupOf(t.name, tid == hostTid)] += used;
        threadsTotal += used;
    }

    std::printf("classroom: %d channels of %dx%d at %.0f frames a second, all four face effects, merged into %dx%d\n",
                channelCount, kFrameWidth, kFrameHeight, rate, kMergeWidth, kMergeHeight);
    std::printf("measured %.1f s after %.0f s of warm-up: %d rounds, %d merged pictures fetched\n", wall, warmUp,
                rounds, fetched);
    std::printf("new merged pictures a second: %.2f\n", newPictures / wall);
    std::printf("frames the host had to copy (still held by the engine): %d\n", copiedFrames);
    std::printf("channel frames seen a second:");
    for (int i = 0; i < channelCount; ++i)
        std::printf(" %.2f", channelNews[i] / wall);
    std::printf("\nCPU time: %.2f s in %.1f s of wall time (%.2f cores busy)\n", cpu, wall, cpu / wall);
    std::printf("share of CPU time by thread group:\n");
    for (const auto& [group, used] : groups)
        if (used > 0)
            std::printf("  %-28s %5.1f%%  (%.2f s)\n", group.c_str(), threadsTotal > 0 ? 100.0 * used / threadsTotal : 0.0,
                        used);
    if (argc > 4 && !merged.isNull() && merged.save(argv[4]))
        std::printf("last merged picture: %s\n", argv[4]);
    std::fflush(stdout);
    return 0;
}
