// Face detection on a 1280 x 720 frame with one large face (the bundled
// portrait, scaled up so that the face is about 280 pixels wide).
//
//   cold:   every call must search the whole picture, either because the
//           detector is new or because the picture differs from the last one
//   steady: the same face call after call, as in a video stream
//
// Run with --benchmark_repetitions=N and read the medians.
#include <memory>

#include <QFile>
#include <QFileInfo>
#include <QImage>
#include <QStringList>
#include <QPainter>
#include <benchmark/benchmark.h>
#include <kvodnnl/kvodnnl.h>

#include "convert/FrameConverter.h"
#include "face/DnnFaceDetector.h"

namespace {

// The portrait from the source tree: named by LUMEN_TESTDATA_DIR, or found
// from the working directory or the executable's place in a build tree.
QImage loadPortrait()
{
    QStringList dirs;
    if (qEnvironmentVariableIsSet("LUMEN_TESTDATA_DIR"))
        dirs << qEnvironmentVariable("LUMEN_TESTDATA_DIR");
    const QString exeDir = QFileInfo(QFile::symLinkTarget("/proc/self/exe")).absolutePath();
    dirs << "testdata" << "../testdata" << "../../testdata" << exeDir + "/../../testdata" << exeDir + "/../testdata";
    for (const QString& dir : dirs) {
        QImage image(dir + "/astronaut.png");
        if (!image.isNull())
            return image;
    }
    return QImage();
}

// The portrait tripled and cut to 1280 x 720 round its face; `shift` moves
// the face and `background` tints the frame, to make a different picture.
QImage frame(QPoint shift = QPoint(0, 0), int tint = 0)
{
    static const QImage portrait = [] {
        const QImage p = loadPortrait();
        return p.scaled(p.size() * 3, Qt::IgnoreAspectRatio, Qt::SmoothTransformation);
    }();
    QImage out(1280, 720, QImage::Format_RGB32);
    out.fill(QColor(90, 90, 90));
    QPainter p(&out);
    // The face's centre (about 228, 126 in the portrait) to the frame's centre.
    p.drawImage(QPoint(640 - 228 * 3, 360 - 126 * 3) + shift, portrait);
    if (tint)
        p.fillRect(out.rect(), QColor(0, 0, 80, tint));
    return out;
}

cv::Mat rgbOf(const QImage& image)
{
    cv::Mat out;
    FrameConverter::instance()->qimageToRgbMat(image, out);
    return out.clone();
}

void requireFaces(benchmark::State& state, size_t found)
{
    if (found != 1)
        state.SkipWithError("the frame's face was not found (is testdata/astronaut.png reachable?)");
}

void BM_RunColdNewDetector(benchmark::State& state)
{
    const cv::Mat image = rgbOf(frame());
    { KVOAI::FaceDetector warm(KVOAI::DEFAULT, 1, 1); warm.Run(image, false, false, 1, 1, 50.f); }  // model read
    for (auto _ : state) {
        KVOAI::FaceDetector detector(KVOAI::DEFAULT, 1, 1);
        const size_t n = detector.Run(image, false, false, 1, 1, 50.f).size();
        requireFaces(state, n);
    }
}

void BM_RunColdChangingPicture(benchmark::State& state)
{
    const cv::Mat a = rgbOf(frame(QPoint(-60, 0), 0));
    const cv::Mat b = rgbOf(frame(QPoint(60, 20), 160));
    KVOAI::FaceDetector detector(KVOAI::DEFAULT, 1, 1);
    detector.Run(a, false, false, 1, 1, 50.f);
    bool flip = false;
    for (auto _ : state) {
        flip = !flip;
        const size_t n = detector.Run(flip ? b : a, false, false, 1, 1, 50.f).size();
        requireFaces(state, n);
    }
}

void BM_RunSteady(benchmark::State& state)
{
    const cv::Mat image = rgbOf(frame());
    KVOAI::FaceDetector detector(KVOAI::DEFAULT, 1, 1);
    const auto& first = detector.Run(image, false, false, 1, 1, 50.f);
    if (!first.empty())
        state.counters["face_width_px"] = first[0].box[2] - first[0].box[0];
    for (auto _ : state) {
        const size_t n = detector.Run(image, false, false, 1, 1, 50.f).size();
        requireFaces(state, n);
    }
}

// What the channel pipeline pays per real detection: the QImage's conversion
// plus the library, on a steady stream.
void BM_DnnDetectImageSteady(benchmark::State& state)
{
    const QImage image = frame();
    DnnFaceDetector detector;
    std::vector<cv::Rect> rects;
    std::vector<std::vector<int>> points;
    std::vector<std::vector<float>> triplets, values;
    detector.detectImage(image, rects, points, triplets, values);
    for (auto _ : state) {
        rects.clear();
        points.clear();
        triplets.clear();
        values.clear();
        detector.detectImage(image, rects, points, triplets, values);
        requireFaces(state, rects.size());
    }
}

}  // namespace

BENCHMARK(BM_RunColdNewDetector)->Unit(benchmark::kMillisecond)->MinTime(1.0);
BENCHMARK(BM_RunColdChangingPicture)->Unit(benchmark::kMillisecond)->MinTime(1.0);
BENCHMARK(BM_RunSteady)->Unit(benchmark::kMillisecond)->MinTime(1.0);
BENCHMARK(BM_DnnDetectImageSteady)->Unit(benchmark::kMillisecond)->MinTime(1.0);

BENCHMARK_MAIN();
