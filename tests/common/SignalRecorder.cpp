#include "SignalRecorder.h"

#include <chrono>

namespace hadrix::test {

SignalRecorder::SignalRecorder(const std::string &interface, const std::string &member)
{
    m_thread.Run([&] {
        m_connection = NewSystemBusConnection();
        if (!m_connection)
            return;
        m_subscription = g_dbus_connection_signal_subscribe(m_connection.get(), nullptr, interface.c_str(),
                                                            member.c_str(), nullptr, nullptr, G_DBUS_SIGNAL_FLAGS_NONE,
                                                            OnSignal, this, nullptr);
        // The match rule is sent without waiting; a round trip makes sure the bus has it.
        g_autoptr(GVariant) reply = g_dbus_connection_call_sync(
            m_connection.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "GetId",
            nullptr, nullptr, G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, nullptr);
        EXPECT_TRUE(reply) << "the bus did not answer";
    });
}

SignalRecorder::~SignalRecorder()
{
    m_thread.Run([this] {
        if (m_subscription)
            g_dbus_connection_signal_unsubscribe(m_connection.get(), m_subscription);
        if (m_connection)
            g_dbus_connection_close_sync(m_connection.get(), nullptr, nullptr);
        m_connection.reset();
    });
}

void SignalRecorder::OnSignal(GDBusConnection *, const gchar *sender, const gchar *path, const gchar *, const gchar *,
                              GVariant *arguments, gpointer self)
{
    auto *recorder = static_cast<SignalRecorder *>(self);
    {
        std::lock_guard<std::mutex> lock(recorder->m_lock);
        recorder->m_signals.push_back(Signal{sender ? sender : "", path, Hold(arguments)});
    }
    recorder->m_arrived.notify_all();
}

std::vector<SignalRecorder::Signal> SignalRecorder::Signals() const
{
    std::lock_guard<std::mutex> lock(m_lock);
    return m_signals;
}

// The bus answers this connection's call after the signals it routed to it before; the recorder's
// loop then runs them ahead of an idle source.
void SignalRecorder::Flush()
{
    g_autoptr(GVariant) reply = g_dbus_connection_call_sync(
        m_connection.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "GetId", nullptr,
        nullptr, G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, nullptr);
    EXPECT_TRUE(reply) << "the bus did not answer";
    m_thread.Run([] {});
}

bool SignalRecorder::WaitFor(size_t count, int timeoutMs) const
{
    std::unique_lock<std::mutex> lock(m_lock);
    return m_arrived.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return m_signals.size() >= count; });
}

} // namespace hadrix::test
