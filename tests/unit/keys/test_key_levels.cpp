// The volume keys' level steps, the direction word shown by the TV viewer and the
// classification of the device a key came from.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "KeyLevels.h"

namespace {

constexpr bool kUp = true;
constexpr bool kDown = false;

TEST(KeyLevelsTest, FirstPressStepsOneFromStoredLevel)
{
    EXPECT_EQ(CKeyLevels::FirstPressLevel(35, kUp), 36);
    EXPECT_EQ(CKeyLevels::FirstPressLevel(35, kDown), 34);
    EXPECT_EQ(CKeyLevels::FirstPressLevel(99, kUp), 100);
    EXPECT_EQ(CKeyLevels::FirstPressLevel(100, kUp), 100);
    EXPECT_EQ(CKeyLevels::FirstPressLevel(1, kDown), 0);
    EXPECT_EQ(CKeyLevels::FirstPressLevel(0, kDown), 0);
    EXPECT_EQ(CKeyLevels::FirstPressLevel(0, kUp), 1);
    EXPECT_EQ(CKeyLevels::FirstPressLevel(100, kDown), 99);
}

TEST(KeyLevelsTest, HeldPressStepsTwoAndStopsAtTheBounds)
{
    EXPECT_EQ(CKeyLevels::HeldPressLevel(50, kUp), 52);
    EXPECT_EQ(CKeyLevels::HeldPressLevel(50, kDown), 48);
    EXPECT_EQ(CKeyLevels::HeldPressLevel(98, kUp), 100);
    EXPECT_EQ(CKeyLevels::HeldPressLevel(99, kUp), 100);
    EXPECT_EQ(CKeyLevels::HeldPressLevel(100, kUp), 100);
    EXPECT_EQ(CKeyLevels::HeldPressLevel(2, kDown), 0);
    EXPECT_EQ(CKeyLevels::HeldPressLevel(1, kDown), 0);
    EXPECT_EQ(CKeyLevels::HeldPressLevel(0, kDown), 0);
}

TEST(KeyLevelsTest, StoredLevelOutsideTheRangeStepsBackInside)
{
    EXPECT_EQ(CKeyLevels::FirstPressLevel(120, kUp), 100);
    EXPECT_EQ(CKeyLevels::FirstPressLevel(120, kDown), 100);
    EXPECT_EQ(CKeyLevels::FirstPressLevel(-7, kUp), 0);
    EXPECT_EQ(CKeyLevels::HeldPressLevel(-7, kDown), 0);
}

TEST(KeyLevelsTest, HoldingUpFromTheStoredLevelReachesTheTopAndStays)
{
    int level = CKeyLevels::FirstPressLevel(93, kUp);
    std::vector<int> seen{level};
    while (seen.size() < 6) {
        level = CKeyLevels::HeldPressLevel(level, kUp);
        seen.push_back(level);
    }
    EXPECT_EQ(seen, (std::vector<int>{94, 96, 98, 100, 100, 100}));
}

TEST(KeyLevelsTest, DirectionWordFollowsTheChangeFromTheStoredLevel)
{
    EXPECT_EQ(CKeyLevels::DirectionWord(36, 35, false), "up");
    EXPECT_EQ(CKeyLevels::DirectionWord(37, 35, true), "up2");
    EXPECT_EQ(CKeyLevels::DirectionWord(34, 35, false), "down");
    EXPECT_EQ(CKeyLevels::DirectionWord(33, 35, true), "down2");
}

TEST(KeyLevelsTest, UnchangedLevelAtTheBoundsCountsAsDown)
{
    EXPECT_EQ(CKeyLevels::DirectionWord(100, 100, false), "down");
    EXPECT_EQ(CKeyLevels::DirectionWord(100, 100, true), "down2");
    EXPECT_EQ(CKeyLevels::DirectionWord(0, 0, false), "down");
    EXPECT_EQ(CKeyLevels::DirectionWord(0, 0, true), "down2");
}

class KeyDeviceTest : public ::testing::Test {
protected:
    // Answers like the device manager with one attached headset, and records what was asked.
    KeyDeviceClass Classify(const std::string &name)
    {
        return CKeyLevels::ClassifyDevice(name, [this](const std::string &asked) {
            m_asked.push_back(asked);
            return asked.find("Acme Headset Pro") != std::string::npos;
        });
    }

    std::vector<std::string> m_asked;
};

TEST_F(KeyDeviceTest, RemoteAndSmartControlAreKnownByName)
{
    EXPECT_EQ(Classify("TV rc device 0"), KEY_DEVICE_REMOTE);
    EXPECT_EQ(Classify("Smart Control 2016"), KEY_DEVICE_SMART_CONTROL);
    // Neither needs the device list.
    EXPECT_TRUE(m_asked.empty());
}

TEST_F(KeyDeviceTest, RemoteNameWinsOverAHeadsetName)
{
    EXPECT_EQ(Classify("rc device Acme Headset Pro"), KEY_DEVICE_REMOTE);
}

TEST_F(KeyDeviceTest, AttachedHeadsetButtonsAreTold)
{
    EXPECT_EQ(Classify("Acme Headset Pro Consumer Control"), KEY_DEVICE_USB_HEADSET);
    EXPECT_EQ(m_asked, (std::vector<std::string>{"Acme Headset Pro Consumer Control"}));
}

TEST_F(KeyDeviceTest, OtherDevicesAreTheirOwnClass)
{
    EXPECT_EQ(Classify("USB Keyboard"), KEY_DEVICE_OTHER);
    EXPECT_EQ(Classify(""), KEY_DEVICE_OTHER);
    // The names are compared with their case.
    EXPECT_EQ(Classify("smart control"), KEY_DEVICE_OTHER);
}

} // namespace
