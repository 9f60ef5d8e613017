// Kernel-log analysis over arbitrary log text: the line parsers over the whole text, the searches
// from every blank and word start (remembered and fresh alike), the full and the partial parse
// with the text served as the kernel's log, and the judgements on the result.
#include <algorithm>
#include <cstring>
#include <string>

#include "Clock.h"
#include "DMesgAnalysis.h"
#include "FuzzEnvironment.h"

namespace {

constexpr uint32_t kUptimeMs = 3600 * 1000;

// An hour after boot for as long as the target runs: a failed parse's pauses take no time.
class StoppedClock : public CClock {
public:
    StoppedClock() { CClock::Set(this); }
    uint64_t NowMs() override { return kUptimeMs; }
    guint AddTimeout(unsigned int ms, GSourceFunc fn, gpointer data, GDestroyNotify destroy) override
    {
        return g_timeout_add_full(G_PRIORITY_DEFAULT, ms, fn, data, destroy);
    }
    void RemoveTimeout(guint id) override { g_source_remove(id); }
    void Sleep(unsigned long) override {}
};
StoppedClock g_clock;
constexpr size_t kMaxPositions = 1024;

// The analysis with the input as its kernel log, served as klogctl serves it: the size query
// answers the log's size, a read returns its newest bytes.
class Analysis : public CDMesgAnalysis {
public:
    explicit Analysis(std::string log) : m_Log(std::move(log))
    {
        SetKernelLogReader([this](int action, char *buf, int len) { return Serve(action, buf, len); });
    }

    void RunLineParsers()
    {
        const char *text = m_Log.c_str();
        const size_t len = m_Log.size();
        m_ParseUsbCoreInitalTime(text, len);
        m_ParseUsbDeviceDetectedByDriverer(text, len);
        m_ParseUsbDeviceDetectedByDevicePort(text, len);
        m_ParseUsbDeviceDisconnected(text, len);

        // At every blank (where the markers begin) and word start, in order, the remembered scans
        // must give what a fresh scan back to the start of the text gives.
        BackwardMemo memo(text);
        size_t positions = 0;
        for (size_t at = 1; at < len && positions < kMaxPositions; ++at) {
            if (text[at] != ' ' && text[at - 1] != ' ' && text[at - 1] != '\n')
                continue;
            ++positions;
            const char *pos = text + at;
            FUZZ_CHECK(m_ParseLeftNearestTimeStamp(text, len, pos, &memo) ==
                       m_ParseLeftNearestTimeStamp(text, len, pos));
            FUZZ_CHECK(m_ParseLeftUsbPort(text, len, pos, &memo) == m_ParseLeftUsbPort(text, len, pos));
            if (text[at - 1] == '\n')
                m_ParseRightVendorProductId(text, len, pos);
        }
    }

private:
    int Serve(int action, char *buf, int len)
    {
        if (action == 10)
            return static_cast<int>(m_Log.size());
        size_t n = std::min(m_Log.size(), static_cast<size_t>(std::max(len, 0)));
        memcpy(buf, m_Log.data() + m_Log.size() - n, n);
        return static_cast<int>(n);
    }

    std::string m_Log;
};

void Judge(CDMesgAnalysis &analysis)
{
    bool found = false;
    for (const char *path : {"/devices/platform/soc/usb1/1-1/1-1:1.0/sound/card1",
                             "/devices/platform/soc/usb1/1-2/1-2.3/1-2.3:1.0/sound/card2"}) {
        analysis.GetUsbDetectedTimeByDevPath(path);
        analysis.NeedWaitDetect(path, found);
        analysis.NeedChangeSpeaker(path);
    }
    analysis.NeedWaitDetect(0x046d, 0x0a44, found);
    analysis.NeedChangeSpeaker(0x046d, 0x0a44);
    analysis.GetDetectedDevicesCount();
    analysis.GetUsbCoreInitalTime();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string log(reinterpret_cast<const char *>(data), size);
    {
        Analysis analysis(log);
        analysis.RunLineParsers();
    }
    Analysis analysis(log);
    analysis.TriggerParse(true);
    analysis.TriggerPartialParse(true);
    Judge(analysis);
    return 0;
}
