// Records the broadcast signals of one interface and member on the test bus, on a connection and
// thread of its own, for a test to wait for with a deadline.
#pragma once

#include "MainContext.h"
#include "MockService.h"
#include "TestBus.h"

#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

namespace hadrix::test {

class SignalRecorder {
public:
    struct Signal {
        std::string sender; // the unique name of the peer that sent it
        std::string path;
        VariantRef arguments;
    };

    // Listening has begun when the constructor returns.
    SignalRecorder(const std::string &interface, const std::string &member);
    ~SignalRecorder();
    SignalRecorder(const SignalRecorder &) = delete;
    SignalRecorder &operator=(const SignalRecorder &) = delete;

    std::vector<Signal> Signals() const;
    // Waits (at most timeoutMs) until count signals were recorded in all; returns whether.
    bool WaitFor(size_t count, int timeoutMs = 5000) const;
    // Returns once every signal the bus routed before the call has been recorded: what a test
    // reads afterwards is all there is (given that the senders' messages reached the bus, see
    // SyncSystemBus).
    void Flush();

private:
    static void OnSignal(GDBusConnection *, const gchar *sender, const gchar *path, const gchar *, const gchar *,
                         GVariant *arguments, gpointer self);

    LoopThread m_thread;
    ConnectionRef m_connection;
    guint m_subscription = 0;
    mutable std::mutex m_lock;
    mutable std::condition_variable m_arrived;
    std::vector<Signal> m_signals;
};

} // namespace hadrix::test
