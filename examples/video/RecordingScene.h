#pragma once
// The engine's side of a recording: one scene with a channel per cell of the
// grid, the effects on the channels that show them, and the merge.
#include <QColor>
#include <QImage>
#include <QList>

#include "../EffectOptions.h"
#include "GridLayout.h"

class RecordingScene {
public:
    RecordingScene(const GridLayout& grid, const QColor& background, const EffectSettings& effects);

    // Makes the scene and its channels; false if the engine gives none.
    bool make();
    // Hands an input's picture to its channels (two with a before-and-after pair).
    void send(int input, const QImage& picture);
    // Asks the scene for a merge of the pictures its channels have now.
    void requestMerge();
    // The last merged picture (one merge behind the requests); false while there is none.
    bool fetch(QImage& merged) const;
    // Whether every cell of a merged picture shows a channel's picture rather
    // than the background or the engine's empty-picture grey.
    bool showsEveryCell(const QImage& merged) const;

private:
    const OpenglImageManager* manager_;
    GridLayout grid_;
    QColor background_;
    EffectSettings effects_;
    int scene_ = -1;
    QList<int> channels_;  // by cell
    QList<_channel_merge_param> params_;
};
