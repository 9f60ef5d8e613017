// What every part of the fake platform shares: the call record and injected results, service
// availability, asynchronous delivery to a main context, and the reset of each part.
#pragma once

#include "nimbos/fake.h"

#include <glib.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "UniqueHandle.h"

namespace nimbos::fake::detail {

// Arguments as Call::args renders them.
std::string Text(const char *text);
std::string Text(const std::string &text);
std::string Text(int number);
std::string Text(unsigned number);
std::string Text(double number);
std::string Flag(bool flag);

// Records a call of `function` and returns the result a test injected for it, if any.
std::optional<int> Enter(const char *function, std::vector<std::string> args);
// Records a call of a function that cannot be made to fail.
void Record(const char *function, std::vector<std::string> args);
// The code a call to `service` returns while it is missing or silent, if it is.
std::optional<int> Unavailable(Service service, int missingCode, int silentCode);
// The same for the application a launch request goes to.
std::optional<int> AppUnavailable(const std::string &appId, int missingCode, int silentCode);

using ContextRef = UniqueHandle<GMainContext, g_main_context_unref>;

// The calling thread's thread-default main context, where a callback it registers runs.
ContextRef CallerContext();
// Runs `work` on `context` (null: the default one) from a source of its own, never before the
// caller returns. Work posted before a Reset is dropped.
void Post(GMainContext *context, std::function<void()> work);

// A number no other registration of this process has: lets a delivery find out whether the
// registration it was posted for still stands.
unsigned long NewRegistrationId();

// Paths as the fake resolves them (paths.cpp), without recording a call.
std::string ResolvePath(const std::string &absolute);

// Each part's return to its initial state, called by Reset.
void ResetApp();
void ResetAppControl();
void ResetEvents();
void ResetGamepads();
void ResetKeyRouter();
void ResetLog();
void ResetNotifications();
void ResetPaths();
void ResetPower();
void ResetSettings();
void ResetSound();
void ResetAudioControl();
void ResetSystemInfo();
void ResetUsb();
void ResetWatchdog();
void ResetZones();

} // namespace nimbos::fake::detail
