"""Signals the service broadcasts on the test's bus, as a peer listening for them would see them.

The observer has a connection of its own (GIO, on a GLib main loop in a thread of its own), so
it records while the test blocks on other things, and it sees only what reached the bus.
"""
import threading
import time

from gi.repository import Gio, GLib

from .wait import wait_until

HADRIX_SIGNAL_PATH = '/org/nimbos/hadrix'
HADRIX_SIGNAL_IFACE = 'org.nimbos.hadrix'
SPEAKER_MANAGER_PATH = '/Org/Nimbos/SpeakerManager'
SPEAKER_MANAGER_IFACE = 'org.nimbos.speakermanager'

# (interface, member, object path or None for any path)
WATCHED = (
    (HADRIX_SIGNAL_IFACE, 'Start', None),
    (HADRIX_SIGNAL_IFACE, 'Stop', None),
    (SPEAKER_MANAGER_IFACE, 'SpkDisconnected', SPEAKER_MANAGER_PATH),
)


class Signal:
    """One signal received: member, args (a tuple of plain values), monotonic arrival time,
    and where it was sent from."""

    def __init__(self, member, args, time_, path, interface, sender):
        self.member = member
        self.args = args
        self.time = time_
        self.path = path
        self.interface = interface
        self.sender = sender

    def __repr__(self):
        return f'{self.member}{self.args} on {self.path} ({self.interface}) at {self.time:.3f}'


class SignalObserver:
    """Records the watched signals in the order they arrive; ready once the bus routes them to
    it, so nothing sent after the constructor returns is missed."""

    def __init__(self, address, watched=WATCHED, timeout=10.0):
        self._address = address
        self._watched = watched
        self._signals = []
        self._lock = threading.Lock()
        self._context = GLib.MainContext.new()
        self._loop = GLib.MainLoop.new(self._context, False)
        self._ready = threading.Event()
        self._error = None
        self._connection = None
        self._thread = threading.Thread(target=self._run, name='signal-observer', daemon=True)
        self._thread.start()
        if not self._ready.wait(timeout):
            raise AssertionError(f'the signal observer did not subscribe within {timeout:g} s')
        if self._error:
            raise AssertionError(f'the signal observer could not subscribe: {self._error}')

    def _run(self):
        self._context.push_thread_default()
        try:
            self._subscribe()
        except GLib.Error as exc:
            self._error = exc.message
        self._ready.set()
        if not self._error:
            self._loop.run()
        if self._connection:
            self._connection.close_sync(None)
        self._context.pop_thread_default()

    def _subscribe(self):
        flags = (Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT
                 | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION)
        self._connection = Gio.DBusConnection.new_for_address_sync(self._address, flags, None,
                                                                   None)
        for interface, member, path in self._watched:
            self._connection.signal_subscribe(None, interface, member, path, None,
                                              Gio.DBusSignalFlags.NONE, self._on_signal, None)
        # The bus handles a connection's messages in order: once this reply is here, the match
        # rules sent before it are in place.
        self._connection.call_sync('org.freedesktop.DBus', '/org/freedesktop/DBus',
                                   'org.freedesktop.DBus', 'GetId', None, None,
                                   Gio.DBusCallFlags.NONE, 5000, None)

    def _on_signal(self, _connection, sender, path, interface, member, parameters, _data):
        record = Signal(member, tuple(parameters.unpack()), time.monotonic(), path, interface,
                        sender)
        with self._lock:
            self._signals.append(record)

    def signals(self, member=None):
        """The signals received so far (of `member` only, if given), in arrival order."""
        with self._lock:
            return [s for s in self._signals if member is None or s.member == member]

    def wait_for(self, member, count=1, timeout=5.0):
        """Waits until `count` signals `member` have arrived; returns all of them received so
        far, in arrival order."""
        return wait_until(lambda: len(self.signals(member)) >= count and self.signals(member),
                          timeout, what=f'{count} {member} signal(s) on the bus')

    def report(self):
        received = self.signals()
        text = '\n'.join(repr(s) for s in received) if received else '(none)'
        return [('signals observed', text)]

    def stop(self):
        # Quit from inside the loop: a quit that came before the loop ran would be lost.
        source = GLib.idle_source_new()
        source.set_callback(lambda *_: self._loop.quit())
        source.attach(self._context)
        self._thread.join(5.0)
