// Notification popups on the host: a client of the freedesktop notification service
// (org.freedesktop.Notifications) on the system bus. Title and content are the summary and the
// body; layout, display applist, image and auto-removal travel as hints; the hide timeout is the
// expire timeout.
#include "nimbos/notification.h"

#include "nimbos/paths.h"

#include "HostLog.h"
#include "PlatformService.h"

#include <cstdarg>
#include <cstring>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unistd.h>

namespace {

using nimbos::kServiceOk;
using nimbos::PlatformService;
using nimbos::SignalSubscription;

static_assert(nimbos::UsesServiceCodes(NOTIFICATION_ERROR_NONE, NOTIFICATION_ERROR_IO_ERROR,
                                       NOTIFICATION_ERROR_TIMED_OUT, NOTIFICATION_ERROR_INVALID_PARAMETER));

constexpr char kAppName[] = "hadrix";
constexpr char kPlaceholder[] = "%s";
constexpr gint32 kServerDefaultExpiry = -1;
constexpr int kMsPerSecond = 1000;

// The freedesktop reasons of NotificationClosed.
constexpr guint32 kClosedExpired = 1;
constexpr guint32 kClosedDismissed = 2;

// Popups are posted from detached threads that may still be finishing while the process exits,
// so the client is never destroyed.
const PlatformService &NotificationService()
{
    static const PlatformService *service = new PlatformService("org.freedesktop.Notifications");
    return *service;
}

// Who is told when a posted notification goes away. Shared with the signal subscription, which
// may deliver after the handle is gone: `active` is cleared, under the lock, before the handle
// is freed, and the callback runs under the same lock, so it never sees a freed handle. The
// lock is recursive because the callback may delete its own handle.
struct EventDelivery {
    std::recursive_mutex lock;
    bool active = true;
    notification *noti = nullptr;
    guint32 id = 0;
    notification_event_cb cb = nullptr;
    void *userData = nullptr;
};

int EventOf(guint32 reason)
{
    switch (reason) {
    case kClosedExpired: return NOTIFICATION_EVENT_EXPIRED;
    case kClosedDismissed: return NOTIFICATION_EVENT_DISMISSED;
    default: return NOTIFICATION_EVENT_CLOSED;
    }
}

struct ClosedEvent {
    std::shared_ptr<EventDelivery> delivery;
    guint32 id;
    guint32 reason;
};

gboolean DeliverClosed(gpointer data)
{
    std::unique_ptr<ClosedEvent> event(static_cast<ClosedEvent *>(data));
    EventDelivery &delivery = *event->delivery;
    std::lock_guard<std::recursive_mutex> lock(delivery.lock);
    if (delivery.active && delivery.id == event->id && delivery.cb)
        delivery.cb(delivery.noti, EventOf(event->reason), delivery.userData);
    return G_SOURCE_REMOVE;
}

} // namespace

struct notification {
    std::string title;
    std::string content;
    std::optional<gint32> layout;
    std::optional<gint32> displayApplist;
    std::optional<bool> autoRemove;
    std::string imagePath; // empty: none
    gint32 expireMs = kServerDefaultExpiry;
    guint32 id = 0; // the service's id once posted
    std::shared_ptr<EventDelivery> events;
    std::unique_ptr<SignalSubscription> closedSubscription;
};

namespace {

// Bus texts must be UTF-8; a device's name or a catalogue in another codeset may not be.
std::string ValidUtf8(const char *text)
{
    g_autofree gchar *valid = g_utf8_make_valid(text, -1);
    return valid;
}

std::string FillPlaceholders(const char *text, int argCount, va_list args)
{
    std::string result;
    const std::string source(text);
    size_t from = 0;
    for (int i = 0; i < argCount; ++i) {
        const size_t at = source.find(kPlaceholder, from);
        const char *argument = va_arg(args, const char *);
        if (at == std::string::npos)
            break;
        result += source.substr(from, at - from);
        result += argument ? argument : "";
        from = at + strlen(kPlaceholder);
    }
    return result + source.substr(from);
}

GVariant *HintsOf(const notification &noti)
{
    GVariantBuilder hints;
    g_variant_builder_init(&hints, G_VARIANT_TYPE("a{sv}"));
    if (!noti.imagePath.empty())
        g_variant_builder_add(&hints, "{sv}", "image-path", g_variant_new_string(noti.imagePath.c_str()));
    if (noti.layout)
        g_variant_builder_add(&hints, "{sv}", "x-nimbos-layout", g_variant_new_int32(*noti.layout));
    if (noti.displayApplist)
        g_variant_builder_add(&hints, "{sv}", "x-nimbos-display-applist", g_variant_new_int32(*noti.displayApplist));
    if (noti.autoRemove)
        g_variant_builder_add(&hints, "{sv}", "resident", g_variant_new_boolean(!*noti.autoRemove));
    return g_variant_builder_end(&hints);
}

int Notify(notification &noti)
{
    GVariant *arguments = g_variant_new("(susss@as@a{sv}i)", kAppName, noti.id, "", noti.title.c_str(),
                                        noti.content.c_str(), g_variant_new_strv(nullptr, 0), HintsOf(noti),
                                        noti.expireMs);
    return NotificationService().ReadUint32("Notify", arguments, &noti.id);
}

// The handle stops hearing about its notification: from here on its callback is never called.
void StopEvents(notification &noti)
{
    if (!noti.events)
        return;
    {
        std::lock_guard<std::recursive_mutex> lock(noti.events->lock);
        noti.events->active = false;
    }
    noti.closedSubscription.reset();
    noti.events.reset();
}

void ListenForClose(notification &noti, notification_event_cb cb, void *userData)
{
    if (!noti.events) {
        auto delivery = std::make_shared<EventDelivery>();
        delivery->noti = &noti;
        // Handed to the default main context whichever context the signal arrives on.
        auto forward = [delivery](GVariant *arguments) {
            auto *event = new ClosedEvent{delivery, 0, 0};
            g_variant_get(arguments, "(uu)", &event->id, &event->reason);
            g_main_context_invoke(nullptr, DeliverClosed, event);
        };
        noti.closedSubscription = NotificationService().Subscribe("NotificationClosed", G_VARIANT_TYPE("(uu)"), forward);
        noti.events = delivery;
    }
    std::lock_guard<std::recursive_mutex> lock(noti.events->lock);
    noti.events->id = noti.id;
    noti.events->cb = cb;
    noti.events->userData = userData;
}

int Release(notification_h noti, bool takeDown)
{
    if (!noti)
        return NOTIFICATION_ERROR_INVALID_PARAMETER;
    std::unique_ptr<notification> owned(noti);
    StopEvents(*owned);
    if (!takeDown || owned->id == 0)
        return NOTIFICATION_ERROR_NONE;
    return NotificationService().Command("CloseNotification", g_variant_new("(u)", owned->id));
}

} // namespace

