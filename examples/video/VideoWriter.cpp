#include "VideoWriter.h"

#include <algorithm>
#include <cstdio>
#include <iterator>

#include <QCoreApplication>
#include <QFile>

#include "MediaError.h"
#include "Scaler.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/opt.h>
#include <libswscale/swscale.h>
}

struct VideoWriter::Codec {
    AVCodecContext* context = nullptr;
    AVStream* stream = nullptr;
    AVFrame* frame = av_frame_alloc();
    AVPacket* packet = av_packet_alloc();
    Scaler scaler;
    qint64 lastPicture = 0;  // cache key of the picture in `frame`
    bool hasPicture = false;

    ~Codec()
    {
        av_packet_free(&packet);
        av_frame_free(&frame);
        avcodec_free_context(&context);
    }
};

namespace {

// The pixel layout of a picture's bytes, for the scaler; NONE for layouts it isn't given directly.
AVPixelFormat bytesOf(const QImage& picture)
{
    switch (picture.format()) {
    case QImage::Format_BGR888:
        return AV_PIX_FMT_BGR24;
    case QImage::Format_RGB888:
        return AV_PIX_FMT_RGB24;
    case QImage::Format_RGBA8888:
    case QImage::Format_RGBX8888:
        return AV_PIX_FMT_RGBA;
    default:
        return AV_PIX_FMT_NONE;
    }
}

// 4:2:0 where the encoder takes it and the size allows it (even sides), as
// players expect (JPEG's own full range for Motion JPEG); else 4:4:4, else
// the encoder's nearest to RGB.
AVPixelFormat pictureFormatFor(const AVCodec* codec, const QSize& size)
{
    const bool even = size.width() % 2 == 0 && size.height() % 2 == 0;
    if (!codec->pix_fmts)
        return even ? AV_PIX_FMT_YUV420P : AV_PIX_FMT_YUV444P;
    const AVPixelFormat subsampled = codec->id == AV_CODEC_ID_MJPEG ? AV_PIX_FMT_YUVJ420P : AV_PIX_FMT_YUV420P;
    for (AVPixelFormat wanted : {even ? subsampled : AV_PIX_FMT_NONE, AV_PIX_FMT_YUV444P})
        for (const AVPixelFormat* f = codec->pix_fmts; *f != AV_PIX_FMT_NONE; ++f)
            if (*f == wanted)
                return *f;
    return avcodec_find_best_pix_fmt_of_list(codec->pix_fmts, AV_PIX_FMT_RGB24, 0, nullptr);
}

// The encoders' settings for a recorder that runs in real time: speed first, then quality.
void tune(AVCodecContext* c, const AVCodec* codec)
{
    if (QByteArray(codec->name) == "libx264") {
        av_opt_set(c->priv_data, "preset", "superfast", 0);
        av_opt_set(c->priv_data, "crf", "20", 0);
    } else if (QByteArray(codec->name).startsWith("libvpx")) {
        av_opt_set(c->priv_data, "deadline", "realtime", 0);
        av_opt_set(c->priv_data, "cpu-used", "8", 0);
        av_opt_set(c->priv_data, "crf", "30", 0);
    } else if (codec->id == AV_CODEC_ID_MPEG4) {
        c->flags |= AV_CODEC_FLAG_QSCALE;
        c->global_quality = FF_QP2LAMBDA * 3;
    }
}

QString temporaryName(const QString& path)
{
    return QString("%1.%2.part").arg(path).arg(QCoreApplication::applicationPid());
}

}  // namespace

