#pragma once
// Counts the errors that FFmpeg's demuxers and decoders report about a file
// while it is read: a damaged file that the demuxer resynchronises on, or
// whose pictures the decoder conceals, says so only in its log. The messages
// are still printed as av_log_set_level allows.
#include <atomic>

// Counts the errors logged by `context` (an AVFormatContext or AVCodecContext) into `count`.
void countMediaErrors(const void* context, std::atomic<int>* count);
// Stops counting for `context`.
void forgetMediaErrors(const void* context);