extern "C" notification_h notification_create(notification_style_e style)
{
    if (style != NOTIFICATION_STYLE_SIMPLE) {
        HOST_LOG(DLOG_ERROR, "notification style %d refused: only the simple style exists", style);
        return nullptr;
    }
    return new notification();
}

extern "C" int notification_delete(notification_h noti)
{
    return Release(noti, true);
}

extern "C" int notification_free(notification_h noti)
{
    return Release(noti, false);
}

extern "C" int notification_set_text(notification_h noti, notification_text_part_e part, const char *text,
                                     int arg_count, ...)
{
    if (!noti || !text)
        return NOTIFICATION_ERROR_INVALID_PARAMETER;
    if (arg_count < NOTIFICATION_TEXT_NO_ARGS ||
        (part != NOTIFICATION_TEXT_TITLE && part != NOTIFICATION_TEXT_CONTENT)) {
        HOST_LOG(DLOG_ERROR, "notification text refused: part %d with %d arguments", part, arg_count);
        return NOTIFICATION_ERROR_INVALID_PARAMETER;
    }
    std::string filled = text;
    if (arg_count > 0) {
        va_list args;
        va_start(args, arg_count);
        filled = FillPlaceholders(text, arg_count, args);
        va_end(args);
    }
    (part == NOTIFICATION_TEXT_TITLE ? noti->title : noti->content) = ValidUtf8(filled.c_str());
    return NOTIFICATION_ERROR_NONE;
}

extern "C" int notification_set_layout(notification_h noti, int layout)
{
    if (!noti)
        return NOTIFICATION_ERROR_INVALID_PARAMETER;
    noti->layout = layout;
    return NOTIFICATION_ERROR_NONE;
}

extern "C" int notification_set_image(notification_h noti, int image_type, const char *path)
{
    if (!noti || !path)
        return NOTIFICATION_ERROR_INVALID_PARAMETER;
    if (image_type < 0) {
        HOST_LOG(DLOG_ERROR, "notification image type %d refused: negative", image_type);
        return NOTIFICATION_ERROR_INVALID_PARAMETER;
    }
    // The notification service opens the file: it gets the place of the platform path here.
    std::string resolved = nimbos::Path(path);
    if (access(resolved.c_str(), R_OK) != 0)
        HOST_LOG(DLOG_WARN, "notification image %s is not readable: the popup shows none", resolved.c_str());
    noti->imagePath = ValidUtf8(resolved.c_str());
    return NOTIFICATION_ERROR_NONE;
}

extern "C" int notification_set_display_applist(notification_h noti, int applist)
{
    if (!noti)
        return NOTIFICATION_ERROR_INVALID_PARAMETER;
    noti->displayApplist = applist;
    return NOTIFICATION_ERROR_NONE;
}

extern "C" int notification_set_hide_timeout(notification_h noti, int seconds)
{
    if (!noti)
        return NOTIFICATION_ERROR_INVALID_PARAMETER;
    if (seconds < 0 || seconds > G_MAXINT32 / kMsPerSecond) {
        HOST_LOG(DLOG_ERROR, "notification hide timeout %d s refused: out of range", seconds);
        return NOTIFICATION_ERROR_INVALID_PARAMETER;
    }
    noti->expireMs = seconds * kMsPerSecond;
    return NOTIFICATION_ERROR_NONE;
}

extern "C" int notification_set_auto_remove(notification_h noti, bool auto_remove)
{
    if (!noti)
        return NOTIFICATION_ERROR_INVALID_PARAMETER;
    noti->autoRemove = auto_remove;
    return NOTIFICATION_ERROR_NONE;
}

extern "C" int notification_post(notification_h noti)
{
    if (!noti)
        return NOTIFICATION_ERROR_INVALID_PARAMETER;
    return Notify(*noti);
}

extern "C" int notification_post_with_event_cb(notification_h noti, notification_event_cb cb, void *user_data)
{
    if (!noti || !cb)
        return NOTIFICATION_ERROR_INVALID_PARAMETER;
    int ret = Notify(*noti);
    if (ret == kServiceOk)
        ListenForClose(*noti, cb, user_data);
    return ret;
}
