// The fake USB library: the cards present (ready for use), cards plugged but not ready yet, and
// the hot-plug callback, which hears "added" when a card becomes ready and "removed", with the
// data it had, when a ready card goes.
#include "nimbos/usb.h"

#include "CallbackSlot.h"

#include <algorithm>
#include <memory>
#include <mutex>

using nimbos::fake::UsbDevice;

struct usb_device_s {
    UsbDevice data;
};

struct usb_device_list_s {
    std::vector<usb_device_s> devices;
    size_t next = 0; // index of the device usb_device_list_get_next hands out
};

namespace {

using nimbos::fake::detail::CallbackSlot;
using nimbos::fake::detail::Enter;
using nimbos::fake::detail::Record;

// Not const: the callback's action parameter is a plain char *.
char kAdded[] = "added";
char kRemoved[] = "removed";

struct Library {
    std::mutex lock;
    bool open = false;
    std::vector<UsbDevice> present;  // ready, in the order they became ready
    std::vector<UsbDevice> unready;  // plugged, controls not ready yet
};

Library &TheLibrary()
{
    static Library *library = new Library;
    return *library;
}

CallbackSlot<usb_connected_cb> &HotPlug()
{
    static auto *slot = new CallbackSlot<usb_connected_cb>;
    return *slot;
}

bool IsOpen()
{
    Library &library = TheLibrary();
    std::lock_guard<std::mutex> lock(library.lock);
    return library.open;
}

std::vector<UsbDevice>::iterator Find(std::vector<UsbDevice> &devices, const std::string &devpath)
{
    return std::find_if(devices.begin(), devices.end(),
                        [&devpath](const UsbDevice &device) { return device.devpath == devpath; });
}

// The action text is copied, so that any text a test delivers outlives its call.
void Announce(const UsbDevice &device, const std::string &action)
{
    HotPlug().Deliver([device, action](usb_connected_cb cb, void *userData) {
        std::string text = action;
        cb(new usb_device_s{device}, text == kAdded ? kAdded : text == kRemoved ? kRemoved : &text[0], userData);
    });
}

// Under the lock: the card joins the present ones unless it is there already.
bool BecomePresent(Library &library, const UsbDevice &device)
{
    if (Find(library.present, device.devpath) != library.present.end())
        return false;
    library.present.push_back(device);
    return true;
}

int Number(usb_device_s *device, int UsbDevice::*field, const char *function)
{
    Record(function, {});
    return device ? device->data.*field : -1;
}

const char *String(usb_device_s *device, const std::string UsbDevice::*field, const char *function)
{
    Record(function, {});
    return device ? (device->data.*field).c_str() : nullptr;
}

} // namespace

bool nimbos::fake::UsbDevice::operator==(const UsbDevice &other) const
{
    return devpath == other.devpath && devname == other.devname && product == other.product &&
           manufacturer == other.manufacturer && vendorId == other.vendorId && productId == other.productId &&
           number == other.number && usbClass == other.usbClass;
}

extern "C" int usb_device_init(void)
{
    if (auto injected = Enter(__func__, {}))
        return *injected;
    Library &library = TheLibrary();
    std::lock_guard<std::mutex> lock(library.lock);
    library.open = true;
    return USB_DEVICE_ERROR_NONE;
}

extern "C" int usb_device_fini(void)
{
    if (auto injected = Enter(__func__, {}))
        return *injected;
    {
        Library &library = TheLibrary();
        std::lock_guard<std::mutex> lock(library.lock);
        if (!library.open)
            return USB_DEVICE_ERROR_NOT_INITIALIZED;
        library.open = false;
    }
    HotPlug().Unset();
    return USB_DEVICE_ERROR_NONE;
}

extern "C" int usb_device_get_device_list(usb_device_list_s **list)
{
    if (auto injected = Enter(__func__, {}))
        return *injected;
    if (!list)
        return USB_DEVICE_ERROR_INVALID_PARAMETER;
    Library &library = TheLibrary();
    std::lock_guard<std::mutex> lock(library.lock);
    if (!library.open)
        return USB_DEVICE_ERROR_NOT_INITIALIZED;
    auto result = std::make_unique<usb_device_list_s>();
    for (const UsbDevice &device : library.present)
        result->devices.push_back(usb_device_s{device});
    *list = result.release();
    return USB_DEVICE_ERROR_NONE;
}

extern "C" int usb_device_free_device_list(usb_device_list_s *list)
{
    if (auto injected = Enter(__func__, {}))
        return *injected;
    if (!list)
        return USB_DEVICE_ERROR_INVALID_PARAMETER;
    delete list;
    return USB_DEVICE_ERROR_NONE;
}

extern "C" int usb_device_list_get_count(usb_device_list_s *list)
{
    Record(__func__, {});
    return list ? static_cast<int>(list->devices.size()) : 0;
}

