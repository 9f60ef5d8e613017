/* Power state of the device and its changes.
 * State codes: 0 and 1 are the working states; every code from 2 up is a state in which the
 * device is not working normally, 2 and 4 being the low-power (standby) states. Other meanings
 * are the power service's own. Each call blocks at most 1000 ms. */
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

typedef enum {
    DEVICE_POWER_ERROR_NONE = 0,
    DEVICE_POWER_ERROR_IO_ERROR = -5,           /* the power service failed or is not running */
    DEVICE_POWER_ERROR_INVALID_PARAMETER = -22,
    DEVICE_POWER_ERROR_TIMED_OUT = -110,        /* no answer within 1000 ms */
} device_power_error_e;

/* One change of state; valid only during the callback. */
typedef struct _device_power_state_info {
    int previous;
    int current;
} _device_power_state_info;

typedef void (*device_power_state_changed_cb)(_device_power_state_info *info, void *user_data);

/* The current state code (0 or more), or a negative device_power_error_e. */
int device_power_get_state(void);

/* Calls cb on the thread-default main context of the subscribing thread for every change of
 * state. One subscription per callback; subscribing it again replaces its user data.
 * Unsubscribing a callback that is not subscribed is an invalid parameter.
 * Return 0 or a negative device_power_error_e. */
int device_power_subscribe_state_changed_event(device_power_state_changed_cb cb, void *user_data);
int device_power_unsubscribe_state_changed_event(device_power_state_changed_cb cb);

#ifdef __cplusplus
}
#endif
