// Host USB device enumeration over libudev. A device is a USB sound card: the card directory
// in the "sound" subsystem, described by the USB interface that carries it and the USB device
// above that. A card counts only once its SOUND_INITIALIZED udev property is set — the moment
// the card's controls are ready, which audio servers wait for as well; udev's own "initialised"
// flag is not used because it says nothing about the card.
//
// Hot-plug: a udev monitor of the "sound" subsystem, read by a GLib source on the main context
// of the thread that set the callback. Every card the callback's user knows about (present and
// initialised when watching began, or announced since) is kept with its description, so that
// "added" is said once per card and "removed" still has the card's data when its parents are
// already gone.
#include "nimbos/usb.h"

#include "HostLog.h"
#include "Udev.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <utility>
#include <vector>

struct usb_device_s {
    std::string devpath;
    std::string devname;
    std::string product;
    std::string manufacturer;
    int interfaceClass = 0;
    int number = 0;
    int vendorId = 0;
    int productId = 0;
};

struct usb_device_list_s {
    std::vector<usb_device_s> devices;
    size_t next = 0; // index of the device usb_device_list_get_next hands out
};

namespace {

constexpr const char *kSoundSubsystem = "sound";
constexpr const char *kCardSysnamePrefix = "card";
constexpr const char *kInitializedProperty = "SOUND_INITIALIZED";

// Not const: the callback's action parameter is a plain char *.
char kAdded[] = "added";
char kRemoved[] = "removed";

using nimbos::Next;
using nimbos::SourcePtr;
using DevicePtr = nimbos::UdevDevicePtr;
using EnumeratePtr = nimbos::UdevEnumeratePtr;
using MonitorPtr = nimbos::UdevMonitorPtr;

constexpr auto Text = nimbos::UdevText;

// A numeric sysfs attribute ("01", "0b0e", "4"); 0 when the device lacks it or it is no number.
int NumericAttribute(udev_device *device, const char *name, int base)
{
    const char *text = device ? udev_device_get_sysattr_value(device, name) : nullptr;
    if (!text)
        return 0;
    errno = 0;
    char *end = nullptr;
    long value = strtol(text, &end, base);
    if (end == text || *end != '\0' || errno == ERANGE || value < 0 || value > 0xffff) {
        HOST_LOG(DLOG_WARN, "attribute %s of %s is not a number: \"%s\"", name, udev_device_get_syspath(device),
                 text);
        return 0;
    }
    return static_cast<int>(value);
}

bool IsCard(udev_device *device)
{
    const char *sysname = udev_device_get_sysname(device);
    return sysname && strncmp(sysname, kCardSysnamePrefix, strlen(kCardSysnamePrefix)) == 0;
}

bool IsInitialized(udev_device *device)
{
    const char *value = udev_device_get_property_value(device, kInitializedProperty);
    return value && *value;
}

// The card as a device of this library; nothing when the card does not sit on a USB device.
std::optional<usb_device_s> DescribeCard(udev_device *card)
{
    udev_device *usb = udev_device_get_parent_with_subsystem_devtype(card, "usb", "usb_device");
    if (!usb)
        return std::nullopt;
    udev_device *interface = udev_device_get_parent_with_subsystem_devtype(card, "usb", "usb_interface");
    usb_device_s device;
    device.devpath = Text(udev_device_get_devpath(card));
    device.devname = Text(udev_device_get_devnode(usb));
    device.product = Text(udev_device_get_sysattr_value(usb, "product"));
    device.manufacturer = Text(udev_device_get_sysattr_value(usb, "manufacturer"));
    device.interfaceClass = NumericAttribute(interface, "bInterfaceClass", 16);
    device.number = NumericAttribute(usb, "devnum", 10);
    device.vendorId = NumericAttribute(usb, "idVendor", 16);
    device.productId = NumericAttribute(usb, "idProduct", 16);
    return device;
}

// The initialised USB sound cards present now, in sysfs order.
int ListCards(udev *context, std::vector<usb_device_s> &cards)
{
    EnumeratePtr enumerate(udev_enumerate_new(context));
    if (!enumerate || udev_enumerate_add_match_subsystem(enumerate.get(), kSoundSubsystem) < 0 ||
        udev_enumerate_add_match_sysname(enumerate.get(), "card*") < 0 ||
        udev_enumerate_scan_devices(enumerate.get()) < 0) {
        HOST_LOG(DLOG_ERROR, "cannot list the sound cards: %s", strerror(errno));
        return USB_DEVICE_ERROR_IO_ERROR;
    }
    udev_list_entry *entry;
    udev_list_entry_foreach(entry, udev_enumerate_get_list_entry(enumerate.get()))
    {
        DevicePtr card(udev_device_new_from_syspath(context, udev_list_entry_get_name(entry)));
        if (!card || !IsInitialized(card.get()))
            continue; // gone meanwhile, or its controls are not ready yet
        if (auto device = DescribeCard(card.get()))
            cards.push_back(std::move(*device));
    }
    return USB_DEVICE_ERROR_NONE;
}

struct Notification {
    std::unique_ptr<usb_device_s> device;
    char *action = nullptr;
};

struct Watch {
    MonitorPtr monitor;
    SourcePtr source; // declared after the monitor: removed before the monitor's fd closes
    usb_connected_cb callback = nullptr;
    void *userData = nullptr;
    std::map<std::string, usb_device_s> known; // by devpath
};

std::unique_ptr<Watch> StartWatch(udev *context);
SourcePtr AttachToCallerContext(udev_monitor *monitor);

nimbos::UdevLibrary<Watch> library({USB_DEVICE_ERROR_NONE, USB_DEVICE_ERROR_NOT_INITIALIZED, USB_DEVICE_ERROR_IO_ERROR,
                                    USB_DEVICE_ERROR_OUT_OF_MEMORY, USB_DEVICE_ERROR_INVALID_PARAMETER},
                                   StartWatch, AttachToCallerContext);

std::optional<Notification> Announce(const usb_device_s &device, char *action)
{
    HOST_LOG(DLOG_DEBUG, "usb sound card %s: %s", action, device.devpath.c_str());
    return Notification{std::make_unique<usb_device_s>(device), action};
}

// What one card event means for the callback's user, if anything.
std::optional<Notification> Interpret(Watch &state, udev_device *event)
{
    if (!IsCard(event))
        return std::nullopt;
    const std::string action = Text(udev_device_get_action(event));
    const std::string devpath = Text(udev_device_get_devpath(event));
    if (action == "remove") {
        auto found = state.known.find(devpath);
        if (found == state.known.end())
            return std::nullopt;
        usb_device_s gone = std::move(found->second);
        state.known.erase(found);
        return Announce(gone, kRemoved);
    }
    if ((action != "add" && action != "change") || !IsInitialized(event) || state.known.count(devpath))
        return std::nullopt;
    auto device = DescribeCard(event);
    if (!device)
        return std::nullopt;
    auto added = state.known.emplace(devpath, std::move(*device)).first;
    return Announce(added->second, kAdded);
}

struct Delivery {
    Notification notification;
    usb_connected_cb callback = nullptr;
    void *userData = nullptr;
};

// The next event the callback must hear of. Stale when this source no longer serves the
// current callback (unset, replaced or closed meanwhile).
Next NextDelivery(Delivery &delivery)
{
    return library.WithCurrentWatch([&delivery](Watch &watch) {
        for (;;) {
            DevicePtr event(udev_monitor_receive_device(watch.monitor.get()));
            if (!event)
                return Next::Drained;
            if (auto found = Interpret(watch, event.get())) {
                delivery = Delivery{std::move(*found), watch.callback, watch.userData};
                return Next::Deliver;
            }
        }
    });
}

gboolean OnMonitorReadable(gint, GIOCondition, gpointer)
{
    return nimbos::DeliverMonitorEvents<Delivery>(NextDelivery, [](Delivery &delivery) {
        delivery.callback(delivery.notification.device.release(), delivery.notification.action, delivery.userData);
    }, "a usb sound card");
}

SourcePtr AttachToCallerContext(udev_monitor *monitor)
{
    return nimbos::AttachMonitorToCallerContext(monitor, OnMonitorReadable, "usb sound card monitor");
}

// Listening starts before the cards present are read, so a card arriving in between is
// announced rather than missed.
std::unique_ptr<Watch> StartWatch(udev *context)
{
    auto state = std::make_unique<Watch>();
    state->monitor = nimbos::OpenSubsystemMonitor(context, kSoundSubsystem, "sound cards");
    std::vector<usb_device_s> present;
    if (!state->monitor || ListCards(context, present) != USB_DEVICE_ERROR_NONE)
        return nullptr;
    for (auto &device : present)
        state->known.emplace(device.devpath, std::move(device));
    state->source = AttachToCallerContext(state->monitor.get());
    return state;
}

int NumberOf(const usb_device_s *device, int usb_device_s::*field)
{
    return device ? device->*field : -1;
}

const char *TextOf(const usb_device_s *device, const std::string usb_device_s::*field)
{
    return device ? (device->*field).c_str() : nullptr;
}

} // namespace

