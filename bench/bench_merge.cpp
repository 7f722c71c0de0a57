// Cost of one scene merge: four 1280x720 channel pictures drawn into a
// 1920x1080 frame, from image-mode buffers (as a scene without shared
// textures gets them) and from textures shared with four channel workers;
// and the read-back of that frame as the scene does it.
#include <algorithm>
#include <cstdlib>
#include <chrono>
#include <map>
#include <memory>
#include <vector>

#include <benchmark/benchmark.h>

#include <QGuiApplication>
#include <QOpenGLContext>
#include <QOpenGLFunctions>
#include <QPainter>

#include "gpu/OpenglChannelWorker.h"
#include "merge/OpenglFileMerger.h"
#include "scene/TextureBuffer.h"
#include "../examples/OpenglCheck.h"

namespace {

const int kScene = 1;
const int kWidth = 1920;
const int kHeight = 1080;

struct Setup {
    Setup()
    {
        for (int i = 0; i < 4; ++i) {
            auto buffer = std::make_shared<TextureBuffer>();
            buffer->setShareReady(kScene, true);
            QImage picture(1280, 720, QImage::Format_RGBA8888);
            picture.fill(QColor::fromHsv(i * 80, 200, 220));
            QPainter painter(&picture);
            painter.setPen(QPen(Qt::white, 20));
            painter.drawEllipse(200 + 100 * i, 100, 600, 500);
            painter.end();
            buffer->setImage(picture);
            pictures.push_back(picture);
            buffers[i + 1] = buffer;
            QRect rect((i % 2) * 960, (i / 2) * 540, 960, 540);
            _channel_merge_param param;
            param.channelId = i + 1;
            param.rect = rect;
            params.append(param);
        }
        merger.setTextureBuffers(OpenglFileMerger::BufferMap(buffers.begin(), buffers.end()));
        merged = QImage(kWidth, kHeight, QImage::Format_BGR888);
    }

    // Each channel hands over a picture, as it does once a frame, and the
    // scene merges them.
    void merge()
    {
        for (auto& [id, buffer] : buffers)
            buffer->setImage(pictures[id - 1]);
        merger.mergeImages(params, kWidth, kHeight, QColor(245, 246, 247), QImage());
    }

    // Waits until the GL work issued so far is done, so that a timing covers it.
    void finish()
    {
        QOpenGLContext* context = merger.glContext();
        if (context && context->makeCurrent(&merger)) {
            context->functions()->glFinish();
            context->doneCurrent();
        }
    }

    void read() { merger.readLastFboByAlpha(merged.bits(), kWidth, kHeight, false, false); }

    OpenglFileMerger merger{kScene};
    std::map<int, std::shared_ptr<TextureBuffer>> buffers;
    std::vector<QImage> pictures;
    QList<_channel_merge_param> params;
    QImage merged;
};

// The same four pictures through four channel workers whose results reach
// the scene in shared textures, as a scene of scene channels runs.
struct SharedSetup {
    SharedSetup()
    {
        for (int i = 0; i < 4; ++i) {
            buffers[i + 1] = std::make_shared<TextureBuffer>();
            workers.push_back(std::make_unique<OpenglChannelWorker>(i + 1, kScene));
            workers.back()->setTextureBuffer(buffers[i + 1].get());
            _channel_merge_param param;
            param.channelId = i + 1;
            param.rect = QRect((i % 2) * 960, (i / 2) * 540, 960, 540);
            params.append(param);
        }
        merger.setTextureBuffers(OpenglFileMerger::BufferMap(buffers.begin(), buffers.end()));
        for (int i = 0; i < 4; ++i) {
            merge();  // the handshake: the next buffer gets the scene's context
            QImage picture(1280, 720, QImage::Format_RGBA8888);
            picture.fill(QColor::fromHsv(i * 80, 200, 220));
            TextureBuffer* buffer = buffers[i + 1].get();
            workers[i]->setShareContext(buffer->getShareContext(kScene));
            workers[i]->passThrough(picture, false);
            workers[i]->createSceneShareTexture(buffer);
            buffer->setShareReady(kScene, true);
            buffer->setImageMode(false);
            workers[i]->passThrough(picture, false);
        }
    }
    ~SharedSetup() { merger.setTextureBuffers({}); }

