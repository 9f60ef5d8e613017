// paths.h: where absolute platform paths live.
#include "ContractTest.h"

#include "nimbos/paths.h"

#include <glib.h>

namespace contract {
namespace {

using PathsContract = ContractTest;

std::string CPath(const char *absolute)
{
    g_autofree char *place = nimbos_path(absolute);
    return place ? place : "(null)";
}

std::string CDataRoot()
{
    g_autofree char *place = app_get_data_root();
    return place ? place : "(null)";
}

TEST_F(PathsContract, AbsolutePathsGetTheRootInFrontExceptTheKernelsOwn)
{
    driver.SetRoot("/srv/root");
    const std::pair<const char *, const char *> cases[] = {
        {"/tmp/hadrix.running", "/srv/root/tmp/hadrix.running"},
        {"/dev/snd/controlC1", "/dev/snd/controlC1"},
        {"/dev", "/dev"},
        {"/sys/class/sound", "/sys/class/sound"},
        {"/proc/uptime", "/proc/uptime"},
        {"/devices/x", "/srv/root/devices/x"},
        {"/system", "/srv/root/system"},
        {"relative/file", "relative/file"},
        {"", ""},
    };
    for (const auto &[absolute, expected] : cases) {
        EXPECT_EQ(CPath(absolute), expected) << absolute;
        EXPECT_EQ(nimbos::Path(absolute), expected) << absolute;
    }
    EXPECT_EQ(CDataRoot(), "/srv/root/home/owner/apps_rw/");
    EXPECT_EQ(nimbos::DataRoot(), "/srv/root/home/owner/apps_rw/");
}

TEST_F(PathsContract, WithoutARootPathsAreTheirOwnPlace)
{
    driver.SetRoot("");
    EXPECT_EQ(CPath("/tmp/hadrix.running"), "/tmp/hadrix.running");
    EXPECT_EQ(nimbos::DataRoot(), "/home/owner/apps_rw/");
}

} // namespace
} // namespace contract
