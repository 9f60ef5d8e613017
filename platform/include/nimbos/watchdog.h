/* Deadlock watchdog: the process proves it is alive by notifying at least once per period. */
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

/* Registers the process; timeout_s is the period the watchdog allows between notifications.
 * Returns 0 on success, a negative code otherwise. */
int smart_deadlock_register_watchdog_service(int timeout_s);
/* Tells the watchdog the process is alive. */
int smart_deadlock_watchdog_notify(void);

#ifdef __cplusplus
}
#endif
