// Settings-table access, text and model helpers, time.
#include <gtest/gtest.h>

#include <glib.h>
#include <utility>

#include "HadrixUtil.h"
#include "TempRoot.h"
#include "nimbos/settings.h"

namespace {

class HadrixUtilTest : public ::testing::Test {
protected:
    TempRoot root;
};

TEST(ReplaceStr, ReplacesOnlyTheFirstOccurrence)
{
    EXPECT_EQ(CUsbServiceUtil::ReplaceStr("%s and %s", "%s", "Pad"), "Pad and %s");
    EXPECT_EQ(CUsbServiceUtil::ReplaceStr("no placeholder", "%s", "Pad"), "no placeholder");
    EXPECT_EQ(CUsbServiceUtil::ReplaceStr("<<A>> connected", "<<A>>", ""), " connected");
}

TEST_F(HadrixUtilTest, TableKeysReachTheStoreAndFailedReadsLeaveTheCallersValue)
{
    int level = 42;
    EXPECT_FALSE(CUsbServiceUtil::GetVconf(VCONF_KEY_VOLUME_LEVEL, level)) << "missing key";
    ASSERT_EQ(vconf_set_str("db/hadrix/volume_level", "loud"), 0);
    EXPECT_FALSE(CUsbServiceUtil::GetVconf(VCONF_KEY_VOLUME_LEVEL, level)) << "a string is not an int";
    EXPECT_EQ(level, 42);
    std::string text = "preset";
    EXPECT_FALSE(CUsbServiceUtil::GetVconf(VCONF_KEY_COUNT, text)) << "index outside the table";
    EXPECT_FALSE(CUsbServiceUtil::GetVconf(-1, text));
    EXPECT_EQ(text, "preset");
    EXPECT_FALSE(CUsbServiceUtil::SetVconf(VCONF_KEY_COUNT, 1));

    EXPECT_TRUE(CUsbServiceUtil::SetVconf(VCONF_KEY_VOLUME_LEVEL, 35));
    ASSERT_EQ(vconf_get_int("db/hadrix/volume_level", &level), 0);
    EXPECT_EQ(level, 35);
    EXPECT_TRUE(CUsbServiceUtil::SetVconf(VCONF_KEY_EXT_VOLUME_TTS_PLAY, std::string("beep")));
    EXPECT_TRUE(CUsbServiceUtil::GetVconf("memory/tv-viewer/ext_volume_tts_play", text));
    EXPECT_EQ(text, "beep");
    bool tts = false;
    EXPECT_TRUE(CUsbServiceUtil::SetVconf(VCONF_KEY_ACCESSIBILITY_TTS, true));
    EXPECT_TRUE(CUsbServiceUtil::GetVconf(VCONF_KEY_ACCESSIBILITY_TTS, tts));
    EXPECT_TRUE(tts);
}

TEST_F(HadrixUtilTest, TvViewerIsReadyUnlessItShowsItsOwnVolume)
{
    EXPECT_TRUE(CUsbServiceUtil::IsTVViewerReady()) << "missing key";
    ASSERT_EQ(vconf_set_str("memory/tv-viewer/show_ext_volume", ""), 0);
    EXPECT_TRUE(CUsbServiceUtil::IsTVViewerReady()) << "empty value";
    ASSERT_EQ(vconf_set_str("memory/tv-viewer/show_ext_volume", "1"), 0);
    EXPECT_FALSE(CUsbServiceUtil::IsTVViewerReady());
}

TEST_F(HadrixUtilTest, Easel32IsTheModelTagAnywhereInTheModel)
{
    EXPECT_FALSE(CUsbServiceUtil::IsEasel32TV()) << "no system information";
    const std::pair<const char *, bool> models[] = {{"KF03BX", true}, {"UN32-KF03BXZA", true}, {"UN55KF03B", false}};
    for (const auto &c : models) {
        root.WriteFile("/etc/nimbos/system-info.conf", std::string("[system]\nmodel=") + c.first + "\n");
        EXPECT_EQ(CUsbServiceUtil::IsEasel32TV(), c.second) << c.first;
    }
    std::string model;
    EXPECT_TRUE(CUsbServiceUtil::GetSwModel(model));
    EXPECT_EQ(model, "UN55KF03B");
}

TEST(Time, UptimeFollowsTheMonotonicClockAndWaitSleepsMilliseconds)
{
    uint32_t before = static_cast<uint32_t>(g_get_monotonic_time() / 1000);
    uint32_t uptime = CUsbServiceUtil::GetUptime();
    uint32_t after = static_cast<uint32_t>(g_get_monotonic_time() / 1000);
    EXPECT_LE(before - 1, uptime);
    EXPECT_LE(uptime, after + 1);

    gint64 start = g_get_monotonic_time();
    CUsbServiceUtil::Wait(0);
    CUsbServiceUtil::Wait(30);
    EXPECT_GE(g_get_monotonic_time() - start, 30000);
}

} // namespace
