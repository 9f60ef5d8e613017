#include "TemplatePeer.h"

#include <sys/prctl.h>
#include <sys/wait.h>

#include <csignal>

namespace contract {

namespace {

constexpr const char *kMockInterface = "org.freedesktop.DBus.Mock";
constexpr int kCallTimeoutMs = 5000;

// Takes over a reference the caller owns.
VariantRef Own(GVariant *value)
{
    return value ? VariantRef(value, g_variant_unref) : nullptr;
}

bool HasOwner(GDBusConnection *bus, const char *name)
{
    g_autoptr(GVariant) reply = g_dbus_connection_call_sync(
        bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "NameHasOwner",
        g_variant_new("(s)", name), G_VARIANT_TYPE("(b)"), G_DBUS_CALL_FLAGS_NONE, kCallTimeoutMs, nullptr, nullptr);
    gboolean owned = FALSE;
    if (reply)
        g_variant_get(reply, "(b)", &owned);
    return owned;
}

// A peer does not outlive the binary, even stopped.
void DieWithTheBinary(gpointer)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
}

} // namespace

bool WaitForOwner(GDBusConnection *bus, const char *name, bool owned)
{
    // Looked at every 10 ms: no main loop runs on this thread to hear NameOwnerChanged.
    const gint64 end = g_get_monotonic_time() + 5 * G_USEC_PER_SEC;
    while (HasOwner(bus, name) != owned) {
        if (g_get_monotonic_time() >= end)
            return false;
        g_usleep(10 * 1000);
    }
    return true;
}

TemplatePeer::TemplatePeer(GDBusConnection *bus, std::string templateName, std::string name, std::string interface,
                           std::string path, GVariant *parameters, std::vector<std::string> reads)
    : m_bus(bus), m_template(std::move(templateName)), m_name(std::move(name)), m_interface(std::move(interface)),
      m_path(std::move(path)), m_parameters(hadrix::test::Hold(parameters)), m_reads(std::move(reads))
{
}

TemplatePeer::~TemplatePeer()
{
    Stop();
}

void TemplatePeer::Spawn()
{
    const char *argv[] = {HADRIX_PYTHON, "-m", "dbusmock", "--system", m_name.c_str(), m_path.c_str(),
                          m_interface.c_str(), nullptr};
    // The binary's environment without umockdev's preload, which is for the code under test.
    g_auto(GStrv) environment = g_environ_unsetenv(g_get_environ(), "LD_PRELOAD");
    g_autoptr(GError) error = nullptr;
    GPid pid = 0;
    // Its standard output is dbusmock's log of every call; errors go to standard error.
    if (!g_spawn_async(nullptr, const_cast<char **>(argv), environment,
                       GSpawnFlags(G_SPAWN_DO_NOT_REAP_CHILD | G_SPAWN_STDOUT_TO_DEV_NULL), DieWithTheBinary, nullptr,
                       &pid, &error))
        ADD_FAILURE() << "could not start the mock " << m_name << ": " << error->message;
    m_pid = pid;
    m_silent = false;
}

void TemplatePeer::ServeWhenReady()
{
    const gint64 end = g_get_monotonic_time() + 10 * G_USEC_PER_SEC;
    while (m_pid && !HasOwner(m_bus, m_name.c_str())) {
        int status = 0;
        if (waitpid(m_pid, &status, WNOHANG) == m_pid) {
            ADD_FAILURE() << "the mock " << m_name << " ended before it owned its name (status " << status << ")";
            m_pid = 0;
        } else if (g_get_monotonic_time() >= end) {
            ADD_FAILURE() << "the mock " << m_name << " did not own its name within 10 s";
            Stop();
        } else {
            g_usleep(10 * 1000);
        }
    }
    if (!m_pid)
        return;
    const std::string file = std::string(HADRIX_TEMPLATES_DIR "/") + m_template + ".py";
    CallOn(kMockInterface, "AddTemplate", g_variant_new("(s@a{sv})", file.c_str(), m_parameters.get()));
}

void TemplatePeer::Run()
{
    if (m_silent) {
        kill(m_pid, SIGCONT);
        m_silent = false;
        m_heldAnswers.clear();
    } else if (!m_pid) {
        Spawn();
        ServeWhenReady();
    }
}

void TemplatePeer::Stop()
{
    if (!m_pid)
        return;
    kill(m_pid, SIGKILL);
    waitpid(m_pid, nullptr, 0);
    m_pid = 0;
    m_silent = false;
    m_heldAnswers.clear();
    // The bus lets the name go once it sees the connection closed.
    EXPECT_TRUE(WaitForOwner(m_bus, m_name.c_str(), false)) << m_name << " kept its owner";
}

void TemplatePeer::Silence()
{
    if (m_silent)
        return;
    Run();
    m_heldAnswers["GetCalls"] = CallOn(kMockInterface, "GetCalls", nullptr);
    for (const std::string &read : m_reads)
        m_heldAnswers[read] = CallOn(m_interface.c_str(), read.c_str(), nullptr);
    kill(m_pid, SIGSTOP);
    int status = 0;
    EXPECT_EQ(waitpid(m_pid, &status, WUNTRACED), m_pid);
    EXPECT_TRUE(WIFSTOPPED(status)) << m_name << " did not stop";
    m_silent = true;
}

void TemplatePeer::Reset()
{
    if (m_pid && !m_silent) {
        CallOn(kMockInterface, "Reset", nullptr);
        CallOn(kMockInterface, "ClearCalls", nullptr);
        return;
    }
    Stop();
    Run();
}

VariantRef TemplatePeer::Call(const char *method, GVariant *arguments)
{
    return CallOn(m_interface.c_str(), method, arguments);
}

std::vector<std::pair<std::string, VariantRef>> TemplatePeer::Calls()
{
    std::vector<std::pair<std::string, VariantRef>> calls;
    VariantRef reply = CallOn(kMockInterface, "GetCalls", nullptr);
    if (!reply)
        return calls;
    g_autoptr(GVariantIter) log = nullptr;
    g_variant_get(reply.get(), "(a(tsav))", &log);
    const char *method = nullptr;
    GVariant *arguments = nullptr;
    while (g_variant_iter_next(log, "(t&s@av)", nullptr, &method, &arguments))
        calls.emplace_back(method, Own(arguments));
    return calls;
}

VariantRef TemplatePeer::CallOn(const char *interface, const char *method, GVariant *arguments)
{
    VariantRef held = hadrix::test::Hold(arguments);
    if (!m_pid)
        return nullptr;
    if (m_silent) {
        auto answer = m_heldAnswers.find(method);
        if (answer == m_heldAnswers.end())
            ADD_FAILURE() << "asked " << method << " of " << m_name << ", which is silent";
        return answer == m_heldAnswers.end() ? nullptr : answer->second;
    }
    g_autoptr(GError) error = nullptr;
    VariantRef reply = Own(g_dbus_connection_call_sync(m_bus, m_name.c_str(), m_path.c_str(), interface, method,
                                                       held.get(), nullptr, G_DBUS_CALL_FLAGS_NONE, kCallTimeoutMs,
                                                       nullptr, &error));
    if (!reply)
        ADD_FAILURE() << m_name << " " << method << ": " << error->message;
    return reply;
}

} // namespace contract
