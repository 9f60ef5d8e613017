"""The service's long timers, on a clock 100 times faster: the ten-minute quit, the checks for
headsets expected back after a restart in USB audio mode, and the bounded wait for the audio
server."""
import json

import pytest

from simtv.devices import CATALOGUE, plug
from simtv.wait import WaitTimeout

USB_AUDIO_MODE = '/home/owner/apps_rw/hadrix/data/USB_AUDIO_mode'
DEPOT = '/home/owner/apps_rw/hadrix/data/devices.depot'
USB_HEADSET_ROUTE = 15


@pytest.fixture
def fast_tv(fast_clock, platform_services, kernel_log, testbed, bus_signals, daemon, hadrix_root):
    kernel_log.boot()

    def start(**options):
        platform_services(**options)
        service = daemon.start()
        service.wait_for_log('m_DeviceInit out', timeout=10)
        return service
    return start


def remember_headset(root):
    """A depot as the last run left it, holding the catalogue's headset."""
    device = CATALOGUE['headset']
    vendor, product = device.numbers()
    root.write(DEPOT, json.dumps([{
        'product_name': device.product, 'vendor_id': vendor, 'product_id': product,
        'dev_path': f'/devices/platform/soc/xhci-hcd.0/usb1/{device.port}/{device.port}:1.0/sound/card{device.card}',
        'manufature': device.manufacturer, 'card_num': device.card, 'status': 1, 'time_stamp': '5000'}]))


@pytest.mark.timeout(90)
def test_a_new_headset_cancels_the_quit_and_the_service_quits_ten_minutes_after_the_last(fast_tv, testbed,
                                                                                         kernel_log, bus_signals):
    service = fast_tv(cards=[1, 2])
    first = plug(testbed, 'headset', kernel_log, 120.0)
    bus_signals.wait_for('Start')
    testbed.remove(first)
    service.wait_for_log('enable 10mins quit service timer.')
    second = plug(testbed, 'headset2', kernel_log, 130.0)
    service.wait_for_log('Ondetect info end', count=3)
    # 600 s of service time are 6 s here: well past the first timer's end, the service still runs.
    with pytest.raises(WaitTimeout):
        service.wait(timeout=9)

    mark = service.log.mark()
    testbed.remove(second)
    service.wait_for_log('enable 10mins quit service timer.', since=mark)
    assert service.wait(timeout=30) == 0
    assert service.log.find('10mins quit service timeout, byebye'), 'quit by its timer'
    assert service.log.find('service_app_terminate')


@pytest.mark.parametrize('seen_at, left, checks', [
    (3.5, 'wait fail. exit usb mode.', 6),  # seen early in the boot: expected back
    (None, 'set delay to leave USBMode timer.', 0),
    (100.0, 'Leave USBMode.', 0),  # seen long after boot: not one coming back by itself
], ids=['expected', 'nothing-expected', 'seen-long-after-boot'])
def test_usb_audio_mode_is_left_after_the_checks_for_expected_headsets(fast_tv, hadrix_root, kernel_log,
                                                                       bus_signals, seen_at, left, checks):
    hadrix_root.write(USB_AUDIO_MODE, '')
    if seen_at:
        remember_headset(hadrix_root)
        kernel_log.detect('1-1', at=seen_at)
    service = fast_tv(route=USB_HEADSET_ROUTE)
    service.wait_for_log(left, timeout=20)
    assert bus_signals.wait_for('SpkDisconnected', timeout=10)[0].args == (15, 'HADRIX_DEVICE')
    assert [r.message for r in service.log.records() if r.message.startswith('check times')] == [
        f'check times  {n}' for n in range(1, checks + 1)]
    assert bool(service.log.find('start 5s periodic timer to check if usb was unplugged')) == (checks > 0)


def test_start_is_sent_even_when_the_audio_server_is_absent(fast_tv, testbed, kernel_log,
                                                           bus_signals):
    service = fast_tv(audio_server=False)
    plug(testbed, 'headset', kernel_log, 120.0)
    service.wait_for_log('Card 1 seems not ready...', timeout=30)
    assert bus_signals.wait_for('Start')[0].args == (1,)
