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
// By default the whole portrait is scaled into each frame, a face about 150
// pixels wide as at the back of a room. With --close-up each frame shows the
// face as a video call does, about 270 pixels wide and 330 tall, so that the
// smoothing covers about a third of the frame, and the face moves by a few
// pixels from every frame to the next.
//
//   lumen_fx_classroom [--close-up] [seconds, 20] [channels, 4] [frames a second, 15] [last merged picture.png]
#include <algorithm>
#include <chrono>
#include <cmath>
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
const int kPool = 8;
const double kWarmUpSeconds = 3.0;

// The portrait in a camera frame: one face, each channel's a little apart
// from the others' in place and background.
QImage cameraFrame(const QImage& portrait, int channel)
{
    QImage frame(kFrameWidth, kFrameHeight, QImage::Format_RGBA8888);
    frame.fill(QColor(90 + 20 * channel, 100, 110));
    QPainter painter(&frame);
    const QImage scaled = portrait.scaled(720, 720, Qt::KeepAspectRatio, Qt::SmoothTransformation);
    painter.drawImage((kFrameWidth - scaled.width()) / 2 + 40 * (channel - 2), 0, scaled);
    return frame;
}

// The head and shoulders of the 512x512 portrait, cropped and scaled up into
// the frame, then shifted by a few pixels: buffer `k` of the pool
// shows it at its own point of a small loop, so that it moves at every frame.
QImage closeUpFrame(const QImage& portrait, int channel, int k)
{
    static const QImage face = portrait.copy(61, 40, 328, 184).scaled(kFrameWidth + 24, kFrameHeight + 16,
                                                                      Qt::IgnoreAspectRatio, Qt::SmoothTransformation);
    const double turn = 2 * M_PI * k / kPool;
    const int dx = static_cast<int>(std::lround(10 * std::cos(turn))) + 4 * (channel - 2);
    const int dy = static_cast<int>(std::lround(6 * std::sin(turn)));
    QImage frame(kFrameWidth, kFrameHeight, QImage::Format_RGBA8888);
    QPainter painter(&frame);
    painter.drawImage(-12 + dx, -8 + dy, face);
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


// The scene and its channels as the host sets them up.
struct Classroom {
    OpenglImageManager* manager = nullptr;
    int scene = -1;
    int channelCount = 0;
    std::vector<int> channels;
    QList<_channel_merge_param> params;     // each channel's cell in the merged picture
    std::vector<QPoint> stampAt;            // where each channel's stamp lands in the merged picture
    std::vector<std::vector<QImage>> pool;  // each channel's camera buffers
};

// Adds channel `index` with all four face effects and gives it its cell in a
// merged picture of `columns` x `rows` cells.
void addChannel(Classroom& room, int index, int columns, int rows)
{
    OpenglImageManager* manager = room.manager;
    const int channel = manager->genChannelFilters(room.scene, true);
    room.channels.push_back(channel);
    _strength_param smooth{60, true}, lips{60, true}, whitening{60, true};
    _slim_face_param slim{60};
    manager->addChannelImageFilter(room.scene, channel, SMOOTH, &smooth);
    manager->addChannelImageFilter(room.scene, channel, REDLIPS, &lips);
    manager->addChannelImageFilter(room.scene, channel, WHITENING, &whitening);
    manager->addChannelImageFilter(room.scene, channel, SLIMFACE, &slim);
    _channel_merge_param p;
    p.channelId = channel;
    p.rect = QRect((index % columns) * kMergeWidth / columns, (index / columns) * kMergeHeight / rows,
                   kMergeWidth / columns, kMergeHeight / rows);
    room.params.append(p);
}

// Where each channel's stamp lands in the merged picture: the frame is fitted
// into its cell and centred.
std::vector<QPoint> stampPositions(const QList<_channel_merge_param>& params)
{
    std::vector<QPoint> stampAt;
    for (const _channel_merge_param& p : params) {
        const double k = std::min(double(p.rect.width()) / kFrameWidth, double(p.rect.height()) / kFrameHeight);
        const QPointF origin(p.rect.x() + (p.rect.width() - kFrameWidth * k) / 2,
                             p.rect.y() + (p.rect.height() - kFrameHeight * k) / 2);
        stampAt.push_back((origin + QPointF(kStamp.center()) * k).toPoint());
    }
    return stampAt;
}

// One scene with `channelCount` channels, each with its own camera frame
// copied into a pool of buffers, or with close-up frames that move.
Classroom setUpClassroom(const QImage& portrait, int channelCount, bool closeUp)
{
    Classroom room;
    room.manager = OpenglImageManager::instance();
    room.scene = room.manager->genSceneFilters();
    room.channelCount = channelCount;
    std::vector<QImage> frames;
    const int columns = channelCount <= 1 ? 1 : channelCount <= 4 ? 2 : 3;
    const int rows = (channelCount + columns - 1) / columns;
    for (int i = 0; i < channelCount; ++i) {
        addChannel(room, i, columns, rows);
        frames.push_back(cameraFrame(portrait, i));
    }
    room.stampAt = stampPositions(room.params);
    room.pool.resize(channelCount);
    for (int i = 0; i < channelCount; ++i)
        for (int k = 0; k < kPool; ++k)
            room.pool[i].push_back(closeUp ? closeUpFrame(portrait, i, k) : frames[i].copy());
    return room;
}

// What the run saw once the warm-up was over.
struct Measurement {
    int newPictures = 0, fetched = 0, rounds = 0, copiedFrames = 0;
    std::vector<int> lastStamp;    // the stamp level of each channel in the picture fetched before
    std::vector<int> channelNews;  // merged pictures with a new frame of each channel
    std::map<int, ThreadTime> before, after;
    double cpuBefore = 0;
    double wall = 0, cpu = 0;
    std::chrono::steady_clock::time_point measureStart;
    QImage merged;  // the last merged picture fetched
};

// Stamps each channel's next buffer with the frame's level and hands it in.
void sendFrames(Classroom& room, int frameNumber, Measurement& m)
{
    for (int i = 0; i < room.channelCount; ++i) {
        // A camera hands out frames from a small pool of buffers: by the
        // time a buffer comes round again the engine has let it go, and
        // the stamp is painted without a copy.
        QImage& frame = room.pool[i][frameNumber % kPool];
        m.copiedFrames += frame.isDetached() ? 0 : 1;
        QPainter(&frame).fillRect(kStamp, QColor::fromRgb(QRgb(0x010101u * stampLevel(frameNumber + 7 * i))));
        room.manager->sendChannelFrame(room.scene, room.channels[i], frame, false, true, false);
    }
}

// Counts the merged picture just fetched as new when any channel's stamp in
// it changed, and each channel whose stamp changed.
void countNews(const Classroom& room, Measurement& m)
{
    ++m.fetched;
    bool isNew = false;
    for (int i = 0; i < room.channelCount; ++i) {
        const int level = qGray(m.merged.pixel(room.stampAt[i]));
        if (level != m.lastStamp[i]) {
            isNew = true;
            ++m.channelNews[i];
        }
        m.lastStamp[i] = level;
    }
    m.newPictures += isNew ? 1 : 0;
}

// Hands in a round of frames and asks for and fetches a merge `rate` times a
// second, for the warm-up and then `seconds` measured.
Measurement runClassroom(Classroom& room, double seconds, double rate)
{
    Measurement m;
    m.lastStamp.assign(room.channelCount, -1);
    m.channelNews.assign(room.channelCount, 0);
    const auto interval = std::chrono::duration<double>(1.0 / rate);
    auto next = std::chrono::steady_clock::now();
    const auto start = next;
    bool measuring = false;
    for (int frameNumber = 0;; ++frameNumber) {
        const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        if (!measuring && elapsed >= kWarmUpSeconds) {
            measuring = true;
            m.before = threadTimes();
            m.cpuBefore = processCpuSeconds();
            m.measureStart = std::chrono::steady_clock::now();
        }
        if (elapsed >= kWarmUpSeconds + seconds)
            break;
        sendFrames(room, frameNumber, m);
        room.manager->mergeImages(room.scene, room.params, kMergeWidth, kMergeHeight, QColor(30, 30, 30), QImage(),
                                  QImage());
        if (room.manager->getMergeImg(room.scene, m.merged) && measuring)
            countNews(room, m);
        m.rounds += measuring ? 1 : 0;
        next += std::chrono::duration_cast<std::chrono::steady_clock::duration>(interval);
        std::this_thread::sleep_until(next);
    }
    m.wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - m.measureStart).count();
    m.cpu = processCpuSeconds() - m.cpuBefore;
    m.after = threadTimes();
    return m;
}

