// A USB audio device coming and going: which one takes the TV sound, which is left alone, and
// what the audio server, the sound manager and the KPI log hear of it.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "DeviceScenes.h"
#include "ServiceHarness.h"
#include "USBDevice.h"
#include "nimbos/fake.h"

namespace fake = nimbos::fake;
using namespace hadrix::test;

namespace {

TEST(Attach, AFreshPlugTakesTheRouteThenTheUnmuteMarksItInUse)
{
    ServiceHarness tv;
    tv.Start();
    tv.Plug(kHeadset);
    EXPECT_EQ(fake::Route(), kUsbHeadsetRoute);
    // The plug starts the card; the route's change unmutes the headset, which starts it again.
    EXPECT_EQ(tv.StartedCards(), (Cards{1, 1}));
    EXPECT_EQ(CardsInUse(tv), Cards{1});
    EXPECT_EQ(KpiEvents(tv), (Texts{"new Evolve 20", "connected Evolve 20"}));
    EXPECT_EQ(Decided(kHeadset), "hotplug-added took-sound detected-after-core");
}

// A plug the kernel log dates back to the boot is no viewer's plug, unless the service was in
// USB audio mode: then any plug takes the sound.
TEST(Attach, APlugTheKernelSawAtBootTakesTheSoundOnlyInUsbAudioMode)
{
    for (bool usbAudioMode : {true, false}) {
        SCOPED_TRACE(usbAudioMode ? "USB audio mode" : "not USB audio mode");
        ServiceHarness tv;
        tv.SetUsbAudioMode(usbAudioMode);
        tv.Start();
        tv.PlugDetectedAt(kHeadset, 3.5);
        EXPECT_EQ(tv.DeviceManager()->GetDeviceCnt(), 1);
        EXPECT_EQ(fake::Route(), usbAudioMode ? kUsbHeadsetRoute : kDefaultRoute);
        EXPECT_EQ(tv.StartedCards().empty(), !usbAudioMode);
        EXPECT_EQ(Decided(kHeadset), usbAudioMode ? "hotplug-added took-sound usb-audio-mode"
                                                  : "hotplug-added present-at-boot detected-with-core");
    }
}

TEST(Attach, ADeviceAnnouncedAgainIsNotAttachedAgain)
{
    ServiceHarness tv;
    tv.Start();
    tv.Plug(kHeadset);
    fake::DeliverHotplug(kHeadset.Usb(), "added");
    tv.Settle();
    EXPECT_EQ(tv.DeviceManager()->GetDeviceCnt(), 1);
    EXPECT_EQ(tv.StartedCards(), (Cards{1, 1}));
    EXPECT_EQ(KpiEvents(tv).size(), 2u);
}

TEST(Attach, ACardWithoutItsControlOrPlaybackNodeIsNotAttached)
{
    for (const char *node : {"/dev/snd/controlC1", "/dev/snd/pcmC1D0p"}) {
        SCOPED_TRACE(node);
        ServiceHarness tv;
        tv.Start();
        tv.root.WriteFile(node, "");
        fake::Plug(kHeadset.Usb());
        tv.Settle();
        EXPECT_EQ(tv.DeviceManager()->GetDeviceCnt(), 0);
        EXPECT_EQ(fake::Route(), kDefaultRoute);
        EXPECT_TRUE(tv.StartedCards().empty());
    }
}

// The headset manager's filter in front of the device manager: what is dropped never reaches it.
TEST(Attach, HotPlugsOutOfANormalPowerStateOrOfNoAudioCardAreDropped)
{
    TestDevice otherClass = kHeadset;
    otherClass.usbClass = 0xff;
    fake::UsbDevice withoutCard = kHeadset.Usb();
    withoutCard.devpath = "/devices/platform/soc/usb1/1-1/1-1:1.0";
    struct Case {
        const char *what;
        std::function<void(ServiceHarness &)> plug;
        bool attached;
        const TestDevice &device;
        std::string decided;
    } cases[] = {
        {"power state 1 is normal", [](ServiceHarness &tv) { tv.ChangePower(0, 1), tv.Plug(kHeadset); }, true, kHeadset,
         "hotplug-added present-at-resume power-change"},
        {"power state 2", [](ServiceHarness &tv) { tv.ChangePower(0, 2), tv.Plug(kHeadset); }, false, kHeadset,
         "hotplug-added dropped power-state-not-normal"},
        {"power state 3", [](ServiceHarness &tv) { tv.ChangePower(0, 3), tv.Plug(kHeadset); }, false, kHeadset,
         "hotplug-added dropped power-state-not-normal"},
        {"resume pending", [](ServiceHarness &tv) { tv.ChangePower(4, 0), tv.Plug(kHeadset); }, false, kHeadset,
         "hotplug-added dropped resume-pending"},
        {"vendor class", [&](ServiceHarness &tv) { tv.Plug(otherClass); }, false, kHeadset,
         "hotplug-added left-alone not-audio-interface"},
        {"no card", [&](ServiceHarness &tv) { fake::Plug(withoutCard), tv.Settle(); }, false, kHeadset,
         "hotplug-added dropped no-card-number"},
        {"camera", [](ServiceHarness &tv) { tv.Plug(kWebcam); }, false, kWebcam, "hotplug-added left-alone camera-name"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        ServiceHarness tv;
        tv.Start();
        c.plug(tv);
        EXPECT_EQ(tv.DeviceManager()->GetDeviceCnt(), c.attached ? 1 : 0);
        EXPECT_EQ(Decided(c.device), c.decided);
        if (!c.attached) {
            EXPECT_TRUE(tv.StartedCards().empty());
        }
    }
}

TEST(Attach, AnAstroHeadsetIsKeptAsideAndWarnedAboutOnceWhileItStaysPlugged)
{
    ServiceHarness tv;
    tv.Start();
    tv.Plug(kHeadset);
    tv.Plug(kAstro);
    fake::DeliverHotplug(kAstro.Usb(), "added");
    tv.Settle();
    EXPECT_EQ(KpiEvents(tv), (Texts{"new Evolve 20", "connected Evolve 20", "unsupported Astro A20"}));
    EXPECT_EQ(Popups(1), Texts{"not supported Astro A20"});
    EXPECT_EQ(tv.DeviceManager()->GetDeviceCnt(), 1);
    EXPECT_EQ(tv.StartedCards(), (Cards{1, 1})) << "the output stays with the headset";
    EXPECT_EQ(Decided(kAstro), "hotplug-added not-supported astro-name");
    tv.clock.Advance(500);
    const std::string depot = tv.root.ReadFile(kDepot);
    EXPECT_NE(depot.find("Evolve 20"), std::string::npos);
    EXPECT_EQ(depot.find("Astro"), std::string::npos);

    tv.Unplug(kAstro);
    tv.Plug(kAstro);
    EXPECT_EQ(KpiEvents(tv).back(), "unsupported Astro A20") << "plugged again, warned again";
    EXPECT_EQ(KpiEvents(tv).size(), 4u);
}

TEST(Attach, TwoHeadsetsCarryTheSoundAndAThirdWaitsWithAConnectedPopup)
{
    ServiceHarness tv;
    tv.Start();
    PlugOneAfterAnother(tv, {kHeadset, kHeadset2}); // the second started, idle until the output is next handed out
    EXPECT_EQ(tv.StartedCards(), (Cards{1, 1, 2}));
    EXPECT_EQ(CardsInUse(tv), Cards{1});
    // The second shares the first one's USB port.
    EXPECT_EQ(Popups(1), Texts{"noise H390 USB Headset"});

    PlugOneAfterAnother(tv, {kHeadset3}); // no place: the free one already attached takes the output instead
    EXPECT_EQ(tv.StartedCards(), (Cards{1, 1, 2, 2}));
    EXPECT_EQ(CardsInUse(tv), (Cards{1, 2}));
    EXPECT_EQ(tv.DeviceManager()->GetDeviceCnt(), 3);
    EXPECT_EQ(Decided(kHeadset3), "hotplug-added waits no-free-place");
    EXPECT_EQ(KpiEvents(tv), (Texts{"new Evolve 20", "connected Evolve 20", "new H390 USB Headset"}));
    EXPECT_EQ(Popups(2), (Texts{"noise H390 USB Headset", "connected Zone Wired"}));
}

// One hot-plug enters the service once: the device's properties are read from the USB library
// where the event arrives and travel with it from there.
TEST(Attach, AHotPlugReadsEachPropertyOfTheDeviceOnce)
{
    const char *const getters[] = {"usb_device_get_class",        "usb_device_get_number",
                                   "usb_device_get_devname",      "usb_device_get_devpath",
                                   "usb_device_get_product",      "usb_device_get_manufacturer",
                                   "usb_device_get_vendor_id",    "usb_device_get_product_id"};
    ServiceHarness tv;
    tv.Start();
    for (bool plug : {true, false}) {
        SCOPED_TRACE(plug ? "added" : "removed");
        fake::ClearCalls();
        plug ? tv.Plug(kHeadset) : tv.Unplug(kHeadset);
        for (const char *getter : getters)
            EXPECT_EQ(CallCount(getter), 1u) << getter;
    }
}

} // namespace
