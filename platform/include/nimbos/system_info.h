/* System information: the device's model and its feature keys. */
#pragma once

#include <stdbool.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef enum {
    SYSTEM_INFO_ERROR_NONE = 0,
    SYSTEM_INFO_ERROR_INVALID_PARAMETER = -22,
    SYSTEM_INFO_ERROR_IO_ERROR = -5,
} system_info_error_e;

typedef enum {
    SYSTEM_INFO_KEY_MODEL = 0, /* the model string */
} system_info_key_e;

/* Every query reads the system information anew; a missing file or key, or a value that is not a
 * boolean for the bool query, gives SYSTEM_INFO_ERROR_IO_ERROR. */

/* Newly allocated string the caller frees. */
int system_info_get_value_string(system_info_key_e key, char **value);
/* Feature keys by their full names, for example "com.corvel/featureconf/product.device_sid". */
int system_info_get_feature_string(const char *key, char **value);
int system_info_get_feature_bool(const char *key, bool *value);

#ifdef __cplusplus
}
#endif
