#pragma once
// Conversion of pictures between QImage (the host's form), cv::Mat (the
// detector's and the CPU filters' form) and AVFrame (FFmpeg's form).
//
// One object serves the whole process. Its two swscale contexts are kept as
// long as the source size stands, so a steady stream of same-sized frames does
// no set-up work. The caches are not guarded: callers on several threads at
// once must serialise their calls.

#include <QImage>
#include <QObject>
#include <opencv2/core.hpp>

struct AVFrame;
struct SwsContext;

class FrameConverter : public QObject {
    Q_OBJECT
public:
    static FrameConverter* instance();

    // Blue-green-red Mat. Format_RGB888 and Format_BGR888 are wrapped without a
    // copy and keep the image's own channel order; the result then shares the
    // image's memory and is valid only while the image lives.
    cv::Mat qimageToBgrMat(const QImage& image);
    // Red-first Mat (3 or 4 channels). Format_RGB888 and Format_RGBA8888 are
    // wrapped without a copy. An unknown format leaves `out` empty.
    void qimageToRgbMat(const QImage& image, cv::Mat& out);
    // CV_8UC1 -> Indexed8 with a grey table, CV_8UC3 -> BGR888, CV_8UC4 ->
    // ARGB32; always a deep copy. Any other type gives a null image.
    QImage matToQImage(const cv::Mat& mat);
    // Scales `frame` to width x height into `out` (CV_8UC3, or CV_8UC4 with
    // `withAlpha`).
    void frameToMat(const AVFrame* frame, cv::Mat& out, bool withAlpha, int width, int height);
    // Allocates a new YUV420P frame of width x height (planes by av_image_alloc,
    // alignment 1) and fills it from `mat`. The frame is the caller's: free
    // it with av_freep(&frame->data[0]) and av_frame_free(&frame).
    void matToFrame(const cv::Mat& mat, AVFrame*& frame, int width, int height);

    // The swscale flags used for a source of this width: the fast routines
    // read rows in groups of eight, so any other width also asks for accurate
    // rounding.
    static int scalerFlags(int sourceWidth);
    // Flags of the scaler that frameToMat / matToFrame built last (0 before).
    int frameToMatFlags() const { return frameToMatBuiltFlags; }
    int matToFrameFlags() const { return matToFrameBuiltFlags; }

    ~FrameConverter() override;

private:
    FrameConverter();
    FrameConverter(const FrameConverter&) = delete;
    FrameConverter& operator=(const FrameConverter&) = delete;

    SwsContext* matToFrameScaler = nullptr;
    SwsContext* frameToMatScaler = nullptr;

    // What frameToMatScaler was built for.
    int lastFrameWidth = 0;
    int lastFrameHeight = 0;
    bool lastWithAlpha = false;
    int lastFrameFormat = -1;
    // What matToFrameScaler was built for.
    int lastMatCols = 0;
    int lastMatRows = 0;

    int frameToMatBuiltFlags = 0;
    int matToFrameBuiltFlags = 0;
};
