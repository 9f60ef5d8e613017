// What the USB library tells about one device, read from it once where the device enters the
// service (a hot-plug event, a pass of an enumeration) and carried on from there, so that the
// path from the platform's callback to the attach decision does not ask the library again.
#pragma once

#include <string>

#include "USBDeviceInfo.h"
#include "nimbos/usb.h"

struct UsbDeviceProperties {
    int usbClass = -1;
    int number = -1;
    std::string devName;
    // Product, manufacturer, ids and path; card number, status and time stamp are not the
    // library's and stay at their defaults.
    USBDeviceInfo info;
};

class CUsbDeviceSnapshot {
public:
    // Reads every property of dev once. While this object lives, Of(dev) hands out what it read.
    explicit CUsbDeviceSnapshot(usb_device_s *dev);
    ~CUsbDeviceSnapshot();
    CUsbDeviceSnapshot(const CUsbDeviceSnapshot &) = delete;
    CUsbDeviceSnapshot &operator=(const CUsbDeviceSnapshot &) = delete;

    const UsbDeviceProperties &Get() const { return m_Properties; }

    // The properties of dev: those of the live snapshot taken of it, or read now when there is
    // none. Main loop only, like the library's callbacks.
    static UsbDeviceProperties Of(usb_device_s *dev);

private:
    static UsbDeviceProperties m_Read(usb_device_s *dev);

    usb_device_s *m_pDevice;
    UsbDeviceProperties m_Properties;
};
