"""Soak: a USB headset plugged and unplugged a thousand times while eight client applications
read the device list without pause. The service must take up every plug, answer every client,
end with an empty device list and keep its memory flat.

HADRIX_SOAK_CYCLES shortens the run for a quick local check (CI runs the full count).
"""
import json
import os
import time

import pytest

from simtv import paths
from simtv.alsa_card import EmulatedCard, stereo_headset
from simtv.api_poller import ApiPollers
from simtv.client_api import SERVER_IFACE, SERVER_NAME, SERVER_PATH
from simtv.devices import CATALOGUE, plug
from simtv.observer import SignalObserver

CYCLES = int(os.environ.get('HADRIX_SOAK_CYCLES', '1000'))
# Long enough for the allocator, the bus connections and the thread stacks to settle: measured,
# the resident memory still rises by some 150 KiB over cycles 100 to 300, then stays within a
# few dozen KiB.
WARM_UP = max(1, min(300, CYCLES * 3 // 10))
POLLERS = 8
POLL_INTERVAL_MS = 10
# The kernel's log ring on the TV: older lines scroll out, as they do there.
KERNEL_RING_BYTES = 128 * 1024
# The service's own reaction to one plug or unplug, on a machine shared with other work.
REACTION_TIMEOUT = 15.0
# What "flat" allows between the end of the warm-up and the end: allocator noise (a few pages of
# fragmentation), not growth with the number of cycles. A leak of 1 KiB per cycle would add
# about 700 KiB over the measured cycles of a full run.
RSS_TOLERANCE_KIB = 512
# A worker thread's or a save's descriptor may be open at the moment of a sample.
FD_TOLERANCE = 2
USB_AUDIO_MODE = '/home/owner/apps_rw/hadrix/data/USB_AUDIO_mode'
AT_BOOT = 3.5
DEPOT = '/home/owner/apps_rw/hadrix/data/devices.depot'
HEADSET = CATALOGUE['headset']


class Soak:
    """The service, started at boot in USB audio mode with the headset there; `cycle()` plugs
    and unplugs the headset once and waits for the broadcast each change causes, which clients
    see."""

    def __init__(self, testbed, kernel_log, daemon, system_bus, hadrix_root):
        self.testbed = testbed
        self.kernel_log = kernel_log
        self.notified = SignalObserver(system_bus.address, watched=(
            (SERVER_IFACE, 'Notify_client_message', None),))
        self.changes = 0
        hadrix_root.write(USB_AUDIO_MODE, '')
        headset = plug(testbed, 'headset', kernel_log, AT_BOOT)
        # The headset's mixer, set to its maximum at every plug. (Without one, ALSA's card lookup
        # falls back to /dev/aloadC<N>, and umockdev's preload keeps a socket for every such
        # failed open: the service would abort after some fifty plugs, for the emulation's sake.)
        self.card = EmulatedCard(HEADSET.card, stereo_headset())
        testbed.attach_ioctl(headset.control, self.card)
        self.hadrix = daemon.start()
        # The start-up enumeration found it (its broadcast); then it goes, and the cycles begin.
        self._changed(timeout=30)
        self.at = 120.0
        self._unplug(headset)

    def _changed(self, timeout=REACTION_TIMEOUT):
        self.changes += 1
        self.notified.wait_for('Notify_client_message', self.changes, timeout=timeout)

    def _unplug(self, headset):
        self.kernel_log.disconnect(HEADSET.port, self.at + 0.5)
        self.testbed.remove(headset)
        self._changed()
        self.at += 1.0

    def usage(self):
        """(resident memory in KiB, open file descriptors) of the service now."""
        return self.hadrix.rss_kib(), len(os.listdir(f'/proc/{self.hadrix.pid}/fd'))

    def cycle(self):
        headset = plug(self.testbed, 'headset', self.kernel_log, self.at)
        self._changed()
        self._unplug(headset)


@pytest.mark.timeout(300)
def test_thousand_plugs_under_polling_clients_leave_the_service_flat(
        child_env, platform_services, kernel_log, testbed, daemon, system_bus, bus_signals,
        hadrix_root, mocks, request):
    child_env.set('HADRIX_FAKE_KLOG_SIZE', str(KERNEL_RING_BYTES))
    # The clients' thousands of calls would be most of the log; warnings and errors stay.
    child_env.set('HADRIX_LOG_LEVEL', 'warn')
    # Each new worker thread may get an allocator arena of its own (up to eight per core), which
    # steps the resident memory up by a hundred KiB or more at random moments: noise, not growth.
    child_env.set('MALLOC_ARENA_MAX', '2')
    kernel_log.boot()
    platform_services(cards=[HEADSET.card])
    # The volume keys are grabbed and released with every headset.
    mocks.spawn('key_router')
    soak = Soak(testbed, kernel_log, daemon, system_bus, hadrix_root)
    request.addfinalizer(soak.notified.stop)
    pollers = ApiPollers(system_bus.address, POLLERS, POLL_INTERVAL_MS, HEADSET.product,
                         HEADSET.manufacturer)
    request.addfinalizer(pollers.kill)

    started = time.monotonic()
    samples = {}
    for number in range(1, CYCLES + 1):
        soak.cycle()
        if number == WARM_UP or number % 100 == 0:
            samples[number] = soak.usage()
    elapsed = time.monotonic() - started
    summaries = pollers.stop()

    connection = system_bus.connect()

    def call(method, signature, *args):
        return connection.call_blocking(SERVER_NAME, SERVER_PATH, SERVER_IFACE, method,
                                        signature, list(args), timeout=5)

    assert soak.hadrix.running()
    assert str(call('check_dbus_connection', 's', 'org.example.soak')) == 'objorg.example.soak'
    assert bytes(call('GetDeviceListInfo', 'i', 0)) == b''
    soak.hadrix.wait_until(lambda: hadrix_root.exists(DEPOT) and
                           json.loads(hadrix_root.read(DEPOT)) == [],
                           what='the depot saved empty')
    # Every plug took the sound and every unplug gave it back (the boot's headset included).
    assert len(bus_signals.wait_for('Start', CYCLES + 1, timeout=10)) == CYCLES + 1
    assert len(bus_signals.wait_for('Stop', CYCLES + 1, timeout=10)) == CYCLES + 1
    end = soak.usage()

    # Shown with -s (or -rP): the figures of the run.
    print(f'\nsoak: {CYCLES} cycles in {elapsed:.0f} s ({elapsed / CYCLES * 1000:.0f} ms a cycle); '
          f'(RSS KiB, fds) by cycle {samples}, at the end {end}; clients: '
          + '; '.join(f'{s["calls"]} calls {s["records"]} slowest {s["slowest_ms"]:.0f} ms'
                      for s in summaries))
    for summary in summaries:
        assert (summary['error_count'], summary['errors']) == (0, []), summary
        assert (summary['bad_count'], summary['bad']) == (0, []), summary
        # The clients ran throughout: each saw the headset there and gone.
        assert summary['records'].get('0') and summary['records'].get('1'), summary
    warm_rss, warm_fds = samples[WARM_UP]
    # A sanitizer's runtime keeps freed memory in quarantine and grows its shadow memory, so
    # the resident size is its, not the service's; its leak check at exit stands in for this.
    if not paths.sanitizers():
        assert end[0] - warm_rss <= RSS_TOLERANCE_KIB, \
            f'RSS grew from {warm_rss} KiB after {WARM_UP} cycles to {end[0]} KiB: {samples}'
    assert end[1] <= warm_fds + FD_TOLERANCE, \
        f'open descriptors grew from {warm_fds} to {end[1]}: {samples}'
