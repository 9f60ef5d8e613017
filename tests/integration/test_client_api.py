"""The API client applications use: the liveness check, subscriptions remembered across
restarts, the USB audio device list and the broadcast when the device situation changes; the real
daemon on the test's bus, with USB devices (umockdev) and the kernel log (the klogctl shim)."""
import os

import dbus
import pytest

from simtv.client_api import SERVER_IFACE, SERVER_NAME, SERVER_PATH, SIGNAL_PATH, records
from simtv.devices import plug
from simtv.observer import SignalObserver

USB_AUDIO_MODE = '/home/owner/apps_rw/hadrix/data/USB_AUDIO_mode'
SUBSCRIBER_FILE = '/home/owner/apps_rw/hadrix/data/.subscriber'
LEVEL_KEY = 'db/hadrix/volume_level'
LATER = 120.0
AT_BOOT = 3.5


@pytest.fixture
def tv(platform_services, kernel_log, testbed, system_bus, daemon, hadrix_root, request):
    """A TV with its platform services up; `start` runs the service and waits for its API."""
    kernel_log.boot()

    class TV:
        root = hadrix_root
        subscriber_file = hadrix_root / SUBSCRIBER_FILE
        services = None
        signals = None

        def observe(self):
            """Records the API's two signals from now on."""
            self.signals = SignalObserver(system_bus.address, watched=(
                (SERVER_IFACE, 'Notify_client_message', None),
                (SERVER_IFACE, 'send_message', None)))
            request.addfinalizer(self.signals.stop)
            return self.signals

        def start(self, headset_at_boot=False):
            """With headset_at_boot, the service starts in USB audio mode with a headset there
            (the quickest way to a headset in use)."""
            if self.services is None:
                self.services = platform_services(cards=[1])
            if headset_at_boot:
                self.root.write(USB_AUDIO_MODE, '')
                self.headset = plug(testbed, 'headset', kernel_log, AT_BOOT)
            self.daemon = daemon.start()
            system_bus.wait_for_name(SERVER_NAME)
            self.connection = system_bus.connect()
            if headset_at_boot:
                self.daemon.wait_for_log('switch to usb speaker as it is usb audio mode...',
                                         timeout=20)
                # The line comes just before the headset is marked in use.
                self.daemon.wait_until(
                    lambda: any(r['selected'] for r in records(self.devices())),
                    what='the headset in use in the client list')
            return self.daemon

        def restart(self):
            assert self.daemon.stop() == 0
            return self.start()

        def call(self, method, signature, *args):
            return self.connection.call_blocking(SERVER_NAME, SERVER_PATH, SERVER_IFACE, method,
                                                 signature, list(args), timeout=5)

        def subscribe(self, name):
            return str(self.call('SubscribeHadrixServiceCallback', 's', name))

        def unsubscribe(self, name):
            return str(self.call('UnSubscribeHadrixServiceCallback', 's', name))

        def devices(self):
            return bytes(self.call('GetDeviceListInfo', 'i', 0))

        def plug(self, name):
            mark = self.daemon.log.mark()
            device = plug(testbed, name, kernel_log, LATER)
            self.daemon.wait_for_log('Ondetect info end', since=mark, timeout=10)
            return device

        def unplug(self, device):
            mark = self.daemon.log.mark()
            testbed.remove(device)
            self.daemon.wait_for_log('Ondetect info end', since=mark, timeout=10)

    return TV()


def test_connection_check_answers_the_client_object_name_and_stores_nothing(tv):
    tv.start()
    assert str(tv.call('check_dbus_connection', 's', 'org.example.player')) == \
        'objorg.example.player'
    long_name = 'p' * 300
    assert str(tv.call('check_dbus_connection', 's', long_name)) == 'obj' + 'p' * 252
    # 255 bytes would end inside a two-byte character: the whole character is left out.
    accented = 'x' + '\u00e9' * 150
    assert str(tv.call('check_dbus_connection', 's', accented)) == 'objx' + '\u00e9' * 125
    assert not tv.subscriber_file.exists()


