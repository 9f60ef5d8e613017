// Notification popups about USB audio devices: not supported, connected, noise on the USB port,
// may not work normally on this product. The texts come from the "hadrix" translation catalogue
// in the menu language. Each popup is built and posted on a short-lived thread of its own, so the
// caller never waits for the notification service; one popup of the service is on screen at a
// time.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "Singleton.h"
#include "nimbos/notification.h"
#include "UniqueHandle.h"

enum notification_type : int {
    NOTI_TYPE_UNSUPPORTED_DEVICE = 0,
    NOTI_TYPE_DEVICE_CONNECTED = 1,
    NOTI_TYPE_USB_PORT_NOISE = 2,
    NOTI_TYPE_MAY_NOT_WORK_NORMALLY = 3,
};

// What kind of product the service runs on, from the system information.
enum product_device_type : int {
    PRODUCT_DEVICE_TV = 1,
    PRODUCT_DEVICE_SMART_MONITOR = 2,
    PRODUCT_DEVICE_KESTRAL_ARK = 3,
    PRODUCT_DEVICE_SCREEN = 4, // a screen with a removable tuner
};

// The product type for a device key value (none when unreadable) and, for "REP.DEVICE.SCREEN",
// the removable-tuner feature (none when unreadable).
product_device_type DecideProductDeviceType(const std::optional<std::string> &deviceSid,
                                            std::optional<bool> removableTuner);

struct PopupContent {
    std::string title;
    std::string content;
    bool portGuide = false; // the USB-port guide image in the guide layout
};

// The texts of a popup. translate looks a message id up in the catalogue; isEasel32 is asked
// only when the choice depends on it (the noise popup on a TV).
PopupContent ChoosePopupContent(notification_type type, const std::string &name, int productDeviceType,
                                const std::function<std::string(const char *)> &translate,
                                const std::function<bool()> &isEasel32);

class CNotificationPopup : public CSingleton<CNotificationPopup> {
    friend class CSingleton<CNotificationPopup>;

public:
    // Waits out the popup being built; later workers give up.
    ~CNotificationPopup() override;

    // Shows a popup of this kind about the device called name (empty: no name). Returns at once.
    void ShowNotiPopup(notification_type type, const std::string &name);

    // The process is ending: waits for the popup being built (at most the notification
    // service's two bounded calls) and makes workers that have not begun give up, so no worker
    // is inside the notification service or the catalogue while the process winds down.
    void FinishPopups();

    int GetProductDeviceType() const { return m_ProductDeviceType; }

private:
    CNotificationPopup();

    static int m_ReadProductDeviceType();
    static void m_AsyncThreadEntry(CNotificationPopup *self);
    void m_ShowNotiPopup(notification_type type, const std::string &name);
    void m_ShowPending();
    static void m_OnUSBSpeakerNotiCB(notification *noti, int event_type, void *user_data);

    // The popup on screen; replaced (and taken down) by the next one. Workers only, under m_Mutex.
    UniqueHandle<notification, notification_delete> m_Notification;
    const int m_ProductDeviceType;
    // The last kind and name asked for: a worker shows what is pending when its turn comes, so
    // a second request before the first worker has begun makes both show the second popup.
    notification_type m_PendingType = NOTI_TYPE_DEVICE_CONNECTED;
    std::string m_PendingName;
    const uint32_t m_CreateTime;
    // Serialises the workers.
    std::mutex m_Mutex;
    // Guards the pending kind and name between the caller and the workers.
    std::mutex m_PendingMutex;
    bool m_Finished = false; // under m_Mutex
    std::atomic<int> m_Workers{0};
};
