#pragma once
// Control scenes: scenes that no storm call touches, each with one channel fed
// a fixed picture (a gradient carrying the scene's stamp) and merged at a
// fixed place over a fixed background. From the first merged picture that
// shows it on, every picture fetched from a control must reproduce that
// composition within kControlTolerance levels; the first one that doesn't is
// written to disk with what was expected.

#include <QElapsedTimer>
#include <QImage>
#include <QPoint>
#include <QSize>
#include <QString>

#include <lumen_fx/OpenglImageManager.h>

namespace stress {

const int kControlTolerance = 2;

struct ControlPlan {
    QSize picture;
    QSize canvas;
    QPoint at;  // where the picture's top-left corner lies on the canvas
    QRgb background;
    bool late;  // first fed and merged only after the storm
};

// The largest difference, in levels of any colour channel, between two
// pictures (256 when their sizes differ).
int worstDifference(const QImage& a, const QImage& b);

// The picture a control channel is fed: a gradient with the stamp.
QImage controlPicture(QSize size, int stampIndex);

class ControlScene {
public:
    // Makes the scene and its channel.
    ControlScene(OpenglImageManager* m, const ControlPlan& plan, int stampIndex);

    int scene() const { return scene_; }
    int channel() const { return channel_; }
    // The stamp the control's picture carries, as a bit.
    unsigned ownStamp() const { return 1u << stampIndex_; }
    // The picture the last check fetched (null before the first).
    const QImage& lastFetched() const { return lastFetched_; }
    bool late() const { return plan_.late; }
    // Hands the picture in and asks for a merge.
    void feed();
    // From now on feeds `picture` instead, while still expecting its own:
    // a fault planted to show that the check fails.
    void plant(const QImage& picture) { picture_ = picture; }
    // Fetches the merged picture and compares it with the composition.
    // Returns false when a picture after the first one that showed it differs.
    bool check(const QString& failureDir);
    // Passed: shown, and no fetch after that differed.
    bool passed() const { return shown_ && worstAfterShown_ <= kControlTolerance; }
    // Milliseconds from the first feed to the first picture that showed it
    // (-1 before that).
    qint64 firstShownMs() const { return firstShownMs_; }
    // Milliseconds since the first feed (-1 before it).
    qint64 sinceFirstFeedMs() const { return sinceFirstFeed_.isValid() ? sinceFirstFeed_.elapsed() : -1; }
    // One line of results.
    QString summary() const;

private:
    void writeFailure(const QImage& merged, int difference, const QString& failureDir);

    OpenglImageManager* m_;
    ControlPlan plan_;
    int scene_ = -1;
    int channel_ = -1;
    int stampIndex_ = 0;
    QImage picture_;
    QImage lastFetched_;
    QImage expected_;
    bool shown_ = false;
    QElapsedTimer sinceFirstFeed_;
    qint64 firstShownMs_ = -1;  // from the first feed to the first picture that showed it
    long fetches_ = 0;
    long tries_ = 0;           // checks, with a picture to fetch or not
    qint64 longestFeedMs_ = 0;  // the longest the host's two calls of a feed took
    long checkedAfterShown_ = 0;
    int worstAfterShown_ = 0;
    QString failurePath_;
};

}  // namespace stress
