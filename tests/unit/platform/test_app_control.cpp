// Application control: the request handle, and launch requests carried over a private bus into a
// running service loop.
#include "nimbos/app.h"

#include <gtest/gtest.h>

#include <gio/gio.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using Pairs = std::vector<std::pair<std::string, std::string>>;
using Handle = std::unique_ptr<app_control_s, int (*)(app_control_h)>;

Handle NewHandle()
{
    app_control_h raw = nullptr;
    EXPECT_EQ(app_control_create(&raw), APP_CONTROL_ERROR_NONE);
    return Handle(raw, app_control_destroy);
}

std::string Operation(app_control_h handle)
{
    g_autofree char *text = nullptr;
    EXPECT_EQ(app_control_get_operation(handle, &text), APP_CONTROL_ERROR_NONE);
    return text ? text : "";
}

// The extra data in the order foreach_extra_data hands them out, up to `limit` of them.
Pairs ExtraData(app_control_h handle, size_t limit = 100)
{
    std::pair<Pairs, size_t> seen{{}, limit};
    app_control_foreach_extra_data(handle, [](app_control_h h, const char *key, void *data) {
        auto *seen = static_cast<std::pair<Pairs, size_t> *>(data);
        g_autofree char *value = nullptr;
        EXPECT_EQ(app_control_get_extra_data(h, key, &value), APP_CONTROL_ERROR_NONE);
        seen->first.emplace_back(key, value ? value : "");
        return seen->first.size() < seen->second;
    }, &seen);
    return seen.first;
}

TEST(AppControlHandleTest, KeepsOperationAndExtraDataInOrder)
{
    Handle handle = NewHandle();
    EXPECT_EQ(Operation(handle.get()), APP_CONTROL_OPERATION_DEFAULT);
    ASSERT_EQ(app_control_set_operation(handle.get(), "debug"), APP_CONTROL_ERROR_NONE);
    EXPECT_EQ(Operation(handle.get()), "debug");
    ASSERT_EQ(app_control_set_operation(handle.get(), nullptr), APP_CONTROL_ERROR_NONE);
    EXPECT_EQ(Operation(handle.get()), APP_CONTROL_OPERATION_DEFAULT);

    for (const auto &[key, value] : Pairs{{"cset", "1"}, {"audio_control", "2"}, {"pulse", "3"}, {"audio_control", "20"}})
        ASSERT_EQ(app_control_add_extra_data(handle.get(), key.c_str(), value.c_str()), APP_CONTROL_ERROR_NONE);
    EXPECT_EQ(ExtraData(handle.get()), (Pairs{{"cset", "1"}, {"audio_control", "20"}, {"pulse", "3"}}))
        << "a key added again keeps its place";
    EXPECT_EQ(ExtraData(handle.get(), 2), (Pairs{{"cset", "1"}, {"audio_control", "20"}}))
        << "the walk stops when the callback says so";

    char *value = nullptr;
    EXPECT_EQ(app_control_get_extra_data(handle.get(), "cget", &value), APP_CONTROL_ERROR_KEY_NOT_FOUND);
    EXPECT_EQ(value, nullptr);
}

