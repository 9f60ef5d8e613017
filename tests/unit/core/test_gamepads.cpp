// Gamepads whose headset jack shows as a USB sound card are left alone, whether the service knows
// them by their ids or from the gamepad library, which it asks 10 s after the start and 1 s after
// a resume; and the key handler's question whether a key came from an attached USB device.
#include <gtest/gtest.h>

#include <string>

#include "DeviceScenes.h"
#include "ServiceHarness.h"
#include "USBDevice.h"
#include "nimbos/fake.h"

namespace fake = nimbos::fake;
using namespace hadrix::test;

namespace {

// A gamepad the service does not know by its ids.
const TestDevice kPadCard{"8BitDo Pro 2 Audio", "8BitDo", 0x2dc8, 0x3106, "1-7", 7};
const std::string kPadUid = fake::GamepadUid(0x2dc8, 0x3106);

size_t Registrations()
{
    return CallCount("gamepad_register_connection_callback");
}

void ExpectLeftAlone(ServiceHarness &tv, const TestDevice &pad)
{
    EXPECT_EQ(tv.DeviceManager()->GetDeviceCnt(), 0);
    EXPECT_EQ(fake::Route(), kDefaultRoute);
    EXPECT_TRUE(tv.StartedCards().empty());
    EXPECT_EQ(KpiEvents(tv), Texts{"unsupported " + pad.product});
}

TEST(Gamepads, TheLibraryIsAskedTenSecondsAfterTheStartAndASecondAfterAResume)
{
    ServiceHarness tv;
    tv.PresentAtBoot(kHeadset);
    tv.BeginStart();
    tv.clock.Advance(10000 - 1);
    EXPECT_EQ(Registrations(), 0u);
    tv.clock.Advance(1);
    EXPECT_EQ(Registrations(), 1u);

    tv.Resume(2);
    EXPECT_EQ(CallCount("gamepad_unregister_connection_callback"), 1u) << "the old manager let go";
    tv.clock.Advance(1000 - 1);
    EXPECT_EQ(Registrations(), 1u);
    tv.clock.Advance(1);
    EXPECT_EQ(Registrations(), 2u);
}

TEST(Gamepads, AKnownGamepadsCardIsLeftAloneWithAWarning)
{
    ServiceHarness tv;
    tv.Start();
    tv.Plug(kKnownPad);
    ExpectLeftAlone(tv, kKnownPad);
}

TEST(Gamepads, AGamepadConnectedBeforeTheRegistrationIsListedThenFollowedUntilItGoes)
{
    ServiceHarness tv;
    fake::ConnectGamepad(kPadUid, "8BitDo Pro 2");
    tv.Start();
    tv.clock.Advance(10000);
    tv.Plug(kPadCard);
    ExpectLeftAlone(tv, kPadCard);

    tv.Unplug(kPadCard);
    ASSERT_TRUE(fake::DisconnectGamepad(kPadUid));
    tv.Settle();
    tv.Plug(kPadCard); // the same ids are a headset's now
    EXPECT_EQ(tv.DeviceManager()->GetDeviceCnt(), 1);
    EXPECT_EQ(fake::Route(), kUsbHeadsetRoute);
}

TEST(Gamepads, AGamepadConnectedAfterTheRegistrationIsListed)
{
    ServiceHarness tv;
    tv.Start();
    tv.clock.Advance(10000);
    fake::ConnectGamepad(kPadUid, "8BitDo Pro 2");
    tv.Settle();
    tv.Plug(kPadCard);
    ExpectLeftAlone(tv, kPadCard);
}

TEST(Gamepads, AGamepadsCardFoundAtStartUpIsSkipped)
{
    ServiceHarness tv;
    tv.SetUsbAudioMode(true);
    tv.PresentAtBoot(kKnownPad);
    tv.Start();
    EXPECT_EQ(tv.DeviceManager()->GetDeviceCnt(), 0);
    EXPECT_TRUE(tv.StartedCards().empty());
}

// A key comes from an attached device when its device name holds the device's manufacturer and
// product; a device without either name matches nothing.
TEST(Gamepads, AKeyDeviceIsAnAttachedUsbDeviceWhenItsNameHoldsTheManufacturerAndProduct)
{
    ServiceHarness tv;
    tv.Start();
    tv.Plug(kHeadset);
    tv.Plug({"", "", 0x1234, 0x5678, "1-5", 6});
    CUSBDevice &devices = *tv.DeviceManager();
    EXPECT_TRUE(devices.CheckWhetherUsbDevice("Jabra Evolve 20"));
    EXPECT_TRUE(devices.CheckWhetherUsbDevice("Jabra Evolve 20 Consumer Control"));
    EXPECT_FALSE(devices.CheckWhetherUsbDevice("Jabra Evolve"));
    EXPECT_FALSE(devices.CheckWhetherUsbDevice("Evolve 20"));
    EXPECT_FALSE(devices.CheckWhetherUsbDevice("Smart Remote 2"));
}

} // namespace
