// Read-outs of the device manager's list for the screen and for client applications.
#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include <glib.h>

#include "HadrixDeviceListInfo.h"
#include "KPILog.h"
#include "LocalFileData.h"
#include "Log.h"
#include "NotificationPopup.h"
#include "USBDevice.h"
#include "UsbOutputChoice.h"

namespace {

constexpr char kOSDSuffix[] = "(USB)";
constexpr char kOSDSeparator[] = " + ";
constexpr char kNetDeviceType[] = "USB Headphone";
constexpr char kNetConnected[] = "connected";
constexpr char kNetDisconnected[] = "disconnected";
constexpr char kNetProductSuffix[] = " (USB)";

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

// Copies text into a zeroed field, cut so that the field still ends in its terminator.
template <size_t N>
void CopyField(char (&field)[N], const std::string &text)
{
    memcpy(field, text.data(), std::min(text.size(), N - 1));
}

void FillNetRecord(HadrixDeviceRecord_t &record, const USBDeviceInfo &device, bool inUse,
                   int32_t volumeLevel)
{
    record.selected = inUse ? 1 : 0;
    CopyField(record.type, kNetDeviceType);
    CopyField(record.connectStatus, inUse ? kNetConnected : kNetDisconnected);
    record.volumeLevel = GINT32_TO_LE(volumeLevel);
    CopyField(record.productName, device.strProductName + kNetProductSuffix);
    CopyField(record.manufacturer, device.strManufature);
}

} // namespace

int FillNetDeviceList(std::vector<USBDeviceInfo> &devices, int32_t volumeLevel,
                      HadrixDeviceListInfo_t *list)
{
    if (devices.empty())
        return 0;
    CUsbOutputChoice::SortByTimeStamp(devices);
    int filled = 0;
    for (bool inUse : {true, false}) {
        for (const USBDeviceInfo &device : devices) {
            if (filled == kMaxNetDevices)
                return filled;
            if ((device.eStatus == DEVICE_STATUS_USING) == inUse)
                FillNetRecord(list->device[filled++], device, inUse, volumeLevel);
        }
    }
    return filled;
}

// Runs on the client API's thread: it works on a copy of the list.
int CUSBDevice::GetNetDeviceList(HadrixDeviceListInfo_t *list)
{
    std::vector<USBDeviceInfo> devices = GetDevices();
    return FillNetDeviceList(devices, CSingleton<CLocalFileData>::GetInstance()->GetVolumeLevel(), list);
}

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

bool CUSBDevice::m_ShowUnsupportedWarning()
{
    LOGI("unsupported devices size :%zu", m_VecUnsupportedDevice.size());
    auto unwarned = std::find_if(m_VecUnsupportedDevice.begin(), m_VecUnsupportedDevice.end(),
                                 [](const USBDeviceInfo &device) { return !device.bNotified; });
    if (unwarned == m_VecUnsupportedDevice.end())
        return false;
    LOGI("--- item product name :%s warning %d", unwarned->strProductName.c_str(), unwarned->bNotified);
    unwarned->bNotified = true;
    CSingleton<CNotificationPopup>::GetInstance()->ShowNotiPopup(NOTI_TYPE_UNSUPPORTED_DEVICE, unwarned->strProductName);
    CSingleton<CKPILog>::GetInstance()->SendWarnings(KPI_WARNING_UNSUPPORTED_DEVICE, unwarned->strProductName);
    return true;
}
