// Host log: every message is one line on standard error (the journal under systemd). When
// standard error is the journal's stream, each line starts with its syslog priority ("<3>"), which
// journald takes off and keeps as the entry's priority.
#include "nimbos/log.h"

#include "LogText.h"

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <utility>

namespace {

constexpr const char *kOwnTag = "nimbos";

// The syslog priority journald files a line under.
int JournalPriority(log_priority prio)
{
    switch (prio) {
    case DLOG_DEBUG: return 7;
    case DLOG_INFO: return 6;
    case DLOG_WARN: return 4;
    case DLOG_ERROR: return 3;
    case DLOG_FATAL: return 2;
    }
    return 6;
}

// systemd's stream protocol: JOURNAL_STREAM holds "<device>:<inode>" of the stream it connected
// to standard error. Checked for every line, since standard error can be replaced at any time.
bool StderrIsJournal()
{
    const char *stream = getenv("JOURNAL_STREAM");
    uintmax_t device = 0;
    uintmax_t inode = 0;
    char rest = 0;
    if (!stream || sscanf(stream, "%" SCNuMAX ":%" SCNuMAX "%c", &device, &inode, &rest) != 2)
        return false;
    struct stat st {};
    return fstat(STDERR_FILENO, &st) == 0 && st.st_dev == device && st.st_ino == inode;
}

// "HH:MM:SS.mmm P/tag(pid:tid): ", sized for any tag.
std::string LineHead(log_priority prio, const char *tag)
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm local{};
    localtime_r(&now.tv_sec, &local);
    char stamp[48];
    snprintf(stamp, sizeof stamp, "%02d:%02d:%02d.%03ld %c/", local.tm_hour, local.tm_min, local.tm_sec,
             now.tv_nsec / 1000000, nimbos::common::PriorityLetter(prio));
    char ids[48];
    snprintf(ids, sizeof ids, "(%d:%ld): ", static_cast<int>(getpid()), static_cast<long>(syscall(SYS_gettid)));
    return std::string(stamp) + (tag ? tag : "") + ids;
}

// A single write keeps lines from different threads whole.
int WriteLine(log_priority prio, const char *tag, std::string body)
{
    std::string line = LineHead(prio, tag) + nimbos::common::OneLine(std::move(body)) + '\n';
    if (StderrIsJournal())
        line.insert(0, "<" + std::to_string(JournalPriority(prio)) + ">");
    ssize_t written = write(STDERR_FILENO, line.data(), line.size());
    return written < 0 ? -errno : static_cast<int>(written);
}

// HADRIX_LOG_LEVEL=debug|info|warn|error sets the lowest priority written; read once. Any other
// value writes everything, and says so: the log cannot log through itself while it decides.
log_priority MinimumPriority()
{
    static const log_priority level = [] {
        const char *env = getenv("HADRIX_LOG_LEVEL");
        if (!env || !strcmp(env, "debug"))
            return DLOG_DEBUG;
        if (!strcmp(env, "info"))
            return DLOG_INFO;
        if (!strcmp(env, "warn"))
            return DLOG_WARN;
        if (!strcmp(env, "error"))
            return DLOG_ERROR;
        WriteLine(DLOG_WARN, kOwnTag,
                  std::string("HADRIX_LOG_LEVEL \"") + env +
                      "\" refused: it is debug, info, warn or error; every priority is written");
        return DLOG_DEBUG;
    }();
    return level;
}

} // namespace

extern "C" int dlog_vprint(log_priority prio, const char *tag, const char *fmt, va_list ap)
{
    if (prio < MinimumPriority())
        return 0;

    va_list copy;
    va_copy(copy, ap);
    int bodyLen = vsnprintf(nullptr, 0, fmt, copy);
    va_end(copy);
    if (bodyLen < 0)
        return -EINVAL;
    std::string body(static_cast<size_t>(bodyLen) + 1, '\0');
    vsnprintf(&body[0], body.size(), fmt, ap);
    body.resize(static_cast<size_t>(bodyLen));
    return WriteLine(prio, tag, std::move(body));
}