// The CPU time each group of threads used while measured, and in `total`
// that of all threads.
std::map<std::string, double> timeByGroup(const Measurement& m, long hostTid, double& total)
{
    std::map<std::string, double> groups;
    total = 0;
    for (const auto& [tid, t] : m.after) {
        auto b = m.before.find(tid);
        const double used = t.seconds - (b == m.before.end() ? 0.0 : b->second.seconds);
        groups[groupOf(t.name, tid == hostTid)] += used;
        total += used;
    }
    return groups;
}

void printReport(const Classroom& room, const Measurement& m, double rate, long hostTid, bool closeUp)
{
    double threadsTotal = 0;
    const std::map<std::string, double> groups = timeByGroup(m, hostTid, threadsTotal);
    const double wall = m.wall;
    const char* threads = std::getenv("LP_NUM_THREADS");
    std::printf("classroom%s: %d channels of %dx%d at %.0f frames a second, all four face effects, merged into "
                "%dx%d; LP_NUM_THREADS=%s\n",
                closeUp ? " with close-up moving faces" : "", room.channelCount, kFrameWidth, kFrameHeight, rate,
                kMergeWidth, kMergeHeight, threads ? threads : "unset");
    std::printf("measured %.1f s after %.0f s of warm-up: %d rounds, %d merged pictures fetched\n", wall,
                kWarmUpSeconds, m.rounds, m.fetched);
    std::printf("new merged pictures a second: %.2f\n", m.newPictures / wall);
    std::printf("frames the host had to copy (still held by the engine): %d\n", m.copiedFrames);
    std::printf("channel frames seen a second:");
    for (int i = 0; i < room.channelCount; ++i)
        std::printf(" %.2f", m.channelNews[i] / wall);
    std::printf("\nCPU time: %.2f s in %.1f s of wall time (%.2f cores busy)\n", m.cpu, wall, m.cpu / wall);
    std::printf("share of CPU time by thread group:\n");
    for (const auto& [group, used] : groups)
        if (used > 0)
            std::printf("  %-28s %5.1f%%  (%.2f s)\n", group.c_str(),
                        threadsTotal > 0 ? 100.0 * used / threadsTotal : 0.0, used);
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
    const bool closeUp = argc > 1 && std::string(argv[1]) == "--close-up";
    if (closeUp) {
        --argc;
        ++argv;
    }
    const double seconds = argc > 1 ? std::max(2.0, std::atof(argv[1])) : 20.0;
    const int channelCount = argc > 2 ? std::max(1, std::min(9, std::atoi(argv[2]))) : 4;
    const double rate = argc > 3 ? std::max(1.0, std::atof(argv[3])) : 15.0;

    const QImage portrait(LUMEN_SAMPLE_PICTURE);
    if (portrait.isNull()) {
        std::fprintf(stderr, "cannot read %s\n", LUMEN_SAMPLE_PICTURE);
        return 1;
    }

    Classroom room = setUpClassroom(portrait, channelCount, closeUp);
    const long hostTid = static_cast<long>(gettid());
    const Measurement m = runClassroom(room, seconds, rate);
    printReport(room, m, rate, hostTid, closeUp);
    if (argc > 4 && !m.merged.isNull() && m.merged.save(argv[4]))
        std::printf("last merged picture: %s\n", argv[4]);
    std::fflush(stdout);
    return 0;
}
