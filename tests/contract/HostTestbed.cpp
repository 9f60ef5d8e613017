#include "HostTestbed.h"

#include <gtest/gtest.h>

#include <vector>

namespace contract {

namespace {

std::string UsbDeviceOf(const UsbCard &card)
{
    return "/devices/platform/soc/usb1/1-" + std::to_string(card.port);
}

// The devices at or below syspath (directories with a uevent file), parents first.
void CollectDevices(const std::string &root, const std::string &syspath, std::vector<std::string> &devices)
{
    const std::string onDisk = root + syspath;
    if (g_file_test((onDisk + "/uevent").c_str(), G_FILE_TEST_EXISTS))
        devices.push_back(syspath);
    g_autoptr(GDir) dir = g_dir_open(onDisk.c_str(), 0, nullptr);
    for (const char *name; dir && (name = g_dir_read_name(dir));) {
        const std::string child = onDisk + "/" + name;
        if (g_file_test(child.c_str(), G_FILE_TEST_IS_DIR) && !g_file_test(child.c_str(), G_FILE_TEST_IS_SYMLINK))
            CollectDevices(root, syspath + "/" + name, devices);
    }
}

} // namespace

HostTestbed::HostTestbed() : m_testbed(umockdev_testbed_new())
{
}

void HostTestbed::PlugCard(const UsbCard &card, bool ready)
{
    const std::string usb = UsbDeviceOf(card);
    const std::string manufacturer = card.manufacturer.empty() ? "" : "A: manufacturer=" + card.manufacturer + "\n";
    g_autofree gchar *description = g_strdup_printf(
        "P: %s\nE: SUBSYSTEM=usb\nE: DEVTYPE=usb_device\nE: DEVNAME=%s\n"
        "A: idVendor=%04x\nA: idProduct=%04x\nA: product=%s\n%sA: busnum=1\nA: devnum=%d\n\n"
        "P: %s/1-%d:1.0\nE: SUBSYSTEM=usb\nE: DEVTYPE=usb_interface\nA: bInterfaceClass=%02x\n\n"
        "P: %s\nE: SUBSYSTEM=sound\n%sA: number=%d\n",
        usb.c_str(), DevnameOf(card).c_str(), card.vendorId, card.productId, card.product.c_str(),
        manufacturer.c_str(), card.devnum, usb.c_str(), card.port, card.interfaceClass, DevpathOf(card).c_str(),
        ready ? "E: SOUND_INITIALIZED=1\n" : "", card.card);
    Add(description, "/sys" + usb);
}

void HostTestbed::MakeCardReady(const UsbCard &card)
{
    const std::string syspath = "/sys" + DevpathOf(card);
    umockdev_testbed_set_property(m_testbed.get(), syspath.c_str(), "SOUND_INITIALIZED", "1");
    umockdev_testbed_uevent(m_testbed.get(), syspath.c_str(), "change");
}

void HostTestbed::UnplugCard(const UsbCard &card)
{
    Remove("/sys" + UsbDeviceOf(card));
}

void HostTestbed::ConnectGamepad(int vendorId, int productId, const std::string &name)
{
    // Numbers of two digits keep the testbed's order (by path) the order of connecting.
    const std::string syspath = "/devices/platform/soc/usb1/1-9/1-9:1.0/input/input" + std::to_string(m_nextInput++);
    g_autofree gchar *description = g_strdup_printf(
        "P: %s\nE: SUBSYSTEM=input\nE: ID_INPUT=1\nE: ID_INPUT_JOYSTICK=1\nE: ID_VENDOR_ID=%04x\n"
        "E: ID_MODEL_ID=%04x\nE: ID_MODEL=%s\nA: name=%s\n",
        syspath.c_str(), vendorId, productId, name.c_str(), name.c_str());
    Add(description, "/sys" + syspath);
    m_gamepads[{vendorId, productId}] = "/sys" + syspath;
}

void HostTestbed::DisconnectGamepad(int vendorId, int productId)
{
    Remove(m_gamepads[{vendorId, productId}]);
}

void HostTestbed::Clear()
{
    while (!m_plugged.empty())
        Remove(*m_plugged.begin());
}

void HostTestbed::Add(const char *description, const std::string &syspath)
{
    g_autoptr(GError) error = nullptr;
    ASSERT_TRUE(umockdev_testbed_add_from_string(m_testbed.get(), description, &error)) << error->message;
    m_plugged.insert(syspath);
}

// The device and everything below it go, each announced as removed, the deepest first, each on
// its own: removing a parent leaves its children's class and bus links behind.
void HostTestbed::Remove(const std::string &syspath)
{
    g_autofree gchar *root = umockdev_testbed_get_root_dir(m_testbed.get());
    std::vector<std::string> devices;
    CollectDevices(root, syspath, devices);
    for (auto device = devices.rbegin(); device != devices.rend(); ++device) {
        umockdev_testbed_uevent(m_testbed.get(), device->c_str(), "remove");
        umockdev_testbed_remove_device(m_testbed.get(), device->c_str());
    }
    m_plugged.erase(syspath);
}

} // namespace contract
