// Stress host: drives the public interface from several host threads with
// hostile input while the GUI thread and a host thread add channels to scenes
// that are merging. Scenes must stay sealed from each other: every picture a
// storm scene's channels are fed carries that scene's colour stamp, and no
// picture fetched from a scene may show another scene's stamp; control
// scenes that no storm call touches (three fed through the storm, one first
// fed after it) must reproduce their input at every fetch after their first
// picture.
//
//   lumen_fx_stress [SECONDS] [--threads N] [--samples FILE] [--failures DIR] [--plant]
//
// Prints the operations done, resident memory at start, middle and end (and
// every 10 s), the growth of resident memory after the first third of the run
// (minutes 2 and 3 of a 3-minute storm), the isolation check and each control
// scene. Exit status 0 when no scene showed another's stamp, every control
// scene reproduced its input within 2 levels at every fetch after its first
// picture and, for runs of 60 s or more, resident memory grew by at most
// 50 MiB a minute after the first third. --samples writes every sample as
// CSV; --failures names the folder for the first failing pictures (the
// current one by default); --plant feeds, at the middle of the storm, one
// storm channel a picture stamped for another scene and one control scene
// another picture, to show that both checks fail. When the control scene
// fed after the storm still shows nothing 10 s after its first feed, the
// stacks of every thread are written to that folder (with gdb, where it is
// installed), to show what its first picture waits for.
#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <malloc.h>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QGuiApplication>
#include <QImage>
#include <QPainter>
#include <QTemporaryDir>
#include <QThread>

#include <lumen_fx/OpenglImageManager.h>
#include "../examples/OpenglCheck.h"
#include "stress/ControlRounds.h"
#include "stress/ControlScenes.h"
#include "stress/SceneStamps.h"
#include "stress/StampChecker.h"

namespace {

const int kMaxStormChannels = 12;
const int kStormScenes = 2;
// After the storm, the control scenes are fed and merged this often, this long.
const double kGrowthLimitMiBPerMinute = 50.0;
const int kGrowthCheckMinSeconds = 60;

double residentMiB()
{
    QFile status("/proc/self/status");
    if (!status.open(QIODevice::ReadOnly))
        return 0.0;
    for (const QByteArray& line : status.readAll().split('\n')) {
        if (line.startsWith("VmRSS:"))
            return line.mid(6).trimmed().split(' ').first().toDouble() / 1024.0;
    }
    return 0.0;
}

// Pictures of many sizes and formats, a few of them portraits so that the
// face passes find faces, made once so that the storm measures the engine.
// The last one is the 2600x1900 page.
std::vector<QImage> makePictures()
{
    std::vector<QImage> pictures;
    const QImage portrait = QImage(LUMEN_SAMPLE_PICTURE).convertToFormat(QImage::Format_RGBA8888);
    const QSize sizes[] = {{1, 1},      {7, 3},     {64, 48},  {320, 240}, {333, 517},
                           {1280, 720}, {720, 1280}, {997, 13}, {1920, 1080}, {2600, 1900}};
    const QImage::Format formats[] = {QImage::Format_RGBA8888, QImage::Format_RGB888,     QImage::Format_ARGB32,
                                      QImage::Format_Grayscale8, QImage::Format_Mono,       QImage::Format_Indexed8,
                                      QImage::Format_RGB32,     QImage::Format_BGR888,     QImage::Format_RGB16,
                                      QImage::Format_ARGB32_Premultiplied};
    int i = 0;
    for (const QSize& size : sizes) {
        QImage picture = portrait.scaled(size, Qt::IgnoreAspectRatio, Qt::FastTransformation);
        if (i % 3 == 1) {
            QPainter painter(&picture);
            painter.fillRect(picture.rect(), QColor::fromHsv((i * 47) % 360, 200, 200, 128));
        }
        pictures.push_back(picture.convertToFormat(formats[i % 10]));
        ++i;
    }
    pictures.insert(pictures.begin(), QImage());  // a null picture
    return pictures;
}

struct Counters {
    std::atomic<long> frames{0};
    std::atomic<long> filters{0};
    std::atomic<long> merges{0};
    std::atomic<long> fetches{0};
    std::atomic<long> channelsMade{0};
    std::atomic<long> refused{0};
};

struct Storm {
    OpenglImageManager* m = nullptr;
    std::vector<QImage> pictures;  // unstamped, for graffiti
    std::map<int, std::vector<QImage>> scenePictures;  // per storm scene, with its stamp
    std::map<int, unsigned> ownStamps;  // per scene
    std::vector<int> controlChannels;  // ids a storm merge may name, in the wrong scene
    // Per storm scene, a channel that no storm call feeds or sets, fed a
    // stamped picture by the GUI thread: some storm merges place witnesses
    // (their own scene's or another's) where their stamps show.
    std::vector<std::pair<int, int>> witnesses;
    std::vector<QImage> witnessPictures;
    stress::StampChecker* checker = nullptr;
    std::vector<std::string> stickerFiles;  // ours, and bad ones: see makeStickerFiles
    std::mutex idsMutex;
    std::vector<std::pair<int, int>> channels;  // (scene, channel)
    std::vector<int> scenes;
    Counters counters;

