#pragma once
// The words that a host and the engine speak: filter and parameter selectors,
// the parameter keys, the records behind the untyped parameter pointers, and
// the element of a merge list.

#include <cstdint>
#include <map>
#include <string>

#include <QImage>
#include <QMetaType>
#include <QObject>
#include <QRect>

enum ImageFilterType : int32_t {
    NOFILTER = 0,
    SLIMFACE = 1,
    SMOOTH = 2,
    REDLIPS = 3,
    WHITENING = 4,
    STICKER = 5,
    BASICIMAGE = 6,
    HSVBACKGROUND = 7,
    RGBBACKGROUND = 8,
    IMAGEBACKGROUND = 9,
    IMAGEBACKGROUND2 = 10,
    IMAGEBACKGROUND3 = 11,
    GREENSCREEN = 12,
    UNUSEDFILTER = 13,
    SMOOTHWHITENING = 14,
};

enum FilterParaType : int32_t {
    BASICIMAGEPARA = 0,
    SMOOTHPARA = 1,
    REDLIPSPARA = 2,
    WHITENINGPARA = 3,
    SLIMFACEPARA = 4,
    SMOOTHWHITENINGPARA = 5,
    STICKERPARA = 6,
};

// Parameter keys. Inside the engine parameters travel as a map from these keys
// to doubles.
static const std::string scale_strength = "scale_strength";
static const std::string brightness_strength = "brightness_strength";
static const std::string contrast_strength = "contrast_strength";
static const std::string saturation_strength = "saturation_strength";
static const std::string alpha_strength = "alpha_strength";
static const std::string corner_radius = "corner_radius";
static const std::string rotation_x = "rotation_x";
static const std::string rotation_y = "rotation_y";
static const std::string rotation_z = "rotation_z";
static const std::string is_mirrored = "is_mirrored";
static const std::string is_round_camera = "is_round_camera";
static const std::string is_clip = "is_clip";
static const std::string channel_width = "channel_width";
static const std::string channel_height = "channel_height";
static const std::string res_width = "res_width";
static const std::string res_height = "res_height";
static const std::string center_x_offset = "center_x_offset";
static const std::string center_y_offset = "center_y_offset";
static const std::string file_type = "file_type";
static const std::string first_page_width = "first_page_width";
static const std::string first_page_height = "first_page_height";
static const std::string smooth_strength = "smooth_strength";
static const std::string redlips_strength = "redlips_strength";
static const std::string whitening_strength = "whitening_strength";
static const std::string smooth_whitening_strength = "smooth_whitening_strength";
static const std::string slim_face_strength = "slim_face_strength";
static const std::string hsv_h = "hsv_h";
static const std::string hsv_s = "hsv_s";
static const std::string hsv_v = "hsv_v";
static const std::string similarity = "similarity";
static const std::string smoothness = "smoothness";
static const std::string spill = "spill";
static const std::string sticker_type = "sticker_type";
static const std::string face_area_x = "face_area_x";
static const std::string face_area_y = "face_area_y";
static const std::string face_area_width = "face_area_width";
static const std::string face_area_height = "face_area_height";
static const std::string detect_face_area_x = "detect_face_area_x";
static const std::string detect_face_area_y = "detect_face_area_y";
static const std::string detect_face_area_width = "detect_face_area_width";
static const std::string detect_face_area_height = "detect_face_area_height";

// Records that the host passes through void*. The host keeps a record alive for
// the call only; the engine copies what it needs before it returns.
struct _slim_face_param {
    double strength;
};

struct _strength_param {
    double strength;
    bool isFaceDetect;
};

struct _basic_image_param {
    double scale;
    double brightness;
    double contrast;
    double saturation;
    double alpha;
    double rotationX;
    double rotationY;
    double rotationZ;
    int32_t isMirrored;
    int32_t cornerRadius;
    int32_t isRoundCamera;
    int32_t isClip;
    double channelWidth;
    double channelHeight;
    double resWidth;
    double resHeight;
    double centerXOffset;
    double centerYOffset;
    double firstPageWidth;
    double firstPageHeight;
    int32_t fileType;
};

struct _hsv_background_param {
    int32_t hue;
    int32_t saturation;
    int32_t value;
    std::string bgImgPath;
};

struct _rgb_background_param {
    int32_t red;
    int32_t green;
    int32_t blue;
    int32_t similarity;
    int32_t smoothness;
    int32_t spill;
    std::string bgImgPath;
};

struct _green_screen_param {
    std::string bgImgPath;
    bool isBgBlured;
    bool isBgTransparent;
    bool isGreenScreen;
    int32_t similarity;
    int32_t smoothness;
    int32_t spill;
};

// One entry of a merge list; the list order is the drawing order.
struct _channel_merge_param {
    int32_t channelId = 0;
    QRect rect;
    double rotation = 0.0;
    QImage image;
};

// The sticker catalogue's selector.
class CommonEnum {
    Q_GADGET
public:
    enum StickerType {
        NOSTICKER, BEAR, BEARD, BERET, CAT, CROWN, COW, CUTEGLASSES, DEER, FACEPLATES,
        FATHERCHRISTMAS, FULLMARK, RABBIT, GLASSES01, GLASSES02, GAUZEMASK, GOODSTUDY, IDEA,
        JOKER01, JOKER02, KOALA, MEDAL, MUSIC, PIKAQIU, PRINCE, PUMPKIN, SHEEP, SPACEMAN, SPY,
        STAR, SUN, WATERMELON, GIRL1, GIRL2, GIRL3, BOY1, BOY2, BOY3, NEWYEAR1, NEWYEAR2,
        SUBSCRIBE, BOWKNOT
    };
    Q_ENUM(StickerType)
};

Q_DECLARE_METATYPE(ImageFilterType)
Q_DECLARE_METATYPE(FilterParaType)
Q_DECLARE_METATYPE(_channel_merge_param)
