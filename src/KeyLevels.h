// The rules of the volume keys that need no platform: the level a press gives, the direction
// word the TV viewer shows, and which kind of device a key came from.
#pragma once

#include <functional>
#include <string>

// The kind of device a volume key came from.
enum KeyDeviceClass {
    KEY_DEVICE_REMOTE = 0,        // the remote control, or a device that cannot be named
    KEY_DEVICE_SMART_CONTROL = 1, // the smart remote control
    KEY_DEVICE_USB_HEADSET = 2,   // an attached USB audio device's own buttons
    KEY_DEVICE_OTHER = 3,
};

class CKeyLevels {
public:
    static constexpr int kMinLevel = 0;
    static constexpr int kMaxLevel = 100;

    // The first press of a hold moves the stored level by 1.
    static int FirstPressLevel(int storedLevel, bool up);
    // Every repeat of a held key moves the working level by 2.
    static int HeldPressLevel(int workingLevel, bool up);
    // "up" or "down" by the change from the stored level (no change counts as down), with "2"
    // appended while the key is held.
    static std::string DirectionWord(int level, int storedLevel, bool held);
    // isUsbDevice answers whether the name belongs to an attached USB audio device.
    static KeyDeviceClass ClassifyDevice(const std::string &deviceName,
                                         const std::function<bool(const std::string &)> &isUsbDevice);
};
