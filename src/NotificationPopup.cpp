#include "NotificationPopup.h"

#include <libintl.h>

#include <cstdlib>
#include <system_error>
#include <thread>

#include <glib.h>

#include "HadrixUtil.h"
#include "Log.h"
#include "nimbos/system_info.h"
#include "UniqueHandle.h"

namespace {

constexpr char kTextDomain[] = "hadrix";

constexpr char kDeviceSidKey[] = "com.corvel/featureconf/product.device_sid";
constexpr char kRemovableTunerKey[] = "com.corvel/featureconf/broadcast.removable_rf_tuner_support";
constexpr char kSmartMonitorSid[] = "REP.DEVICE.SMART.MONITOR";
constexpr char kKestralArkSid[] = "REP.DEVICE.KESTRAL.ARK";
constexpr char kScreenSid[] = "REP.DEVICE.SCREEN";

constexpr char kConnectTitle[] = "TV_SID_CONNECT";
constexpr char kNotSupported[] = "TV_SID_SOUND_CBDEC_USB_DEVICE_NOT_SUPPORTED";
constexpr char kConnected[] = "TV_SID_SOUND_MIX_CBSEP_CONNECT_USB_AUDIO_DEVICE_MSG";
constexpr char kNamePlaceholder[] = "<<A>>";
constexpr char kConnectToAnotherPort[] = "TV_SID_SOUND_CCJUN_CONNECT_TO_ANOTHER_USB";
constexpr char kSpace[] = "SID_SPACE";
constexpr char kNoiseOnPort[] = "TV_SID_SOUND_CCJUN_NOISE_OCCUR_USB_PORT_CONNECTED";
constexpr char kMayNotWorkOnTv[] = "REP.DEVICE.TV_SID_SOUND_CCJUL_CONNECTED_DEVICE_NORMALLY_ON_DEVICE";
constexpr char kMayNotWorkOnSmartMonitor[] =
    "REP.DEVICE.SMART.MONITOR_SID_SOUND_CCJUL_CONNECTED_DEVICE_NORMALLY_ON_DEVICE";
constexpr char kMayNotWorkOnKestralArk[] = "REP.DEVICE.KESTRAL.ARK_SID_SOUND_CCJUL_CONNECTED_DEVICE_NORMALLY_ON_DEVICE";
constexpr char kMayNotWorkOnScreen[] = "REP.DEVICE.SCREEN_SID_SOUND_CCJUL_CONNECTED_DEVICE_NORMALLY_ON_DEVICE";

constexpr int kGuideLayout = 3;
constexpr int kGuideImageType = 5;
constexpr char kGuideImage[] = "/usr/apps/hadrix/shared/res/img_usb_port_guide.svg";
constexpr int kHideTimeoutSec = 60;
// How often the destructor looks whether the last worker has left.
constexpr gulong kWorkerPollUs = 1000;

using PlatformText = UniqueHandle<char, free>;

std::string Translate(const char *messageId)
{
    return dgettext(kTextDomain, messageId);
}

std::string WithoutPlaceholder(std::string text)
{
    std::string filled = CUsbServiceUtil::ReplaceStr(text, kNamePlaceholder, "");
    while (filled != text) {
        text = filled;
        filled = CUsbServiceUtil::ReplaceStr(text, kNamePlaceholder, "");
    }
    return text;
}

const char *MayNotWorkText(int productDeviceType)
{
    switch (productDeviceType) {
    case PRODUCT_DEVICE_SMART_MONITOR: return kMayNotWorkOnSmartMonitor;
    case PRODUCT_DEVICE_KESTRAL_ARK: return kMayNotWorkOnKestralArk;
    case PRODUCT_DEVICE_SCREEN: return kMayNotWorkOnScreen;
    default: return kMayNotWorkOnTv;
    }
}

} // namespace

product_device_type DecideProductDeviceType(const std::optional<std::string> &deviceSid,
                                            std::optional<bool> removableTuner)
{
    if (!deviceSid)
        return PRODUCT_DEVICE_TV;
    if (*deviceSid == kSmartMonitorSid)
        return PRODUCT_DEVICE_SMART_MONITOR;
    if (*deviceSid == kKestralArkSid)
        return PRODUCT_DEVICE_KESTRAL_ARK;
    if (*deviceSid == kScreenSid && removableTuner.value_or(false))
        return PRODUCT_DEVICE_SCREEN;
    return PRODUCT_DEVICE_TV;
}

