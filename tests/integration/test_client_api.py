"""The API client applications use: the liveness check, subscriptions remembered across
restarts (and bounded against hostile callers), the USB audio device list and the broadcast when
the device situation changes."""
import json
import os
import subprocess

import dbus
import pytest

from conftest import SUBSCRIBER_FILE
from simtv import paths
from simtv.client_api import SERVER_IFACE, SERVER_NAME, SERVER_PATH

INVALID_ARGS = 'org.freedesktop.DBus.Error.InvalidArgs'
LIMITS_EXCEEDED = 'org.freedesktop.DBus.Error.LimitsExceeded'
MAX_SUBSCRIBERS = 127


def subscribe(tv, name, method='SubscribeHadrixServiceCallback'):
    return str(tv.call(method, 's', name))


def subscribers(tv):
    return tv.root.read(SUBSCRIBER_FILE)


def devices(tv):
    return bytes(tv.call('GetDeviceListInfo', 'i', 0))


def lines(*names):
    return ''.join(f'{name} obj{name}\n' for name in sorted(names))


def test_a_name_that_would_not_read_back_as_one_word_is_refused_and_stores_nothing(tv):
    tv.start()
    before = ('org.example.a', 'org.example.b', 'org.example.c')
    after = ('org.example.d', 'org.example.e', 'org.example.f')
    for name in before:
        subscribe(tv, name)
    # The reader splits at a vertical tab and a form feed too, and reads words of 255 bytes.
    for name in ('v' * 255 + '\v' + 'tail', 'p' * 300, 'form\ffeed', 'q' * 256):
        with pytest.raises(dbus.DBusException) as refused:
            subscribe(tv, name)
        assert refused.value.get_dbus_name() == INVALID_ARGS
        assert subscribe(tv, name, 'UnSubscribeHadrixServiceCallback') == 'obj' + name[:252]
    for name in after:
        subscribe(tv, name)
    assert subscribers(tv) == lines(*before, *after)

    assert tv.daemon.stop() == 0
    tv.start()
    # Written again from the table read back, with one more.
    subscribe(tv, 'org.example.g')
    assert subscribers(tv) == lines(*before, *after, 'org.example.g')


# A client on a connection of its own: subscribes each name of its standard input (a JSON list)
# and prints how many calls were answered, and which errors came back how often.
SUBSCRIBING_CLIENT = f'''
import collections, json, sys
import dbus
bus = dbus.bus.BusConnection(sys.argv[1])
outcomes = collections.Counter()
for name in json.load(sys.stdin):
    try:
        bus.call_blocking({SERVER_NAME!r}, {SERVER_PATH!r}, {SERVER_IFACE!r},
                          'SubscribeHadrixServiceCallback', 's', [name], timeout=10)
        outcomes['answered'] += 1
    except dbus.DBusException as error:
        outcomes[error.get_dbus_name()] += 1
print(json.dumps(outcomes))
'''


def subscribe_as(user, address, names):
    def drop_privileges():
        os.setgid(user)
        os.setuid(user)
    result = subprocess.run(['/usr/bin/python3', '-c', SUBSCRIBING_CLIENT, address],
                            input=json.dumps(names), preexec_fn=drop_privileges, cwd='/',
                            capture_output=True, text=True, timeout=50)
    assert result.returncode == 0, result.stderr
    return json.loads(result.stdout)


@pytest.mark.service_policy
@pytest.mark.skipif(os.geteuid() != 0, reason='the policy names root: needs root to test')
def test_an_unprivileged_caller_cannot_grow_the_subscriber_table_past_its_bound(
        daemon, system_bus, hadrix_root, testbed, kernel_log):
    kernel_log.boot()
    honest = ('org.example.player', 'org.example.tv', 'org.example.voice')
    hadrix_root.write(SUBSCRIBER_FILE, lines(*honest))
    hadrix = daemon.start()
    hadrix.wait_for_log('No devices found.', timeout=20)
    nobody = 65534
    assert subscribe_as(nobody, system_bus.address, ['org.example.warm-up']) == {'answered': 1}
    start_kib = hadrix.rss_kib()

    # Half of them as long as a name may be, half far longer.
    names = [f'{number:04d}'.ljust(255 if number % 2 else 16 * 1024, 'n') for number in range(1000)]
    outcomes = subscribe_as(nobody, system_bus.address, names)
    # A sanitizer's runtime quarantines freed memory and grows its shadow: the plain build
    # proves the bound, the sanitizer's leak check the rest.
    if not paths.sanitizers():
        assert hadrix.rss_kib() - start_kib < 1024
    assert os.path.getsize(hadrix_root / SUBSCRIBER_FILE) < 64 * 1024
    stored = MAX_SUBSCRIBERS - len(honest) - 1
    assert outcomes == {'answered': stored, LIMITS_EXCEEDED: 500 - stored, INVALID_ARGS: 500}
    # A known process may always subscribe again.
    assert subscribe_as(nobody, system_bus.address, list(honest)) == {'answered': 3}
    saved = hadrix_root.read(SUBSCRIBER_FILE).splitlines(keepends=True)
    assert len(saved) == MAX_SUBSCRIBERS
    assert set(lines(*honest).splitlines(keepends=True)) <= set(saved)
    assert hadrix.stop() == 0