    // Each channel hands its frame over, as it does once a frame.
    void handOver()
    {
        for (size_t i = 0; i < workers.size(); ++i)
            workers[i]->readFromGPU(buffers[static_cast<int>(i) + 1].get());
    }
    void merge() { merger.mergeImages(params, kWidth, kHeight, QColor(245, 246, 247), QImage()); }
    void finish()
    {
        QOpenGLContext* context = merger.glContext();
        if (context && context->makeCurrent(&merger)) {
            context->functions()->glFinish();
            context->doneCurrent();
        }
    }

    std::vector<std::unique_ptr<OpenglChannelWorker>> workers;
    OpenglFileMerger merger{kScene};
    std::map<int, std::shared_ptr<TextureBuffer>> buffers;
    QList<_channel_merge_param> params;
};

std::unique_ptr<SharedSetup> sharedTextures;

// Made on first use and dropped before the application goes.
std::unique_ptr<Setup> sharedSetup;

Setup& setup()
{
    if (!sharedSetup)
        sharedSetup = std::make_unique<Setup>();
    return *sharedSetup;
}

double seconds(std::chrono::steady_clock::time_point a, std::chrono::steady_clock::time_point b)
{
    return std::chrono::duration<double>(b - a).count();
}

double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v.empty() ? 0.0 : v[v.size() / 2];
}

// The merge alone, up to the end of its GL work.
void BM_Merge4x720pInto1080p(benchmark::State& state)
{
    Setup& s = setup();
    s.merge();
    s.finish();
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        s.merge();
        s.finish();
        state.SetIterationTime(seconds(start, std::chrono::steady_clock::now()));
    }
}

// The merge alone from shared textures; the channels' hand-over before each
// merge is not timed.
void BM_Merge4x720pInto1080pShared(benchmark::State& state)
{
    if (!sharedTextures)
        sharedTextures = std::make_unique<SharedSetup>();
    SharedSetup& s = *sharedTextures;
    for (auto _ : state) {
        s.handOver();
        const auto start = std::chrono::steady_clock::now();
        s.merge();
        s.finish();
        state.SetIterationTime(seconds(start, std::chrono::steady_clock::now()));
    }
    // The channels' colours, not the background, stand in the middle of their cells.
    QImage merged(kWidth, kHeight, QImage::Format_BGR888);
    s.merger.readLastFboByAlpha(merged.bits(), kWidth, kHeight, false, true);
    for (int i = 0; i < 4; ++i) {
        const QColor c = merged.pixelColor((i % 2) * 960 + 480, (i / 2) * 540 + 270);
        if (std::abs(c.hue() - QColor::fromHsv(i * 80, 200, 220).hue()) > 3)
            state.SkipWithError("a channel's picture is missing from the merged frame");
    }
}

// The read-back alone of a frame already drawn (the ring, as the scene reads).
void BM_Readback1080p(benchmark::State& state)
{
    Setup& s = setup();
    s.merge();
    s.read();
    s.finish();
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        s.read();
        state.SetIterationTime(seconds(start, std::chrono::steady_clock::now()));
    }
}

// Both in turn, as the scene's loop runs them, with the per-frame medians and
// their ratio as counters.
void BM_MergeThenReadback(benchmark::State& state)
{
    Setup& s = setup();
    std::vector<double> merges;
    std::vector<double> reads;
    s.merge();
    s.read();
    s.finish();
    for (auto _ : state) {
        const auto t0 = std::chrono::steady_clock::now();
        s.merge();
        s.finish();
        const auto t1 = std::chrono::steady_clock::now();
        s.read();
        const auto t2 = std::chrono::steady_clock::now();
        merges.push_back(seconds(t0, t1));
        reads.push_back(seconds(t1, t2));
        state.SetIterationTime(seconds(t0, t2));
    }
    const double m = median(merges);
    const double r = median(reads);
    state.counters["merge_median_ms"] = m * 1e3;
    state.counters["read_median_ms"] = r * 1e3;
    state.counters["read_per_merge"] = m > 0 ? r / m : 0.0;
}

}  // namespace

BENCHMARK(BM_Merge4x720pInto1080p)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(20)->Repetitions(5);
BENCHMARK(BM_Merge4x720pInto1080pShared)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(20)->Repetitions(5);
BENCHMARK(BM_Readback1080p)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(20)->Repetitions(5);
BENCHMARK(BM_MergeThenReadback)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(40);

int main(int argc, char** argv)
{
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    // Keep the engine's info lines out of the timings' output.
    qputenv("QT_LOGGING_RULES", "*.info=false;*.debug=false");
    QGuiApplication app(argc, argv);
    if (!openglAvailable(argv[0]))
        return 1;
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    sharedSetup.reset();
    sharedTextures.reset();
    return 0;
}
