/* Gamepads: the ones connected now, and connection events.
 * This library reports success as 1; failures are negative codes. */
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

typedef enum {
    GAMEPAD_EVENT_CONNECTED = 11,
    GAMEPAD_EVENT_DISCONNECTED = 12,
} gamepad_event_e;

/* One gamepad. Both texts are NUL-terminated. */
typedef struct _gamepad_device_info_s {
    char uid[256];   /* "VID_%04X PID_%04X" with the USB vendor and product ids */
    char name[256];  /* the model name */
} _gamepad_device_info_s;

/* event is a gamepad_event_e; info describes the gamepad concerned. */
typedef void (*gamepad_connection_cb)(int event, _gamepad_device_info_s info, void *user_data);

/* Opens the library; must come before the other calls. Returns 1, or a negative code when the
 * system's device database cannot be read. Opening again while open returns 1. */
int gamepad_open(void);

/* Calls cb on the main context of the registering thread whenever a gamepad is connected or
 * disconnected. One callback at a time: registering another replaces it. Returns 1 or a
 * negative code. */
int gamepad_register_connection_callback(gamepad_connection_cb cb, void *user_data);
/* Removes the callback. Returns 1 or a negative code. */
int gamepad_unregister_connection_callback(void);

/* Number of gamepad slots gamepad_get_connected_device_Info can be asked about. */
int gamepad_maximum_gampad_count(void);
/* Fills *info for the gamepad at index (0 to gamepad_maximum_gampad_count() - 1; connected
 * gamepads take the lowest indexes). Returns 1 when a gamepad is at index, 0 when none is,
 * a negative code on failure; *info is written only when 1 is returned. */
int gamepad_get_connected_device_Info(_gamepad_device_info_s *info, int index);

#ifdef __cplusplus
}
#endif