extern "C" int usb_device_list_get_first(usb_device_list_s *list, usb_device_s **device)
{
    if (auto injected = Enter(__func__, {}))
        return *injected;
    if (!list || !device)
        return USB_DEVICE_ERROR_INVALID_PARAMETER;
    list->next = 0;
    if (list->devices.empty())
        return USB_DEVICE_ERROR_NO_DATA;
    *device = &list->devices[list->next++];
    return USB_DEVICE_ERROR_NONE;
}

extern "C" int usb_device_list_get_next(usb_device_list_s *list, usb_device_s **device)
{
    if (auto injected = Enter(__func__, {}))
        return *injected;
    if (!list || !device)
        return USB_DEVICE_ERROR_INVALID_PARAMETER;
    if (list->next >= list->devices.size())
        return USB_DEVICE_ERROR_NO_DATA;
    *device = &list->devices[list->next++];
    return USB_DEVICE_ERROR_NONE;
}

extern "C" int usb_set_connected_cb(usb_connected_cb cb, void *user_data)
{
    if (auto injected = Enter(__func__, {}))
        return *injected;
    if (!cb)
        return USB_DEVICE_ERROR_INVALID_PARAMETER;
    if (!IsOpen())
        return USB_DEVICE_ERROR_NOT_INITIALIZED;
    HotPlug().Set(cb, user_data);
    return USB_DEVICE_ERROR_NONE;
}

extern "C" int usb_unset_connected_cb(void)
{
    if (auto injected = Enter(__func__, {}))
        return *injected;
    if (!IsOpen())
        return USB_DEVICE_ERROR_NOT_INITIALIZED;
    HotPlug().Unset();
    return USB_DEVICE_ERROR_NONE;
}

extern "C" int free_usb_device_h(usb_device_s *device)
{
    if (auto injected = Enter(__func__, {}))
        return *injected;
    if (!device)
        return USB_DEVICE_ERROR_INVALID_PARAMETER;
    delete device;
    return USB_DEVICE_ERROR_NONE;
}

extern "C" int usb_device_get_class(usb_device_s *device)
{
    return Number(device, &UsbDevice::usbClass, __func__);
}

extern "C" int usb_device_get_number(usb_device_s *device)
{
    return Number(device, &UsbDevice::number, __func__);
}

extern "C" int usb_device_get_vendor_id(usb_device_s *device)
{
    return Number(device, &UsbDevice::vendorId, __func__);
}

extern "C" int usb_device_get_product_id(usb_device_s *device)
{
    return Number(device, &UsbDevice::productId, __func__);
}

extern "C" const char *usb_device_get_devpath(usb_device_s *device)
{
    return String(device, &UsbDevice::devpath, __func__);
}

extern "C" const char *usb_device_get_devname(usb_device_s *device)
{
    return String(device, &UsbDevice::devname, __func__);
}

extern "C" const char *usb_device_get_product(usb_device_s *device)
{
    return String(device, &UsbDevice::product, __func__);
}

extern "C" const char *usb_device_get_manufacturer(usb_device_s *device)
{
    return String(device, &UsbDevice::manufacturer, __func__);
}

namespace nimbos::fake {

void SetPresentDevices(const std::vector<UsbDevice> &devices)
{
    Library &library = TheLibrary();
    std::lock_guard<std::mutex> lock(library.lock);
    library.present = devices;
}

void AddPresentDevice(const UsbDevice &device)
{
    Library &library = TheLibrary();
    std::lock_guard<std::mutex> lock(library.lock);
    BecomePresent(library, device);
}

void Plug(const UsbDevice &device, bool ready)
{
    Library &library = TheLibrary();
    std::lock_guard<std::mutex> lock(library.lock);
    if (!ready) {
        library.unready.push_back(device);
        return;
    }
    if (BecomePresent(library, device))
        Announce(device, kAdded);
}

bool MakeReady(const std::string &devpath)
{
    Library &library = TheLibrary();
    std::lock_guard<std::mutex> lock(library.lock);
    auto waiting = Find(library.unready, devpath);
    if (waiting == library.unready.end())
        return false;
    const UsbDevice device = *waiting;
    library.unready.erase(waiting);
    if (BecomePresent(library, device))
        Announce(device, kAdded);
    return true;
}

bool Unplug(const std::string &devpath)
{
    Library &library = TheLibrary();
    std::lock_guard<std::mutex> lock(library.lock);
    auto waiting = Find(library.unready, devpath);
    if (waiting != library.unready.end()) {
        library.unready.erase(waiting);
        return true;
    }
    auto present = Find(library.present, devpath);
    if (present == library.present.end())
        return false;
    Announce(*present, kRemoved);
    library.present.erase(present);
    return true;
}

void DeliverHotplug(const UsbDevice &device, const std::string &action)
{
    Announce(device, action);
}

std::vector<UsbDevice> PresentDevices()
{
    Library &library = TheLibrary();
    std::lock_guard<std::mutex> lock(library.lock);
    return library.present;
}

namespace detail {

void ResetUsb()
{
    {
        Library &library = TheLibrary();
        std::lock_guard<std::mutex> lock(library.lock);
        library.open = false;
        library.present.clear();
        library.unready.clear();
    }
    HotPlug().Unset();
}

} // namespace detail

} // namespace nimbos::fake
