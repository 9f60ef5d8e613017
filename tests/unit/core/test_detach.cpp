// A USB audio device unplugged: who takes over its place, what the speaker manager hears when the
// last one goes, and the ten minutes after which the service ends.
#include <gtest/gtest.h>

#include "DeviceScenes.h"
#include "ServiceHarness.h"
#include "USBDevice.h"
#include "nimbos/fake.h"

namespace fake = nimbos::fake;
using namespace hadrix::test;

namespace {

constexpr uint64_t kQuitMs = 600000;

TEST(Detach, TheWaitingHeadsetTakesThePlaceTheUnpluggedOneFreed)
{
    ServiceHarness tv;
    tv.Start();
    PlugOneAfterAnother(tv, {kHeadset, kHeadset2, kHeadset3}); // 1 and 2 in use: Attach.TwoHeadsets…
    tv.Unplug(kHeadset);
    EXPECT_EQ(tv.StoppedCards(), Cards{1});
    ASSERT_FALSE(tv.StartedCards().empty());
    EXPECT_EQ(tv.StartedCards().back(), 3);
    EXPECT_EQ(CardsInUse(tv), (Cards{2, 3}));
    EXPECT_EQ(Decided(kHeadset3), "hotplug-removed took-sound freed-place (Evolve 20)");
    // Noise: the two left share a USB port.
    EXPECT_EQ(Popups(3).back(), "noise H390 USB Headset");
}

TEST(Detach, WithTheRouteElsewhereAnUnplugHandsNothingOver)
{
    ServiceHarness tv;
    tv.Start();
    PlugOneAfterAnother(tv, {kHeadset, kHeadset2, kHeadset3});
    fake::AnnounceRoute(kTvSpeakerRoute);
    tv.Settle();
    const Cards started = tv.StartedCards();
    tv.Unplug(kHeadset);
    EXPECT_EQ(tv.StartedCards(), started);
    EXPECT_TRUE(CardsInUse(tv).empty());
}

TEST(Detach, AnIdleDeviceGoesWithoutAStop)
{
    ServiceHarness tv;
    tv.Start();
    PlugOneAfterAnother(tv, {kHeadset, kHeadset2});
    tv.Unplug(kHeadset2);
    EXPECT_TRUE(tv.StoppedCards().empty());
    EXPECT_EQ(CardsInUse(tv), Cards{1});
    EXPECT_EQ(tv.SpeakerDisconnects(), 0u);
}

TEST(Detach, TheLastDeviceGoneTakesTheSpeakerOffTheHeadsetRouteOnlyAndTheServiceQuitsTenMinutesLater)
{
    for (int route : {kUsbHeadsetRoute, kTvSpeakerRoute}) {
        SCOPED_TRACE(route);
        ServiceHarness tv;
        tv.Start();
        tv.Plug(kHeadset);
        fake::AnnounceRoute(route);
        tv.Settle();
        tv.Unplug(kHeadset);
        EXPECT_EQ(tv.SpeakerDisconnects(), route == kUsbHeadsetRoute ? 1u : 0u);
        tv.clock.Advance(kQuitMs - 1);
        EXPECT_EQ(CallCount("service_app_exit"), 0u);
        tv.clock.Advance(1);
        EXPECT_EQ(CallCount("service_app_exit"), 1u);
    }
}

TEST(Detach, APlugCancelsTheQuitAndTheNextLastUnplugCountsTenMinutesAfresh)
{
    ServiceHarness tv;
    tv.Start();
    tv.Plug(kHeadset);
    tv.Unplug(kHeadset);
    tv.clock.Advance(kQuitMs / 2);
    tv.Plug(kHeadset2);
    tv.Unplug(kHeadset2);
    tv.clock.Advance(kQuitMs - 1);
    EXPECT_EQ(CallCount("service_app_exit"), 0u);
    tv.clock.Advance(1);
    EXPECT_EQ(CallCount("service_app_exit"), 1u);
}

TEST(Detach, AnotherRemovalWhileTheQuitIsPendingDoesNotPutItOff)
{
    ServiceHarness tv;
    tv.Start();
    tv.Plug(kHeadset);
    tv.Unplug(kHeadset);
    tv.clock.Advance(kQuitMs / 2);
    fake::DeliverHotplug(kHeadset2.Usb(), "removed"); // nothing attached
    tv.Settle();
    tv.clock.Advance(kQuitMs / 2);
    EXPECT_EQ(CallCount("service_app_exit"), 1u);
}

} // namespace