int usb_device_init(void)
{
    return library.Open();
}

int usb_device_fini(void)
{
    return library.Close();
}

int usb_device_get_device_list(usb_device_list_s **list)
{
    if (!list)
        return USB_DEVICE_ERROR_INVALID_PARAMETER;
    try {
        auto result = std::make_unique<usb_device_list_s>();
        int status = library.WithContext([&result](udev *context) { return ListCards(context, result->devices); });
        if (status != USB_DEVICE_ERROR_NONE)
            return status;
        *list = result.release();
        return USB_DEVICE_ERROR_NONE;
    } catch (const std::bad_alloc &) {
        return USB_DEVICE_ERROR_OUT_OF_MEMORY;
    }
}

int usb_device_free_device_list(usb_device_list_s *list)
{
    if (!list)
        return USB_DEVICE_ERROR_INVALID_PARAMETER;
    std::unique_ptr<usb_device_list_s> owned(list);
    return USB_DEVICE_ERROR_NONE;
}

int usb_device_list_get_count(usb_device_list_s *list)
{
    return list ? static_cast<int>(list->devices.size()) : 0;
}

int usb_device_list_get_first(usb_device_list_s *list, usb_device_s **device)
{
    if (!list || !device)
        return USB_DEVICE_ERROR_INVALID_PARAMETER;
    list->next = 0;
    return usb_device_list_get_next(list, device);
}

