"""Gamepads whose audio function shows as a USB sound card: the service leaves that card alone,
whether it learns of the gamepad from the system's input devices, from the gamepad library's
list or from its table of known gamepads. The real daemon with USB and input devices in a
umockdev testbed."""
import json

import pytest

USB_HEADSET_ROUTE = 15
USB_AUDIO_MODE = '/home/owner/apps_rw/hadrix/data/USB_AUDIO_mode'
KPI_FILE = '/var/log/hadrix/kpi.jsonl'
LATER = 120.0
AT_BOOT = 3.5
# An 8BitDo pad: not in the service's table of known gamepads.
PAD = dict(vendor='2dc8', product='3106', name='8BitDo Pro 2')
PAD_CARD = dict(card=7, vid='2dc8', pid='3106', product='8BitDo Pro 2 Audio', manufacturer='8BitDo',
                port='1-7', devnum=9)
REGISTERED = 'register gamepad cb : 1'


def message_is(text):
    return lambda record: record.message == text


@pytest.fixture
def tv(platform_services, kernel_log, testbed, bus_signals, daemon, hadrix_root):
    kernel_log.boot()

    class TV:
        bed = testbed
        root = hadrix_root
        signals = bus_signals

        def start(self, wait_for_boot_passes=True):
            self.services = platform_services(cards=[1, 7])
            self.daemon = daemon.start()
            if wait_for_boot_passes:
                self.daemon.wait_for_log('No devices found.', timeout=25)
            return self.daemon

        def plug_card(self, **card):
            """A USB sound card plugged by the viewer; returns once the service handled it."""
            mark = self.daemon.log.mark()
            kernel_log.detect(card['port'], LATER, card['vid'], card['pid'], card['product'])
            headset = testbed.add_headset(**card)
            self.daemon.wait_for_log('Ondetect info end', since=mark, timeout=10)
            return headset, mark

        def kpi_warnings(self):
            if not self.root.exists(KPI_FILE):
                return []
            events = [json.loads(line) for line in self.root.read(KPI_FILE).splitlines()]
            return [event for event in events if event.get('event') == 'warning']

        def speaker_selections(self):
            return [args[0] for _, args in self.services.sound.calls('SetSpeakerSelection')]

        def assert_output_untouched(self):
            assert self.speaker_selections() == []
            assert self.signals.signals('Start') == []
            assert not self.root.exists(USB_AUDIO_MODE)

    return TV()


def assert_left_alone_as_gamepad(tv, mark, product):
    tv.daemon.wait_for_log(message_is('gamepad'), since=mark)
    warnings = tv.kpi_warnings()
    assert [(w['warning_code'], w['product_name']) for w in warnings] == [(1, product)], warnings
    tv.assert_output_untouched()


def test_card_of_a_gamepad_listed_at_registration_is_left_alone(tv):
    tv.bed.add_joystick(**PAD)
    tv.start()
    tv.daemon.wait_for_log(REGISTERED, timeout=15)
    tv.daemon.wait_for_log('0 gamepad device name : 8BitDo_Pro_2, uid : VID_2DC8 PID_3106')
    tv.daemon.wait_for_log('vid :2DC8, 11720, pid :3106, 12550')

    _, mark = tv.plug_card(**PAD_CARD)
    tv.daemon.wait_for_log('device exist in the gamepad list with the same pid&vid', since=mark)
    assert_left_alone_as_gamepad(tv, mark, PAD_CARD['product'])


def test_gamepad_connected_later_is_followed_until_it_goes(tv):
    tv.start()
    tv.daemon.wait_for_log(REGISTERED, timeout=15)
    mark = tv.daemon.log.mark()
    joystick = tv.bed.add_joystick(**PAD)
    tv.daemon.wait_for_log('vid :2DC8, 11720, pid :3106, 12550', since=mark)

    card, mark = tv.plug_card(**PAD_CARD)
    tv.daemon.wait_for_log('device exist in the gamepad list with the same pid&vid', since=mark)
    assert_left_alone_as_gamepad(tv, mark, PAD_CARD['product'])

    # Unplugged, the gamepad leaves the library's list and the input devices; the same ids are
    # then a headset's. (The input device sits below the card's USB device: it goes first.)
    mark = tv.daemon.log.mark()
    tv.bed.remove(joystick)
    tv.daemon.wait_for_log('vid :2DC8, 11720, pid :3106, 12550', since=mark)
    tv.bed.remove(card)
    tv.daemon.wait_for_log('Ondetect info end', since=mark)
    _, mark = tv.plug_card(**PAD_CARD)
    assert tv.signals.wait_for('Start')[0].args == (PAD_CARD['card'],)
    assert tv.speaker_selections() == [USB_HEADSET_ROUTE]
    assert not tv.daemon.log.find(message_is('gamepad'), since=mark)


def test_card_of_a_joystick_found_at_boot_is_skipped(tv):
    # In USB audio mode a headset found at boot would take the output at once.
    tv.root.write(USB_AUDIO_MODE, '')
    tv.bed.add_joystick(**PAD)
    tv.bed.add_headset(**PAD_CARD)
    tv.start()
    tv.daemon.wait_for_log('same vid & pid, return true')
    tv.daemon.wait_for_log('boot audio usb devices 0')
    assert tv.speaker_selections() == []
    assert tv.signals.signals('Start') == []


def test_known_gamepad_is_recognised_without_its_input_device(tv):
    tv.start()
    _, mark = tv.plug_card(card=7, vid='054c', pid='09cc', product='Wireless Controller',
                           manufacturer='Sony Interactive Entertainment', port='1-7', devnum=9)
    tv.daemon.wait_for_log('device exist in knownlist', since=mark)
    assert_left_alone_as_gamepad(tv, mark, 'Wireless Controller')


def test_headset_with_ids_no_gamepad_has_takes_the_output(tv):
    tv.bed.add_joystick(**PAD)
    tv.start()
    tv.daemon.wait_for_log(REGISTERED, timeout=15)
    _, mark = tv.plug_card(card=1, vid='0b0e', pid='0300', product='Evolve 20', manufacturer='Jabra',
                           port='1-1', devnum=3)
    assert tv.signals.wait_for('Start')[0].args == (1,)
    assert tv.kpi_warnings() == []
    assert not tv.daemon.log.find(message_is('gamepad'), since=mark)


def test_manager_rebuilt_after_standby_registers_again_and_lists_the_gamepad(tv):
    tv.bed.add_joystick(**PAD)
    tv.start()
    tv.daemon.wait_for_log(REGISTERED, timeout=15)
    mark = tv.daemon.log.mark()
    tv.services.change_power(4)
    tv.services.change_power(0)
    tv.daemon.wait_for_log('begin to intit device file', since=mark, timeout=10)
    # The new manager asks the gamepad library a second after its enumeration.
    tv.daemon.wait_for_log(REGISTERED, since=mark, timeout=20)
    tv.daemon.wait_for_log('0 gamepad device name : 8BitDo_Pro_2, uid : VID_2DC8 PID_3106',
                           since=mark)

    _, mark = tv.plug_card(**PAD_CARD)
    tv.daemon.wait_for_log('device exist in the gamepad list with the same pid&vid', since=mark)
    tv.assert_output_untouched()
