// The face detector on sequences of 1280 x 720 pictures made from the bundled
// portrait, each sequence with a new detector, as a video stream would call it:
//
//   still     the face keeps still, with new sensor noise in every picture
//             (grey levels with a standard deviation of 4)
//   moving    the same face swings left and right, up to 6 pixels a call
//   walk-in   the face comes in from the left edge and stops in the middle
//   cuts      two different pictures in turn: every call is a new picture
//   camera    the still face filmed by a camera that zooms in to 1.6 and back
//             out to 1.2 over 200 calls while it pans and tilts by up to 5
//             degrees, at 25 calls a second; once alone and once with two
//             threads of the caller's priority busy meanwhile, as a renderer
//             in the same process keeps the processors busy
//
// For each it prints the time of a call (median, 99th percentile, maximum, in
// milliseconds) and, for the still and moving faces, how the key points hold:
//   jitter      the root mean square distance of each key point from its own
//               mean over the still calls (in pixels)
//   error       the mean distance of each key point from where the face's
//               motion takes its place in the still sequence, and the same
//               for the mean of all points (the lag of the face as a whole)
// Then the first call of new detectors (the models already read), and the
// recall (by size band, at the fifth call and at the tenth) and false faces
// on the labelled pictures of tests/kvodnnl/LabelledPictures.h (pictures of
// six faces, classroom rows of about 27, pictures without anyone), each
// picture handed in ten times to a new detector, back to back and at 30
// calls a second.
//
// Usage: bench_face_detector [rounds]  (the sequences are run `rounds` times,
// 3 by default, and the times of all rounds pooled), or
// bench_face_detector labelled  (the labelled pictures only), or
// bench_face_detector camera  (the still face and the camera only).
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <QFile>
#include <QFileInfo>
#include <QImage>
#include <QStringList>
#include <kvodnnl/kvodnnl.h>
#include <opencv2/imgproc.hpp>

#include "../tests/kvodnnl/LabelledPictures.h"

