// Logging inside the host platform layer: the platform's own tag, the same line form as the
// service ("<file>: <function>(<line>) > <message>").
#pragma once

#include "nimbos/log.h"

#define HOST_LOG(prio, fmt, ...) \
    dlog_print(prio, "nimbos", "%s: %s(%d) > " fmt, __FILE__, __func__, __LINE__, ##__VA_ARGS__)
