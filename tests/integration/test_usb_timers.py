"""The service's long timers, on a clock 100 times faster: the ten-minute quit, the checks for
headsets expected back after a restart in USB audio mode, and the bounded wait for the audio
server."""
import json

import pytest

from simtv.devices import CATALOGUE, plug

USB_AUDIO_MODE = '/home/owner/apps_rw/hadrix/data/USB_AUDIO_mode'
DEPOT = '/home/owner/apps_rw/hadrix/data/devices.depot'
USB_HEADSET_ROUTE = 15


@pytest.fixture
def fast_tv(fast_clock, platform_services, kernel_log, testbed, bus_signals, daemon, hadrix_root):
    kernel_log.boot()

    def start(**options):
        services = platform_services(**options)
        service = daemon.start()
        service.wait_for_log('m_DeviceInit out', timeout=10)
        return services, service
    return start


def remember_devices(root, *names):
    """A depot as the last run left it, holding the catalogue devices `names`."""
    records = []
    for name in names:
        device = CATALOGUE[name]
        vendor, product = device.numbers()
        records.append({
            'product_name': device.product, 'vendor_id': vendor, 'product_id': product,
            'dev_path': f'/devices/platform/soc/xhci-hcd.0/usb1/{device.port}/'
                        f'{device.port}:1.0/sound/card{device.card}',
            'manufature': device.manufacturer, 'card_num': device.card, 'status': 1,
            'time_stamp': '5000'})
    root.write(DEPOT, json.dumps(records))


def test_service_quits_ten_minutes_after_the_last_headset(fast_tv, testbed, kernel_log,
                                                           bus_signals):
    services, service = fast_tv(cards=[1])
    headset = plug(testbed, 'headset', kernel_log, 120.0)
    bus_signals.wait_for('Start')
    mark = service.log.mark()
    testbed.remove(headset)
    service.wait_for_log('enable 10mins quit service timer.', since=mark)
    # 600 s of service time are 6 s here.
    assert service.wait(timeout=30) == 0
    assert service.log.find('10mins quit service timeout, byebye'), 'quit by its timer'
    assert service.log.find('service_app_terminate')


def test_a_new_headset_cancels_the_quit(fast_tv, testbed, kernel_log):
    services, service = fast_tv(cards=[1, 2])
    first = plug(testbed, 'headset', kernel_log, 120.0)
    service.wait_for_log('Ondetect info end')
    testbed.remove(first)
    service.wait_for_log('enable 10mins quit service timer.')
    plug(testbed, 'headset2', kernel_log, 130.0)
    service.wait_for_log('Ondetect info end', count=3)
    # Well past the ten minutes the first timer had: the service still runs.
    with pytest.raises(Exception):
        service.wait(timeout=9)
    assert service.running()


def test_usb_audio_mode_waits_six_checks_for_expected_headsets(fast_tv, hadrix_root, kernel_log,
                                                              bus_signals):
    hadrix_root.write(USB_AUDIO_MODE, '')
    remember_devices(hadrix_root, 'headset')
    # The driver saw the remembered headset's port early in the boot: it is expected back.
    kernel_log.detect('1-1', at=3.5)
    services, service = fast_tv(route=USB_HEADSET_ROUTE)
    service.wait_for_log('start 5s periodic timer to check if usb was unplugged')
    service.wait_for_log('wait fail. exit usb mode.', timeout=20)
    checks = [record.message for record in service.log.records()
              if record.message.startswith('check times')]
    assert checks == [f'check times  {n}' for n in range(1, 7)]
    assert bus_signals.wait_for('SpkDisconnected')[0].args == (15, 'HADRIX_DEVICE')


def test_usb_audio_mode_left_15_seconds_later_when_nothing_is_expected(fast_tv, hadrix_root,
                                                                       bus_signals):
    hadrix_root.write(USB_AUDIO_MODE, '')
    services, service = fast_tv(route=USB_HEADSET_ROUTE)
    service.wait_for_log('set delay to leave USBMode timer.')
    assert bus_signals.wait_for('SpkDisconnected', timeout=10)[0].args == (15, 'HADRIX_DEVICE')
    assert not service.log.find('start 5s periodic timer')


def test_usb_audio_mode_left_at_once_for_a_headset_seen_but_not_coming_back(fast_tv, hadrix_root,
                                                                             kernel_log,
                                                                             bus_signals):
    hadrix_root.write(USB_AUDIO_MODE, '')
    remember_devices(hadrix_root, 'headset')
    # Seen by the driver, but long after boot: it is not one coming back by itself.
    kernel_log.detect('1-1', at=100.0)
    services, service = fast_tv(route=USB_HEADSET_ROUTE)
    service.wait_for_log('Leave USBMode.')
    assert bus_signals.wait_for('SpkDisconnected')[0].args == (15, 'HADRIX_DEVICE')


def test_start_is_sent_even_when_the_audio_server_is_absent(fast_tv, testbed, kernel_log,
                                                           bus_signals):
    services, service = fast_tv(audio_server=False)
    plug(testbed, 'headset', kernel_log, 120.0)
    service.wait_for_log('Card 1 seems not ready...', timeout=30)
    assert bus_signals.wait_for('Start')[0].args == (1,)
