// The multiview volume-info value: what the multiview UI reads for level and mute, and when the
// handler leaves it alone.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include <glib.h>

#include "LocalFileData.h"
#include "MultiviewHandler.h"
#include "TempRoot.h"
#include "nimbos/settings.h"

namespace {

const char kUiModeKey[] = "memory/multiscreen/ui_mode";

std::string VolumeInfo()
{
    g_autofree char *text = vconf_get_str("memory/multiscreen/volumeinfo_usbheadset");
    return text ? text : "<absent>";
}

class MultiviewJsonTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        // The sound manager lives on the system bus; without one its calls fail at once.
        setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + root.Path("/run/no-such-bus")).c_str(), 1);
        CLocalFileData::ReleaseInstance();
        CMultiviewHandler::ReleaseInstance();
    }
    void TearDown() override
    {
        CMultiviewHandler::ReleaseInstance();
        CLocalFileData::ReleaseInstance();
        unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
    }

    // A new handler constructed with ui_mode as given (nullptr: the key is missing).
    CMultiviewHandler &Handler(const char *uiMode)
    {
        CMultiviewHandler::ReleaseInstance();
        if (uiMode) {
            EXPECT_EQ(vconf_set_str(kUiModeKey, uiMode), 0);
        }
        return *CMultiviewHandler::GetInstance();
    }

    TempRoot root;
};

TEST_F(MultiviewJsonTest, LevelAndMuteArePublishedAsOneLineObjectInMemberOrder)
{
    ASSERT_EQ(vconf_set_int("db/hadrix/volume_level", 42), 0);
    CMultiviewHandler &handler = Handler("on");
    ASSERT_TRUE(handler.IsMultiviewOn());

    EXPECT_TRUE(handler.SetVolumeLevel(35));
    EXPECT_EQ(VolumeInfo(), R"({"mute":"off","volumekey":"none","volumelevel":35})");
    EXPECT_TRUE(handler.SetMute(true));
    EXPECT_EQ(VolumeInfo(), R"({"mute":"on","volumekey":"none","volumelevel":"none"})")
        << "a muted headset has no level to show";
    EXPECT_TRUE(handler.SetMute(false));
    EXPECT_EQ(VolumeInfo(), R"({"mute":"off","volumekey":"none","volumelevel":42})")
        << "unmuting shows the stored level as a number";
}

TEST_F(MultiviewJsonTest, NothingIsWrittenUnlessUiModeIsExactlyOn)
{
    for (const char *uiMode : {static_cast<const char *>(nullptr), "On", "ON", "on ", "off", ""}) {
        SCOPED_TRACE(uiMode ? std::string("ui_mode \"") + uiMode + "\"" : "no ui_mode");
        CMultiviewHandler &handler = Handler(uiMode);
        EXPECT_FALSE(handler.IsMultiviewOn());
        EXPECT_FALSE(handler.SetVolumeLevel(35));
        EXPECT_FALSE(handler.SetMute(true));
        EXPECT_FALSE(handler.SetMute(false));
        EXPECT_EQ(VolumeInfo(), "<absent>");
    }
}

// Switching multiview off through the watched key stops the publishing; switching it on is not
// exercised here, as that hands over to the headset manager.
TEST_F(MultiviewJsonTest, UiModeChangeToOtherSpellingTurnsMultiviewOff)
{
    CMultiviewHandler &handler = Handler("on");
    ASSERT_TRUE(handler.IsMultiviewOn());

    ASSERT_EQ(vconf_set_str(kUiModeKey, "On"), 0);
    for (const gint64 end = g_get_monotonic_time() + 3 * G_USEC_PER_SEC;
         handler.IsMultiviewOn() && g_get_monotonic_time() < end;)
        if (!g_main_context_iteration(nullptr, FALSE))
            g_usleep(1000);

    EXPECT_FALSE(handler.IsMultiviewOn()) << "the change of ui_mode was not acted on within 3 s";
    EXPECT_FALSE(handler.SetVolumeLevel(35));
    EXPECT_EQ(VolumeInfo(), "<absent>");
}

// Without a resource centre there is no multiview zone to route.
TEST_F(MultiviewJsonTest, NoZoneGivesDefaultRouteAndFailedSelection)
{
    CMultiviewHandler &handler = Handler("on");
    EXPECT_EQ(handler.GetSpeakerSelection(), SOUND_TV_OUTPUT_DEFAULT);
    EXPECT_FALSE(handler.SetSpeakerSelection(SOUND_TV_OUTPUT_USB_HEADSET));
}

} // namespace
