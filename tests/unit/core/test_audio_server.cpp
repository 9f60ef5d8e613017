// The audio back ends: "Start" and "Stop" to the audio server once it lists the card, as the
// audio server and a listener on the test bus see them; "SpkDisconnected" to the speaker
// manager; and the sound-manager and audio-control adapters' answers to a failing platform.
#include <gtest/gtest.h>

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "AudioControlMgr.h"
#include "FakeClock.h"
#include "MockService.h"
#include "PulseAudioHandler.h"
#include "ServiceHarness.h"
#include "SignalRecorder.h"
#include "SoundManagerHandler.h"
#include "SpeakerManagerHandler.h"
#include "nimbos/fake.h"

namespace fake = nimbos::fake;
using hadrix::test::MockService;
using hadrix::test::ServiceHarness;
using hadrix::test::SignalRecorder;

namespace {

const char kQuery[] = "GetConnectedUsbHeadset";

// The audio server, its cards answered with this signature.
std::unique_ptr<MockService> NewAudioServer(const std::string &signature)
{
    return std::make_unique<MockService>("org.pulseaudio.Server", "/org/pulseaudio/NimbosTV",
                                         "<node><interface name='org.pulseaudio.NimbosTV'><method name='" +
                                             std::string(kQuery) + "'><arg type='" + signature +
                                             "' name='cards' direction='out'/></method></interface></node>");
}

MockService::Reply Cards(std::vector<int> cards)
{
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE("ai"));
    for (int card : cards)
        g_variant_builder_add(&builder, "i", card);
    return MockService::Reply::Value(g_variant_new("(ai)", &builder));
}

// A clock whose pauses take no time; it can hold the workers in their next pause until the test
// lets them go.
class PauseClock : public FakeClock {
public:
    void Sleep(unsigned long ms) override
    {
        std::unique_lock<std::mutex> lock(m_Lock);
        ++m_Pauses;
        m_Changed.notify_all();
        m_Changed.wait(lock, [this] { return !m_Holding; });
        FakeClock::Sleep(ms);
    }
    void Hold()
    {
        std::lock_guard<std::mutex> lock(m_Lock);
        m_Holding = true;
    }
    void LetGo()
    {
        std::lock_guard<std::mutex> lock(m_Lock);
        m_Holding = false;
        m_Changed.notify_all();
    }
    bool WaitForPause(int realTimeoutMs = 5000)
    {
        std::unique_lock<std::mutex> lock(m_Lock);
        return m_Changed.wait_for(lock, std::chrono::milliseconds(realTimeoutMs), [this] { return m_Pauses > 0; });
    }

private:
    std::mutex m_Lock;
    std::condition_variable m_Changed;
    bool m_Holding = false;
    int m_Pauses = 0;
};

class AudioServer : public ::testing::Test {
protected:
    void SetUp() override { fake::Reset(); }
    void TearDown() override
    {
        if (CPulseAudioHandler *pulse = CPulseAudioHandler::PeekInstance())
            pulse->StopSendSignalToPulseAudio();
        CPulseAudioHandler::ReleaseInstance();
        CSpeakerManagerHandler::ReleaseInstance();
    }

    static CPulseAudioHandler *Pulse() { return CPulseAudioHandler::GetInstance(); }
    void Answer(std::function<MockService::Reply()> reply)
    {
        server->Handle(kQuery, [reply](GVariant *) { return reply(); });
    }
    size_t Queries() const { return server->CallsTo(kQuery).size(); }
    // The cards of the signals recorded so far.
    static std::vector<int> CardsOf(SignalRecorder &recorder)
    {
        hadrix::test::SyncSystemBus();
        recorder.Flush();
        std::vector<int> cards;
        for (const SignalRecorder::Signal &signal : recorder.Signals()) {
            EXPECT_EQ(signal.path, "/org/nimbos/hadrix");
            gint32 card = -1;
            g_variant_get(signal.arguments.get(), "(i)", &card);
            cards.push_back(card);
        }
        return cards;
    }
    static size_t Logged(const std::string &text)
    {
        size_t count = 0;
        for (const std::string &message : ServiceHarness::LoggedMessages())
            count += message.compare(0, text.size(), text) == 0;
        return count;
    }

