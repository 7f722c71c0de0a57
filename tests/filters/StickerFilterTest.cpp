// The sticker filter: its catalogue against the table it was made from, the
// name rules of a file, the record a type loads (and keeps), and which faces
// get a sticker.
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <gtest/gtest.h>

#include "LogCapture.h"
#include "TestUtil.h"
#include "filters/OpenglStickerFilter.h"
#include "lumen_fx/ImageFilterTypes.h"

namespace {

std::string sticker(const char* name) { return std::string(LUMEN_STICKER_DIR) + "/" + name + ".png"; }

// The type a filter holds and its placement, as nine numbers.
std::vector<float> placement(OpenglStickerFilter& f)
{
    const StickerInfo i = f.stickerInfo();
    return {i.base_x_scale,      i.base_y_scale,          i.center_index,   i.sticker_anchor_x, i.sticker_anchor_y,
            i.sticker_scaled,    i.angle_limit,           i.offset_x_scale_factor, i.offset_y_scale_factor};
}

// Selects `type` as the worker does: through setUniforms with the face's map.
void select(OpenglStickerFilter& f, double type) { f.setUniforms(nullptr, {{sticker_type, type}}, 640, 480); }

}  // namespace

// Key, then the nine values as the catalogue was made (-1: the member lacks
// the key, which then reads as 0), in the order of the record.
TEST(StickerCatalogue, MembersInOrderWithTheirPlacements)
{
    const std::vector<std::pair<const char*, std::vector<float>>> table = {
        {"bear", {1.3f, 1.5f, 52, 0.5f, 0.7f, 0, 0, -1, -1}},       {"beret", {1.6f, 1.8f, 52, 0.515f, 0.92f, 0, 1, -1, -1}},
        {"cat", {1.5f, 1.5f, 54, 0.5f, 0.9f, 0, 0, -1, -1}},        {"cow", {1.9f, 1.9f, 51, 0.7f, 0.73f, 0, 0, -1, -1}},
        {"cuteglasses", {1, 1, 51, 0.5f, 0.6f, 0, 1, -1, -1}},      {"deer", {1.5f, 1.95f, 51, 0.5f, 0.65f, 0, 0, -1, -1}},
        {"faceplates", {1.4f, 1.5f, 51, 0.58f, 0.48f, 1, 0, -1, -1}}, {"fullmark", {1.5f, 1.5f, 51, 0.7f, 0.78f, 0, 0, -1, -1}},
        {"glasses01", {1.1f, 1.1f, 51, 0.5f, 0.18f, 0, 1, -1, -1}}, {"goodstudy", {2.2f, 1.95f, 51, 0.7f, 0.75f, 0, 0, -1, -1}},
        {"idea", {1.4f, 1.8f, 45, 0.85f, 0.7f, 1, 0, -1, -1}},      {"joker01", {1.7f, 2, 54, 0.48f, 0.97f, 0, 0, -1, -1}},
        {"joker02", {1.8f, 2.36f, 51, 0.5f, 0.72f, 0, 0, -1, -1}},  {"koala", {1.82f, 2.24f, 52, 0.53f, 0.75f, 0, 0, -1, -1}},
        {"medal", {0.7f, 0.7f, 54, -1, -1, -1, -1, 0.5f, 0.25f}},   {"music", {0.7f, 0.7f, 54, -1, -1, -1, -1, -0.05f, 2}},
        {"pig", {0.7f, 0.7f, 54, -1, -1, -1, -1, -0.05f, 2}},       {"pikaqiu", {1.8f, 2.4f, 51, 0.7f, 0.8f, 0, 0, -1, -1}},
        {"pumpkin", {2, 2, 79, 0.51f, 0.8f, 1, 0, -1, -1}},         {"rabbit", {2.1f, 2.4f, 54, 0.51f, 0.87f, 0, 0, -1, -1}},
        {"spaceman", {1.8f, 1.6f, 79, 0.5f, 0.75f, 1, 0, -1, -1}},  {"star", {1.3f, 1.8f, 51, 0.51f, 0.6f, 0, 0, -1, -1}},
        {"watermelon", {1.8f, 1.8f, 79, 0.46f, 0.75f, 1, 0, -1, -1}}, {"girl1", {2.4f, 2, 79, 0.5f, 0.75f, 1, 0, -1, -1}},
        {"girl2", {2.4f, 2, 79, 0.5f, 0.75f, 1, 0, -1, -1}},        {"girl3", {2.4f, 2, 79, 0.5f, 0.75f, 1, 0, -1, -1}},
        {"boy1", {2.4f, 2, 79, 0.5f, 0.75f, 1, 0, -1, -1}},         {"boy2", {2.4f, 2, 79, 0.5f, 0.75f, 1, 0, -1, -1}},
        {"boy3", {2.4f, 2, 79, 0.5f, 0.75f, 1, 0, -1, -1}},         {"newyear1", {1.65f, 2.05f, 51, 0.5f, 0.75f, 0, 0, -1, -1}},
        {"newyear2", {1.5f, 1, 51, 0.2f, 1.4f, 1, 0, -1, -1}},      {"subscribe", {1.5f, 1.5f, 51, 0.8f, 1.4f, 0, 0, -1, -1}},
        {"bowknot", {1.9f, 1.6f, 79, 0.5f, 1.15f, 1, 0, -1, -1}},
    };
    const QString text = OpenglStickerFilter::catalogue();
    QStringList order;  // the members in the order of the text
    for (auto it = QRegularExpression("^\"(\\w+)\":", QRegularExpression::MultilineOption).globalMatch(text);
         it.hasNext();)
        order << it.next().captured(1);
    const QJsonObject all = QJsonDocument::fromJson(text.toUtf8()).object();
    ASSERT_EQ(all.size(), int(table.size()));
    const QMetaEnum types = QMetaEnum::fromType<CommonEnum::StickerType>();
    for (size_t i = 0; i < table.size(); ++i) {
        const auto& [key, values] = table[i];
        EXPECT_EQ(order.value(int(i)).toStdString(), key);
        // Loaded through the type of that name, the lacking keys as 0; pig has
        // no type and can't be loaded.
        bool known = false;
        const int type = types.keyToValue(QByteArray(key).toUpper(), &known);
        EXPECT_EQ(known, std::string(key) != "pig") << key;
        OpenglStickerFilter f;
        select(f, type);
        std::vector<float> want(9, 0);
        for (int k = 0; known && k < 9; ++k)
            want[k] = values[k] == -1 ? 0 : values[k];
        EXPECT_EQ(placement(f), want) << key;
    }
}

