// The record the service keeps for every USB audio device it has detected.
#pragma once

#include <cstdint>
#include <string>

// Usage status of a detected device. 2 is not used by the service and stays free.
enum device_status : int32_t {
    DEVICE_STATUS_IDLE = 0,     // detected, not carrying the TV sound
    DEVICE_STATUS_USING = 1,    // the TV sound is routed to this device
    DEVICE_STATUS_RELEASED = 3, // carried the sound, then muted or released
    DEVICE_STATUS_RESERVED = 4, // connected, never chosen automatically
};

struct USBDeviceInfo {
    std::string strProductName;
    int32_t nVendorId = 0;
    int32_t nProductId = 0;
    std::string strDevPath; // identity of the record inside a list
    std::string strManufature;
    int32_t nCardNum = 0;
    device_status eStatus = DEVICE_STATUS_IDLE;
    uint32_t timeStamp = 0; // ms of monotonic uptime when added; wraps after about 49.7 days
    bool bNotified = false;        // the user has been told about this device (or needs no popup)
    bool bMaxVolumeFailed = false; // setting the card's mixer to maximum failed
};
