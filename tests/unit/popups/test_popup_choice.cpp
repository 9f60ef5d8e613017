// Which popup the devices left attached get once one of them is unplugged: noise on a shared
// port first, then a mixer failure the user has not heard of, then the device now connected.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "UsbPopupChoice.h"

namespace {

// A device on USB bus `bus`, port `port`.
USBDeviceInfo Device(const std::string &name, int bus, int port, device_status status = DEVICE_STATUS_USING)
{
    USBDeviceInfo device;
    device.strProductName = name;
    const std::string usb = "/devices/platform/soc/xhci-hcd.0/usb" + std::to_string(bus);
    const std::string hop = std::to_string(bus) + "-" + std::to_string(port);
    device.strDevPath = usb + "/" + hop + "/" + hop + ":1.0/sound/card" + std::to_string(port);
    device.eStatus = status;
    device.bNotified = true;
    return device;
}

USBDeviceInfo Untold(USBDeviceInfo device)
{
    device.bMaxVolumeFailed = true;
    device.bNotified = false;
    return device;
}

std::string Describe(const std::optional<DevicePopup> &popup, const std::vector<USBDeviceInfo> &devices)
{
    if (!popup)
        return "none";
    return devices[popup->index].strProductName + " kind " + std::to_string(popup->type);
}

TEST(PopupAfterRemovalTest, NoiseOnASharedPortComesFirst)
{
    std::vector<USBDeviceInfo> devices = {Device("A", 1, 1), Untold(Device("B", 2, 1)), Device("C", 2, 2)};
    EXPECT_EQ(Describe(CUsbPopupChoice::ChooseAfterRemoval(devices, {}), devices), "B kind 2");
    EXPECT_FALSE(CUsbPopupChoice::ChooseAfterRemoval({}, {})) << "no device, no popup";
}

TEST(PopupAfterRemovalTest, AnUntoldMixerFailureComesBeforeConnected)
{
    std::vector<USBDeviceInfo> devices = {Device("A", 1, 1), Untold(Device("B", 2, 1))};
    EXPECT_EQ(Describe(CUsbPopupChoice::ChooseAfterRemoval(devices, {devices[0].strDevPath}), devices), "B kind 3");

    devices[1].bNotified = true; // told once: not again
    EXPECT_EQ(Describe(CUsbPopupChoice::ChooseAfterRemoval(devices, {}), devices), "A kind 1");

    USBDeviceInfo fine = Device("C", 3, 1);
    fine.bNotified = false; // nothing to tell without a failure
    EXPECT_EQ(Describe(CUsbPopupChoice::ChooseAfterRemoval({fine}, {}), {fine}), "C kind 1");
}

TEST(PopupAfterRemovalTest, ConnectedNamesTheDeviceThatJustTookTheOutput)
{
    std::vector<USBDeviceInfo> devices = {Device("A", 1, 1), Device("B", 2, 1), Device("C", 3, 1)};
    EXPECT_EQ(Describe(CUsbPopupChoice::ChooseAfterRemoval(devices, {devices[2].strDevPath}), devices), "C kind 1");
    EXPECT_EQ(Describe(CUsbPopupChoice::ChooseAfterRemoval(devices, {}), devices), "A kind 1");

    std::vector<USBDeviceInfo> idleFirst = {Device("A", 1, 1, DEVICE_STATUS_IDLE), Device("B", 2, 1)};
    EXPECT_EQ(Describe(CUsbPopupChoice::ChooseAfterRemoval(idleFirst, {}), idleFirst), "B kind 1")
        << "the first device in use";
    std::vector<USBDeviceInfo> noneInUse = {Device("A", 1, 1, DEVICE_STATUS_RELEASED),
                                            Device("B", 2, 1, DEVICE_STATUS_IDLE)};
    EXPECT_EQ(Describe(CUsbPopupChoice::ChooseAfterRemoval(noneInUse, {}), noneInUse), "A kind 1");
}

} // namespace
