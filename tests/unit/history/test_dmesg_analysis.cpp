// Kernel-log analysis: reading the log, the line parsers, the full and partial parse, and the two
// judgements at their boundaries. The kernel log, the uptime and the retry wait are injected.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "DMesgAnalysis.h"
#include "FakeClock.h"
#include "HadrixUtil.h"
#include "SyntheticKernelLog.h"
#include "TempRoot.h"

namespace {

constexpr uint32_t UNKNOWN = CDMesgAnalysis::TIME_UNKNOWN;

// sysfs paths of sound cards behind the ports the logs name.
const std::string PATH_1_1 = "/devices/platform/soc/xhci_hcd.0/usb1/1-1/1-1:1.0/sound/card1";
const std::string PATH_1_2_3 = "/devices/platform/soc/xhci_hcd.0/usb1/1-2/1-2.3/1-2.3:1.0/sound/card2";
const std::string PATH_1_2_4 = "/devices/platform/soc/xhci_hcd.0/usb1/1-2/1-2.4/1-2.4:1.0/sound/card3";

std::string ReadFixture(const std::string &name)
{
    std::ifstream in(std::string(HADRIX_KLOG_FIXTURES_DIR) + "/" + name, std::ios::binary);
    EXPECT_TRUE(in.good()) << name;
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// One line in the TV's format, stamped at ms.
std::string Line(uint32_t ms, const std::string &message)
{
    char stamp[40];
    snprintf(stamp, sizeof stamp, "<6>[%u.%03u000] ", ms / 1000, ms % 1000);
    return stamp + message + "\n";
}
std::string CoreLine(uint32_t ms) { return Line(ms, "usb_enable mod ld"); }
std::string PlugLine(uint32_t ms, const std::string &port)
{
    return Line(ms, "usb " + port + ": new full-speed USB device number 2 using xhci_hcd");
}

// A kernel that serves `log` the way klogctl does and remembers the lengths it was asked to read.
struct FakeKernel {
    std::string log;
    int sizeAnswer = 0; // answer to the size query; below 1 means the size is unknown
    int readResult = 0; // when negative, every read fails with it
    std::vector<int> readLengths;

    int Serve(int action, char *buf, int len)
    {
        if (action == 10)
            return sizeAnswer;
        EXPECT_EQ(action, 3);
        readLengths.push_back(len);
        if (readResult < 0)
            return readResult;
        size_t n = std::min(log.size(), static_cast<size_t>(len));
        memcpy(buf, log.data() + log.size() - n, n);
        return static_cast<int>(n);
    }
};

// The analyser with its steps reachable one by one.
class Analysis : public CDMesgAnalysis {
public:
    using CDMesgAnalysis::m_ParseLeftNearestTimeStamp;
    using CDMesgAnalysis::m_ParseLeftUsbPort;
    using CDMesgAnalysis::m_ParseRightVendorProductId;
    using CDMesgAnalysis::m_ParseUsbDeviceDetectedByDevicePort;
    using CDMesgAnalysis::m_ParseUsbDeviceDetectedByDriverer;
    using CDMesgAnalysis::m_ReadLog;
};

class DMesgAnalysisTest : public ::testing::Test {
protected:
    // The test's clock, which keeps the pauses the analysis takes.
    class Clock : public FakeClock {
    public:
        Clock() : FakeClock(100000) {}
        void Sleep(unsigned long ms) override
        {
            waits.push_back(ms);
            FakeClock::Sleep(ms);
        }
        std::vector<unsigned long> waits;
    };

    void SetUp() override { m_Analysis.SetKernelLogReader(Reader()); }

    CDMesgAnalysis::KernelLogReader Reader()
    {
        return [this](int action, char *buf, int len) { return m_Kernel.Serve(action, buf, len); };
    }

    // Parses `log` fully, as the service does on a hot-plug.
    void Parse(const std::string &log)
    {
        m_Kernel.log = log;
        m_Analysis.TriggerParse(true);
    }

    void PowerChangeAt(uint32_t ms)
    {
        m_Clock.SetNowMs(ms);
        m_Analysis.SetPowerChangdTime();
    }

    TempRoot m_Root;
    FakeKernel m_Kernel;
    Clock m_Clock;
    Analysis m_Analysis;
};

TEST_F(DMesgAnalysisTest, TimeStampIsTheNearestStrictStampLeftOfThePosition)
{
    const std::pair<std::string, uint32_t> cases[] = {
        {"[12.345678] x", 12345}, {"<6>[3.005000] usb x", 3005}, {"[7] x", 7000}, {"[0.999999] x", 999},
        {"[3-12.500] x", 12500}, // the part after the first "-" is the time
        // Blank-padded stamps and other brackets are passed over; a line without a stamp takes
        // the one of the line before.
        {"<6>[4.000000] a\n<6>[    5.123456] x", 4000}, {"<6>[    5.123456] x", UNKNOWN},
        {"<4>[9.5] [sdp_audio] x", 9500}, {"<4>[9.5] [12a] x", 9500}, {"<4>[9.5] [1.0] x", 1000},
        {"[2.5] a\nno stamp here x", 2500}, {"no brackets at all x", UNKNOWN}, {"only ] closing [ x", UNKNOWN}};
    for (const auto &c : cases) {
        const std::string &text = c.first;
        EXPECT_EQ(m_Analysis.m_ParseLeftNearestTimeStamp(text.c_str(), text.size(), &text[text.rfind('x')]), c.second)
            << text;
    }
    const char text[] = "[1.0] x";
    EXPECT_EQ(m_Analysis.m_ParseLeftNearestTimeStamp(nullptr, 0, text), UNKNOWN);
    EXPECT_EQ(m_Analysis.m_ParseLeftNearestTimeStamp(text, strlen(text), text), UNKNOWN);
}

// The log is searched a window at a time; a marker on a window's edge must still be found.
TEST_F(DMesgAnalysisTest, MarkersOnSearchWindowEdgesAreFound)
{
    const std::string line = PlugLine(3000, "1-1");
    const size_t markerOffset = line.find(" new full-speed");
    for (size_t straddle = 0; straddle <= 40; ++straddle) {
        std::string text(64 * 1024 - straddle - markerOffset - 1, 'x');
        text += "\n" + line;
        Analysis analysis;
        analysis.m_ParseUsbDeviceDetectedByDevicePort(text.c_str(), text.size());
        EXPECT_EQ(analysis.GetUsbDetectedTimeByDevPath(PATH_1_1), 3000u) << "straddle " << straddle;
    }
}

TEST_F(DMesgAnalysisTest, PortOfALineAndOfADevicePath)
{
    const std::pair<std::string, std::string> lines[] = {
        {"<6>[5.123456] usb 1-1: new full-speed", "1-1"}, {"<6>[5.1] usb 1-2.3: new full-speed", "1-2.3"},
        {"no bracket usb 1-1: new full-speed", ""},        {"[1.0] usb 1-1/x: new full-speed", ""},
        {"[1.0] usb \x01\x02: new full-speed", ""},        {"[1.0]: new full-speed", ""}};
    for (const auto &c : lines) {
        const char *pos = strstr(c.first.c_str(), " new full-speed");
        EXPECT_EQ(m_Analysis.m_ParseLeftUsbPort(c.first.c_str(), c.first.size(), pos), c.second) << c.first;
    }
    const std::pair<std::string, std::string> paths[] = {
        {PATH_1_1, "1-1"}, {PATH_1_2_3, "1-2.3"}, {"/sys/usb1/1-1/1-1.4.2/1-1.4.2:1.1/sound/card5", "1-1.4.2"},
        {"/devices/usb1/1-1/sound/card1", ""}, {"1-1:1.0/sound/card1", ""}, {"", ""},
        // The text before the first colon counts: on a PC the PCI part holds one, and no port is found.
        {"/devices/pci0000:00/0000:00:14.0/usb1/1-1/1-1:1.0", "pci0000"}};
    for (const auto &c : paths)
        EXPECT_EQ(CDMesgAnalysis::GetUsbPortNumberFromDevPath(c.first), c.second) << c.first;
}

TEST_F(DMesgAnalysisTest, DriverParserReadsIdsAndKeepsTheLatestLinePerIdForTheVendorProductForms)
{
    auto idOf = [this](const std::string &text) {
        const char *pos = strstr(text.c_str(), "New USB device found");
        return m_Analysis.m_ParseRightVendorProductId(text.c_str(), text.size(), pos);
    };
    EXPECT_EQ(idOf("usb 1-1: New USB device found, idVendor=046d, idProduct=0a44, bcdDevice= 1.00\n"),
              CUsbServiceUtil::MakeId(0x046d, 0x0a44));
    EXPECT_EQ(idOf("usb 1-1: New USB device found, idProduct=0843, idVendor=046d"), " 046d#0843 ");
    EXPECT_EQ(idOf("usb 1-1: New USB device found, idVendor=046d\nidProduct=0a44"), "");
    EXPECT_EQ(idOf("usb 1-1: New USB device found, idProduct=0a44, idVendor=04"), "");
    EXPECT_EQ(idOf("usb 1-1: New USB device found, bcdDevice= 1.00"), "");

    Parse(CoreLine(2000) + Line(2100, "tail"));
    std::string log = Line(3000, "usb 1-1: New USB device found, idVendor=046d, idProduct=0a44") +
                      Line(4000, "usb 1-2: New USB device found, idVendor=0d8c, idProduct=0014") +
                      Line(9000, "usb 1-1: New USB device found, idVendor=046d, idProduct=0a44") +
                      Line(9500, "usb 2-1: New USB device found, idVendor=12");
    m_Analysis.m_ParseUsbDeviceDetectedByDriverer(log.c_str(), log.size());
    EXPECT_EQ(m_Analysis.GetUsbDeviceDetectedByDriverTime(0x046d, 0x0a44), 9000u);
    EXPECT_EQ(m_Analysis.GetUsbDeviceDetectedByDriverTime(0x0d8c, 0x0014), 4000u);

    m_Clock.SetNowMs(31999); // an unknown detection would be no plug-in yet
    EXPECT_TRUE(m_Analysis.NeedChangeSpeaker(0x046d, 0x0a44));
    EXPECT_FALSE(m_Analysis.NeedChangeSpeaker(0x0d8c, 0x0014));
    bool found = false;
    EXPECT_TRUE(m_Analysis.NeedWaitDetect(0x0d8c, 0x0014, found));
    EXPECT_TRUE(found);
    m_Analysis.RemoveDevice(0x0d8c, 0x0014);
    EXPECT_EQ(m_Analysis.GetUsbDeviceDetectedByDriverTime(0x0d8c, 0x0014), UNKNOWN);
}

TEST_F(DMesgAnalysisTest, FullParseOfATvBootLog)
{
    m_Kernel.sizeAnswer = 1 << 17;
    const std::string log = ReadFixture("tv-boot.log");
    Parse(log);

    EXPECT_TRUE(m_Analysis.IsParsingReady());
    EXPECT_EQ(m_Analysis.GetUsbCoreInitalTime(), 2104u);
    EXPECT_EQ(m_Analysis.GetUsbDetectedTimeByDevPath(PATH_1_1), 150002u); // detected again after its disconnect
    EXPECT_EQ(m_Analysis.GetUsbDetectedTimeByDevPath(PATH_1_2_3), UNKNOWN); // disconnected
    EXPECT_EQ(m_Analysis.GetUsbDetectedTimeByDevPath(PATH_1_2_4), 171450u);
    EXPECT_EQ(m_Analysis.GetDetectedDevicesCount(), 2u);
    // No trigger runs the driver parser.
    EXPECT_EQ(m_Analysis.GetUsbDeviceDetectedByDriverTime(0x046d, 0x0a44), UNKNOWN);
    // A known size is read at once, with 8 bytes to spare.
    EXPECT_EQ(m_Kernel.readLengths, std::vector<int>{(1 << 17) + 8});
    EXPECT_TRUE(m_Clock.waits.empty());
    // The copy holds the text read, whose last byte was taken by the terminator.
    EXPECT_EQ(m_Root.ReadFile("/tmp/dmesg.txt.success"), log.substr(0, log.size() - 1));
    EXPECT_FALSE(m_Root.Exists("/tmp/dmesg.txt.err.1"));
}

TEST_F(DMesgAnalysisTest, StockPaddedStampsArePassedOver)
{
    Parse(ReadFixture("stock-boot.log"));
    // The ports are found, but no stamp is valid, so no time is known.
    EXPECT_TRUE(m_Analysis.IsParsingReady());
    EXPECT_EQ(m_Analysis.GetUsbCoreInitalTime(), UNKNOWN);
    EXPECT_EQ(m_Analysis.GetDetectedDevicesCount(), 3u);
    EXPECT_EQ(m_Analysis.GetUsbDetectedTimeByDevPath(PATH_1_1), UNKNOWN);
}

TEST_F(DMesgAnalysisTest, OnlyTheFirstCoreInitLineCountsAndIsKept)
{
    Parse(CoreLine(2000) + CoreLine(7000) + Line(7100, "tail"));
    EXPECT_EQ(m_Analysis.GetUsbCoreInitalTime(), 2000u);
    Parse(CoreLine(5000) + Line(5100, "tail"));
    EXPECT_EQ(m_Analysis.GetUsbCoreInitalTime(), 2000u);
}

TEST_F(DMesgAnalysisTest, TenFailedAttemptsLeaveErrorCopiesAndNotReady)
{
    const std::string log = ReadFixture("tv-no-usb-core.log");
    Parse(log);

    EXPECT_FALSE(m_Analysis.IsParsingReady());
    EXPECT_EQ(m_Kernel.readLengths.size(), 10u);
    EXPECT_EQ(m_Clock.waits, std::vector<unsigned long>(9, 1000));
    for (int attempt = 1; attempt <= 10; ++attempt)
        EXPECT_EQ(m_Root.ReadFile("/tmp/dmesg.txt.err." + std::to_string(attempt)), log.substr(0, log.size() - 1))
            << attempt;
    EXPECT_FALSE(m_Root.Exists("/tmp/dmesg.txt.err.11"));
    EXPECT_FALSE(m_Root.Exists("/tmp/dmesg.txt.success"));
}

TEST_F(DMesgAnalysisTest, FailedOrEmptyReadsEndEachAttemptWithoutCopiesOrWaits)
{
    m_Kernel.sizeAnswer = -1;
    for (int readResult : {-1, 0}) {
        m_Kernel.readResult = readResult;
        m_Kernel.readLengths.clear();
        Parse("");
        EXPECT_FALSE(m_Analysis.IsParsingReady()) << readResult;
        EXPECT_EQ(m_Kernel.readLengths.size(), 10u) << readResult;
        EXPECT_TRUE(m_Clock.waits.empty()) << readResult;
        EXPECT_FALSE(m_Root.Exists("/tmp/dmesg.txt.err.1")) << readResult;
    }
}

TEST_F(DMesgAnalysisTest, SixteenMegabyteLogIsParsedCorrectly)
{
    SyntheticKernelLog log = MakeSyntheticKernelLog(16u << 20);
    ASSERT_GE(log.ports.size(), 2u);
    Parse(log.text);
    ASSERT_TRUE(m_Analysis.IsParsingReady());
    EXPECT_EQ(m_Analysis.GetUsbCoreInitalTime(), log.coreInitMs);
    EXPECT_EQ(m_Analysis.GetDetectedDevicesCount(), log.ports.size());
    for (const auto &port : log.ports)
        EXPECT_EQ(m_Analysis.GetUsbDetectedTimeByDevPath("/devices/usb1/" + port.first + "/" + port.first +
                                                         ":1.0/sound/card1"),
                  port.second)
            << port.first;
}

TEST_F(DMesgAnalysisTest, UnknownSizeGrowsTheReadByFourWhileItFillsAndNulBytesBecomeBlanks)
{
    m_Kernel.sizeAnswer = -1;
    m_Kernel.log = std::string(300000, 'x');
    EXPECT_EQ(m_Analysis.m_ReadLog().length, 300000u - 1);
    EXPECT_EQ(m_Kernel.readLengths, (std::vector<int>{16392, 65568, 262272, 1049088}));

    // A log that exactly fills a read is read again with more room.
    m_Kernel.readLengths.clear();
    m_Kernel.log = std::string(16392, 'x');
    m_Analysis.m_ReadLog();
    EXPECT_EQ(m_Kernel.readLengths, (std::vector<int>{16392, 65568}));

    m_Kernel.sizeAnswer = 0;
    m_Kernel.readLengths.clear();
    m_Kernel.log = "short";
    EXPECT_EQ(std::string(m_Analysis.m_ReadLog().data.get()), "shor");
    EXPECT_EQ(m_Kernel.readLengths, std::vector<int>{16392});

    // NUL bytes become blanks, and the last byte gives way to the terminator.
    m_Kernel.log = std::string("[1.0] a\0b\0", 10) + "[2.0] usb_enable mod ld\n";
    auto text = m_Analysis.m_ReadLog();
    ASSERT_EQ(text.length, m_Kernel.log.size() - 1);
    EXPECT_EQ(std::string(text.data.get()), "[1.0] a b [2.0] usb_enable mod ld");

    // So a marker that ends the log loses its last byte, and one after NULs is found.
    Parse(std::string("\0\0", 2) + Line(1000, "x") + "[3.0] usb_enable mod ld");
    EXPECT_EQ(m_Analysis.GetUsbCoreInitalTime(), UNKNOWN);
    Parse(std::string("\0\0", 2) + CoreLine(2500) + "[3.0] usb_enable mod ld");
    EXPECT_EQ(m_Analysis.GetUsbCoreInitalTime(), 2500u);
}

TEST_F(DMesgAnalysisTest, PartialParseRunsAfterAFullParseOrWhenForcedAndReadsUntilADisconnect)
{
    m_Analysis.TriggerPartialParse(false);
    EXPECT_TRUE(m_Kernel.readLengths.empty());

    m_Kernel.log = PlugLine(3000, "1-1") + Line(3100, "tail");
    m_Analysis.TriggerPartialParse(true);
    EXPECT_EQ(m_Kernel.readLengths, std::vector<int>{10240});
    EXPECT_EQ(m_Analysis.GetUsbDetectedTimeByDevPath(PATH_1_1), 3000u);
    EXPECT_FALSE(m_Analysis.IsParsingReady());

    // Without a disconnect in it, the read grows until it holds the whole log, and no further.
    m_Kernel.readLengths.clear();
    m_Kernel.log = std::string(50000, 'x') + PlugLine(3000, "1-1");
    m_Analysis.TriggerPartialParse(true);
    EXPECT_EQ(m_Kernel.readLengths, (std::vector<int>{10240, 40960, 163840}));
    EXPECT_EQ(m_Analysis.GetUsbDetectedTimeByDevPath(PATH_1_1), 3000u);

    m_Kernel.readLengths.clear();
    m_Kernel.readResult = -5;
    m_Analysis.TriggerPartialParse(true);
    EXPECT_EQ(m_Kernel.readLengths, std::vector<int>{10240});

    // Once a full parse succeeded it runs unforced, reading more until a disconnect (about 20 KiB
    // back from the newest end here) is in it.
    m_Kernel.readResult = 0;
    Parse(CoreLine(2000) + PlugLine(3000, "1-1") + Line(3100, "tail"));
    ASSERT_TRUE(m_Analysis.IsParsingReady());
    m_Kernel.readLengths.clear();
    std::string filler;
    for (uint32_t ms = 60000; filler.size() < 20000; ms += 10)
        filler += Line(ms, "[sdp_audio] set main out volume 12, mute 0");
    m_Kernel.log = CoreLine(2000) + PlugLine(3000, "1-1") + PlugLine(40000, "1-2.3") +
                   Line(50000, "usb 1-1: USB disconnect completed") + filler;
    m_Analysis.TriggerPartialParse(false);
    EXPECT_EQ(m_Kernel.readLengths, (std::vector<int>{10240, 40960}));
    EXPECT_EQ(m_Analysis.GetUsbDetectedTimeByDevPath(PATH_1_1), UNKNOWN);
    EXPECT_EQ(m_Analysis.GetUsbDetectedTimeByDevPath(PATH_1_2_3), 40000u);
}

TEST_F(DMesgAnalysisTest, ParseIsSkippedOnlyWhenReadyUnforcedAndOutOfTiming)
{
    auto readsFor = [this](uint32_t now, bool force = false) {
        m_Clock.SetNowMs(now);
        m_Kernel.readLengths.clear();
        m_Analysis.TriggerParse(force);
        return m_Kernel.readLengths.size();
    };
    EXPECT_EQ(readsFor(60000), 10u); // not ready: ten attempts on an empty log
    m_Kernel.log = CoreLine(2000) + PlugLine(3000, "1-1") + Line(3100, "tail");
    EXPECT_EQ(readsFor(60000, true), 1u);
    ASSERT_TRUE(m_Analysis.IsParsingReady());
    EXPECT_EQ(readsFor(29999), 1u); // shortly after boot
    EXPECT_EQ(readsFor(30000), 0u);
    PowerChangeAt(100000);
    EXPECT_EQ(m_Analysis.GetPowerChangedTime(), 100000u);
    EXPECT_EQ(readsFor(104999), 1u); // shortly after a power change
    EXPECT_EQ(readsFor(105000), 0u);
    EXPECT_EQ(readsFor(105000, true), 1u);
}

struct Judgement {
    uint32_t power;    // uptime of the power change; UNKNOWN: none
    uint32_t core;     // the USB core's line; UNKNOWN: none
    uint32_t detected; // the headset's line on 1-1
    uint32_t now;
    bool plugIn;
    const char *rule; // the judgement that decided
    bool otherPort = false; // asked about 1-2.3, which no line names
};

// Each case also names the judgement that decided and hands back the numbers it compared.
TEST_F(DMesgAnalysisTest, ChangeSpeakerAtTheBoundaries)
{
    using namespace decision;
    const Judgement cases[] = {
        // The core is up at 2,000 ms; a plug-in is a detection more than 5,000 ms later.
        {UNKNOWN, 2000, 7000, 100000, false, kDetectedWithCore}, {UNKNOWN, 2000, 7001, 100000, true, kDetectedAfterCore},
        {UNKNOWN, 2000, 1999, 100000, false, kDetectedWithCore}, {UNKNOWN, 2000, 2000, 100000, false, kDetectedWithCore},
        // Asked within 5,000 ms of a power change, a detection within 5,000 ms of it, or before it
        // (the difference wraps), is no plug-in; from 5,000 ms on only the core judgement counts.
        {100000, 2000, 102000, 104999, false, kPowerChanged}, {100000, 2000, 102000, 105000, true, kDetectedAfterCore},
        {100000, 2000, 105000, 104000, false, kPowerChanged}, {100000, 2000, 105001, 104000, true, kDetectedAfterCore},
        {100000, 2000, 99000, 101000, false, kPowerChanged}, {100000, 2000, 99000, 105000, true, kDetectedAfterCore},
        {100000, 2000, 99000, 101000, false, kPowerChanged, true},
        // An unknown detection with a known core: a plug-in once the core is 30 s up.
        {UNKNOWN, 2000, 3000, 31999, false, kCoreUpRecently, true}, {UNKNOWN, 2000, 3000, 32000, true, kCoreUpLongAgo, true},
        // An unknown core: a plug-in once the uptime is 30 s, whatever the detection.
        {UNKNOWN, UNKNOWN, 25000, 29998, false, kCoreUnknownEarly}, {UNKNOWN, UNKNOWN, 25000, 29999, true, kCoreUnknownLate},
        {UNKNOWN, UNKNOWN, 25000, 29998, false, kCoreUnknownEarly, true},
        {UNKNOWN, UNKNOWN, 25000, 29999, true, kCoreUnknownLate, true}};
    for (const Judgement &c : cases) {
        SCOPED_TRACE(::testing::Message() << "power " << c.power << " core " << c.core << " detected "
                                          << c.detected << " now " << c.now << " other port " << c.otherPort);
        Analysis fresh;
        fresh.SetKernelLogReader(Reader());
        m_Clock.SetNowMs(c.power == UNKNOWN ? 100000 : c.power);
        if (c.power != UNKNOWN)
            fresh.SetPowerChangdTime();
        m_Kernel.log = (c.core == UNKNOWN ? "" : CoreLine(c.core)) + PlugLine(c.detected, "1-1") +
                       Line(c.detected + 1, "tail");
        fresh.TriggerParse(true);
        ASSERT_EQ(fresh.GetUsbDetectedTimeByDevPath(PATH_1_1), c.detected);
        m_Clock.SetNowMs(c.now);
        const std::string &path = c.otherPort ? PATH_1_2_3 : PATH_1_1;
        EXPECT_EQ(fresh.NeedChangeSpeaker(path), c.plugIn);
        CDMesgAnalysis::SpeakerJudgement why;
        EXPECT_EQ(fresh.NeedChangeSpeaker(path, &why), c.plugIn);
        EXPECT_STREQ(why.rule, c.rule);
        const uint32_t detected = c.otherPort ? UNKNOWN : c.detected;
        EXPECT_EQ(std::make_tuple(why.detected, why.core, why.power, why.now),
                  std::make_tuple(detected, c.core, c.power, c.now));
        const DecisionReason reason = why.Reason();
        EXPECT_EQ(reason.outcomeIfKept, c.rule == kPowerChanged ? kPresentAtResume : kPresentAtBoot);
        EXPECT_EQ(reason.inputs.detectedMs, detected == UNKNOWN ? kUnknownTime : int64_t{detected});
        EXPECT_EQ(reason.inputs.coreInitMs, c.core == UNKNOWN ? kUnknownTime : int64_t{c.core});
    }
}

TEST_F(DMesgAnalysisTest, WaitDetectLooksAtTheFirst30sOrThe5sAfterAPowerChange)
{
    using WaitFound = std::pair<bool, bool>;
    auto waitFor = [this](const std::string &path) {
        bool found = false;
        bool wait = m_Analysis.NeedWaitDetect(path, found);
        return WaitFound(wait, found);
    };
    Parse(CoreLine(2000) + PlugLine(29999, "1-1") + PlugLine(30000, "1-2.3") + Line(30001, "tail"));
    EXPECT_EQ(waitFor(PATH_1_1), WaitFound(true, true));
    EXPECT_EQ(waitFor(PATH_1_2_3), WaitFound(false, true));
    EXPECT_EQ(waitFor(PATH_1_2_4), WaitFound(false, false));

    PowerChangeAt(100000);
    Parse(CoreLine(2000) + PlugLine(104999, "1-1") + PlugLine(105000, "1-2.3") + PlugLine(99000, "1-2.4") +
          Line(105001, "tail"));
    EXPECT_EQ(waitFor(PATH_1_1), WaitFound(true, true));
    EXPECT_EQ(waitFor(PATH_1_2_3), WaitFound(false, true));
    EXPECT_EQ(waitFor(PATH_1_2_4), WaitFound(false, true)); // before the change: wraps
}

} // namespace
