#include "UsbOutputChoice.h"

#include <algorithm>

void CUsbOutputChoice::SortByTimeStamp(std::vector<USBDeviceInfo> &devices)
{
    std::sort(devices.begin(), devices.end(), [](const USBDeviceInfo &a, const USBDeviceInfo &b) {
        return a.timeStamp < b.timeStamp;
    });
}

int CUsbOutputChoice::CountUsing(const std::vector<USBDeviceInfo> &devices)
{
    return static_cast<int>(std::count_if(devices.begin(), devices.end(), [](const USBDeviceInfo &device) {
        return device.eStatus == DEVICE_STATUS_USING;
    }));
}

std::vector<size_t> CUsbOutputChoice::TakeFreeDevices(std::vector<USBDeviceInfo> &devices)
{
    std::vector<size_t> taken;
    // Devices in use anywhere in the list count from the start, so an idle device older than
    // them never makes a third.
    int using_ = CountUsing(devices);
    for (size_t i = 0; i < devices.size() && using_ < kMaxUsingDevices; ++i) {
        USBDeviceInfo &device = devices[i];
        if (device.eStatus == DEVICE_STATUS_USING || device.eStatus == DEVICE_STATUS_RESERVED)
            continue;
        device.eStatus = DEVICE_STATUS_USING;
        taken.push_back(i);
        ++using_;
    }
    return taken;
}

std::vector<size_t> CUsbOutputChoice::TakeFirstDevices(std::vector<USBDeviceInfo> &devices)
{
    std::vector<size_t> taken;
    for (size_t i = 0; i < devices.size() && i < static_cast<size_t>(kMaxUsingDevices); ++i) {
        devices[i].eStatus = DEVICE_STATUS_USING;
        taken.push_back(i);
    }
    return taken;
}

std::vector<size_t> CUsbOutputChoice::ReleaseUsingDevices(std::vector<USBDeviceInfo> &devices)
{
    std::vector<size_t> released;
    for (size_t i = 0; i < devices.size(); ++i) {
        if (devices[i].eStatus != DEVICE_STATUS_USING)
            continue;
        devices[i].eStatus = DEVICE_STATUS_RELEASED;
        released.push_back(i);
    }
    return released;
}

bool CUsbOutputChoice::ConnectStatusNames(const std::vector<std::string> &names, std::string &first,
                                          std::string &second)
{
    if (names.empty())
        return false;
    first = names[0];
    second = names.size() >= 2 ? names[1] : std::string();
    return true;
}
