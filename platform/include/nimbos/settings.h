/* Settings store: typed values under slash-separated key names.
 * "db/..." keys persist across restarts, "memory/..." keys live until the machine restarts; a key
 * name that starts with neither is refused by every call. A string value is one line (a value
 * holding a newline is refused) and a double is finite.
 * All calls return 0 on success and -1 on failure unless stated otherwise. */
#pragma once

#include <stdbool.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef enum {
    VCONF_TYPE_NONE = 0,
    VCONF_TYPE_STRING = 40,
    VCONF_TYPE_INT = 41,
    VCONF_TYPE_DOUBLE = 42,
    VCONF_TYPE_BOOL = 43,
} vconf_t;

/* The key and its value at the time a change callback runs. Valid only during the callback. */
typedef struct _keynode_t keynode_t;

typedef void (*vconf_callback_fn)(keynode_t *node, void *user_data);

int vconf_get_int(const char *key, int *value);
int vconf_get_bool(const char *key, int *value);
int vconf_get_dbl(const char *key, double *value);
/* Newly allocated string the caller frees, or NULL on failure. */
char *vconf_get_str(const char *key);

int vconf_set_int(const char *key, int value);
int vconf_set_bool(const char *key, int value);
int vconf_set_dbl(const char *key, double value);
int vconf_set_str(const char *key, const char *value);
/* Removes the key; removing a missing key fails. */
int vconf_unset(const char *key);

/* Calls cb on the calling thread's main context after every completed write of key, by any
 * process, this one included; never during the write itself. The node holds the key as it is when
 * cb runs. Removing a key is not a write and is not announced, but a callback that runs after a
 * removal finds the key removed. One registration per (key, cb) pair; registering it again
 * replaces its user data. */
int vconf_notify_key_changed(const char *key, vconf_callback_fn cb, void *user_data);
/* Removes the registration of (key, cb). */
int vconf_ignore_key_changed(const char *key, vconf_callback_fn cb);

const char *vconf_keynode_get_name(keynode_t *node);
/* VCONF_TYPE_NONE when the key was removed. */
int vconf_keynode_get_type(keynode_t *node);
int vconf_keynode_get_int(keynode_t *node);
int vconf_keynode_get_bool(keynode_t *node);
double vconf_keynode_get_dbl(keynode_t *node);
/* Owned by the node; NULL unless the value is a string. */
const char *vconf_keynode_get_str(keynode_t *node);

#ifdef __cplusplus
}
#endif
