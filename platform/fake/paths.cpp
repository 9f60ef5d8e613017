// Fake paths: the root a test chose (SetRoot, or HADRIX_ROOT as it was at the last Reset) in front
// of absolute paths, with the host's rules.
#include "nimbos/paths.h"

#include "FakeCore.h"

#include <cstdlib>
#include <cstring>
#include <mutex>

namespace {

struct Root {
    std::mutex lock;
    std::string dir;
    std::string deviceDir; // where /dev lives in-process; "" for the system's
};

Root &TheRoot()
{
    static Root *root = new Root{{}, getenv("HADRIX_ROOT") ? getenv("HADRIX_ROOT") : "", {}};
    return *root;
}

std::string CurrentRoot()
{
    Root &root = TheRoot();
    std::lock_guard<std::mutex> lock(root.lock);
    return root.dir;
}

std::string CurrentDeviceRoot()
{
    Root &root = TheRoot();
    std::lock_guard<std::mutex> lock(root.lock);
    return root.deviceDir;
}

std::string WithoutTrailingSlashes(std::string dir)
{
    while (!dir.empty() && dir.back() == '/')
        dir.pop_back();
    return dir;
}

bool IsDevicePath(const std::string &path)
{
    return path.compare(0, 4, "/dev") == 0 && (path.size() == 4 || path[4] == '/');
}

bool IsKernelPath(const std::string &path)
{
    for (const char *prefix : {"/dev", "/sys", "/proc"}) {
        const size_t n = strlen(prefix);
        if (path.compare(0, n, prefix) == 0 && (path.size() == n || path[n] == '/'))
            return true;
    }
    return false;
}

const char kDataRoot[] = "/home/owner/apps_rw/";

} // namespace

namespace nimbos {

namespace fake {

void SetRoot(const std::string &dir)
{
    Root &root = TheRoot();
    std::lock_guard<std::mutex> lock(root.lock);
    root.dir = dir;
}

void SetDeviceRoot(const std::string &dir)
{
    Root &root = TheRoot();
    std::lock_guard<std::mutex> lock(root.lock);
    root.deviceDir = dir;
}

namespace detail {

std::string ResolvePath(const std::string &absolute)
{
    if (IsDevicePath(absolute) && !CurrentDeviceRoot().empty())
        return WithoutTrailingSlashes(CurrentDeviceRoot()) + absolute;
    if (absolute.empty() || absolute[0] != '/' || IsKernelPath(absolute))
        return absolute;
    return WithoutTrailingSlashes(CurrentRoot()) + absolute;
}

void ResetPaths()
{
    const char *root = getenv("HADRIX_ROOT");
    SetRoot(root ? root : "");
    SetDeviceRoot("");
}

} // namespace detail

} // namespace fake

using fake::detail::Enter;
using fake::detail::Record;
using fake::detail::ResolvePath;
using fake::detail::Text;

std::string Path(const std::string &absolute)
{
    Record("nimbos::Path", {absolute});
    return ResolvePath(absolute);
}

std::string DataRoot()
{
    Record("nimbos::DataRoot", {});
    return ResolvePath(kDataRoot);
}

} // namespace nimbos

extern "C" char *nimbos_path(const char *absolute)
{
    if (nimbos::Enter(__func__, {nimbos::Text(absolute)}))
        return nullptr;
    return strdup(nimbos::ResolvePath(absolute ? absolute : "").c_str());
}

extern "C" char *app_get_data_root(void)
{
    if (nimbos::Enter(__func__, {}))
        return nullptr;
    return strdup(nimbos::ResolvePath(kDataRoot).c_str());
}
