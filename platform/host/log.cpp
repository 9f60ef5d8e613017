// Host log: every message is one line on standard error (the journal under systemd).
#include "nimbos/log.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

char PriorityLetter(log_priority prio)
{
    switch (prio) {
    case DLOG_DEBUG: return 'D';
    case DLOG_INFO: return 'I';
    case DLOG_WARN: return 'W';
    case DLOG_ERROR: return 'E';
    case DLOG_FATAL: return 'F';
    }
    return '?';
}

// HADRIX_LOG_LEVEL=debug|info|warn|error sets the lowest priority written; read once.
log_priority MinimumPriority()
{
    static const log_priority level = [] {
        const char *env = getenv("HADRIX_LOG_LEVEL");
        if (!env)
            return DLOG_DEBUG;
        if (!strcmp(env, "info"))
            return DLOG_INFO;
        if (!strcmp(env, "warn"))
            return DLOG_WARN;
        if (!strcmp(env, "error"))
            return DLOG_ERROR;
        return DLOG_DEBUG;
    }();
    return level;
}

} // namespace

extern "C" int dlog_vprint(log_priority prio, const char *tag, const char *fmt, va_list ap)
{
    if (prio < MinimumPriority())
        return 0;

    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm local{};
    localtime_r(&now.tv_sec, &local);

    char head[96];
    int headLen = snprintf(head, sizeof head, "%02d:%02d:%02d.%03ld %c/%s(%d:%ld): ", local.tm_hour,
                           local.tm_min, local.tm_sec, now.tv_nsec / 1000000, PriorityLetter(prio),
                           tag ? tag : "", static_cast<int>(getpid()), static_cast<long>(syscall(SYS_gettid)));

    va_list copy;
    va_copy(copy, ap);
    int bodyLen = vsnprintf(nullptr, 0, fmt, copy);
    va_end(copy);
    if (bodyLen < 0)
        return -EINVAL;

    std::string line(head, static_cast<size_t>(headLen));
    std::string body(static_cast<size_t>(bodyLen) + 1, '\0');
    vsnprintf(&body[0], body.size(), fmt, ap);
    body.resize(static_cast<size_t>(bodyLen));
    // One message is one line: a trailing break is dropped, inner ones would split it in the journal.
    while (!body.empty() && body.back() == '\n')
        body.pop_back();
    for (char &c : body)
        if (c == '\n')
            c = ' ';
    line += body;
    line += '\n';

    // A single write keeps lines from different threads whole.
    ssize_t written = write(STDERR_FILENO, line.data(), line.size());
    return written < 0 ? -errno : static_cast<int>(written);
}

extern "C" int dlog_print(log_priority prio, const char *tag, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    int ret = dlog_vprint(prio, tag, fmt, ap);
    va_end(ap);
    return ret;
}
