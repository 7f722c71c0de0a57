#include "Recorder.h"

#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <thread>

#include <QCoreApplication>
#include <QSaveFile>
#include <sys/ioctl.h>
#include <unistd.h>

extern "C" {
#include <libavutil/rational.h>
}

namespace {

std::atomic<bool> interrupted{false};

// How long a picture takes through the engine, on average, from its hand-over
// to the merged picture that shows it: a channel's tick and frame, a scene's
// tick and merge, and the read-back one merge behind. Output frames are taken
// that much after their time, so that pictures and sound stay together.
const double kEngineLead = 0.15;
// Longest wait for the engine to show every channel before the clock starts.
const double kWarmUpLimit = 10;
// Once it shows them, time for the face detectors to find the faces.
const double kWarmUpFaces = 0.6;

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point t) { return std::chrono::duration<double>(Clock::now() - t).count(); }

double cpuSeconds()
{
    timespec t{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return t.tv_sec + t.tv_nsec / 1e9;
}

void warn(const QString& text) { std::fprintf(stderr, "lumen_fx_video: %s\n", qPrintable(text)); }

bool samePixels(const QImage& a, const QImage& b)
{
    if (a.cacheKey() == b.cacheKey())
        return true;
    if (a.size() != b.size() || a.format() != b.format() || a.bytesPerLine() != b.bytesPerLine())
        return false;
    return std::memcmp(a.constBits(), b.constBits(), a.sizeInBytes()) == 0;
}

int terminalWidth()
{
    winsize size{};
    return ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 20 ? size.ws_col : 80;
}

}  // namespace

struct Recorder::Feed {
    std::unique_ptr<VideoInput> input;
    double next = 0;  // time of its next picture
    bool ended = false;
};

Recorder::Recorder(const RecorderOptions& options) : options_(options) {}

Recorder::~Recorder()
{
    // The decoders and the encoder stop before the engine goes with the application.
    for (Feed& feed : feeds_)
        feed.input->stop();
    writer_.reset();
}

void Recorder::interrupt() { interrupted = true; }

double Recorder::clock() const { return secondsSince(start_) - stalled_; }

int Recorder::run()
{
    if (!openInputs() || !openOutput())
        return 1;
    scene_.reset(new RecordingScene(grid_, options_.background, options_.effects));
    if (!scene_->make()) {
        warn("the engine made no scene or channel");
        return 1;
    }
    progress_ = !options_.quiet && isatty(STDERR_FILENO);
    warmUp();
    play();
    for (Feed& feed : feeds_)
        feed.input->stop();
    if (!finish())
        return 1;
    std::printf("%s\n", qPrintable(summaryLine(figures_, options_.output)));
    if (interrupted)
        warn("interrupted: the output holds what was recorded until then");
    return interrupted ? 130 : 0;
}

bool Recorder::openInputs()
{
    QList<QSize> sizes;
    for (const QString& path : options_.inputs) {
        QString error;
        std::unique_ptr<VideoInput> input = VideoInput::open(path, error);
        if (!input) {
            warn(error);
            return false;
        }
        sizes << input->firstSize();
        figures_.totalSeconds = std::max(figures_.totalSeconds, input->statedDuration());
        feeds_.push_back(Feed{std::move(input), 0, false});
    }
    if (options_.duration > 0)
        figures_.totalSeconds = figures_.totalSeconds > 0 ? std::min(figures_.totalSeconds, options_.duration)
                                                          : options_.duration;
    const double fps = options_.fps > 0 ? options_.fps : feeds_.front().input->frameRate();
    const AVRational rate = av_d2q(fps, 1001000);
    rateNum_ = rate.num;
    rateDen_ = rate.den;
    figures_.fps = double(rateNum_) / rateDen_;
    figures_.inputs = options_.inputs;
    const QSize size = options_.size.isEmpty() ? defaultMergeSize(sizes, options_.compare) : options_.size;
    grid_ = layoutGrid(sizes, options_.compare, size);
    const double pngAt = options_.pngAt >= 0 ? options_.pngAt : figures_.totalSeconds / 2;
    if (!options_.png.isEmpty() && (options_.pngAt >= 0 || figures_.totalSeconds > 0))
        pngFrame_ = std::llround(pngAt * figures_.fps);
    return true;
}

bool Recorder::openOutput()
{
    VideoFormat format;
    format.width = grid_.size.width();
    format.height = grid_.size.height();
    format.rateNum = rateNum_;
    format.rateDen = rateDen_;
    format.encoder = options_.encoder;
    const VideoInput& first = *feeds_.front().input;
    QString error, audioNote;
    std::unique_ptr<VideoWriter> writer = VideoWriter::open(
        options_.output, format, CopiedAudio::open(first.path(), first.startSeconds()), error, &audioNote);
    if (!writer) {
        warn(error);
        return false;
    }
    if (!audioNote.isEmpty())
        warn(QString("'%1': %2; the output has no sound").arg(first.path(), audioNote));
    writer_.reset(new AsyncWriter(std::move(writer)));
    return true;
}

void Recorder::warmUp()
{
    // The first pictures go in until the merged picture shows every channel:
    // the first merge of a channel only sets up the exchange with its scene.
    std::vector<QImage> firsts;
    for (size_t i = 0; i < feeds_.size(); ++i) {
        DecodedFrame frame;
        feeds_[i].input->take(frame);
        firsts.push_back(frame.image);
        feeds_[i].input->start();
    }
    const Clock::time_point begin = Clock::now();
    double shownAt = -1;
    while (!interrupted) {
        for (size_t i = 0; i < feeds_.size(); ++i)
            scene_->send(static_cast<int>(i), firsts[i]);
        scene_->requestMerge();
        std::this_thread::sleep_for(std::chrono::milliseconds(40));
        QCoreApplication::processEvents();
        QImage merged;
        const double now = secondsSince(begin);
        if (shownAt < 0 && scene_->fetch(merged) && scene_->showsEveryCell(merged))
            shownAt = now;
        if (shownAt >= 0 && now - shownAt >= kWarmUpFaces)
            return;
        if (now > kWarmUpLimit) {
            warn("the engine showed no picture of some channel within 10 s; recording anyway");
            return;
        }
    }
}

