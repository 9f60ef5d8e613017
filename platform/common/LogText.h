// What both platform logs do alike to a message: one letter for its priority, one line for its
// text. dlog_print, which only hands its arguments to the library's own dlog_vprint, is in
// LogText.cpp.
#pragma once

#include "nimbos/log.h"

#include <string>

namespace nimbos::common {

// D, I, W, E or F; '?' for anything else.
char PriorityLetter(int priority);
// One message is one line: trailing breaks are dropped, inner ones would split it in a log that
// reads lines, so they become spaces.
std::string OneLine(std::string text);

} // namespace nimbos::common
