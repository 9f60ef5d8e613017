// A platform service or an application as the simulated TV has it: a python-dbusmock process on
// the test bus, loaded with a template of tools/tvsim/templates/ (python3 -m dbusmock, then
// AddTemplate, as tools/tvsim/simtv/bus.py starts them). The host's contract driver works it
// through the template's mock-only methods and dbusmock's own interface (org.freedesktop.DBus.Mock).
#pragma once

#include "MockService.h"

#include <sys/types.h>

#include <map>
#include <string>
#include <utility>
#include <vector>

namespace contract {

using hadrix::test::VariantRef;

// Waits (5 s at most) until name has an owner on bus, or none when owned is false.
bool WaitForOwner(GDBusConnection *bus, const char *name, bool owned = true);

class TemplatePeer {
public:
    // templateName: a file of tools/tvsim/templates/ without ".py"; parameters: an a{sv} for
    // its load; reads: the methods of interface that only read, whose answers stay readable
    // while the peer is silent. Calls go through bus, a connection of the driver's own.
    TemplatePeer(GDBusConnection *bus, std::string templateName, std::string name, std::string interface,
                 std::string path, GVariant *parameters, std::vector<std::string> reads = {});
    ~TemplatePeer();
    TemplatePeer(const TemplatePeer &) = delete;
    TemplatePeer &operator=(const TemplatePeer &) = delete;

    // The process starts; ServeWhenReady waits until it owns its name and has loaded its
    // template. Several can start at once.
    void Spawn();
    void ServeWhenReady();
    // Running: started if missing, woken (SIGCONT) if silent, when it answers what it held.
    void Run();
    // Missing: the process is gone and its name with it.
    void Stop();
    // Silent: the process is stopped (SIGSTOP) and answers nothing; what its reads answered is
    // kept. Reset ends silence with a new process: the calls the old one held are dropped.
    void Silence();
    // Running as its template loaded it, with no calls recorded: the template's load is run
    // again (Reset), or a new process started if it was missing or silent.
    void Reset();

    // Calls a method of the peer's interface and returns its answer, failing the case on an
    // error. A silent peer answers its reads as it did when it went quiet, and nothing else; a
    // missing one answers nothing (null).
    VariantRef Call(const char *method, GVariant *arguments = nullptr);
    // The calls it received so far (dbusmock's GetCalls): method and arguments (an av).
    std::vector<std::pair<std::string, VariantRef>> Calls();

private:
    VariantRef CallOn(const char *interface, const char *method, GVariant *arguments);

    GDBusConnection *m_bus;
    const std::string m_template;
    const std::string m_name;
    const std::string m_interface;
    const std::string m_path;
    const VariantRef m_parameters;
    const std::vector<std::string> m_reads;
    pid_t m_pid = 0;
    bool m_silent = false;
    std::map<std::string, VariantRef> m_heldAnswers; // of a silent peer's reads
};

} // namespace contract
