"""The simulated TV platform the service runs on off the TV: a private system bus with the
platform services as python-dbusmock mocks (tools/tvsim/templates), USB devices and sound cards in a
umockdev testbed, the kernel log through a klogctl shim, a private file-system root, and the
processes, logs and waits to drive it all. Used by tools/tvsim, the integration tests and the
benchmarks."""
