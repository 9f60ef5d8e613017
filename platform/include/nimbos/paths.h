/* Where the platform's absolute paths live on this system. */
#pragma once

#ifdef __cplusplus
#include <string>
extern "C" {
#endif

/* The place of an absolute platform path ("/tmp/x", "/home/owner/...") on this system, as a
 * newly allocated string the caller frees. Paths under /dev, /sys and /proc are returned as they
 * are; every other absolute path gets the installation root in front. Relative paths are
 * returned unchanged. */
char *nimbos_path(const char *absolute);

/* The application-data root ("/home/owner/apps_rw/" on the platform), resolved as above and
 * ending in '/'; newly allocated, the caller frees. */
char *app_get_data_root(void);

#ifdef __cplusplus
}

namespace nimbos {
/* C++ form of nimbos_path. */
std::string Path(const std::string &absolute);
/* C++ form of app_get_data_root. */
std::string DataRoot();
} // namespace nimbos
#endif
