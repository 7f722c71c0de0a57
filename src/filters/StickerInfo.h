#pragma once
// Placement record of a sticker: how large it is drawn relative to the face,
// which key point it hangs on and where its own anchor lies. The sticker
// catalogue fills it; the channel worker reads it to place the sticker.

struct StickerInfo {
    float base_x_scale = 0.0f;
    float base_y_scale = 0.0f;
    float center_index = 0.0f;
    float offset_x_scale_factor = 0.0f;
    float offset_y_scale_factor = 0.0f;
    float sticker_anchor_x = 0.0f;
    float sticker_anchor_y = 0.0f;
    float sticker_scaled = 0.0f;
    float angle_limit = 0.0f;
};
