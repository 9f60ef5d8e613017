// Test binaries that emulate devices run under umockdev's preload, which shows the code under test
// a testbed's /dev and /sys.
#pragma once

namespace hadrix::test {

// Returns when the process runs under the preload; otherwise starts the binary again under
// umockdev-wrapper with the same arguments, and returns only if that fails (false).
bool RunUnderUmockdev(int argc, char **argv);

} // namespace hadrix::test
