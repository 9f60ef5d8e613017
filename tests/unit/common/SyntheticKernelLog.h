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

namespace synthetic_klog {

class Writer {
public:
    explicit Writer(uint32_t seed) : m_state(seed ? seed : 1) {}

    // Appends one line stamped a little later than the previous one; returns its time in ms.
    uint32_t Line(int level, const std::string &message)
    {
        m_us += 50 + Next() % 20000;
        char stamp[48];
        snprintf(stamp, sizeof stamp, "<%d>[%llu.%06llu] ", level, static_cast<unsigned long long>(m_us / 1000000),
                 static_cast<unsigned long long>(m_us % 1000000));
        m_text += stamp;
        m_text += message;
        m_text += '\n';
        return static_cast<uint32_t>(m_us / 1000);
    }

    uint32_t Next()
    {
        m_state = m_state * 1103515245u + 12345u;
        return m_state >> 8;
    }

    std::string &Text() { return m_text; }

private:
    uint32_t m_state;
    uint64_t m_us = 0;
    std::string m_text;
};

inline const char *OrdinaryLine(uint32_t pick)
{
    static const char *const lines[] = {
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
    return lines[pick % (sizeof lines / sizeof lines[0])];
}

struct PortState {
    uint32_t detected = UINT32_MAX;
    uint32_t lastDisconnect = 0;
    bool everDisconnected = false;
    int deviceNumber = 0;
};

} // namespace synthetic_klog

// A log of at least `bytes` bytes; about one line in 40 is part of a USB plug or unplug.
inline SyntheticKernelLog MakeSyntheticKernelLog(size_t bytes, uint32_t seed = 7)
{
    using namespace synthetic_klog;
    static const char *const ports[] = {"1-1", "1-2.1", "1-2.3", "2-1", "1-1.4.2"};
    constexpr size_t portCount = sizeof ports / sizeof ports[0];

    SyntheticKernelLog log;
    Writer writer(seed);
    std::map<std::string, PortState> state;
    writer.Line(5, "Booting Linux on physical CPU 0x0");
    writer.Line(6, "usbcore: registered new device driver usb");
    log.coreInitMs = writer.Line(6, "usb_enable mod ld");
    int deviceNumber = 2;

    while (writer.Text().size() < bytes) {
        uint32_t pick = writer.Next();
        if (pick % 40 != 0) {
            writer.Line(pick % 3 ? 6 : 4, OrdinaryLine(pick / 40));
            continue;
        }
        const std::string port = ports[(pick / 40) % portCount];
        PortState &ps = state[port];
        if (ps.deviceNumber == 0) {
            ps.deviceNumber = deviceNumber++;
            ps.detected = writer.Line(6, "usb " + port + ": new full-speed USB device number " +
                                             std::to_string(ps.deviceNumber) + " using xhci_hcd");
            writer.Line(6, "usb " + port + ": New USB device found, idVendor=0d8c, idProduct=0014, bcdDevice= 1.00");
            writer.Line(6, "usb " + port + ": Product: USB Audio Device");
        } else {
            writer.Line(6, "usb " + port + ": USB disconnect, device number " + std::to_string(ps.deviceNumber));
            ps.lastDisconnect = writer.Line(6, "usb " + port + ": USB disconnect completed");
            ps.everDisconnected = true;
            ps.deviceNumber = 0;
        }
    }
    for (const auto &entry : state) {
        const PortState &ps = entry.second;
        if (ps.detected != UINT32_MAX && !(ps.everDisconnected && ps.detected < ps.lastDisconnect))
            log.ports[entry.first] = ps.detected;
    }
    log.text = std::move(writer.Text());
    return log;
}
