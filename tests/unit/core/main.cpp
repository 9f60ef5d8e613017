// core_tests runs under umockdev's preload, so that libudev shows the service the input devices
// a test puts in a testbed (the gamepads' joysticks); started without it, the binary starts itself
// again under umockdev-wrapper. Without a testbed the preload passes every call through.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>
#include <vector>

int main(int argc, char **argv)
{
    const char *preload = getenv("LD_PRELOAD");
    if (!preload || !strstr(preload, "libumockdev-preload")) {
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
