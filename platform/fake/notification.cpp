// Fake notification popups: every post kept for the test (Posted), the notifications on screen
// with ids as a notification service gives them, and the event callbacks that hear when a test
// closes one (CloseNotification).
#include "nimbos/notification.h"

#include "FakeCore.h"

#include <algorithm>
#include <cstdarg>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <optional>

namespace {

using nimbos::fake::Notification;
using nimbos::fake::Service;
using nimbos::fake::detail::Enter;
using nimbos::fake::detail::Flag;
using nimbos::fake::detail::Text;

constexpr char kPlaceholder[] = "%s";

} // namespace

struct notification {
    Notification shown; // what a post shows; its id once posted
    unsigned long listener = 0; // the event callback's registration, 0 without one
    // Held while its event callback runs, and by whoever stops the callback: the handle is never
    // freed under a running callback. Recursive: the callback may delete its own handle.
    std::shared_ptr<std::recursive_mutex> eventLock = std::make_shared<std::recursive_mutex>();
};

namespace {

// Who hears that a posted notification went away.
struct Listener {
    notification *noti;
    std::shared_ptr<std::recursive_mutex> eventLock;
    int id;
    notification_event_cb cb;
    void *userData;
};

struct Screen {
    std::mutex lock;
    int nextId = 1;
    std::vector<Notification> posted;
    std::vector<Notification> onScreen; // oldest first
    std::vector<int> deleted;
    std::map<unsigned long, Listener> listeners;
};

Screen &TheScreen()
{
    static Screen *screen = new Screen;
    return *screen;
}

std::optional<int> Unavailable()
{
    return nimbos::fake::detail::Unavailable(Service::Notifications, NOTIFICATION_ERROR_IO_ERROR,
                                             NOTIFICATION_ERROR_TIMED_OUT);
}

// Under the lock.
std::vector<Notification>::iterator OnScreen(Screen &screen, int id)
{
    return std::find_if(screen.onScreen.begin(), screen.onScreen.end(),
                        [id](const Notification &shown) { return shown.id == id; });
}

void Show(notification &noti, bool withEventCallback)
{
    Screen &screen = TheScreen();
    std::lock_guard<std::mutex> lock(screen.lock);
    noti.shown.withEventCallback = withEventCallback;
    auto current = OnScreen(screen, noti.shown.id);
    if (noti.shown.id != 0 && current != screen.onScreen.end()) {
        *current = noti.shown;
    } else {
        noti.shown.id = screen.nextId++;
        screen.onScreen.push_back(noti.shown);
    }
    screen.posted.push_back(noti.shown);
}

void Listen(notification &noti, notification_event_cb cb, void *userData)
{
    Screen &screen = TheScreen();
    std::lock_guard<std::mutex> lock(screen.lock);
    if (!noti.listener)
        noti.listener = nimbos::fake::detail::NewRegistrationId();
    screen.listeners[noti.listener] = Listener{&noti, noti.eventLock, noti.shown.id, cb, userData};
}

void StopListening(notification &noti)
{
    std::lock_guard<std::recursive_mutex> events(*noti.eventLock);
    Screen &screen = TheScreen();
    std::lock_guard<std::mutex> lock(screen.lock);
    screen.listeners.erase(noti.listener);
}

// The listener as it stands, if it still hears about notification id.
std::optional<Listener> FindListener(unsigned long listener, int id)
{
    Screen &screen = TheScreen();
    std::lock_guard<std::mutex> lock(screen.lock);
    auto found = screen.listeners.find(listener);
    if (found == screen.listeners.end() || found->second.id != id)
        return std::nullopt; // deleted, freed or posted anew meanwhile
    return found->second;
}

void DeliverEvent(unsigned long listener, int id, int eventType)
{
    const auto heard = FindListener(listener, id);
    if (!heard)
        return;
    std::lock_guard<std::recursive_mutex> events(*heard->eventLock);
    // Looked at again under the handle's lock: it may have stopped listening in between.
    if (FindListener(listener, id))
        heard->cb(heard->noti, eventType, heard->userData);
}

// Takes the notification off the screen; returns whether it was there.
bool TakeDown(int id)
{
    Screen &screen = TheScreen();
    std::lock_guard<std::mutex> lock(screen.lock);
    auto shown = OnScreen(screen, id);
    if (shown == screen.onScreen.end())
        return false;
    screen.onScreen.erase(shown);
    return true;
}

int Release(notification_h noti, bool takeDown)
{
    if (!noti)
        return NOTIFICATION_ERROR_INVALID_PARAMETER;
    StopListening(*noti);
    const int id = noti->shown.id;
    delete noti;
    if (!takeDown || id == 0)
        return NOTIFICATION_ERROR_NONE;
    if (auto unavailable = Unavailable())
        return *unavailable;
    if (TakeDown(id)) {
        Screen &screen = TheScreen();
        std::lock_guard<std::mutex> lock(screen.lock);
        screen.deleted.push_back(id);
    }
    return NOTIFICATION_ERROR_NONE;
}

// The text with its "%s" replaced by the arguments in order.
std::string FillPlaceholders(const std::string &text, const std::vector<std::string> &arguments)
{
    std::string result;
    size_t from = 0;
    for (const std::string &argument : arguments) {
        const size_t at = text.find(kPlaceholder, from);
        if (at == std::string::npos)
            break;
        result += text.substr(from, at - from) + argument;
        from = at + strlen(kPlaceholder);
    }
    return result + text.substr(from);
}

} // namespace

extern "C" notification_h notification_create(notification_style_e style)
{
    if (Enter(__func__, {Text(static_cast<int>(style))}) || style != NOTIFICATION_STYLE_SIMPLE)
        return nullptr;
    return new notification();
}

