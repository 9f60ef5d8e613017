// The service's life on the fake's service-application loop: what start-up brings up and in
// which order, the device initialisation 100 ms into the loop, launch requests, the watchdog's
// heartbeat, the menu language, and the end of the loop.
#include <gtest/gtest.h>

#include <libintl.h>

#include <clocale>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "HadrixBusNames.h"
#include "ServiceApp.h"
#include "ServiceHarness.h"
#include "TestBus.h"
#include "nimbos/app.h"
#include "nimbos/fake.h"

namespace fake = nimbos::fake;
namespace api = hadrix::api;
using hadrix::test::MockService;
using hadrix::test::ServiceHarness;

namespace {

const char kLanguageKey[] = "db/menu_widget/language";

// Runs the service until `steps` have run on its loop: RunService's result.
int RunServiceWith(std::function<void()> steps)
{
    g_idle_add(
        [](gpointer data) -> gboolean {
            (*static_cast<std::function<void()> *>(data))();
            service_app_exit();
            return G_SOURCE_REMOVE;
        },
        &steps);
    char name[] = "hadrix";
    char *argv[] = {name, nullptr};
    return RunService(1, argv);
}

// The position of the first call to function (with this first argument, if given) at or after
// `from` in calls; calls.size() when there is none.
size_t Find(const std::vector<fake::Call> &calls, size_t from, const std::string &function,
            const char *firstArg = nullptr)
{
    for (size_t i = from; i < calls.size(); ++i)
        if (calls[i].function == function && (!firstArg || (!calls[i].args.empty() && calls[i].args[0] == firstArg)))
            return i;
    return calls.size();
}

// Whether every call of `expected` was made, in that order.
::testing::AssertionResult MadeInOrder(const std::vector<std::pair<std::string, const char *>> &expected)
{
    const std::vector<fake::Call> calls = fake::Calls();
    size_t at = 0;
    for (const auto &[function, firstArg] : expected) {
        at = Find(calls, at, function, firstArg);
        if (at == calls.size())
            return ::testing::AssertionFailure() << function << (firstArg ? std::string("(") + firstArg + ")" : "")
                                                 << " is missing or out of order";
        ++at;
    }
    return ::testing::AssertionSuccess();
}

class ServiceLife : public ::testing::Test {
protected:
    void TearDown() override { setlocale(LC_ALL, "C"); }

    // Whether the client API answers on the bus.
    static bool ApiAnswers()
    {
        hadrix::test::ConnectionRef client = hadrix::test::NewSystemBusConnection();
        g_autoptr(GVariant) reply = g_dbus_connection_call_sync(
            client.get(), api::kBusName, api::kObjectPath, api::kInterface, api::kCheckDbusConnection,
            g_variant_new("(s)", "test"), nullptr, G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, nullptr);
        return reply != nullptr;
    }
    // The device initialisation and its enumeration, from the start of the loop.
    void InitialiseDevices()
    {
        tv.clock.Advance(100);
        tv.FinishEnumeration();
    }

