#include "ServiceHarness.h"

#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <fstream>

#include <gtest/gtest.h>

#include "AudioControlMgr.h"
#include "DMesgAnalysis.h"
#include "DecisionLog.h"
#include "DevicesDepot.h"
#include "DevicesDetected.h"
#include "HadrixDbusAPIServer.h"
#include "KPILog.h"
#include "KeyEventHandler.h"
#include "LocalFileData.h"
#include "MultiviewHandler.h"
#include "NotificationPopup.h"
#include "PulseAudioHandler.h"
#include "ServiceLinks.h"
#include "SoundManagerHandler.h"
#include "SoundMirroringEventHandler.h"
#include "SpeakerManagerHandler.h"
#include "USBDevice.h"
#include "USBHeadsetMgr.h"
#include "nimbos/usb.h"

namespace fake = nimbos::fake;

namespace hadrix::test {

namespace {

// One bus for the whole test binary: the service's connection to it lives as long as the process.
testing::Environment *const g_bus = testing::AddGlobalTestEnvironment(new PrivateSystemBus);

constexpr int kSizeBuffer = 10;
constexpr int kReadAll = 3;

const char kAudioServerXml[] =
    "<node><interface name='org.pulseaudio.NimbosTV'>"
    "<method name='GetConnectedUsbHeadset'><arg type='ai' name='cards' direction='out'/></method>"
    "</interface></node>";

std::string Hex4(int value)
{
    char text[8];
    snprintf(text, sizeof text, "%04x", value & 0xffff);
    return text;
}

} // namespace

const TestDevice kHeadset{"Evolve 20", "Jabra", 0x0b0e, 0x0300, "1-1", 1};
const TestDevice kHeadset2{"H390 USB Headset", "Logitech", 0x046d, 0x0a44, "1-2", 2};
const TestDevice kHeadset3{"Zone Wired", "Logitech", 0x046d, 0x0aad, "2-1", 3};
const TestDevice kWebcam{"HD Pro Webcam C920", "Logitech", 0x046d, 0x082d, "1-3", 4};
const TestDevice kAstro{"Astro A20", "Astro Gaming", 0x9886, 0x0047, "1-4", 5};

std::string TestDevice::DevPath() const
{
    return "/devices/platform/soc/usb1/" + port + "/" + port + ":1.0/sound/card" + std::to_string(card);
}

fake::UsbDevice TestDevice::Usb() const
{
    fake::UsbDevice usb;
    usb.devpath = DevPath();
    usb.devname = "/dev/bus/usb/001/0" + std::to_string(10 + card);
    usb.product = product;
    usb.manufacturer = manufacturer;
    usb.vendorId = vendorId;
    usb.productId = productId;
    usb.number = 10 + card;
    usb.usbClass = usbClass;
    return usb;
}

void TestKernelLog::Boot(double coreUpSeconds)
{
    m_Line(0.0, "Booting Linux on physical CPU 0x0");
    m_Line(0.8, "usbcore: registered new interface driver usbfs");
    m_Line(coreUpSeconds, "usb_enable mod ld");
}

void TestKernelLog::Detect(const TestDevice &device, double atSeconds)
{
    const std::string usb = "usb " + device.port + ": ";
    m_Line(atSeconds, usb + "new full-speed USB device number " + std::to_string(10 + device.card) +
                          " using xhci_hcd");
    m_Line(atSeconds + 0.1, usb + "New USB device found, idVendor=" + Hex4(device.vendorId) +
                                ", idProduct=" + Hex4(device.productId) + ", bcdDevice= 1.00");
    m_Line(atSeconds + 0.1, usb + "Product: " + device.product);
}

void TestKernelLog::Disconnect(const TestDevice &device, double atSeconds)
{
    const std::string usb = "usb " + device.port + ": ";
    m_Line(atSeconds, usb + "USB disconnect, device number " + std::to_string(10 + device.card));
    m_Line(atSeconds + 0.002, usb + "USB disconnect completed");
}

int TestKernelLog::Read(int action, char *buf, int len)
{
    std::lock_guard<std::mutex> lock(m_Lock);
    const int size = static_cast<int>(m_Text.size());
    if (action == kSizeBuffer)
        return size;
    if (action != kReadAll || !buf || len < 0)
        return -1;
    const int count = std::min(size, len);
    memcpy(buf, m_Text.data() + size - count, static_cast<size_t>(count));
    return count;
}

void TestKernelLog::m_Line(double atSeconds, const std::string &text)
{
    char stamp[40];
    snprintf(stamp, sizeof stamp, "<6>[%.6f] ", atSeconds);
    std::lock_guard<std::mutex> lock(m_Lock);
    m_Text += stamp + text + "\n";
}

ServiceHarness::ServiceHarness(uint64_t uptimeMs)
    : clock(uptimeMs),
      m_AudioServer("org.pulseaudio.Server", "/org/pulseaudio/NimbosTV", kAudioServerXml),
      m_Starts("org.nimbos.hadrix", "Start"),
      m_Stops("org.nimbos.hadrix", "Stop"),
      m_SpeakerDisconnects("org.nimbos.speakermanager", "SpkDisconnected")
{
    fake::Reset();
    // Device nodes (/dev/snd/...) live in the test's root too.
    fake::SetDeviceRoot(root.Path(""));
    m_AudioServer.Handle("GetConnectedUsbHeadset", [this](GVariant *) {
        std::lock_guard<std::mutex> lock(m_CardsLock);
        GVariantBuilder cards;
        g_variant_builder_init(&cards, G_VARIANT_TYPE("ai"));
        for (int card : m_ListedCards)
            g_variant_builder_add(&cards, "i", card);
        return MockService::Reply::Value(g_variant_new("(ai)", &cards));
    });
    kernelLog.Boot();
    CSingleton<CDMesgAnalysis>::GetInstance()->SetKernelLogReader(
        [this](int action, char *buf, int len) { return kernelLog.Read(action, buf, len); });
    LinkManagers();
}

ServiceHarness::~ServiceHarness()
{
    CSingleton<CUSBHeadsetMgr>::ReleaseInstance();
    CSingleton<CUSBDevice>::ReleaseInstance();
    CSingleton<CKeyHandler>::ReleaseInstance();
    CSingleton<CSoundMirroringEventHandler>::ReleaseInstance();
    CSingleton<CMultiviewHandler>::ReleaseInstance();
    CSingleton<CUSBAPIServer>::ReleaseInstance();
    if (CPulseAudioHandler *pulse = CSingleton<CPulseAudioHandler>::PeekInstance())
        pulse->StopSendSignalToPulseAudio();
    CSingleton<CPulseAudioHandler>::ReleaseInstance();
    if (CNotificationPopup *popups = CSingleton<CNotificationPopup>::PeekInstance())
        popups->FinishPopups();
    CSingleton<CNotificationPopup>::ReleaseInstance();
    CSingleton<CSpeakerManagerHandler>::ReleaseInstance();
    CSingleton<CSoundManagerHandler>::ReleaseInstance();
    CSingleton<CAudioControlMgr>::ReleaseInstance();
    CSingleton<CKPILog>::ReleaseInstance();
    CSingleton<CDecisionLog>::ReleaseInstance();
    CSingleton<DevicesDetected>::ReleaseInstance();
    CSingleton<DevicesDepot>::ReleaseInstance();
    // A start-up parse hands its end to the main loop through GLib, which ThreadSanitizer cannot
    // see: taking the analyser's lock once more orders the parse thread's last touch of it
    // before its release.
    if (CDMesgAnalysis *analysis = CSingleton<CDMesgAnalysis>::PeekInstance())
        analysis->IsParsingReady();
    CSingleton<CDMesgAnalysis>::ReleaseInstance();
    CSingleton<CLocalFileData>::ReleaseInstance();
    fake::Reset();
}

void ServiceHarness::PresentAtBoot(const TestDevice &device, double detectedAtSeconds)
{
    kernelLog.Detect(device, detectedAtSeconds);
    m_MakeCardNodes(device.card);
    fake::AddPresentDevice(device.Usb());
}

void ServiceHarness::SetUsbAudioMode(bool on)
{
    const std::string marker = "/home/owner/apps_rw/hadrix/data/USB_AUDIO_mode";
    if (on)
        root.WriteFile(marker, "");
    else
        remove(root.Path(marker).c_str());
}

void ServiceHarness::Start()
{
    BeginStart();
    FinishEnumeration();
}

void ServiceHarness::BeginStart()
{
    usb_device_init();
    CSingleton<CUSBHeadsetMgr>::GetInstance();
    CSingleton<CSoundMirroringEventHandler>::GetInstance();
    CSingleton<CMultiviewHandler>::GetInstance();
    CSingleton<CLocalFileData>::GetInstance();
    clock.Advance(100);
    m_WaitForKernelLogParse();
}

void ServiceHarness::FinishEnumeration()
{
    m_WaitForKernelLogParse();
    CUSBDevice *device = DeviceManager();
    for (int pass = 0; pass < 20 && device && device->IsEnumerating(); ++pass)
        clock.Advance(1000);
    ASSERT_FALSE(device && device->IsEnumerating()) << "the enumeration does not end";
    Settle();
}

void ServiceHarness::m_WaitForKernelLogParse()
{
    CUSBDevice *device = DeviceManager();
    ASSERT_NE(device, nullptr) << "no device manager";
    ASSERT_TRUE(fake::RunUntil([device] { return !device->IsParsingKernelLog(); }, 10000))
        << "the kernel-log parse never ended";
}

void ServiceHarness::Plug(const TestDevice &device)
{
    PlugDetectedAt(device, static_cast<double>(clock.NowMs()) / 1000.0);
}

void ServiceHarness::Unplug(const TestDevice &device)
{
    kernelLog.Disconnect(device, static_cast<double>(clock.NowMs()) / 1000.0);
    ASSERT_TRUE(fake::Unplug(device.DevPath())) << device.product << " was not plugged";
    Settle();
}

void ServiceHarness::ChangePower(int previous, int current)
{
    fake::ChangePowerState(previous, current);
    Settle();
}

void ServiceHarness::Settle()
{
    for (int round = 0; round < 100; ++round) {
        const bool ran = fake::RunPending() > 0;
        if (!ran && clock.NextDueIn() != std::optional<uint64_t>(0))
            return;
        clock.RunDue();
    }
    ADD_FAILURE() << "the main loop never settled";
}

void ServiceHarness::m_FlushSignals()
{
    // The worker sends its signal even when told to give up waiting for its card.
    if (CPulseAudioHandler *pulse = CSingleton<CPulseAudioHandler>::PeekInstance())
        pulse->StopSendSignalToPulseAudio();
    SyncSystemBus();
    for (SignalRecorder *recorder : {&m_Starts, &m_Stops, &m_SpeakerDisconnects})
        recorder->Flush();
}

std::vector<int> ServiceHarness::m_Cards(const SignalRecorder &recorder)
{
    std::vector<int> cards;
    for (const SignalRecorder::Signal &signal : recorder.Signals()) {
        gint32 card = -1;
        g_variant_get(signal.arguments.get(), "(i)", &card);
        cards.push_back(card);
    }
    return cards;
}

std::vector<int> ServiceHarness::StartedCards()
{
    m_FlushSignals();
    return m_Cards(m_Starts);
}

std::vector<int> ServiceHarness::StoppedCards()
{
    m_FlushSignals();
    return m_Cards(m_Stops);
}

size_t ServiceHarness::SpeakerDisconnects()
{
    m_FlushSignals();
    return m_SpeakerDisconnects.Signals().size();
}

void ServiceHarness::ListCards(const std::vector<int> &cards)
{
    std::lock_guard<std::mutex> lock(m_CardsLock);
    m_ListedCards = cards;
}

CUSBDevice *ServiceHarness::DeviceManager() const
{
    return CSingleton<CUSBDevice>::PeekInstance();
}

CUSBHeadsetMgr *ServiceHarness::HeadsetManager() const
{
    return CSingleton<CUSBHeadsetMgr>::PeekInstance();
}

MockService &ServiceHarness::AudioServer()
{
    return m_AudioServer;
}

std::vector<std::string> ServiceHarness::LoggedMessages()
{
    static const std::string kPrefixEnd = " > ";
    static const std::string kColourEnd = "\033[0;m";
    std::vector<std::string> messages;
    for (const fake::LogLine &line : fake::LogLines()) {
        const size_t start = line.text.find(kPrefixEnd);
        std::string message = start == std::string::npos ? line.text : line.text.substr(start + kPrefixEnd.size());
        // A coloured message: "\033[0;3Nm" before it, kColourEnd after it.
        if (message.compare(0, 2, "\033[") == 0) {
            message.erase(0, message.find('m') + 1);
            if (message.size() >= kColourEnd.size() &&
                message.compare(message.size() - kColourEnd.size(), kColourEnd.size(), kColourEnd) == 0)
                message.resize(message.size() - kColourEnd.size());
        }
        messages.push_back(message);
    }
    return messages;
}

void ServiceHarness::PlugDetectedAt(const TestDevice &device, double detectedAtSeconds)
{
    kernelLog.Detect(device, detectedAtSeconds);
    m_MakeCardNodes(device.card);
    fake::Plug(device.Usb());
    Settle();
}

void ServiceHarness::Resume(int from)
{
    constexpr uint64_t kResumeDelayMs = 3000;
    ChangePower(from, 0);
    clock.Advance(kResumeDelayMs);
    FinishEnumeration();
}

void ServiceHarness::m_MakeCardNodes(int card)
{
    const std::string number = std::to_string(card);
    root.WriteFile("/dev/snd/controlC" + number, "");
    root.WriteFile("/dev/snd/pcmC" + number + "D0p", "");
    std::lock_guard<std::mutex> lock(m_CardsLock);
    if (std::find(m_ListedCards.begin(), m_ListedCards.end(), card) == m_ListedCards.end())
        m_ListedCards.push_back(card);
}

} // namespace hadrix::test
