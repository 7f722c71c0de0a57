#include "AudioSource.h"

#include <algorithm>

#include "MediaError.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
}

namespace {

bool fitsContainer(const AVFormatContext* out, AVCodecID codec)
{
    return avformat_query_codec(out->oformat, codec, FF_COMPLIANCE_NORMAL) == 1;
}

}  // namespace

// ---------------------------------------------------------------------------
// CopiedAudio

std::unique_ptr<CopiedAudio> CopiedAudio::open(const QString& path, double origin)
{
    std::unique_ptr<CopiedAudio> audio(new CopiedAudio);
    const QByteArray file = path.toUtf8();
    if (avformat_open_input(&audio->file_, file.constData(), nullptr, nullptr) < 0
        || avformat_find_stream_info(audio->file_, nullptr) < 0)
        return nullptr;
    audio->stream_ = av_find_best_stream(audio->file_, AVMEDIA_TYPE_AUDIO, -1, -1, nullptr, 0);
    if (audio->stream_ < 0)
        return nullptr;
    audio->packet_ = av_packet_alloc();
    audio->origin_ = origin;
    return audio;
}

CopiedAudio::~CopiedAudio()
{
    av_packet_free(&packet_);
    avformat_close_input(&file_);
}

bool CopiedAudio::addStream(AVFormatContext* out, QString& error)
{
    const AVCodecParameters* in = file_->streams[stream_]->codecpar;
    if (!fitsContainer(out, in->codec_id)) {
        error = QString("its audio (%1) can't be copied into %2")
                    .arg(avcodec_get_name(in->codec_id), out->oformat->name);
        return false;
    }
    outStream_ = avformat_new_stream(out, nullptr);
    avcodec_parameters_copy(outStream_->codecpar, in);
    outStream_->codecpar->codec_tag = 0;
    outStream_->time_base = file_->streams[stream_]->time_base;
    return true;
}

bool CopiedAudio::readPacket()
{
    while (!ended_) {
        if (av_read_frame(file_, packet_) < 0) {
            ended_ = true;  // the end, or damage: the audio stops there
            return false;
        }
        if (packet_->stream_index == stream_ && packet_->pts != AV_NOPTS_VALUE)
            return true;
        av_packet_unref(packet_);
    }
    return false;
}

double CopiedAudio::packetTime() const
{
    return packet_->pts * av_q2d(file_->streams[stream_]->time_base) - origin_;
}

bool CopiedAudio::writeUntil(AVFormatContext* out, double seconds, QString& error)
{
    const AVRational inBase = file_->streams[stream_]->time_base;
    const int64_t shift = av_rescale_q(static_cast<int64_t>(origin_ * AV_TIME_BASE), AV_TIME_BASE_Q, inBase);
    for (;;) {
        if (!pending_ && !(pending_ = readPacket()))
            return true;
        const double start = packetTime();
        if (start >= seconds)
            return true;
        pending_ = false;
        // A packet that ends before the first picture plays before the output starts.
        const double end = start + packet_->duration * av_q2d(inBase);
        if (end < 0) {
            av_packet_unref(packet_);
            continue;
        }
        packet_->pts -= shift;
        if (packet_->dts != AV_NOPTS_VALUE)
            packet_->dts -= shift;
        av_packet_rescale_ts(packet_, inBase, outStream_->time_base);
        packet_->stream_index = outStream_->index;
        packet_->pos = -1;
        const int rc = av_interleaved_write_frame(out, packet_);
        if (rc < 0) {
            error = "writing audio: " + mediaError(rc);
            return false;
        }
    }
}

bool CopiedAudio::finish(AVFormatContext* out, double seconds, QString& error)
{
    return writeUntil(out, seconds, error);
}

// ---------------------------------------------------------------------------
// GeneratedAudio

GeneratedAudio::GeneratedAudio(std::function<float(double)> wave) : wave_(std::move(wave)) {}

GeneratedAudio::~GeneratedAudio() { avcodec_free_context(&encoder_); }

bool GeneratedAudio::addStream(AVFormatContext* out, QString& error)
{
    const AVCodec* codec = avcodec_find_encoder(AV_CODEC_ID_AAC);
    if (!codec || !fitsContainer(out, AV_CODEC_ID_AAC)) {
        error = "no AAC encoder for the audio";
        return false;
    }
    encoder_ = avcodec_alloc_context3(codec);
    encoder_->sample_fmt = AV_SAMPLE_FMT_FLTP;
    encoder_->sample_rate = 48000;
    encoder_->bit_rate = 96000;
    av_channel_layout_default(&encoder_->ch_layout, 1);
    encoder_->time_base = AVRational{1, encoder_->sample_rate};
    if (out->oformat->flags & AVFMT_GLOBALHEADER)
        encoder_->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    const int rc = avcodec_open2(encoder_, codec, nullptr);
    if (rc < 0) {
        error = "opening the AAC encoder: " + mediaError(rc);
        return false;
    }
    outStream_ = avformat_new_stream(out, nullptr);
    avcodec_parameters_from_context(outStream_->codecpar, encoder_);
    outStream_->time_base = encoder_->time_base;
    return true;
}

bool GeneratedAudio::encode(AVFormatContext* out, AVFrame* frame, QString& error)
{
    int rc = avcodec_send_frame(encoder_, frame);
    AVPacket* packet = av_packet_alloc();
    while (rc >= 0) {
        rc = avcodec_receive_packet(encoder_, packet);
        if (rc < 0)
            break;
        av_packet_rescale_ts(packet, encoder_->time_base, outStream_->time_base);
        packet->stream_index = outStream_->index;
        rc = av_interleaved_write_frame(out, packet);
    }
    av_packet_free(&packet);
    if (rc < 0 && rc != AVERROR(EAGAIN) && rc != AVERROR_EOF) {
        error = "writing audio: " + mediaError(rc);
        return false;
    }
    return true;
}

bool GeneratedAudio::writeUntil(AVFormatContext* out, double seconds, QString& error)
{
    return writeSamples(out, static_cast<long long>(seconds * encoder_->sample_rate), false, error);
}

bool GeneratedAudio::writeSamples(AVFormatContext* out, long long until, bool last, QString& error)
{
    // The encoder takes frames of its own size, but for the last one.
    const int size = encoder_->frame_size > 0 ? encoder_->frame_size : 1024;
    while (samples_ + size <= until || (last && samples_ < until)) {
        AVFrame* frame = av_frame_alloc();
        frame->nb_samples = static_cast<int>(std::min<long long>(size, until - samples_));
        frame->format = encoder_->sample_fmt;
        frame->sample_rate = encoder_->sample_rate;
        av_channel_layout_copy(&frame->ch_layout, &encoder_->ch_layout);
        av_frame_get_buffer(frame, 0);
        auto* data = reinterpret_cast<float*>(frame->data[0]);
        for (int i = 0; i < frame->nb_samples; ++i)
            data[i] = wave_(double(samples_ + i) / encoder_->sample_rate);
        frame->pts = samples_;
        samples_ += frame->nb_samples;
        const bool ok = encode(out, frame, error);
        av_frame_free(&frame);
        if (!ok)
            return false;
    }
    return true;
}

bool GeneratedAudio::finish(AVFormatContext* out, double seconds, QString& error)
{
    return writeSamples(out, static_cast<long long>(seconds * encoder_->sample_rate), true, error)
           && encode(out, nullptr, error);
}
