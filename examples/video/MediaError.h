#pragma once
// FFmpeg's text for one of its error codes.
#include <QString>

extern "C" {
#include <libavutil/error.h>
}

inline QString mediaError(int code)
{
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(code, text, sizeof text);
    return QString::fromUtf8(text);
}
