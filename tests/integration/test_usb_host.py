"""The host platform's USB library (through hadrix-probe) under umockdev: a device is a USB sound
card udev marked ready (SOUND_INITIALIZED), described by its card interface and the USB device
above; onboard cards are none. "added" comes once per card when it becomes ready, "removed" when
a card that was present goes."""
import os
import signal

from simtv import paths


def devpath(headset):
    return headset.card_path[len('/sys'):]


def described(headset, number, vid='0b0e', pid='245e', product='USB Headset', manufacturer='ACME'):
    """The fields the library reports for a headset: devpath, class, number, ids, names, devname."""
    return (devpath(headset), 1, number, vid, pid, product, manufacturer, f'/dev/bus/usb/001/{number:03d}')


def parse(fields):
    path, device_class, number, *rest = fields
    return (path, int(device_class), int(number), *rest)


def usb_list(probe):
    result = probe('usb-list')
    assert result.returncode == 0, result.stderr
    return [parse(line.split('\t')) for line in result.stdout.splitlines()]


class Monitor:
    """hadrix-probe usb-monitor: one output line per hot-plug callback."""

    def __init__(self, process, testbed):
        self.process = process
        self.testbed = testbed

    def wait_for(self, action, headset, since=0):
        self.process.wait_for_output(f'{action}\t{devpath(headset)}\t', 5.0, since)

    def settled_events(self):
        """Every (action, fields) heard, once all earlier uevents are handled: a marker card
        plugged and unplugged now is heard after them all, and is left out."""
        mark = self.process.out.mark()
        marker = self.testbed.add_headset(card=9, port='2-1', devnum=9)
        self.testbed.remove(marker)
        self.wait_for('removed', marker, since=mark)
        events = [line.split('\t') for line in self.process.out.lines() if line != 'ready']
        return [(action, parse(fields)) for action, *fields in events if fields[0] != devpath(marker)]


def test_list_holds_ready_usb_cards_described_by_interface_and_device(testbed, probe):
    testbed.add_onboard_card(card=0)
    pending = testbed.add_headset(card=1, port='1-1', devnum=2, initialized=False)
    # A webcam's microphone is a USB sound card like any other; telling cameras apart is the
    # service's business.
    webcam = testbed.add_headset(card=2, vid='046d', pid='0825', product='Webcam C270', manufacturer='Logitech',
                                 port='1-2', devnum=7, card_id='U0x46d0x825')
    webcam_fields = described(webcam, 7, '046d', '0825', 'Webcam C270', 'Logitech')
    assert devpath(webcam) == '/devices/platform/soc/xhci-hcd.0/usb1/1-2/1-2:1.0/sound/card2'

    assert usb_list(probe) == [webcam_fields]
    testbed.initialize(pending)
    assert usb_list(probe) == [described(pending, 2), webcam_fields]


def test_monitor_announces_each_ready_card_once_with_its_device_also_once_gone(testbed, launcher):
    present = testbed.add_headset(card=3, port='1-3', devnum=6)
    process = launcher.start(paths.program('hadrix-probe'), ['usb-monitor', 50], label='usb-monitor')
    process.wait_for_output('ready')
    watch = Monitor(process, testbed)

    testbed.add_onboard_card(card=0)
    never_ready = testbed.add_headset(card=2, port='1-2', devnum=3, initialized=False)
    testbed.remove(never_ready)
    pending = testbed.add_headset(card=1, initialized=False)
    assert watch.settled_events() == []
    testbed.initialize(pending)
    watch.wait_for('added', pending)
    testbed.initialize(pending)  # a later change of a card already announced

    testbed.add_hub(port='1-4', devnum=4)
    first = testbed.add_headset(card=4, vid='1395', pid='0025', product='PC 8 USB', manufacturer='Sennheiser',
                                port='1-4.1', devnum=5)
    second = testbed.add_headset(card=5, port='1-4.2', devnum=7)
    watch.wait_for('added', second)
    # The whole device is gone before the monitor hears of it: the removal still describes the
    # card as it was.
    os.kill(process.pid, signal.SIGSTOP)
    testbed.remove(first)
    os.kill(process.pid, signal.SIGCONT)
    testbed.remove(present)
    testbed.remove(pending)

    first_fields = described(first, 5, '1395', '0025', 'PC 8 USB', 'Sennheiser')
    assert watch.settled_events() == [
        ('added', described(pending, 2)), ('added', first_fields), ('added', described(second, 7)),
        ('removed', first_fields), ('removed', described(present, 6)), ('removed', described(pending, 2))]
    assert process.stop() == 0, process.log.dump()
