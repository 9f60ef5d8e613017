// The service in-process on the fake platform: the managers as the daemon builds them, time on a
// test clock, the kernel log served by the test, device nodes and files in a private root, and
// the audio server and speaker manager's signals on a private test bus.
//
//     ServiceHarness tv;
//     tv.PresentAtBoot(kHeadset);      // plugged before the TV started
//     tv.Start();                      // start-up to the end of its enumeration
//     tv.Plug(kHeadset2);              // the viewer plugs one in
//     EXPECT_EQ(tv.StartedCards(2), (std::vector<int>{1, 2}));
//     tv.clock.Advance(600000);        // ten minutes pass
//
// Deliveries of the fake platform and the service's timers run only when the test lets them:
// Plug, Unplug and Settle run what is ready; the clock fires what falls due.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "FakeClock.h"
#include "MockService.h"
#include "SignalRecorder.h"
#include "TempRoot.h"
#include "nimbos/fake.h"

class CUSBDevice;
class CUSBHeadsetMgr;

namespace hadrix::test {

// A USB audio device as the tests plug it: what the USB library reports, its port on the TV's
// controller and its sound card.
struct TestDevice {
    std::string product;
    std::string manufacturer;
    int vendorId = 0;
    int productId = 0;
    std::string port;
    int card = 0;
    int usbClass = 1;

    // The card's device path: "/devices/platform/soc/usb1/<port>/<port>:1.0/sound/card<N>".
    std::string DevPath() const;
    nimbos::fake::UsbDevice Usb() const;
};

// Devices of the tests, on ports and cards of their own.
extern const TestDevice kHeadset;  // "Evolve 20", Jabra, port 1-1, card 1
extern const TestDevice kHeadset2; // "H390 USB Headset", Logitech, port 1-2, card 2
extern const TestDevice kHeadset3; // "Zone Wired", Logitech, port 2-1, card 3
extern const TestDevice kWebcam;   // "HD Pro Webcam C920", Logitech 046d:082d (camera table), card 4
extern const TestDevice kAstro;    // "Astro A20", card 5

// The kernel log the analysis reads, written by the test in the TV's format: "<6>[3.500000] ...".
class TestKernelLog {
public:
    // The boot lines, the USB core up coreUpSeconds after boot.
    void Boot(double coreUpSeconds = 2.1);
    // The lines of a device enumerated on its port atSeconds after boot.
    void Detect(const TestDevice &device, double atSeconds);
    void Disconnect(const TestDevice &device, double atSeconds);
    // klogctl(action, buf, len) on this log: the size query, and the newest len bytes.
    int Read(int action, char *buf, int len);

private:
    void m_Line(double atSeconds, const std::string &text);

    std::mutex m_Lock;
    std::string m_Text;
};

class ServiceHarness {
public:
    // The TV has been up uptimeMs when the test begins; the kernel log shows a normal boot.
    explicit ServiceHarness(uint64_t uptimeMs = 60000);
    // Releases every manager (most dependent first) and resets the platform.
    ~ServiceHarness();
    ServiceHarness(const ServiceHarness &) = delete;
    ServiceHarness &operator=(const ServiceHarness &) = delete;

    // Plugged since boot (detected 3.5 s after it): present in the USB library, with its nodes.
    void PresentAtBoot(const TestDevice &device, double detectedAtSeconds = 3.5);
    // The USB audio mode marker of the last run.
    void SetUsbAudioMode(bool on);

    // Start-up as RunService does it, without the loop: the managers, the create callback, and
    // 100 ms later the device initialisation, run to the end of its enumeration (a second of the
    // clock between its passes).
    void Start();
    // The same up to the enumeration's first pass.
    void BeginStart();
    // Runs the enumeration under way (start-up or resume) to its end: the kernel-log parse on its
    // worker, then its passes, a second of the clock apart.
    void FinishEnumeration();

    // The viewer plugs the device in now (the kernel log detects it now); the service has handled
    // the hot-plug when this returns.
    void Plug(const TestDevice &device);
    // The viewer unplugs it (the kernel log says so now).
    void Unplug(const TestDevice &device);
    // The TV's power state changes.
    void ChangePower(int previous, int current);
    // Runs what is ready on the main loop and the 0 ms timeouts, until nothing is left.
    void Settle();

    // The cards "Start" (or "Stop") has been broadcast for so far, in order: the audio-server
    // worker is let finish first, and every signal it sent is counted.
    std::vector<int> StartedCards();
    std::vector<int> StoppedCards();
    // The "SpkDisconnected" broadcasts so far.
    size_t SpeakerDisconnects();
    // The cards the audio server lists.
    void ListCards(const std::vector<int> &cards);

    // The managers as they are now (null when there is none).
    CUSBDevice *DeviceManager() const;
    CUSBHeadsetMgr *HeadsetManager() const;

    // ---- Device scenes ----
    // The viewer plugs the device in; the kernel log detected it detectedAtSeconds after boot
    // (a re-enumeration, say, or a plug the log saw before the service heard of it).
    void PlugDetectedAt(const TestDevice &device, double detectedAtSeconds);
    // The TV comes back from the low-power state `from` (2 or 4): three seconds later the device
    // manager is rebuilt, and its resume enumeration is run to its end.
    void Resume(int from);

    FakeClock clock;
    TempRoot root;
    TestKernelLog kernelLog;

    // The audio server on the test bus: what it was asked, and answers other than the listed cards.
    MockService &AudioServer();
    // The messages the service logged since the platform was last reset, in order, each without
    // its source prefix ("<file>: <function>(<line>) > ") and colour.
    static std::vector<std::string> LoggedMessages();

private:
    void m_WaitForKernelLogParse();
    void m_MakeCardNodes(int card);
    // Every broadcast the service made so far has been recorded when this returns.
    void m_FlushSignals();
    static std::vector<int> m_Cards(const SignalRecorder &recorder);

    std::mutex m_CardsLock;
    std::vector<int> m_ListedCards;
    MockService m_AudioServer;
    SignalRecorder m_Starts;
    SignalRecorder m_Stops;
    SignalRecorder m_SpeakerDisconnects;
};

} // namespace hadrix::test
