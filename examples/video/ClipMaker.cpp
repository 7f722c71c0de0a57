#include "ClipMaker.h"

#include <cmath>

#include "VideoWriter.h"

extern "C" {
#include <libavutil/rational.h>
}

bool writeClip(const QString& path, const ClipSpec& spec, const std::function<QImage(double)>& picture,
               const std::function<float(double)>& wave, QString& error)
{
    VideoFormat format;
    format.width = spec.size.width();
    format.height = spec.size.height();
    const AVRational rate = av_d2q(spec.fps, 1001000);
    format.rateNum = rate.num;
    format.rateDen = rate.den;
    format.encoder = spec.encoder;
    std::unique_ptr<AudioSource> audio;
    if (wave)
        audio.reset(new GeneratedAudio(wave));
    std::unique_ptr<VideoWriter> writer = VideoWriter::open(path, format, std::move(audio), error);
    if (!writer)
        return false;
    const long long frames = std::max(1LL, std::llround(spec.seconds * spec.fps));
    for (long long i = 0; i < frames; ++i)
        if (!writer->write(picture(i / spec.fps), error))
            return false;
    return writer->finish(error);
}
