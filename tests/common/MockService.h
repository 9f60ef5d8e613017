// A peer on the test bus: owns a bus name and serves one object, described by introspection XML,
// on a thread and main context of its own — the code under test makes blocking calls from its
// own thread, which a mock served there would never answer.
//
// Each method answers what its handler returns (an empty reply by default): a value or a D-Bus
// error. Every call is recorded. Handlers run on the mock's thread and must not wait for the test.
#pragma once

#include "MainContext.h"
#include "TestBus.h"

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
        VariantRef value;      // a tuple, or null for "()"
        std::string errorName; // set: the call fails with this D-Bus error
        static Reply Value(GVariant *tuple) { return Reply{Hold(tuple), {}}; }
        static Reply Error(std::string name) { return Reply{nullptr, std::move(name)}; }
    };
    using Handler = std::function<Reply(GVariant *arguments)>;

    struct Call {
        std::string method;
        VariantRef arguments;
    };

    // Owns busName (failing the test if it cannot) and exports the interfaces of xml at objectPath.
    MockService(const std::string &busName, const std::string &objectPath, const std::string &xml);
    // Gives up the name and closes the connection.
    ~MockService();
    MockService(const MockService &) = delete;
    MockService &operator=(const MockService &) = delete;

    void Handle(const std::string &method, Handler handler);

    std::vector<Call> Calls() const;
    std::vector<Call> CallsTo(const std::string &method) const;
    void ClearCalls();

private:
    static void OnMethodCall(GDBusConnection *, const gchar *, const gchar *, const gchar *, const gchar *method,
                             GVariant *arguments, GDBusMethodInvocation *invocation, gpointer self);
    void Serve(const char *method, GVariant *arguments, GDBusMethodInvocation *invocation);
    void Export(const std::string &xml);
    void Withdraw();

    const std::string m_busName;
    const std::string m_objectPath;
    LoopThread m_thread;
    ConnectionRef m_connection;
    std::vector<guint> m_registrations;

    mutable std::mutex m_lock;
    std::map<std::string, Handler> m_handlers;
    std::vector<Call> m_calls;
};

} // namespace hadrix::test
