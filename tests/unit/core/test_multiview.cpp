// Multiview (split screen): the headset's route per screen zone, its level and mute published to
// the multiview UI instead of the TV viewer, and the multiview route changes the viewer makes.
#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "MultiviewHandler.h"
#include "ServiceHarness.h"
#include "SoundManagerHandler.h"
#include "nimbos/fake.h"

namespace fake = nimbos::fake;
using hadrix::test::kHeadset;
using hadrix::test::ServiceHarness;

namespace {

constexpr int kUsbHeadsetRoute = 15;
constexpr int kTvSpeakerRoute = 0;
const char kUiModeKey[] = "memory/multiscreen/ui_mode";
const char kVolumeInfoKey[] = "memory/multiscreen/volumeinfo_usbheadset";
const char kLevelKey[] = "db/hadrix/volume_level";
const char kUp[] = "XF86AudioRaiseVolume";
const char kMute[] = "XF86AudioMute";
const char kRemote[] = "rc device 0";

std::string VolumeInfo()
{
    return fake::GetString(kVolumeInfoKey).value_or("<absent>");
}

std::string Info(const char *mute, const std::string &level)
{
    return std::string(R"({"mute":")") + mute + R"(","volumekey":"none","volumelevel":)" + level + "}";
}

class Multiview : public ::testing::Test {
protected:
    // The viewer plugs a headset in, which takes the sound; ui_mode as given.
    void StartWithHeadset(const char *uiMode)
    {
        fake::SetZones({0, 1});
        fake::SetString(kUiModeKey, uiMode);
        fake::SetInt(kLevelKey, 40);
        tv.Start();
        tv.Plug(kHeadset);
    }
    void Press(const char *key)
    {
        ASSERT_TRUE(fake::PressKey(key, std::string(kRemote)));
        tv.Settle();
    }

    ServiceHarness tv;
};

TEST_F(Multiview, OnlyUiModeExactlyOnTurnsItOn)
{
    const std::pair<std::optional<std::string>, bool> modes[] = {
        {"on", true}, {"On", false}, {"ON", false}, {"on ", false}, {"off", false}, {"", false}, {std::nullopt, false}};
    for (const auto &[mode, on] : modes) {
        SCOPED_TRACE(mode ? "\"" + *mode + "\"" : "no ui_mode");
        fake::Unset(kVolumeInfoKey);
        fake::Unset(kUiModeKey);
        if (mode)
            fake::SetString(kUiModeKey, *mode);
        CMultiviewHandler::ReleaseInstance();
        EXPECT_EQ(CMultiviewHandler::GetInstance()->SetMute(true), on);
        EXPECT_EQ(CMultiviewHandler::GetInstance()->SetVolumeLevel(35), on);
        EXPECT_EQ(VolumeInfo(), on ? Info("off", "35") : "<absent>");
    }
    fake::SetString(kUiModeKey, "On");
    tv.Settle();
    EXPECT_FALSE(CMultiviewHandler::GetInstance()->IsMultiviewOn()) << "a change of ui_mode is followed";
}

TEST_F(Multiview, TheHeadsetsLevelAndMuteGoToTheMultiviewUiNotTheViewer)
{
    fake::SetBool("db/setting/accessibility/tts", true);
    StartWithHeadset("on"); // every zone routed, the level published: test_output.cpp
    const size_t launches = fake::Launches().size();
    Press(kUp);
    ASSERT_TRUE(fake::ReleaseKey(kUp, std::string(kRemote)));
    tv.Settle();
    EXPECT_EQ(VolumeInfo(), Info("off", "41"));
    Press(kMute);
    EXPECT_EQ(VolumeInfo(), Info("on", R"("none")"));
    Press(kMute);
    EXPECT_EQ(VolumeInfo(), Info("off", "41")) << "unmuted: the stored level";
    const std::vector<fake::Launch> all = fake::Launches();
    ASSERT_EQ(all.size(), launches + 1) << "the TV viewer is asked only to beep";
    EXPECT_EQ(all.back().extraData, (fake::ExtraData{{"cmd", "play_tts"}, {"value", "beep"}}));
}

TEST_F(Multiview, ItsRouteIsTheFirstZonesAndNoZoneMeansTheDefaultRoute)
{
    fake::SetString(kUiModeKey, "on");
    CMultiviewHandler *multiview = CMultiviewHandler::GetInstance();
    EXPECT_EQ(multiview->GetSpeakerSelection(), SOUND_TV_OUTPUT_DEFAULT);
    EXPECT_FALSE(multiview->SetSpeakerSelection(SOUND_TV_OUTPUT_USB_HEADSET)) << "no zone";

    fake::SetZones({3, 5});
    fake::SetMultiviewRoute(4, 3);
    fake::SetRoute(9);
    EXPECT_EQ(CSoundManagerHandler::GetInstance()->GetSpeakerSelection(), 4);
    EXPECT_TRUE(fake::CallsTo("sound_manager_get_speaker_selection").empty());
    fake::FailNext("sound_manager_set_multiview_speaker_selection_with_zone_id", -1);
    EXPECT_TRUE(multiview->SetSpeakerSelection(SOUND_TV_OUTPUT_USB_HEADSET)) << "the last zone decides";
    EXPECT_EQ(fake::MultiviewRoute(5), kUsbHeadsetRoute);
}

TEST_F(Multiview, TheViewersRouteChangeReachesTheHeadsetManagerOnlyWhileMultiviewIsOn)
{
    StartWithHeadset("off");
    fake::AnnounceMultiviewRoute(kTvSpeakerRoute, 0);
    tv.Settle();
    EXPECT_TRUE(tv.StoppedCards().empty());

    fake::SetString(kUiModeKey, "on");
    tv.Settle();
    fake::AnnounceMultiviewRoute(kTvSpeakerRoute, 0);
    tv.Settle();
    EXPECT_EQ(tv.StoppedCards(), std::vector<int>{kHeadset.card});
}

} // namespace
