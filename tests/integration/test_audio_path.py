"""From a plugged USB headset to the TV sound in it, and back: the real daemon against the
platform's services (mocks), USB devices (umockdev) and the kernel log (the klogctl shim)."""
import json

import pytest

from conftest import AT_BOOT, DEPOT, KPI_FILE, LATER, USB_AUDIO_MODE, USB_HEADSET_ROUTE
from simtv.client_api import records
from simtv.devices import CATALOGUE, plug

INIT_DONE = 'm_DeviceInit out'
NO_BOOT_DEVICES = 'No devices found.'


def kpi_events(tv):
    """(event, the product it names) of each KPI event so far."""
    events = [json.loads(line) for line in tv.root.read(KPI_FILE).splitlines()]
    return [(e['event'], e.get('product_name', e.get('first_name'))) for e in events]


def devices(tv):
    return records(bytes(tv.call('GetDeviceListInfo', 'i', 0)))


def test_fresh_plug_takes_the_output_and_unplug_gives_it_back(tv):
    tv.start(INIT_DONE, NO_BOOT_DEVICES, cards=[1, 2])
    tv.plug('headset')
    tv.services.sound.wait_for_calls('SetSpeakerSelection')
    assert tv.speaker_selections() == [USB_HEADSET_ROUTE]
    # The plug starts the card; the route's change then unmutes the headset, which starts it
    # again and marks it in use.
    assert [s.args for s in tv.signals.wait_for('Start', count=2)] == [(1,), (1,)]
    tv.daemon.wait_until(lambda: tv.root.exists(USB_AUDIO_MODE), what='USB audio mode marker')
    tv.daemon.wait_until(lambda: len(kpi_events(tv)) == 2, what='the unmute reported')
    assert kpi_events(tv) == [('new_connected_device', 'Evolve 20'), ('connect_status', 'Evolve 20')]
    assert tv.services.pulse.calls('GetConnectedUsbHeadset'), 'waited for the card to be listed'

    # A second headset while the route is the USB headset already: started once, and idle until
    # the output is next handed out.
    tv.plug('headset2', at=LATER + 30)
    assert [s.args for s in tv.signals.wait_for('Start', count=3)][2] == (2,)
    assert [(r['product'], r['status']) for r in devices(tv)] == [
        ('Evolve 20 (USB)', 'connected'), ('H390 USB Headset (USB)', 'disconnected')]
    tv.unplug('headset2', at=LATER + 50)

    tv.unplug('headset', at=LATER + 60)
    assert tv.signals.wait_for('Stop')[0].args == (1,)
    assert tv.signals.wait_for('SpkDisconnected')[0].args == (15, 'HADRIX_DEVICE')
    tv.daemon.wait_for_log('enable 10mins quit service timer.')


@pytest.mark.parametrize('usb_audio_mode, logged', [
    (False, 'Not switch to usb speaker...'),
    (True, 'switch to usb speaker as it is usb audio mode...')])
def test_headset_present_at_boot_takes_the_output_only_in_usb_audio_mode(tv, usb_audio_mode,
                                                                         logged):
    tv.start(INIT_DONE, 'save cardNum', logged, boot=['headset'], usb_audio_mode=usb_audio_mode)
    if usb_audio_mode:
        tv.services.sound.wait_for_calls('SetSpeakerSelection')
        assert tv.speaker_selections() == [USB_HEADSET_ROUTE]
        assert tv.signals.wait_for('Start')[0].args == (1,)
    else:
        assert tv.speaker_selections() == [] and tv.signals.signals('Start') == []
        assert not tv.root.exists(USB_AUDIO_MODE)


def test_usb_audio_mode_makes_any_plug_take_the_output(tv):
    tv.start(INIT_DONE, NO_BOOT_DEVICES, usb_audio_mode=True)
    # Stamped as if found at boot: only the persisted mode makes it take the output.
    tv.plug('headset', at=AT_BOOT)
    assert tv.signals.wait_for('Start')[0].args == (1,)


@pytest.mark.parametrize('name, logged', [('webcam', 'camera device'),
                                          ('vendor-audio', 'Not audio deveice')])
def test_webcams_and_other_devices_are_ignored(tv, name, logged):
    tv.start(INIT_DONE, NO_BOOT_DEVICES, cards=[CATALOGUE[name].card])
    mark = tv.daemon.log.mark()
    plug(tv.bed, name, tv.log, LATER)
    tv.daemon.wait_for_log(logged, since=mark, timeout=10)
    assert tv.speaker_selections() == [] and tv.signals.signals('Start') == []


def test_astro_headset_never_enters_the_device_list(tv):
    tv.start(INIT_DONE, NO_BOOT_DEVICES, cards=[5])
    tv.plug('astro')
    tv.daemon.wait_for_log('Astro device')
    # Any other device is saved to the depot half a second after it was added.
    tv.plug('headset')
    tv.daemon.wait_until(lambda: tv.root.exists(DEPOT), what='the depot written')
    saved = tv.root.read(DEPOT)
    assert 'Evolve 20' in saved and 'Astro' not in saved


@pytest.mark.parametrize('low_power', [2, 4])
def test_low_power_mutes_and_resume_enumerates_again(tv, low_power):
    tv.start(INIT_DONE, NO_BOOT_DEVICES)
    tv.plug('headset')
    tv.signals.wait_for('Start')
    mark = tv.daemon.log.mark()
    tv.services.change_power(1)
    tv.daemon.wait_for_log('power on pre state : 0, cur state: 1', since=mark)
    assert tv.signals.signals('Stop') == [], 'a normal power state only is recorded'

    tv.services.change_power(low_power)
    assert tv.signals.wait_for('Stop')[0].args == (1,)
    tv.services.change_power(0)
    tv.daemon.wait_for_log('launch delay timer')
    # A hot-plug while the resume is pending is dropped: the re-enumeration will find it.
    mark = tv.daemon.log.mark()
    plug(tv.bed, 'headset2', tv.log, LATER + 10)
    tv.daemon.wait_for_log('delay to check usb device timer exist', since=mark)
    tv.daemon.wait_for_log('begin to intit device file', timeout=10)
    tv.daemon.wait_for_log('get usb audio devices count:2', since=mark, timeout=10)


def test_another_route_mutes_and_the_usb_route_unmutes(tv):
    tv.start(INIT_DONE, NO_BOOT_DEVICES)
    tv.plug('headset')
    tv.signals.wait_for('Start')
    tv.services.user_sets_route(7)
    assert tv.signals.wait_for('Stop')[0].args == (1,)
    tv.daemon.wait_until(lambda: not tv.root.exists(USB_AUDIO_MODE), what='mode left')
    tv.services.user_sets_route(USB_HEADSET_ROUTE)
    tv.signals.wait_for('Start', count=2)
    tv.daemon.wait_until(lambda: tv.root.exists(USB_AUDIO_MODE), what='mode entered')