int usb_device_list_get_next(usb_device_list_s *list, usb_device_s **device)
{
    if (!list || !device)
        return USB_DEVICE_ERROR_INVALID_PARAMETER;
    if (list->next >= list->devices.size())
        return USB_DEVICE_ERROR_NO_DATA;
    *device = &list->devices[list->next++];
    return USB_DEVICE_ERROR_NONE;
}

int usb_set_connected_cb(usb_connected_cb cb, void *user_data)
{
    return library.SetCallback(cb, user_data);
}

int usb_unset_connected_cb(void)
{
    return library.UnsetCallback();
}

int free_usb_device_h(usb_device_s *device)
{
    if (!device)
        return USB_DEVICE_ERROR_INVALID_PARAMETER;
    std::unique_ptr<usb_device_s> owned(device);
    return USB_DEVICE_ERROR_NONE;
}

int usb_device_get_class(usb_device_s *device)
{
    return NumberOf(device, &usb_device_s::interfaceClass);
}

int usb_device_get_number(usb_device_s *device)
{
    return NumberOf(device, &usb_device_s::number);
}

int usb_device_get_vendor_id(usb_device_s *device)
{
    return NumberOf(device, &usb_device_s::vendorId);
}

int usb_device_get_product_id(usb_device_s *device)
{
    return NumberOf(device, &usb_device_s::productId);
}

const char *usb_device_get_devpath(usb_device_s *device)
{
    return TextOf(device, &usb_device_s::devpath);
}

const char *usb_device_get_devname(usb_device_s *device)
{
    return TextOf(device, &usb_device_s::devname);
}

const char *usb_device_get_product(usb_device_s *device)
{
    return TextOf(device, &usb_device_s::product);
}

const char *usb_device_get_manufacturer(usb_device_s *device)
{
    return TextOf(device, &usb_device_s::manufacturer);
}
