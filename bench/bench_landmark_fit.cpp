// Cost of one fit of the landmark model on the portrait's face, with the
// model's leaves in the processor's caches (the same face fitted again) and
// out of them (another program's work in between, as in a call that searched
// first): a fit reads 7,500 leaves spread over the whole model, and on a
// cold cache most of its time is memory's.
#include <cstdlib>
#include <vector>

#include <benchmark/benchmark.h>
#include <dlib/serialize.h>
#include <opencv2/core/mat.hpp>

#include <QImage>

#include "Models.h"
#include "Predictor.h"

namespace {

using KVOAI::kvodnnl::Predictor;

const Predictor& model()
{
    static const Predictor* read = [] {
        auto* m = new Predictor;
        dlib::deserialize(KVOAI::kvodnnl::kDefaultModelPath) >> *m;
        return m;
    }();
    return *read;
}

const cv::Mat& portrait()
{
    static const cv::Mat grey = [] {
        const QImage read = QImage(LUMEN_BENCH_PORTRAIT).convertToFormat(QImage::Format_Grayscale8);
        return cv::Mat(read.height(), read.width(), CV_8U, const_cast<uchar*>(read.constBits()),
                       static_cast<size_t>(read.bytesPerLine()))
            .clone();
    }();
    return grey;
}

// The face as the detector boxes it, a pixel or two off from fit to fit.
dlib::rectangle faceBox(long i)
{
    return dlib::translate_rect(dlib::rectangle(179, 83, 266, 170), i % 3 - 1, i % 5 - 2);
}

void BM_FitWarmCache(benchmark::State& state)
{
    model()(portrait(), faceBox(0));
    long i = 0;
    for (auto _ : state)
        benchmark::DoNotOptimize(model()(portrait(), faceBox(i++)));
}

void BM_FitColdCache(benchmark::State& state)
{
    // Larger than the processor's last cache.
    std::vector<char> other(std::size_t(64) << 20, 1);
    long i = 0;
    for (auto _ : state) {
        state.PauseTiming();
        for (std::size_t b = 0; b < other.size(); b += 64)
            ++other[b];
        benchmark::ClobberMemory();
        state.ResumeTiming();
        benchmark::DoNotOptimize(model()(portrait(), faceBox(i++)));
    }
}

}  // namespace

BENCHMARK(BM_FitWarmCache)->Unit(benchmark::kMillisecond)->MinTime(1.0);
BENCHMARK(BM_FitColdCache)->Unit(benchmark::kMillisecond)->MinTime(1.0);

int main(int argc, char** argv)
{
    if (portrait().empty())
        return EXIT_FAILURE;
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return EXIT_SUCCESS;
}
