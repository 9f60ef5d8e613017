// Tells the audio server when the service starts ("Start") or stops ("Stop") using a USB
// headset's card, after waiting for the server to have opened the card.
#pragma once

#include <atomic>
#include <thread>

#include <gio/gio.h>

#include "Singleton.h"
#include "SystemBus.h"

class CPulseAudioHandler : public CSingleton<CPulseAudioHandler> {
    friend class CSingleton<CPulseAudioHandler>;

public:
    // The worker must have been stopped (StopSendSignalToPulseAudio) before.
    ~CPulseAudioHandler() override = default;

    // True once the audio server lists the card; false after 50 attempts or when told to quit.
    bool WaitCardReady(int card);
    // The same, telling how many times the server was asked.
    bool WaitCardReady(int card, int &attempts);
    // Waits for the card on "Start" (and sends it even if the card never shows up).
    bool SendSignalToPulseAudio(bool on_off, int cardNum);
    // The same on a worker thread; a previous worker is told to quit and joined first.
    bool SendSignalToPulseAudioAsync(bool on_off, int cardNum);
    void StopSendSignalToPulseAudio();

private:
    CPulseAudioHandler();

    GDBusConnection *m_GetConnection();
    static void m_AsyncThreadEntry(const void *self);

    hadrix::ConnectionPtr m_connection;
    // Written only while no worker runs; the worker reads them.
    bool m_onOff = false;
    int m_cardNum = 0;
    std::atomic<bool> m_quit{false};
    std::thread m_asyncThread;
};

// Diagnostic: asks the audio server once for its USB headset cards and logs them. Returns 1.
int getCardFromPulse(void *data);
