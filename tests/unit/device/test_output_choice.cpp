// Which attached USB devices are given the TV sound: oldest first, never more than two at once,
// reserved devices only when the start-up switch takes the first two, and which devices a mute
// releases and a status event names.
#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

#include "UsbOutputChoice.h"

namespace {

// Devices from words "name/timeStamp/status", the status one of I(dle) U(sing) R(eleased) X (reserved).
std::vector<USBDeviceInfo> Devices(const std::string &words)
{
    std::vector<USBDeviceInfo> devices;
    std::istringstream in(words);
    for (std::string name, stamp, status; std::getline(in, name, '/') && std::getline(in, stamp, '/') && in >> status;) {
        in >> std::ws;
        USBDeviceInfo device;
        device.strProductName = name;
        device.strDevPath = "/devices/usb1/" + name + "/sound/card1";
        device.timeStamp = static_cast<uint32_t>(std::stoul(stamp));
        device.eStatus = status == "U" ? DEVICE_STATUS_USING
                         : status == "R" ? DEVICE_STATUS_RELEASED
                         : status == "X" ? DEVICE_STATUS_RESERVED : DEVICE_STATUS_IDLE;
        devices.push_back(device);
    }
    return devices;
}

// The names at the indices, and the list's statuses in the letters of Devices.
std::string Describe(const std::vector<USBDeviceInfo> &devices, const std::vector<size_t> &indices)
{
    std::string text;
    for (size_t index : indices)
        text += devices[index].strProductName + " ";
    text += "|";
    for (const USBDeviceInfo &device : devices)
        text += device.eStatus == DEVICE_STATUS_USING      ? "U"
                : device.eStatus == DEVICE_STATUS_RELEASED ? "R"
                : device.eStatus == DEVICE_STATUS_RESERVED ? "X" : "I";
    return text;
}

// Enabling and unmuting: sort, then take free devices.
std::string Enable(std::vector<USBDeviceInfo> &devices)
{
    CUsbOutputChoice::SortByTimeStamp(devices);
    return Describe(devices, CUsbOutputChoice::TakeFreeDevices(devices));
}

TEST(UsbOutputChoice, EnableTakesTheOldestFreeDevicesUpToTwoInUse)
{
    const struct {
        const char *devices, *expected;
    } cases[] = {
        {"c/4000000000/I a/10/I b/2147483648/I", "a b |UUI"}, // time stamps compare unsigned
        {"newest/300/I oldest/100/I middle/200/I", "oldest middle |UUI"},
        {"a/100/U b/200/U c/300/I d/50/I", "|IUUI"},
        {"using/200/U released/100/R idle/300/I", "released |UUI"},
        {"reserved/100/X b/200/I c/300/I", "b c |XUU"},
        {"", "|"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.devices);
        std::vector<USBDeviceInfo> devices = Devices(c.devices);
        const std::string result = Enable(devices);
        EXPECT_EQ(result, c.expected);
        EXPECT_EQ(CUsbOutputChoice::CountUsing(devices), std::count(result.begin(), result.end(), 'U'));
    }
}

TEST(UsbOutputChoice, StartUpSwitchTakesTheFirstTwoWhateverTheirStatus)
{
    std::vector<USBDeviceInfo> devices = Devices("third/300/I reserved/100/X released/200/R");
    CUsbOutputChoice::SortByTimeStamp(devices);
    EXPECT_EQ(Describe(devices, CUsbOutputChoice::TakeFirstDevices(devices)), "reserved released |UUI");
    devices = Devices("only/5/I");
    EXPECT_EQ(Describe(devices, CUsbOutputChoice::TakeFirstDevices(devices)), "only |U");
}

TEST(UsbOutputChoice, MuteReleasesOnlyDevicesInUseAndUnmuteBringsTheSameTwoBack)
{
    std::vector<USBDeviceInfo> devices = Devices("late/300/U idle/100/I reserved/150/X early/50/U");
    EXPECT_EQ(Describe(devices, CUsbOutputChoice::ReleaseUsingDevices(devices)), "late early |RIXR");
    EXPECT_EQ(CUsbOutputChoice::CountUsing(devices), 0);
    devices = Devices("a/1/R b/2/I");
    EXPECT_EQ(Describe(devices, CUsbOutputChoice::ReleaseUsingDevices(devices)), "|RI");

    devices = Devices("a/100/I b/200/I c/300/I");
    Enable(devices);
    CUsbOutputChoice::ReleaseUsingDevices(devices);
    EXPECT_EQ(Enable(devices), "a b |UUI");
}

TEST(UsbOutputChoice, StatusEventNamesUpToTwoDevices)
{
    std::string first = "unchanged", second = "unchanged";
    EXPECT_FALSE(CUsbOutputChoice::ConnectStatusNames({}, first, second));
    EXPECT_EQ(first, "unchanged");
    ASSERT_TRUE(CUsbOutputChoice::ConnectStatusNames({"one"}, first, second));
    EXPECT_EQ(first + "," + second, "one,");
    ASSERT_TRUE(CUsbOutputChoice::ConnectStatusNames({"one", "two", "three"}, first, second));
    EXPECT_EQ(first + "," + second, "one,two");
}

} // namespace
