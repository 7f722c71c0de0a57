#pragma once
// A swscale context for one conversion of pictures, made anew when the
// pictures' size, layout or colours change. The colour details are set
// before the context is set up: set afterwards, the SIMD paths of some
// conversions (4:4:4 to RGB) keep tables of their own and get the colours
// wrong, depending on where memory happens to lie.
extern "C" {
#include <libavutil/pixfmt.h>
}

struct SwsContext;

struct ScalerSetting {
    int srcWidth = 0, srcHeight = 0;
    AVPixelFormat srcFormat = AV_PIX_FMT_NONE;
    int dstWidth = 0, dstHeight = 0;
    AVPixelFormat dstFormat = AV_PIX_FMT_NONE;
    bool bt709 = false;    // the YUV side's matrix: BT.709, else BT.601
    bool fullRange = false;  // the YUV side's range: full (JPEG), else limited

    bool operator==(const ScalerSetting& o) const;
};

class Scaler {
public:
    Scaler() = default;
    ~Scaler();
    Scaler(const Scaler&) = delete;
    Scaler& operator=(const Scaler&) = delete;

    // The context for the setting; null when swscale can't convert so.
    SwsContext* get(const ScalerSetting& setting);

private:
    SwsContext* context_ = nullptr;
    ScalerSetting setting_;
};
