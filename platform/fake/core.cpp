// The fake platform's shared core: the call record, injected results, service availability,
// deliveries to main contexts, Reset, and iterating the default main context for tests.
#include "FakeCore.h"
#include "SourcePtr.h"

#include <atomic>
#include <deque>
#include <map>
#include <mutex>
#include <sstream>
#include <stdexcept>

namespace nimbos::fake {

namespace {

// Every platform function by name, and whether a test can inject its result: accessors, frees
// without a result and void functions cannot be made to fail.
const std::map<std::string, bool> &Functions()
{
    static const std::map<std::string, bool> functions = [] {
        std::map<std::string, bool> table;
        for (const char *name : {
                 "app_control_create", "app_control_destroy", "app_control_set_operation",
                 "app_control_get_operation", "app_control_set_app_id", "app_control_add_extra_data",
                 "app_control_get_extra_data", "app_control_foreach_extra_data",
                 "app_control_send_launch_request", "service_app_main",
                 "IAudioControl::getUsbOutMute", "IAudioControl::setUsbOutMute", "IAudioControl::getUsbOutGain",
                 "IAudioControl::setUsbOutGain", "IAudioControl::getUsbOutDelay", "IAudioControl::setUsbOutDelay",
                 "ecore_event_handler_add", "ecore_job_add",
                 "gamepad_open", "gamepad_register_connection_callback", "gamepad_unregister_connection_callback",
                 "gamepad_get_connected_device_Info",
                 "keyrouter_connect", "capi_window_tv_reset_key_grab_config", "capi_window_tv_add_key",
                 "capi_window_tv_set_grabbed_keys", "capi_window_tv_unset_grabbed_keys",
                 "capi_window_tv_set_special_key_mode",
                 "notification_create", "notification_delete", "notification_free", "notification_set_text",
                 "notification_set_layout", "notification_set_image", "notification_set_display_applist",
                 "notification_set_hide_timeout", "notification_set_auto_remove", "notification_post",
                 "notification_post_with_event_cb",
                 "nimbos_path", "app_get_data_root",
                 "device_power_get_state", "device_power_subscribe_state_changed_event",
                 "device_power_unsubscribe_state_changed_event",
                 "vconf_get_int", "vconf_get_bool", "vconf_get_dbl", "vconf_get_str", "vconf_set_int",
                 "vconf_set_bool", "vconf_set_dbl", "vconf_set_str", "vconf_unset", "vconf_notify_key_changed",
                 "vconf_ignore_key_changed",
                 "sound_manager_get_speaker_selection", "sound_manager_set_speaker_selection",
                 "sound_manager_set_speaker_changed_cb", "sound_manager_unset_speaker_changed_cb",
                 "sound_manager_set_mute_gain", "sound_manager_apply_unmute_fade_in",
                 "sound_manager_get_multiview_speaker_selection_with_zone_id",
                 "sound_manager_set_multiview_speaker_selection_with_zone_id",
                 "sound_manager_set_multiview_speaker_selection_changed_cb",
                 "sound_manager_unset_multiview_speaker_selection_changed_cb",
                 "system_info_get_value_string", "system_info_get_feature_string", "system_info_get_feature_bool",
                 "usb_device_init", "usb_device_fini", "usb_device_get_device_list", "usb_device_free_device_list",
                 "usb_device_list_get_first", "usb_device_list_get_next", "usb_set_connected_cb",
                 "usb_unset_connected_cb", "free_usb_device_h",
                 "smart_deadlock_register_watchdog_service", "smart_deadlock_watchdog_notify",
                 "rc_get_zone_list", "rc_get_zone_id",
             })
            table[name] = true;
        for (const char *name : {
                 "service_app_exit", "ecore_event_handler_del", "ecore_job_del", "gamepad_maximum_gampad_count",
                 "keyrouter_disconnect", "nimbos::Path", "nimbos::DataRoot", "vconf_keynode_get_name",
                 "vconf_keynode_get_type", "vconf_keynode_get_int", "vconf_keynode_get_bool",
                 "vconf_keynode_get_dbl", "vconf_keynode_get_str", "usb_device_list_get_count",
                 "usb_device_get_class", "usb_device_get_number", "usb_device_get_devpath", "usb_device_get_devname",
                 "usb_device_get_product", "usb_device_get_manufacturer", "usb_device_get_vendor_id",
                 "usb_device_get_product_id", "rc_get_next_zone", "rc_free_zone_list",
             })
            table[name] = false;
        return table;
    }();
    return functions;
}

void RequireInjectable(const std::string &function)
{
    auto found = Functions().find(function);
    if (found == Functions().end())
        throw std::invalid_argument("no platform function is called " + function);
    if (!found->second)
        throw std::invalid_argument(function + " cannot be made to fail");
}

struct Core {
    std::mutex lock;
    std::vector<Call> calls;
    std::map<std::string, int> results;
    std::map<std::string, std::deque<int>> nextFailures;
    std::map<Service, Availability> services;
    std::map<std::string, Availability> apps;
};

Core &TheCore()
{
    static Core *core = new Core; // never destroyed: worker threads may still call in at exit
    return *core;
}

// Bumped by Reset: deliveries posted before it are dropped.
std::atomic<unsigned long> epoch{1};
std::atomic<unsigned long> lastRegistrationId{0};

struct Delivery {
    std::function<void()> work;
    unsigned long epoch;
};

gboolean RunDelivery(gpointer data)
{
    auto *delivery = static_cast<Delivery *>(data);
    if (delivery->epoch == epoch.load())
        delivery->work();
    return G_SOURCE_REMOVE;
}

void FreeDelivery(gpointer data)
{
    delete static_cast<Delivery *>(data);
}

gboolean Tick(gpointer)
{
    return G_SOURCE_CONTINUE;
}

std::optional<int> ServiceCode(Availability availability, int missingCode, int silentCode)
{
    switch (availability) {
    case Availability::Running: return std::nullopt;
    case Availability::Missing: return missingCode;
    case Availability::Silent: return silentCode;
    }
    return std::nullopt;
}

} // namespace

namespace detail {

std::string Text(const char *text)
{
    return text ? text : "(null)";
}

std::string Text(const std::string &text)
{
    return text;
}

std::string Text(int number)
{
    return std::to_string(number);
}

std::string Text(unsigned number)
{
    return std::to_string(number);
}

std::string Text(double number)
{
    std::ostringstream out;
    out << number;
    return out.str();
}

std::string Flag(bool flag)
{
    return flag ? "1" : "0";
}

std::optional<int> Enter(const char *function, std::vector<std::string> args)
{
    Core &core = TheCore();
    std::lock_guard<std::mutex> lock(core.lock);
    core.calls.push_back(Call{function, std::move(args)});
    auto queued = core.nextFailures.find(function);
    if (queued != core.nextFailures.end() && !queued->second.empty()) {
        int code = queued->second.front();
        queued->second.pop_front();
        return code;
    }
    auto set = core.results.find(function);
    if (set != core.results.end())
        return set->second;
    return std::nullopt;
}

void Record(const char *function, std::vector<std::string> args)
{
    Enter(function, std::move(args));
}

std::optional<int> Unavailable(Service service, int missingCode, int silentCode)
{
    Core &core = TheCore();
    std::lock_guard<std::mutex> lock(core.lock);
    auto found = core.services.find(service);
    return found == core.services.end() ? std::nullopt : ServiceCode(found->second, missingCode, silentCode);
}

std::optional<int> AppUnavailable(const std::string &appId, int missingCode, int silentCode)
{
    Core &core = TheCore();
    std::lock_guard<std::mutex> lock(core.lock);
    auto found = core.apps.find(appId);
    return found == core.apps.end() ? std::nullopt : ServiceCode(found->second, missingCode, silentCode);
}

ContextRef CallerContext()
{
    return ContextRef(g_main_context_ref_thread_default());
}

void Post(GMainContext *context, std::function<void()> work)
{
    GSource *source = g_idle_source_new();
    // The priority of the fd and bus sources that deliver on a real platform.
    g_source_set_priority(source, G_PRIORITY_DEFAULT);
    g_source_set_callback(source, RunDelivery, new Delivery{std::move(work), epoch.load()}, FreeDelivery);
    g_source_set_name(source, "fake platform delivery");
    g_source_attach(source, context);
    g_source_unref(source);
}

unsigned long NewRegistrationId()
{
    return ++lastRegistrationId;
}

} // namespace detail

std::ostream &operator<<(std::ostream &out, const Call &call)
{
    out << call.function << "(";
    for (size_t i = 0; i < call.args.size(); ++i)
        out << (i ? ", " : "") << '"' << call.args[i] << '"';
    return out << ")";
}

void Reset()
{
    ++epoch;
    {
        Core &core = TheCore();
        std::lock_guard<std::mutex> lock(core.lock);
        core.calls.clear();
        core.results.clear();
        core.nextFailures.clear();
        core.services.clear();
        core.apps.clear();
    }
    using namespace detail;
    for (void (*reset)() : {ResetApp, ResetAppControl, ResetEvents, ResetGamepads, ResetKeyRouter, ResetLog,
                            ResetNotifications, ResetPaths, ResetPower, ResetSettings, ResetSound, ResetAudioControl,
                            ResetSystemInfo, ResetUsb, ResetWatchdog, ResetZones})
        reset();
}

std::vector<Call> Calls()
{
    Core &core = TheCore();
    std::lock_guard<std::mutex> lock(core.lock);
    return core.calls;
}

std::vector<Call> CallsTo(const std::string &function)
{
    std::vector<Call> matching;
    for (Call &call : Calls())
        if (call.function == function)
            matching.push_back(std::move(call));
    return matching;
}

void ClearCalls()
{
    Core &core = TheCore();
    std::lock_guard<std::mutex> lock(core.lock);
    core.calls.clear();
}

void SetResult(const std::string &function, int code)
{
    RequireInjectable(function);
    Core &core = TheCore();
    std::lock_guard<std::mutex> lock(core.lock);
    core.results[function] = code;
}

void ClearResult(const std::string &function)
{
    RequireInjectable(function);
    Core &core = TheCore();
    std::lock_guard<std::mutex> lock(core.lock);
    core.results.erase(function);
}

void FailNext(const std::string &function, int code)
{
    RequireInjectable(function);
    Core &core = TheCore();
    std::lock_guard<std::mutex> lock(core.lock);
    core.nextFailures[function].push_back(code);
}

void SetAvailability(Service service, Availability availability)
{
    Core &core = TheCore();
    std::lock_guard<std::mutex> lock(core.lock);
    core.services[service] = availability;
}

void SetAppAvailability(const std::string &appId, Availability availability)
{
    Core &core = TheCore();
    std::lock_guard<std::mutex> lock(core.lock);
    core.apps[appId] = availability;
}

int RunPending()
{
    // A source that is always ready would keep this going for ever; this many rounds is a test bug.
    constexpr int kMaxRounds = 100000;
    int rounds = 0;
    while (rounds < kMaxRounds && g_main_context_iteration(nullptr, FALSE))
        ++rounds;
    return rounds;
}

bool RunUntil(const std::function<bool()> &done, int realTimeoutMs)
{
    const gint64 end = g_get_monotonic_time() + gint64(realTimeoutMs) * 1000;
    {
        // Wakes the blocking iteration, so done() is looked at while nothing arrives.
        SourcePtr tick(g_timeout_source_new(10));
        g_source_set_callback(tick.get(), Tick, nullptr, nullptr);
        g_source_attach(tick.get(), nullptr);
        while (!done() && g_get_monotonic_time() < end)
            g_main_context_iteration(nullptr, TRUE);
    }
    RunPending();
    return done();
}

} // namespace nimbos::fake
