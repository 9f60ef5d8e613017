// The devices the service finds at start-up: its passes over the USB library, whether the TV
// sound goes to what it found, and, when it found nothing in USB audio mode, how long it waits
// for the headsets of the last run before it leaves that mode.
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "DeviceScenes.h"
#include "ServiceHarness.h"
#include "USBDevice.h"
#include "nimbos/fake.h"

namespace fake = nimbos::fake;
using namespace hadrix::test;

namespace {

constexpr uint64_t kPassMs = 1000;

size_t Passes()
{
    return CallCount("usb_device_get_device_list");
}

TEST(Enumeration, PassesASecondApartEndWithTheFirstThatFindsADevice)
{
    ServiceHarness tv;
    tv.BeginStart();
    EXPECT_EQ(Passes(), 1u);
    tv.clock.Advance(kPassMs - 1);
    EXPECT_EQ(Passes(), 1u);
    tv.clock.Advance(1);
    EXPECT_EQ(Passes(), 2u);
    tv.PresentAtBoot(kHeadset);
    tv.clock.Advance(kPassMs);
    EXPECT_EQ(Passes(), 3u);
    EXPECT_FALSE(tv.DeviceManager()->IsEnumerating());
    EXPECT_EQ(tv.DeviceManager()->GetDeviceCnt(), 1);
}

TEST(Enumeration, TenPassesFindingNothingEndIt)
{
    ServiceHarness tv;
    tv.BeginStart();
    tv.clock.Advance(9 * kPassMs - 1);
    EXPECT_TRUE(tv.DeviceManager()->IsEnumerating());
    tv.clock.Advance(1);
    EXPECT_FALSE(tv.DeviceManager()->IsEnumerating());
    tv.clock.Advance(5 * kPassMs);
    EXPECT_EQ(Passes(), 10u);
}

TEST(Enumeration, APassThatCannotReadTheUsbLibraryFoundNothingAndTheNextTriesAgain)
{
    for (const char *failing : {"usb_device_get_device_list", "usb_device_list_get_first"}) {
        SCOPED_TRACE(failing);
        ServiceHarness tv;
        tv.PresentAtBoot(kHeadset);
        fake::FailNext(failing, -5);
        tv.BeginStart();
        EXPECT_TRUE(tv.DeviceManager()->IsEnumerating());
        tv.clock.Advance(kPassMs);
        EXPECT_FALSE(tv.DeviceManager()->IsEnumerating());
        EXPECT_EQ(tv.DeviceManager()->GetDeviceCnt(), 1);
    }
}

// A pass finds the device in the USB library, not from a hot-plug: it is read there once too.
TEST(Enumeration, APassReadsEachPropertyOfAPresentDeviceOnce)
{
    ServiceHarness tv;
    tv.PresentAtBoot(kHeadset);
    tv.Start();
    for (const char *getter : {"usb_device_get_class", "usb_device_get_devpath", "usb_device_get_product",
                               "usb_device_get_manufacturer", "usb_device_get_vendor_id",
                               "usb_device_get_product_id", "usb_device_get_number"})
        EXPECT_EQ(CallCount(getter), 1u) << getter;
}

// Only the first start since power-on finds no start marker: the stored mute state goes back to
// unmuted then, and the marker is made.
TEST(Enumeration, TheFirstStartSinceBootUnmutesTheStoredState)
{
    for (bool restarted : {false, true}) {
        SCOPED_TRACE(restarted ? "restarted" : "first start");
        ServiceHarness tv;
        if (restarted)
            tv.root.WriteFile("/tmp/hadrix.running", "");
        fake::SetInt(kMuteKey, 1);
        tv.Start();
        EXPECT_EQ(fake::GetInt(kMuteKey), restarted ? 1 : 0);
        EXPECT_TRUE(tv.root.Exists("/tmp/hadrix.running"));
    }
}

// In USB audio mode what was found takes the sound; otherwise a device present since the boot
// does not (where the kernel log's judgement draws the line: test_dmesg_analysis.cpp).
TEST(Enumeration, DevicesFoundAtStartTakeTheSoundOnlyInUsbAudioMode)
{
    for (bool usbAudioMode : {true, false}) {
        SCOPED_TRACE(usbAudioMode ? "USB audio mode" : "not USB audio mode");
        ServiceHarness tv;
        tv.SetUsbAudioMode(usbAudioMode);
        tv.PresentAtBoot(kHeadset);
        tv.Start();
        EXPECT_EQ(fake::Route(), usbAudioMode ? kUsbHeadsetRoute : kDefaultRoute);
        EXPECT_EQ(tv.StartedCards(), usbAudioMode ? Cards{1} : Cards{});
        EXPECT_EQ(Decided(kHeadset), usbAudioMode ? "startup-enumeration took-sound usb-audio-mode"
                                                  : "startup-enumeration present-at-boot detected-with-core");
    }
}

// One device plugged after the boot switches the sound to USB, and the switch takes the first two
// found, with one change of route.
TEST(Enumeration, OneDevicePluggedAfterTheBootSwitchesTheFirstTwoFound)
{
    ServiceHarness tv;
    tv.PresentAtBoot(kHeadset);
    tv.PresentAtBoot(kHeadset2, 40.0);
    tv.PresentAtBoot(kHeadset3);
    tv.Start();
    EXPECT_EQ(fake::Route(), kUsbHeadsetRoute);
    EXPECT_EQ(CallCount("sound_manager_set_speaker_selection"), 1u);
    EXPECT_EQ(tv.StartedCards(), (Cards{1, 2}));
    EXPECT_EQ(CardsInUse(tv), (Cards{1, 2}));
    EXPECT_EQ(Decided(kHeadset2), "startup-enumeration took-sound detected-after-core");
    EXPECT_EQ(Decided(kHeadset), "startup-enumeration took-sound first-two-at-switch (H390 USB Headset)");
}

TEST(Enumeration, CamerasAndCardsWithoutNodesAreNotTaken)
{
    ServiceHarness tv;
    tv.SetUsbAudioMode(true);
    tv.PresentAtBoot(kWebcam);
    fake::AddPresentDevice(kHeadset.Usb()); // no sound nodes
    tv.Start();
    EXPECT_EQ(tv.DeviceManager()->GetDeviceCnt(), 0);
    EXPECT_EQ(Passes(), 10u);
    EXPECT_EQ(Decided(kWebcam), "startup-enumeration left-alone camera-name");
    EXPECT_EQ(Decided(kHeadset), "startup-enumeration dropped no-sound-nodes");
}

// An Astro headset found at start-up is warned about once that pass is over.
TEST(Enumeration, AnAstroHeadsetFoundIsWarnedAboutAndKeptOutOfTheDevices)
{
    ServiceHarness tv;
    tv.SetUsbAudioMode(true);
    tv.PresentAtBoot(kAstro);
    tv.PresentAtBoot(kHeadset);
    tv.Start();
    EXPECT_EQ(KpiEvents(tv), Texts{"unsupported Astro A20"});
    EXPECT_EQ(tv.StartedCards(), Cards{1});
}

// Found nothing in USB audio mode: the headsets of the last run that the kernel saw come up
// within 30 s of the boot are waited for, in checks 5 s apart, six at most; one seen later is
// not coming back, and with none remembered the mode is left after 15 s.
TEST(Enumeration, NothingFoundInUsbAudioModeWaitsForTheHeadsetsOfTheLastRun)
{
    struct Case {
        bool usbAudioMode;
        std::optional<double> seenAt; // the remembered headset, by the kernel log
        std::optional<uint64_t> leftAfterMs;
    } cases[] = {
        {false, 3.5, std::nullopt}, {true, std::nullopt, 15000}, {true, 3.5, 30000}, {true, 100.0, 0},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(testing::Message() << "mode " << c.usbAudioMode << ", seen at " << c.seenAt.value_or(-1));
        ServiceHarness tv;
        tv.SetUsbAudioMode(c.usbAudioMode);
        fake::SetRoute(kUsbHeadsetRoute);
        if (c.seenAt) {
            RememberDevices(tv, {kHeadset});
            tv.kernelLog.Detect(kHeadset, *c.seenAt);
        }
        tv.Start();
        const uint64_t leave = c.leftAfterMs.value_or(60000);
        if (leave > 0) {
            tv.clock.Advance(leave - 1);
            EXPECT_EQ(tv.SpeakerDisconnects(), 0u);
            tv.clock.Advance(1);
        }
        EXPECT_EQ(tv.SpeakerDisconnects(), c.leftAfterMs ? 1u : 0u);
    }
}

TEST(Enumeration, AHeadsetPluggedWhileTheModeIsAboutToBeLeftKeepsIt)
{
    for (bool remembered : {true, false}) {
        SCOPED_TRACE(remembered ? "checks" : "15 s leave");
        ServiceHarness tv;
        tv.SetUsbAudioMode(true);
        fake::SetRoute(kUsbHeadsetRoute);
        if (remembered) {
            RememberDevices(tv, {kHeadset});
            tv.kernelLog.Detect(kHeadset, 3.5);
        }
        tv.Start();
        tv.clock.Advance(12000);
        tv.Plug(kHeadset);
        tv.clock.Advance(60000);
        EXPECT_EQ(tv.SpeakerDisconnects(), 0u);
        EXPECT_EQ(tv.StartedCards(), Cards{1});
    }
}

TEST(Enumeration, AHeadsetWaitedForThatTheKernelSawGoEndsTheWaitAtTheNextCheck)
{
    ServiceHarness tv;
    tv.SetUsbAudioMode(true);
    fake::SetRoute(kUsbHeadsetRoute);
    RememberDevices(tv, {kHeadset});
    tv.kernelLog.Detect(kHeadset, 3.5);
    tv.Start();
    tv.clock.Advance(7000);
    tv.kernelLog.Disconnect(kHeadset, NowSeconds(tv));
    tv.clock.Advance(2999);
    EXPECT_EQ(tv.SpeakerDisconnects(), 0u);
    tv.clock.Advance(1);
    EXPECT_EQ(tv.SpeakerDisconnects(), 1u);
}

// The card's mixer is set to its maximum again 40 s into the service. No card answers the mixer
// in-process, so its attempt, in the log, is what shows.
TEST(Enumeration, TheMixersAreSetAgainFortySecondsAfterTheStart)
{
    ServiceHarness tv;
    tv.PresentAtBoot(kHeadset);
    tv.BeginStart();
    auto mixerPasses = [] {
        size_t passes = 0;
        for (const fake::LogLine &line : fake::LogLines())
            passes += line.text.find("UsbMixer.cpp: RestVolume(") != std::string::npos;
        return passes;
    };
    tv.clock.Advance(40000 - 1);
    EXPECT_EQ(mixerPasses(), 0u);
    tv.clock.Advance(1);
    EXPECT_EQ(mixerPasses(), 1u);
}

// Events that come while the enumeration runs wait for its end and are then handled in the order
// they came: here a plug between two passes (attached once, by the next pass), the viewer's two
// choices of route, and the TV going to low power.
TEST(Enumeration, EventsDuringTheEnumerationAreHandledAfterItInTheirOrder)
{
    ServiceHarness tv;
    tv.SetUsbAudioMode(true);
    tv.BeginStart();
    tv.Plug(kHeadset);
    fake::AnnounceRoute(kTvSpeakerRoute);
    fake::AnnounceRoute(kUsbHeadsetRoute);
    tv.ChangePower(0, 2);
    EXPECT_EQ(tv.DeviceManager()->GetDeviceCnt(), 0) << "the plug too waits";
    EXPECT_TRUE(tv.root.Exists(kUsbAudioMode));
    EXPECT_TRUE(tv.StoppedCards().empty());

    tv.FinishEnumeration();
    // The switch at the end; then the route away (mute), back (unmute), and low power (mute).
    EXPECT_EQ(tv.StartedCards(), (Cards{1, 1}));
    EXPECT_EQ(tv.StoppedCards(), (Cards{1, 1}));
    EXPECT_TRUE(tv.root.Exists(kUsbAudioMode));
    EXPECT_EQ(tv.DeviceManager()->GetDeviceCnt(), 1);
}

} // namespace
