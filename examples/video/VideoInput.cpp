#include "VideoInput.h"

#include <algorithm>
#include <cmath>

#include <QFileInfo>

#include "MediaError.h"
#include "MediaLog.h"
#include "Scaler.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libswscale/swscale.h>
}

struct VideoInput::Codec {
    AVCodecContext* context = nullptr;
    AVPacket* packet = av_packet_alloc();
    AVFrame* frame = av_frame_alloc();
    Scaler scaler;
    int64_t firstTimestamp = AV_NOPTS_VALUE;
    AVRational timeBase{1, 25};
    bool flushing = false;

    ~Codec()
    {
        av_frame_free(&frame);
        av_packet_free(&packet);
        avcodec_free_context(&context);
    }
};

namespace {

// Whether a stream holds video pictures (and not an album's cover picture).
bool isMovingPicture(const AVStream* s)
{
    return s->codecpar->codec_type == AVMEDIA_TYPE_VIDEO && !(s->disposition & AV_DISPOSITION_ATTACHED_PIC);
}

double sensibleRate(AVRational guessed, AVRational average)
{
    for (AVRational r : {guessed, average}) {
        if (r.num > 0 && r.den > 0) {
            const double rate = av_q2d(r);
            if (rate >= 1 && rate <= 120)
                return rate;
        }
    }
    return 25;
}

}  // namespace

VideoInput::VideoInput(const QString& path) : path_(path), codec_(new Codec) {}

VideoInput::~VideoInput()
{
    stop();
    forgetMediaErrors(format_);
    forgetMediaErrors(codec_->context);
    codec_.reset();
    avformat_close_input(&format_);
}

std::unique_ptr<VideoInput> VideoInput::open(const QString& path, QString& error)
{
    const QFileInfo info(path);
    if (!info.exists() && !path.contains("://")) {
        error = QString("'%1': no such file").arg(path);
        return nullptr;
    }
    if (info.isDir()) {
        error = QString("'%1': is a directory, not a video file").arg(path);
        return nullptr;
    }
    if (info.exists() && info.size() == 0) {
        error = QString("'%1': empty file (0 bytes)").arg(path);
        return nullptr;
    }
    std::unique_ptr<VideoInput> input(new VideoInput(path));
    if (!input->openStream(error))
        return nullptr;
    if (!input->decodeNext(input->first_)) {
        error = QString("'%1': no picture of its video stream decodes%2")
                    .arg(path, input->readError_.isEmpty() ? "" : " (" + input->readError_ + ")");
        return nullptr;
    }
    return input;
}

bool VideoInput::openStream(QString& error)
{
    const QByteArray file = path_.toUtf8();
    int rc = avformat_open_input(&format_, file.constData(), nullptr, nullptr);
    if (rc < 0) {
        error = QString("'%1': not a video file that can be read (%2)").arg(path_, mediaError(rc));
        return false;
    }
    countMediaErrors(format_, &loggedErrors_);
    rc = avformat_find_stream_info(format_, nullptr);
    if (rc < 0) {
        error = QString("'%1': its streams can't be read (%2)").arg(path_, mediaError(rc));
        return false;
    }
    bool hasAudio = false;
    for (unsigned i = 0; i < format_->nb_streams; ++i) {
        hasAudio = hasAudio || format_->streams[i]->codecpar->codec_type == AVMEDIA_TYPE_AUDIO;
        if (stream_ < 0 && isMovingPicture(format_->streams[i]))
            stream_ = static_cast<int>(i);
    }
    if (stream_ < 0) {
        error = QString("'%1': has no video stream%2").arg(path_, hasAudio ? " (audio only)" : "");
        return false;
    }
    AVStream* st = format_->streams[stream_];
    const AVCodec* decoder = avcodec_find_decoder(st->codecpar->codec_id);
    if (!decoder) {
        error = QString("'%1': no decoder for its video (%2)").arg(path_, avcodec_get_name(st->codecpar->codec_id));
        return false;
    }
    codec_->context = avcodec_alloc_context3(decoder);
    avcodec_parameters_to_context(codec_->context, st->codecpar);
    codec_->context->thread_count = 2;
    countMediaErrors(codec_->context, &loggedErrors_);
    rc = avcodec_open2(codec_->context, decoder, nullptr);
    if (rc < 0) {
        error = QString("'%1': its video can't be decoded (%2)").arg(path_, mediaError(rc));
        return false;
    }
    codec_->timeBase = st->time_base;
    frameRate_ = sensibleRate(av_guess_frame_rate(format_, st, nullptr), st->avg_frame_rate);
    if (st->duration != AV_NOPTS_VALUE && st->duration > 0)
        statedDuration_ = st->duration * av_q2d(st->time_base);
    else if (format_->duration != AV_NOPTS_VALUE && format_->duration > 0)
        statedDuration_ = format_->duration / double(AV_TIME_BASE);
    return true;
}

