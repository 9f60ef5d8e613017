/* Service-application loop and application control (launch requests carrying extra data). */
#pragma once

#include <stdbool.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef enum {
    APP_CONTROL_ERROR_NONE = 0,
    APP_CONTROL_ERROR_INVALID_PARAMETER = -22,
    APP_CONTROL_ERROR_OUT_OF_MEMORY = -12,
    APP_CONTROL_ERROR_KEY_NOT_FOUND = -126,
    APP_CONTROL_ERROR_APP_NOT_FOUND = -2,
    APP_CONTROL_ERROR_LAUNCH_FAILED = -5,
} app_control_error_e;

/* The platform's default launch operation. */
#define APP_CONTROL_OPERATION_DEFAULT "default"

typedef struct app_control_s app_control_s;
typedef app_control_s *app_control_h;

int app_control_create(app_control_h *app_control);
int app_control_destroy(app_control_h app_control);
/* The operation is APP_CONTROL_OPERATION_DEFAULT until set; NULL sets it back. Texts (operation,
 * extra data) must be UTF-8. */
int app_control_set_operation(app_control_h app_control, const char *operation);
/* Newly allocated copy the caller frees. */
int app_control_get_operation(app_control_h app_control, char **operation);
/* The app id is the target's D-Bus bus name; anything else is refused. */
int app_control_set_app_id(app_control_h app_control, const char *app_id);
/* Extra data keep the order in which they were added; adding an existing key replaces its value
 * in place. Keys are not empty. */
int app_control_add_extra_data(app_control_h app_control, const char *key, const char *value);
/* Newly allocated copy the caller frees; APP_CONTROL_ERROR_KEY_NOT_FOUND when absent. */
int app_control_get_extra_data(app_control_h app_control, const char *key, char **value);

typedef bool (*app_control_extra_data_cb)(app_control_h app_control, const char *key, void *user_data);
/* Calls cb for each key in order until it returns false. */
int app_control_foreach_extra_data(app_control_h app_control, app_control_extra_data_cb cb, void *user_data);

/* result is the return value of app_control_send_launch_request; reply is an empty handle on
 * success (a launch returns no data) and NULL otherwise, valid during the call only. */
typedef void (*app_control_reply_cb)(app_control_h request, app_control_h reply, int result, void *user_data);
/* Sends the request to the application named by its app id (a D-Bus bus name) and waits at most
 * 1000 ms for it to accept. APP_CONTROL_ERROR_INVALID_PARAMETER without an app id,
 * APP_CONTROL_ERROR_APP_NOT_FOUND when no application owns it, APP_CONTROL_ERROR_LAUNCH_FAILED on
 * any other failure. reply_cb, when not NULL, is called on the calling thread before the return
 * once the request was sent. */
int app_control_send_launch_request(app_control_h app_control, app_control_reply_cb reply_cb, void *user_data);

typedef bool (*service_app_create_cb)(void *user_data);
typedef void (*service_app_terminate_cb)(void *user_data);
typedef void (*service_app_control_cb)(app_control_h app_control, void *user_data);

typedef struct {
    service_app_create_cb create;
    service_app_terminate_cb terminate;
    service_app_control_cb app_control;
} service_app_lifecycle_callback_s;

/* Runs the service's main loop on the default main context: calls create, then dispatches
 * launch requests to app_control until the loop ends (service_app_exit or a terminate request:
 * SIGTERM or SIGINT), then calls terminate and returns 0. The launch requests arrive as Launch
 * calls on the bus name "org.nimbos.hadrix" of the system bus; without a system bus the loop runs
 * all the same and no request arrives. When the system bus connection is lost while the loop
 * runs, the loop ends as well, terminate is called, and -ECONNRESET is returned (a failure, for
 * the service manager to restart the service). When create returns false the loop does not run,
 * terminate is not called, and another negative code is returned. Any callback may be NULL. */
int service_app_main(int argc, char **argv, service_app_lifecycle_callback_s *callback, void *user_data);
/* Ends the loop started by service_app_main. Callable from any thread; a call made before the
 * loop runs (from create, for example) ends the loop as soon as it starts. */
void service_app_exit(void);

#ifdef __cplusplus
}
#endif
