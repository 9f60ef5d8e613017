// Which attached USB devices are given the TV sound: oldest first, never more than two at once,
// reserved devices only when the start-up switch takes the first two, and which devices a mute
// releases and a status event names.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "UsbOutputChoice.h"

namespace {

USBDeviceInfo Device(const std::string &name, uint32_t timeStamp, device_status status = DEVICE_STATUS_IDLE)
{
    USBDeviceInfo device;
    device.strProductName = name;
    device.strDevPath = "/devices/usb1/" + name + "/sound/card1";
    device.timeStamp = timeStamp;
    device.eStatus = status;
    return device;
}

std::vector<std::string> Names(const std::vector<USBDeviceInfo> &devices, const std::vector<size_t> &indices)
{
    std::vector<std::string> names;
    for (size_t index : indices)
        names.push_back(devices[index].strProductName);
    return names;
}

std::vector<device_status> Statuses(const std::vector<USBDeviceInfo> &devices)
{
    std::vector<device_status> statuses;
    for (const USBDeviceInfo &device : devices)
        statuses.push_back(device.eStatus);
    return statuses;
}

// Enabling and unmuting: sort, then take free devices.
std::vector<std::string> Enable(std::vector<USBDeviceInfo> &devices)
{
    CUsbOutputChoice::SortByTimeStamp(devices);
    return Names(devices, CUsbOutputChoice::TakeFreeDevices(devices));
}

} // namespace

TEST(UsbOutputChoiceOrder, OldestFirstComparingUnsigned)
{
    std::vector<USBDeviceInfo> devices = {Device("c", 4000000000u), Device("a", 10), Device("b", 2147483648u)};

    CUsbOutputChoice::SortByTimeStamp(devices);

    EXPECT_EQ(devices[0].strProductName, "a");
    EXPECT_EQ(devices[1].strProductName, "b");
    EXPECT_EQ(devices[2].strProductName, "c");
}

TEST(UsbOutputChoiceEnable, ThreeIdleDevicesGiveTheTwoOldest)
{
    std::vector<USBDeviceInfo> devices = {Device("newest", 300), Device("oldest", 100), Device("middle", 200)};

    EXPECT_EQ(Enable(devices), (std::vector<std::string>{"oldest", "middle"}));
    EXPECT_EQ(CUsbOutputChoice::CountUsing(devices), 2);
    EXPECT_EQ(devices[2].eStatus, DEVICE_STATUS_IDLE);
}

TEST(UsbOutputChoiceEnable, NothingMoreWhileTwoAreInUse)
{
    std::vector<USBDeviceInfo> devices = {Device("a", 100, DEVICE_STATUS_USING), Device("b", 200, DEVICE_STATUS_USING),
                                          Device("c", 300), Device("d", 50)};

    EXPECT_TRUE(Enable(devices).empty());
    EXPECT_EQ(CUsbOutputChoice::CountUsing(devices), 2);
}

TEST(UsbOutputChoiceEnable, OneInUseLeavesRoomForOneMore)
{
    std::vector<USBDeviceInfo> devices = {Device("using", 200, DEVICE_STATUS_USING),
                                          Device("released", 100, DEVICE_STATUS_RELEASED), Device("idle", 300)};

    EXPECT_EQ(Enable(devices), (std::vector<std::string>{"released"}));
    EXPECT_EQ(Statuses(devices),
              (std::vector<device_status>{DEVICE_STATUS_USING, DEVICE_STATUS_USING, DEVICE_STATUS_IDLE}));
}

TEST(UsbOutputChoiceEnable, ReservedDevicesAreSkipped)
{
    std::vector<USBDeviceInfo> devices = {Device("reserved", 100, DEVICE_STATUS_RESERVED), Device("b", 200),
                                          Device("c", 300)};

    EXPECT_EQ(Enable(devices), (std::vector<std::string>{"b", "c"}));
    EXPECT_EQ(devices[0].eStatus, DEVICE_STATUS_RESERVED);
}

TEST(UsbOutputChoiceEnable, EmptyListTakesNothing)
{
    std::vector<USBDeviceInfo> devices;
    EXPECT_TRUE(Enable(devices).empty());
}

TEST(UsbOutputChoiceSwitch, FirstTwoTakenWhateverTheirStatus)
{
    std::vector<USBDeviceInfo> devices = {Device("third", 300), Device("reserved", 100, DEVICE_STATUS_RESERVED),
                                          Device("released", 200, DEVICE_STATUS_RELEASED)};
    CUsbOutputChoice::SortByTimeStamp(devices);

    EXPECT_EQ(Names(devices, CUsbOutputChoice::TakeFirstDevices(devices)),
              (std::vector<std::string>{"reserved", "released"}));
    EXPECT_EQ(Statuses(devices),
              (std::vector<device_status>{DEVICE_STATUS_USING, DEVICE_STATUS_USING, DEVICE_STATUS_IDLE}));
}

TEST(UsbOutputChoiceSwitch, SingleDeviceIsTaken)
{
    std::vector<USBDeviceInfo> devices = {Device("only", 5)};
    EXPECT_EQ(CUsbOutputChoice::TakeFirstDevices(devices).size(), 1u);
    EXPECT_EQ(devices[0].eStatus, DEVICE_STATUS_USING);
}

TEST(UsbOutputChoiceRelease, OnlyDevicesInUseGoToReleasedInListOrder)
{
    std::vector<USBDeviceInfo> devices = {Device("late", 300, DEVICE_STATUS_USING), Device("idle", 100),
                                          Device("reserved", 150, DEVICE_STATUS_RESERVED),
                                          Device("early", 50, DEVICE_STATUS_USING)};

    EXPECT_EQ(Names(devices, CUsbOutputChoice::ReleaseUsingDevices(devices)),
              (std::vector<std::string>{"late", "early"}));
    EXPECT_EQ(Statuses(devices), (std::vector<device_status>{DEVICE_STATUS_RELEASED, DEVICE_STATUS_IDLE,
                                                             DEVICE_STATUS_RESERVED, DEVICE_STATUS_RELEASED}));
    EXPECT_EQ(CUsbOutputChoice::CountUsing(devices), 0);
}

TEST(UsbOutputChoiceRelease, NothingInUseReleasesNothing)
{
    std::vector<USBDeviceInfo> devices = {Device("a", 1, DEVICE_STATUS_RELEASED), Device("b", 2)};
    EXPECT_TRUE(CUsbOutputChoice::ReleaseUsingDevices(devices).empty());
}

TEST(UsbOutputChoiceUnmuteAfterMute, TheSameTwoComeBack)
{
    std::vector<USBDeviceInfo> devices = {Device("a", 100), Device("b", 200), Device("c", 300)};
    Enable(devices);
    CUsbOutputChoice::ReleaseUsingDevices(devices);

    EXPECT_EQ(Enable(devices), (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(devices[2].eStatus, DEVICE_STATUS_IDLE);
}

TEST(UsbOutputChoiceStatusEvent, NamesCarriedByTheEvent)
{
    std::string first = "unchanged";
    std::string second = "unchanged";
    EXPECT_FALSE(CUsbOutputChoice::ConnectStatusNames({}, first, second));
    EXPECT_EQ(first, "unchanged");

    ASSERT_TRUE(CUsbOutputChoice::ConnectStatusNames({"one"}, first, second));
    EXPECT_EQ(first, "one");
    EXPECT_EQ(second, "");

    ASSERT_TRUE(CUsbOutputChoice::ConnectStatusNames({"one", "two", "three"}, first, second));
    EXPECT_EQ(first, "one");
    EXPECT_EQ(second, "two");
}
