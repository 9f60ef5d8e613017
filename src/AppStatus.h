// A passive holder of the application's status and USB mode; nothing in the service acts on it.
#pragma once

#include <cstdint>

#include "Singleton.h"

enum app_status : int32_t { APP_STATUS_NONE = 0 };
enum usb_mode : int32_t { USB_MODE_NONE = 0 };

class CAppStatus : public CSingleton<CAppStatus> {
    friend class CSingleton<CAppStatus>;

public:
    ~CAppStatus() override = default;

    app_status GetAppStatus() const { return m_appStatus; }
    void SetAppStatus(app_status status) { m_appStatus = status; }
    usb_mode GetAppMode() const { return m_usbMode; }
    void SetAppMode(usb_mode mode) { m_usbMode = mode; }

private:
    CAppStatus() = default;

    app_status m_appStatus = APP_STATUS_NONE;
    usb_mode m_usbMode = USB_MODE_NONE;
};
