#include "PulseAudioHandler.h"

#include <mutex>
#include <system_error>

#include "DecisionLog.h"
#include "HadrixUtil.h"
#include "Log.h"
#include "SystemBus.h"

namespace {

constexpr char kServerName[] = "org.pulseaudio.Server";
constexpr char kServerPath[] = "/org/pulseaudio/NimbosTV";
constexpr char kServerInterface[] = "org.pulseaudio.NimbosTV";
constexpr char kGetCardsMethod[] = "GetConnectedUsbHeadset";
constexpr int kCallTimeoutMs = 1000;

constexpr char kSignalPath[] = "/org/nimbos/hadrix";
constexpr char kSignalInterface[] = "org.nimbos.hadrix";

// About 50 s in all: long enough for the server to open a card that has just been plugged in.
constexpr int kMaxCardTries = 50;
constexpr unsigned long kRetryPauseMs = 1000;

// The cached connection is reached from the caller's thread and from the worker.
std::mutex g_connectionLock;

// Asks the audio server once for the USB headset cards it has opened: the "(ai)" reply, or null
// after logging why there is none.
GVariant *QueryConnectedCards(GDBusConnection *connection)
{
    g_autoptr(GError) error = nullptr;
    GVariant *reply = g_dbus_connection_call_sync(connection, kServerName, kServerPath, kServerInterface,
                                                  kGetCardsMethod, nullptr, G_VARIANT_TYPE("(ai)"),
                                                  G_DBUS_CALL_FLAGS_NONE, kCallTimeoutMs, nullptr, &error);
    if (error) {
        LOGE("error : %s", error->message);
        return nullptr;
    }
    if (!reply)
        LOGE("listsession_var is NULL");
    return reply;
}

// One attempt of the wait: true when the server's list holds the card.
bool ServerListsCard(GDBusConnection *connection, int card)
{
    if (!connection)
        return false;
    g_autoptr(GVariant) reply = QueryConnectedCards(connection);
    if (!reply)
        return false;
    LOGE("get param ai");
    g_autoptr(GVariantIter) iter = nullptr;
    g_variant_get(reply, "(ai)", &iter);
    LOGE("g_variant_iter_loop");
    gint32 cardNum = 0;
    while (g_variant_iter_next(iter, "i", &cardNum)) {
        LOGE("cardNum : %d", cardNum);
        if (cardNum == card)
            return true;
    }
    return false;
}

// What this "Start" went through completes the decision that asked for it, if one waits.
void TellDecisionLog(int card, CDecisionLog::StartReport &report, uint32_t asked)
{
    CDecisionLog *log = CSingleton<CDecisionLog>::PeekInstance();
    if (!log)
        return;
    report.sentUptimeMs = CUsbServiceUtil::GetUptime();
    report.waitedMs = report.sentUptimeMs - asked;
    log->NoteStart(card, report);
}

} // namespace

CPulseAudioHandler::CPulseAudioHandler()
{
    m_GetConnection();
}

GDBusConnection *CPulseAudioHandler::m_GetConnection()
{
    return hadrix::CachedSystemBus(m_connection, g_connectionLock);
}

bool CPulseAudioHandler::WaitCardReady(int card)
{
    int attempts = 0;
    return WaitCardReady(card, attempts);
}

bool CPulseAudioHandler::WaitCardReady(int card, int &attempts)
{
    for (int tries = 1;; ++tries) {
        attempts = tries;
        LOGI("try %d time to get card number %d from pulseaudio. quit flag %d", tries, card,
             m_quit.load() ? 1 : 0);
        if (ServerListsCard(m_GetConnection(), card))
            return true;
        // The flag is looked at only between attempts: a call in progress is never cut short.
        if (tries >= kMaxCardTries || m_quit.load())
            return false;
        CUsbServiceUtil::Wait(kRetryPauseMs);
    }
}

bool CPulseAudioHandler::SendSignalToPulseAudio(bool on_off, int cardNum)
{
    LOGE("SendSignalToPulseAudio, on_off : %d, cardNum : %d", on_off ? 1 : 0, cardNum);
    // A slow or absent server never holds the output back: the card is announced after the
    // bounded wait whether or not the server has reported it.
    CDecisionLog::StartReport report;
    const uint32_t asked = CUsbServiceUtil::GetUptime();
    if (on_off) {
        report.listed = WaitCardReady(cardNum, report.attempts);
        if (!report.listed)
            LOGE("Card %d seems not ready...", cardNum);
    }

    GDBusConnection *connection = m_GetConnection();
    if (!connection) {
        LOGE("no connection");
    } else {
        report.sent = hadrix::BroadcastSignal(connection, kSignalPath, kSignalInterface, on_off ? "Start" : "Stop",
                                              g_variant_new("(i)", cardNum));
    }
    if (on_off)
        TellDecisionLog(cardNum, report, asked);
    return report.sent;
}

bool CPulseAudioHandler::SendSignalToPulseAudioAsync(bool on_off, int cardNum)
{
    LOGE("[START]");
    // One worker at a time: a previous request that still waits for its card gives up within
    // one attempt, sends its own signal and ends before this one starts.
    StopSendSignalToPulseAudio();
    m_cardNum = cardNum;
    m_onOff = on_off;
    m_quit.store(false);
    try {
        m_asyncThread = std::thread(m_AsyncThreadEntry, this);
    } catch (const std::system_error &error) {
        // Nothing will be sent; the caller goes on as if the request were under way.
        LOGE("no thread to send %s for card %d: %s", on_off ? "Start" : "Stop", cardNum, error.what());
    }
    return true;
}

void CPulseAudioHandler::m_AsyncThreadEntry(const void *self)
{
    LOGE("[START]");
    if (!self)
        return;
    auto *handler = static_cast<CPulseAudioHandler *>(const_cast<void *>(self));
    handler->SendSignalToPulseAudio(handler->m_onOff, handler->m_cardNum);
}

void CPulseAudioHandler::StopSendSignalToPulseAudio()
{
    m_quit.store(true);
    if (m_asyncThread.joinable())
        m_asyncThread.join();
}

int getCardFromPulse(void *)
{
    g_autoptr(GDBusConnection) connection = hadrix::ConnectSystemBus();
    if (!connection)
        return 1;
    g_autoptr(GVariant) reply = QueryConnectedCards(connection);
    if (!reply)
        return 1;
    g_autoptr(GVariantIter) iter = nullptr;
    g_variant_get(reply, "(ai)", &iter);
    LOGE("g_variant_iter_loop");
    gint32 cardNum = 0;
    while (g_variant_iter_next(iter, "i", &cardNum))
        LOGE("cardNum : %d", cardNum);
    return 1;
}
