#include "Scaler.h"

extern "C" {
#include <libavutil/opt.h>
#include <libavutil/pixdesc.h>
#include <libswscale/swscale.h>
}

bool ScalerSetting::operator==(const ScalerSetting& o) const
{
    return srcWidth == o.srcWidth && srcHeight == o.srcHeight && srcFormat == o.srcFormat && dstWidth == o.dstWidth
           && dstHeight == o.dstHeight && dstFormat == o.dstFormat && bt709 == o.bt709 && fullRange == o.fullRange;
}

Scaler::~Scaler() { sws_freeContext(context_); }

SwsContext* Scaler::get(const ScalerSetting& s)
{
    if (context_ && s == setting_)
        return context_;
    sws_freeContext(context_);
    context_ = sws_alloc_context();
    setting_ = s;
    av_opt_set_int(context_, "srcw", s.srcWidth, 0);
    av_opt_set_int(context_, "srch", s.srcHeight, 0);
    av_opt_set_int(context_, "src_format", s.srcFormat, 0);
    av_opt_set_int(context_, "dstw", s.dstWidth, 0);
    av_opt_set_int(context_, "dsth", s.dstHeight, 0);
    av_opt_set_int(context_, "dst_format", s.dstFormat, 0);
    av_opt_set_int(context_, "sws_flags", SWS_BICUBIC, 0);
    // The matrix and range of whichever side is YUV; RGB is always full range.
    const int* matrix = sws_getCoefficients(s.bt709 ? SWS_CS_ITU709 : SWS_CS_DEFAULT);
    const auto isRgb = [](AVPixelFormat f) {
        const AVPixFmtDescriptor* d = av_pix_fmt_desc_get(f);
        return d && (d->flags & AV_PIX_FMT_FLAG_RGB);
    };
    const int srcRange = isRgb(s.srcFormat) ? 1 : s.fullRange;
    const int dstRange = isRgb(s.dstFormat) ? 1 : s.fullRange;
    sws_setColorspaceDetails(context_, matrix, srcRange, matrix, dstRange, 0, 1 << 16, 1 << 16);
    if (sws_init_context(context_, nullptr, nullptr) < 0) {
        sws_freeContext(context_);
        context_ = nullptr;
    }
    return context_;
}
