"""Soak: a USB headset plugged and unplugged a thousand times (HADRIX_SOAK_CYCLES) while eight
client applications read the device list without pause. The service must take up every plug,
answer every client, end with an empty device list and keep its memory flat; its decision
history keeps the newest 128 records, in a file that does not grow, and a SIGKILL loses none of
what was saved."""
import json
import os
import signal
import time

import pytest

from conftest import DECISIONS, DEPOT
from simtv import paths
from simtv.alsa_card import EmulatedCard, stereo_headset
from simtv.api_poller import ApiPollers
from simtv.client_api import SERVER_IFACE, SERVER_NAME
from simtv.devices import CATALOGUE, plug
from simtv.observer import SignalObserver
from simtv.wait import wait_until

CYCLES = int(os.environ.get('HADRIX_SOAK_CYCLES', '1000'))
DIAGNOSTICS = ('/org/nimbos/hadrix/Diagnostics', 'org.nimbos.hadrix.Diagnostics')
HISTORY_BOUND = 128
# Each cycle decides twice (the plug, the unplug): the history is full from this cycle on (a
# shorter run checks no bound).
HISTORY_FULL_AT = HISTORY_BOUND // 2
# Measured, the resident memory still rises by some 150 KiB over cycles 100 to 300 (allocator,
# bus connections, thread stacks), then stays within a few dozen KiB. The decision history fills
# up in the first HISTORY_FULL_AT cycles.
WARM_UP = max(1, min(300, CYCLES * 3 // 10), min(CYCLES, HISTORY_FULL_AT + 1))
# Allocator noise, not growth: a leak of 1 KiB per cycle adds about 700 KiB over a full run.
RSS_TOLERANCE_KIB = 512
# A worker thread's or a save's descriptor may be open at the moment of a sample.
FD_TOLERANCE = 2
HEADSET = CATALOGUE['headset']
# A record's numbers grow by a digit or two over the run; the file must not grow beyond that.
DECISION_FILE_TOLERANCE = 2048


def open_fds(pid):
    return len(os.listdir(f'/proc/{pid}/fd'))


def history(tv):
    return tv.bus.connect().call_blocking(SERVER_NAME, *DIAGNOSTICS, 'GetHistory', 'u', [0], timeout=5)


def saved_history_size(tv, hadrix):
    """The size of the decision file once it holds the newest decision (saved half a second after
    the last change)."""
    newest = int(history(tv)[-1]['seq'])
    path = tv.root / DECISIONS
    hadrix.wait_until(lambda: path.exists() and json.loads(path.read_text())['last_seq'] == newest,
                      timeout=5, what='the decision history saved')
    return path.stat().st_size


def fewest_open_fds(pid, samples=5, interval=0.2):
    """A worker finishing late on a loaded machine holds a few descriptors for a moment, a leak
    holds them for good."""
    counts = []
    for _ in range(samples):
        counts.append(open_fds(pid))
        time.sleep(interval)
    return min(counts)


@pytest.mark.timeout(300)
def test_thousand_plugs_under_polling_clients_leave_the_service_flat(tv, child_env, mocks,
                                                                     request):
    # The kernel's log ring on the TV: older lines scroll out, as they do there.
    child_env.set('HADRIX_FAKE_KLOG_SIZE', str(128 * 1024))
    # The clients' thousands of calls would be most of the log; warnings and errors stay.
    child_env.set('HADRIX_LOG_LEVEL', 'warn')
    # Each new thread may get an allocator arena of its own, stepping the resident memory up by
    # a hundred KiB or more at random moments.
    child_env.set('MALLOC_ARENA_MAX', '2')
    mocks.spawn('key_router')  # the volume keys are grabbed and released with every headset
    notified = SignalObserver(tv.bus.address,
                              watched=((SERVER_IFACE, 'Notify_client_message', None),))
    request.addfinalizer(notified.stop)
    changes = 0

    def changed():
        """Waits for the broadcast clients see after each change."""
        nonlocal changes
        changes += 1
        notified.wait_for('Notify_client_message', changes, timeout=30 if changes == 1 else 15)

    # The mixer, set to its maximum at every plug (without one, umockdev's preload would keep a
    # socket for each failed open of /dev/aloadC1 and abort the service after some fifty plugs).
    tv.bed.attach_ioctl(f'/dev/snd/controlC{HEADSET.card}', EmulatedCard(HEADSET.card,
                                                                          stereo_headset()))
    hadrix = tv.start(boot=['headset'], usb_audio_mode=True)
    changed()
    pollers = ApiPollers(tv.bus.address, 8, 10, HEADSET.product, HEADSET.manufacturer)
    request.addfinalizer(pollers.kill)
    at, headset, samples, started = 120.0, tv.plugged.pop('headset'), {}, time.monotonic()
    for number in range(CYCLES + 1):
        if number:
            headset = plug(tv.bed, 'headset', tv.log, at)
            changed()
        tv.log.disconnect(HEADSET.port, at + 0.5)
        tv.bed.remove(headset)
        changed()
        at += 1.0
        if number == WARM_UP or number and number % 100 == 0:
            samples[number] = hadrix.rss_kib(), open_fds(hadrix.pid)
        if number == HISTORY_FULL_AT:
            full_file = saved_history_size(tv, hadrix)
    elapsed = time.monotonic() - started
    summaries = pollers.stop()

    assert str(tv.call('check_dbus_connection', 's', 'org.example.soak')) == 'objorg.example.soak'
    assert bytes(tv.call('GetDeviceListInfo', 'i', 0)) == b''
    hadrix.wait_until(lambda: tv.root.exists(DEPOT) and json.loads(tv.root.read(DEPOT)) == [],
                      what='the depot saved empty')
    # Every plug took the sound and every unplug gave it back (the boot's headset included). A
    # plug starts the card twice: when it takes the route, and when the route's change unmutes it.
    assert len(tv.signals.wait_for('Start', 2 * CYCLES + 1, timeout=10)) == 2 * CYCLES + 1
    assert len(tv.signals.wait_for('Stop', CYCLES + 1, timeout=10)) == CYCLES + 1
    end = hadrix.rss_kib(), fewest_open_fds(hadrix.pid)
    print(f'\nsoak: {CYCLES} cycles in {elapsed:.0f} s; (RSS KiB, fds) by cycle {samples}, at '
          f'the end {end}; clients: ' + '; '.join(
              f'{s["calls"]} calls {s["records"]} slowest {s["slowest_ms"]:.0f} ms'
              for s in summaries))
    for summary in summaries:
        assert (summary['error_count'], summary['errors']) == (0, []), summary
        assert (summary['bad_count'], summary['bad']) == (0, []), summary
        # The clients ran throughout: each saw the headset there and gone.
        assert summary['records'].get('0') and summary['records'].get('1'), summary
    warm_rss, warm_fds = samples[WARM_UP]
    # A sanitizer's runtime keeps freed memory in quarantine and grows its shadow memory: its
    # leak check at exit stands in for this.
    if not paths.sanitizers():
        assert end[0] - warm_rss <= RSS_TOLERANCE_KIB, \
            f'RSS grew from {warm_rss} KiB after {WARM_UP} cycles to {end[0]} KiB: {samples}'
    assert end[1] <= warm_fds + FD_TOLERANCE, \
        f'open descriptors grew from {warm_fds} to {end[1]}: {samples}'

    # The newest 128 decisions, the last the final unplug; the file no larger than when it
    # first held 128.
    kept = history(tv)
    seqs = [int(record['seq']) for record in kept]
    assert seqs == list(range(seqs[0], seqs[0] + len(kept)))
    assert (kept[-1]['outcome'], kept[-1]['device']['product']) == ('removed', HEADSET.product)
    end_file = saved_history_size(tv, hadrix)
    if CYCLES >= HISTORY_FULL_AT:
        assert len(kept) == HISTORY_BOUND
        assert end_file <= full_file + DECISION_FILE_TOLERANCE, (full_file, end_file)

    # Killed, the service loses none of what it saved.
    hadrix.send_signal(signal.SIGKILL)
    hadrix.wait()
    wait_until(lambda: not tv.bus.has_owner(SERVER_NAME), what='the killed service off the bus')
    tv.start()
    assert history(tv) == kept
