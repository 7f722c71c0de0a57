#include "stress/ControlScenes.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include <QDir>
#include <QPainter>

#include "stress/SceneStamps.h"

namespace stress {

int worstDifference(const QImage& a, const QImage& b)
{
    if (a.size() != b.size() || a.isNull())
        return 256;
    const QImage x = a.convertToFormat(QImage::Format_RGB888);
    const QImage y = b.convertToFormat(QImage::Format_RGB888);
    int worst = 0;
    for (int row = 0; row < x.height(); ++row) {
        const uchar* p = x.constScanLine(row);
        const uchar* q = y.constScanLine(row);
        for (int i = 0; i < 3 * x.width(); ++i)
            worst = std::max(worst, std::abs(int(p[i]) - int(q[i])));
    }
    return worst;
}

QImage controlPicture(QSize size, int stampIndex)
{
    QImage picture(size, QImage::Format_RGBA8888);
    const int w = std::max(2, size.width()), h = std::max(2, size.height());
    for (int y = 0; y < size.height(); ++y) {
        uchar* line = picture.scanLine(y);
        for (int x = 0; x < size.width(); ++x) {
            line[4 * x] = uchar(x * 255 / (w - 1));
            line[4 * x + 1] = uchar(y * 255 / (h - 1));
            line[4 * x + 2] = uchar((x + y) % 256);
            line[4 * x + 3] = 255;
        }
    }
    return stamped(picture, stampIndex);
}

ControlScene::ControlScene(OpenglImageManager* m, const ControlPlan& plan, int stampIndex)
    : m_(m), plan_(plan), stampIndex_(stampIndex)
{
    scene_ = m->genSceneFilters();
    channel_ = m->genChannelFilters(scene_, true);
    picture_ = controlPicture(plan.picture, stampIndex);
    expected_ = QImage(plan.canvas, QImage::Format_RGB888);
    expected_.fill(QColor(plan.background));
    QPainter painter(&expected_);
    painter.drawImage(plan.at, picture_);
}

void ControlScene::feed()
{
    if (!sinceFirstFeed_.isValid())
        sinceFirstFeed_.start();
    QElapsedTimer feedTimer;
    feedTimer.start();
    m_->sendChannelFrame(scene_, channel_, picture_, false, true, false);
    _channel_merge_param slot;
    slot.channelId = channel_;
    slot.rect = QRect(plan_.at, plan_.picture);
    m_->mergeImages(scene_, {slot}, plan_.canvas.width(), plan_.canvas.height(), QColor(plan_.background), QImage(),
                    QImage());
    longestFeedMs_ = std::max(longestFeedMs_, feedTimer.elapsed());
}

bool ControlScene::check(const QString& failureDir)
{
    QImage merged;
    ++tries_;
    if (!m_->getMergeImg(scene_, merged))
        return true;
    lastFetched_ = merged;
    ++fetches_;
    const int difference = worstDifference(merged, expected_);
    if (!shown_) {
        shown_ = difference <= kControlTolerance;
        if (shown_)
            firstShownMs_ = sinceFirstFeed_.elapsed();
        return true;
    }
    ++checkedAfterShown_;
    if (difference <= kControlTolerance)
        return true;
    if (worstAfterShown_ <= kControlTolerance)
        writeFailure(merged, difference, failureDir);
    worstAfterShown_ = std::max(worstAfterShown_, difference);
    return false;
}

void ControlScene::writeFailure(const QImage& merged, int difference, const QString& failureDir)
{
    const QString stem = QDir(failureDir).filePath(QStringLiteral("control-scene%1-fetch%2").arg(scene_).arg(fetches_));
    failurePath_ = stem + ".png";
    merged.save(failurePath_);
    expected_.save(stem + "-expected.png");
    std::printf("control scene %d: fetch %ld is off by %d level(s) from its input; written to %s\n", scene_, fetches_,
                difference, qPrintable(failurePath_));
    std::fflush(stdout);
}

QString ControlScene::summary() const
{
    QString line = QStringLiteral("control scene %1 (%2x%3 at %4,%5 on %6x%7, %8): ")
                       .arg(scene_)
                       .arg(plan_.picture.width())
                       .arg(plan_.picture.height())
                       .arg(plan_.at.x())
                       .arg(plan_.at.y())
                       .arg(plan_.canvas.width())
                       .arg(plan_.canvas.height())
                       .arg(plan_.late ? "fed after the storm" : "fed through the storm");
    const QString calls = QStringLiteral(" (%1 checks; a feed took %2 ms at the longest)").arg(tries_).arg(longestFeedMs_);
    if (!shown_)
        return line + QStringLiteral("never showed its input in %1 fetches").arg(fetches_) + calls;
    line += QStringLiteral("first picture %1 ms after its first feed, %2 fetches after it, worst difference %3 level(s)")
                .arg(firstShownMs_)
                .arg(checkedAfterShown_)
                .arg(worstAfterShown_);
    if (!failurePath_.isEmpty())
        line += QStringLiteral("; first failing picture %1").arg(failurePath_);
    return line + calls;
}

}  // namespace stress
