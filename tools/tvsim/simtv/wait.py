"""Waiting for conditions, always with a deadline."""
import time


class WaitTimeout(AssertionError):
    pass


class Deadline:
    def __init__(self, timeout):
        self.end = time.monotonic() + timeout

    def remaining(self):
        return max(0.0, self.end - time.monotonic())

    def expired(self):
        return time.monotonic() >= self.end


def wait_until(predicate, timeout=5.0, interval=0.02, what=None):
    """Polls predicate until it returns a true value, which is returned.

    Raises WaitTimeout naming `what` (or the predicate) when the deadline passes first.
    """
    deadline = Deadline(timeout)
    while True:
        value = predicate()
        if value:
            return value
        if deadline.expired():
            raise WaitTimeout(f'timed out after {timeout:g} s waiting for {what or predicate}')
        time.sleep(min(interval, deadline.remaining()))
