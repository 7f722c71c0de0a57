// The channel's table of filter types and its reading of the host's records,
// without a channel: each row sits at its type, and each kind of record asks
// for what it should.
#include <limits>
#include <map>
#include <memory>
#include <string>
#include <tuple>

#include <gtest/gtest.h>

#include "channel/FilterKinds.h"
#include "filters/BeautyFilterBase.h"
#include "lumen_fx/ImageFilterTypes.h"

// Each row: the bits that its type ORs into a channel's features, and the
// class of the one new object that its factory makes; the others have none.
TEST(FilterKinds, EachRowSitsAtItsTypeWithItsFeatureBitsAndItsClass)
{
    const std::map<int, std::pair<uint32_t, const char*>> rows = {
        {SLIMFACE, {3, "OpenglSlimFaceFilter"}}, {SMOOTH, {1, "OpenglFaceAreaFilter"}},
        {REDLIPS, {1, "OpenglFaceAreaFilter"}},  {WHITENING, {2, "OpenglWhiteningFilter"}},
        {STICKER, {7, "OpenglStickerFilter"}},   {BASICIMAGE, {9, "OpenglBasicImageFilter"}},
        {SMOOTHWHITENING, {10, "OpenglSmoothAndWhiteningFilter"}}};
    for (int type = SLIMFACE; type <= SMOOTHWHITENING; ++type) {
        const FilterKind* kind = filterKind(type);
        ASSERT_NE(kind, nullptr) << type;
        EXPECT_EQ(kind->type, type);
        const auto row = rows.find(type);
        EXPECT_EQ(kind->features, row == rows.end() ? 0u : row->second.first) << type;
        std::unique_ptr<BeautyFilterBase> f(createImageFilter(static_cast<ImageFilterType>(type)));
        EXPECT_STREQ(f ? f->metaObject()->className() : nullptr, row == rows.end() ? nullptr : row->second.second)
            << type;
    }
    for (int notAType : {int(NOFILTER), 15, -1}) {
        EXPECT_EQ(filterKind(notAType), nullptr) << notAType;
        EXPECT_EQ(createImageFilter(static_cast<ImageFilterType>(notAType)), nullptr) << notAType;
    }
    std::unique_ptr<BeautyFilterBase> smooth(createImageFilter(SMOOTH)), lips(createImageFilter(REDLIPS));
    smooth->setParas({{smooth_strength, 30}});
    EXPECT_EQ(lips->paras().at(smooth_strength), 0) << "one object per type";
    EXPECT_TRUE(paraTypeBelongs(STICKER, STICKERPARA));
    EXPECT_FALSE(paraTypeBelongs(STICKER, SMOOTHPARA));
    EXPECT_FALSE(paraTypeBelongs(HSVBACKGROUND, BASICIMAGEPARA));
}

TEST(FilterKinds, RecordsAskForTheFilterItsPictureAndItsParameters)
{
    _hsv_background_param hsv{10, 20, 30, "room.png"};
    _green_screen_param blurred{"", true, false, false, 1, 2, 3};
    std::string second = "wall.png";
    _basic_image_param notFinite{};
    notFinite.brightness = std::numeric_limits<double>::quiet_NaN();
    const struct { const char* what; ImageFilterType type; const void* para; bool add, hasPicture, sendsParameters;
                   size_t parameters; const char* notFinite; } cases[] = {
        {"a background by colour, with its picture", HSVBACKGROUND, &hsv, true, true, true, 3, ""},
        {"a green screen without a picture, blurred", GREENSCREEN, &blurred, true, true, true, 3, ""},
        {"the second image background sends no parameters", IMAGEBACKGROUND2, &second, true, true, false, 0, ""},
        {"a picture record with NaN asks for nothing", BASICIMAGE, &notFinite, false, false, true, 21,
         "brightness_strength"},
        {"the type without a case reads nothing", UNUSEDFILTER, nullptr, false, false, true, 0, ""},
    };
    for (const auto& c : cases) {
        const RecordReading r = readFilterRecord(c.type, c.para, false);
        EXPECT_EQ(std::make_tuple(r.add, r.hasPicture, r.sendsParameters, r.parameters.size(), r.notFinite),
                  std::make_tuple(c.add, c.hasPicture, c.sendsParameters, c.parameters, std::string(c.notFinite)))
            << c.what;
    }
    EXPECT_EQ(readFilterRecord(HSVBACKGROUND, &hsv, false).picture.path, "room.png");
    EXPECT_TRUE(readFilterRecord(GREENSCREEN, &blurred, false).picture.isBgBlured);
}
