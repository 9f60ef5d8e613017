"""From a plugged USB headset to the TV sound in it, and back: the real daemon against the
platform's services (mocks), USB devices (umockdev) and the kernel log (the klogctl shim)."""
import pytest

from simtv.devices import CATALOGUE, plug

USB_HEADSET_ROUTE = 15
USB_AUDIO_MODE = '/home/owner/apps_rw/hadrix/data/USB_AUDIO_mode'
INIT_DONE = 'm_DeviceInit out'
NO_BOOT_DEVICES = 'No devices found.'
BOOT_DEVICES_HANDLED = 'save cardNum'
# Seconds after boot of a plug-in by the viewer: well after the USB core came up.
LATER = 120.0
# Seconds after boot of a device the kernel found while booting.
AT_BOOT = 3.5


@pytest.fixture
def tv(platform_services, kernel_log, testbed, bus_signals, daemon, hadrix_root):
    """A TV whose kernel log shows a normal boot, with its platform services up."""
    kernel_log.boot()

    class TV:
        services = None
        signals = bus_signals
        root = hadrix_root
        log = kernel_log
        bed = testbed

        def start(self, boot_devices=False, **options):
            """Starts the service and waits for its start-up enumeration to end: the passes
            looking for devices present at boot go on for up to ten seconds when none is."""
            self.services = platform_services(**options)
            self.daemon = daemon.start()
            self.daemon.wait_for_log(INIT_DONE, timeout=10)
            self.daemon.wait_for_log(BOOT_DEVICES_HANDLED if boot_devices else NO_BOOT_DEVICES,
                                     timeout=20)
            return self.daemon

        def plug(self, name, at=LATER):
            mark = self.daemon.log.mark()
            headset = plug(testbed, name, kernel_log, at)
            self.daemon.wait_for_log('Ondetect info end', since=mark, timeout=10)
            return headset

        def unplug(self, headset, port=None, at=LATER + 60):
            mark = self.daemon.log.mark()
            if port:
                kernel_log.disconnect(port, at)
            testbed.remove(headset)
            self.daemon.wait_for_log('Ondetect info end', since=mark, timeout=10)

        def speaker_selections(self):
            return [args[0] for _, args in self.services.sound.calls('SetSpeakerSelection')]

    return TV()


def test_fresh_plug_takes_the_output_and_unplug_gives_it_back(tv):
    tv.start(cards=[1])
    headset = tv.plug('headset')

    tv.services.sound.wait_for_calls('SetSpeakerSelection')
    assert tv.speaker_selections() == [USB_HEADSET_ROUTE]
    start = tv.signals.wait_for('Start')
    assert start[0].args == (1,)
    # The sound manager announced the route: the mode is persisted and the output unmuted.
    tv.daemon.wait_until(lambda: tv.root.exists(USB_AUDIO_MODE), what='USB audio mode marker')
    tv.daemon.wait_for_log('m_SpeakerChangeCb, route : 15')
    assert tv.services.pulse.calls('GetConnectedUsbHeadset'), 'waited for the card to be listed'

    tv.unplug(headset, port='1-1')
    assert tv.signals.wait_for('Stop')[0].args == (1,)
    assert tv.signals.wait_for('SpkDisconnected')[0].args == (15, 'HADRIX_DEVICE')
    tv.daemon.wait_for_log('enable 10mins quit service timer.')


def test_headset_present_at_boot_keeps_the_tv_speakers(tv):
    plug(tv.bed, 'headset', tv.log, AT_BOOT)
    tv.start(boot_devices=True, cards=[1])
    tv.daemon.wait_for_log('Not switch to usb speaker...')
    assert tv.speaker_selections() == []
    assert tv.signals.signals('Start') == []
    assert not tv.root.exists(USB_AUDIO_MODE)


def test_headset_present_at_boot_takes_the_output_in_usb_audio_mode(tv):
    tv.root.write(USB_AUDIO_MODE, '')
    plug(tv.bed, 'headset', tv.log, AT_BOOT)
    tv.start(boot_devices=True, cards=[1])
    tv.daemon.wait_for_log('switch to usb speaker as it is usb audio mode...')
    tv.services.sound.wait_for_calls('SetSpeakerSelection')
    assert tv.speaker_selections() == [USB_HEADSET_ROUTE]
    assert tv.signals.wait_for('Start')[0].args == (1,)


def test_usb_audio_mode_makes_any_plug_take_the_output(tv):
    tv.root.write(USB_AUDIO_MODE, '')
    tv.start(cards=[1])
    # Stamped as if found at boot: only the persisted mode makes it take the output.
    tv.plug('headset', at=AT_BOOT)
    assert tv.signals.wait_for('Start')[0].args == (1,)


@pytest.mark.parametrize('name', ['webcam', 'vendor-audio'])
def test_webcams_and_other_devices_are_ignored(tv, name):
    tv.start(cards=[CATALOGUE[name].card])
    mark = tv.daemon.log.mark()
    plug(tv.bed, name, tv.log, LATER)
    expected = 'camera device' if name == 'webcam' else 'Not audio deveice'
    tv.daemon.wait_for_log(expected, since=mark, timeout=10)
    assert tv.speaker_selections() == []
    assert tv.signals.signals('Start') == []


def test_astro_headset_never_enters_the_device_list(tv):
    tv.start(cards=[5])
    tv.plug('astro')
    tv.daemon.wait_for_log('Astro device')
    depot = '/home/owner/apps_rw/hadrix/data/devices.depot'
    # Any other device would be saved to the depot half a second after it was added.
    tv.plug('headset')
    tv.daemon.wait_until(lambda: tv.root.exists(depot), what='the depot written')
    saved = tv.root.read(depot)
    assert 'Evolve 20' in saved and 'Astro' not in saved


def test_three_headsets_give_exactly_two_in_use_oldest_first(tv):
    tv.start(cards=[1, 2, 3])
    for name in ('headset', 'headset2', 'headset3'):
        tv.plug(name)
    tv.daemon.wait_for_log('USB HEADSET more than 2..')
    starts = tv.signals.wait_for('Start', count=2)
    assert sorted(signal.args[0] for signal in starts) == [1, 2]
    assert all(signal.args != (3,) for signal in tv.signals.signals('Start'))


@pytest.mark.parametrize('low_power', [2, 4])
def test_low_power_mutes_and_resume_enumerates_again(tv, low_power):
    tv.start(cards=[1])
    tv.plug('headset')
    tv.signals.wait_for('Start')

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


def test_power_change_to_a_normal_state_only_records_it(tv):
    tv.start(cards=[1])
    tv.plug('headset')
    tv.signals.wait_for('Start')
    mark = tv.daemon.log.mark()
    tv.services.change_power(1)
    tv.daemon.wait_for_log('power on pre state : 0, cur state: 1', since=mark)
    assert tv.signals.signals('Stop') == []


def test_another_route_mutes_and_the_usb_route_unmutes(tv):
    tv.start(cards=[1])
    tv.plug('headset')
    tv.signals.wait_for('Start')
    tv.services.user_sets_route(7)
    assert tv.signals.wait_for('Stop')[0].args == (1,)
    tv.daemon.wait_until(lambda: not tv.root.exists(USB_AUDIO_MODE), what='mode left')
    tv.services.user_sets_route(USB_HEADSET_ROUTE)
    tv.signals.wait_for('Start', count=2)
    tv.daemon.wait_until(lambda: tv.root.exists(USB_AUDIO_MODE), what='mode entered')
