// The gamepad list as the gamepad library's connection events shape it: the ids read from the
// uid, one record per gamepad, and uids the list refuses.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

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

std::vector<std::string> Names(const CGamepadList &list)
{
    std::vector<std::string> names;
    for (const GamepadRecord &record : list.Records())
        names.push_back(record.name);
    return names;
}

// What connecting a gamepad with this uid to an empty list gives: its ids, or the refusal.
std::string Connect(const char *uid)
{
    CGamepadList list;
    const Change change = list.Update(GAMEPAD_EVENT_CONNECTED, Info(uid));
    if (change == Change::NoVendorId || change == Change::NoProductId)
        return list.Records().empty() ? (change == Change::NoVendorId ? "no vendor id" : "no product id") : "listed";
    const GamepadRecord record = list.Records().at(0);
    EXPECT_TRUE(list.HasIds(record.nVendorId, record.nProductId));
    char ids[16];
    snprintf(ids, sizeof ids, "%04x:%04x", record.nVendorId, record.nProductId);
    return ids;
}

TEST(GamepadList, IdsAreTheFourHexDigitsAfterTheUpperCaseMarkers)
{
    EXPECT_EQ(Connect("VID_054C PID_0ce6"), "054c:0ce6");
    EXPECT_EQ(Connect("PID_028E VID_045E"), "045e:028e");
    EXPECT_EQ(Connect("VID_045E1 PID_028E&REV_0100"), "045e:028e");
    EXPECT_EQ(Connect("PID_028E"), "no vendor id");
    EXPECT_EQ(Connect("VID_045E"), "no product id");
    EXPECT_EQ(Connect(""), "no product id");
    EXPECT_EQ(Connect("vid_045e pid_028e"), "no product id");
    EXPECT_EQ(Connect("VID_045E PID_28"), "no product id");
    EXPECT_EQ(Connect("PID_028E VID_45"), "no vendor id");
    EXPECT_EQ(Connect("VID_045E PID_"), "no product id");
    EXPECT_EQ(Connect("VID_04 5 PID_028E"), "no vendor id");
    EXPECT_EQ(Connect("VID_XYZW PID_028E"), "no vendor id");
}

TEST(GamepadList, EachGamepadIsListedOnceUntilAnyEventButConnectedRemovesIt)
{
    CGamepadList list;
    ASSERT_EQ(list.Update(GAMEPAD_EVENT_CONNECTED, Info("VID_045E PID_028E", "pad")), Change::Added);
    EXPECT_EQ(list.Update(GAMEPAD_EVENT_CONNECTED, Info("PID_028E VID_045E", "again")), Change::AlreadyListed);
    list.Update(GAMEPAD_EVENT_CONNECTED, Info("VID_054C PID_09CC", "ds4"));
    list.Update(GAMEPAD_EVENT_CONNECTED, Info("VID_2DC8 PID_3106", "8bit"));
    EXPECT_EQ(Names(list), (std::vector<std::string>{"pad", "ds4", "8bit"}));
    EXPECT_FALSE(list.HasIds(0x028e, 0x045e)) << "vendor and product are not interchangeable";
    EXPECT_TRUE(list.HasName("ds4"));

    EXPECT_EQ(list.Update(GAMEPAD_EVENT_DISCONNECTED, Info("VID_054C PID_09CC")), Change::Removed);
    EXPECT_EQ(Names(list), (std::vector<std::string>{"pad", "8bit"}));
    EXPECT_EQ(list.Update(GAMEPAD_EVENT_DISCONNECTED, Info("VID_045E PID_028F")), Change::NotListed);
    EXPECT_EQ(list.Update(GAMEPAD_EVENT_DISCONNECTED, Info("VID_045F PID_028E")), Change::NotListed);
    EXPECT_EQ(list.Update(0, Info("VID_045E PID_028E")), Change::Removed);
    EXPECT_EQ(Names(list), (std::vector<std::string>{"8bit"}));
}

TEST(GamepadList, UnterminatedTextsAreReadWithinTheirFields)
{
    _gamepad_device_info_s info;
    memset(info.uid, 'A', sizeof info.uid);
    memcpy(info.uid, "VID_045E PID_028E", 17);
    memset(info.name, 'n', sizeof info.name);
    CGamepadList list;
    ASSERT_EQ(list.Update(GAMEPAD_EVENT_CONNECTED, info), Change::Added);
    EXPECT_EQ(Names(list), (std::vector<std::string>{std::string(sizeof info.name, 'n')}));
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
