// Telling the devices that are not headsets apart: gamepads whose audio function shows as a USB
// sound card, and key events from an attached USB audio device's own buttons.
//
// The gamepad list follows the gamepad library's connection events, which it delivers on the
// main loop (the context of the thread that registered), where the attach path reads the list.
#include <cstdlib>
#include <mutex>
#include <string>

#include <libudev.h>

#include "Decision.h"
#include "HadrixUtil.h"
#include "Log.h"
#include "USBDevice.h"
#include "UniqueHandle.h"

namespace {

using UdevPtr = UniqueHandle<udev, udev_unref>;
using UdevDevicePtr = UniqueHandle<udev_device, udev_device_unref>;
using UdevEnumeratePtr = UniqueHandle<udev_enumerate, udev_enumerate_unref>;

constexpr int kGamepadLibraryOk = 1;

// A USB id as udev writes it ("054c").
bool ParseHexId(const char *text, int &id)
{
    char *end = nullptr;
    const long value = std::strtol(text, &end, 16);
    if (end == text || *end != '\0' || value < 0 || value > 0xffff)
        return false;
    id = static_cast<int>(value);
    return true;
}

// An input device marked as a joystick whose USB ids are the given ones; a device lacking one of
// the properties is passed over.
bool IsJoystickWithIds(udev_device *input, int productId, int vendorId)
{
    const char *joystick = udev_device_get_property_value(input, "ID_INPUT_JOYSTICK");
    if (!joystick)
        return false;
    LOGD("  sIDInput: %s", joystick);
    const char *pid = udev_device_get_property_value(input, "ID_MODEL_ID");
    if (!pid)
        return false;
    LOGD("  sPID: %s", pid);
    const char *vid = udev_device_get_property_value(input, "ID_VENDOR_ID");
    if (!vid)
        return false;
    LOGD("  sVID: %s", vid);
    int nPid = 0, nVid = 0;
    if (!ParseHexId(pid, nPid) || !ParseHexId(vid, nVid)) {
        LOGW("%s has ids that are no numbers", udev_device_get_syspath(input));
        return false;
    }
    LOGD("nVID : %d, nPID : %d", nVid, nPid);
    return nVid == vendorId && nPid == productId;
}

} // namespace

gboolean CUSBDevice::m_RegisterGamepadCb(gpointer data)
{
    auto *self = static_cast<CUSBDevice *>(data);
    if (!self)
        return G_SOURCE_REMOVE;
    const int opened = gamepad_open();
    if (opened == kGamepadLibraryOk) {
        const int registered = gamepad_register_connection_callback(m_GamepadConnectionCb, self);
        self->m_GamepadCbRegistered = registered == kGamepadLibraryOk;
        LOGI("register gamepad cb : %d", registered);
        self->m_InitGamepadList();
    } else {
        LOGE("gamepad_open fail : %d", opened);
    }
    return G_SOURCE_REMOVE;
}

void CUSBDevice::m_InitGamepadList()
{
    const int count = gamepad_maximum_gampad_count();
    for (int index = 0; index < count; ++index) {
        _gamepad_device_info_s info{};
        if (gamepad_get_connected_device_Info(&info, index) == kGamepadLibraryOk) {
            LOGI("%d gamepad device name : %s, uid : %s", index, info.name, info.uid);
            m_UpdateGamepadList(GAMEPAD_EVENT_CONNECTED, info);
        } else {
            LOGD("gamepad_get_connected_device_Info %d return fail", index);
        }
    }
}

void CUSBDevice::m_GamepadConnectionCb(int event, _gamepad_device_info_s info, void *data)
{
    if (!data)
        return;
    static_cast<CUSBDevice *>(data)->m_UpdateGamepadList(event, info);
}

void CUSBDevice::m_UpdateGamepadList(int event, const _gamepad_device_info_s &info)
{
    m_GamepadList.Update(event, info);
}

bool CUSBDevice::m_CheckGamepad(usb_device_s *device, const char **rule)
{
    const char *matched = m_MatchGamepad(device);
    if (rule)
        *rule = matched;
    return matched != nullptr;
}

const char *CUSBDevice::m_MatchGamepad(usb_device_s *device)
{
    LOGD("m_CheckGamepadDevice");
    const USBDeviceInfo info = CUsbDeviceSnapshot::Of(device).info;
    const std::string &manufacturer = info.strManufature;
    const std::string &product = info.strProductName;
    const int vendorId = info.nVendorId;
    const int productId = info.nProductId;
    LOGI("manufacturer:[%s],product:[%s], vendorId: [%d], productId: [%d]", manufacturer.c_str(), product.c_str(),
         vendorId, productId);
    const std::string fullName = "\"" + manufacturer + " " + product + "\"";
    LOGD("fullname = %s", fullName.c_str());

    const CGamepadList &known = CGamepadList::Known();
    const bool knownIds = known.HasIds(vendorId, productId);
    if (knownIds || known.HasName(manufacturer)) {
        LOGI("device exist in knownlist");
        return knownIds ? decision::kGamepadKnownIds : decision::kGamepadKnownMaker;
    }
    if (m_GamepadList.HasIds(vendorId, productId)) {
        LOGI("device exist in the gamepad list with the same pid&vid");
        return decision::kGamepadListIds;
    }
    if (m_GamepadList.HasName(fullName)) {
        LOGI("device exist in the gamepad list with the same name");
        return decision::kGamepadListName;
    }
    return m_CheckIDInputJoySticks(productId, vendorId) ? decision::kGamepadJoystick : nullptr;
}

bool CUSBDevice::m_CheckIDInputJoySticks(int productId, int vendorId)
{
    UdevPtr context(udev_new());
    if (!context) {
        LOGE("Can't create udev");
        return false;
    }
    UdevEnumeratePtr enumerate(udev_enumerate_new(context.get()));
    if (!enumerate || udev_enumerate_add_match_subsystem(enumerate.get(), "input") < 0 ||
        udev_enumerate_scan_devices(enumerate.get()) < 0) {
        LOGE("Can't list the input devices");
        return false;
    }
    udev_list_entry *entries = udev_enumerate_get_list_entry(enumerate.get());
    if (!entries)
        LOGD("there is no device");
    udev_list_entry *entry;
    udev_list_entry_foreach(entry, entries)
    {
        UdevDevicePtr input(udev_device_new_from_syspath(context.get(), udev_list_entry_get_name(entry)));
        if (input && IsJoystickWithIds(input.get(), productId, vendorId)) {
            LOGI("same vid & pid, return true");
            return true;
        }
    }
    LOGD("m_CheckIDInputJoySticks out");
    return false;
}

bool CUSBDevice::CheckWhetherUsbDevice(const std::string &deviceName)
{
    LOGD("CheckWhetherUsbDevice devicename:[%s]", deviceName.c_str());
    std::lock_guard<std::mutex> lock(m_VecMutex);
    for (size_t index = 0; index < m_VecUSBHeadset.size(); ++index) {
        const USBDeviceInfo &device = m_VecUSBHeadset[index];
        // A record without names would match every device name that holds a blank.
        if (device.strManufature.empty() && device.strProductName.empty())
            continue;
        const std::string fullName = device.strManufature + " " + device.strProductName;
        LOGD("CheckWhetherUsbDevice fullname:[%s]", fullName.c_str());
        if (deviceName.find(fullName) != std::string::npos) {
            LOGI("devicename:[%s] is found in m_VecUSBHeadset[%zu],fullname:[%s]", deviceName.c_str(), index,
                 fullName.c_str());
            return true;
        }
    }
    return false;
}
