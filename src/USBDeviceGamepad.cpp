// Telling the devices that are not headsets apart: key events from an attached USB audio
// device's own buttons.
#include <mutex>
#include <string>

#include "Log.h"
#include "USBDevice.h"

bool CUSBDevice::CheckWhetherUsbDevice(const std::string &deviceName)
{
    LOGD("CheckWhetherUsbDevice devicename:[%s]", deviceName.c_str());
    std::lock_guard<std::mutex> lock(m_VecMutex);
    for (size_t index = 0; index < m_VecUSBHeadset.size(); ++index) {
        const USBDeviceInfo &device = m_VecUSBHeadset[index];
        // A record without names would match every device name that holds a blank.
        if (device.strManufature.empty() && device.strProductName.empty())
            continue;
        const std::string fullName = device.strManufature + " " + device.strProductName;
        LOGD("CheckWhetherUsbDevice fullname:[%s]", fullName.c_str());
        if (deviceName.find(fullName) != std::string::npos) {
            LOGI("devicename:[%s] is found in m_VecUSBHeadset[%zu],fullname:[%s]", deviceName.c_str(), index,
                 fullName.c_str());
            return true;
        }
    }
    return false;
}
