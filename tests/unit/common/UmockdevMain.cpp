// main() of a test binary that emulates devices: umockdev's preload shows the code under test
// the testbed's /dev and /sys. Started without it, the binary starts itself again under
// umockdev-wrapper.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
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
