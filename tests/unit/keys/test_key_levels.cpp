// The volume keys' level steps, the direction word shown by the TV viewer and the
// classification of the device a key came from.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "KeyLevels.h"

namespace {

constexpr bool kUp = true;
constexpr bool kDown = false;

TEST(KeyLevelsTest, FirstPressStepsOneHeldPressTwoAndBothEndWithinTheBounds)
{
    const struct {
        int level;
        bool up;
        int first, held;
    } cases[] = {
        {35, kUp, 36, 37},    {35, kDown, 34, 33},  {98, kUp, 99, 100},  {99, kUp, 100, 100},
        {100, kUp, 100, 100}, {100, kDown, 99, 98}, {0, kUp, 1, 2},      {2, kDown, 1, 0},
        {1, kDown, 0, 0},     {0, kDown, 0, 0},     {120, kUp, 100, 100}, {120, kDown, 100, 100},
        {-7, kUp, 0, 0},      {-7, kDown, 0, 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::to_string(c.level) + (c.up ? " up" : " down"));
        EXPECT_EQ(CKeyLevels::FirstPressLevel(c.level, c.up), c.first);
        EXPECT_EQ(CKeyLevels::HeldPressLevel(c.level, c.up), c.held);
    }
}

TEST(KeyLevelsTest, DirectionWordFollowsTheChangeAndAnUnchangedLevelCountsAsDown)
{
    EXPECT_EQ(CKeyLevels::DirectionWord(36, 35, false), "up");
    EXPECT_EQ(CKeyLevels::DirectionWord(37, 35, true), "up2");
    EXPECT_EQ(CKeyLevels::DirectionWord(34, 35, false), "down");
    EXPECT_EQ(CKeyLevels::DirectionWord(33, 35, true), "down2");
    EXPECT_EQ(CKeyLevels::DirectionWord(100, 100, false), "down");
    EXPECT_EQ(CKeyLevels::DirectionWord(100, 100, true), "down2");
    EXPECT_EQ(CKeyLevels::DirectionWord(0, 0, false), "down");
}

TEST(KeyLevelsTest, KeyDeviceIsTheRemoteTheSmartControlAnAttachedHeadsetOrOther)
{
    // Answers like the device manager with one attached headset, and records what was asked.
    std::vector<std::string> asked;
    auto classify = [&asked](const std::string &name) {
        return CKeyLevels::ClassifyDevice(name, [&asked](const std::string &device) {
            asked.push_back(device);
            return device.find("Acme Headset Pro") != std::string::npos;
        });
    };
    EXPECT_EQ(classify("TV rc device 0"), KEY_DEVICE_REMOTE);
    EXPECT_EQ(classify("rc device Acme Headset Pro"), KEY_DEVICE_REMOTE);
    EXPECT_EQ(classify("Smart Control 2016"), KEY_DEVICE_SMART_CONTROL);
    EXPECT_TRUE(asked.empty()) << "names alone tell the remote and the smart control";

    EXPECT_EQ(classify("Acme Headset Pro Consumer Control"), KEY_DEVICE_USB_HEADSET);
    EXPECT_EQ(asked, (std::vector<std::string>{"Acme Headset Pro Consumer Control"}));
    EXPECT_EQ(classify("USB Keyboard"), KEY_DEVICE_OTHER);
    EXPECT_EQ(classify(""), KEY_DEVICE_OTHER);
    EXPECT_EQ(classify("smart control"), KEY_DEVICE_OTHER) << "names compare with their case";
}

} // namespace
