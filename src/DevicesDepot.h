// The device depot: the persisted copy of the detected-device list. DevicesDetected rewrites the
// file after each change; a DevicesDepot reads it back once, at construction, so that a later
// start of the service knows which USB audio devices were attached before.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "Singleton.h"
#include "USBDeviceInfo.h"

// The platform path of the depot file, shared by its writer and its reader.
#define DEVICES_DEPOT_FILE "/home/owner/apps_rw/hadrix/data/devices.depot"

// JSON keys of one depot entry.
#define DEPOT_KEY_PRODUCT_NAME "product_name"
#define DEPOT_KEY_VENDOR_ID "vendor_id"
#define DEPOT_KEY_PRODUCT_ID "product_id"
#define DEPOT_KEY_DEV_PATH "dev_path"
#define DEPOT_KEY_MANUFATURE "manufature"
#define DEPOT_KEY_CARD_NUM "card_num"
#define DEPOT_KEY_STATUS "status"
#define DEPOT_KEY_TIME_STAMP "time_stamp"

// Logs one record as the nine-line block shared by the depot and the detected-device list.
void PrintDeviceRecord(int index, const USBDeviceInfo &info);

// A snapshot of the depot file taken at construction; it does not follow later writes. Made,
// used and dropped by one thread, so it has no lock.
class DevicesDepot : public CSingleton<DevicesDepot> {
    friend class CSingleton<DevicesDepot>;

public:
    ~DevicesDepot() override = default;

    // The records of a depot file's text; malformed parts are refused with a logged reason.
    static std::vector<USBDeviceInfo> Deserialize(const std::string &text);

    // True if some record has both ids.
    bool FindDevice(int vendorId, int productId);
    void ForeachDevice(const std::function<void(const USBDeviceInfo &)> &func);
    void Print();

private:
    DevicesDepot();

    void m_Deserialize();

    std::vector<USBDeviceInfo> m_Devices;
};
