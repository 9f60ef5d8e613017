// A platform service on the system bus, as the host's thin clients see it: the bus name is also
// the interface, the object path is the name with dots as slashes, every call is bounded to
// 1000 ms, and failures come back as the negative codes the platform headers share.
#pragma once

#include <gio/gio.h>

#include <cerrno>
#include <functional>
#include <memory>
#include <string>

#include "UniqueHandle.h"

namespace nimbos {

// The codes every service client returns (each header names them *_IO_ERROR, *_TIMED_OUT).
constexpr int kServiceOk = 0;
constexpr int kServiceIoError = -EIO;
constexpr int kServiceTimedOut = -ETIMEDOUT;
constexpr int kServiceInvalidParameter = -EINVAL;

// Whether a header's codes are these, so that a client hands Call's results on unchanged.
constexpr bool UsesServiceCodes(int none, int ioError, int timedOut, int invalidParameter)
{
    return none == kServiceOk && ioError == kServiceIoError && timedOut == kServiceTimedOut &&
           invalidParameter == kServiceInvalidParameter;
}

using ConnectionRef = UniqueHandle<GDBusConnection, g_object_unref>;

// One signal subscription; destroying it unsubscribes. The handler is released on the
// subscribing thread's main context once no delivery can reach it any more.
class SignalSubscription {
public:
    SignalSubscription(ConnectionRef bus, guint id) : m_bus(std::move(bus)), m_id(id) {}
    ~SignalSubscription() { g_dbus_connection_signal_unsubscribe(m_bus.get(), m_id); }
    SignalSubscription(const SignalSubscription &) = delete;
    SignalSubscription &operator=(const SignalSubscription &) = delete;

private:
    ConnectionRef m_bus;
    guint m_id;
};

class PlatformService {
public:
    // Receives the signal's arguments, already checked against the subscribed type.
    using SignalHandler = std::function<void(GVariant *arguments)>;

    explicit PlatformService(const char *busName);

    // Calls `method` with `arguments` (a floating GVariant, consumed, or null for none). Returns
    // kServiceOk and, when `reply` is given, stores the reply, which is of `replyType`;
    // otherwise kServiceTimedOut or kServiceIoError, logged.
    int Call(const char *method, GVariant *arguments, const GVariantType *replyType,
             GVariant **reply = nullptr) const;

    // Call for a method that answers nothing.
    int Command(const char *method, GVariant *arguments) const;

    // Call for a method that answers one value, stored in *value only on success.
    int ReadInt32(const char *method, GVariant *arguments, gint32 *value) const;
    int ReadUint32(const char *method, GVariant *arguments, guint32 *value) const;
    int ReadBoolean(const char *method, GVariant *arguments, gboolean *value) const;

    // Delivers every `signal` of the service whose arguments are of `type` to `handler`, on the
    // thread-default main context of the calling thread; signals of another type are logged and
    // dropped. Null when the system bus cannot be reached (logged).
    std::unique_ptr<SignalSubscription> Subscribe(const char *signal, const GVariantType *type,
                                                  SignalHandler handler) const;

    const char *Name() const { return m_busName.c_str(); }

private:
    // `tupleType` is a one-value tuple type, also the format that unpacks it into `value`.
    int ReadOne(const char *method, GVariant *arguments, const char *tupleType, void *value) const;

    std::string m_busName;
    std::string m_objectPath;
};

} // namespace nimbos
