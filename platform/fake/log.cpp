// The fake platform log: every message kept in memory as one line, and echoed to standard error
// when HADRIX_FAKE_LOG=1, so that a failing test can show what the service said.
#include "nimbos/log.h"

#include "FakeCore.h"
#include "LogText.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

namespace {

using nimbos::common::OneLine;
using nimbos::common::PriorityLetter;
using nimbos::fake::LogLine;

struct Log {
    std::mutex lock;
    std::vector<LogLine> lines;
};

Log &TheLog()
{
    static Log *log = new Log; // never destroyed: worker threads may still log at exit
    return *log;
}

bool Echoes()
{
    static const bool echo = [] {
        const char *value = getenv("HADRIX_FAKE_LOG");
        return value && strcmp(value, "1") == 0;
    }();
    return echo;
}

} // namespace

extern "C" int dlog_vprint(log_priority prio, const char *tag, const char *fmt, va_list ap)
{
    g_autofree char *body = g_strdup_vprintf(fmt, ap);
    LogLine line{prio, tag ? tag : "", OneLine(body)};
    const int length = static_cast<int>(line.text.size()) + 1;
    if (Echoes())
        fprintf(stderr, "%c/%s: %s\n", PriorityLetter(line.priority), line.tag.c_str(), line.text.c_str());
    Log &log = TheLog();
    std::lock_guard<std::mutex> lock(log.lock);
    log.lines.push_back(std::move(line));
    return length;
}

namespace nimbos::fake {

std::vector<LogLine> LogLines()
{
    Log &log = TheLog();
    std::lock_guard<std::mutex> lock(log.lock);
    return log.lines;
}

void ClearLog()
{
    Log &log = TheLog();
    std::lock_guard<std::mutex> lock(log.lock);
    log.lines.clear();
}

namespace detail {

void ResetLog()
{
    ClearLog();
}

} // namespace detail

} // namespace nimbos::fake
