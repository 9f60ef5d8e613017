#include "UsbDeviceSnapshot.h"

#include <algorithm>
#include <vector>

#include "HadrixUtil.h"

namespace {

// The snapshots alive now: a hot-plug callback holds one while it hands the device on, an
// enumeration pass one for the device it looks at.
std::vector<const CUsbDeviceSnapshot *> g_liveSnapshots;

} // namespace

CUsbDeviceSnapshot::CUsbDeviceSnapshot(usb_device_s *dev) : m_pDevice(dev), m_Properties(m_Read(dev))
{
    g_liveSnapshots.push_back(this);
}

CUsbDeviceSnapshot::~CUsbDeviceSnapshot()
{
    g_liveSnapshots.erase(std::remove(g_liveSnapshots.begin(), g_liveSnapshots.end(), this),
                          g_liveSnapshots.end());
}

UsbDeviceProperties CUsbDeviceSnapshot::Of(usb_device_s *dev)
{
    for (const CUsbDeviceSnapshot *snapshot : g_liveSnapshots) {
        if (snapshot->m_pDevice == dev)
            return snapshot->m_Properties;
    }
    return m_Read(dev);
}

UsbDeviceProperties CUsbDeviceSnapshot::m_Read(usb_device_s *dev)
{
    UsbDeviceProperties properties;
    properties.usbClass = usb_device_get_class(dev);
    properties.number = usb_device_get_number(dev);
    properties.devName = TextOrEmpty(usb_device_get_devname(dev));
    properties.info.strProductName = TextOrEmpty(usb_device_get_product(dev));
    properties.info.nVendorId = usb_device_get_vendor_id(dev);
    properties.info.nProductId = usb_device_get_product_id(dev);
    properties.info.strDevPath = TextOrEmpty(usb_device_get_devpath(dev));
    properties.info.strManufature = TextOrEmpty(usb_device_get_manufacturer(dev));
    return properties;
}
