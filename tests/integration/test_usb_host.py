"""USB sound cards through the host platform's USB library: hadrix-probe lists them and follows
hot-plug under umockdev.

A device is a USB sound card that udev marked ready (SOUND_INITIALIZED), described by the USB
interface carrying it and the USB device above; onboard cards are no devices. "added" comes
once per card when it becomes ready, "removed" when a card that was present goes.
"""
import contextlib
import os
import signal
from dataclasses import dataclass

import pytest

from simtv import paths

MARKER_CARD = 9


@dataclass(frozen=True)
class UsbDevice:
    devpath: str
    device_class: int
    number: int
    vendor_id: str
    product_id: str
    product: str
    manufacturer: str
    devname: str

    @classmethod
    def parse(cls, fields):
        devpath, device_class, number, vendor_id, product_id, product, manufacturer, devname = fields
        return cls(devpath, int(device_class), int(number), vendor_id, product_id, product,
                   manufacturer, devname)


def devpath(headset):
    """The kernel device path of a headset's card (its /sys path without "/sys")."""
    return headset.card_path[len('/sys'):]


@pytest.fixture
def usb_list(probe):
    """Runs usb-list; returns the devices in list order."""
    def run():
        result = probe('usb-list')
        assert result.returncode == 0, result.stderr
        return [UsbDevice.parse(line.split('\t')) for line in result.stdout.splitlines()]
    return run


class Monitor:
    """hadrix-probe usb-monitor: one output line per hot-plug callback."""

    def __init__(self, process, testbed):
        self.process = process
        self.testbed = testbed

    def wait_for(self, action, headset, timeout=5.0, since=0):
        record = self.process.wait_for_output(f'{action}\t{devpath(headset)}\t', timeout, since)
        return UsbDevice.parse(record.text.split('\t')[1:])

    @contextlib.contextmanager
    def paused(self):
        """Stops the monitor for the block: uevents sent meanwhile wait until it goes on."""
        os.kill(self.process.pid, signal.SIGSTOP)
        try:
            yield
        finally:
            os.kill(self.process.pid, signal.SIGCONT)

    def settled_events(self):
        """Every (action, device) heard so far, once all earlier uevents are handled: a marker
        card plugged and unplugged now is heard after all of them, and is left out."""
        mark = self.process.out.mark()
        marker = self.testbed.add_headset(card=MARKER_CARD, port='2-1', devnum=9)
        self.testbed.remove(marker)
        self.wait_for('removed', marker, since=mark)
        events = []
        for line in self.process.out.lines():
            action, *fields = line.split('\t')
            if action in ('added', 'removed') and fields[0] != devpath(marker):
                events.append((action, UsbDevice.parse(fields)))
        return events


@pytest.fixture
def monitor(launcher, testbed):
    """Starts usb-monitor and waits until it listens; at the end it must stop cleanly on
    SIGTERM."""
    started = []

    def start():
        process = launcher.start(paths.program('hadrix-probe'), ['usb-monitor', 50],
                                 label='usb-monitor')
        started.append(process)
        process.wait_for_output('ready')
        return Monitor(process, testbed)
    yield start
    for process in started:
        assert process.stop() == 0, process.log.dump()


def test_list_describes_each_usb_card_by_its_card_interface_and_usb_device(testbed, usb_list):
    headset = testbed.add_headset(card=1, vid='0b0e', pid='245e', product='Evolve 20',
                                  manufacturer='Jabra', port='1-1', devnum=4)
    # A webcam's microphone is a USB sound card like any other; telling cameras apart is the
    # service's business.
    webcam = testbed.add_headset(card=2, vid='046d', pid='0825', product='Webcam C270',
                                 manufacturer='Logitech', port='1-2', devnum=7, card_id='U0x46d0x825')

    assert usb_list() == [
        UsbDevice(devpath(headset), 1, 4, '0b0e', '245e', 'Evolve 20', 'Jabra',
                  '/dev/bus/usb/001/004'),
        UsbDevice(devpath(webcam), 1, 7, '046d', '0825', 'Webcam C270', 'Logitech',
                  '/dev/bus/usb/001/007'),
    ]
    assert devpath(headset) == '/devices/platform/soc/xhci-hcd.0/usb1/1-1/1-1:1.0/sound/card1'


def test_list_leaves_out_onboard_cards_and_cards_not_ready(testbed, usb_list):
    testbed.add_onboard_card(card=0)
    pending = testbed.add_headset(card=1, port='1-1', devnum=2, initialized=False)
    ready = testbed.add_headset(card=2, port='1-2', devnum=3)

    assert [device.devpath for device in usb_list()] == [devpath(ready)]

    testbed.initialize(pending)

    assert [device.devpath for device in usb_list()] == [devpath(pending), devpath(ready)]


def test_hotplugged_headset_is_added_and_removed_once_each(testbed, monitor):
    watch = monitor()

    headset = testbed.add_headset(card=1, vid='1395', pid='0025', product='PC 8 USB',
                                  manufacturer='Sennheiser', port='1-3', devnum=5)
    described = UsbDevice(devpath(headset), 1, 5, '1395', '0025', 'PC 8 USB', 'Sennheiser',
                          '/dev/bus/usb/001/005')
    assert watch.wait_for('added', headset) == described

    # The whole device is gone before the monitor hears of it: the removal still describes the
    # card as it was.
    with watch.paused():
        testbed.remove(headset)
    assert watch.wait_for('removed', headset) == described
    assert watch.settled_events() == [('added', described), ('removed', described)]


def test_card_is_added_once_when_it_becomes_ready(testbed, monitor):
    watch = monitor()

    headset = testbed.add_headset(card=1, initialized=False)
    assert watch.settled_events() == []

    testbed.initialize(headset)
    watch.wait_for('added', headset)
    testbed.initialize(headset)  # a later change of a card already announced
    testbed.remove(headset)
    watch.wait_for('removed', headset)

    assert [(action, device.devpath) for action, device in watch.settled_events()] == [
        ('added', devpath(headset)), ('removed', devpath(headset))]


def test_card_that_never_became_ready_goes_unannounced(testbed, monitor):
    watch = monitor()

    headset = testbed.add_headset(card=1, initialized=False)
    testbed.remove(headset)

    assert watch.settled_events() == []


def test_card_present_at_start_is_only_reported_when_removed(testbed, monitor, usb_list):
    headset = testbed.add_headset(card=1, devnum=6)
    watch = monitor()

    testbed.remove(headset)

    assert watch.settled_events() == [('removed', UsbDevice(
        devpath(headset), 1, 6, '0b0e', '245e', 'USB Headset', 'ACME', '/dev/bus/usb/001/006'))]


def test_hotplugged_onboard_card_is_ignored(testbed, monitor):
    watch = monitor()

    testbed.add_onboard_card(card=0)

    assert watch.settled_events() == []


def test_twin_port_headsets_are_announced_each_with_its_card(testbed, monitor):
    watch = monitor()

    testbed.add_hub(port='1-1', devnum=2)
    first = testbed.add_headset(card=1, port='1-1.1', devnum=3)
    second = testbed.add_headset(card=2, port='1-1.2', devnum=4)
    watch.wait_for('added', second)
    testbed.remove(first)

    assert [(action, device.devpath, device.number)
            for action, device in watch.settled_events()] == [
        ('added', devpath(first), 3), ('added', devpath(second), 4),
        ('removed', devpath(first), 3)]
