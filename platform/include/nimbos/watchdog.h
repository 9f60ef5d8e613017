/* Deadlock watchdog: the process proves it is alive by notifying at least once per period. */
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

/* Registers the process; timeout_s is the period the watchdog allows between notifications.
 * The registration takes effect when the default main loop first dispatches (the process counts
 * as ready from then on); registering again keeps the first period. Returns 0 on success, a
 * negative code otherwise. */
int smart_deadlock_register_watchdog_service(int timeout_s);
/* Tells the watchdog the process is alive. Returns 0, or a negative errno when the message could
 * not be delivered. */
int smart_deadlock_watchdog_notify(void);

#ifdef __cplusplus
}
#endif
