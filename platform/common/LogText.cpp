#include "LogText.h"

#include <cstdarg>

namespace nimbos::common {

char PriorityLetter(int priority)
{
    static const char letters[] = "DIWEF";
    return priority >= DLOG_DEBUG && priority <= DLOG_FATAL ? letters[priority - DLOG_DEBUG] : '?';
}

std::string OneLine(std::string text)
{
    while (!text.empty() && text.back() == '\n')
        text.pop_back();
    for (char &c : text)
        if (c == '\n')
            c = ' ';
    return text;
}

} // namespace nimbos::common

extern "C" int dlog_print(log_priority prio, const char *tag, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    int ret = dlog_vprint(prio, tag, fmt, ap);
    va_end(ap);
    return ret;
}