    // Ids that no scene or channel has (the control's are the first ones made):
    // negative, or far beyond what the storm makes, or a known channel in the
    // wrong scene.
    // Called with idsMutex held.
    std::pair<int, int> unknownPair(std::mt19937& rng)
    {
        switch (rng() % 3) {
        case 0: return {-1 - int(rng() % 100), -1 - int(rng() % 100)};
        case 1: return {1000 + int(rng() % 1000), 1000 + int(rng() % 1000)};
        default: {
            if (channels.empty())
                return {-1, -1};
            const auto known = channels[rng() % channels.size()];
            return {known.first + 100, known.second};
        }
        }
    }
    // A picture for the next call. The 2600x1900 page comes once in 40 calls:
    // a channel that holds it holds some 185 MiB of GL storage, and more often
    // its comings and goings swing resident memory by more than the growth
    // that the soak looks for.
    const QImage& somePicture(std::mt19937& rng) const { return pictureOf(pictures, rng); }
    // A picture stamped for the scene, or an unstamped one for an unknown scene.
    const QImage& pictureFor(int scene, std::mt19937& rng) const
    {
        const auto set = scenePictures.find(scene);
        return pictureOf(set == scenePictures.end() ? pictures : set->second, rng);
    }
    unsigned ownStampsOf(int scene) const
    {
        const auto own = ownStamps.find(scene);
        return own == ownStamps.end() ? 0u : own->second;
    }
    static const QImage& pictureOf(const std::vector<QImage>& set, std::mt19937& rng)
    {
        if (rng() % 40 == 0)
            return set.back();
        return set[rng() % (set.size() - 1)];
    }
    std::pair<int, int> someChannel(std::mt19937& rng)
    {
        std::lock_guard<std::mutex> lock(idsMutex);
        if (channels.empty() || rng() % 10 == 0)
            return unknownPair(rng);
        return channels[rng() % channels.size()];
    }
    int someScene(std::mt19937& rng)
    {
        std::lock_guard<std::mutex> lock(idsMutex);
        if (rng() % 10 == 0)
            return unknownPair(rng).first;
        return scenes[rng() % scenes.size()];
    }
    bool addChannel(int scene)
    {
        {
            std::lock_guard<std::mutex> lock(idsMutex);
            if (channels.size() >= kMaxStormChannels)
                return false;
        }
        const int id = m->genChannelFilters(scene, scene % 2 == 0 || channels.size() % 3 != 0);
        if (id < 0) {
            ++counters.refused;
            return false;
        }
        ++counters.channelsMade;
        std::lock_guard<std::mutex> lock(idsMutex);
        channels.emplace_back(scene, id);
        return true;
    }
};

// Sticker paths: our own pictures, a missing file, a file that is no
// picture, 1x1, 3000x3000 and 8000x2 pictures, names that select nothing or
// are shorter than four characters.
std::vector<std::string> makeStickerFiles(const QString& scratch)
{
    std::vector<std::string> files;
    for (const char* name : {"glasses01", "beret", "rabbit", "medal"})
        files.push_back(std::string(LUMEN_STICKER_DIR) + "/" + name + ".png");
    QImage tiny(1, 1, QImage::Format_ARGB32), huge(3000, 3000, QImage::Format_ARGB32);
    tiny.fill(Qt::red), huge.fill(QColor(0, 0, 255, 128));
    tiny.save(scratch + "/a_bear.png"), huge.save(scratch + "/big_cat.png");
    QImage(8000, 2, QImage::Format_ARGB32).save(scratch + "/wide_medal.png");
    QFile text(scratch + "/x_rabbit.png");
    if (text.open(QIODevice::WriteOnly))
        text.write("not a picture");
    for (const char* name : {"/a_bear.png", "/big_cat.png", "/wide_medal.png", "/x_rabbit.png", "/missing_bear.png"})
        files.push_back((scratch + name).toStdString());
    for (const char* name : {"bear_1.png", "bear", "ab", "_", "/"})
        files.emplace_back(name);
    return files;
}

double hostileStrength(std::mt19937& rng)
{
    const double values[] = {1e6,  -500, std::numeric_limits<double>::quiet_NaN(), std::numeric_limits<double>::infinity(),
                             -std::numeric_limits<double>::infinity(), 0, 50, 100, 5000, -1e300};
    return values[rng() % 10];
}

void filterCall(Storm& s, std::mt19937& rng)
{
    const auto target = s.someChannel(rng);
    const ImageFilterType type = static_cast<ImageFilterType>(int(rng() % 18) - 2);
    const FilterParaType paraType = static_cast<FilterParaType>(int(rng() % 9) - 1);
    _strength_param strength{hostileStrength(rng), rng() % 2 == 0};
    _slim_face_param slim{hostileStrength(rng)};
    // Picture settings: finite but hostile in every field, so that most
    // records pass the check for NaN and infinity; one in ten carries one.
    auto finite = [&] {
        const double v = hostileStrength(rng);
        return std::isfinite(v) ? v : 1e9;
    };
    _basic_image_param basic{};
    double* reals[] = {&basic.scale,        &basic.brightness,     &basic.contrast,     &basic.saturation,
                       &basic.alpha,        &basic.rotationX,      &basic.rotationY,    &basic.channelWidth,
                       &basic.channelHeight, &basic.centerXOffset, &basic.centerYOffset, &basic.firstPageWidth,
                       &basic.firstPageHeight};
    for (double* field : reals)
        *field = rng() % 3 ? double(int(rng() % 200) - 50) / 50 : finite();
    basic.rotationZ = rng() % 2 ? double(int(rng() % 4) * 90) : finite();
    basic.cornerRadius = int(rng() % 3000) - 100;
    basic.isRoundCamera = int(rng() % 2), basic.isMirrored = int(rng() % 2), basic.isClip = int(rng() % 2);
    basic.fileType = int(rng() % 3);
    if (rng() % 10 == 0)
        *reals[rng() % 13] = std::numeric_limits<double>::quiet_NaN();
    std::string path = rng() % 2 ? std::string() : s.stickerFiles[rng() % s.stickerFiles.size()];
    _hsv_background_param hsv{int(rng()), int(rng()), int(rng()), path};
    void* record = nullptr;
    switch (type) {
    case SLIMFACE: record = &slim; break;
    case SMOOTH:
    case REDLIPS:
    case WHITENING:
    case SMOOTHWHITENING: record = &strength; break;
    case BASICIMAGE: record = &basic; break;
    case STICKER:
    case IMAGEBACKGROUND:
    case IMAGEBACKGROUND2:
    case IMAGEBACKGROUND3: record = &path; break;
    case HSVBACKGROUND: record = &hsv; break;
    default: record = rng() % 2 ? &strength : nullptr; break;
    }
    // The GREENSCREEN and RGBBACKGROUND records are left out: a wrong record
    // behind the pointer is a fault of the host that no library can catch.
    if (type == GREENSCREEN || type == RGBBACKGROUND)
        return;
    if (rng() % 2)
        s.m->addChannelImageFilter(target.first, target.second, type, record);
    else
        s.m->setChannelFilterParas(target.first, target.second, type, paraType, record);
    ++s.counters.filters;
}

// A merge of the scene's witness, large and turned by quarters, with other
// scenes' witnesses and channels that belong to no storm scene (the control
// scenes'). A merge that names a channel of its scene whose shared texture
// isn't made yet is left until it is, and many storm channels never get that
// far: these merges draw.
void witnessMerge(Storm& s, std::mt19937& rng)
{
    const QSize sizes[] = {{1920, 1080}, {1280, 720}, {640, 360}, {1080, 1920}};
    const QSize size = sizes[rng() % 4];
    const auto own = s.witnesses[rng() % s.witnesses.size()];
    QList<_channel_merge_param> params;
    const int count = 1 + int(rng() % 3);
    for (int i = 0; i < count; ++i) {
        _channel_merge_param p;
        if (i == 0)
            p.channelId = own.second;
        else if (rng() % 2)
            p.channelId = s.controlChannels[rng() % s.controlChannels.size()];
        else
            p.channelId = s.witnesses[rng() % s.witnesses.size()].second;
        p.rect = QRect(int(rng() % 400), int(rng() % 300), 480 + int(rng() % 400), 270 + int(rng() % 300));
        p.rotation = 90.0 * int(rng() % 4);
        params.insert(int(rng() % (params.size() + 1)), p);
    }
    s.m->mergeImages(own.first, params, size.width(), size.height(), QColor::fromRgb(rng()), QImage(), QImage());
}

void mergeCall(Storm& s, std::mt19937& rng)
{
    ++s.counters.merges;
    if (rng() % 2 == 0) {
        witnessMerge(s, rng);
        return;
    }
    const QSize sizes[] = {{0, 0}, {-5, 100}, {1921, 1080}, {3, 3}, {1920, 1080}, {640, 360}, {1080, 1920}, {1280, 720}};
    const QSize size = sizes[rng() % 8];
    QList<_channel_merge_param> params;
    const int count = int(rng() % 6);
    for (int i = 0; i < count; ++i) {
        _channel_merge_param p;
        // Now and then a control scene's channel, which no storm scene has.
        p.channelId = rng() % 8 == 0 ? s.controlChannels[rng() % s.controlChannels.size()] : s.someChannel(rng).second;
        p.rect = QRect(int(rng() % 2000) - 500, int(rng() % 1200) - 300, int(rng() % 1500) - 100,
                       int(rng() % 1000) - 100);
        p.rotation = double(int(rng() % 720) - 360);
        params << p;
    }
    const QImage graffiti = rng() % 4 == 0 ? s.somePicture(rng) : QImage();
    s.m->mergeImages(s.someScene(rng), params, size.width(), size.height(), QColor::fromRgb(rng()), graffiti,
                     QImage());
}

void hostThread(Storm& s, unsigned seed, const std::atomic<bool>& running, bool makesChannels)
{
    std::mt19937 rng(seed);
    while (running) {
        switch (rng() % 8) {
        case 0:
        case 1:
        case 2: {
            const auto target = s.someChannel(rng);
            s.m->sendChannelFrame(target.first, target.second, s.pictureFor(target.first, rng), rng() % 4 == 0,
                                  rng() % 4 != 0, rng() % 8 == 0);
            ++s.counters.frames;
            break;
        }
        case 3:
        case 4: filterCall(s, rng); break;
        case 5: mergeCall(s, rng); break;
        case 6: {
            QImage merged;
            const int scene = s.someScene(rng);
            if (s.m->getMergeImg(scene, merged))
                s.checker->offer(scene, s.ownStampsOf(scene), merged);
            ++s.counters.fetches;
            break;
        }
        default:
            if (makesChannels && rng() % 50 == 0)
                s.addChannel(s.someScene(rng));
            break;
        }
        if (rng() % 16 == 0)
            QThread::msleep(1);
    }
}

// Least-squares slope of the samples, in MiB a minute.
double growthPerMinute(const std::vector<std::pair<double, double>>& samples)
{
    if (samples.size() < 2)
        return 0.0;
    double st = 0, sm = 0, stt = 0, stm = 0;
    for (const auto& s : samples) {
        st += s.first;
        sm += s.second;
        stt += s.first * s.first;
        stm += s.first * s.second;
    }
    const double n = double(samples.size());
    const double d = n * stt - st * st;
    return d == 0 ? 0.0 : 60.0 * (n * stm - st * sm) / d;
}

// The command line: [SECONDS] [--threads N] [--samples FILE] [--failures DIR] [--plant].
struct Options {
    int seconds = 20;
    int threads = 5;
    std::FILE* samplesFile = nullptr;  // open, with its header written, when --samples names a file
    QString failureDir = QStringLiteral(".");
    bool plant = false;
};

Options parseOptions(const QStringList& args)
{
    Options options;
    for (int i = 1; i < args.size(); ++i) {
        if (args[i] == "--threads" && i + 1 < args.size()) {
            options.threads = std::max(1, args[++i].toInt());
        } else if (args[i] == "--samples" && i + 1 < args.size()) {
            options.samplesFile = std::fopen(qPrintable(args[++i]), "w");
            if (options.samplesFile)
                std::fprintf(options.samplesFile,
                             "seconds,resident_mib,heap_in_use_mib,heap_mapped_mib,heap_mapped_blocks\n");
        } else if (args[i] == "--failures" && i + 1 < args.size()) {
            options.failureDir = args[++i];
        } else if (args[i] == "--plant") {
            options.plant = true;
        } else {
            options.seconds = std::max(1, args[i].toInt());
        }
    }
    return options;
}




// For --plant: from the middle of the storm on, the first storm scene's
// witness is fed a picture stamped for the second, and the first control
// scene a picture of its size that carries the second storm scene's stamp.
void plantFaults(Storm& s, stress::Controls& controls)
{
    s.witnessPictures.front() = s.witnessPictures.back();
    const int otherStamp = int(controls.size()) + kStormScenes - 1;
    controls.front()->plant(stress::controlPicture(QSize(320, 240), otherStamp));
    std::printf("planted: scene %d's witness and control scene %d show scene %d's stamp\n", s.witnesses.front().first,
                controls.front()->scene(), s.witnesses.back().first);
}

// Writes a sample, with the heap's figures, as a line of the CSV file.
void writeSample(std::FILE* samplesFile, const std::pair<double, double>& sample)
{
    const struct mallinfo2 heap = mallinfo2();
    std::fprintf(samplesFile, "%.2f,%.1f,%.1f,%.1f,%d\n", sample.first, sample.second, heap.uordblks / 1048576.0,
                 heap.hblkhd / 1048576.0, int(heap.hblks));
}

void printProgress(qint64 now, const Counters& counters)
{
    std::printf("%3lld s: resident %.0f MiB, frames %ld, filter calls %ld, merges %ld, fetches %ld, "
                "channels %ld\n",
                now / 1000, residentMiB(), counters.frames.load(), counters.filters.load(), counters.merges.load(),
                counters.fetches.load(), counters.channelsMade.load());
}


// The GUI thread's part of the storm for `seconds`: it feeds, merges and
// checks the control scenes fed through the storm, now and then adds a
// channel, and samples resident memory four times a second, printing it at
// the middle of the run and every 10 s. Returns the samples as (seconds, MiB).
std::vector<std::pair<double, double>> runGuiThread(Storm& s, stress::Controls& controls, const Options& options)
{
    std::vector<std::pair<double, double>> samples;
    QElapsedTimer timer;
    timer.start();
    qint64 nextSample = 0;
    const qint64 sampleMs = 250;
    qint64 nextReport = 10000;
    bool middlePassed = false;
    std::mt19937 rng(99);
    const qint64 totalMs = qint64(options.seconds) * 1000;
    while (timer.elapsed() < totalMs) {
        QCoreApplication::processEvents();
        stress::feedAndCheck(controls, false, options.failureDir, *s.checker);
        for (size_t i = 0; i < s.witnesses.size(); ++i)
            s.m->sendChannelFrame(s.witnesses[i].first, s.witnesses[i].second, s.witnessPictures[i], false, true,
                                  false);
        if (rng() % 40 == 0)
            s.addChannel(s.scenes[rng() % s.scenes.size()]);
        const qint64 now = timer.elapsed();
        if (now >= nextSample) {
            samples.emplace_back(now / 1000.0, residentMiB());
            if (options.samplesFile)
                writeSample(options.samplesFile, samples.back());
            nextSample += sampleMs;
        }
        if (!middlePassed && now >= totalMs / 2) {
            std::printf("middle: resident %.0f MiB\n", residentMiB());
            if (options.plant)
                plantFaults(s, controls);
            middlePassed = true;
        }
        if (now >= nextReport) {
            printProgress(now, s.counters);
            nextReport += 10000;
        }
        std::fflush(stdout);
        QThread::msleep(20);
    }
    return samples;
}


// Prints the operations done, the resident memory and its growth after the
// first third, the isolation check and the control scenes. Returns whether
// the run passes.
bool printResults(const Storm& s, const stress::Controls& controls, const std::vector<std::pair<double, double>>& samples,
                  int seconds, double startMiB)
{
    // The growth after the first third (minutes 2 and 3 of a 3-minute storm):
    // the working set swings by hundreds of MiB as channels take big and small
    // pictures, so the slope is fitted to four samples a second.
    std::vector<std::pair<double, double>> settled;
    for (const auto& sample : samples) {
        if (sample.first >= seconds / 3.0)
            settled.push_back(sample);
    }
    const double growth = growthPerMinute(settled);
    const bool growthChecked = seconds >= kGrowthCheckMinSeconds;
    const Counters& c = s.counters;
    std::printf("operations: frames %ld, filter calls %ld, merges %ld, fetches %ld; channels made %ld, refused %ld\n",
                c.frames.load(), c.filters.load(), c.merges.load(), c.fetches.load(), c.channelsMade.load(),
                c.refused.load());
    std::printf("resident: start %.0f MiB, middle (see above), end %.0f MiB; after the first third grows %.1f MiB a "
                "minute%s\n",
                startMiB, residentMiB(), growth, growthChecked ? "" : " (checked on runs of 60 s or more)");
    std::printf("%s\n", qPrintable(s.checker->summary()));
    bool ok = s.checker->failures() == 0 && (!growthChecked || growth <= kGrowthLimitMiBPerMinute);
    for (const auto& control : controls) {
        std::printf("%s\n", qPrintable(control->summary()));
        ok = ok && control->passed();
    }
    return ok;
}

// Makes the storm's scenes with a channel and a witness each, after the
// control scenes, and the pictures stamped for each.
void makeStormScenes(Storm& s, const stress::Controls& controls)
{
    for (const auto& control : controls)
        s.controlChannels.push_back(control->channel());
    for (int i = 0; i < kStormScenes; ++i) {
        const int scene = s.m->genSceneFilters();
        const int stamp = int(controls.size()) + i;
        s.scenes.push_back(scene);
        s.ownStamps[scene] = 1u << stamp;
        for (const QImage& picture : s.pictures)
            s.scenePictures[scene].push_back(stress::stamped(picture, stamp));
        s.witnesses.emplace_back(scene, s.m->genChannelFilters(scene, true));
        s.witnessPictures.push_back(stress::stamped(s.pictures[6].convertToFormat(QImage::Format_RGBA8888), stamp));
    }
    for (int scene : s.scenes)
        s.addChannel(scene);
}

}  // namespace

