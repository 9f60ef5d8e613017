// The TV's power states: low power releases the headsets, and three seconds after the TV comes
// back the device manager is built afresh and finds the devices again.
#include <gtest/gtest.h>

#include <cstdio>

#include "DeviceScenes.h"
#include "ServiceHarness.h"
#include "USBDevice.h"
#include "nimbos/fake.h"

namespace fake = nimbos::fake;
using namespace hadrix::test;

namespace {

constexpr uint64_t kResumeMs = 3000;
constexpr char kParsedLog[] = "/tmp/dmesg.txt.success";

size_t Passes()
{
    return CallCount("usb_device_get_device_list");
}

TEST(Power, TheLowPowerStatesReleaseTheHeadsetsInUse)
{
    for (int state : {1, 2, 3, 4}) {
        SCOPED_TRACE(state);
        const bool lowPower = state == 2 || state == 4;
        ServiceHarness tv;
        tv.Start();
        tv.Plug(kHeadset);
        tv.ChangePower(0, state);
        EXPECT_EQ(tv.StoppedCards(), lowPower ? Cards{1} : Cards{});
        EXPECT_EQ(KpiEvents(tv).back(), lowPower ? "disconnected Evolve 20" : "connected Evolve 20");
        EXPECT_EQ(Decided(kHeadset),
                  lowPower ? "power-change released standby" : "hotplug-added took-sound detected-after-core");
    }
}

TEST(Power, AResumeRebuildsTheDeviceManagerThreeSecondsAfterTheFirstWakeUp)
{
    ServiceHarness tv;
    tv.Start();
    const size_t passes = Passes();
    tv.ChangePower(2, 0);
    tv.clock.Advance(kResumeMs - 1000);
    tv.ChangePower(2, 0); // not armed again
    tv.clock.Advance(999);
    EXPECT_EQ(Passes(), passes);
    tv.clock.Advance(1);
    EXPECT_EQ(Passes(), passes + 1);
    EXPECT_TRUE(tv.DeviceManager()->IsEnumerating());
}

TEST(Power, BackInLowPowerBeforeTheThreeSecondsNothingIsRebuilt)
{
    ServiceHarness tv;
    tv.Start();
    const size_t passes = Passes();
    tv.ChangePower(4, 0);
    tv.clock.Advance(1000);
    tv.ChangePower(0, 4);
    tv.clock.Advance(kResumeMs);
    EXPECT_EQ(Passes(), passes);
}

// A device plugged while the resume is pending is left to the resume enumeration, which finds it
// with the one already there; in USB audio mode they take the sound.
TEST(Power, TheResumeEnumerationFindsTheDevicesAndTakesTheSoundInUsbAudioMode)
{
    for (bool usbAudioMode : {true, false}) {
        SCOPED_TRACE(usbAudioMode ? "USB audio mode" : "not USB audio mode");
        ServiceHarness tv;
        tv.PresentAtBoot(kHeadset);
        tv.SetUsbAudioMode(usbAudioMode);
        tv.Start();
        fake::SetInt(kMuteKey, 1);
        tv.ChangePower(0, 2);
        fake::ClearCalls();
        tv.ChangePower(2, 0);
        tv.Plug(kHeadset2);
        EXPECT_EQ(tv.DeviceManager()->GetDeviceCnt(), 1) << "dropped until the resume";
        tv.clock.Advance(kResumeMs);
        tv.FinishEnumeration();
        EXPECT_EQ(tv.DeviceManager()->GetDeviceCnt(), 2);
        EXPECT_EQ(fake::GetInt(kMuteKey), 0);
        const Cards resumed = usbAudioMode ? Cards{1, 2} : Cards{};
        EXPECT_EQ(CardsInUse(tv), resumed);
        EXPECT_EQ(History(kHeadset2),
                  (Texts{"hotplug-added dropped resume-pending",
                         usbAudioMode ? "resume-enumeration took-sound usb-audio-mode"
                                      : "resume-enumeration present-at-resume resume-without-usb-audio-mode"}));
        EXPECT_EQ(fake::CallsTo("sound_manager_set_speaker_selection").size(), 0u) << "the route was kept";
    }
}

// Only the deep low-power state 4 has the kernel log read again before the resume enumeration.
TEST(Power, TheKernelLogIsParsedAgainOnlyAfterTheDeepLowPowerState)
{
    for (int from : {2, 4}) {
        SCOPED_TRACE(from);
        ServiceHarness tv;
        tv.PresentAtBoot(kHeadset);
        tv.Start();
        std::remove(tv.root.Path(kParsedLog).c_str());
        tv.Resume(from);
        EXPECT_EQ(tv.root.Exists(kParsedLog), from == 4);
        EXPECT_EQ(tv.DeviceManager()->GetDeviceCnt(), 1);
    }
}

// After a resume that found nothing in USB audio mode, a headset of the last run that the kernel
// saw come back soon after the wake-up (within 5 s: test_dmesg_analysis.cpp) is waited for.
TEST(Power, AfterAResumeAHeadsetSeenJustAfterTheWakeUpIsWaitedFor)
{
    ServiceHarness tv;
    tv.SetUsbAudioMode(true);
    fake::SetRoute(kUsbHeadsetRoute);
    RememberDevices(tv, {kHeadset});
    tv.Start();
    tv.kernelLog.Detect(kHeadset, NowSeconds(tv) + 4.999);
    tv.Resume(4);
    EXPECT_EQ(tv.SpeakerDisconnects(), 0u);
    tv.clock.Advance(30000);
    EXPECT_EQ(tv.SpeakerDisconnects(), 1u);
}

} // namespace
