// Host paths: HADRIX_ROOT is put in front of every absolute platform path except the kernel's
// own file systems, which device emulation serves in place.
#include "nimbos/paths.h"

#include <cstdlib>
#include <cstring>

namespace {

bool IsKernelPath(const std::string &path)
{
    for (const char *prefix : {"/dev", "/sys", "/proc"}) {
        size_t n = strlen(prefix);
        if (path.compare(0, n, prefix) == 0 && (path.size() == n || path[n] == '/'))
            return true;
    }
    return false;
}

} // namespace

namespace nimbos {

std::string Path(const std::string &absolute)
{
    if (absolute.empty() || absolute[0] != '/' || IsKernelPath(absolute))
        return absolute;
    const char *root = getenv("HADRIX_ROOT");
    if (!root || !*root)
        return absolute;
    std::string prefix(root);
    while (!prefix.empty() && prefix.back() == '/')
        prefix.pop_back();
    return prefix + absolute;
}

std::string DataRoot()
{
    return Path("/home/owner/apps_rw/");
}

} // namespace nimbos

extern "C" char *nimbos_path(const char *absolute)
{
    return strdup(nimbos::Path(absolute ? absolute : "").c_str());
}

extern "C" char *app_get_data_root(void)
{
    return strdup(nimbos::DataRoot().c_str());
}