    PauseClock clock;
    std::unique_ptr<MockService> server = NewAudioServer("ai");
    SignalRecorder starts{"org.nimbos.hadrix", "Start"};
    SignalRecorder stops{"org.nimbos.hadrix", "Stop"};
};

TEST_F(AudioServer, AStartForACardTheServerListsAsksOnceAndIsSentAtOnce)
{
    Answer([] { return Cards({2, 3}); });
    const uint64_t before = clock.NowMs();
    EXPECT_TRUE(Pulse()->SendSignalToPulseAudio(true, 3));
    EXPECT_EQ(Queries(), 1u);
    EXPECT_EQ(clock.NowMs(), before);
    EXPECT_EQ(CardsOf(starts), std::vector<int>{3});
}

TEST_F(AudioServer, AStartForACardNeverListedAsksFiftyTimesASecondApartAndIsSentAnyway)
{
    const struct {
        const char *server, *signature;
        std::function<MockService::Reply()> reply;
        size_t errors;
    } servers[] = {
        {"other cards", "ai", [] { return Cards({0, 2}); }, 0},
        {"no cards", "ai", [] { return Cards({}); }, 0},
        {"a reply of another type", "as", [] { return MockService::Reply::Value(g_variant_new("(as)", nullptr)); }, 50},
        {"an error", "ai", [] { return MockService::Reply::Error("org.pulseaudio.Error.Failed"); }, 50},
    };
    for (const auto &s : servers) {
        SCOPED_TRACE(s.server);
        fake::ClearLog();
        server.reset();
        server = NewAudioServer(s.signature);
        Answer(s.reply);
        const uint64_t before = clock.NowMs();
        EXPECT_TRUE(Pulse()->SendSignalToPulseAudio(true, 5));
        EXPECT_EQ(Queries(), 50u);
        EXPECT_EQ(clock.NowMs() - before, 49u * 1000u);
        EXPECT_EQ(Logged("error : "), s.errors);
        EXPECT_EQ(Logged("Card 5 seems not ready..."), 1u);
    }
    EXPECT_EQ(CardsOf(starts), (std::vector<int>{5, 5, 5, 5}));
}

TEST_F(AudioServer, AStopIsSentWithoutAskingTheServer)
{
    EXPECT_TRUE(Pulse()->SendSignalToPulseAudio(false, 3));
    EXPECT_EQ(Queries(), 0u);
    EXPECT_EQ(CardsOf(stops), std::vector<int>{3});
}

TEST_F(AudioServer, ASecondRequestMakesTheWaitingOneGiveUpSendItsOwnAndRunAfterIt)
{
    Answer([] { return Cards({2}); });
    clock.Hold();
    Pulse()->SendSignalToPulseAudioAsync(true, 7);
    ASSERT_TRUE(clock.WaitForPause()) << "the first request never paused";
    std::thread second([] { Pulse()->SendSignalToPulseAudioAsync(true, 2); });
    // Both requests and the first worker have begun: the second is telling the first to quit.
    ASSERT_TRUE(fake::RunUntil([] { return Logged("[START]") == 3; }));
    clock.LetGo();
    second.join();
    Pulse()->StopSendSignalToPulseAudio();
    EXPECT_LT(Queries(), 50u);
    EXPECT_EQ(Logged("Card 7 seems not ready..."), 1u);
    EXPECT_EQ(CardsOf(starts), (std::vector<int>{7, 2}));
}

TEST_F(AudioServer, SpkDisconnectedTellsTheSpeakerManagerTheUsbSpeakerType)
{
    SignalRecorder disconnects("org.nimbos.speakermanager", "SpkDisconnected");
    EXPECT_TRUE(CSpeakerManagerHandler::GetInstance()->SendSignalToSpeakerManager());
    hadrix::test::SyncSystemBus();
    disconnects.Flush();
    const std::vector<SignalRecorder::Signal> signals = disconnects.Signals();
    ASSERT_EQ(signals.size(), 1u);
    EXPECT_EQ(signals[0].path, "/Org/Nimbos/SpeakerManager");
    g_autofree char *text = g_variant_print(signals[0].arguments.get(), TRUE);
    EXPECT_STREQ(text, "(15, 'HADRIX_DEVICE')");
}