std::unique_ptr<VideoWriter> VideoWriter::open(const QString& path, const VideoFormat& format,
                                               std::unique_ptr<AudioSource> audio, QString& error,
                                               QString* audioNote)
{
    std::unique_ptr<VideoWriter> writer(new VideoWriter);
    writer->codec_.reset(new Codec);
    writer->format_ = format;
    writer->path_ = path;
    writer->temporary_ = temporaryName(path);
    const QByteArray name = path.toUtf8();
    const AVOutputFormat* container = av_guess_format(nullptr, name.constData(), nullptr);
    if (!container) {
        error = QString("'%1': the file name doesn't say which container to write (try .mp4 or .mkv)").arg(path);
        return nullptr;
    }
    // The muxer knows the file by its temporary name: an MP4's second pass reads it back by that name.
    const QByteArray temporary = writer->temporary_.toUtf8();
    avformat_alloc_output_context2(&writer->out_, container, nullptr, temporary.constData());
    if (!writer->out_ || !writer->openEncoder(format.encoder, error))
        return nullptr;
    if (audio) {
        QString why;
        if (audio->addStream(writer->out_, why))
            writer->audio_ = std::move(audio);
        else if (audioNote)
            *audioNote = why;
    }
    int rc = avio_open(&writer->out_->pb, temporary.constData(), AVIO_FLAG_WRITE);
    if (rc < 0) {
        error = QString("'%1': can't be written (%2)").arg(path, mediaError(rc));
        return nullptr;
    }
    AVDictionary* options = nullptr;
    if (QByteArray(container->name).contains("mp4") || QByteArray(container->name).contains("mov"))
        av_dict_set(&options, "movflags", "+faststart", 0);  // playable while it downloads
    rc = avformat_write_header(writer->out_, &options);
    av_dict_free(&options);
    if (rc < 0) {
        error = QString("'%1': can't start the file (%2)").arg(path, mediaError(rc));
        return nullptr;
    }
    return writer;
}

bool VideoWriter::openEncoder(const QString& name, QString& error)
{
    QList<const AVCodec*> candidates;
    if (!name.isEmpty()) {
        const AVCodec* named = avcodec_find_encoder_by_name(name.toUtf8().constData());
        if (!named || named->type != AVMEDIA_TYPE_VIDEO) {
            error = QString("unknown video encoder '%1'").arg(name);
            return false;
        }
        if (avformat_query_codec(out_->oformat, named->id, FF_COMPLIANCE_NORMAL) != 1) {
            error = QString("encoder '%1' writes %2, which %3 files can't hold")
                        .arg(name, avcodec_get_name(named->id), out_->oformat->name);
            return false;
        }
        candidates << named;
    } else {
        candidates << avcodec_find_encoder_by_name("libx264") << avcodec_find_encoder(AV_CODEC_ID_H264)
                   << avcodec_find_encoder(AV_CODEC_ID_MPEG4);
    }
    QString last;
    for (const AVCodec* codec : candidates) {
        if (!codec || avformat_query_codec(out_->oformat, codec->id, FF_COMPLIANCE_NORMAL) != 1)
            continue;
        AVCodecContext* c = avcodec_alloc_context3(codec);
        c->width = format_.width;
        c->height = format_.height;
        c->time_base = AVRational{format_.rateDen, format_.rateNum};
        c->framerate = AVRational{format_.rateNum, format_.rateDen};
        c->pix_fmt = pictureFormatFor(codec, QSize(format_.width, format_.height));
        c->gop_size = qMax(1, 2 * format_.rateNum / format_.rateDen);  // a key frame every two seconds
        // BT.601's matrix, as readers assume where a container can't say (AVI)
        c->color_primaries = AVCOL_PRI_BT709;
        c->color_trc = AVCOL_TRC_IEC61966_2_1;
        c->colorspace = AVCOL_SPC_SMPTE170M;
        const AVPixelFormat jpeg[] = {AV_PIX_FMT_YUVJ420P, AV_PIX_FMT_YUVJ422P, AV_PIX_FMT_YUVJ444P};
        c->color_range = std::count(std::begin(jpeg), std::end(jpeg), c->pix_fmt) ? AVCOL_RANGE_JPEG : AVCOL_RANGE_MPEG;
        if (out_->oformat->flags & AVFMT_GLOBALHEADER)
            c->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
        tune(c, codec);
        const int rc = avcodec_open2(c, codec, nullptr);
        if (rc < 0) {
            last = QString("%1: %2").arg(codec->name, mediaError(rc));
            avcodec_free_context(&c);
            continue;
        }
        codec_->context = c;
        codec_->stream = avformat_new_stream(out_, nullptr);
        avcodec_parameters_from_context(codec_->stream->codecpar, c);
        codec_->stream->time_base = c->time_base;
        codec_->stream->avg_frame_rate = c->framerate;
        return true;
    }
    error = last.isEmpty() ? QString("no video encoder for %1 files").arg(out_->oformat->name)
                           : QString("the video encoder doesn't open (%1)").arg(last);
    return false;
}

VideoWriter::~VideoWriter()
{
    if (!finished_)
        abandon();
    avformat_free_context(out_);
}

