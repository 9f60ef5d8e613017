// USB sound cards and gamepads in a umockdev testbed, where libudev — so the host's USB and
// gamepad libraries — finds them, with their uevents, under umockdev's preload.
#pragma once

#include "PlatformDriver.h"

#include <umockdev.h>

#include <map>
#include <set>

#include "UniqueHandle.h"

namespace contract {

class HostTestbed {
public:
    HostTestbed();

    // On bus 1 at the card's port: the USB device, its interface and the sound card below it,
    // marked ready (SOUND_INITIALIZED) or not yet.
    void PlugCard(const UsbCard &card, bool ready);
    void MakeCardReady(const UsbCard &card);
    void UnplugCard(const UsbCard &card);
    // A joystick input device with the USB ids and model name udev gives a gamepad.
    void ConnectGamepad(int vendorId, int productId, const std::string &name);
    void DisconnectGamepad(int vendorId, int productId);
    // Everything plugged goes.
    void Clear();

private:
    void Add(const char *description, const std::string &syspath);
    void Remove(const std::string &syspath);

    UniqueHandle<UMockdevTestbed, g_object_unref> m_testbed;
    std::set<std::string> m_plugged; // the syspaths added
    std::map<std::pair<int, int>, std::string> m_gamepads;
    int m_nextInput = 20;
};

} // namespace contract
