/* Key router: grabbing keys of the remote control so that they reach this process.
 * A window stages keys (reset, add) and then grabs or releases the staged set. The process
 * receives the events of grabbed keys as key events (events.h) once it is connected
 * (keyrouter_connect). Calls block at most 1000 ms and return 0 (KEYROUTER_ERROR_NONE) or a
 * negative keyrouter_error_e. */
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

typedef enum {
    KEYROUTER_ERROR_NONE = 0,
    KEYROUTER_ERROR_NO_ROUTER = -2,           /* the key router is not running */
    KEYROUTER_ERROR_IO_ERROR = -5,            /* the key router refused the call */
    KEYROUTER_ERROR_NO_SEAT = -19,            /* key events of the router cannot be received */
    KEYROUTER_ERROR_INVALID_PARAMETER = -22,
    KEYROUTER_ERROR_NO_DISPLAY = -107,        /* the connection that carries the router cannot be opened */
    KEYROUTER_ERROR_TIMED_OUT = -110,         /* no answer within 1000 ms */
} keyrouter_error_e;

/* Special key mode that lets a grabbed key through while the picture is off. */
typedef enum {
    CAPI_WINDOW_TV_KEY_BY_PASS_PICTURE_OFF = 6,
} capi_window_tv_special_key_mode_e;

/* Connects the process to the key router in three steps, stopping at the first that fails:
 * opens the connection that carries it (KEYROUTER_ERROR_NO_DISPLAY), finds the router on it
 * (KEYROUTER_ERROR_NO_ROUTER) and subscribes to its key events (KEYROUTER_ERROR_NO_SEAT), which
 * from then on reach the key event handlers on the default main context. Call it on a thread
 * that has not made another main context its thread-default one (the main thread does): the
 * events arrive on the calling thread's thread-default context. Connecting again while
 * connected returns 0 and changes nothing. */
int keyrouter_connect(void);
/* Stops receiving key events and closes the connection. */
void keyrouter_disconnect(void);

/* window names the grabbing window; 0 is the calling process, which has no window of its own.
 * key names are key symbol names such as "XF86AudioMute". These calls work with or without
 * keyrouter_connect. */

/* Clears the window's staged key list. */
int capi_window_tv_reset_key_grab_config(int window);
/* Stages key for the window with grab mode mode (the router's grab mode, passed through). */
int capi_window_tv_add_key(int window, const char *key, int mode);
/* Grabs the staged keys, replacing the window's previous grab. While a grabbed key is held the
 * router repeats its key-down event. */
int capi_window_tv_set_grabbed_keys(int window);
/* Releases the staged keys. */
int capi_window_tv_unset_grabbed_keys(int window);
/* Puts key of the window into a special mode (capi_window_tv_special_key_mode_e). */
int capi_window_tv_set_special_key_mode(int window, int mode, const char *key);

#ifdef __cplusplus
}
#endif
