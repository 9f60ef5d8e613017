// The list of USB audio devices handed to client applications, in its wire form: packed records
// of 327 bytes, sent back to back.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "USBDeviceInfo.h"

struct __attribute__((packed)) HadrixDeviceRecord_t {
    uint8_t selected;         // 1 for a device carrying the TV sound
    char type[14];            // "USB Headphone"
    char connectStatus[20];   // "connected" or "disconnected"
    int32_t volumeLevel;      // little-endian on the wire, unaligned
    char productName[128];    // product name + " (USB)", cut to fit with its terminator
    char manufacturer[128];
    uint8_t reserved[32];     // zero
};
static_assert(sizeof(HadrixDeviceRecord_t) == 327, "a client device record is 327 bytes");

constexpr int kNetDeviceListCapacity = 8;
// Clients are shown at most this many devices, those in use first.
constexpr int kMaxNetDevices = 2;

struct __attribute__((packed)) HadrixDeviceListInfo_t {
    HadrixDeviceRecord_t device[kNetDeviceListCapacity];
};
static_assert(sizeof(HadrixDeviceListInfo_t) == 2616, "the client device list holds 8 records");

// Fills a cleared list from the given devices: the devices in use first, then the others oldest
// first, never more than kMaxNetDevices. Sorts `devices` by time stamp. Returns the number of
// records filled.
int FillNetDeviceList(std::vector<USBDeviceInfo> &devices, int32_t volumeLevel,
                      HadrixDeviceListInfo_t *list);
