// Kernel-log analysis: reading the log, the line parsers, the full and partial parse, and the two
// judgements at their boundaries. The kernel log, the uptime and the retry wait are injected.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <random>
#include <string>
#include <unistd.h>
#include <vector>

#include "DMesgAnalysis.h"
#include "HadrixUtil.h"
#include "SyntheticKernelLog.h"
#include "TempRoot.h"

namespace {

constexpr uint32_t UNKNOWN = CDMesgAnalysis::TIME_UNKNOWN;
const std::string FIXTURES = HADRIX_KLOG_FIXTURES_DIR;

// sysfs paths of sound cards behind the ports the logs name.
const std::string PATH_1_1 = "/devices/platform/soc/xhci_hcd.0/usb1/1-1/1-1:1.0/sound/card1";
const std::string PATH_1_2_3 = "/devices/platform/soc/xhci_hcd.0/usb1/1-2/1-2.3/1-2.3:1.0/sound/card2";
const std::string PATH_1_2_4 = "/devices/platform/soc/xhci_hcd.0/usb1/1-2/1-2.4/1-2.4:1.0/sound/card3";

std::string ReadFixture(const std::string &name)
{
    std::ifstream in(FIXTURES + "/" + name, std::ios::binary);
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

std::string CoreLine(uint32_t ms)
{
    return Line(ms, "usb_enable mod ld");
}

std::string PlugLine(uint32_t ms, const std::string &port)
{
    return Line(ms, "usb " + port + ": new full-speed USB device number 2 using xhci_hcd");
}

std::string UnplugLine(uint32_t ms, const std::string &port)
{
    return Line(ms, "usb " + port + ": USB disconnect completed");
}

// A kernel that serves `log` the way klogctl does and remembers what it was asked.
struct FakeKernel {
    std::string log;
    int sizeAnswer = 0; // answer to the size query; below 1 means the size is unknown
    int readResult = 0; // when negative, every read fails with it
    std::vector<int> readLengths;
    int sizeQueries = 0;

    int Serve(int action, char *buf, int len)
    {
        if (action == 10) {
            ++sizeQueries;
            return sizeAnswer;
        }
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
    using CDMesgAnalysis::BackwardMemo;
    using CDMesgAnalysis::m_ParseLeftNearestTimeStamp;
    using CDMesgAnalysis::m_ParseLeftUsbPort;
    using CDMesgAnalysis::m_ParseRightVendorProductId;
    using CDMesgAnalysis::m_ParseUsbDeviceDetectedByDevicePort;
    using CDMesgAnalysis::m_ParseUsbDeviceDetectedByDriverer;
    using CDMesgAnalysis::m_ReadLog;
};

class DMesgAnalysisTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        m_Analysis.SetSystemHooks({[this](int action, char *buf, int len) { return m_Kernel.Serve(action, buf, len); },
                                   [this] { return m_Now; }, [this](unsigned long ms) { m_Waits.push_back(ms); }});
    }

    // Parses `log` fully, as the service does on a hot-plug.
    void Parse(const std::string &log)
    {
        m_Kernel.log = log;
        m_Analysis.TriggerParse(true);
    }

    void PowerChangeAt(uint32_t ms)
    {
        m_Now = ms;
        m_Analysis.SetPowerChangdTime();
    }

    TempRoot m_Root;
    FakeKernel m_Kernel;
    uint32_t m_Now = 100000;
    std::vector<unsigned long> m_Waits;
    Analysis m_Analysis;
};

// --- Time stamps -------------------------------------------------------------------------------

uint32_t StampBefore(Analysis &analysis, const std::string &text, const std::string &marker)
{
    const char *pos = strstr(text.c_str(), marker.c_str());
    EXPECT_NE(pos, nullptr) << marker;
    return analysis.m_ParseLeftNearestTimeStamp(text.c_str(), text.size(), pos);
}

TEST_F(DMesgAnalysisTest, TimeStampIsReadAsMillisecondsTruncated)
{
    EXPECT_EQ(StampBefore(m_Analysis, "[12.345678] x", "x"), 12345u);
    EXPECT_EQ(StampBefore(m_Analysis, "<6>[3.005000] usb_enable mod ld", "usb_enable"), 3005u);
    EXPECT_EQ(StampBefore(m_Analysis, "[7] x", "x"), 7000u);
    EXPECT_EQ(StampBefore(m_Analysis, "[0.999999] x", "x"), 999u);
    // The part after the first "-" is the time.
    EXPECT_EQ(StampBefore(m_Analysis, "[3-12.500] x", "x"), 12500u);
}

TEST_F(DMesgAnalysisTest, TimeStampAcceptsOnlyDigitsDotsAndDashes)
{
    // A blank-padded stamp is passed over; the previous line's stamp is the nearest valid one.
    EXPECT_EQ(StampBefore(m_Analysis, "<6>[4.000000] a\n<6>[    5.123456] usb_enable mod ld", "usb_enable"), 4000u);
    EXPECT_EQ(StampBefore(m_Analysis, "<6>[    5.123456] usb_enable mod ld", "usb_enable"), UNKNOWN);
    // Other brackets on the line are passed over too.
    EXPECT_EQ(StampBefore(m_Analysis, "<4>[9.5] [sdp_audio] x", "x"), 9500u);
    EXPECT_EQ(StampBefore(m_Analysis, "<4>[9.5] [12a] x", "x"), 9500u);
    EXPECT_EQ(StampBefore(m_Analysis, "<4>[9.5] [1.0] x", "x"), 1000u);
    // A line without any stamp takes the one of the line before.
    EXPECT_EQ(StampBefore(m_Analysis, "[2.5] a\nno stamp here x", "x"), 2500u);
    EXPECT_EQ(StampBefore(m_Analysis, "no brackets at all x", "x"), UNKNOWN);
    EXPECT_EQ(StampBefore(m_Analysis, "only ] closing [ x", "x"), UNKNOWN);
    const char text[] = "[1.0] x";
    EXPECT_EQ(m_Analysis.m_ParseLeftNearestTimeStamp(nullptr, 0, text), UNKNOWN);
    EXPECT_EQ(m_Analysis.m_ParseLeftNearestTimeStamp(text, strlen(text), text), UNKNOWN);
}

// The walk over the log remembers earlier answers; it must give what a fresh scan gives.
TEST_F(DMesgAnalysisTest, RememberedScansAgreeWithFreshScansOnRandomText)
{
    std::mt19937 rng(42);
    const std::string alphabet = "[]0123456789.-- \n\nab:";
    for (int round = 0; round < 200; ++round) {
        std::string text(400, ' ');
        for (char &c : text)
            c = alphabet[rng() % alphabet.size()];
        Analysis::BackwardMemo memo(text.c_str());
        for (size_t pos = 1; pos < text.size(); pos += 1 + rng() % 23) {
            const char *p = text.c_str() + pos;
            ASSERT_EQ(m_Analysis.m_ParseLeftNearestTimeStamp(text.c_str(), text.size(), p, &memo),
                      m_Analysis.m_ParseLeftNearestTimeStamp(text.c_str(), text.size(), p))
                << "round " << round << " pos " << pos;
            ASSERT_EQ(m_Analysis.m_ParseLeftUsbPort(text.c_str(), text.size(), p, &memo),
                      m_Analysis.m_ParseLeftUsbPort(text.c_str(), text.size(), p))
                << "round " << round << " pos " << pos;
        }
    }
}

// The log is searched a window at a time; a marker on a window's edge must still be found.
TEST_F(DMesgAnalysisTest, MarkersOnSearchWindowEdgesAreFound)
{
    const std::string line = PlugLine(3000, "1-1");
    const size_t markerOffset = line.find(" new full-speed");
    for (size_t straddle = 0; straddle <= 40; ++straddle) {
        // The marker starts `straddle` bytes before the 64 KiB mark.
        std::string text(64 * 1024 - straddle - markerOffset - 1, 'x');
        text += "\n" + line;
        Analysis analysis;
        analysis.m_ParseUsbDeviceDetectedByDevicePort(text.c_str(), text.size());
        EXPECT_EQ(analysis.GetUsbDetectedTimeByDevPath(PATH_1_1), 3000u) << "straddle " << straddle;
    }
}

// --- Ports, ids --------------------------------------------------------------------------------

TEST_F(DMesgAnalysisTest, PortOfALine)
{
    const std::pair<std::string, std::string> cases[] = {
        {"<6>[5.123456] usb 1-1: new full-speed", "1-1"},        {"<6>[5.1] usb 1-2.3: new full-speed", "1-2.3"},
        {"no bracket usb 1-1: new full-speed", ""},               {"[1.0] usb 1-1/x: new full-speed", ""},
        {"[1.0] usb \x01\x02: new full-speed", ""},               {"[1.0]: new full-speed", ""}};
    for (const auto &c : cases) {
        const char *pos = strstr(c.first.c_str(), " new full-speed");
        EXPECT_EQ(m_Analysis.m_ParseLeftUsbPort(c.first.c_str(), c.first.size(), pos), c.second) << c.first;
    }
}

TEST_F(DMesgAnalysisTest, PortOfADevicePath)
{
    const std::pair<std::string, std::string> cases[] = {
        {PATH_1_1, "1-1"},
        {PATH_1_2_3, "1-2.3"},
        {"/sys/usb1/1-1/1-1.4.2/1-1.4.2:1.1/sound/card5", "1-1.4.2"},
        {"/devices/usb1/1-1/sound/card1", ""},
        {"1-1:1.0/sound/card1", ""},
        {"", ""},
        // The text before the first colon counts: on a PC the PCI part holds one, and no port is found.
        {"/devices/pci0000:00/0000:00:14.0/usb1/1-1/1-1:1.0", "pci0000"}};
    for (const auto &c : cases)
        EXPECT_EQ(CDMesgAnalysis::GetUsbPortNumberFromDevPath(c.first), c.second) << c.first;
}

TEST_F(DMesgAnalysisTest, VendorAndProductOfALine)
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
}

