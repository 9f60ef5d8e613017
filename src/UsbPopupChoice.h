// Which popup the attached devices call for once one of them has been unplugged. A plain rule
// over the list of records, so the device manager can apply it under its lock and show the
// popup afterwards.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "NotificationPopup.h"
#include "USBDeviceInfo.h"

struct DevicePopup {
    size_t index; // of the device the popup names
    notification_type type;
};

class CUsbPopupChoice {
public:
    // One popup (only one of the service's popups is on screen at a time), the first rule that
    // applies winning:
    // 1. noise on the USB port for the first device that shares its port with another;
    // 2. may not work normally for the first device whose mixer could not be set and whose user
    //    has not been told (bMaxVolumeFailed and not bNotified);
    // 3. connected for the first device that has just taken the output (its path in
    //    justTaken), else for the first device in use, else for the first device.
    // None for an empty list.
    static std::optional<DevicePopup> ChooseAfterRemoval(const std::vector<USBDeviceInfo> &devices,
                                                         const std::vector<std::string> &justTaken);
};
