// The fake gamepad library: the gamepads connected, in the order they came, and the connection
// callback.
#include "nimbos/gamepad.h"

#include "CallbackSlot.h"

#include <algorithm>
#include <mutex>

namespace {

using nimbos::fake::Gamepad;
using nimbos::fake::detail::CallbackSlot;
using nimbos::fake::detail::Enter;
using nimbos::fake::detail::Record;
using nimbos::fake::detail::Text;

// gamepad.h names no codes of its own: success is 1, failures are negative.
constexpr int kOk = 1;
constexpr int kNoGamepadThere = 0;
constexpr int kNotOpen = -1;
constexpr int kInvalidParameter = -22;
constexpr int kGamepadSlots = 8;

struct Library {
    std::mutex lock;
    bool open = false;
    std::vector<Gamepad> connected;
};

Library &TheLibrary()
{
    static Library *library = new Library;
    return *library;
}

CallbackSlot<gamepad_connection_cb> &Connections()
{
    static auto *slot = new CallbackSlot<gamepad_connection_cb>;
    return *slot;
}

bool IsOpen()
{
    Library &library = TheLibrary();
    std::lock_guard<std::mutex> lock(library.lock);
    return library.open;
}

_gamepad_device_info_s InfoOf(const Gamepad &gamepad)
{
    _gamepad_device_info_s info{};
    g_strlcpy(info.uid, gamepad.uid.c_str(), sizeof info.uid);
    g_strlcpy(info.name, gamepad.name.c_str(), sizeof info.name);
    return info;
}

void Announce(int event, const Gamepad &gamepad)
{
    const _gamepad_device_info_s info = InfoOf(gamepad);
    Connections().Deliver([event, info](gamepad_connection_cb cb, void *userData) { cb(event, info, userData); });
}

} // namespace

extern "C" int gamepad_open(void)
{
    if (auto injected = Enter(__func__, {}))
        return *injected;
    Library &library = TheLibrary();
    std::lock_guard<std::mutex> lock(library.lock);
    library.open = true;
    return kOk;
}

extern "C" int gamepad_register_connection_callback(gamepad_connection_cb cb, void *user_data)
{
    if (auto injected = Enter(__func__, {}))
        return *injected;
    if (!cb)
        return kInvalidParameter;
    if (!IsOpen())
        return kNotOpen;
    Connections().Set(cb, user_data);
    return kOk;
}

extern "C" int gamepad_unregister_connection_callback(void)
{
    if (auto injected = Enter(__func__, {}))
        return *injected;
    if (!IsOpen())
        return kNotOpen;
    Connections().Unset();
    return kOk;
}

extern "C" int gamepad_maximum_gampad_count(void)
{
    Record(__func__, {});
    return kGamepadSlots;
}

extern "C" int gamepad_get_connected_device_Info(_gamepad_device_info_s *info, int index)
{
    if (auto injected = Enter(__func__, {Text(index)}))
        return *injected;
    if (!info || index < 0 || index >= kGamepadSlots)
        return kInvalidParameter;
    Library &library = TheLibrary();
    std::lock_guard<std::mutex> lock(library.lock);
    if (!library.open)
        return kNotOpen;
    if (static_cast<size_t>(index) >= library.connected.size())
        return kNoGamepadThere;
    *info = InfoOf(library.connected[static_cast<size_t>(index)]);
    return kOk;
}

namespace nimbos::fake {

std::string GamepadUid(int vendorId, int productId)
{
    g_autofree char *uid = g_strdup_printf("VID_%04X PID_%04X", vendorId, productId);
    return uid;
}

void ConnectGamepad(const std::string &uid, const std::string &name)
{
    Library &library = TheLibrary();
    std::lock_guard<std::mutex> lock(library.lock);
    library.connected.push_back(Gamepad{uid, name});
    Announce(GAMEPAD_EVENT_CONNECTED, library.connected.back());
}

bool DisconnectGamepad(const std::string &uid)
{
    Library &library = TheLibrary();
    std::lock_guard<std::mutex> lock(library.lock);
    auto found = std::find_if(library.connected.begin(), library.connected.end(),
                              [&uid](const Gamepad &gamepad) { return gamepad.uid == uid; });
    if (found == library.connected.end())
        return false;
    Announce(GAMEPAD_EVENT_DISCONNECTED, *found);
    library.connected.erase(found);
    return true;
}

std::vector<Gamepad> ConnectedGamepads()
{
    Library &library = TheLibrary();
    std::lock_guard<std::mutex> lock(library.lock);
    return library.connected;
}

namespace detail {

void ResetGamepads()
{
    {
        Library &library = TheLibrary();
        std::lock_guard<std::mutex> lock(library.lock);
        library.open = false;
        library.connected.clear();
    }
    Connections().Unset();
}

} // namespace detail

} // namespace nimbos::fake