// The file's last word selects the type; a type without a member, 0, or a
// value out of range keeps the last placement, and the picture stays until a
// file of a type arrives.
TEST(StickerFilter, NamesSelectTypesAndStalePlacementsStay)
{
    OpenglStickerFilter f;
    const std::string wide = testutil::outputPath("wide_bear.png").toStdString();  // wider than any frame
    QImage(4097, 1, QImage::Format_ARGB32).save(QString::fromStdString(wide));
    const struct { std::string path; double type; bool picture; } names[] = {
        {"", 0, false},  {"bear_1.png", 0, false}, {"abc", 0, false}, {"x.png", 0, false},
        {sticker("bear"), 1, true}, {"/nowhere/a_glasses01.png", 13, false},  // named, but no picture there
        {"/tmp/nostickerhere.png", 13, false}, {wide, 1, false}, {sticker("rabbit"), 12, true},
    };
    LogCapture log;
    const auto stickerPicture = [&] { QImage picture; f.stickerImage(picture); return picture; };
    for (const auto& n : names) {
        f.setFilePath(n.path);
        EXPECT_EQ(f.paras().at(sticker_type), n.type) << n.path;
        f.updateFaceInfo({{cv::Rect(100, 100, 80, 80)}, {std::vector<int>(196, 120)}, {}, {}}, 640, 480);
        const QImage picture = stickerPicture();
        EXPECT_EQ(!picture.isNull(), n.picture) << n.path;
        EXPECT_TRUE(picture.isNull() || picture.size() == QSize(640, 480)) << n.path;
    }
    EXPECT_EQ(log.count("[OpenglStickerFilter::setFilePath]", QtWarningMsg), 3) << log.all();
    select(f, 1);  // bear
    const std::vector<float> bear = placement(f);
    for (double type : {2.0, 0.0, -1.0, 42.0, std::nan("")}) {  // BEARD, none, out of range, NaN
        select(f, type);
        EXPECT_EQ(placement(f), bear) << type;
    }
    select(f, 13);
    EXPECT_NE(placement(f), bear);
    // A new frame size makes the picture anew at that size.
    f.updateFaceInfo({{cv::Rect(100, 100, 80, 80)}, {}, {}, {}}, 1280, 720);
    EXPECT_EQ(stickerPicture().size(), QSize(1280, 720));
}

// Frame 1000 x 800: margins at 10 across and 8 down, 1000 and 880 on the far
// sides; a later box starting inside the first's span, across or down, is
// dropped. Points stay in frame pixels, the triplet goes with its face.
// Without a picture the walk ends at the first face.
TEST(StickerFilter, WhichFacesGetASticker)
{
    OpenglStickerFilter f;
    const std::vector<cv::Rect> boxes = {{100, 100, 200, 200}, {150, 400, 100, 100}, {400, 150, 100, 100},
                                         {400, 400, 100, 100}, {100, 400, 50, 50}};
    f.updateFaceInfo({boxes, {}, {}, {}}, 1000, 800);
    EXPECT_EQ(f.faceRects().size(), 1u);
    f.setFilePath(sticker("medal"));
    const std::pair<cv::Rect, bool> alone[] = {
        {{9, 100, 100, 100}, false}, {{10, 100, 100, 100}, true}, {{100, 7, 100, 100}, false},
        {{100, 8, 100, 100}, true},  {{901, 100, 100, 100}, false}, {{100, 781, 100, 100}, false},
        {{100, 780, 100, 100}, true},  // clamped to the frame
    };
    for (const auto& [box, accepted] : alone) {
        f.updateFaceInfo({{box}, {{1, 2}}, {{5, 6, 7}}, {}}, 1000, 800);
        const std::vector<cv::Rect> want = {cv::Rect(box.x, box.y, box.width, std::min(box.height, 800 - box.y))};
        using Angles = std::vector<std::vector<float>>;
        EXPECT_EQ(f.faceRects(), accepted ? want : std::vector<cv::Rect>()) << box;
        EXPECT_EQ(f.faceAngles(), (accepted ? Angles{{5, 6, 7}} : Angles())) << box;
    }
    f.updateFaceInfo({boxes, {}, {}, {}}, 1000, 800);
    EXPECT_EQ(f.faceRects(), (std::vector<cv::Rect>{boxes[0], boxes[3], boxes[4]}));
}
