// The service's one set of logging macros. Every line carries the tag "hadrix" and the form
// "<file>: <function>(<line>) > <message>". Error and warning messages are red, info (progress)
// messages yellow, debug messages plain.
#pragma once

#include "nimbos/log.h"

#define HADRIX_LOG_TAG "hadrix"
#define HADRIX_COLOR_RED "\033[0;31m"
#define HADRIX_COLOR_YELLOW "\033[0;33m"
#define HADRIX_COLOR_END "\033[0;m"

#define HADRIX_LOG_(prio, color, end, fmt, ...)                                                   \
    dlog_print(prio, HADRIX_LOG_TAG, "%s: %s(%d) > " color fmt end, __FILE__, __func__, __LINE__, \
               ##__VA_ARGS__)

#define LOGD(fmt, ...) HADRIX_LOG_(DLOG_DEBUG, "", "", fmt, ##__VA_ARGS__)
#define LOGI(fmt, ...) HADRIX_LOG_(DLOG_INFO, HADRIX_COLOR_YELLOW, HADRIX_COLOR_END, fmt, ##__VA_ARGS__)
#define LOGW(fmt, ...) HADRIX_LOG_(DLOG_WARN, HADRIX_COLOR_RED, HADRIX_COLOR_END, fmt, ##__VA_ARGS__)
#define LOGE(fmt, ...) HADRIX_LOG_(DLOG_ERROR, HADRIX_COLOR_RED, HADRIX_COLOR_END, fmt, ##__VA_ARGS__)
