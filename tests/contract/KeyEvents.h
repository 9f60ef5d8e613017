// Key events as the key event handlers hear them, and grabbing keys for them: shared by the key
// router's and the events' suites.
#pragma once

#include "ContractTest.h"

#include "nimbos/events.h"
#include "nimbos/keyrouter.h"

namespace contract {

// A key event as text: "down XF86AudioMute from rc device" (a device without a name: "from ?").
inline std::string Describe(int type, void *event)
{
    const auto *key = static_cast<ecore_event_key_s *>(event);
    const std::string from = !key->device ? "" : key->device->name ? key->device->name : "?";
    return std::string(type == ECORE_EVENT_KEY_DOWN ? "down " : "up ") + key->keyname + " from " + from;
}

inline int RecordKey(int type, void *event, void *heard)
{
    static_cast<Heard<std::string> *>(heard)->Add(Describe(type, event));
    return ECORE_EVENT_CONTINUE;
}

// Handlers of both key event types recording into heard, for the life of the object.
class KeyRecorder {
public:
    explicit KeyRecorder(Heard<std::string> &heard)
        : m_down(ecore_event_handler_add(ECORE_EVENT_KEY_DOWN, RecordKey, &heard)),
          m_up(ecore_event_handler_add(ECORE_EVENT_KEY_UP, RecordKey, &heard))
    {
    }
    ~KeyRecorder()
    {
        ecore_event_handler_del(m_down);
        ecore_event_handler_del(m_up);
    }
    KeyRecorder(const KeyRecorder &) = delete;
    KeyRecorder &operator=(const KeyRecorder &) = delete;

private:
    ecore_event_handler_s *m_down;
    ecore_event_handler_s *m_up;
};

// The window stages exactly these keys and grabs them.
inline void Grab(int window, const std::vector<std::string> &keys)
{
    ASSERT_EQ(capi_window_tv_reset_key_grab_config(window), KEYROUTER_ERROR_NONE);
    for (const std::string &key : keys)
        ASSERT_EQ(capi_window_tv_add_key(window, key.c_str(), 1), KEYROUTER_ERROR_NONE);
    ASSERT_EQ(capi_window_tv_set_grabbed_keys(window), KEYROUTER_ERROR_NONE);
}

constexpr const char *kRaise = "XF86AudioRaiseVolume";
constexpr const char *kLower = "XF86AudioLowerVolume";
constexpr const char *kMute = "XF86AudioMute";
constexpr const char *kRemote = "rc device";

} // namespace contract
