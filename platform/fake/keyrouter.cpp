// The fake key router: windows stage and grab keys; a key the viewer presses reaches the key event
// handlers (events.h) only while some window grabs it and the process is connected, on the
// context the process connected from.
#include "nimbos/keyrouter.h"

#include "EventRegistry.h"
#include "FakeCore.h"

#include <map>
#include <mutex>
#include <set>

namespace {

using nimbos::fake::Service;
using nimbos::fake::detail::ContextRef;
using nimbos::fake::detail::Enter;
using nimbos::fake::detail::Record;
using nimbos::fake::detail::Text;

struct Router {
    std::mutex lock;
    std::map<int, std::map<std::string, int>> staged; // window -> key -> grab mode
    std::map<int, std::set<std::string>> grabbed;     // window -> keys
    std::map<std::pair<int, std::string>, int> special;
    ContextRef connection; // where key events go; null while not connected
    unsigned long connectionId = 0;
};

Router &TheRouter()
{
    static Router *router = new Router;
    return *router;
}

std::optional<int> Unavailable()
{
    return nimbos::fake::detail::Unavailable(Service::KeyRouter, KEYROUTER_ERROR_IO_ERROR, KEYROUTER_ERROR_TIMED_OUT);
}

bool IsKeyName(const char *key)
{
    return key && *key && g_utf8_validate(key, -1, nullptr);
}

// Under the lock.
bool IsGrabbed(const Router &router, const std::string &key)
{
    for (const auto &window : router.grabbed)
        if (window.second.count(key))
            return true;
    return false;
}

void Raise(unsigned long connectionId, ecore_event_type_e type, const std::string &key,
           const std::optional<std::string> &deviceName)
{
    {
        Router &router = TheRouter();
        std::lock_guard<std::mutex> lock(router.lock);
        if (router.connectionId != connectionId || !router.connection)
            return; // disconnected meanwhile
    }
    ecore_device_s device{deviceName && !deviceName->empty() ? deviceName->c_str() : nullptr};
    ecore_event_key_s event{key.c_str(), deviceName ? &device : nullptr};
    nimbos::common::RaiseKeyEvent(type, &event);
}

bool Send(ecore_event_type_e type, const std::string &key, const std::optional<std::string> &deviceName)
{
    Router &router = TheRouter();
    std::lock_guard<std::mutex> lock(router.lock);
    if (!router.connection || !IsGrabbed(router, key))
        return false;
    const unsigned long id = router.connectionId;
    nimbos::fake::detail::Post(router.connection.get(),
                               [id, type, key, deviceName] { Raise(id, type, key, deviceName); });
    return true;
}

// A call that changes a window's keys: the router's answer, then `change` under the lock.
template <typename Edit>
int Change(Edit change)
{
    if (auto unavailable = Unavailable())
        return *unavailable;
    Router &router = TheRouter();
    std::lock_guard<std::mutex> lock(router.lock);
    change(router);
    return KEYROUTER_ERROR_NONE;
}

} // namespace

extern "C" int keyrouter_connect(void)
{
    if (auto injected = Enter(__func__, {}))
        return *injected;
    // Connecting asks the bus, not the router: only a router that is not there makes it fail.
    if (nimbos::fake::detail::Unavailable(Service::KeyRouter, KEYROUTER_ERROR_NO_ROUTER, KEYROUTER_ERROR_NONE) ==
        KEYROUTER_ERROR_NO_ROUTER)
        return KEYROUTER_ERROR_NO_ROUTER;
    Router &router = TheRouter();
    std::lock_guard<std::mutex> lock(router.lock);
    if (!router.connection) {
        router.connection = nimbos::fake::detail::CallerContext();
        router.connectionId = nimbos::fake::detail::NewRegistrationId();
    }
    return KEYROUTER_ERROR_NONE;
}

extern "C" void keyrouter_disconnect(void)
{
    Record(__func__, {});
    Router &router = TheRouter();
    std::lock_guard<std::mutex> lock(router.lock);
    router.connection.reset();
}

extern "C" int capi_window_tv_reset_key_grab_config(int window)
{
    if (auto injected = Enter(__func__, {Text(window)}))
        return *injected;
    return Change([window](Router &router) { router.staged[window].clear(); });
}

extern "C" int capi_window_tv_add_key(int window, const char *key, int mode)
{
    if (auto injected = Enter(__func__, {Text(window), Text(key), Text(mode)}))
        return *injected;
    if (!IsKeyName(key))
        return KEYROUTER_ERROR_INVALID_PARAMETER;
    return Change([window, name = std::string(key), mode](Router &router) { router.staged[window][name] = mode; });
}

extern "C" int capi_window_tv_set_grabbed_keys(int window)
{
    if (auto injected = Enter(__func__, {Text(window)}))
        return *injected;
    return Change([window](Router &router) {
        std::set<std::string> &keys = router.grabbed[window];
        keys.clear();
        for (const auto &staged : router.staged[window])
            keys.insert(staged.first);
    });
}

extern "C" int capi_window_tv_unset_grabbed_keys(int window)
{
    if (auto injected = Enter(__func__, {Text(window)}))
        return *injected;
    return Change([window](Router &router) {
        for (const auto &staged : router.staged[window])
            router.grabbed[window].erase(staged.first);
    });
}

extern "C" int capi_window_tv_set_special_key_mode(int window, int mode, const char *key)
{
    if (auto injected = Enter(__func__, {Text(window), Text(mode), Text(key)}))
        return *injected;
    if (!IsKeyName(key))
        return KEYROUTER_ERROR_INVALID_PARAMETER;
    return Change([window, mode, name = std::string(key)](Router &router) { router.special[{window, name}] = mode; });
}

namespace nimbos::fake {

std::map<std::string, int> StagedKeys(int window)
{
    Router &router = TheRouter();
    std::lock_guard<std::mutex> lock(router.lock);
    auto found = router.staged.find(window);
    return found == router.staged.end() ? std::map<std::string, int>() : found->second;
}

std::set<std::string> GrabbedKeys(int window)
{
    Router &router = TheRouter();
    std::lock_guard<std::mutex> lock(router.lock);
    auto found = router.grabbed.find(window);
    return found == router.grabbed.end() ? std::set<std::string>() : found->second;
}

std::optional<int> SpecialKeyMode(int window, const std::string &key)
{
    Router &router = TheRouter();
    std::lock_guard<std::mutex> lock(router.lock);
    auto found = router.special.find({window, key});
    return found == router.special.end() ? std::nullopt : std::optional<int>(found->second);
}

bool KeyRouterConnected()
{
    Router &router = TheRouter();
    std::lock_guard<std::mutex> lock(router.lock);
    return router.connection != nullptr;
}

bool PressKey(const std::string &key, const std::optional<std::string> &deviceName)
{
    return Send(ECORE_EVENT_KEY_DOWN, key, deviceName);
}

bool ReleaseKey(const std::string &key, const std::optional<std::string> &deviceName)
{
    return Send(ECORE_EVENT_KEY_UP, key, deviceName);
}

namespace detail {

void ResetKeyRouter()
{
    Router &router = TheRouter();
    std::lock_guard<std::mutex> lock(router.lock);
    router.staged.clear();
    router.grabbed.clear();
    router.special.clear();
    router.connection.reset();
}

} // namespace detail

} // namespace nimbos::fake
