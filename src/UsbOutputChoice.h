// The rules that pick which USB audio devices carry the TV sound. They work on a plain list of
// records and change only the records' status, so the device manager can apply them under its
// lock and make the platform calls for the chosen devices afterwards.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "USBDeviceInfo.h"

class CUsbOutputChoice {
public:
    // At most this many devices carry the output at the same time.
    static constexpr int kMaxUsingDevices = 2;

    // Oldest first by time stamp, compared as unsigned numbers.
    static void SortByTimeStamp(std::vector<USBDeviceInfo> &devices);

    static int CountUsing(const std::vector<USBDeviceInfo> &devices);

    // Walks the sorted list and switches devices on until kMaxUsingDevices are in use: devices
    // already in use count, a reserved one (status 4) is skipped, any other gets status 1. Returns
    // the indices of the devices switched on, in list order.
    static std::vector<size_t> TakeFreeDevices(std::vector<USBDeviceInfo> &devices);

    // Switches on the first kMaxUsingDevices devices of the sorted list whatever their status.
    static std::vector<size_t> TakeFirstDevices(std::vector<USBDeviceInfo> &devices);

    // Every device in use goes to status 3. Returns their indices, in list order.
    static std::vector<size_t> ReleaseUsingDevices(std::vector<USBDeviceInfo> &devices);

    // The two names a connection-status event carries: none for no device (false), the one name
    // and "" for one, the first two names for more.
    static bool ConnectStatusNames(const std::vector<std::string> &names, std::string &first,
                                   std::string &second);
};