TEST_F(DMesgAnalysisTest, DriverParserKeepsTheLatestLinePerId)
{
    std::string log = Line(3000, "usb 1-1: New USB device found, idVendor=046d, idProduct=0a44") +
                      Line(4000, "usb 1-2: New USB device found, idVendor=0d8c, idProduct=0014") +
                      Line(9000, "usb 1-1: New USB device found, idVendor=046d, idProduct=0a44") +
                      Line(9500, "usb 2-1: New USB device found, idVendor=12");
    m_Analysis.m_ParseUsbDeviceDetectedByDriverer(log.c_str(), log.size());
    EXPECT_EQ(m_Analysis.GetUsbDeviceDetectedByDriverTime(0x046d, 0x0a44), 9000u);
    EXPECT_EQ(m_Analysis.GetUsbDeviceDetectedByDriverTime(0x0d8c, 0x0014), 4000u);

    bool found = false;
    m_Now = 9000;
    EXPECT_TRUE(m_Analysis.NeedWaitDetect(0x0d8c, 0x0014, found));
    EXPECT_TRUE(found);

    m_Analysis.RemoveDevice(0x0d8c, 0x0014);
    EXPECT_EQ(m_Analysis.GetUsbDeviceDetectedByDriverTime(0x0d8c, 0x0014), UNKNOWN);
    EXPECT_FALSE(m_Analysis.NeedWaitDetect(0x0d8c, 0x0014, found));
    EXPECT_FALSE(found);
}

