// Host gamepads over libudev: a gamepad is an input device of the "input" subsystem that udev
// marks ID_INPUT_JOYSTICK=1, counted once, by its "inputN" device (its event and joystick nodes
// below it carry the same marks). Its uid is formed from the USB ids udev reads
// (ID_VENDOR_ID, ID_MODEL_ID); its name is ID_MODEL, or the kernel's name for the device.
//
// Connection events: a udev monitor of the "input" subsystem, read by a GLib source on the main
// context of the thread that registered the callback. Every gamepad known to the callback's user
// (present when watching began, or announced since) is kept with its description, so that a
// disconnection still names the gamepad when its properties are gone.
#include "nimbos/gamepad.h"

#include "HostLog.h"
#include "Udev.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <new>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace {

using nimbos::Next;
using nimbos::SourcePtr;
using nimbos::UdevDevicePtr;
using nimbos::UdevEnumeratePtr;
using nimbos::UdevMonitorPtr;
constexpr auto Text = nimbos::UdevText;

// gamepad.h names no codes of its own: success is 1, failures are negative.
constexpr int kOk = 1;
constexpr int kNoGamepadThere = 0;
constexpr int kNotOpen = -1;
constexpr int kIoError = -5;
constexpr int kOutOfMemory = -12;
constexpr int kInvalidParameter = -22;

constexpr int kGamepadSlots = 8;
constexpr const char *kInputSubsystem = "input";
constexpr const char *kInputSysnamePrefix = "input";

using Gamepad = std::pair<std::string, _gamepad_device_info_s>; // devpath, description

bool IsGamepad(udev_device *device)
{
    const char *sysname = udev_device_get_sysname(device);
    const char *joystick = udev_device_get_property_value(device, "ID_INPUT_JOYSTICK");
    return sysname && strncmp(sysname, kInputSysnamePrefix, strlen(kInputSysnamePrefix)) == 0 && joystick &&
           strcmp(joystick, "1") == 0;
}

// A four-digit hexadecimal id property ("054c"); nothing when absent or malformed.
std::optional<unsigned> IdProperty(udev_device *device, const char *name)
{
    const char *text = udev_device_get_property_value(device, name);
    if (!text || !*text)
        return std::nullopt;
    errno = 0;
    char *end = nullptr;
    unsigned long value = strtoul(text, &end, 16);
    if (*end != '\0' || errno == ERANGE || value > 0xffff) {
        HOST_LOG(DLOG_WARN, "%s of %s is no USB id: \"%s\"", name, udev_device_get_syspath(device), text);
        return std::nullopt;
    }
    return static_cast<unsigned>(value);
}

_gamepad_device_info_s Describe(udev_device *device)
{
    _gamepad_device_info_s info{};
    const auto vendor = IdProperty(device, "ID_VENDOR_ID");
    const auto product = IdProperty(device, "ID_MODEL_ID");
    if (vendor && product)
        g_snprintf(info.uid, sizeof info.uid, "VID_%04X PID_%04X", *vendor, *product);
    else
        HOST_LOG(DLOG_WARN, "gamepad %s has no USB ids; its uid is empty", udev_device_get_syspath(device));
    std::string name = Text(udev_device_get_property_value(device, "ID_MODEL"));
    if (name.empty())
        name = Text(udev_device_get_sysattr_value(device, "name"));
    g_strlcpy(info.name, name.c_str(), sizeof info.name);
    return info;
}

// The gamepads present now, in sysfs order.
int ListGamepads(udev *context, std::vector<Gamepad> &gamepads)
{
    UdevEnumeratePtr enumerate(udev_enumerate_new(context));
    if (!enumerate || udev_enumerate_add_match_subsystem(enumerate.get(), kInputSubsystem) < 0 ||
        udev_enumerate_add_match_property(enumerate.get(), "ID_INPUT_JOYSTICK", "1") < 0 ||
        udev_enumerate_scan_devices(enumerate.get()) < 0) {
        HOST_LOG(DLOG_ERROR, "cannot list the input devices: %s", strerror(errno));
        return kIoError;
    }
    udev_list_entry *entry;
    udev_list_entry_foreach(entry, udev_enumerate_get_list_entry(enumerate.get()))
    {
        UdevDevicePtr device(udev_device_new_from_syspath(context, udev_list_entry_get_name(entry)));
        if (device && IsGamepad(device.get()))
            gamepads.emplace_back(Text(udev_device_get_devpath(device.get())), Describe(device.get()));
    }
    return kOk;
}

