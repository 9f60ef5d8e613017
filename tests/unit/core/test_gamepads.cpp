// Gamepads whose headset jack shows as a USB sound card are left alone, whether the service knows
// them by their ids or from the gamepad library, which it asks 10 s after the start and 1 s after
// a resume; and the key handler's question whether a key came from an attached USB device.
#include <gtest/gtest.h>

#include <string>

#include <umockdev.h>

#include "DeviceScenes.h"
#include "ServiceHarness.h"
#include "USBDevice.h"
#include "UniqueHandle.h"
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

// The system's input devices, as libudev shows them to the service (core_tests runs under
// umockdev's preload).
class InputDevices {
public:
    InputDevices() : m_testbed(umockdev_testbed_new()) {}

    // An input device with these udev properties ("E: ID_INPUT_JOYSTICK=1\n"...).
    void Add(const std::string &properties)
    {
        const std::string description = "P: /devices/platform/soc/usb1/1-7/1-7:1.3/input/input" +
                                        std::to_string(++m_count) + "\nE: SUBSYSTEM=input\n" + properties;
        g_autoptr(GError) error = nullptr;
        ASSERT_TRUE(umockdev_testbed_add_from_string(m_testbed.get(), description.c_str(), &error)) << error->message;
    }

private:
    UniqueHandle<UMockdevTestbed, g_object_unref> m_testbed;
    int m_count = 0;
};

void ExpectLeftAlone(ServiceHarness &tv, const TestDevice &pad, const std::string &rule)
{
    EXPECT_EQ(Decided(pad), "hotplug-added left-alone " + rule);
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
    ExpectLeftAlone(tv, kKnownPad, "gamepad-known-ids");
}

TEST(Gamepads, AGamepadConnectedBeforeTheRegistrationIsListedThenFollowedUntilItGoes)
{
    ServiceHarness tv;
    fake::ConnectGamepad(kPadUid, "8BitDo Pro 2");
    tv.Start();
    tv.clock.Advance(10000);
    tv.Plug(kPadCard);
    ExpectLeftAlone(tv, kPadCard, "gamepad-list-ids");

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
    ExpectLeftAlone(tv, kPadCard, "gamepad-list-ids");
}

// Before the gamepad library is asked, and for gamepads it does not report, the system's joysticks
// tell: one with the card's USB ids makes the card a gamepad's.
TEST(Gamepads, ACardWithTheIdsOfAJoystickInputDeviceIsLeftAlone)
{
    const std::string ids = "E: ID_VENDOR_ID=2dc8\nE: ID_MODEL_ID=3106\n";
    struct Case {
        const char *what;
        std::string properties;
        bool gamepad;
    } cases[] = {
        {"joystick", "E: ID_INPUT_JOYSTICK=1\n" + ids, true},
        {"no joystick", "E: ID_INPUT_KEY=1\n" + ids, false},
        {"other ids", "E: ID_INPUT_JOYSTICK=1\nE: ID_VENDOR_ID=2dc8\nE: ID_MODEL_ID=3107\n", false},
        {"no model", "E: ID_INPUT_JOYSTICK=1\nE: ID_VENDOR_ID=2dc8\n", false},
        {"no vendor", "E: ID_INPUT_JOYSTICK=1\nE: ID_MODEL_ID=3106\n", false},
        {"ids no numbers", "E: ID_INPUT_JOYSTICK=1\nE: ID_VENDOR_ID=2dc8\nE: ID_MODEL_ID=31x6\n", false},
    };
    // A card number ALSA cannot have keeps the mixer from opening a device node while the testbed
    // exists: umockdev's preload keeps an entry for each such open that fails, and aborts at 50.
    TestDevice card = kPadCard;
    card.card = 40;
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        InputDevices inputs;
        inputs.Add(c.properties);
        ServiceHarness tv;
        tv.Start();
        tv.Plug(card);
        if (c.gamepad) {
            ExpectLeftAlone(tv, card, "gamepad-joystick");
        } else {
            EXPECT_EQ(tv.DeviceManager()->GetDeviceCnt(), 1);
        }
    }
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
