// The service's life: the start-up order of its managers, the lifecycle callbacks handed to the
// service-application loop, the deadlock watchdog's heartbeat and the menu language.
#pragma once

// A mark in the platform's boot trace (a no-op where the platform has none).
void PutBootTraceMark(const char *text);

// Starts the service and runs its loop until it ends; returns the loop's result (0 after a
// terminate request or the idle quit, negative when the system bus was lost), or the start-up's
// early exit status.
int RunService(int argc, char *argv[]);