void Recorder::play()
{
    start_ = Clock::now();
    lastProgress_ = start_;
    cpuAtStart_ = cpuSeconds();
    const double interval = double(rateDen_) / rateNum_;
    long long limit = -1;
    if (options_.duration > 0)
        limit = std::max(1LL, static_cast<long long>(std::ceil(options_.duration / interval - 1e-6)));
    while (!interrupted) {
        handIn(clock());
        chooseEnd();
        const long long end = lastFrame_ < 0 ? limit : limit < 0 ? lastFrame_ : std::min(limit, lastFrame_);
        if (end >= 0 && frame_ >= end)
            break;
        const double due = frame_ * interval + kEngineLead;
        if (clock() >= due) {
            if (!record())
                return;
            // Late by more than a frame (the encoder's queue was full): the clock waits for the engine.
            const double late = clock() - due;
            if (late > interval)
                stalled_ += late;
            continue;
        }
        double wake = due;
        for (const Feed& feed : feeds_)
            if (!feed.ended)
                wake = std::min(wake, feed.next);
        const double nap = std::clamp(wake - clock(), 0.0, 0.02);
        std::this_thread::sleep_for(std::chrono::duration<double>(nap));
        QCoreApplication::processEvents();
        showProgress();
    }
}

void Recorder::handIn(double now)
{
    bool sent = false;
    for (size_t i = 0; i < feeds_.size(); ++i) {
        Feed& feed = feeds_[i];
        DecodedFrame newest;
        bool due = false;
        while (!feed.ended) {
            // A decoder that falls behind holds the clock.
            const Clock::time_point asked = Clock::now();
            double time = 0;
            const bool more = feed.input->peekTime(time);
            const double waited = secondsSince(asked);
            if (waited > 0.001)
                stalled_ += waited;
            if (!more) {
                feed.ended = true;
                break;
            }
            feed.next = time;
            if (time > now)
                break;
            feed.input->take(newest);
            due = true;
        }
        // Of the pictures due, only the newest counts: the engine would replace the others.
        if (due) {
            scene_->send(static_cast<int>(i), newest.image);
            sent = true;
        }
    }
    if (sent)
        scene_->requestMerge();
}

void Recorder::chooseEnd()
{
    if (lastFrame_ >= 0)
        return;
    double end = 0;
    for (const Feed& feed : feeds_) {
        if (!feed.ended)
            return;
        end = std::max(end, feed.input->endTime());
    }
    // As long as the longest input: its last picture shown for its whole frame
    // (a tenth of a frame's slack for times rounded to a container's clock).
    lastFrame_ = std::max(1LL, static_cast<long long>(std::ceil(end * rateNum_ / rateDen_ - 0.1)));
    if (figures_.totalSeconds <= 0 || options_.duration <= 0)
        figures_.totalSeconds = double(lastFrame_) * rateDen_ / rateNum_;
}

bool Recorder::record()
{
    scene_->requestMerge();
    QImage merged;
    if (!scene_->fetch(merged)) {
        merged = previous_;
        if (merged.isNull()) {
            merged = QImage(grid_.size, QImage::Format_BGR888);
            merged.fill(options_.background);
        }
    }
    if (figures_.recorded > 0 && samePixels(merged, previous_))
        ++figures_.repeated;
    if (!writer_->push(merged)) {
        warn(writer_->error());
        return false;
    }
    if (frame_ == pngFrame_) {
        QSaveFile file(options_.png);
        pngWritten_ = file.open(QIODevice::WriteOnly) && merged.save(&file, "PNG") && file.commit();
        if (!pngWritten_)
            warn(QString("'%1': can't be written").arg(options_.png));
    }
    previous_ = merged;
    ++frame_;
    figures_.recorded = frame_;
    figures_.videoSeconds = double(frame_) * rateDen_ / rateNum_;
    figures_.wallSeconds = secondsSince(start_);
    figures_.clockSeconds = clock();
    figures_.cpuSeconds = cpuSeconds() - cpuAtStart_;
    return true;
}

bool Recorder::finish()
{
    if (progress_)
        std::fprintf(stderr, "\r\033[K");
    for (const Feed& feed : feeds_) {
        figures_.framesRead << feed.input->framesRead();
        const QString damage = feed.input->damage();
        if (!damage.isEmpty())
            warn("warning: " + damage);
    }
    QString error = writer_->error();
    if (!error.isEmpty() || !writer_->finish(error)) {
        warn(error);
        return false;
    }
    // A picture asked for past the end shows the last frame.
    if (!options_.png.isEmpty() && !pngWritten_ && !previous_.isNull()) {
        QSaveFile file(options_.png);
        if (!(file.open(QIODevice::WriteOnly) && previous_.save(&file, "PNG") && file.commit()))
            warn(QString("'%1': can't be written").arg(options_.png));
    }
    return true;
}

void Recorder::showProgress()
{
    if (!progress_ || secondsSince(lastProgress_) < 0.25)
        return;
    lastProgress_ = Clock::now();
    std::fprintf(stderr, "\r%s\033[K", qPrintable(progressLine(figures_, terminalWidth() - 1)));
    std::fflush(stderr);
}
