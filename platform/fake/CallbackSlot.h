// The one callback of a kind a header allows at a time ("setting another replaces it"), with the
// main context it was set from.
#pragma once

#include "FakeCore.h"

#include <mutex>

namespace nimbos::fake::detail {

template <typename Callback>
class CallbackSlot {
public:
    void Set(Callback callback, void *userData)
    {
        std::lock_guard<std::mutex> lock(m_lock);
        m_callback = callback;
        m_userData = userData;
        m_context = CallerContext();
        m_id = NewRegistrationId();
    }

    void Unset()
    {
        std::lock_guard<std::mutex> lock(m_lock);
        m_callback = nullptr;
        m_context.reset();
        m_id = 0;
    }

    // Schedules call(callback, userData) on the context the current callback was set from; it is
    // dropped if the slot is set again or unset before it runs. Nothing happens while none is set.
    template <typename Call>
    void Deliver(Call call)
    {
        std::lock_guard<std::mutex> lock(m_lock);
        if (!m_callback)
            return;
        const unsigned long id = m_id;
        Post(m_context.get(), [this, id, call] { Run(id, call); });
    }

private:
    template <typename Call>
    void Run(unsigned long id, const Call &call)
    {
        std::unique_lock<std::mutex> lock(m_lock);
        if (m_id != id)
            return;
        const Callback callback = m_callback;
        void *const userData = m_userData;
        lock.unlock(); // the callback may set or unset the slot
        call(callback, userData);
    }

    std::mutex m_lock;
    Callback m_callback = nullptr;
    void *m_userData = nullptr;
    ContextRef m_context;
    unsigned long m_id = 0;
};

} // namespace nimbos::fake::detail
