// main() of a unit-test binary that emulates devices (sound cards, joysticks): it runs under
// umockdev's preload. Without a testbed the preload passes every call through.
#include <gtest/gtest.h>

#include "UnderUmockdev.h"

int main(int argc, char **argv)
{
    if (!hadrix::test::RunUnderUmockdev(argc, argv))
        return 1;
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
