// B1: full analysis of synthetic kernel logs of 64 KiB, 1 MiB and 16 MiB, each against one
// memmem pass over the same log measured in the same run. The analysis is the service's full
// parse as a hot-plug runs it: the read (served from memory, as klogctl copies the ring), the
// parsers on a thread of their own, and the saved copy of the log. The parsers alone are timed
// too ("parse-" cases), and so are the two fixed parts of every full parse that no parser speed
// changes: starting and joining its thread, and saving the copy of the log (raw figures).
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "DMesgAnalysis.h"
#include "LocalFileData.h"
#include "SyntheticKernelLog.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr double GOAL_RATIO_TO_MEMMEM = 5.0;
constexpr double GOAL_SCALE_16M_TO_1M = 20.0;
const char NEEDLE_ABSENT[] = "\x01no such kernel message\x01";
// Where the full parse saves its copy of the log.
const char LOG_COPY[] = "/tmp/dmesg.txt.success";

struct Case {
    const char *name;
    size_t bytes;
    int repeats;
};

double Median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

template <typename Work>
double MedianMicroseconds(int repeats, Work work)
{
    std::vector<double> times;
    for (int i = 0; i < repeats; ++i) {
        auto start = Clock::now();
        work();
        times.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
    }
    return Median(times);
}

// Saved copies of the log go to a private root, in memory when the machine has /dev/shm.
std::string MakeRoot()
{
    struct stat st;
    std::string pattern = (stat("/dev/shm", &st) == 0 && access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp");
    pattern += "/hadrix-bench-XXXXXX";
    if (!mkdtemp(&pattern[0])) {
        perror("mkdtemp");
        exit(1);
    }
    mkdir((pattern + "/tmp").c_str(), 0755);
    setenv("HADRIX_ROOT", pattern.c_str(), 1);
    setenv("HADRIX_SETTINGS_DIR", (pattern + "/settings").c_str(), 1);
    setenv("HADRIX_RUNTIME_SETTINGS_DIR", (pattern + "/run-settings").c_str(), 1);
    return pattern;
}

void RemoveRoot(const std::string &root)
{
    for (const char *file : {LOG_COPY, "/tmp", "/settings", "/run-settings", ""})
        remove((root + file).c_str());
}

// The analyser's parsers, run on a log already in memory.
class ParsersOnly : public CDMesgAnalysis {
public:
    void Run(const std::string &text)
    {
        m_ParseUsbCoreInitalTime(text.c_str(), text.size());
        m_ParseUsbDeviceDetectedByDevicePort(text.c_str(), text.size());
        m_ParseUsbDeviceDisconnected(text.c_str(), text.size());
    }
};

bool AnalyseOnce(const SyntheticKernelLog &log)
{
    CDMesgAnalysis::ReleaseInstance();
    CDMesgAnalysis *analysis = CDMesgAnalysis::GetInstance();
    const std::string &text = log.text;
    analysis->SetKernelLogReader([&text](int action, char *buf, int len) {
        if (action == 10)
            return static_cast<int>(text.size());
        size_t n = std::min(text.size(), static_cast<size_t>(len));
        memcpy(buf, text.data() + text.size() - n, n);
        return static_cast<int>(n);
    });
    analysis->TriggerParse(true);
    return analysis->IsParsingReady() && analysis->GetUsbCoreInitalTime() == log.coreInitMs &&
           analysis->GetDetectedDevicesCount() == log.ports.size();
}

} // namespace

int main()
{
    // The service's debug log would dominate the figures.
    setenv("HADRIX_LOG_LEVEL", "error", 1);
    std::string root = MakeRoot();

    const Case cases[] = {{"64KiB", 64u << 10, 301}, {"1MiB", 1u << 20, 61}, {"16MiB", 16u << 20, 11}};
    std::vector<double> ratios;
    std::vector<double> parseRatios;
    std::vector<double> analysisTimes;
    std::vector<double> memmemTimes;
    int status = 0;
    for (const Case &c : cases) {
        SyntheticKernelLog log = MakeSyntheticKernelLog(c.bytes);
        const char *volatile sink = nullptr;
        double memmemUs = MedianMicroseconds(c.repeats * 3, [&] {
            sink = static_cast<const char *>(memmem(log.text.data(), log.text.size(), NEEDLE_ABSENT, strlen(NEEDLE_ABSENT)));
        });
        bool correct = true;
        double analysisUs = MedianMicroseconds(c.repeats, [&] { correct = AnalyseOnce(log) && correct; });
        if (!correct) {
            fprintf(stderr, "B1 %s: the analysis did not find what the log holds\n", c.name);
            status = 1;
        }
        double parseUs = MedianMicroseconds(c.repeats, [&] {
            ParsersOnly parsers;
            parsers.Run(log.text);
        });
        double saveUs = MedianMicroseconds(c.repeats, [&] {
            CLocalFileData::GetInstance()->WriteToFile(LOG_COPY, log.text.data(), log.text.size());
        });
        printf("B1 raw %s bytes=%zu usb_ports=%zu memmem_us=%.1f analysis_us=%.1f parse_us=%.1f save_us=%.1f "
               "repeats=%d\n",
               c.name, log.text.size(), log.ports.size(), memmemUs, analysisUs, parseUs, saveUs, c.repeats);
        ratios.push_back(analysisUs / memmemUs);
        parseRatios.push_back(parseUs / memmemUs);
        analysisTimes.push_back(analysisUs);
        memmemTimes.push_back(memmemUs);
        (void)sink;
    }
    printf("B1 raw thread_start_join_us=%.1f\n", MedianMicroseconds(301, [] { std::thread([] {}).join(); }));
    CDMesgAnalysis::ReleaseInstance();
    CLocalFileData::ReleaseInstance();
    RemoveRoot(root);

    double scale = analysisTimes[2] / analysisTimes[1];
    printf("B1 raw memmem 16MiB/1MiB ratio=%.2f (the reference's own scaling)\n", memmemTimes[2] / memmemTimes[1]);
    printf("B1 goals: analysis <= %.0fx memmem; 16MiB <= %.0fx 1MiB\n", GOAL_RATIO_TO_MEMMEM, GOAL_SCALE_16M_TO_1M);
    for (size_t i = 0; i < ratios.size(); ++i)
        printf("B1 %s ratio=%.2f\n", cases[i].name, ratios[i]);
    for (size_t i = 0; i < parseRatios.size(); ++i)
        printf("B1 parse-%s ratio=%.2f\n", cases[i].name, parseRatios[i]);
    printf("B1 16MiB/1MiB ratio=%.2f\n", scale);
    return status;
}
