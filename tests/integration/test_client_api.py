"""The API client applications use: the liveness check, subscriptions remembered across
restarts (and bounded against hostile callers), the USB audio device list and the broadcast when
the device situation changes."""
import json
import os
import subprocess

import dbus
import pytest

from conftest import LEVEL_KEY, SUBSCRIBER_FILE
from simtv.client_api import SERVER_IFACE, SERVER_NAME, SERVER_PATH, SIGNAL_PATH, records
from simtv.observer import SignalObserver

INVALID_ARGS = 'org.freedesktop.DBus.Error.InvalidArgs'
LIMITS_EXCEEDED = 'org.freedesktop.DBus.Error.LimitsExceeded'
MAX_SUBSCRIBERS = 127


def subscribe(tv, name, method='SubscribeHadrixServiceCallback'):
    return str(tv.call(method, 's', name))


def subscribers(tv):
    return tv.root.read(SUBSCRIBER_FILE)


def devices(tv):
    return bytes(tv.call('GetDeviceListInfo', 'i', 0))


def test_connection_check_and_empty_list_store_nothing_and_white_space_is_refused(tv):
    tv.start()
    assert str(tv.call('check_dbus_connection', 's', 'org.example.player')) == \
        'objorg.example.player'
    assert str(tv.call('check_dbus_connection', 's', 'p' * 300)) == 'obj' + 'p' * 252
    # 255 bytes would end inside a two-byte character: the whole character is left out.
    assert str(tv.call('check_dbus_connection', 's', 'x' + '\u00e9' * 150)) == \
        'objx' + '\u00e9' * 125
    assert devices(tv) == b''
    tv.daemon.wait_for_log('NetDeviceSize[0]')
    with pytest.raises(dbus.DBusException) as refused:
        subscribe(tv, 'two words')
    assert refused.value.get_dbus_name() == INVALID_ARGS
    assert not tv.root.exists(SUBSCRIBER_FILE)


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


def test_subscriptions_are_one_line_per_process_and_survive_a_restart(tv):
    tv.start()
    for name in ('org.example.b', 'org.example.a', 'org.example.a'):
        assert subscribe(tv, name) == 'obj' + name
    tv.daemon.wait_for_log('create hadrix/data/.subscriber successfully')
    both = 'org.example.a objorg.example.a\norg.example.b objorg.example.b\n'
    assert subscribers(tv) == both
    # An unknown process: a normal reply, the file rewritten unchanged.
    assert subscribe(tv, 'org.example.nobody', 'UnSubscribeHadrixServiceCallback') == \
        'objorg.example.nobody'
    assert subscribers(tv) == both

    assert tv.daemon.stop() == 0
    tv.start('procName[org.example.a], connectionObj[objorg.example.a]')
    assert subscribe(tv, 'org.example.b', 'UnSubscribeHadrixServiceCallback') == \
        'objorg.example.b'
    assert subscribers(tv) == 'org.example.a objorg.example.a\n'


def test_stored_subscribers_keep_their_first_entry_and_a_lone_word_is_ignored(tv):
    tv.root.write(SUBSCRIBER_FILE, 'app.x objOld\napp.x objOther\napp.y objy\nlonely\n')
    tv.start()
    assert subscribe(tv, 'app.z') == 'objapp.z'
    assert subscribers(tv) == 'app.x objOld\napp.y objy\napp.z objapp.z\n'
    # Subscribing again with the name the service forms replaces the stored object name.
    subscribe(tv, 'app.x')
    assert subscribers(tv) == 'app.x objapp.x\napp.y objy\napp.z objapp.z\n'


def test_device_list_holds_the_two_in_use_and_every_change_tells_the_clients(tv, request):
    signals = SignalObserver(tv.bus.address, watched=(
        (SERVER_IFACE, 'Notify_client_message', None), (SERVER_IFACE, 'send_message', None)))
    request.addfinalizer(signals.stop)
    tv.root.set_setting(LEVEL_KEY, 23)
    tv.start('switch to usb speaker as it is usb audio mode...', boot=['headset'],
             usb_audio_mode=True, cards=[1, 2, 3])
    # The line comes just before the headset is marked in use.
    tv.daemon.wait_until(lambda: any(r['selected'] for r in records(devices(tv))),
                         what='the headset in use in the client list')
    assert records(devices(tv)) == [{'selected': 1, 'type': 'USB Headphone',
                                     'status': 'connected', 'volume': 23,
                                     'product': 'Evolve 20 (USB)', 'manufacturer': 'Jabra'}]
    assert signals.wait_for('Notify_client_message')[0].args == ({123: 321},)
    assert signals.wait_for('send_message')[0].args == (10,)

    tv.plug('headset2')
    tv.plug('headset3')
    data = devices(tv)
    assert len(data) == 654
    # Two headsets carry the sound, the oldest; the third, idle one is left out although the
    # list has room. The second was started when plugged, and given the free place (started
    # again) when the third came.
    assert [s.args[0] for s in tv.signals.wait_for('Start', count=3)] == [1, 2, 2]
    assert [(r['product'], r['manufacturer'], r['selected'], r['status'], r['volume'])
            for r in records(data)] == [
        ('Evolve 20 (USB)', 'Jabra', 1, 'connected', 23),
        ('H390 USB Headset (USB)', 'Logitech', 1, 'connected', 23)]
    tv.unplug('headset2')
    signals.wait_for('Notify_client_message', 4)
    assert [s.args for s in signals.wait_for('send_message', 4)] == [(10,)] * 4
    assert all(s.path == SIGNAL_PATH for s in signals.signals())