def test_subscriptions_are_one_line_per_process_and_survive_a_restart(tv):
    tv.start()
    assert tv.subscribe('org.example.b') == 'objorg.example.b'
    assert tv.subscribe('org.example.a') == 'objorg.example.a'
    assert tv.subscribe('org.example.a') == 'objorg.example.a'
    tv.daemon.wait_for_log('create hadrix/data/.subscriber successfully')
    both = 'org.example.a objorg.example.a\norg.example.b objorg.example.b\n'
    assert tv.subscriber_file.read_text() == both
    # An unknown process: a normal reply, the file rewritten unchanged.
    assert tv.unsubscribe('org.example.nobody') == 'objorg.example.nobody'
    assert tv.subscriber_file.read_text() == both

    tv.restart()
    tv.daemon.wait_for_log('procName[org.example.a], connectionObj[objorg.example.a]')
    assert tv.unsubscribe('org.example.b') == 'objorg.example.b'
    assert tv.subscriber_file.read_text() == 'org.example.a objorg.example.a\n'


def test_stored_subscribers_keep_their_first_entry_and_a_lone_word_is_ignored(tv):
    tv.root.write(SUBSCRIBER_FILE, 'app.x objOld\napp.x objOther\napp.y objy\nlonely\n')
    tv.start()
    assert tv.subscribe('app.z') == 'objapp.z'
    assert tv.subscriber_file.read_text() == 'app.x objOld\napp.y objy\napp.z objapp.z\n'
    # Subscribing again with the name the service forms replaces the stored object name.
    tv.subscribe('app.x')
    assert tv.subscriber_file.read_text() == 'app.x objapp.x\napp.y objy\napp.z objapp.z\n'


def test_a_process_name_with_white_space_is_refused(tv):
    tv.start()
    with pytest.raises(dbus.DBusException) as refused:
        tv.subscribe('two words')
    assert refused.value.get_dbus_name() == 'org.freedesktop.DBus.Error.InvalidArgs'
    assert not tv.subscriber_file.exists()


def test_a_symlinked_subscriber_file_is_never_written_through(tv, tmp_path):
    target = tmp_path / 'precious'
    target.write_text('precious\n')
    tv.subscriber_file.parent.mkdir(parents=True, exist_ok=True)
    os.symlink(target, tv.subscriber_file)
    tv.start()
    mark = tv.daemon.log.mark()
    assert tv.subscribe('app.kept') == 'objapp.kept'
    tv.daemon.wait_for_log('symbolic link is detected', since=mark)
    assert target.read_text() == 'precious\n'
    assert tv.subscriber_file.is_symlink()

    # The subscription was still taken: it is written once the link is gone.
    tv.subscriber_file.unlink()
    tv.unsubscribe('app.other')
    assert tv.subscriber_file.read_text() == 'app.kept objapp.kept\n'


def test_device_list_is_empty_without_devices(tv):
    tv.start()
    assert tv.devices() == b''
    tv.daemon.wait_for_log('NetDeviceSize[0]')


def test_device_list_shows_two_devices_with_the_one_in_use_first(tv):
    tv.root.set_setting(LEVEL_KEY, 23)
    tv.start(headset_at_boot=True)
    first = records(tv.devices())
    assert first == [{'selected': 1, 'type': 'USB Headphone', 'status': 'connected',
                      'volume': 23, 'product': 'Evolve 20 (USB)', 'manufacturer': 'Jabra'}]

    tv.plug('headset2')
    tv.plug('headset3')
    data = tv.devices()
    assert len(data) == 654
    # Two headsets carry the sound; the third, idle one is left out although the list has room.
    assert [(r['product'], r['manufacturer'], r['selected'], r['status'], r['volume'])
            for r in records(data)] == [
        ('Evolve 20 (USB)', 'Jabra', 1, 'connected', 23),
        ('H390 USB Headset (USB)', 'Logitech', 1, 'connected', 23)]


def test_boot_enumeration_plug_and_unplug_each_tell_the_clients(tv):
    signals = tv.observe()
    tv.start(headset_at_boot=True)
    notified = signals.wait_for('Notify_client_message')
    assert notified[0].args == ({123: 321},)
    assert notified[0].path == SIGNAL_PATH
    assert signals.wait_for('send_message')[0].args == (10,)

    headset2 = tv.plug('headset2')
    signals.wait_for('Notify_client_message', 2)
    assert [s.args for s in signals.wait_for('send_message', 2)] == [(10,), (10,)]

    tv.unplug(headset2)
    signals.wait_for('Notify_client_message', 3)
    assert [s.args for s in signals.wait_for('send_message', 3)] == [(10,)] * 3
    assert all(s.path == SIGNAL_PATH for s in signals.signals())
