#include "UnderUmockdev.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace hadrix::test {

namespace {

// The preload comes before AddressSanitizer's runtime in the process (harmless here), which the
// runtime refuses at start unless told not to check: the binary also runs at build time (test
// discovery), where no one has set that option.
void AllowThePreloadFirst()
{
    const char *options = getenv("ASAN_OPTIONS");
    std::string allowed = options && *options ? std::string(options) + ":" : std::string();
    setenv("ASAN_OPTIONS", (allowed + "verify_asan_link_order=0").c_str(), 1);
}

} // namespace

bool RunUnderUmockdev(int argc, char **argv)
{
    const char *preload = getenv("LD_PRELOAD");
    if (preload && strstr(preload, "libumockdev-preload"))
        return true;
    AllowThePreloadFirst();
    std::vector<char *> wrapped{const_cast<char *>("umockdev-wrapper")};
    wrapped.insert(wrapped.end(), argv, argv + argc);
    wrapped.push_back(nullptr);
    execvp(wrapped[0], wrapped.data());
    perror("umockdev-wrapper");
    return false;
}

} // namespace hadrix::test
