"""Gamepads whose audio function shows as a USB sound card: the service leaves that card alone,
whether it learns of the gamepad from the system's input devices, from the gamepad library's
list or from its table of known gamepads."""
from conftest import LATER, USB_AUDIO_MODE, USB_HEADSET_ROUTE

# An 8BitDo pad: not in the service's table of known gamepads.
PAD = dict(vendor='2dc8', product='3106', name='8BitDo Pro 2')
PAD_CARD = dict(card=7, vid='2dc8', pid='3106', product='8BitDo Pro 2 Audio', manufacturer='8BitDo',
                port='1-7', devnum=9)
REGISTERED = 'register gamepad cb : 1'
LISTED = '0 gamepad device name : 8BitDo_Pro_2, uid : VID_2DC8 PID_3106'
PAD_IDS = 'vid :2DC8, 11720, pid :3106, 12550'
IN_LIST = 'device exist in the gamepad list with the same pid&vid'


def start(tv):
    return tv.start('No devices found.', cards=[1, 7])


def plug_card(tv, **card):
    """A USB sound card plugged by the viewer; returns once the service handled it."""
    mark = tv.daemon.log.mark()
    tv.log.detect(card['port'], LATER, card['vid'], card['pid'], card['product'])
    headset = tv.bed.add_headset(**card)
    tv.daemon.wait_for_log('Ondetect info end', since=mark, timeout=10)
    return headset, mark


def is_gamepad(record):
    return record.message == 'gamepad'


def assert_left_alone_as_gamepad(tv, mark, product, reason):
    tv.daemon.wait_for_log(reason, since=mark)
    tv.daemon.wait_for_log(is_gamepad, since=mark)
    assert tv.kpi_warnings() == [(1, product)]
    assert tv.speaker_selections() == [] and tv.signals.signals('Start') == []
    assert not tv.root.exists(USB_AUDIO_MODE)


def test_gamepad_listed_at_registration_and_again_after_standby_keeps_its_card_alone(tv):
    tv.bed.add_joystick(**PAD)
    start(tv)
    for line in (REGISTERED, LISTED, PAD_IDS):
        tv.daemon.wait_for_log(line, timeout=15)
    mark = tv.daemon.log.mark()
    tv.services.change_power(4)
    tv.services.change_power(0)
    tv.daemon.wait_for_log('begin to intit device file', since=mark, timeout=10)
    # The new manager asks the gamepad library a second after its enumeration.
    tv.daemon.wait_for_log(REGISTERED, since=mark, timeout=20)
    tv.daemon.wait_for_log(LISTED, since=mark)

    _, mark = plug_card(tv, **PAD_CARD)
    assert_left_alone_as_gamepad(tv, mark, PAD_CARD['product'], IN_LIST)
    # A headset with ids no gamepad has takes the output.
    _, mark = plug_card(tv, card=1, vid='0b0e', pid='0300', product='Evolve 20',
                        manufacturer='Jabra', port='1-1', devnum=3)
    assert tv.signals.wait_for('Start')[0].args == (1,)
    assert tv.kpi_warnings() == [(1, PAD_CARD['product'])]
    assert not tv.daemon.log.find(is_gamepad, since=mark)


def test_gamepad_connected_later_is_followed_until_it_goes(tv):
    start(tv)
    tv.daemon.wait_for_log(REGISTERED, timeout=15)
    mark = tv.daemon.log.mark()
    joystick = tv.bed.add_joystick(**PAD)
    tv.daemon.wait_for_log(PAD_IDS, since=mark)
    card, mark = plug_card(tv, **PAD_CARD)
    assert_left_alone_as_gamepad(tv, mark, PAD_CARD['product'], IN_LIST)

    # Unplugged, the gamepad leaves the library's list and the input devices; the same ids are
    # then a headset's. (The input device sits below the card's USB device: it goes first.)
    mark = tv.daemon.log.mark()
    tv.bed.remove(joystick)
    tv.daemon.wait_for_log(PAD_IDS, since=mark)
    tv.bed.remove(card)
    tv.daemon.wait_for_log('Ondetect info end', since=mark)
    _, mark = plug_card(tv, **PAD_CARD)
    assert tv.signals.wait_for('Start')[0].args == (PAD_CARD['card'],)
    assert tv.speaker_selections() == [USB_HEADSET_ROUTE]
    assert not tv.daemon.log.find(is_gamepad, since=mark)


def test_card_of_a_joystick_found_at_boot_is_skipped(tv):
    # In USB audio mode a headset found at boot would take the output at once.
    tv.root.write(USB_AUDIO_MODE, '')
    tv.bed.add_joystick(**PAD)
    tv.bed.add_headset(**PAD_CARD)
    start(tv)
    tv.daemon.wait_for_log('same vid & pid, return true')
    tv.daemon.wait_for_log('boot audio usb devices 0')
    assert tv.speaker_selections() == [] and tv.signals.signals('Start') == []


def test_known_gamepad_is_recognised_without_its_input_device(tv):
    start(tv)
    _, mark = plug_card(tv, card=7, vid='054c', pid='09cc', product='Wireless Controller',
                        manufacturer='Sony Interactive Entertainment', port='1-7', devnum=9)
    assert_left_alone_as_gamepad(tv, mark, 'Wireless Controller', 'device exist in knownlist')
