#include "KeyLevels.h"

#include <algorithm>

#include "Log.h"

namespace {

constexpr int kFirstPressStep = 1;
constexpr int kHeldPressStep = 2;

constexpr char kRemoteDeviceName[] = "rc device";
constexpr char kSmartControlName[] = "Smart Control";

// A stored level outside the range (the settings store takes any number) still ends inside it.
int StepWithin(int level, int step, bool up)
{
    return std::clamp(up ? level + step : level - step, CKeyLevels::kMinLevel, CKeyLevels::kMaxLevel);
}

} // namespace

int CKeyLevels::FirstPressLevel(int storedLevel, bool up)
{
    return StepWithin(storedLevel, kFirstPressStep, up);
}

int CKeyLevels::HeldPressLevel(int workingLevel, bool up)
{
    return StepWithin(workingLevel, kHeldPressStep, up);
}

std::string CKeyLevels::DirectionWord(int level, int storedLevel, bool held)
{
    std::string word = level - storedLevel < 1 ? "down" : "up";
    if (held)
        word += "2";
    return word;
}

KeyDeviceClass CKeyLevels::ClassifyDevice(const std::string &deviceName,
                                          const std::function<bool(const std::string &)> &isUsbDevice)
{
    if (deviceName.find(kRemoteDeviceName) != std::string::npos)
        return KEY_DEVICE_REMOTE;
    if (deviceName.find(kSmartControlName) != std::string::npos)
        return KEY_DEVICE_SMART_CONTROL;
    if (isUsbDevice(deviceName)) {
        LOGI("found in usb device list");
        return KEY_DEVICE_USB_HEADSET;
    }
    LOGD("not found in usb device list");
    return KEY_DEVICE_OTHER;
}
