"""The API client applications use: the liveness check, subscriptions remembered across
restarts, the USB audio device list and the broadcast when the device situation changes."""
import dbus
import pytest

from conftest import LEVEL_KEY, SUBSCRIBER_FILE
from simtv.client_api import SERVER_IFACE, SIGNAL_PATH, records
from simtv.observer import SignalObserver


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
    assert refused.value.get_dbus_name() == 'org.freedesktop.DBus.Error.InvalidArgs'
    assert not tv.root.exists(SUBSCRIBER_FILE)


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
