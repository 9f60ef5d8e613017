#include "UsbPopupChoice.h"

#include <algorithm>

#include "UsbMixer.h"

namespace {

template <typename Predicate>
std::optional<size_t> FirstIndex(const std::vector<USBDeviceInfo> &devices, Predicate predicate)
{
    auto found = std::find_if(devices.begin(), devices.end(), predicate);
    if (found == devices.end())
        return std::nullopt;
    return static_cast<size_t>(found - devices.begin());
}

} // namespace

std::optional<DevicePopup> CUsbPopupChoice::ChooseAfterRemoval(const std::vector<USBDeviceInfo> &devices,
                                                               const std::vector<std::string> &justTaken)
{
    if (devices.empty())
        return std::nullopt;
    if (auto twin = FirstIndex(devices, [&](const USBDeviceInfo &device) {
            return CUsbMixer::IsTwinPortInsert(device.strDevPath, devices);
        }))
        return DevicePopup{*twin, NOTI_TYPE_USB_PORT_NOISE};
    if (auto untold = FirstIndex(devices, [](const USBDeviceInfo &device) {
            return device.bMaxVolumeFailed && !device.bNotified;
        }))
        return DevicePopup{*untold, NOTI_TYPE_MAY_NOT_WORK_NORMALLY};
    if (auto taken = FirstIndex(devices, [&](const USBDeviceInfo &device) {
            return std::find(justTaken.begin(), justTaken.end(), device.strDevPath) != justTaken.end();
        }))
        return DevicePopup{*taken, NOTI_TYPE_DEVICE_CONNECTED};
    auto inUse = FirstIndex(devices, [](const USBDeviceInfo &device) { return device.eStatus == DEVICE_STATUS_USING; });
    return DevicePopup{inUse.value_or(0), NOTI_TYPE_DEVICE_CONNECTED};
}
