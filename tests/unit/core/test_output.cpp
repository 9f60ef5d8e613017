// Which headsets carry the TV sound as the viewer picks the route: USB audio mode, the output
// muted and unmuted, multiview's routes per zone, the volume keys, and what the screen is told of
// the devices in use.
#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "DeviceScenes.h"
#include "ServiceHarness.h"
#include "USBDevice.h"
#include "USBHeadsetMgr.h"
#include "nimbos/fake.h"

namespace fake = nimbos::fake;
using namespace hadrix::test;

namespace {

constexpr char kMultiviewMode[] = "memory/multiscreen/ui_mode";
constexpr char kMultiviewVolume[] = "memory/multiscreen/volumeinfo_usbheadset";
const std::set<std::string> kVolumeKeys{"XF86AudioLowerVolume", "XF86AudioMute", "XF86AudioRaiseVolume"};

int g_appCalls = 0;

void CountAppCall()
{
    ++g_appCalls;
}

void PlugThreeHeadsets(ServiceHarness &tv)
{
    PlugOneAfterAnother(tv, {kHeadset, kHeadset2, kHeadset3});
}

void ChooseRoute(ServiceHarness &tv, int route)
{
    fake::AnnounceRoute(route);
    tv.Settle();
}

// The calls of these functions, in the order they were made.
std::vector<fake::Call> CallsOf(const std::vector<std::string> &functions)
{
    std::vector<fake::Call> calls;
    for (const fake::Call &call : fake::Calls())
        if (std::find(functions.begin(), functions.end(), call.function) != functions.end())
            calls.push_back(call);
    return calls;
}

TEST(Output, TheUsbRouteEntersUsbAudioModeAndUnmutesAnyOtherLeavesItAndMutes)
{
    ServiceHarness tv;
    tv.Start();
    tv.Plug(kHeadset);
    tv.HeadsetManager()->RegisterAppCb(CountAppCall);
    g_appCalls = 0;

    ChooseRoute(tv, kTvSpeakerRoute);
    EXPECT_FALSE(tv.root.Exists(kUsbAudioMode));
    EXPECT_EQ(tv.StoppedCards(), Cards{1});
    EXPECT_TRUE(CardsInUse(tv).empty());
    EXPECT_EQ(Decided(kHeadset), "route-change released route-not-usb");

    ChooseRoute(tv, kUsbHeadsetRoute);
    EXPECT_TRUE(tv.root.Exists(kUsbAudioMode));
    EXPECT_EQ(tv.StartedCards(), (Cards{1, 1, 1}));
    EXPECT_EQ(CardsInUse(tv), Cards{1});
    EXPECT_EQ(Decided(kHeadset), "route-change took-sound route-usb");
    EXPECT_EQ(g_appCalls, 2);
}

// The output goes back to the two oldest headsets, and one KPI event names what changed; muting
// with nothing in use tells nothing.
TEST(Output, MuteAndUnmuteTakeTheTwoOldestAndReportThemInOneEvent)
{
    ServiceHarness tv;
    tv.Start();
    PlugThreeHeadsets(tv);
    const size_t before = KpiEvents(tv).size();
    ChooseRoute(tv, kTvSpeakerRoute);
    ChooseRoute(tv, 3);
    ChooseRoute(tv, kUsbHeadsetRoute);
    const Texts events = KpiEvents(tv);
    EXPECT_EQ(Texts(events.begin() + static_cast<long>(before), events.end()),
              (Texts{"disconnected Evolve 20 + H390 USB Headset", "connected Evolve 20 + H390 USB Headset"}));
    EXPECT_EQ(CardsInUse(tv), (Cards{1, 2}));
}

// A plug that hands the output out again (here an Astro headset, which cannot take it itself)
// brings the route back to the headsets and gives it to the two oldest.
TEST(Output, HandingTheOutputOutAgainTakesTheTwoOldestAndTheRoute)
{
    ServiceHarness tv;
    tv.Start();
    PlugThreeHeadsets(tv);
    ChooseRoute(tv, kTvSpeakerRoute);
    fake::ClearCalls();
    tv.Plug(kAstro);
    EXPECT_EQ(fake::CallsTo("sound_manager_set_speaker_selection"),
              (std::vector<fake::Call>{{"sound_manager_set_speaker_selection", {"15"}}}));
    EXPECT_EQ(CardsInUse(tv), (Cards{1, 2}));
    const Cards started = tv.StartedCards();
    EXPECT_EQ(Cards(started.end() - 2, started.end()), (Cards{1, 2}));
}

// In multiview the headset route is set for every zone, the level is published to the multiview
// UI and the headset output unmuted, in that order; the TV's own route is left alone.
TEST(Output, InMultiviewAPlugRoutesEveryZoneThenPublishesTheLevelThenUnmutes)
{
    ServiceHarness tv;
    fake::SetString(kMultiviewMode, "on");
    fake::SetZones({2, 3});
    fake::SetUsbOutput({true, 0, 0});
    tv.Start();
    fake::ClearCalls();
    tv.Plug(kHeadset);
    const std::string published = R"({"mute":"off","volumekey":"none","volumelevel":50})";
    const std::vector<fake::Call> expected{
        {"sound_manager_set_multiview_speaker_selection_with_zone_id", {"15", "2"}},
        {"sound_manager_set_multiview_speaker_selection_with_zone_id", {"15", "3"}},
        {"vconf_set_str", {kMultiviewVolume, published}},
        {"IAudioControl::setUsbOutMute", {"0"}},
    };
    const std::vector<fake::Call> calls =
        CallsOf({"sound_manager_set_multiview_speaker_selection_with_zone_id", "vconf_set_str",
                 "IAudioControl::setUsbOutMute", "sound_manager_set_speaker_selection"});
    ASSERT_GE(calls.size(), expected.size());
    EXPECT_EQ(std::vector<fake::Call>(calls.begin(), calls.begin() + 4), expected);
    EXPECT_EQ(fake::Route(), kDefaultRoute);
    // The zones' new route is the viewer's choice as well: USB audio mode, the headset in use.
    EXPECT_TRUE(tv.root.Exists(kUsbAudioMode));
    EXPECT_EQ(CardsInUse(tv), Cards{1});
}

TEST(Output, MultiviewSwitchedOnGetsTheStoredLevelOnlyWhileAHeadsetIsInUse)
{
    for (bool inUse : {true, false}) {
        SCOPED_TRACE(inUse ? "in use" : "none in use");
        ServiceHarness tv;
        fake::SetInt("db/hadrix/volume_level", 40);
        tv.Start();
        if (inUse)
            tv.Plug(kHeadset);
        fake::SetString(kMultiviewMode, "on");
        tv.Settle();
        EXPECT_EQ(fake::GetString(kMultiviewVolume),
                  inUse ? std::optional<std::string>(R"({"mute":"off","volumekey":"none","volumelevel":40})")
                        : std::nullopt);
    }
}

// As the key router sees it: the volume keys are the service's while a headset carries the
// sound, from the first one in use to the last.
TEST(Output, TheVolumeKeysAreGrabbedFromTheFirstHeadsetInUseToTheLast)
{
    ServiceHarness tv;
    tv.Start();
    EXPECT_TRUE(fake::GrabbedKeys(0).empty());
    tv.Plug(kHeadset);
    EXPECT_EQ(fake::GrabbedKeys(0), kVolumeKeys);
    PlugOneAfterAnother(tv, {kHeadset2});
    ChooseRoute(tv, kTvSpeakerRoute);
    EXPECT_TRUE(fake::GrabbedKeys(0).empty());
    ChooseRoute(tv, kUsbHeadsetRoute);
    EXPECT_EQ(fake::GrabbedKeys(0), kVolumeKeys);
    tv.Unplug(kHeadset);
    EXPECT_EQ(fake::GrabbedKeys(0), kVolumeKeys);
    tv.Unplug(kHeadset2);
    EXPECT_TRUE(fake::GrabbedKeys(0).empty());
}

// The on-screen name shows the devices in use; with none in use, every device oldest first (the
// clients' list: NetDeviceList in api/test_device_list.cpp, ClientApi.TheDeviceList…).
TEST(Output, TheScreenIsShownTheDevicesInUseElseEveryDeviceOldestFirst)
{
    ServiceHarness tv;
    tv.Start();
    PlugThreeHeadsets(tv);
    EXPECT_EQ(tv.DeviceManager()->GetDeviceInfoForOSD(), "Evolve 20(USB) + H390 USB Headset(USB)");
    ChooseRoute(tv, kTvSpeakerRoute);
    EXPECT_EQ(tv.DeviceManager()->GetDeviceInfoForOSD(), "Evolve 20(USB) + H390 USB Headset(USB) + Zone Wired(USB)");
}

} // namespace
