// Cost of one channel frame with face effects: runFilters on a 1280x720
// picture with one large face, with all four face effects, each alone, and
// with no filter; glasses on one face and on two; the picture pass with
// colour, corners, round camera and a rotation in x and y; and the cost of
// the face detection that such a frame pays.
//
// The frame is read back to system memory at the end, which waits for the GPU
// work, so that the timing covers the drawing and not only its issue.
#include <map>
#include <memory>
#include <string>

#include <benchmark/benchmark.h>

#include <QGuiApplication>
#include <QPainter>

#include "channel/ImageFilters.h"
#include "face/DnnFaceDetector.h"
#include "filters/BeautyFilterBase.h"
#include "../examples/OpenglCheck.h"

namespace {

// The portrait in a 1280x720 frame: one large face, or two faces apart
// across and down (as the sticker filter takes a second face).
QImage framePicture(bool twoFaces = false)
{
    const QImage portrait = QImage(LUMEN_BENCH_PORTRAIT).convertToFormat(QImage::Format_RGBA8888);
    QImage frame(1280, 720, QImage::Format_RGBA8888);
    frame.fill(QColor(90, 100, 110));
    QPainter painter(&frame);
    if (twoFaces) {
        painter.drawImage(QRect(0, 0, 560, 560), portrait);
        painter.drawImage(QRect(720, 160, 560, 560), portrait);
        return frame;
    }
    const QImage scaled = portrait.scaled(720, 720, Qt::KeepAspectRatio, Qt::SmoothTransformation);
    painter.drawImage((1280 - scaled.width()) / 2, 0, scaled);
    return frame;
}

// The face as a video call shows it: the portrait's head and shoulders
// filling the frame, the face about 270 pixels wide (as the classroom's
// close-up).
QImage closeUpPicture()
{
    const QImage portrait = QImage(LUMEN_BENCH_PORTRAIT).convertToFormat(QImage::Format_RGBA8888);
    return portrait.copy(61, 40, 328, 184).scaled(1280, 720, Qt::IgnoreAspectRatio, Qt::SmoothTransformation);
}

// A channel without its thread: the benchmark calls its frame step directly.
class BenchChannel : public ImageFilters {
public:
    BenchChannel() : ImageFilters(0, 0, true, NoThreadStart{}) {}

    void add(ImageFilterType type, const std::string& key, double strength)
    {
        onAddImageFilter(type, true);
        onSetFilterParameter(type, {{key, strength}});
    }
    // Faces of the last frame, as the first face filter saw them.
    size_t facesSeen()
    {
        for (const auto& [type, filter] : filters)
            if (filter && type != STICKER && type != BASICIMAGE)
                return filter->faceParas().size();
        return 0;
    }
    void setSticker(const std::string& path) { onUpdateBgImg(STICKER, path, false, false, false); }
    void frame(const QImage& picture)
    {
        QImage src = picture;
        QImage dst;
        if (filters.empty())
            filters[NOFILTER] = nullptr;
        runFilters(src, dst, false, true, false);
        benchmark::DoNotOptimize(dst.constBits());
    }
};

const std::map<std::string, std::pair<ImageFilterType, std::string>> kEffects = {
    {"smooth", {SMOOTH, "smooth_strength"}},
    {"redlips", {REDLIPS, "redlips_strength"}},
    {"whitening", {WHITENING, "whitening_strength"}},
    {"slimface", {SLIMFACE, "slim_face_strength"}},
};

void runChannel(benchmark::State& state, const std::vector<std::string>& effects, bool closeUp = false)
{
    static const QImage small = framePicture();
    static const QImage close = closeUpPicture();
    const QImage& picture = closeUp ? close : small;
    BenchChannel channel;
    for (const std::string& name : effects) {
        const auto& e = kEffects.at(name);
        channel.add(e.first, e.second, 80.0);
    }
    // Context, programs and framebuffers are made here, and the detector
    // shows the face by its fifth call.
    for (int i = 0; i < 5; ++i)
        channel.frame(picture);
    for (auto _ : state)
        channel.frame(picture);
    if (!effects.empty() && channel.facesSeen() != 1)
        state.SkipWithError("the frame's face was not found");
}

void BM_NoFilter(benchmark::State& state) { runChannel(state, {}); }
void BM_AllFourFaceEffects(benchmark::State& state)
{
    runChannel(state, {"slimface", "redlips", "smooth", "whitening"});
}
void BM_Smooth(benchmark::State& state) { runChannel(state, {"smooth"}); }
void BM_RedLips(benchmark::State& state) { runChannel(state, {"redlips"}); }
void BM_Whitening(benchmark::State& state) { runChannel(state, {"whitening"}); }
void BM_SlimFace(benchmark::State& state) { runChannel(state, {"slimface"}); }
void BM_CloseUpAllFour(benchmark::State& state)
{
    runChannel(state, {"slimface", "redlips", "smooth", "whitening"}, true);
}
void BM_CloseUpSmooth(benchmark::State& state) { runChannel(state, {"smooth"}, true); }
void BM_CloseUpWhitening(benchmark::State& state) { runChannel(state, {"whitening"}, true); }
void BM_CloseUpSlimFace(benchmark::State& state) { runChannel(state, {"slimface"}, true); }

// Glasses on each face.
void runSticker(benchmark::State& state, bool twoFaces)
{
    const QImage picture = framePicture(twoFaces);
    BenchChannel channel;
    channel.add(STICKER, "sticker_type", 0);
    channel.setSticker(std::string(LUMEN_STICKER_DIR) + "/glasses01.png");
    channel.frame(picture);
    for (auto _ : state)
        channel.frame(picture);
}
void BM_StickerOneFace(benchmark::State& state) { runSticker(state, false); }
void BM_StickerTwoFaces(benchmark::State& state) { runSticker(state, true); }

// The picture pass alone, with the settings on top of the filter's defaults.
void runPicture(benchmark::State& state, const std::map<std::string, double>& settings)
{
    static const QImage picture = framePicture();
    BenchChannel channel;
    channel.add(BASICIMAGE, "alpha_strength", 1.0);
    channel.add(BASICIMAGE, "center_y_offset", 0.5);
    for (const auto& [key, value] : settings)
        channel.add(BASICIMAGE, key, value);
    channel.frame(picture);
    for (auto _ : state)
        channel.frame(picture);
}

void BM_PictureColour(benchmark::State& state)
{
    runPicture(state, {{"brightness_strength", 20}, {"contrast_strength", 30}, {"saturation_strength", -20}});
}
void BM_PictureCorners(benchmark::State& state) { runPicture(state, {{"corner_radius", 80}}); }
void BM_PictureRoundCamera(benchmark::State& state) { runPicture(state, {{"is_round_camera", 1}}); }
void BM_PictureRotationXY(benchmark::State& state) { runPicture(state, {{"rotation_x", 20}, {"rotation_y", 30}}); }

// The detection itself, as a frame pays it when its result is not cached.
class BenchDetector : public DnnFaceDetector {
public:
    using DnnFaceDetector::detectImage;
};

void BM_FaceDetection(benchmark::State& state)
{
    static const QImage picture = framePicture();
    BenchDetector detector;
    std::vector<cv::Rect> rects;
    std::vector<std::vector<int>> points;
    std::vector<std::vector<float>> triplets;
    std::vector<std::vector<float>> values;
    detector.detectImage(picture, rects, points, triplets, values);
    for (auto _ : state) {
        rects.clear();
        points.clear();
        triplets.clear();
        values.clear();
        detector.detectImage(picture, rects, points, triplets, values);
        if (rects.empty())
            state.SkipWithError("no face found");
    }
}

}  // namespace

