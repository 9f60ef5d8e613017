// The client API on the test bus, as a client application sees it: the four methods and their
// replies, subscriptions kept in the subscriber file, the device records and the change signals.
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "HadrixBusNames.h"
#include "HadrixDbusAPIServer.h"
#include "ServiceHarness.h"
#include "SignalRecorder.h"
#include "TestBus.h"
#include "nimbos/fake.h"

namespace fake = nimbos::fake;
namespace api = hadrix::api;
using hadrix::test::ConnectionRef;
using hadrix::test::kHeadset;
using hadrix::test::ServiceHarness;
using hadrix::test::SignalRecorder;
using hadrix::test::VariantRef;

namespace {

const char kInvalidArgs[] = "org.freedesktop.DBus.Error.InvalidArgs";

struct Reply {
    VariantRef value;
    std::string error; // the D-Bus error name; empty on success
};

class ClientApi : public ::testing::Test {
protected:
    void SetUp() override { StartServer(); }

    // The server as the service starts it: the subscribers read, the name owned on the bus.
    void StartServer()
    {
        CUSBAPIServer::GetInstance()->CreateListener();
        ASSERT_TRUE(fake::RunUntil([this] { return NameHasOwner(); })) << api::kBusName << " never owned";
    }
    // The service ends and starts again.
    void RestartServer()
    {
        CUSBAPIServer::ReleaseInstance();
        ASSERT_TRUE(fake::RunUntil([this] { return !NameHasOwner(); }));
        StartServer();
    }

    Reply Call(const char *method, GVariant *arguments)
    {
        g_autoptr(GError) error = nullptr;
        GVariant *value = g_dbus_connection_call_sync(m_Client.get(), api::kBusName, api::kObjectPath, api::kInterface,
                                                      method, arguments, nullptr, G_DBUS_CALL_FLAGS_NONE, 5000, nullptr,
                                                      &error);
        if (error) {
            g_autofree char *name = g_dbus_error_get_remote_error(error);
            return {nullptr, name ? name : "(local)"};
        }
        return {hadrix::test::Hold(value), ""};
    }
    // The reply's one string, or the error's name.
    std::string CallWithName(const char *method, const std::string &name)
    {
        const Reply reply = Call(method, g_variant_new("(s)", name.c_str()));
        if (!reply.value)
            return reply.error;
        const gchar *text = nullptr;
        g_variant_get(reply.value.get(), "(&s)", &text);
        return text;
    }
    std::string DeviceList()
    {
        const Reply reply = Call(api::kGetDeviceListInfo, g_variant_new("(i)", 0));
        EXPECT_EQ(reply.error, "");
        if (!reply.value)
            return {};
        g_autoptr(GVariant) bytes = g_variant_get_child_value(reply.value.get(), 0);
        gsize size = 0;
        const auto *data = static_cast<const char *>(g_variant_get_fixed_array(bytes, &size, 1));
        return std::string(data, size);
    }
    static std::string Subscribers()
    {
        std::ifstream file(CUSBAPIServer::SubscriberFilePath());
        return file ? std::string(std::istreambuf_iterator<char>(file), {}) : "<absent>";
    }

    ServiceHarness tv;

private:
    bool NameHasOwner()
    {
        g_autoptr(GVariant) reply = g_dbus_connection_call_sync(
            m_Client.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "NameHasOwner",
            g_variant_new("(s)", api::kBusName), G_VARIANT_TYPE("(b)"), G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, nullptr);
        gboolean owned = FALSE;
        if (reply)
            g_variant_get(reply, "(b)", &owned);
        return owned;
    }