int main(int argc, char** argv)
{
    QGuiApplication app(argc, argv);
    if (!openglAvailable(argv[0]))
        return 1;
    const Options options = parseOptions(app.arguments());

    Storm s;
    s.m = OpenglImageManager::instance();
    s.pictures = makePictures();
    QTemporaryDir scratch;
    s.stickerFiles = makeStickerFiles(scratch.path());
    stress::StampChecker checker(options.failureDir);
    s.checker = &checker;

    // The control scenes come first, so that their ids are the first ones made.
    stress::Controls controls;
    for (const stress::ControlPlan& plan : stress::kControlPlans)
        controls.push_back(std::make_unique<stress::ControlScene>(s.m, plan, int(controls.size())));
    makeStormScenes(s, controls);

    const double startMiB = residentMiB();
    std::printf("storm: %d s, %d host threads, resident %.0f MiB at start\n", options.seconds, options.threads,
                startMiB);
    std::fflush(stdout);

    std::atomic<bool> running{true};
    std::vector<std::thread> hosts;
    for (int i = 0; i < options.threads; ++i)
        hosts.emplace_back(hostThread, std::ref(s), 1234u + unsigned(i), std::cref(running), i == 0);
    const std::vector<std::pair<double, double>> samples = runGuiThread(s, controls, options);
    if (qEnvironmentVariableIsSet("LUMEN_STRESS_ABANDON")) {
        // For heap profilers: what is live now shows as left at exit.
        std::fflush(stdout);
        std::_Exit(0);
    }
    running = false;
    for (std::thread& t : hosts)
        t.join();
    stress::runAfterStorm(controls, options.failureDir, checker);
    checker.finish();
    const bool ok = printResults(s, controls, samples, options.seconds, startMiB);
    if (options.samplesFile)
        std::fclose(options.samplesFile);
    std::printf("%s\n", ok ? "PASS" : "FAIL");
    std::fflush(stdout);
    return ok ? 0 : 1;
}