extern "C" int notification_delete(notification_h noti)
{
    if (auto injected = Enter(__func__, {}))
        return *injected;
    return Release(noti, true);
}

extern "C" int notification_free(notification_h noti)
{
    if (auto injected = Enter(__func__, {}))
        return *injected;
    return Release(noti, false);
}

extern "C" int notification_set_text(notification_h noti, notification_text_part_e part, const char *text,
                                     int arg_count, ...)
{
    std::vector<std::string> call{Text(static_cast<int>(part)), Text(text), Text(arg_count)};
    std::vector<std::string> arguments; // a null one stands for ""
    va_list args;
    va_start(args, arg_count);
    for (int i = 0; i < arg_count; ++i) {
        const char *argument = va_arg(args, const char *);
        call.push_back(Text(argument));
        arguments.push_back(argument ? argument : "");
    }
    va_end(args);
    if (auto injected = Enter(__func__, std::move(call)))
        return *injected;
    if (!noti || !text || arg_count < NOTIFICATION_TEXT_NO_ARGS ||
        (part != NOTIFICATION_TEXT_TITLE && part != NOTIFICATION_TEXT_CONTENT))
        return NOTIFICATION_ERROR_INVALID_PARAMETER;
    (part == NOTIFICATION_TEXT_TITLE ? noti->shown.title : noti->shown.content) = FillPlaceholders(text, arguments);
    return NOTIFICATION_ERROR_NONE;
}

extern "C" int notification_set_layout(notification_h noti, int layout)
{
    if (auto injected = Enter(__func__, {Text(layout)}))
        return *injected;
    if (!noti)
        return NOTIFICATION_ERROR_INVALID_PARAMETER;
    noti->shown.layout = layout;
    return NOTIFICATION_ERROR_NONE;
}

extern "C" int notification_set_image(notification_h noti, int image_type, const char *path)
{
    if (auto injected = Enter(__func__, {Text(image_type), Text(path)}))
        return *injected;
    if (!noti || !path || image_type < 0)
        return NOTIFICATION_ERROR_INVALID_PARAMETER;
    noti->shown.image = nimbos::fake::detail::ResolvePath(path);
    return NOTIFICATION_ERROR_NONE;
}

extern "C" int notification_set_display_applist(notification_h noti, int applist)
{
    if (auto injected = Enter(__func__, {Text(applist)}))
        return *injected;
    if (!noti)
        return NOTIFICATION_ERROR_INVALID_PARAMETER;
    noti->shown.displayApplist = applist;
    return NOTIFICATION_ERROR_NONE;
}

extern "C" int notification_set_hide_timeout(notification_h noti, int seconds)
{
    if (auto injected = Enter(__func__, {Text(seconds)}))
        return *injected;
    if (!noti || seconds < 0)
        return NOTIFICATION_ERROR_INVALID_PARAMETER;
    noti->shown.hideTimeoutSeconds = seconds;
    return NOTIFICATION_ERROR_NONE;
}

extern "C" int notification_set_auto_remove(notification_h noti, bool auto_remove)
{
    if (auto injected = Enter(__func__, {Flag(auto_remove)}))
        return *injected;
    if (!noti)
        return NOTIFICATION_ERROR_INVALID_PARAMETER;
    noti->shown.autoRemove = auto_remove;
    return NOTIFICATION_ERROR_NONE;
}

extern "C" int notification_post(notification_h noti)
{
    if (auto injected = Enter(__func__, {}))
        return *injected;
    if (!noti)
        return NOTIFICATION_ERROR_INVALID_PARAMETER;
    if (auto unavailable = Unavailable())
        return *unavailable;
    Show(*noti, false);
    return NOTIFICATION_ERROR_NONE;
}

extern "C" int notification_post_with_event_cb(notification_h noti, notification_event_cb cb, void *user_data)
{
    if (auto injected = Enter(__func__, {}))
        return *injected;
    if (!noti || !cb)
        return NOTIFICATION_ERROR_INVALID_PARAMETER;
    if (auto unavailable = Unavailable())
        return *unavailable;
    Show(*noti, true);
    Listen(*noti, cb, user_data);
    return NOTIFICATION_ERROR_NONE;
}

namespace nimbos::fake {

std::vector<Notification> Posted()
{
    Screen &screen = TheScreen();
    std::lock_guard<std::mutex> lock(screen.lock);
    return screen.posted;
}

std::vector<Notification> OnScreen()
{
    Screen &screen = TheScreen();
    std::lock_guard<std::mutex> lock(screen.lock);
    return screen.onScreen;
}

std::vector<int> Deleted()
{
    Screen &screen = TheScreen();
    std::lock_guard<std::mutex> lock(screen.lock);
    return screen.deleted;
}

bool CloseNotification(int id, int eventType)
{
    if (!TakeDown(id))
        return false;
    Screen &screen = TheScreen();
    std::lock_guard<std::mutex> lock(screen.lock);
    for (const auto &entry : screen.listeners)
        if (entry.second.id == id) {
            const unsigned long listener = entry.first;
            detail::Post(nullptr, [listener, id, eventType] { DeliverEvent(listener, id, eventType); });
        }
    return true;
}

namespace detail {

void ResetNotifications()
{
    Screen &screen = TheScreen();
    std::lock_guard<std::mutex> lock(screen.lock);
    screen.nextId = 1;
    screen.posted.clear();
    screen.onScreen.clear();
    screen.deleted.clear();
    screen.listeners.clear();
}

} // namespace detail

} // namespace nimbos::fake
