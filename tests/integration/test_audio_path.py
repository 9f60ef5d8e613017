"""From a plugged USB headset to the TV sound in it, and back, end to end: the real daemon against
the platform's services (mocks), USB devices (umockdev) and the kernel log (the klogctl shim).
Which device takes the sound when, and which is left alone, is proven in-process
(tests/unit/core/)."""
import json

from conftest import KPI_FILE, LATER, USB_AUDIO_MODE, USB_HEADSET_ROUTE
from simtv.client_api import records

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
