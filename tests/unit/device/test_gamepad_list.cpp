// The gamepad list as the gamepad library's connection events shape it: the ids read from the
// uid, one record per gamepad, and uids the list refuses.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "GamepadList.h"

namespace {

using Change = CGamepadList::Change;

_gamepad_device_info_s Info(const std::string &uid, const std::string &name = "Wireless Controller")
{
    _gamepad_device_info_s info{};
    strncpy(info.uid, uid.c_str(), sizeof info.uid - 1);
    strncpy(info.name, name.c_str(), sizeof info.name - 1);
    return info;
}

TEST(GamepadList, ConnectionReadsBothIdsAsHexadecimal)
{
    CGamepadList list;
    EXPECT_EQ(list.Update(GAMEPAD_EVENT_CONNECTED, Info("VID_054C PID_0ce6", "DualSense")), Change::Added);
    const auto records = list.Records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].name, "DualSense");
    EXPECT_EQ(records[0].nVendorId, 0x054c);
    EXPECT_EQ(records[0].nProductId, 0x0ce6);
    EXPECT_TRUE(list.HasIds(0x054c, 0x0ce6));
    EXPECT_FALSE(list.HasIds(0x0ce6, 0x054c)) << "vendor and product are not interchangeable";
    EXPECT_TRUE(list.HasName("DualSense"));
}

TEST(GamepadList, SameGamepadConnectedTwiceIsListedOnce)
{
    CGamepadList list;
    ASSERT_EQ(list.Update(GAMEPAD_EVENT_CONNECTED, Info("VID_045E PID_028E", "first")), Change::Added);
    EXPECT_EQ(list.Update(GAMEPAD_EVENT_CONNECTED, Info("PID_028E VID_045E", "second")), Change::AlreadyListed);
    const auto records = list.Records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].name, "first");
}

TEST(GamepadList, DisconnectionRemovesOnlyThatGamepadAndAnyOtherEventDisconnects)
{
    CGamepadList list;
    list.Update(GAMEPAD_EVENT_CONNECTED, Info("VID_045E PID_028E", "pad"));
    list.Update(GAMEPAD_EVENT_CONNECTED, Info("VID_054C PID_09CC", "ds4"));
    list.Update(GAMEPAD_EVENT_CONNECTED, Info("VID_2DC8 PID_3106", "8bit"));
    EXPECT_EQ(list.Update(GAMEPAD_EVENT_DISCONNECTED, Info("VID_054C PID_09CC")), Change::Removed);
    auto records = list.Records();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].name, "pad");
    EXPECT_EQ(records[1].name, "8bit") << "later records move up";
    EXPECT_EQ(list.Update(0, Info("VID_045E PID_028E")), Change::Removed);
    records = list.Records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].name, "8bit");
}

TEST(GamepadList, DisconnectingAnUnknownGamepadChangesNothing)
{
    CGamepadList list;
    list.Update(GAMEPAD_EVENT_CONNECTED, Info("VID_045E PID_028E", "pad"));
    EXPECT_EQ(list.Update(GAMEPAD_EVENT_DISCONNECTED, Info("VID_045E PID_028F")), Change::NotListed);
    EXPECT_EQ(list.Update(GAMEPAD_EVENT_DISCONNECTED, Info("VID_045F PID_028E")), Change::NotListed);
    EXPECT_EQ(list.Records().size(), 1u);
}

TEST(GamepadList, UidWithoutBothMarkersAddsNothing)
{
    CGamepadList list;
    EXPECT_EQ(list.Update(GAMEPAD_EVENT_CONNECTED, Info("PID_028E")), Change::NoVendorId);
    EXPECT_EQ(list.Update(GAMEPAD_EVENT_CONNECTED, Info("VID_045E")), Change::NoProductId);
    EXPECT_EQ(list.Update(GAMEPAD_EVENT_CONNECTED, Info("")), Change::NoProductId);
    EXPECT_EQ(list.Update(GAMEPAD_EVENT_CONNECTED, Info("vid_045e pid_028e")), Change::NoProductId)
        << "the markers are upper case";
    EXPECT_TRUE(list.Records().empty());
}

TEST(GamepadList, FewerThanFourDigitsAfterAMarkerCountAsNoId)
{
    CGamepadList list;
    EXPECT_EQ(list.Update(GAMEPAD_EVENT_CONNECTED, Info("VID_045E PID_28")), Change::NoProductId);
    EXPECT_EQ(list.Update(GAMEPAD_EVENT_CONNECTED, Info("PID_028E VID_45")), Change::NoVendorId);
    EXPECT_EQ(list.Update(GAMEPAD_EVENT_CONNECTED, Info("VID_045E PID_")), Change::NoProductId);
    EXPECT_EQ(list.Update(GAMEPAD_EVENT_CONNECTED, Info("VID_04 5 PID_028E")), Change::NoVendorId);
    EXPECT_EQ(list.Update(GAMEPAD_EVENT_CONNECTED, Info("VID_XYZW PID_028E")), Change::NoVendorId);
    EXPECT_TRUE(list.Records().empty());
    // Anything after the four digits is not part of the id.
    EXPECT_EQ(list.Update(GAMEPAD_EVENT_CONNECTED, Info("VID_045E1 PID_028E&REV_0100")), Change::Added);
    EXPECT_TRUE(list.HasIds(0x045e, 0x028e));
}

TEST(GamepadList, UnterminatedTextsAreReadWithinTheirFields)
{
    _gamepad_device_info_s info;
    memset(info.uid, 'A', sizeof info.uid);
    memcpy(info.uid, "VID_045E PID_028E", 17);
    memset(info.name, 'n', sizeof info.name);
    CGamepadList list;
    ASSERT_EQ(list.Update(GAMEPAD_EVENT_CONNECTED, info), Change::Added);
    EXPECT_EQ(list.Records()[0].name, std::string(sizeof info.name, 'n'));
}

TEST(GamepadList, KnownGamepadsAreTheControllersWithAHeadsetJack)
{
    const CGamepadList &known = CGamepadList::Known();
    EXPECT_TRUE(known.HasIds(0x054c, 0x05c4));
    EXPECT_TRUE(known.HasIds(0x054c, 0x0ce6));
    EXPECT_FALSE(known.HasIds(0x0b0e, 0x0300)) << "a headset is no gamepad";
    EXPECT_FALSE(known.HasName("Sony Interactive Entertainment"))
        << "a maker's name alone would refuse that maker's headsets";
}

} // namespace