    ConnectionRef m_Client = hadrix::test::NewSystemBusConnection();
};

TEST_F(ClientApi, TheConnectionCheckAnswersTheClientObjectNameCutTo255BytesAndStoresNothing)
{
    EXPECT_EQ(CallWithName(api::kCheckDbusConnection, "org.example.player"), "objorg.example.player");
    EXPECT_EQ(CallWithName(api::kCheckDbusConnection, std::string(300, 'p')), "obj" + std::string(252, 'p'));
    std::string accented = "x";
    for (int i = 0; i < 150; ++i)
        accented += "\u00e9";
    EXPECT_EQ(CallWithName(api::kCheckDbusConnection, accented), "obj" + accented.substr(0, 1 + 2 * 125))
        << "a character is not cut in two";
    EXPECT_EQ(Subscribers(), "<absent>");
}

TEST_F(ClientApi, SubscribersAreOneLineEachInTheFileWhichTheNextStartReads)
{
    for (const char *name : {"org.example.b", "org.example.a", "org.example.a"})
        EXPECT_EQ(CallWithName(api::kSubscribe, name), std::string("obj") + name);
    const std::string both = "org.example.a objorg.example.a\norg.example.b objorg.example.b\n";
    EXPECT_EQ(Subscribers(), both);
    EXPECT_EQ(CallWithName(api::kUnsubscribe, "org.example.nobody"), "objorg.example.nobody");
    EXPECT_EQ(Subscribers(), both);

    tv.root.WriteFile("/home/owner/apps_rw/hadrix/data/.subscriber",
                      "org.example.a objOld\norg.example.a objOther\norg.example.b objorg.example.b\nlonely\n");
    RestartServer();
    CallWithName(api::kUnsubscribe, "org.example.b");
    EXPECT_EQ(Subscribers(), "org.example.a objOld\n") << "the first line of a process counts; a lone word is none";
    CallWithName(api::kSubscribe, "org.example.a");
    EXPECT_EQ(Subscribers(), "org.example.a objorg.example.a\n") << "subscribing again replaces the object name";
}

TEST_F(ClientApi, ANameThatWouldNotReadBackAsOneWordIsRefusedAndSoIsAnyNewOneWhenTheTableIsFull)
{
    // Which names would not read back: SubscriberFileTest (api/test_subscribers.cpp).
    EXPECT_EQ(CallWithName(api::kSubscribe, "two words"), kInvalidArgs);
    EXPECT_EQ(CallWithName(api::kUnsubscribe, "two words"), "objtwo words") << "nothing to remove";
    EXPECT_EQ(Subscribers(), "<absent>");

    // The table holds one place more than the file the service starts with.
    std::string almostFull;
    for (size_t n = 1; n < CUSBAPIServer::kMaxSubscribers; ++n)
        almostFull += "app." + std::to_string(n) + " obj\n";
    tv.root.WriteFile("/home/owner/apps_rw/hadrix/data/.subscriber", almostFull);
    RestartServer();
    EXPECT_EQ(CallWithName(api::kSubscribe, "app.0"), "objapp.0");
    EXPECT_EQ(CallWithName(api::kSubscribe, "app.late"), "org.freedesktop.DBus.Error.LimitsExceeded");
    EXPECT_EQ(CallWithName(api::kSubscribe, "app.0"), "objapp.0") << "a known process may subscribe again";
}

TEST_F(ClientApi, ArgumentsOfAnotherTypeAreRefused)
{
    const std::pair<const char *, GVariant *> calls[] = {
        {api::kCheckDbusConnection, g_variant_new("(i)", 1)},
        {api::kSubscribe, g_variant_new("(i)", 1)},
        {api::kUnsubscribe, g_variant_new("()")},
        {api::kGetDeviceListInfo, g_variant_new("(s)", "0")},
    };
    for (const auto &[method, arguments] : calls)
        EXPECT_EQ(Call(method, arguments).error, kInvalidArgs) << method;
}

TEST_F(ClientApi, TheDeviceListIsOne327ByteRecordPerDeviceShown)
{
    fake::SetInt("db/hadrix/volume_level", 23);
    EXPECT_EQ(DeviceList(), "");

    tv.PresentAtBoot(kHeadset);
    tv.SetUsbAudioMode(true);
    tv.Start();
    const std::string record = DeviceList();
    ASSERT_EQ(record.size(), 327u);
    auto text = [&record](size_t offset) { return std::string(record.c_str() + offset); };
    EXPECT_EQ(record[0], 1) << "selected";
    EXPECT_EQ(text(1), "USB Headphone");
    EXPECT_EQ(text(15), "connected");
    EXPECT_EQ(record.substr(35, 4), std::string("\x17\0\0\0", 4)) << "volume 23, little-endian";
    EXPECT_EQ(text(39), "Evolve 20 (USB)"); // the other fields: NetDeviceList (api/test_device_list.cpp)
}

TEST_F(ClientApi, EveryChangeOfTheDevicesIsBroadcastToTheClients)
{
    SignalRecorder notify(api::kInterface, api::kNotifyClientMessage);
    SignalRecorder message(api::kInterface, api::kSendMessage);
    tv.Start();
    tv.Plug(kHeadset);
    tv.Unplug(kHeadset);
    hadrix::test::SyncSystemBus();
    notify.Flush();
    message.Flush();
    ASSERT_EQ(notify.Signals().size(), 2u) << "the plug and the unplug";
    ASSERT_EQ(message.Signals().size(), 2u);
    for (const auto &[recorder, arguments] :
         {std::make_pair(&notify, "({123: 321},)"), std::make_pair(&message, "(10,)")}) {
        for (const SignalRecorder::Signal &signal : recorder->Signals()) {
            EXPECT_EQ(signal.path, api::kSignalPath);
            g_autofree char *printed = g_variant_print(signal.arguments.get(), FALSE);
            EXPECT_STREQ(printed, arguments);
        }
    }
}

} // namespace