TEST_F(AudioServer, TheDiagnosticQueryAsksOnceAndLogsEachCard)
{
    Answer([] { return Cards({1, 4}); });
    EXPECT_EQ(getCardFromPulse(nullptr), 1);
    EXPECT_EQ(Queries(), 1u);
    EXPECT_EQ(Logged("cardNum : 1") + Logged("cardNum : 4"), 2u);

    Answer([] { return MockService::Reply::Error("org.pulseaudio.Error.Failed"); });
    EXPECT_EQ(getCardFromPulse(nullptr), 1);
    EXPECT_EQ(Logged("error : "), 1u);
}

TEST(AudioAdapters, AFailingPlatformCallIsReportedWithItsCode)
{
    ServiceHarness tv;
    CSoundManagerHandler *sound = CSoundManagerHandler::GetInstance();
    CAudioControlMgr *audio = CAudioControlMgr::GetInstance();
    unsigned int number = 0;
    bool flag = false;
    const struct {
        const char *function;
        std::function<bool()> call;
        const char *message;
    } calls[] = {
        {"sound_manager_set_speaker_selection", [&] { return sound->SetSpeakerSelection(SOUND_TV_OUTPUT_USB_HEADSET); },
         "sound_manager_set_speaker_selection return : -3"},
        {"sound_manager_set_mute_gain", [&] { return sound->ApplyMuteGain(100); },
         "sound_manager_set_mute_gain return : -3"},
        {"sound_manager_apply_unmute_fade_in", [&] { return sound->ApplyUnmuteFadeIn(); },
         "sound_manager_apply_unmute_fade_in return : -3"},
        {"IAudioControl::setUsbOutDelay", [&] { return audio->SetUsbHeadSetOutDelay(100); },
         "setUsbOutDelay return err : -3"},
        {"IAudioControl::getUsbOutDelay", [&] { return audio->GetUsbHeadsetOutDelay(&number); },
         "getUsbOutDelay return err : -3"},
        {"IAudioControl::setUsbOutGain", [&] { return audio->SetUsbHeadsetOutGain(20); },
         "setUsbOutGain return err : -3"},
        {"IAudioControl::getUsbOutGain", [&] { return audio->GetUsbHeadsetOutGain(&number); },
         "setUgetUsbOutGainbOutMute return err : -3"},
        {"IAudioControl::setUsbOutMute", [&] { return audio->SetUsbHeadsetMuteStatus(true); },
         "setUsbOutMute return err : -3"},
        {"IAudioControl::getUsbOutMute", [&] { return audio->GetUsbHeadsetMuteStatus(&flag); },
         "getUsbOutMute return err : -3"},
    };
    for (const auto &c : calls) {
        fake::ClearLog();
        fake::FailNext(c.function, -3);
        EXPECT_FALSE(c.call()) << c.function;
        EXPECT_EQ(ServiceHarness::LoggedMessages(), std::vector<std::string>{c.message});
    }

    fake::ClearLog();
    EXPECT_TRUE(sound->ApplyMuteGain(100));
    EXPECT_TRUE(sound->ApplyUnmuteFadeIn());
    EXPECT_EQ(ServiceHarness::LoggedMessages(),
              (std::vector<std::string>{"sound_manager_set_mute_gain return : 0",
                                        "sound_manager_apply_unmute_fade_in return : 0"}))
        << "logged on success too";

    fake::SetRoute(3);
    fake::FailNext("sound_manager_get_speaker_selection", -3);
    EXPECT_EQ(sound->GetSpeakerSelection(), SOUND_TV_OUTPUT_DEFAULT);
    EXPECT_EQ(sound->GetSpeakerSelection(), 3);
}

} // namespace