    ServiceHarness tv;
};

TEST_F(ServiceLife, StartUpBringsTheManagersUpInOrderAndTheLoopTheLocalFilesThenTheDevices)
{
    const int result = RunServiceWith([this] {
        EXPECT_TRUE(MadeInOrder({{"vconf_get_str", kLanguageKey},
                                 {"vconf_notify_key_changed", kLanguageKey},
                                 {"nimbos::Path", "/usr/apps/hadrix/res/locale"},
                                 {"usb_device_init", nullptr},
                                 {"device_power_get_state", nullptr},
                                 {"nimbos::DataRoot", nullptr},
                                 {"vconf_notify_key_changed", "memory/menu/network/screenmirroring/set_volume_mute"},
                                 {"vconf_notify_key_changed", "memory/multiscreen/ui_mode"},
                                 {"smart_deadlock_register_watchdog_service", "60"},
                                 {"service_app_main", nullptr},
                                 {"vconf_get_int", "db/hadrix/volume_level"}}));
        EXPECT_TRUE(fake::RunUntil(ApiAnswers)) << "the client API listens from start-up";

        tv.clock.Advance(99);
        EXPECT_TRUE(fake::CallsTo("usb_set_connected_cb").empty());
        fake::ClearCalls();
        tv.clock.Advance(1);
        EXPECT_TRUE(MadeInOrder({{"IAudioControl::setUsbOutGain", "50"},
                                 {"sound_manager_set_speaker_changed_cb", nullptr},
                                 {"usb_set_connected_cb", nullptr},
                                 {"device_power_subscribe_state_changed_event", nullptr}}));
        tv.FinishEnumeration();
    });
    EXPECT_EQ(result, 0);
}

TEST_F(ServiceLife, TheWatchdogIsRegisteredForSixtySecondsAndBeatsEveryFive)
{
    RunServiceWith([this] {
        const uint64_t start = tv.clock.NowMs();
        const fake::Watchdog registered = fake::WatchdogState();
        EXPECT_EQ(registered.periodSeconds, 60);
        EXPECT_TRUE(registered.ready);
        InitialiseDevices();
        const uint64_t nextBeat = ((tv.clock.NowMs() - start) / 5000 + 1) * 5000;
        tv.clock.Advance(start + nextBeat - 1 - tv.clock.NowMs());
        EXPECT_EQ(fake::WatchdogState().beats, static_cast<int>(nextBeat / 5000 - 1));
        tv.clock.Advance(1);
        EXPECT_EQ(fake::WatchdogState().beats, static_cast<int>(nextBeat / 5000));
        tv.clock.Advance(5000);
        EXPECT_EQ(fake::WatchdogState().beats, static_cast<int>(nextBeat / 5000 + 1));
    });
}

TEST_F(ServiceLife, ALaunchRequestAsksTheAudioServerThenRunsItsDebugCommand)
{
    RunServiceWith([this] {
        InitialiseDevices();
        // The USB output gain each query of the audio server found.
        std::mutex lock;
        std::vector<unsigned int> gains;
        tv.AudioServer().Handle("GetConnectedUsbHeadset", [&](GVariant *) {
            std::lock_guard<std::mutex> guard(lock);
            gains.push_back(fake::UsbOutput().gain);
            return MockService::Reply::Value(g_variant_new("(ai)", nullptr));
        });
        fake::SendLaunchRequest(APP_CONTROL_OPERATION_DEFAULT, {{"audio_control", "setUsbOutGain"}});
        fake::SendLaunchRequest(APP_CONTROL_OPERATION_DEFAULT, {});
        tv.Settle();
        std::lock_guard<std::mutex> guard(lock);
        EXPECT_EQ(gains, (std::vector<unsigned int>{50, 20})) << "each request asks first, then runs its command";
    });
}

TEST_F(ServiceLife, ExitEndsTheLoopAndTerminateClosesTheUsbLibraryAndTheClientApi)
{
    EXPECT_EQ(RunServiceWith([this] {
                  InitialiseDevices();
                  ASSERT_TRUE(fake::RunUntil(ApiAnswers));
                  fake::ClearCalls();
              }),
              0);
    EXPECT_TRUE(MadeInOrder({{"service_app_exit", nullptr}, {"usb_device_fini", nullptr}}));
    EXPECT_FALSE(ApiAnswers());
}

TEST_F(ServiceLife, TheMenuLanguageIsAppliedAtStartAndFollowedAndTextsAreBoundInUtf8)
{
    fake::SetString(kLanguageKey, "C.utf8");
    RunServiceWith([this] {
        EXPECT_STREQ(setlocale(LC_ALL, nullptr), "C.utf8");
        EXPECT_EQ(std::string(bindtextdomain("hadrix", nullptr)), tv.root.Path("/usr/apps/hadrix/res/locale"));
        EXPECT_STREQ(bind_textdomain_codeset("hadrix", nullptr), "UTF-8");
        fake::SetString(kLanguageKey, "xx_NOWHERE.UTF-8"); // no such locale: the last one stays
        tv.Settle();
        EXPECT_STREQ(setlocale(LC_ALL, nullptr), "C.utf8");
        fake::SetString(kLanguageKey, "POSIX");
        tv.Settle();
        EXPECT_STREQ(setlocale(LC_ALL, nullptr), "C");
    });
}

} // namespace