bool VideoInput::decodeNext(DecodedFrame& frame)
{
    for (;;) {
        if (receive(frame))
            return true;
        if (codec_->flushing)
            return false;
        AVPacket* packet = codec_->packet;
        const int rc = av_read_frame(format_, packet);
        if (rc < 0) {
            if (rc != AVERROR_EOF)
                readError_ = mediaError(rc);
            codec_->flushing = true;
            avcodec_send_packet(codec_->context, nullptr);
            continue;
        }
        if (packet->stream_index == stream_ && avcodec_send_packet(codec_->context, packet) < 0)
            ++badPackets_;
        av_packet_unref(packet);
    }
}

bool VideoInput::receive(DecodedFrame& out)
{
    AVFrame* frame = codec_->frame;
    for (;;) {
        const int rc = avcodec_receive_frame(codec_->context, frame);
        if (rc == AVERROR(EAGAIN) || rc == AVERROR_EOF)
            return false;
        if (rc < 0) {
            ++badPackets_;
            continue;
        }
        if ((frame->flags & AV_FRAME_FLAG_CORRUPT) || frame->decode_error_flags)
            ++badPackets_;
        break;
    }
    // Time from the stream's first picture; a picture without a time, or out
    // of order in a damaged file, follows the one before by a frame.
    const int64_t ts = frame->best_effort_timestamp;
    double time = lastTime_ + 1.0 / frameRate_;
    if (ts != AV_NOPTS_VALUE) {
        if (codec_->firstTimestamp == AV_NOPTS_VALUE) {
            codec_->firstTimestamp = ts;
            startSeconds_ = ts * av_q2d(codec_->timeBase);
        }
        const double stamped = (ts - codec_->firstTimestamp) * av_q2d(codec_->timeBase);
        if (stamped > lastTime_)
            time = stamped;
    }
    lastTime_ = std::max(time, 0.0);

    ScalerSetting setting;
    setting.srcWidth = setting.dstWidth = frame->width;
    setting.srcHeight = setting.dstHeight = frame->height;
    setting.srcFormat = static_cast<AVPixelFormat>(frame->format);
    setting.dstFormat = AV_PIX_FMT_RGB24;
    setting.bt709 = frame->colorspace == AVCOL_SPC_BT709;
    setting.fullRange = frame->color_range == AVCOL_RANGE_JPEG;
    SwsContext* scaler = codec_->scaler.get(setting);
    if (!scaler) {
        ++badPackets_;
        av_frame_unref(frame);
        return receive(out);
    }
    QImage image(frame->width, frame->height, QImage::Format_RGB888);
    uint8_t* planes[4] = {image.bits(), nullptr, nullptr, nullptr};
    int strides[4] = {static_cast<int>(image.bytesPerLine()), 0, 0, 0};
    sws_scale(scaler, frame->data, frame->linesize, 0, frame->height, planes, strides);
    av_frame_unref(frame);

    out.image = image;
    out.time = lastTime_;
    std::lock_guard<std::mutex> lock(mutex_);
    ++framesRead_;
    endTime_ = lastTime_ + 1.0 / frameRate_;
    return true;
}

void VideoInput::start(int depth)
{
    depth_ = std::max(1, depth);
    thread_ = std::thread([this] { run(); });
}

void VideoInput::run()
{
    for (;;) {
        DecodedFrame frame;
        const bool more = decodeNext(frame);
        std::unique_lock<std::mutex> lock(mutex_);
        if (!more || stopping_) {
            ended_ = true;
            readToEnd_ = !more;
            changed_.notify_all();
            return;
        }
        changed_.wait(lock, [this] { return stopping_ || int(queue_.size()) < depth_; });
        queue_.push_back(std::move(frame));
        changed_.notify_all();
    }
}

bool VideoInput::peekTime(double& time)
{
    if (!firstTaken_) {
        time = first_.time;
        return true;
    }
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] { return !queue_.empty() || ended_ || !thread_.joinable(); });
    if (queue_.empty())
        return false;
    time = queue_.front().time;
    return true;
}

bool VideoInput::take(DecodedFrame& frame)
{
    if (!firstTaken_) {
        firstTaken_ = true;
        frame = first_;
        return true;
    }
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] { return !queue_.empty() || ended_ || !thread_.joinable(); });
    if (queue_.empty())
        return false;
    frame = std::move(queue_.front());
    queue_.pop_front();
    changed_.notify_all();
    return true;
}

void VideoInput::stop()
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
        queue_.clear();
    }
    changed_.notify_all();
    if (thread_.joinable())
        thread_.join();
}

int VideoInput::framesRead() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return framesRead_;
}

double VideoInput::endTime() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return endTime_;
}

QString VideoInput::damage() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (!readError_.isEmpty())
        return QString("'%1': damaged after %2 s (%3); played as far as it decodes")
            .arg(path_)
            .arg(endTime_, 0, 'f', 2)
            .arg(readError_);
    if (badPackets_ + loggedErrors_ > 0)
        return QString("'%1': damaged in %2 place(s), skipped or shown as they decoded")
            .arg(path_)
            .arg(badPackets_ + loggedErrors_);
    if (readToEnd_ && statedDuration_ > 0 && endTime_ < statedDuration_ - std::max(0.5, 2 / frameRate_))
        return QString("'%1': its pictures end at %2 s of the %3 s it states (cut off?); played as far as it decodes")
            .arg(path_)
            .arg(endTime_, 0, 'f', 2)
            .arg(statedDuration_, 0, 'f', 2);
    return QString();
}
