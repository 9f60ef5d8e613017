// The test-bus helpers (tests/common) that in-process tests of the service and the host's
// contract driver stand on: a mock peer's answers, silence and signals, and a signal recorder.
#include "MockService.h"
#include "SignalRecorder.h"

#include <gtest/gtest.h>

namespace {

using hadrix::test::MockService;
using hadrix::test::SignalRecorder;

testing::Environment *const bus = testing::AddGlobalTestEnvironment(new hadrix::test::PrivateSystemBus);

constexpr const char *kXml = R"(<node><interface name='org.example.Peer'>
  <method name='Get'><arg type='i' direction='in'/><arg type='i' direction='out'/></method>
  <method name='Fail'/>
  <method name='Hang'/>
  <signal name='Changed'><arg type='i'/></signal>
</interface></node>)";

GVariant *Call(const char *method, GVariant *arguments, const GVariantType *reply, GError **error)
{
    g_autoptr(GDBusConnection) system = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
    return g_dbus_connection_call_sync(system, "org.example.Peer", "/org/example/Peer", "org.example.Peer", method,
                                       arguments, reply, G_DBUS_CALL_FLAGS_NONE, 300, nullptr, error);
}

TEST(TestBusTest, AMockAnswersFailsOrStaysSilentAndItsSignalsAreRecordedInOrder)
{
    MockService peer("org.example.Peer", "/org/example/Peer", kXml);
    peer.Handle("Get", [](GVariant *arguments) {
        gint32 value = 0;
        g_variant_get(arguments, "(i)", &value);
        return MockService::Reply::Value(g_variant_new("(i)", value * 2));
    });
    peer.Handle("Fail", [](GVariant *) { return MockService::Reply::Error("org.example.Error.Refused"); });
    peer.Handle("Hang", [](GVariant *) { return MockService::Reply::None(); });

    g_autoptr(GError) error = nullptr;
    g_autoptr(GVariant) doubled = Call("Get", g_variant_new("(i)", 21), G_VARIANT_TYPE("(i)"), &error);
    ASSERT_TRUE(doubled) << error->message;
    gint32 value = 0;
    g_variant_get(doubled, "(i)", &value);
    EXPECT_EQ(value, 42);
    EXPECT_FALSE(Call("Fail", nullptr, nullptr, &error));
    EXPECT_TRUE(g_dbus_error_is_remote_error(error));
    g_clear_error(&error);
    EXPECT_FALSE(Call("Hang", nullptr, nullptr, &error));
    EXPECT_TRUE(g_error_matches(error, G_IO_ERROR, G_IO_ERROR_TIMED_OUT));
    ASSERT_TRUE(peer.WaitForCalls("Hang", 1));
    EXPECT_EQ(peer.CallsTo("Get").at(0).Text(), "(21,)");

    SignalRecorder changes("org.example.Peer", "Changed");
    for (int value : {1, 2, 3})
        peer.Emit("org.example.Peer", "Changed", g_variant_new("(i)", value));
    ASSERT_TRUE(changes.WaitFor(3));
    std::vector<int> values;
    for (const SignalRecorder::Signal &signal : changes.Signals()) {
        g_variant_get(signal.arguments.get(), "(i)", &value);
        values.push_back(value);
    }
    EXPECT_EQ(values, (std::vector<int>{1, 2, 3}));
    EXPECT_EQ(changes.Signals().at(0).path, "/org/example/Peer");
}

} // namespace
