"""Helpers of the integration tests: processes, logs, bus, mocks, files, waits."""
