#include "ClipMaker.h"

#include <cmath>

#include "VideoWriter.h"

extern "C" {
#include <libavutil/rational.h>
}

bool writeClip(const QString& path, const ClipFormat& clip, const std::function<QImage(double)>& picture,
               const std::function<float(double)>& wave, QString& error)
{
    VideoFormat format;
    format.width = clip.size.width();
    format.height = clip.size.height();
    const AVRational rate = av_d2q(clip.fps, 1001000);
    format.rateNum = rate.num;
    format.rateDen = rate.den;
    format.encoder = clip.encoder;
    std::unique_ptr<AudioSource> audio;
    if (wave)
        audio.reset(new GeneratedAudio(wave));
    std::unique_ptr<VideoWriter> writer = VideoWriter::open(path, format, std::move(audio), error);
    if (!writer)
        return false;
    const long long frames = std::max(1LL, std::llround(clip.seconds * clip.fps));
    for (long long i = 0; i < frames; ++i)
        if (!writer->write(picture(i / clip.fps), error))
            return false;
    return writer->finish(error);
}
