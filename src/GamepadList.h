// The gamepads the device manager knows of, by their USB ids: the ones the gamepad library
// reports as connected, and a fixed table of gamepads that carry an audio function. The rules
// work on the library's records alone, so they are testable without a gamepad library.
#pragma once

#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "nimbos/gamepad.h"

struct GamepadRecord {
    std::string name;
    int nVendorId = 0;
    int nProductId = 0;
};

class CGamepadList {
public:
    enum class Change {
        Added,
        AlreadyListed, // connected again: kept once
        Removed,
        NotListed,     // disconnected, but never listed: nothing changes
        NoProductId,   // the uid lacks "PID_" followed by four hexadecimal digits
        NoVendorId,    // the uid lacks "VID_" followed by four hexadecimal digits
    };

    CGamepadList() = default;
    explicit CGamepadList(std::vector<GamepadRecord> records) : m_Records(std::move(records)) {}

    // Gamepads with an audio interface of their own, recognised even before the gamepad library
    // reports them.
    static const CGamepadList &Known();

    // Applies one connection event of the gamepad library: GAMEPAD_EVENT_CONNECTED adds the
    // gamepad once, any other value removes its first record.
    Change Update(int event, const _gamepad_device_info_s &info);

    bool HasIds(int vendorId, int productId) const;
    bool HasName(const std::string &name) const;
    std::vector<GamepadRecord> Records() const;

private:
    // Connection events come on the main loop and the attach path reads there too; the lock
    // keeps the list whole should a reader on another thread appear.
    mutable std::mutex m_Mutex;
    std::vector<GamepadRecord> m_Records;
};
