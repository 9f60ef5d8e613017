/* Platform log: one line per message under a tag, with a priority. */
#pragma once

#include <stdarg.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef enum {
    DLOG_DEBUG = 3,
    DLOG_INFO,
    DLOG_WARN,
    DLOG_ERROR,
    DLOG_FATAL,
} log_priority;

/* Writes one line. Returns the number of bytes written, or a negative errno. */
int dlog_print(log_priority prio, const char *tag, const char *fmt, ...)
    __attribute__((format(printf, 3, 4)));
int dlog_vprint(log_priority prio, const char *tag, const char *fmt, va_list ap)
    __attribute__((format(printf, 3, 0)));

#ifdef __cplusplus
}
#endif
