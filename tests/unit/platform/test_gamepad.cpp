// The gamepad library's call contract: what it answers before it is opened, to missing
// arguments and to slots out of range. The gamepads themselves are covered by the integration
// tests, which give the library emulated input devices.
#include "nimbos/gamepad.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

void IgnoreEvent(int, _gamepad_device_info_s, void *) {}

TEST(GamepadLibrary, RefusesCallsBeforeOpenMissingArgumentsAndSlotsOutOfRange)
{
    _gamepad_device_info_s info;
    memset(&info, 'x', sizeof info);
    EXPECT_LT(gamepad_register_connection_callback(IgnoreEvent, nullptr), 0);
    EXPECT_LT(gamepad_unregister_connection_callback(), 0);
    EXPECT_LT(gamepad_get_connected_device_Info(&info, 0), 0);

    ASSERT_EQ(gamepad_open(), 1);
    EXPECT_EQ(gamepad_open(), 1) << "opening again while open succeeds";
    const int slots = gamepad_maximum_gampad_count();
    ASSERT_GT(slots, 0);
    EXPECT_LT(gamepad_register_connection_callback(nullptr, nullptr), 0);
    EXPECT_LT(gamepad_get_connected_device_Info(nullptr, 0), 0);
    EXPECT_LT(gamepad_get_connected_device_Info(&info, -1), 0);
    EXPECT_LT(gamepad_get_connected_device_Info(&info, slots), 0);
    EXPECT_EQ(info.uid[0], 'x') << "a refused call writes nothing";

    int data = 0;
    EXPECT_EQ(gamepad_register_connection_callback(IgnoreEvent, nullptr), 1);
    EXPECT_EQ(gamepad_register_connection_callback(IgnoreEvent, &data), 1) << "a registration is replaced";
    EXPECT_EQ(gamepad_unregister_connection_callback(), 1);
}

} // namespace
