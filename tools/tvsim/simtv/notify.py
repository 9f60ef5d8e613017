"""The receiving end of the service manager's notify protocol (NOTIFY_SOCKET)."""
import socket
import threading
import time

from .wait import wait_until


class NotifySocket:
    """A bound unix datagram socket; each message is kept with its monotonic arrival time."""

    def __init__(self, path):
        self.path = path
        self._sock = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._sock.bind(str(path))
        self._sock.settimeout(0.1)
        self._messages = []
        self._lock = threading.Lock()
        self._running = True
        self._thread = threading.Thread(target=self._receive, name='notify-socket', daemon=True)
        self._thread.start()

    def _receive(self):
        while self._running:
            try:
                data = self._sock.recv(4096)
            except socket.timeout:
                continue
            except OSError:
                return
            with self._lock:
                self._messages.append((time.monotonic(), data.decode('utf-8', errors='replace')))

    def messages(self):
        """[(arrival, text)] in arrival order."""
        with self._lock:
            return list(self._messages)

    def assignments(self, assignment):
        """Arrival times of the messages carrying `assignment` (e.g. "WATCHDOG=1") on a line."""
        return [arrival for arrival, text in self.messages() if assignment in text.split('\n')]

    def wait_for(self, assignment, count=1, timeout=5.0):
        return wait_until(lambda: len(self.assignments(assignment)) >= count and
                          self.assignments(assignment), timeout,
                          what=f'{count} notify message(s) with {assignment}')

    def close(self):
        self._running = False
        self._thread.join(1.0)
        self._sock.close()