// --- Full parse --------------------------------------------------------------------------------

TEST_F(DMesgAnalysisTest, FullParseOfATvBootLog)
{
    m_Kernel.sizeAnswer = 1 << 17;
    Parse(ReadFixture("tv-boot.log"));

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
    EXPECT_TRUE(m_Waits.empty());

    // The copy holds the text read, whose last byte was taken by the terminator.
    std::string log = ReadFixture("tv-boot.log");
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
    bool found = true;
    EXPECT_FALSE(m_Analysis.NeedWaitDetect(PATH_1_1, found));
    EXPECT_FALSE(found);
}

TEST_F(DMesgAnalysisTest, DisconnectRemovesOnlyPortsNotDetectedAgain)
{
    Parse(CoreLine(2000) + PlugLine(3000, "1-1") + PlugLine(3500, "1-2") + UnplugLine(8000, "1-1") +
          UnplugLine(8100, "1-2") + PlugLine(9000, "1-2") + Line(9100, "tail"));
    EXPECT_EQ(m_Analysis.GetUsbDetectedTimeByDevPath(PATH_1_1), UNKNOWN);
    EXPECT_EQ(m_Analysis.GetUsbDetectedTimeByDevPath("/devices/usb1/1-2/1-2:1.0/sound/card2"), 9000u);
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
    std::string log = ReadFixture("tv-no-usb-core.log");
    Parse(log);

    EXPECT_FALSE(m_Analysis.IsParsingReady());
    EXPECT_EQ(m_Kernel.readLengths.size(), 10u);
    EXPECT_EQ(m_Waits, std::vector<unsigned long>(9, 1000));
    for (int attempt = 1; attempt <= 10; ++attempt)
        EXPECT_EQ(m_Root.ReadFile("/tmp/dmesg.txt.err." + std::to_string(attempt)), log.substr(0, log.size() - 1))
            << attempt;
    EXPECT_FALSE(m_Root.Exists("/tmp/dmesg.txt.err.11"));
    EXPECT_FALSE(m_Root.Exists("/tmp/dmesg.txt.success"));
}

