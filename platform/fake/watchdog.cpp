// The fake watchdog: the registered period, readiness once the default main loop has dispatched,
// and the heartbeats, for tests to read (WatchdogState).
#include "nimbos/watchdog.h"

#include "FakeCore.h"

#include <cerrno>
#include <mutex>

namespace {

using nimbos::fake::detail::Enter;
using nimbos::fake::detail::Text;

struct State {
    std::mutex lock;
    nimbos::fake::Watchdog watchdog;
};

State &TheState()
{
    static State *state = new State;
    return *state;
}

void MarkReady()
{
    State &state = TheState();
    std::lock_guard<std::mutex> lock(state.lock);
    state.watchdog.ready = true;
}

} // namespace

extern "C" int smart_deadlock_register_watchdog_service(int timeout_s)
{
    if (auto injected = Enter(__func__, {Text(timeout_s)}))
        return *injected;
    if (timeout_s <= 0)
        return -EINVAL;
    State &state = TheState();
    std::lock_guard<std::mutex> lock(state.lock);
    if (state.watchdog.periodSeconds == 0) {
        state.watchdog.periodSeconds = timeout_s;
        nimbos::fake::detail::Post(g_main_context_default(), MarkReady);
    }
    return 0;
}

extern "C" int smart_deadlock_watchdog_notify(void)
{
    if (auto injected = Enter(__func__, {}))
        return *injected;
    State &state = TheState();
    std::lock_guard<std::mutex> lock(state.lock);
    ++state.watchdog.beats;
    return 0;
}

namespace nimbos::fake {

Watchdog WatchdogState()
{
    State &state = TheState();
    std::lock_guard<std::mutex> lock(state.lock);
    return state.watchdog;
}

namespace detail {

void ResetWatchdog()
{
    State &state = TheState();
    std::lock_guard<std::mutex> lock(state.lock);
    state.watchdog = Watchdog();
}

} // namespace detail

} // namespace nimbos::fake