namespace {

using Clock = std::chrono::steady_clock;
using Face = KVOAI::FaceDetector::Face;

// The portrait from the source tree: named by LUMEN_TESTDATA_DIR, or found
// from the working directory or the executable's place in a build tree.
cv::Mat loadPortrait()
{
    QStringList dirs;
    if (qEnvironmentVariableIsSet("LUMEN_TESTDATA_DIR"))
        dirs << qEnvironmentVariable("LUMEN_TESTDATA_DIR");
    const QString exeDir = QFileInfo(QFile::symLinkTarget("/proc/self/exe")).absolutePath();
    dirs << "testdata" << "../testdata" << "../../testdata" << exeDir + "/../../testdata" << exeDir + "/../testdata";
    for (const QString& dir : dirs) {
        const QImage image = QImage(dir + "/astronaut.png").convertToFormat(QImage::Format_RGB888);
        if (!image.isNull())
            return cv::Mat(image.height(), image.width(), CV_8UC3, const_cast<uchar*>(image.constBits()),
                           image.bytesPerLine())
                .clone();
    }
    return cv::Mat();
}

cv::Mat portrait;
// The face's centre in the portrait and the scale that gives it an eye
// distance of about 90 pixels.
const cv::Point2d kFaceCentre(228, 126);
constexpr double kScale = 2.0;

// The portrait scaled by kScale with its face's centre at `centre` on a grey
// 1280 x 720 picture, with noise of standard deviation `noise` made from
// `seed`.
cv::Mat frame(cv::Point2d centre, int seed, double noise = 4.0, int grey = 90)
{
    cv::Mat out(720, 1280, CV_8UC3, cv::Scalar::all(grey));
    const cv::Matx23d m(kScale, 0, centre.x - kFaceCentre.x * kScale, 0, kScale, centre.y - kFaceCentre.y * kScale);
    cv::warpAffine(portrait, out, m, out.size(), cv::INTER_LINEAR, cv::BORDER_TRANSPARENT);
    if (noise > 0) {
        cv::Mat n(out.size(), CV_16SC3), wide;
        cv::RNG(seed).fill(n, cv::RNG::NORMAL, 0, noise);
        out.convertTo(wide, CV_16SC3);
        wide += n;
        wide.convertTo(out, CV_8UC3);
    }
    return out;
}

double since(Clock::time_point start)
{
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

// CPU time of the calling thread, in milliseconds.
double threadMilliseconds()
{
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return t.tv_sec * 1e3 + t.tv_nsec * 1e-6;
}

struct Stats {
    explicit Stats(const char* name) : name(name) {}
    const char* name;
    std::vector<double> ms;
    long slow() const
    {
        return std::count_if(ms.begin(), ms.end(), [](double m) { return m >= 31.0; });
    }
    void print() const
    {
        std::vector<double> s = ms;
        std::sort(s.begin(), s.end());
        if (s.empty())
            return;
        const auto at = [&](double q) { return s[std::min(s.size() - 1, static_cast<size_t>(q * s.size()))]; };
        std::printf("%-10s calls %4zu  median %6.2f ms  p99 %6.2f ms  max %6.2f ms  31 ms or more %ld\n", name,
                    s.size(), at(0.5), at(0.99), s.back(), slow());
    }
};

std::vector<cv::Point2d> pointsOf(const Face& f)
{
    std::vector<cv::Point2d> out;
    for (size_t k = 0; k + 1 < f.points.size(); k += 2)
        out.emplace_back(f.points[k], f.points[k + 1]);
    return out;
}

cv::Point2d meanOf(const std::vector<cv::Point2d>& points)
{
    cv::Point2d sum;
    for (const cv::Point2d& p : points)
        sum += p;
    return sum * (1.0 / points.size());
}

// Runs `calls` pictures through a new detector; `each` sees the call's index
// and its faces.
void sequence(Stats& stats, int calls, const std::function<cv::Mat(int)>& picture,
              const std::function<void(int, const std::vector<Face>&)>& each)
{
    KVOAI::FaceDetector detector(KVOAI::DEFAULT, 1, 1);
    for (int i = 0; i < calls; ++i) {
        const cv::Mat image = picture(i);
        const Clock::time_point start = Clock::now();
        const double cpuStart = threadMilliseconds();
        const std::vector<Face>& faces = detector.Run(image, false, false, 1, 1, 50.f);
        stats.ms.push_back(since(start));
        // A slow call is named with the CPU time the calling thread spent in
        // it: far less than the call's time means it waited (for the search
        // thread, or for a core); as much means it computed, or that a
        // virtual machine's host held its processor, which the guest counts
        // as the thread's time.
        if (stats.ms.back() >= 31.0 && stats.slow() <= 5)
            std::printf("slow call: %s, call %d: %.1f ms, %.1f ms of it on the calling thread's CPU\n", stats.name,
                        i + 1, stats.ms.back(), threadMilliseconds() - cpuStart);
        each(i, faces);
    }
}

// The middle of the 1280 x 720 picture, where the face rests.
const cv::Point2d kMiddle(640, 360);

// What the sequences gather over all rounds.
struct SequenceTotals {
    Stats still{"still"}, moving{"moving"}, walkIn{"walk-in"}, cuts{"cuts"};
    double jitterSum = 0, pointError = 0, centreError = 0, eyes = 0;
    int jitterCount = 0, errorCount = 0, missed = 0, walkInFound = 0;
    std::vector<cv::Point2d> reference;  // the still face's mean points
};

// Still: the jitter over calls 10 on, once the face has been found. The mean
// points of the still face become the reference for the moving one.
void runStill(SequenceTotals& t, int round)
{
    std::vector<std::vector<cv::Point2d>> seen;
    sequence(t.still, 150, [&](int i) { return frame(kMiddle, round * 1000 + i); },
             [&](int i, const std::vector<Face>& faces) {
                 if (i >= 10 && faces.size() == 1)
                     seen.push_back(pointsOf(faces[0]));
                 t.missed += i >= 10 && faces.size() != 1;
             });
    if (seen.empty())
        return;
    t.reference.assign(seen[0].size(), cv::Point2d());
    for (const auto& points : seen)
        for (size_t k = 0; k < points.size(); ++k)
            t.reference[k] += points[k] * (1.0 / seen.size());
    for (const auto& points : seen)
        for (size_t k = 0; k < points.size(); ++k, ++t.jitterCount) {
            const cv::Point2d d = points[k] - t.reference[k];
            t.jitterSum += d.dot(d);
        }
    t.eyes = cv::norm(t.reference[97] - t.reference[96]);
}

// The moving face's offset from the middle at call `i`: a swing of 150
// pixels each way over 150 calls, after 10 calls at rest.
double swing(int i)
{
    return i < 10 ? 0.0 : 150.0 * std::sin(2 * CV_PI * (i - 10) / 150.0);
}

// Moving: the error of the key points against the still face's, moved by
// the swing.
void runMoving(SequenceTotals& t, int round)
{
    sequence(t.moving, 160, [&](int i) { return frame(kMiddle + cv::Point2d(swing(i), 0), 50000 + round * 1000 + i); },
             [&](int i, const std::vector<Face>& faces) {
                 if (i < 10 || t.reference.empty())
                     return;
                 if (faces.size() != 1) {
                     ++t.missed;
                     return;
                 }
                 const std::vector<cv::Point2d> points = pointsOf(faces[0]);
                 const cv::Point2d shift(swing(i), 0);
                 for (size_t k = 0; k < points.size(); ++k)
                     t.pointError += cv::norm(points[k] - t.reference[k] - shift) / points.size();
                 t.centreError += cv::norm(meanOf(points) - meanOf(t.reference) - shift);
                 ++t.errorCount;
             });
}

// Walk-in: from outside the left edge to the middle at 8 pixels a call, then
// still. The first round prints the call that first shows the face.
void runWalkIn(SequenceTotals& t, int round)
{
    int firstSeen = -1;
    sequence(t.walkIn, 150, [&](int i) { return frame(cv::Point2d(std::min(-120.0 + 8 * i, 640.0), 360), i); },
             [&](int i, const std::vector<Face>& faces) {
                 if (firstSeen < 0 && faces.size() == 1)
                     firstSeen = i;
             });
    t.walkInFound += firstSeen >= 0;
    if (round == 0)
        std::printf("walk-in: the face is first shown at call %d, its centre then at x = %.0f\n", firstSeen,
                    std::min(-120.0 + 8 * firstSeen, 640.0));
}

// Cuts: two pictures in turn.
void runCuts(Stats& cuts)
{
    const cv::Mat a = frame(kMiddle + cv::Point2d(-200, 0), 1, 4.0, 60);
    const cv::Mat b = frame(kMiddle + cv::Point2d(150, 40), 2, 4.0, 170);
    sequence(cuts, 60, [&](int i) { return i % 2 ? b : a; }, [](int, const std::vector<Face>&) {});
}

// The camera's move at call `i` of `calls`: where it takes a point of the
// still picture.
cv::Matx23d cameraAt(int i, int calls)
{
    const double u = static_cast<double>(i) / calls;
    const auto ease = [](double x) {
        x = std::clamp(x, 0.0, 1.0);
        return x * x * (3 - 2 * x);
    };
    const double zoom = u < 0.5 ? 1 + 0.6 * ease(u / 0.45) : 1.6 - 0.4 * ease((u - 0.55) / 0.45);
    const double tilt = 5 * std::sin(2 * CV_PI * u);
    const cv::Point2d look = kMiddle + cv::Point2d(40 * std::sin(2 * CV_PI * u), 0);
    cv::Matx23d m = cv::getRotationMatrix2D(look, -tilt, zoom);
    m(0, 2) += kMiddle.x - look.x;
    m(1, 2) += kMiddle.y - look.y;
    return m;
}

// Camera: the times of the calls, and the mean error of the eye centres
// against the still face's moved by the camera, with `busy` threads spinning.
void runCamera(const SequenceTotals& t, int busy)
{
    constexpr int kCalls = 200;
    Stats stats{busy ? "camera+2" : "camera"};
    std::atomic<bool> stop{false};
    std::vector<std::thread> spinners;
    for (int k = 0; k < busy; ++k)
        spinners.emplace_back([&stop] {
            volatile double x = 1;
            while (!stop.load(std::memory_order_relaxed))
                x = x * 1.0000001 + 1e-9;
        });
    double error = 0;
    int measured = 0, missed = 0;
    const cv::Mat still = frame(kMiddle, 3);
    Clock::time_point next = Clock::now();
    sequence(stats, kCalls,
             [&](int i) {
                 std::this_thread::sleep_until(next);
                 next += std::chrono::milliseconds(40);
                 cv::Mat out;
                 cv::warpAffine(still, out, cameraAt(i, kCalls), still.size(), cv::INTER_LINEAR,
                                cv::BORDER_CONSTANT, cv::Scalar::all(90));
                 return out;
             },
             [&](int i, const std::vector<Face>& faces) {
                 if (i < 10 || t.reference.empty())
                     return;
                 if (faces.size() != 1) {
                     ++missed;
                     return;
                 }
                 const cv::Matx23d m = cameraAt(i, kCalls);
                 const std::vector<cv::Point2d> points = pointsOf(faces[0]);
                 for (int k : {96, 97}) {
                     const cv::Point2d& r = t.reference[k];
                     const cv::Point2d want(m(0, 0) * r.x + m(0, 1) * r.y + m(0, 2),
                                            m(1, 0) * r.x + m(1, 1) * r.y + m(1, 2));
                     error += cv::norm(points[k] - want) / (t.eyes * std::hypot(m(0, 0), m(1, 0))) / 2;
                 }
                 ++measured;
             });
    stop = true;
    for (std::thread& s : spinners)
        s.join();
    stats.print();
    std::printf("%-10s mean eye centre error %.1f%% of the eye distance; calls without the one face after the "
                "first 10: %d\n",
                stats.name, 100 * error / std::max(1, measured), missed);
}

// The times of each sequence and of all of them pooled, then the jitter and
// the error of the key points.
void printSequenceTotals(const SequenceTotals& t, int rounds)
{
    Stats all{"all"};
    for (const Stats* s : {&t.still, &t.moving, &t.walkIn, &t.cuts})
        all.ms.insert(all.ms.end(), s->ms.begin(), s->ms.end());
    t.still.print();
    t.moving.print();
    t.walkIn.print();
    t.cuts.print();
    all.print();
    std::printf("eye distance %.1f px; still jitter (RMS distance of a point from its mean) %.3f px\n", t.eyes,
                std::sqrt(t.jitterSum / std::max(1, t.jitterCount)));
    std::printf("moving: mean point error %.2f px (%.1f%% of the eye distance), mean centre error %.2f px (%.1f%%)\n",
                t.pointError / std::max(1, t.errorCount), 100 * t.pointError / std::max(1, t.errorCount) / t.eyes,
                t.centreError / std::max(1, t.errorCount), 100 * t.centreError / std::max(1, t.errorCount) / t.eyes);
    std::printf("calls without the one face after the first 10: %d; walk-ins found %d of %d\n", t.missed,
                t.walkInFound, rounds);
}

// First calls of new detectors, on a still picture and on one without faces.
void runFirstCalls(int rounds)
{
    Stats first{"first"}, firstEmpty{"first-0"};
    const cv::Mat face = frame(kMiddle, 7), empty = frame(cv::Point2d(-2000, 0), 8);
    for (int i = 0; i < 10 * rounds; ++i)
        for (Stats* s : {&first, &firstEmpty}) {
            KVOAI::FaceDetector detector(KVOAI::DEFAULT, 1, 1);
            const Clock::time_point start = Clock::now();
            detector.Run(s == &first ? face : empty, false, false, 1, 1, 50.f);
            s->ms.push_back(since(start));
        }
    first.print();
    firstEmpty.print();
}

cv::Rect boxOf(const Face& f)
{
    return cv::Rect(f.box[0], f.box[1], f.box[2] - f.box[0], f.box[3] - f.box[1]);
}

// What one pass over the labelled pictures counts; the faces by size band
// (30-39, 40-49, 50-59, 60-69 and 70-80 pixels wide) found by the fifth call
// and by the tenth.
struct LabelledTally {
    int labels = 0, falseFaces = 0;
    int bandLabels[5] = {}, bandFound[2][5] = {};
    Stats labelled{"labelled"};
    static int band(int width) { return std::max(0, std::min(4, (width - 30) / 10)); }
};

// Counts and prints the faces found on `p` that overlap none of its labels.
void countFalseFaces(LabelledTally& tally, const labelled::Picture& p, int call, const std::vector<Face>& faces)
{
    for (const Face& f : faces) {
        const cv::Rect box = boxOf(f);
        bool labelledFace = false;
        for (const cv::Rect& label : p.faces)
            labelledFace = labelledFace || labelled::overlap(box, label) > 0.1;
        if (!labelledFace) {
            ++tally.falseFaces;
            std::printf("false face on %s at call %d: %d,%d %dx%d\n", p.name.c_str(), call + 1, box.x, box.y,
                        box.width, box.height);
        }
    }
}

// Counts the labels of `p` that a face found overlaps at the fifth call
// (`late` false) or the tenth, and at the fifth the labels themselves.
void countFound(LabelledTally& tally, const labelled::Picture& p, const std::vector<Face>& faces, bool late)
{
    for (const cv::Rect& label : p.faces) {
        bool found = false;
        for (const Face& f : faces)
            found = found || labelled::overlap(boxOf(f), label) > 0.3;
        tally.bandFound[late][LabelledTally::band(label.width)] += found;
        if (!late) {
            ++tally.labels;
            ++tally.bandLabels[LabelledTally::band(label.width)];
        }
    }
}

// Hands `p` to the detector ten times, a call every `interval` ms at most;
// the recall is taken at the fifth call and at the tenth.
void runLabelledPicture(KVOAI::FaceDetector& detector, const labelled::Picture& p, double interval,
                        LabelledTally& tally)
{
    Stats& times = tally.labelled;
    for (int call = 0; call < 10; ++call) {
        const Clock::time_point start = Clock::now();
        const double cpuStart = threadMilliseconds();
        const std::vector<Face> faces = detector.Run(p.rgb, false, false, 1, 1, 50.f);
        times.ms.push_back(since(start));
        if (times.ms.back() >= 31.0 && times.slow() <= 5)
            std::printf("slow call: %s (%dx%d), call %d: %.1f ms, %.1f ms of it on the calling thread's CPU\n",
                        p.name.c_str(), p.rgb.cols, p.rgb.rows, call + 1, times.ms.back(),
                        threadMilliseconds() - cpuStart);
        countFalseFaces(tally, p, call, faces);
        if (call == 4 || call == 9)
            countFound(tally, p, faces, call == 9);
        const std::chrono::duration<double, std::milli> pause(interval);
        std::this_thread::sleep_until(start + std::chrono::duration_cast<Clock::duration>(pause));
    }
}

// Prints what `tally` counted on the pictures of one kind.
void printTally(const char* kind, const LabelledTally& tally)
{
    std::printf("  %s: %d faces 30-80 px wide; %d false faces over all calls\n", kind, tally.labels,
                tally.falseFaces);
    if (tally.labels == 0)
        return;
    std::printf("    found by the fifth call, and by the tenth:\n");
    int found[2] = {}, labels = 0;
    for (int b = 0; b < 5; ++b) {
        if (tally.bandLabels[b] == 0)
            continue;
        const double all = tally.bandLabels[b];
        std::printf("      faces %d-%d px: %d, %d of %d (%.2f, %.2f)\n", 30 + 10 * b, b == 4 ? 80 : 39 + 10 * b,
                    tally.bandFound[0][b], tally.bandFound[1][b], tally.bandLabels[b], tally.bandFound[0][b] / all,
                    tally.bandFound[1][b] / all);
        for (int late = 0; late < 2 && b > 0; ++late)
            found[late] += tally.bandFound[late][b];
        labels += b > 0 ? tally.bandLabels[b] : 0;
    }
    std::printf("      faces 40-80 px: %d, %d of %d (%.3f, %.3f)\n", found[0], found[1], labels,
                found[0] / std::max(1.0, double(labels)), found[1] / std::max(1.0, double(labels)));
}

// Labelled pictures, each handed in ten times to a new detector, so that
// what it finds owes nothing to a picture before: back to back (`interval`
// 0), or as a camera at 30 frames a second would hand them in (a call every
// 33 ms), which leaves the detector's own thread the time between calls.
// Pictures of six faces, classroom pictures of about 27, and pictures
// without anyone are counted apart; the times are those of all calls.
void runLabelledPictures(double interval)
{
    LabelledTally kinds[3];
    Stats times{"labelled"};
    const auto run = [&](const labelled::Picture& p, LabelledTally& tally) {
        KVOAI::FaceDetector detector(KVOAI::DEFAULT, 1, 1);
        runLabelledPicture(detector, p, interval, tally);
        times.ms.insert(times.ms.end(), tally.labelled.ms.end() - 10, tally.labelled.ms.end());
    };
    for (const labelled::Picture& p : labelled::withFaces(portrait, {40, 48, 56, 64, 72, 80}))
        run(p, kinds[0]);
    for (const labelled::Picture& p : labelled::classroom(portrait, 8, 1))
        run(p, kinds[1]);
    const std::vector<labelled::Picture> empty = labelled::withoutFaces(portrait);
    for (const labelled::Picture& p : empty)
        run(p, kinds[2]);
    std::printf("labelled pictures %s:\n", interval > 0 ? "at 30 calls a second" : "back to back");
    times.print();
    printTally("pictures of six faces", kinds[0]);
    printTally("classroom pictures", kinds[1]);
    std::printf("  %zu pictures without faces: %d false faces over all calls\n", empty.size(), kinds[2].falseFaces);
}

}  // namespace

int main(int argc, char** argv)
{
    const int rounds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 3;
    portrait = loadPortrait();
    if (portrait.empty()) {
        std::fprintf(stderr, "testdata/astronaut.png not found; set LUMEN_TESTDATA_DIR\n");
        return 1;
    }
    { KVOAI::FaceDetector warm(KVOAI::DEFAULT, 1, 1); }  // the models are read once per process

    // "labelled": the labelled pictures only.
    if (argc > 1 && std::string(argv[1]) == "labelled") {
        for (const double interval : {0.0, 1000.0 / 30.0})
            runLabelledPictures(interval);
        return 0;
    }
    SequenceTotals totals;
    if (argc > 1 && std::string(argv[1]) == "camera") {
        runStill(totals, 0);
        for (const int busy : {0, 2})
            runCamera(totals, busy);
        return 0;
    }
    for (int round = 0; round < rounds; ++round) {
        runStill(totals, round);
        runMoving(totals, round);
        runWalkIn(totals, round);
        runCuts(totals.cuts);
    }
    printSequenceTotals(totals, rounds);
    runFirstCalls(rounds);
    for (const double interval : {0.0, 1000.0 / 30.0})
        runLabelledPictures(interval);
    // Last: the busy threads leave the slowdown high for a few calls after.
    for (const int busy : {0, 2})
        runCamera(totals, busy);
    return 0;
}