TEST_F(DMesgAnalysisTest, UnreadableLogEndsEachAttemptWithoutCopiesOrWaits)
{
    m_Kernel.sizeAnswer = -1;
    m_Kernel.readResult = -1;
    Parse("");
    EXPECT_FALSE(m_Analysis.IsParsingReady());
    EXPECT_EQ(m_Kernel.readLengths.size(), 10u);
    EXPECT_TRUE(m_Waits.empty());
    EXPECT_FALSE(m_Root.Exists("/tmp/dmesg.txt.err.1"));

    m_Kernel.readResult = 0; // an empty log is no better
    m_Kernel.readLengths.clear();
    Parse("");
    EXPECT_EQ(m_Kernel.readLengths.size(), 10u);
    EXPECT_FALSE(m_Analysis.IsParsingReady());
    EXPECT_FALSE(m_Root.Exists("/tmp/dmesg.txt.err.1"));
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

// --- Reading the log ---------------------------------------------------------------------------

TEST_F(DMesgAnalysisTest, UnknownSizeGrowsTheReadByFourWhileItFills)
{
    m_Kernel.sizeAnswer = -1;
    m_Kernel.log = std::string(300000, 'x');
    auto text = m_Analysis.m_ReadLog();
    EXPECT_EQ(m_Kernel.readLengths, (std::vector<int>{16392, 65568, 262272, 1049088}));
    EXPECT_EQ(text.length, 300000u - 1);

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
}

TEST_F(DMesgAnalysisTest, NulBytesBecomeBlanksAndTheLastByteEndsTheText)
{
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

TEST_F(DMesgAnalysisTest, GarbageNeverCrashes)
{
    std::mt19937 rng(7);
    const std::string pieces[] = {"[", "]", "[1.5]", "[    3.0]", "\n", std::string(1, '\0'), " usb 1-1:",
                                  " new full-speed USB device number", " USB disconnect completed",
                                  "usb_enable mod ld", "New USB device found, idVendor=04", "idProduct=",
                                  "\xff\xfe", "-", "99999999999999999999999.9"};
    std::string block;
    while (block.size() < (1u << 20)) {
        if (rng() % 4 == 0) {
            block += pieces[rng() % (sizeof pieces / sizeof pieces[0])];
        } else {
            for (int i = 0; i < 16; ++i) {
                uint32_t word = static_cast<uint32_t>(rng());
                block.append(reinterpret_cast<const char *>(&word), sizeof word);
            }
        }
    }
    // A 64 MiB ring buffer of it (a megabyte of garbage, over and over).
    std::string log;
    log.reserve(64u << 20);
    while (log.size() + block.size() < (64u << 20))
        log += block;
    log += "\n<6>[7000.000000] usb 3-1: new full-speed USB device number 9 using xhci_hcd\n";
    log += "<6>[7000.100000] usb 3-1: New USB device found, idVendor=04";

    m_Kernel.sizeAnswer = -1;
    Parse(log);
    EXPECT_TRUE(m_Analysis.IsParsingReady());
    EXPECT_EQ(m_Analysis.GetUsbDetectedTimeByDevPath("/devices/usb3/3-1/3-1:1.0/sound/card1"), 7000000u);
    std::replace(log.begin(), log.end(), '\0', ' ');
    m_Analysis.m_ParseUsbDeviceDetectedByDriverer(log.c_str(), log.size());
    EXPECT_EQ(m_Analysis.GetUsbDeviceDetectedByDriverTime(0x0d8c, 0x0014), UNKNOWN);

    // Truncated and stamp-less lines at the very end.
    for (const std::string tail : {"usb 1-1: New USB device found, idVendor=04", "[", "[1.0", " new full-speed USB"}) {
        Parse(tail);
        m_Analysis.m_ParseUsbDeviceDetectedByDriverer(tail.c_str(), tail.size());
    }
}

// --- Partial parse -----------------------------------------------------------------------------

TEST_F(DMesgAnalysisTest, PartialParseRunsOnlyAfterAFullParseOrWhenForced)
{
    m_Analysis.TriggerPartialParse(false);
    EXPECT_TRUE(m_Kernel.readLengths.empty());

    m_Kernel.log = PlugLine(3000, "1-1") + Line(3100, "tail");
    m_Analysis.TriggerPartialParse(true);
    EXPECT_EQ(m_Kernel.readLengths, std::vector<int>{10240});
    EXPECT_EQ(m_Analysis.GetUsbDetectedTimeByDevPath(PATH_1_1), 3000u);
    EXPECT_FALSE(m_Analysis.IsParsingReady());
}

TEST_F(DMesgAnalysisTest, PartialParseReadsMoreUntilADisconnectIsInIt)
{
    Parse(CoreLine(2000) + PlugLine(3000, "1-1") + Line(3100, "tail"));
    ASSERT_TRUE(m_Analysis.IsParsingReady());
    m_Kernel.readLengths.clear();

    // The disconnect lies about 20 KiB back from the newest end.
    std::string filler;
    for (uint32_t ms = 60000; filler.size() < 20000; ms += 10)
        filler += Line(ms, "[sdp_audio] set main out volume 12, mute 0");
    m_Kernel.log = CoreLine(2000) + PlugLine(3000, "1-1") + PlugLine(40000, "1-2.3") + UnplugLine(50000, "1-1") +
                   filler;
    m_Analysis.TriggerPartialParse(false);
    EXPECT_EQ(m_Kernel.readLengths, (std::vector<int>{10240, 40960}));
    EXPECT_EQ(m_Analysis.GetUsbDetectedTimeByDevPath(PATH_1_1), UNKNOWN);
    EXPECT_EQ(m_Analysis.GetUsbDetectedTimeByDevPath(PATH_1_2_3), 40000u);
}

TEST_F(DMesgAnalysisTest, PartialParseStopsWhenTheWholeLogHoldsNoDisconnect)
{
    m_Kernel.log = std::string(50000, 'x') + PlugLine(3000, "1-1");
    m_Analysis.TriggerPartialParse(true);
    EXPECT_EQ(m_Kernel.readLengths, (std::vector<int>{10240, 40960, 163840}));
    EXPECT_EQ(m_Analysis.GetUsbDetectedTimeByDevPath(PATH_1_1), 3000u);

    m_Kernel.readLengths.clear();
    m_Kernel.readResult = -5;
    m_Analysis.TriggerPartialParse(true);
    EXPECT_EQ(m_Kernel.readLengths, std::vector<int>{10240});
}

// --- When to parse -----------------------------------------------------------------------------

TEST_F(DMesgAnalysisTest, ParseIsSkippedOnlyWhenReadyUnforcedAndOutOfTiming)
{
    m_Now = 60000;
    std::string log = CoreLine(2000) + PlugLine(3000, "1-1") + Line(3100, "tail");
    Parse(log);
    ASSERT_TRUE(m_Analysis.IsParsingReady());

    auto readsFor = [this](uint32_t now) {
        m_Now = now;
        m_Kernel.readLengths.clear();
        m_Analysis.TriggerParse(false);
        return m_Kernel.readLengths.size();
    };
    EXPECT_EQ(readsFor(29999), 1u); // shortly after boot
    EXPECT_EQ(readsFor(30000), 0u);

    PowerChangeAt(100000);
    EXPECT_EQ(readsFor(104999), 1u); // shortly after a power change
    EXPECT_EQ(readsFor(105000), 0u);

    m_Kernel.readLengths.clear();
    m_Analysis.TriggerParse(true);
    EXPECT_EQ(m_Kernel.readLengths.size(), 1u);
}

TEST_F(DMesgAnalysisTest, NotReadyAlwaysParses)
{
    m_Now = 60000;
    m_Analysis.TriggerParse(false);
    EXPECT_EQ(m_Kernel.sizeQueries, 10); // ten attempts on an empty log
}

// --- Judgements --------------------------------------------------------------------------------

class JudgementTest : public DMesgAnalysisTest {
protected:
    // A log with the USB core up at `core` (if known) and a headset on 1-1 detected at `detected`.
    void Detect(uint32_t core, uint32_t detected)
    {
        std::string log = core == UNKNOWN ? "" : CoreLine(core);
        Parse(log + PlugLine(detected, "1-1") + Line(detected + 1, "tail"));
        ASSERT_EQ(m_Analysis.GetUsbDetectedTimeByDevPath(PATH_1_1), detected);
    }

    bool ChangeSpeakerAt(uint32_t now, const std::string &path = PATH_1_1)
    {
        m_Now = now;
        return m_Analysis.NeedChangeSpeaker(path);
    }

    // The judgement of a fresh analyser, after a power change at `powerChange` (0: none), on a log
    // with the USB core up at 2 s and a headset on 1-1 detected at `detected`, asked at `now`.
    bool FreshJudgement(uint32_t detected, uint32_t now, uint32_t powerChange = 0)
    {
        Analysis fresh;
        fresh.SetSystemHooks({[this](int action, char *buf, int len) { return m_Kernel.Serve(action, buf, len); },
                              [this] { return m_Now; }, [](unsigned long) {}});
        m_Now = 100000;
        if (powerChange != 0) {
            m_Now = powerChange;
            fresh.SetPowerChangdTime();
        }
        m_Kernel.log = CoreLine(2000) + PlugLine(detected, "1-1") + Line(detected + 1, "tail");
        fresh.TriggerParse(true);
        EXPECT_EQ(fresh.GetUsbDetectedTimeByDevPath(PATH_1_1), detected);
        m_Now = now;
        return fresh.NeedChangeSpeaker(PATH_1_1);
    }
};

struct JudgementCase {
    uint32_t detected;
    uint32_t now;
    bool plugIn;
};

TEST_F(JudgementTest, CoreJudgementBoundaries)
{
    // The core is up at 2,000 ms; a plug-in is a detection more than 5,000 ms later.
    const JudgementCase cases[] = {{5000, 100000, false}, {7000, 100000, false}, {7001, 100000, true},
                                   {8000, 100000, true},  {1999, 100000, false}, {2000, 100000, false}};
    for (const JudgementCase &c : cases)
        EXPECT_EQ(FreshJudgement(c.detected, c.now), c.plugIn) << "detected at " << c.detected;
}

TEST_F(JudgementTest, PowerJudgementBoundaries)
{
    // Power changed at 100,000 ms. A detection within 5,000 ms of it is no plug-in while asked within
    // 5,000 ms of it; a detection before it wraps; from 5,000 ms on only the core judgement counts.
    const JudgementCase cases[] = {{102000, 103000, false}, {102000, 104999, false}, {102000, 105000, true},
                                   {102000, 106000, true},  {105000, 104000, false}, {105001, 104000, true},
                                   {99000, 101000, false},  {99000, 105000, true}};
    for (const JudgementCase &c : cases)
        EXPECT_EQ(FreshJudgement(c.detected, c.now, 100000), c.plugIn)
            << "detected at " << c.detected << ", asked at " << c.now;
}

TEST_F(JudgementTest, UnknownDetectionWithKnownCoreDependsOnUptime)
{
    // A plug-in once the core is 30 s up.
    Detect(2000, 3000);
    EXPECT_FALSE(ChangeSpeakerAt(31999, PATH_1_2_3));
    EXPECT_TRUE(ChangeSpeakerAt(32000, PATH_1_2_3));
}

TEST_F(JudgementTest, UnknownCoreDependsOnUptimeOnly)
{
    Detect(UNKNOWN, 25000);
    EXPECT_EQ(m_Analysis.GetUsbCoreInitalTime(), UNKNOWN);
    EXPECT_FALSE(ChangeSpeakerAt(20000));
    EXPECT_FALSE(ChangeSpeakerAt(29998));
    EXPECT_TRUE(ChangeSpeakerAt(29999));
    EXPECT_TRUE(ChangeSpeakerAt(40000));
    EXPECT_FALSE(ChangeSpeakerAt(20000, PATH_1_2_3));
    EXPECT_TRUE(ChangeSpeakerAt(40000, PATH_1_2_3));
}

TEST_F(JudgementTest, UnknownDetectionRightAfterAPowerChangeIsNoPlugIn)
{
    PowerChangeAt(100000);
    Detect(2000, 99000);
    EXPECT_FALSE(ChangeSpeakerAt(101000, PATH_1_2_3));
    EXPECT_EQ(m_Analysis.GetPowerChangedTime(), 100000u);
}

TEST_F(JudgementTest, WaitDetectWithoutPowerChangeLooksAtTheFirstThirtySeconds)
{
    bool found = false;
    Detect(2000, 29999);
    EXPECT_TRUE(m_Analysis.NeedWaitDetect(PATH_1_1, found));
    EXPECT_TRUE(found);

    Detect(2000, 30000);
    found = false;
    EXPECT_FALSE(m_Analysis.NeedWaitDetect(PATH_1_1, found));
    EXPECT_TRUE(found);

    EXPECT_FALSE(m_Analysis.NeedWaitDetect(PATH_1_2_3, found));
    EXPECT_FALSE(found);
}

TEST_F(JudgementTest, WaitDetectAfterPowerChangeLooksAtTheFirstFiveSeconds)
{
    PowerChangeAt(100000);
    bool found = false;
    Parse(CoreLine(2000) + PlugLine(104999, "1-1") + PlugLine(105000, "1-2.3") + PlugLine(99000, "1-2.4") +
          Line(105001, "tail"));
    EXPECT_TRUE(m_Analysis.NeedWaitDetect(PATH_1_1, found));
    EXPECT_TRUE(found);
    EXPECT_FALSE(m_Analysis.NeedWaitDetect(PATH_1_2_3, found));
    EXPECT_TRUE(found);
    EXPECT_FALSE(m_Analysis.NeedWaitDetect(PATH_1_2_4, found)); // before the change: wraps
    EXPECT_TRUE(found);
}

TEST_F(JudgementTest, VendorProductFormsSeeNoDeviceAfterATrigger)
{
    Detect(2000, 9000);
    bool found = true;
    EXPECT_FALSE(m_Analysis.NeedWaitDetect(0x046d, 0x0a44, found));
    EXPECT_FALSE(found);
    // Unknown detection with a known core: a plug-in once the core is 30 s up.
    m_Now = 31999;
    EXPECT_FALSE(m_Analysis.NeedChangeSpeaker(0x046d, 0x0a44));
    m_Now = 32000;
    EXPECT_TRUE(m_Analysis.NeedChangeSpeaker(0x046d, 0x0a44));
}

} // namespace