PopupContent ChoosePopupContent(notification_type type, const std::string &name, int productDeviceType,
                                const std::function<std::string(const char *)> &translate,
                                const std::function<bool()> &isEasel32)
{
    PopupContent popup;
    popup.title = name.empty() ? translate(kConnectTitle) : name;
    switch (type) {
    case NOTI_TYPE_UNSUPPORTED_DEVICE:
        popup.content = translate(kNotSupported);
        break;
    case NOTI_TYPE_DEVICE_CONNECTED:
        // The name stands in the title.
        popup.content = WithoutPlaceholder(translate(kConnected));
        break;
    case NOTI_TYPE_USB_PORT_NOISE:
        if (productDeviceType == PRODUCT_DEVICE_TV && !isEasel32()) {
            popup.content = translate(kConnectToAnotherPort) + translate(kSpace) + translate(kNoiseOnPort);
            popup.portGuide = true;
        } else {
            popup.content = translate(kNoiseOnPort);
        }
        break;
    case NOTI_TYPE_MAY_NOT_WORK_NORMALLY:
        popup.content = translate(MayNotWorkText(productDeviceType));
        break;
    }
    return popup;
}

CNotificationPopup::CNotificationPopup()
    : m_ProductDeviceType(m_ReadProductDeviceType()), m_CreateTime(CUsbServiceUtil::GetUptime())
{
    LOGD("product device type %d, popups ready at %u ms", m_ProductDeviceType, m_CreateTime);
}

CNotificationPopup::~CNotificationPopup()
{
    FinishPopups();
    while (m_Workers.load(std::memory_order_acquire) > 0)
        g_usleep(kWorkerPollUs);
}

int CNotificationPopup::m_ReadProductDeviceType()
{
    char *raw = nullptr;
    if (system_info_get_feature_string(kDeviceSidKey, &raw) != SYSTEM_INFO_ERROR_NONE || !raw) {
        LOGE("fail to get com.corvel/featureconf/product.product_type");
        return PRODUCT_DEVICE_TV;
    }
    const std::string sid = PlatformText(raw).get();
    std::optional<bool> removableTuner;
    bool tuner = false;
    if (sid == kScreenSid && system_info_get_feature_bool(kRemovableTunerKey, &tuner) == SYSTEM_INFO_ERROR_NONE)
        removableTuner = tuner;
    return DecideProductDeviceType(sid, removableTuner);
}

void CNotificationPopup::ShowNotiPopup(notification_type type, const std::string &name)
{
    {
        std::lock_guard<std::mutex> lock(m_PendingMutex);
        m_PendingType = type;
        m_PendingName = name;
    }
    m_Workers.fetch_add(1, std::memory_order_relaxed);
    try {
        std::thread(m_AsyncThreadEntry, this).detach();
    } catch (const std::system_error &error) {
        m_Workers.fetch_sub(1, std::memory_order_release);
        LOGE("no thread for the popup: %s", error.what());
    }
}

void CNotificationPopup::FinishPopups()
{
    std::lock_guard<std::mutex> lock(m_Mutex);
    m_Finished = true;
}

void CNotificationPopup::m_AsyncThreadEntry(CNotificationPopup *self)
{
    if (!self)
        return;
    {
        std::lock_guard<std::mutex> lock(self->m_Mutex);
        if (!self->m_Finished)
            self->m_ShowPending();
    }
    // The last touch of the object: whoever waits for the workers may go on from here.
    self->m_Workers.fetch_sub(1, std::memory_order_release);
}

void CNotificationPopup::m_ShowPending()
{
    notification_type type;
    std::string name;
    {
        std::lock_guard<std::mutex> lock(m_PendingMutex);
        type = m_PendingType;
        name = m_PendingName;
    }
    m_ShowNotiPopup(type, name);
}

void CNotificationPopup::m_ShowNotiPopup(notification_type type, const std::string &name)
{
    LOGI("[START] notification type %d", type);
    // The popup on screen goes down before the next one is made: one popup at a time.
    m_Notification.reset();
    m_Notification.reset(notification_create(NOTIFICATION_STYLE_SIMPLE));
    notification *noti = m_Notification.get();
    if (!noti) {
        LOGE("notification_create failed");
        return;
    }
    const PopupContent popup =
        ChoosePopupContent(type, name, m_ProductDeviceType, Translate, CUsbServiceUtil::IsEasel32TV);
    notification_set_text(noti, NOTIFICATION_TEXT_TITLE, popup.title.c_str(), NOTIFICATION_TEXT_NO_ARGS);
    notification_set_text(noti, NOTIFICATION_TEXT_CONTENT, popup.content.c_str(), NOTIFICATION_TEXT_NO_ARGS);
    if (popup.portGuide) {
        notification_set_layout(noti, kGuideLayout);
        int ret = notification_set_image(noti, kGuideImageType, kGuideImage);
        LOGI("ret : %d, imagePath : %s", ret, kGuideImage);
    }
    notification_set_display_applist(noti, NOTIFICATION_DISPLAY_AREA_POPUP);
    notification_set_hide_timeout(noti, kHideTimeoutSec);
    notification_set_auto_remove(noti, false);
    int ret = notification_post_with_event_cb(noti, m_OnUSBSpeakerNotiCB, this);
    LOGI("notification_post :%d", ret);
}

void CNotificationPopup::m_OnUSBSpeakerNotiCB(notification *, int event_type, void *)
{
    LOGI("event_type: %d", event_type);
}