BENCHMARK(BM_NoFilter)->Unit(benchmark::kMillisecond)->MinTime(1.0);
BENCHMARK(BM_AllFourFaceEffects)->Unit(benchmark::kMillisecond)->MinTime(1.0);
BENCHMARK(BM_Smooth)->Unit(benchmark::kMillisecond)->MinTime(1.0);
BENCHMARK(BM_RedLips)->Unit(benchmark::kMillisecond)->MinTime(1.0);
BENCHMARK(BM_Whitening)->Unit(benchmark::kMillisecond)->MinTime(1.0);
BENCHMARK(BM_SlimFace)->Unit(benchmark::kMillisecond)->MinTime(1.0);
BENCHMARK(BM_CloseUpAllFour)->Unit(benchmark::kMillisecond)->MinTime(1.0);
BENCHMARK(BM_CloseUpSmooth)->Unit(benchmark::kMillisecond)->MinTime(1.0);
BENCHMARK(BM_CloseUpWhitening)->Unit(benchmark::kMillisecond)->MinTime(1.0);
BENCHMARK(BM_CloseUpSlimFace)->Unit(benchmark::kMillisecond)->MinTime(1.0);
BENCHMARK(BM_StickerOneFace)->Unit(benchmark::kMillisecond)->MinTime(1.0);
BENCHMARK(BM_StickerTwoFaces)->Unit(benchmark::kMillisecond)->MinTime(1.0);
BENCHMARK(BM_PictureColour)->Unit(benchmark::kMillisecond)->MinTime(1.0);
BENCHMARK(BM_PictureCorners)->Unit(benchmark::kMillisecond)->MinTime(1.0);
BENCHMARK(BM_PictureRoundCamera)->Unit(benchmark::kMillisecond)->MinTime(1.0);
BENCHMARK(BM_PictureRotationXY)->Unit(benchmark::kMillisecond)->MinTime(1.0);
BENCHMARK(BM_FaceDetection)->Unit(benchmark::kMillisecond)->MinTime(1.0);

int main(int argc, char** argv)
{
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    qputenv("QT_LOGGING_RULES", "*.info=false;*.debug=false");
    QGuiApplication app(argc, argv);
    if (!openglAvailable(argv[0]))
        return 1;
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    std::fflush(stdout);
    std::_Exit(0);
}
