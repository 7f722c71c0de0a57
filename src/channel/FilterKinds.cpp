#include "channel/FilterKinds.h"

#include <cmath>

#include "filters/OpenglBasicImageFilter.h"
#include "filters/OpenglFaceAreaFilter.h"
#include "filters/OpenglSlimFaceFilter.h"
#include "filters/OpenglSmoothAndWhiteningFilter.h"
#include "filters/OpenglStickerFilter.h"
#include "filters/OpenglWhiteningFilter.h"

namespace {

RecordReading slimFace(ImageFilterType, const void* para, bool)
{
    RecordReading r;
    r.parameters[slim_face_strength] = static_cast<const _slim_face_param*>(para)->strength;
    r.add = r.faceDetect = true;
    return r;
}

const std::string& strengthKey(ImageFilterType type)
{
    switch (type) {
    case SMOOTH: return smooth_strength;
    case REDLIPS: return redlips_strength;
    case WHITENING: return whitening_strength;
    default: return smooth_whitening_strength;
    }
}

RecordReading strength(ImageFilterType type, const void* para, bool fromSetter)
{
    const auto* rec = static_cast<const _strength_param*>(para);
    RecordReading r;
    r.parameters[strengthKey(type)] = rec->strength;
    r.add = true;
    r.faceDetect = (fromSetter && type == REDLIPS) || rec->isFaceDetect;
    return r;
}

// A record that is a path: the sticker's picture, or a background picture.
RecordReading path(ImageFilterType type, const void* para, bool)
{
    RecordReading r;
    r.add = true;
    r.faceDetect = type == STICKER;
    r.picture.path = *static_cast<const std::string*>(para);
    r.hasPicture = !r.picture.path.empty();
    // The two further image backgrounds send no parameters.
    r.sendsParameters = type != IMAGEBACKGROUND2 && type != IMAGEBACKGROUND3;
    return r;
}

RecordReading basicImage(ImageFilterType, const void* para, bool)
{
    const auto& p = *static_cast<const _basic_image_param*>(para);
    RecordReading r;
    FilterParaMap& par = r.parameters;
    par[scale_strength] = p.scale;
    par[brightness_strength] = p.brightness;
    par[contrast_strength] = p.contrast;
    par[saturation_strength] = p.saturation;
    par[alpha_strength] = p.alpha;
    par[rotation_x] = p.rotationX;
    par[rotation_y] = p.rotationY;
    par[rotation_z] = p.rotationZ;
    par[is_mirrored] = p.isMirrored;
    par[corner_radius] = p.cornerRadius;
    par[is_round_camera] = p.isRoundCamera;
    par[is_clip] = p.isClip;
    par[channel_width] = p.channelWidth;
    par[channel_height] = p.channelHeight;
    par[res_width] = p.resWidth;
    par[res_height] = p.resHeight;
    par[center_x_offset] = p.centerXOffset;
    par[center_y_offset] = p.centerYOffset;
    par[first_page_width] = p.firstPageWidth;
    par[first_page_height] = p.firstPageHeight;
    par[file_type] = p.fileType;
    for (const auto& kv : par)
        if (!std::isfinite(kv.second)) {
            r.notFinite = kv.first;
            return r;
        }
    r.add = true;
    return r;
}

RecordReading hsvBackground(ImageFilterType, const void* para, bool)
{
    const auto* rec = static_cast<const _hsv_background_param*>(para);
    RecordReading r;
    r.parameters[hsv_h] = rec->hue;
    r.parameters[hsv_s] = rec->saturation;
    r.parameters[hsv_v] = rec->value;
    r.add = true;
    r.picture.path = rec->bgImgPath;
    r.hasPicture = !rec->bgImgPath.empty();
    return r;
}

RecordReading rgbBackground(ImageFilterType, const void* para, bool)
{
    const auto* rec = static_cast<const _rgb_background_param*>(para);
    RecordReading r;
    r.parameters["rgb_r"] = rec->red;
    r.parameters["rgb_g"] = rec->green;
    r.parameters["rgb_b"] = rec->blue;
    r.parameters[similarity] = rec->similarity;
    r.parameters[smoothness] = rec->smoothness;
    r.parameters[spill] = rec->spill;
    r.add = true;
    r.picture.path = rec->bgImgPath;
    r.hasPicture = !rec->bgImgPath.empty();
    return r;
}

RecordReading greenScreen(ImageFilterType, const void* para, bool)
{
    const auto* rec = static_cast<const _green_screen_param*>(para);
    RecordReading r;
    r.parameters[similarity] = rec->similarity;
    r.parameters[smoothness] = rec->smoothness;
    r.parameters[spill] = rec->spill;
    r.add = true;
    r.picture = RecordPicture{rec->bgImgPath, rec->isBgBlured, rec->isBgTransparent, rec->isGreenScreen};
    r.hasPicture = !rec->bgImgPath.empty() || rec->isBgBlured || rec->isBgTransparent || rec->isGreenScreen;
    return r;
}

template <typename Filter>
BeautyFilterBase* make()
{
    return new Filter();
}

constexpr uint32_t kFace = kFaceFeature, kTone = kToneFeature, kOverlay = kOverlayFeature,
                   kPicture = kPictureFeature;

// In the order of the values, SLIMFACE (1) to SMOOTHWHITENING (14). SMOOTH and
// REDLIPS make one object each, although the class is the same.
const FilterKind kKinds[] = {
    {SLIMFACE, kFace | kTone, SLIMFACEPARA, true, slimFace, make<OpenglSlimFaceFilter>},
    {SMOOTH, kFace, SMOOTHPARA, true, strength, make<OpenglFaceAreaFilter>},
    {REDLIPS, kFace, REDLIPSPARA, true, strength, make<OpenglFaceAreaFilter>},
    {WHITENING, kTone, WHITENINGPARA, true, strength, make<OpenglWhiteningFilter>},
    {STICKER, kFace | kTone | kOverlay, STICKERPARA, false, path, make<OpenglStickerFilter>},
    {BASICIMAGE, kPicture | kFace, BASICIMAGEPARA, false, basicImage, make<OpenglBasicImageFilter>},
    {HSVBACKGROUND, 0, -1, false, hsvBackground, nullptr},
    {RGBBACKGROUND, 0, -1, false, rgbBackground, nullptr},
    {IMAGEBACKGROUND, 0, -1, false, path, nullptr},
    {IMAGEBACKGROUND2, 0, -1, false, path, nullptr},
    {IMAGEBACKGROUND3, 0, -1, false, path, nullptr},
    {GREENSCREEN, 0, -1, false, greenScreen, nullptr},
    {UNUSEDFILTER, 0, -1, false, nullptr, nullptr},
    {SMOOTHWHITENING, kPicture | kTone, SMOOTHWHITENINGPARA, true, strength, make<OpenglSmoothAndWhiteningFilter>},
};

}  // namespace

const FilterKind* filterKind(int type)
{
    if (type < SLIMFACE || type > SMOOTHWHITENING)
        return nullptr;
    return &kKinds[type - SLIMFACE];
}

bool paraTypeBelongs(ImageFilterType type, FilterParaType paraType)
{
    const FilterKind* kind = filterKind(type);
    return kind && kind->paraType == paraType;
}

BeautyFilterBase* createImageFilter(ImageFilterType type)
{
    const FilterKind* kind = filterKind(type);
    return kind && kind->make ? kind->make() : nullptr;
}

RecordReading readFilterRecord(ImageFilterType type, const void* para, bool fromSetter)
{
    const FilterKind* kind = filterKind(type);
    return kind && kind->read ? kind->read(type, para, fromSetter) : RecordReading{};
}
