// Application control: the request handle, and launch requests carried over a private bus into a
// running service loop.
#include "nimbos/app.h"

#include <gtest/gtest.h>

#include <gio/gio.h>

#include <chrono>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using Pairs = std::vector<std::pair<std::string, std::string>>;

struct HandleDeleter {
    void operator()(app_control_h handle) const { app_control_destroy(handle); }
};
using Handle = std::unique_ptr<app_control_s, HandleDeleter>;

Handle NewHandle()
{
    app_control_h raw = nullptr;
    EXPECT_EQ(app_control_create(&raw), APP_CONTROL_ERROR_NONE);
    return Handle(raw);
}

std::string Operation(app_control_h handle)
{
    char *raw = nullptr;
    EXPECT_EQ(app_control_get_operation(handle, &raw), APP_CONTROL_ERROR_NONE);
    std::unique_ptr<char, decltype(&free)> text(raw, free);
    return text ? text.get() : "";
}

// The extra data in the order foreach_extra_data hands them out.
Pairs ExtraData(app_control_h handle)
{
    Pairs seen;
    app_control_foreach_extra_data(handle, [](app_control_h h, const char *key, void *data) {
        char *raw = nullptr;
        EXPECT_EQ(app_control_get_extra_data(h, key, &raw), APP_CONTROL_ERROR_NONE);
        std::unique_ptr<char, decltype(&free)> value(raw, free);
        static_cast<Pairs *>(data)->emplace_back(key, value ? value.get() : "");
        return true;
    }, &seen);
    return seen;
}

TEST(AppControlHandleTest, OperationDefaultsAndResets)
{
    Handle handle = NewHandle();
    EXPECT_EQ(Operation(handle.get()), APP_CONTROL_OPERATION_DEFAULT);
    ASSERT_EQ(app_control_set_operation(handle.get(), "debug"), APP_CONTROL_ERROR_NONE);
    EXPECT_EQ(Operation(handle.get()), "debug");
    ASSERT_EQ(app_control_set_operation(handle.get(), nullptr), APP_CONTROL_ERROR_NONE);
    EXPECT_EQ(Operation(handle.get()), APP_CONTROL_OPERATION_DEFAULT);
}

TEST(AppControlHandleTest, ExtraDataKeepOrderAndReplaceInPlace)
{
    Handle handle = NewHandle();
    ASSERT_EQ(app_control_add_extra_data(handle.get(), "cset", "1"), APP_CONTROL_ERROR_NONE);
    ASSERT_EQ(app_control_add_extra_data(handle.get(), "audio_control", "2"), APP_CONTROL_ERROR_NONE);
    ASSERT_EQ(app_control_add_extra_data(handle.get(), "pulse", "3"), APP_CONTROL_ERROR_NONE);
    ASSERT_EQ(app_control_add_extra_data(handle.get(), "audio_control", "20"), APP_CONTROL_ERROR_NONE);
    EXPECT_EQ(ExtraData(handle.get()), (Pairs{{"cset", "1"}, {"audio_control", "20"}, {"pulse", "3"}}));
}

TEST(AppControlHandleTest, MissingKeyIsReportedAndLeavesOutputAlone)
{
    Handle handle = NewHandle();
    ASSERT_EQ(app_control_add_extra_data(handle.get(), "pulse", "1"), APP_CONTROL_ERROR_NONE);
    char *value = nullptr;
    EXPECT_EQ(app_control_get_extra_data(handle.get(), "cget", &value), APP_CONTROL_ERROR_KEY_NOT_FOUND);
    EXPECT_EQ(value, nullptr);
}

TEST(AppControlHandleTest, ForeachStopsWhenTheCallbackSaysSo)
{
    Handle handle = NewHandle();
    for (const char *key : {"a", "b", "c"})
        ASSERT_EQ(app_control_add_extra_data(handle.get(), key, "v"), APP_CONTROL_ERROR_NONE);
    std::vector<std::string> visited;
    app_control_foreach_extra_data(handle.get(), [](app_control_h, const char *key, void *data) {
        auto *keys = static_cast<std::vector<std::string> *>(data);
        keys->push_back(key);
        return keys->size() < 2;
    }, &visited);
    EXPECT_EQ(visited, (std::vector<std::string>{"a", "b"}));
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
}

struct ReplySeen {
    int calls = 0;
    int result = 1;
    bool hadReply = false;
    std::thread::id thread;
};

void RecordReply(app_control_h, app_control_h reply, int result, void *data)
{
    auto *seen = static_cast<ReplySeen *>(data);
    seen->calls++;
    seen->result = result;
    seen->hadReply = reply != nullptr;
    seen->thread = std::this_thread::get_id();
}

