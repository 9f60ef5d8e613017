// The service's names on the system bus, for the service, its clients and its tests. Each
// interface itself is described once, in src/dbus/.
#pragma once

namespace hadrix::api {

constexpr char kBusName[] = "org.nimbos.hadrix.server";
constexpr char kInterface[] = "org.nimbos.hadrix.server.interface";
// The object that serves the methods, and the one the change signals come from.
constexpr char kObjectPath[] = "/org/nimbos/tv/hadrix/server";
constexpr char kSignalPath[] = "/org/nimbos/hadrex";

constexpr char kCheckDbusConnection[] = "check_dbus_connection";
constexpr char kSubscribe[] = "SubscribeHadrixServiceCallback";
constexpr char kUnsubscribe[] = "UnSubscribeHadrixServiceCallback";
constexpr char kGetDeviceListInfo[] = "GetDeviceListInfo";
constexpr char kNotifyClientMessage[] = "Notify_client_message";
// The second change signal, which only the generated skeleton carries.
constexpr char kSendMessage[] = "send_message";

// The service's application id: launch requests (and debug commands) go to this bus name.
constexpr char kAppId[] = "org.nimbos.hadrix";

} // namespace hadrix::api

// The diagnostics interface (src/dbus/hadrix-diagnostics.xml): served on the client API's
// connection, so under its bus name, from an object path of its own.
namespace hadrix::diagnostics {

constexpr char kInterface[] = "org.nimbos.hadrix.Diagnostics";
constexpr char kObjectPath[] = "/org/nimbos/hadrix/Diagnostics";

constexpr char kGetVerdicts[] = "GetVerdicts";
constexpr char kGetHistory[] = "GetHistory";
constexpr char kDecision[] = "Decision";

} // namespace hadrix::diagnostics
