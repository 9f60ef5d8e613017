// A peer on the test bus: owns a bus name and serves one object, described by introspection XML,
// on a thread and main context of its own — the code under test makes blocking calls from its
// own thread, which a mock served there would never answer.
//
// Each method answers what its handler returns (an empty reply by default): a value, a D-Bus
// error, or nothing at all, so that the caller times out. Every call is recorded. Handlers run
// on the mock's thread; they may use the mock (Emit) but not wait for the test.
#pragma once

#include "MainContext.h"
#include "TestBus.h"

#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace hadrix::test {

using VariantRef = std::shared_ptr<GVariant>;

// Takes a reference (sinking a floating one); null stays null.
VariantRef Hold(GVariant *value);

class MockService {
public:
    struct Reply {
        VariantRef value;        // a tuple, or null for "()"
        std::string errorName;   // set: the call fails with this D-Bus error
        bool answer = true;      // false: never answered
        static Reply Value(GVariant *tuple) { return Reply{Hold(tuple), {}, true}; }
        static Reply Error(std::string name) { return Reply{nullptr, std::move(name), true}; }
        static Reply None() { return Reply{nullptr, {}, false}; }
    };
    using Handler = std::function<Reply(GVariant *arguments)>;

    struct Call {
        std::string method;
        VariantRef arguments;
        std::string Text() const; // the arguments as GVariant text: "(3, 40)"
    };

    // Owns busName (failing the test if it cannot) and exports the interfaces of xml at objectPath.
    MockService(const std::string &busName, const std::string &objectPath, const std::string &xml);
    // Answers every held call with an error, gives up the name and closes the connection.
    ~MockService();
    MockService(const MockService &) = delete;
    MockService &operator=(const MockService &) = delete;

    void Handle(const std::string &method, Handler handler);
    // Silent: no method is answered until it is made to speak again.
    void SetSilent(bool silent);

    std::vector<Call> Calls() const;
    std::vector<Call> CallsTo(const std::string &method) const;
    void ClearCalls();
    // Waits (at most timeoutMs) until `method` was called count times in all.
    bool WaitForCalls(const std::string &method, size_t count, int timeoutMs = 5000) const;

    // Broadcasts a signal of the object; arguments is a tuple (floating or not), or null.
    void Emit(const std::string &interface, const std::string &signal, GVariant *arguments);

    const std::string &BusName() const { return m_busName; }

private:
    static void OnMethodCall(GDBusConnection *, const gchar *, const gchar *, const gchar *, const gchar *method,
                             GVariant *arguments, GDBusMethodInvocation *invocation, gpointer self);
    void Serve(const char *method, GVariant *arguments, GDBusMethodInvocation *invocation);
    void Export(const std::string &xml);
    void Withdraw();
    void ReleaseHeldCalls();

    const std::string m_busName;
    const std::string m_objectPath;
    LoopThread m_thread;
    ConnectionRef m_connection;
    std::vector<guint> m_registrations;

    mutable std::mutex m_lock;
    mutable std::condition_variable m_called;
    std::map<std::string, Handler> m_handlers;
    bool m_silent = false;
    std::vector<Call> m_calls;
    std::vector<GDBusMethodInvocation *> m_held; // never answered; each holds a reference
};

} // namespace hadrix::test
