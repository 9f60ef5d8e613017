// Synthetic kernel logs in the TV's format ("<6>[12.345678] text", no padding in the brackets):
// ordinary kernel lines with USB plug, enumeration and disconnect lines among them, together with
// what an analysis of the log has to find. Deterministic for a given seed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <map>
#include <string>

struct SyntheticKernelLog {
    std::string text;
    uint32_t coreInitMs = UINT32_MAX;
    // Port → time of its latest detection, for the ports not disconnected after it.
    std::map<std::string, uint32_t> ports;
};

// A log of at least `bytes` bytes; about one line in 40 is part of a USB plug or unplug.
inline SyntheticKernelLog MakeSyntheticKernelLog(size_t bytes, uint32_t seed = 7)
{
    static const char *const ordinary[] = {
        "ext4-fs (mmcblk0p21): mounted filesystem with ordered data mode. Opts: (null)",
        "[sdp_audio] set main out volume 12, mute 0",
        "binder: 1834:2210 transaction failed 29189/-22, size 0-0 line 3011",
        "wlan: [2210:I:HDD] hdd_ioctl: 1734: SIOCGIWRATE",
        "audit: type=1400 audit(1617181920.123:57): avc: denied { read } for pid=1921 comm=\"app\"",
        "[VDEC] vdec_open: instance 2 opened, codec h264 1920x1080",
        "hub 1-0:1.0: USB hub found",
        "input: rc device as /devices/virtual/input/input2",
        "usb 1-2: new high-speed USB device number 3 using xhci_hcd",
        "usb 1-2: New USB device found, idVendor=05e3, idProduct=0610, bcdDevice=93.11",
        "[TZ] thermal zone 0 temp 51000 trip 95000",
        "cfg80211: Loading compiled-in X.509 certificates for regulatory database",
    };
    static const char *const ports[] = {"1-1", "1-2.1", "1-2.3", "2-1", "1-1.4.2"};

    SyntheticKernelLog log;
    uint32_t state = seed ? seed : 1;
    auto next = [&state] {
        state = state * 1103515245u + 12345u;
        return state >> 8;
    };
    uint64_t us = 0;
    // Appends one line stamped a little later than the previous one; returns its time in ms.
    auto line = [&](int level, const std::string &message) {
        us += 50 + next() % 20000;
        char stamp[48];
        snprintf(stamp, sizeof stamp, "<%d>[%llu.%06llu] ", level, static_cast<unsigned long long>(us / 1000000),
                 static_cast<unsigned long long>(us % 1000000));
        log.text += stamp + message + '\n';
        return static_cast<uint32_t>(us / 1000);
    };
    line(5, "Booting Linux on physical CPU 0x0");
    line(6, "usbcore: registered new device driver usb");
    log.coreInitMs = line(6, "usb_enable mod ld");

    std::map<std::string, int> plugged; // port → its device number
    int deviceNumber = 2;
    while (log.text.size() < bytes) {
        uint32_t pick = next();
        if (pick % 40 != 0) {
            line(pick % 3 ? 6 : 4, ordinary[(pick / 40) % (sizeof ordinary / sizeof ordinary[0])]);
            continue;
        }
        const std::string port = ports[(pick / 40) % (sizeof ports / sizeof ports[0])];
        const std::string usb = "usb " + port + ": ";
        auto device = plugged.find(port);
        if (device == plugged.end()) {
            plugged[port] = deviceNumber;
            log.ports[port] =
                line(6, usb + "new full-speed USB device number " + std::to_string(deviceNumber++) + " using xhci_hcd");
            line(6, usb + "New USB device found, idVendor=0d8c, idProduct=0014, bcdDevice= 1.00");
            line(6, usb + "Product: USB Audio Device");
        } else {
            line(6, usb + "USB disconnect, device number " + std::to_string(device->second));
            line(6, usb + "USB disconnect completed");
            plugged.erase(device);
            log.ports.erase(port);
        }
    }
    return log;
}
