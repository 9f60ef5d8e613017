// The gamepad library's call contract: what it answers before it is opened, to missing
// arguments and to slots out of range. The gamepads themselves are covered by the integration
// tests, which give the library emulated input devices.
#include "nimbos/gamepad.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

void IgnoreEvent(int, _gamepad_device_info_s, void *) {}

// Each test runs in a process of its own, so this one sees the library unopened.
TEST(GamepadLibrary, RefusesCallsBeforeOpen)
{
    _gamepad_device_info_s info{};
    EXPECT_LT(gamepad_register_connection_callback(IgnoreEvent, nullptr), 0);
    EXPECT_LT(gamepad_unregister_connection_callback(), 0);
    EXPECT_LT(gamepad_get_connected_device_Info(&info, 0), 0);
    ASSERT_EQ(gamepad_open(), 1);
    EXPECT_EQ(gamepad_open(), 1) << "opening again while open succeeds";
}

TEST(GamepadLibrary, RefusesMissingArgumentsAndSlotsOutOfRange)
{
    ASSERT_EQ(gamepad_open(), 1);
    _gamepad_device_info_s info;
    memset(&info, 'x', sizeof info);
    const int slots = gamepad_maximum_gampad_count();
    ASSERT_GT(slots, 0);
    EXPECT_LT(gamepad_register_connection_callback(nullptr, nullptr), 0);
    EXPECT_LT(gamepad_get_connected_device_Info(nullptr, 0), 0);
    EXPECT_LT(gamepad_get_connected_device_Info(&info, -1), 0);
    EXPECT_LT(gamepad_get_connected_device_Info(&info, slots), 0);
    EXPECT_EQ(info.uid[0], 'x') << "a refused call writes nothing";
}

// Whatever this machine has, the slots hold the connected gamepads first and then none.
TEST(GamepadLibrary, ConnectedGamepadsTakeTheLowestSlots)
{
    ASSERT_EQ(gamepad_open(), 1);
    bool seenEmpty = false;
    for (int index = 0; index < gamepad_maximum_gampad_count(); ++index) {
        _gamepad_device_info_s info{};
        const int found = gamepad_get_connected_device_Info(&info, index);
        ASSERT_GE(found, 0);
        if (found == 0)
            seenEmpty = true;
        else
            EXPECT_FALSE(seenEmpty) << "gamepad at slot " << index << " after an empty slot";
    }
}

TEST(GamepadLibrary, RegistrationCanBeReplacedAndUndone)
{
    ASSERT_EQ(gamepad_open(), 1);
    EXPECT_EQ(gamepad_register_connection_callback(IgnoreEvent, nullptr), 1);
    int data = 0;
    EXPECT_EQ(gamepad_register_connection_callback(IgnoreEvent, &data), 1);
    EXPECT_EQ(gamepad_unregister_connection_callback(), 1);
}

} // namespace
