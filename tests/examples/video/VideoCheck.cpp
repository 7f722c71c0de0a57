#include "VideoCheck.h"

#include <algorithm>
#include <cmath>

#include <QDir>
#include <QProcess>

#include "AudioSource.h"
#include "ClipMaker.h"
#include "SampleFootage.h"
#include "TestUtil.h"
#include "VideoInput.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

namespace videocheck {

QString scratch(const char* name)
{
    av_log_set_level(AV_LOG_ERROR);  // not the encoders' reports of each clip

    const QString dir = testutil::outputPath("video") + "/" + name;
    QDir(dir).removeRecursively();
    QDir().mkpath(dir);
    return dir;
}

bool writeFaceClip(const QString& path, const QSize& size, double fps, double seconds, bool sound,
                   const std::function<double(double)>& footageTime)
{
    const SampleFootage footage(testutil::portrait(), size, seconds);
    ClipFormat clip{size, fps, seconds, QString()};
    QString error;
    const auto tone = [](double t) { return static_cast<float>(0.3 * std::sin(2 * M_PI * 440 * t)); };
    return writeClip(path, clip, [&](double t) { return footage.frame(footageTime ? footageTime(t) : t); },
                     sound ? std::function<float(double)>(tone) : nullptr, error);
}

int rampLevel(double t, double seconds) { return 60 + static_cast<int>(160 * std::clamp(t / seconds, 0.0, 1.0)); }

bool writeRampClip(const QString& path, const QSize& size, double fps, double seconds,
                   const std::function<QColor(int)>& colour, const QString& encoder)
{
    ClipFormat clip{size, fps, seconds, encoder};
    QString error;
    return writeClip(path, clip,
                     [&](double t) {
                         QImage picture(size, QImage::Format_RGB888);
                         picture.fill(colour(rampLevel(t, seconds)));
                         return picture;
                     },
                     nullptr, error);
}

bool writeSoundOnly(const QString& path, double seconds)
{
    AVFormatContext* out = nullptr;
    const QByteArray file = path.toUtf8();
    if (avformat_alloc_output_context2(&out, nullptr, nullptr, file.constData()) < 0)
        return false;
    GeneratedAudio sound([](double t) { return static_cast<float>(0.3 * std::sin(2 * M_PI * 440 * t)); });
    QString error;
    bool ok = sound.addStream(out, error) && avio_open(&out->pb, file.constData(), AVIO_FLAG_WRITE) >= 0
              && avformat_write_header(out, nullptr) >= 0 && sound.finish(out, seconds, error)
              && av_write_trailer(out) >= 0;
    if (out->pb)
        ok = avio_closep(&out->pb) >= 0 && ok;
    avformat_free_context(out);
    return ok;
}

Probe probe(const QString& path)
{
    Probe p;
    AVFormatContext* file = nullptr;
    const QByteArray name = path.toUtf8();
    if (avformat_open_input(&file, name.constData(), nullptr, nullptr) < 0)
        return p;
    if (avformat_find_stream_info(file, nullptr) < 0) {
        avformat_close_input(&file);
        return p;
    }
    const int video = av_find_best_stream(file, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
    const int sound = av_find_best_stream(file, AVMEDIA_TYPE_AUDIO, -1, -1, nullptr, 0);
    double start[2] = {1e9, 1e9}, end[2] = {-1e9, -1e9};
    AVPacket* packet = av_packet_alloc();
    while (av_read_frame(file, packet) >= 0) {
        const int which = packet->stream_index == video ? 0 : packet->stream_index == sound ? 1 : -1;
        if (which >= 0 && packet->pts != AV_NOPTS_VALUE) {
            const double base = av_q2d(file->streams[packet->stream_index]->time_base);
            start[which] = std::min(start[which], packet->pts * base);
            end[which] = std::max(end[which], (packet->pts + packet->duration) * base);
            p.frames += which == 0;
        }
        av_packet_unref(packet);
    }
    av_packet_free(&packet);
    if (video >= 0) {
        p.ok = true;
        p.width = file->streams[video]->codecpar->width;
        p.height = file->streams[video]->codecpar->height;
        p.videoSeconds = std::max(0.0, end[0] - start[0]);
    }
    p.sound = sound >= 0;
    p.soundSeconds = p.sound ? std::max(0.0, end[1] - std::max(0.0, start[1])) : 0;
    avformat_close_input(&file);
    return p;
}

double firstLoudSound(const QString& path)
{
    AVFormatContext* file = nullptr;
    const QByteArray name = path.toUtf8();
    if (avformat_open_input(&file, name.constData(), nullptr, nullptr) < 0)
        return -1;
    double found = -1;
    const AVCodec* codec = nullptr;
    avformat_find_stream_info(file, nullptr);
    const int stream = av_find_best_stream(file, AVMEDIA_TYPE_AUDIO, -1, -1, &codec, 0);
    AVCodecContext* decoder = stream >= 0 ? avcodec_alloc_context3(codec) : nullptr;
    if (decoder && avcodec_parameters_to_context(decoder, file->streams[stream]->codecpar) >= 0
        && avcodec_open2(decoder, codec, nullptr) >= 0) {
        AVPacket* packet = av_packet_alloc();
        AVFrame* frame = av_frame_alloc();
        const double base = av_q2d(file->streams[stream]->time_base);
        while (found < 0 && av_read_frame(file, packet) >= 0) {
            if (packet->stream_index == stream && avcodec_send_packet(decoder, packet) >= 0)
                while (found < 0 && avcodec_receive_frame(decoder, frame) >= 0) {
                    // Planar floats, as the AAC decoder gives them: the first channel is enough.
                    const auto* samples = reinterpret_cast<const float*>(frame->extended_data[0]);
                    for (int i = 0; i < frame->nb_samples && found < 0; ++i)
                        if (std::fabs(samples[i]) > 0.25f)
                            found = frame->pts * base + double(i) / frame->sample_rate;
                }
            av_packet_unref(packet);
        }
        av_frame_free(&frame);
        av_packet_free(&packet);
    }
    avcodec_free_context(&decoder);
    avformat_close_input(&file);
    return found;
}

std::vector<QImage> picturesAt(const QString& path, const std::vector<double>& times)
{
    std::vector<QImage> pictures;
    QString error;
    std::unique_ptr<VideoInput> input = VideoInput::open(path, error);
    if (!input)
        return pictures;
    input->start();
    DecodedFrame frame, shown;
    bool more = input->take(shown);
    for (double t : times) {
        // The picture on screen at t: the last one that starts at or before it.
        while (more && input->peekTime(frame.time) && frame.time <= t + 1e-6)
            more = input->take(shown);
        if (!more)
            break;
        pictures.push_back(shown.image);
    }
    input->stop();
    return pictures;
}

RunResult record(const QStringList& arguments, int timeoutMs)
{
    RunResult run;
    QProcess process;
    process.start(LUMEN_VIDEO_HOST, QStringList{"-q"} + arguments);
    if (!process.waitForStarted(10000))
        return run;
    run.finished = process.waitForFinished(timeoutMs);
    if (!run.finished)
        process.kill();
    process.waitForFinished(5000);
    run.crashed = process.exitStatus() != QProcess::NormalExit;
    run.status = process.exitCode();
    run.out = QString::fromLocal8Bit(process.readAllStandardOutput());
    run.err = QString::fromLocal8Bit(process.readAllStandardError());
    return run;
}

Mean meanOf(const QImage& picture, const QRect& area)
{
    Mean m;
    const QRect r = area.intersected(picture.rect());
    if (r.isEmpty())
        return m;
    for (int y = r.top(); y <= r.bottom(); ++y)
        for (int x = r.left(); x <= r.right(); ++x) {
            const QRgb p = picture.pixel(x, y);
            m.red += qRed(p);
            m.green += qGreen(p);
            m.blue += qBlue(p);
        }
    const double n = double(r.width()) * r.height();
    return {m.red / n, m.green / n, m.blue / n};
}

}  // namespace videocheck