TEST(AppControlHandleTest, LaunchWithoutAppIdFailsWithoutReply)
{
    Handle handle = NewHandle();
    ReplySeen seen;
    EXPECT_EQ(app_control_send_launch_request(handle.get(), RecordReply, &seen), APP_CONTROL_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(seen.calls, 0);
}

// A private message bus stands in for the system bus of the whole test program.
class LaunchOverBusTest : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        s_bus = g_test_dbus_new(G_TEST_DBUS_NONE);
        g_test_dbus_up(s_bus);
        setenv("DBUS_SYSTEM_BUS_ADDRESS", g_test_dbus_get_bus_address(s_bus), 1);
    }
    static void TearDownTestSuite()
    {
        // The shared connection would end the process when its bus goes away.
        g_autoptr(GDBusConnection) system = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
        if (system)
            g_dbus_connection_set_exit_on_close(system, FALSE);
        g_test_dbus_down(s_bus);
        g_clear_object(&s_bus);
    }

    static GTestDBus *s_bus;
};

GTestDBus *LaunchOverBusTest::s_bus = nullptr;

struct ServiceSeen {
    int launches = 0;
    std::string operation;
    Pairs extra;
    bool terminated = false;
    bool timedOut = false;
};

// Sends a launch request to the service loop until its name is owned, with a deadline.
int LaunchService(ReplySeen *seen)
{
    Handle handle = NewHandle();
    app_control_set_app_id(handle.get(), "org.nimbos.hadrix");
    app_control_set_operation(handle.get(), "debug");
    app_control_add_extra_data(handle.get(), "pulse", "1");
    app_control_add_extra_data(handle.get(), "cset", "numid=3 50");
    app_control_add_extra_data(handle.get(), "pulse", "2");
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    int result;
    while ((result = app_control_send_launch_request(handle.get(), RecordReply, seen)) ==
               APP_CONTROL_ERROR_APP_NOT_FOUND &&
           std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    return result;
}

// A raw Launch call with the given arguments; the D-Bus error it gets, or "" on success.
std::string RawLaunch(GVariant *arguments)
{
    g_autoptr(GError) error = nullptr;
    g_autoptr(GDBusConnection) bus = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);
    if (!bus)
        return error->message;
    g_autoptr(GVariant) reply =
        g_dbus_connection_call_sync(bus, "org.nimbos.hadrix", "/org/nimbos/AppControl", "org.nimbos.AppControl",
                                    "Launch", arguments, nullptr, G_DBUS_CALL_FLAGS_NONE, 2000, nullptr, &error);
    if (reply)
        return "";
    g_autofree char *name = g_dbus_error_get_remote_error(error);
    return name ? name : error->message;
}

TEST_F(LaunchOverBusTest, LaunchReachesTheServiceLoopInOrder)
{
    ServiceSeen service;
    service_app_lifecycle_callback_s callbacks{};
    callbacks.create = [](void *) { return true; };
    callbacks.app_control = [](app_control_h request, void *data) {
        auto *seen = static_cast<ServiceSeen *>(data);
        seen->launches++;
        seen->operation = Operation(request);
        seen->extra = ExtraData(request);
    };
    callbacks.terminate = [](void *data) { static_cast<ServiceSeen *>(data)->terminated = true; };

    guint guard = g_timeout_add_seconds(20, [](gpointer data) {
        static_cast<ServiceSeen *>(data)->timedOut = true;
        service_app_exit();
        return G_SOURCE_REMOVE;
    }, &service);

    ReplySeen reply;
    int launchResult = 1;
    std::string emptyKey;
    std::thread client([&] {
        launchResult = LaunchService(&reply);
        emptyKey = RawLaunch(g_variant_new_parsed("('debug', [('', 'x')])"));
        service_app_exit();
    });
    int ret = service_app_main(0, nullptr, &callbacks, &service);
    client.join();
    if (!service.timedOut)
        g_source_remove(guard);

    ASSERT_FALSE(service.timedOut);
    EXPECT_EQ(ret, 0);
    EXPECT_EQ(launchResult, APP_CONTROL_ERROR_NONE);
    EXPECT_EQ(reply.result, APP_CONTROL_ERROR_NONE);
    EXPECT_TRUE(reply.hadReply);
    EXPECT_EQ(emptyKey, "org.freedesktop.DBus.Error.InvalidArgs");
    EXPECT_EQ(service.launches, 1);
    EXPECT_EQ(service.operation, "debug");
    EXPECT_EQ(service.extra, (Pairs{{"pulse", "2"}, {"cset", "numid=3 50"}}));
    EXPECT_TRUE(service.terminated);
}

} // namespace