TEST(AppControlHandleTest, RefusesWhatCannotBeSent)
{
    Handle handle = NewHandle();
    EXPECT_EQ(app_control_add_extra_data(handle.get(), "", "v"), APP_CONTROL_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(app_control_add_extra_data(handle.get(), "k", nullptr), APP_CONTROL_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(app_control_add_extra_data(handle.get(), "k", "\xff\xfe"), APP_CONTROL_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(app_control_set_operation(handle.get(), "\xc3"), APP_CONTROL_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(app_control_set_app_id(handle.get(), "not a bus name"), APP_CONTROL_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(app_control_add_extra_data(nullptr, "k", "v"), APP_CONTROL_ERROR_INVALID_PARAMETER);
    EXPECT_TRUE(ExtraData(handle.get()).empty());
    EXPECT_EQ(Operation(handle.get()), APP_CONTROL_OPERATION_DEFAULT);

    int replies = 0;
    EXPECT_EQ(app_control_send_launch_request(handle.get(), [](app_control_h, app_control_h, int, void *data) {
        ++*static_cast<int *>(data);
    }, &replies), APP_CONTROL_ERROR_INVALID_PARAMETER) << "no app id";
    EXPECT_EQ(replies, 0);
}

struct Seen {
    int launches = 0;
    std::string operation;
    Pairs extra;
    bool terminated = false;
    bool timedOut = false;
    int launchResult = 1;
    int replyResult = 1;
    bool hadReply = false;
    std::string emptyKeyError;
};

// Sends a launch request to the service loop until its name is owned, with a deadline, then a
// raw Launch call with an empty key, and ends the loop.
void LaunchService(Seen *seen)
{
    Handle handle = NewHandle();
    app_control_set_app_id(handle.get(), "org.nimbos.hadrix");
    app_control_set_operation(handle.get(), "debug");
    for (const auto &[key, value] : Pairs{{"pulse", "1"}, {"cset", "numid=3 50"}, {"pulse", "2"}})
        app_control_add_extra_data(handle.get(), key.c_str(), value.c_str());
    auto reply = [](app_control_h, app_control_h reply, int result, void *data) {
        static_cast<Seen *>(data)->replyResult = result;
        static_cast<Seen *>(data)->hadReply = reply != nullptr;
    };
    for (const gint64 end = g_get_monotonic_time() + 5 * G_USEC_PER_SEC;
         (seen->launchResult = app_control_send_launch_request(handle.get(), reply, seen)) ==
             APP_CONTROL_ERROR_APP_NOT_FOUND && g_get_monotonic_time() < end;)
        g_usleep(20000);

    g_autoptr(GError) error = nullptr;
    g_autoptr(GDBusConnection) bus = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);
    g_autoptr(GVariant) result = bus ? g_dbus_connection_call_sync(bus, "org.nimbos.hadrix", "/org/nimbos/AppControl",
        "org.nimbos.AppControl", "Launch", g_variant_new_parsed("('debug', [('', 'x')])"), nullptr,
        G_DBUS_CALL_FLAGS_NONE, 2000, nullptr, &error) : nullptr;
    g_autofree char *name = error ? g_dbus_error_get_remote_error(error) : nullptr;
    seen->emptyKeyError = name ? name : error ? error->message : "";
    service_app_exit();
}

// A private message bus stands in for the system bus.
TEST(LaunchOverBusTest, LaunchReachesTheServiceLoopInOrder)
{
    g_autoptr(GTestDBus) testBus = g_test_dbus_new(G_TEST_DBUS_NONE);
    g_test_dbus_up(testBus);
    setenv("DBUS_SYSTEM_BUS_ADDRESS", g_test_dbus_get_bus_address(testBus), 1);

    Seen service;
    service_app_lifecycle_callback_s callbacks{};
    callbacks.create = [](void *) { return true; };
    callbacks.app_control = [](app_control_h request, void *data) {
        auto *seen = static_cast<Seen *>(data);
        seen->launches++;
        seen->operation = Operation(request);
        seen->extra = ExtraData(request);
    };
    callbacks.terminate = [](void *data) { static_cast<Seen *>(data)->terminated = true; };
    guint guard = g_timeout_add_seconds(20, [](gpointer data) {
        static_cast<Seen *>(data)->timedOut = true;
        service_app_exit();
        return G_SOURCE_REMOVE;
    }, &service);
    std::thread client(LaunchService, &service);
    const int ret = service_app_main(0, nullptr, &callbacks, &service);
    client.join();
    if (!service.timedOut)
        g_source_remove(guard);
    // The shared connection would end the process when its bus goes away.
    g_autoptr(GDBusConnection) system = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
    if (system)
        g_dbus_connection_set_exit_on_close(system, FALSE);
    g_test_dbus_down(testBus);

    ASSERT_FALSE(service.timedOut);
    EXPECT_EQ(ret, 0);
    EXPECT_EQ(service.launchResult, APP_CONTROL_ERROR_NONE);
    EXPECT_EQ(service.replyResult, APP_CONTROL_ERROR_NONE);
    EXPECT_TRUE(service.hadReply);
    EXPECT_EQ(service.emptyKeyError, "org.freedesktop.DBus.Error.InvalidArgs");
    EXPECT_EQ(service.launches, 1);
    EXPECT_EQ(service.operation, "debug");
    EXPECT_EQ(service.extra, (Pairs{{"pulse", "2"}, {"cset", "numid=3 50"}}));
    EXPECT_TRUE(service.terminated);
}

} // namespace
