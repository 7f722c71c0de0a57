#include <gtest/gtest.h>

#include "TestUtil.h"
#include "channel/ImageFilters.h"
#include "engine/OpenglImageManagerPrivate.h"
#include "lumen_fx/OpenglImageManager.h"
#include "scene/TextureBuffer.h"

namespace {

OpenglImageManagerPrivate* registry()
{
    return imageManagerPrivate(OpenglImageManager::instance());
}

}  // namespace

// Each test runs in a process of its own, so the counters start at 0 here.

TEST(OpenglImageManager, IdsStartAtZeroAndChannelIdsRunAcrossScenes)
{
    OpenglImageManager* m = OpenglImageManager::instance();
    EXPECT_EQ(m, OpenglImageManager::instance());
    const int s0 = m->genSceneFilters();
    const int s1 = m->genSceneFilters();
    EXPECT_EQ(s0, 0);
    EXPECT_EQ(s1, 1);
    EXPECT_EQ(m->genChannelFilters(s0, true), 0);
    EXPECT_EQ(m->genChannelFilters(s1, true), 1);
    EXPECT_EQ(m->genChannelFilters(s0, false), 2);
    EXPECT_EQ(registry()->channels.size(), 3u);
    EXPECT_NE(registry()->findChannel(s1, 1), nullptr);
    EXPECT_EQ(registry()->findChannel(s0, 1), nullptr) << "the key is the pair";
}

TEST(OpenglImageManager, UnknownSceneGivesMinusOneAndMovesNoCounter)
{
    OpenglImageManager* m = OpenglImageManager::instance();
    EXPECT_EQ(m->genChannelFilters(-1, true), -1);
    EXPECT_EQ(m->genChannelFilters(0, true), -1);
    const int s = m->genSceneFilters();
    EXPECT_EQ(m->genChannelFilters(s, true), 0);
    EXPECT_EQ(m->genChannelFilters(s + 5, false), -1);
    EXPECT_EQ(m->genChannelFilters(s, true), 1);
}

TEST(OpenglImageManager, NewChannelsTakeTheManagerDefaults)
{
    OpenglImageManager* m = OpenglImageManager::instance();
    const int s = m->genSceneFilters();
    const int c = m->genChannelFilters(s, true);
    ImageFilters* ch = registry()->findChannel(s, c);
    ASSERT_NE(ch, nullptr);
    EXPECT_EQ(ch->configuredFrameRate(), 15);
    EXPECT_EQ(ch->frameInterval(), 66);
    EXPECT_EQ(ch->sceneIdentity(), s);
    EXPECT_EQ(ch->channelIdentity(), c);
}

TEST(OpenglImageManager, FreshSceneHasNoMergedPicture)
{
    OpenglImageManager* m = OpenglImageManager::instance();
    const int s = m->genSceneFilters();
    QImage image(4, 4, QImage::Format_RGB888);
    image.fill(Qt::cyan);
    const QImage before = image;
    EXPECT_FALSE(m->getMergeImg(s, image));
    EXPECT_FALSE(m->getMergeImg(s + 1, image));
    EXPECT_EQ(image, before);
}

TEST(OpenglImageManager, WrongPairDoesNothing)
{
    OpenglImageManager* m = OpenglImageManager::instance();
    const int s0 = m->genSceneFilters();
    const int s1 = m->genSceneFilters();
    const int c = m->genChannelFilters(s0, false);
    ImageFilters* ch = registry()->findChannel(s0, c);
    ASSERT_NE(ch, nullptr);
    QImage img(16, 16, QImage::Format_RGBA8888);
    img.fill(Qt::magenta);

    m->sendChannelFrame(s1, c, img, false, true, true);
    m->sendChannelFrame(s0, c + 1, img, false, true, true);
    _strength_param rec{50.0, true};
    m->addChannelImageFilter(s1, c, SMOOTH, &rec);
    m->setChannelFilterParas(s1, c, SMOOTH, SMOOTHPARA, &rec);
    m->mergeImages(s1 + 10, {}, 100, 100, Qt::black, QImage(), QImage());
    EXPECT_TRUE(ch->sourceImage().isNull());
    EXPECT_EQ(ch->refreshFrameCount(), 0);

    // The right pair reaches the channel, which hands the direct frame on.
    m->sendChannelFrame(s0, c, img, false, true, true);
    EXPECT_EQ(ch->sourceImage().constBits(), img.constBits());
    QImage out;
    EXPECT_TRUE(testutil::waitFor([&] { return ch->textureBuffer()->getImage(out); }, 3000));
    EXPECT_EQ(out.constBits(), img.constBits());
}
