// core_tests runs under umockdev's preload, so that libudev shows the service the input devices
// a test puts in a testbed (the gamepads' joysticks); started without it, the binary starts itself
// again under umockdev-wrapper. Without a testbed the preload passes every call through.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

// The preload comes before AddressSanitizer's runtime in the process (harmless here), which the
// runtime refuses at start unless told not to check: the binary is run at build time as well
// (test discovery), where no one has set that option.
void AllowThePreloadFirst()
{
    const char *options = getenv("ASAN_OPTIONS");
    std::string allowed = options && *options ? std::string(options) + ":" : std::string();
    setenv("ASAN_OPTIONS", (allowed + "verify_asan_link_order=0").c_str(), 1);
}

} // namespace

int main(int argc, char **argv)
{
    const char *preload = getenv("LD_PRELOAD");
    if (!preload || !strstr(preload, "libumockdev-preload")) {
        AllowThePreloadFirst();
        std::vector<char *> wrapped{const_cast<char *>("umockdev-wrapper")};
        wrapped.insert(wrapped.end(), argv, argv + argc);
        wrapped.push_back(nullptr);
        execvp(wrapped[0], wrapped.data());
        perror("umockdev-wrapper");
        return 1;
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
