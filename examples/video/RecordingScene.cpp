#include "RecordingScene.h"

#include <cstdlib>

namespace {

// The engine's picture for a channel that has none yet.
const QColor kEmptyGrey(53, 53, 53);

bool near(const QColor& a, const QColor& b)
{
    return std::abs(a.red() - b.red()) <= 3 && std::abs(a.green() - b.green()) <= 3
           && std::abs(a.blue() - b.blue()) <= 3;
}

}  // namespace

RecordingScene::RecordingScene(const GridLayout& grid, const QColor& background, const EffectSettings& effects)
    : manager_(OpenglImageManager::instance()), grid_(grid), background_(background), effects_(effects)
{
}

bool RecordingScene::make()
{
    scene_ = manager_->genSceneFilters();
    if (scene_ < 0)
        return false;
    for (const GridCell& cell : grid_.cells) {
        const int channel = manager_->genChannelFilters(scene_, true);
        if (channel < 0)
            return false;
        if (cell.effects)
            applyEffects(manager_, scene_, channel, effects_);
        channels_ << channel;
        _channel_merge_param p;
        p.channelId = channel;
        p.rect = cell.rect;
        params_ << p;
    }
    return true;
}

void RecordingScene::send(int input, const QImage& picture)
{
    for (int i = 0; i < grid_.cells.size(); ++i) {
        const GridCell& cell = grid_.cells[i];
        if (cell.input != input)
            continue;
        // A channel without effects hands its picture over as it is.
        const bool direct = !cell.effects || !effects_.any();
        manager_->sendChannelFrame(scene_, channels_[i], picture, false, true, direct);
    }
}

void RecordingScene::requestMerge()
{
    manager_->mergeImages(scene_, params_, grid_.size.width(), grid_.size.height(), background_, QImage(), QImage());
}

bool RecordingScene::fetch(QImage& merged) const
{
    return manager_->getMergeImg(scene_, merged) && merged.size() == grid_.size;
}

bool RecordingScene::showsEveryCell(const QImage& merged) const
{
    if (merged.size() != grid_.size)
        return false;
    // A cell shows a picture when any of a 5x5 grid of its points is neither
    // background nor grey: a real picture is hardly ever flat at all of them.
    for (const GridCell& cell : grid_.cells) {
        bool shows = false;
        for (int i = 0; i < 25 && !shows; ++i) {
            const QPoint at(cell.rect.x() + cell.rect.width() * (1 + 2 * (i % 5)) / 10,
                            cell.rect.y() + cell.rect.height() * (1 + 2 * (i / 5)) / 10);
            const QColor c = merged.pixelColor(at);
            shows = !near(c, background_) && !near(c, kEmptyGrey);
        }
        if (!shows)
            return false;
    }
    return true;
}
