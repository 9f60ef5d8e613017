// Read-outs of the device manager's list for the screen.
#include <string>
#include <vector>

#include "Log.h"
#include "USBDevice.h"
#include "UsbOutputChoice.h"

namespace {

constexpr char kOSDSuffix[] = "(USB)";
constexpr char kOSDSeparator[] = " + ";

// The names of the devices whose use matches inUse, in list order, each with its suffix.
std::string JoinOSDNames(const std::vector<USBDeviceInfo> &devices, bool inUse)
{
    std::string text;
    for (const USBDeviceInfo &device : devices) {
        if ((device.eStatus == DEVICE_STATUS_USING) != inUse)
            continue;
        if (!text.empty())
            text += kOSDSeparator;
        text += device.strProductName + kOSDSuffix;
    }
    return text;
}

} // namespace

// The one or two devices in use; with none (or more than the output can carry) the idle devices,
// oldest first.
std::string CUSBDevice::GetDeviceInfoForOSD()
{
    std::vector<USBDeviceInfo> devices = GetDevices();
    if (devices.empty())
        return std::string();
    const int usingCount = CUsbOutputChoice::CountUsing(devices);
    if (usingCount >= 1 && usingCount <= CUsbOutputChoice::kMaxUsingDevices)
        return JoinOSDNames(devices, true);
    CUsbOutputChoice::SortByTimeStamp(devices);
    return JoinOSDNames(devices, false);
}