void VideoWriter::abandon()
{
    if (out_ && out_->pb)
        avio_closep(&out_->pb);
    QFile::remove(temporary_);
}

QString VideoWriter::encoderName() const
{
    return codec_->context ? QString(codec_->context->codec->name) : QString();
}

double VideoWriter::secondsWritten() const
{
    return double(frames_) * format_.rateDen / format_.rateNum;
}

bool VideoWriter::convert(const QImage& picture, QString& error)
{
    AVCodecContext* c = codec_->context;
    AVFrame* frame = codec_->frame;
    // The same picture again (a merged picture that didn't change) is encoded from the frame as it is.
    if (codec_->hasPicture && picture.cacheKey() == codec_->lastPicture)
        return true;
    QImage source = picture;
    if (bytesOf(source) == AV_PIX_FMT_NONE)
        source = source.convertToFormat(QImage::Format_RGB888);
    if (!frame->buf[0]) {
        frame->format = c->pix_fmt;
        frame->width = c->width;
        frame->height = c->height;
        if (av_frame_get_buffer(frame, 0) < 0) {
            error = "out of memory for a picture";
            return false;
        }
    } else if (av_frame_make_writable(frame) < 0) {
        error = "out of memory for a picture";
        return false;
    }
    ScalerSetting setting;
    setting.srcWidth = source.width();
    setting.srcHeight = source.height();
    setting.srcFormat = bytesOf(source);
    setting.dstWidth = c->width;
    setting.dstHeight = c->height;
    setting.dstFormat = c->pix_fmt;
    setting.bt709 = false;
    setting.fullRange = c->color_range == AVCOL_RANGE_JPEG;
    SwsContext* scaler = codec_->scaler.get(setting);
    if (!scaler) {
        error = "no conversion of the pictures for the encoder";
        return false;
    }
    const uint8_t* planes[4] = {source.constBits(), nullptr, nullptr, nullptr};
    const int strides[4] = {static_cast<int>(source.bytesPerLine()), 0, 0, 0};
    sws_scale(scaler, planes, strides, 0, source.height(), frame->data, frame->linesize);
    codec_->lastPicture = picture.cacheKey();
    codec_->hasPicture = true;
    return true;
}

bool VideoWriter::write(const QImage& picture, QString& error)
{
    if (picture.isNull()) {
        error = "no picture to write";
        return false;
    }
    if (audio_ && !audio_->writeUntil(out_, double(frames_ + 1) * format_.rateDen / format_.rateNum, error))
        return false;
    if (!convert(picture, error))
        return false;
    codec_->frame->pts = frames_++;
    const int rc = avcodec_send_frame(codec_->context, codec_->frame);
    if (rc < 0) {
        error = "encoding: " + mediaError(rc);
        return false;
    }
    return drain(error);
}

bool VideoWriter::drain(QString& error)
{
    AVPacket* packet = codec_->packet;
    for (;;) {
        int rc = avcodec_receive_packet(codec_->context, packet);
        if (rc == AVERROR(EAGAIN) || rc == AVERROR_EOF)
            return true;
        if (rc < 0) {
            error = "encoding: " + mediaError(rc);
            return false;
        }
        av_packet_rescale_ts(packet, codec_->context->time_base, codec_->stream->time_base);
        packet->stream_index = codec_->stream->index;
        rc = av_interleaved_write_frame(out_, packet);
        if (rc < 0) {
            error = QString("'%1': writing failed (%2)").arg(path_, mediaError(rc));
            return false;
        }
    }
}

bool VideoWriter::finish(QString& error)
{
    if (frames_ == 0) {
        error = "no picture was recorded";
        return false;
    }
    avcodec_send_frame(codec_->context, nullptr);
    if (!drain(error) || (audio_ && !audio_->finish(out_, secondsWritten(), error)))
        return false;
    int rc = av_write_trailer(out_);
    if (rc >= 0)
        rc = avio_closep(&out_->pb);
    if (rc < 0) {
        error = QString("'%1': finishing the file failed (%2)").arg(path_, mediaError(rc));
        return false;
    }
    if (std::rename(QFile::encodeName(temporary_).constData(), QFile::encodeName(path_).constData()) != 0) {
        error = QString("'%1': can't be put in place of the temporary file").arg(path_);
        return false;
    }
    finished_ = true;
    return true;
}