struct Watch {
    UdevMonitorPtr monitor;
    SourcePtr source; // declared after the monitor: removed before the monitor's fd closes
    gamepad_connection_cb callback = nullptr;
    void *userData = nullptr;
    std::map<std::string, _gamepad_device_info_s> known; // by devpath
};

std::unique_ptr<Watch> StartWatch(udev *context);
SourcePtr AttachToCallerContext(udev_monitor *monitor);

nimbos::UdevLibrary<Watch> library({kOk, kNotOpen, kIoError, kOutOfMemory, kInvalidParameter}, StartWatch,
                                   AttachToCallerContext);

struct Delivery {
    int event = 0;
    _gamepad_device_info_s info{};
    gamepad_connection_cb callback = nullptr;
    void *userData = nullptr;
};

// What one input event means for the callback's user: the event code, if any.
std::optional<int> Interpret(Watch &state, udev_device *device, _gamepad_device_info_s &info)
{
    const std::string action = Text(udev_device_get_action(device));
    const std::string devpath = Text(udev_device_get_devpath(device));
    if (action == "remove") {
        auto found = state.known.find(devpath);
        if (found == state.known.end())
            return std::nullopt;
        info = found->second;
        state.known.erase(found);
        HOST_LOG(DLOG_DEBUG, "gamepad disconnected: %s", devpath.c_str());
        return GAMEPAD_EVENT_DISCONNECTED;
    }
    if ((action != "add" && action != "change") || state.known.count(devpath) || !IsGamepad(device))
        return std::nullopt;
    info = Describe(device);
    state.known.emplace(devpath, info);
    HOST_LOG(DLOG_DEBUG, "gamepad connected: %s (%s)", devpath.c_str(), info.uid);
    return GAMEPAD_EVENT_CONNECTED;
}

// The next event the callback must hear of. Stale when this source no longer serves the
// current callback (unregistered or replaced meanwhile).
Next NextDelivery(Delivery &delivery)
{
    return library.WithCurrentWatch([&delivery](Watch &watch) {
        for (;;) {
            UdevDevicePtr device(udev_monitor_receive_device(watch.monitor.get()));
            if (!device)
                return Next::Drained;
            if (auto event = Interpret(watch, device.get(), delivery.info)) {
                delivery.event = *event;
                delivery.callback = watch.callback;
                delivery.userData = watch.userData;
                return Next::Deliver;
            }
        }
    });
}

gboolean OnMonitorReadable(gint, GIOCondition, gpointer)
{
    return nimbos::DeliverMonitorEvents<Delivery>(NextDelivery, [](Delivery &delivery) {
        delivery.callback(delivery.event, delivery.info, delivery.userData);
    }, "a gamepad");
}

SourcePtr AttachToCallerContext(udev_monitor *monitor)
{
    return nimbos::AttachMonitorToCallerContext(monitor, OnMonitorReadable, "gamepad monitor");
}

// Listening starts before the gamepads present are read, so one arriving in between is
// announced rather than missed.
std::unique_ptr<Watch> StartWatch(udev *context)
{
    auto state = std::make_unique<Watch>();
    state->monitor = nimbos::OpenSubsystemMonitor(context, kInputSubsystem, "input devices");
    std::vector<Gamepad> present;
    if (!state->monitor || ListGamepads(context, present) != kOk)
        return nullptr;
    for (auto &gamepad : present)
        state->known.insert(std::move(gamepad));
    state->source = AttachToCallerContext(state->monitor.get());
    return state;
}

} // namespace

int gamepad_open(void)
{
    return library.Open();
}

int gamepad_register_connection_callback(gamepad_connection_cb cb, void *user_data)
{
    return library.SetCallback(cb, user_data);
}

int gamepad_unregister_connection_callback(void)
{
    return library.UnsetCallback();
}

int gamepad_maximum_gampad_count(void)
{
    return kGamepadSlots;
}

int gamepad_get_connected_device_Info(_gamepad_device_info_s *info, int index)
{
    if (!info || index < 0 || index >= kGamepadSlots)
        return kInvalidParameter;
    try {
        std::vector<Gamepad> present;
        const int status = library.WithContext([&present](udev *context) { return ListGamepads(context, present); });
        if (status != kOk)
            return status;
        if (static_cast<size_t>(index) >= present.size())
            return kNoGamepadThere;
        *info = present[static_cast<size_t>(index)].second;
        return kOk;
    } catch (const std::bad_alloc &) {
        return kOutOfMemory;
    }
}
