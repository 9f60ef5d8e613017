"""The remote's volume keys while a USB headset carries the TV sound, multiview and
screen-mirroring volume: the real daemon with the key router, the TV viewer, the resource centre
and the other platform services as mocks."""
import json

import pytest

from simtv.devices import plug

VOLUME_UP = 'XF86AudioRaiseVolume'
VOLUME_DOWN = 'XF86AudioLowerVolume'
MUTE = 'XF86AudioMute'
REMOTE = 'rc device 0'
OSD_NAME = 'Evolve 20(USB)'
LEVEL_KEY = 'db/hadrix/volume_level'
MUTE_KEY = 'db/hadrix/volume_mute_status'
TTS_KEY = 'db/setting/accessibility/tts'
EMANUAL_KEY = 'memory/org.nimbos.emanual-app/active_category'
TTS_TEXT_KEY = 'memory/tv-viewer/ext_volume_tts_play'
UI_MODE_KEY = 'memory/multiscreen/ui_mode'
VOLUME_INFO_KEY = 'memory/multiscreen/volumeinfo_usbheadset'
MIRRORING_LEVEL_KEY = 'memory/menu/network/screenmirroring/set_volume_level'
MIRRORING_MUTE_KEY = 'memory/menu/network/screenmirroring/set_volume_mute'
USB_AUDIO_MODE = '/home/owner/apps_rw/hadrix/data/USB_AUDIO_mode'


@pytest.fixture
def tv(platform_services, mocks, kernel_log, testbed, daemon, hadrix_root):
    """A TV with the platform's services and, once `start` has run, a headset in use."""
    kernel_log.boot()

    class TV:
        root = hadrix_root

        def start(self, headset='boot', zones=(0, 1)):
            """headset: 'boot' — in USB audio mode with the headset there at start-up (the
            quickest way to a headset in use); 'plug' — plugged by the viewer once the service
            runs; None — no headset."""
            self.services = platform_services(cards=[1])
            self.keys = mocks.spawn('key_router')
            self.zones = mocks.spawn('resource_center', {'zones': list(zones)})
            self.viewer = mocks.app()
            if headset == 'boot':
                self.root.write(USB_AUDIO_MODE, '')
                self.headset = plug(testbed, 'headset', kernel_log, 3.5)
            self.daemon = daemon.start()
            if headset == 'boot':
                self.daemon.wait_for_log('switch to usb speaker as it is usb audio mode...',
                                         timeout=20)
                return self
            # With no device at start-up the service looks for one for up to ten seconds.
            self.daemon.wait_for_log('No devices found.', timeout=20)
            if headset == 'plug':
                self.plug()
            return self

        def plug(self):
            mark = self.daemon.log.mark()
            self.headset = plug(testbed, 'headset', kernel_log, 120.0)
            self.daemon.wait_for_log('Ondetect info end', since=mark, timeout=10)

        def unplug(self):
            mark = self.daemon.log.mark()
            testbed.remove(self.headset)
            self.daemon.wait_for_log('Ondetect info end', since=mark, timeout=10)

        def grabbed(self):
            return sorted(str(key) for key in
                          self.keys.call('GetGrabbedKeys'))

        def wait_grabbed(self, keys=(MUTE, VOLUME_DOWN, VOLUME_UP)):
            self.daemon.wait_until(lambda: self.grabbed() == sorted(keys),
                                   what=f'keys grabbed: {sorted(keys)}')

        def press(self, key, device=REMOTE):
            self.keys.call('PressKey', key, device)

        def release(self, key, device=REMOTE):
            self.keys.call('ReleaseKey', key, device)

        def hold(self, key, repeats, device=REMOTE):
            self.keys.call('HoldKey', key, device, repeats)

        def launches(self):
            """The TV viewer's launch requests: [[(key, value), ...], ...] in order."""
            return [[tuple(pair) for pair in args[1]] for _, args in self.viewer.calls('Launch')]

        def wait_launches(self, count):
            self.daemon.wait_until(lambda: len(self.launches()) >= count,
                                   what=f'{count} launch(es) of the TV viewer')
            return self.launches()

        def setting(self, key):
            stored = self.root.get_setting(key)
            return stored[1] if stored else None

    return TV()


def command(pairs):
    return dict(pairs)['cmd'], dict(pairs)['value']


def test_first_headset_grabs_the_volume_keys_and_the_last_releases_them(tv):
    tv.start()
    tv.wait_grabbed()
    modes = tv.keys.calls('SetSpecialKeyMode')
    assert sorted(args[2] for _, args in modes) == [VOLUME_DOWN, VOLUME_UP]
    assert all(args[:2] == [0, 6] for _, args in modes)
    assert all(args[2] == 3 for _, args in tv.keys.calls('AddKey'))
    tv.unplug()
    tv.daemon.wait_until(lambda: tv.grabbed() == [], what='keys released')


def test_learn_remote_page_holds_the_grab_back_until_it_closes(tv):
    tv.root.set_setting(EMANUAL_KEY, 1)
    tv.start()
    # The page is watched from the grab decision on: change it only once the watch is in place.
    tv.daemon.wait_for_log('vconf_notify_key_changed t_VconfCBOfEmanualLearnTvRemote success')
    assert tv.keys.calls('SetGrabbedKeys') == []
    tv.root.set_setting(EMANUAL_KEY, 0)
    tv.daemon.wait_for_log('Learn Remote page is Off')
    tv.wait_grabbed()


def test_volume_up_stores_applies_and_shows_the_level(tv):
    tv.root.set_setting(LEVEL_KEY, 50)
    tv.start()
    tv.wait_grabbed()
    tv.press(VOLUME_UP)
    tv.release(VOLUME_UP)
    launch = tv.wait_launches(1)[0]
    assert launch == [('cmd', 'extvolume_updown'), ('value', 'up,51'), ('speaker_name', OSD_NAME),
                      ('tts_content', OSD_NAME + 'up,51')]
    assert tv.setting(LEVEL_KEY) == '51'
    tv.daemon.wait_until(lambda: [51] in [args for _, args in tv.services.audio.calls('SetUsbOutGain')],
                         what='USB output gain 51')


def test_held_key_steps_by_two_and_stops_at_100(tv):
    tv.root.set_setting(LEVEL_KEY, 95)
    tv.start()
    tv.wait_grabbed()
    tv.hold(VOLUME_UP, repeats=4)
    tv.daemon.wait_until(lambda: tv.setting(LEVEL_KEY) == '100', what='level 100')
    values = [command(pairs)[1] for pairs in tv.launches()]
    assert values[0] == 'up,96'
    levels = [int(value.split(',')[1]) for value in values]
    assert levels == sorted(levels) and levels[-1] == 100
    assert all(value.startswith(('up2,', 'down2,')) for value in values[1:])


def test_a_press_while_muted_unmutes_first(tv):
    tv.root.set_setting(LEVEL_KEY, 20)
    tv.root.set_setting(MUTE_KEY, 1)
    # Not the first start since boot, which would reset the mute state.
    tv.root.write('/tmp/hadrix.running', '')
    tv.start()
    tv.wait_grabbed()
    tv.press(VOLUME_DOWN)
    launches = tv.wait_launches(2)
    assert command(launches[0]) == ('extvolume', '-5')
    assert command(launches[1]) == ('extvolume_updown', 'down,19')
    assert tv.setting(MUTE_KEY) == '0'


def test_mute_key_toggles(tv):
    tv.start()
    tv.wait_grabbed()
    tv.press(MUTE)
    assert command(tv.wait_launches(1)[0]) == ('extvolume', '-4')
    tv.press(MUTE)
    assert command(tv.wait_launches(2)[1]) == ('extvolume', '-5')
    mutes = [args for _, args in tv.services.audio.calls('SetUsbOutMute')]
    assert mutes[-2:] == [[True], [False]]


def test_keys_of_the_headset_itself_are_dropped_before_any_beep(tv):
    tv.root.set_setting(TTS_KEY, True)
    tv.start()
    tv.wait_grabbed()
    mark = tv.daemon.log.mark()
    tv.press(VOLUME_UP, device='Jabra Evolve 20 Consumer Control')
    tv.daemon.wait_for_log('Volume control from USB_HEADSET_DEVICE,block it', since=mark)
    # A later key from the remote is handled (the mute key does not beep): had the headset's
    # key gone on, a beep and a level change would stand before it.
    tv.press(MUTE)
    tv.wait_launches(1)
    assert [command(pairs) for pairs in tv.launches()] == [('extvolume', '-4')]


def test_with_speech_on_the_release_speaks_the_level(tv):
    tv.root.set_setting(TTS_KEY, True)
    tv.root.set_setting(LEVEL_KEY, 50)
    tv.start()
    tv.wait_grabbed()
    tv.press(VOLUME_UP)
    tv.release(VOLUME_UP)
    launches = tv.wait_launches(3)
    assert [command(pairs) for pairs in launches] == [
        ('play_tts', 'beep'), ('extvolume_updown', 'up,51'), ('play_tts', 'Volume,51,')]
    assert tv.setting(TTS_TEXT_KEY) == 'Volume,51,'


def test_multiview_routes_per_zone_and_publishes_the_volume(tv):
    tv.root.set_setting(UI_MODE_KEY, 'on')
    tv.root.set_setting(LEVEL_KEY, 40)
    tv.start(headset='plug', zones=(0, 1))
    tv.services.sound.wait_for_calls('SetMultiviewSpeakerSelection', count=2)
    assert sorted(args for _, args in tv.services.sound.calls('SetMultiviewSpeakerSelection')) \
        == [[15, 0], [15, 1]]
    tv.wait_grabbed()
    tv.press(VOLUME_UP)
    tv.daemon.wait_until(lambda: tv.setting(LEVEL_KEY) == '41', what='level 41')
    info = tv.daemon.wait_until(
        lambda: (json.loads(tv.setting(VOLUME_INFO_KEY) or '{}').get('volumelevel') == 41
                 and tv.setting(VOLUME_INFO_KEY)), what='volume info 41')
    assert list(json.loads(info).items()) == [('mute', 'off'), ('volumekey', 'none'),
                                             ('volumelevel', 41)]
    assert 'extvolume_updown' not in [command(pairs)[0] for pairs in tv.launches()]


def test_multiview_needs_exactly_on(tv):
    tv.root.set_setting(UI_MODE_KEY, 'On')
    tv.start(headset='plug')
    tv.services.sound.wait_for_calls('SetSpeakerSelection')
    assert tv.services.sound.calls('SetMultiviewSpeakerSelection') == []


def test_mirroring_changes_level_and_mute_in_usb_audio_mode_once_per_value(tv):
    tv.start()
    tv.daemon.wait_until(lambda: tv.root.exists(USB_AUDIO_MODE), what='USB audio mode')
    tv.wait_grabbed()
    tv.root.set_setting(MIRRORING_LEVEL_KEY, 30)
    tv.daemon.wait_until(lambda: tv.setting(LEVEL_KEY) == '30', what='level 30')
    mark = tv.daemon.log.mark()
    tv.root.set_setting(LEVEL_KEY, 60)  # the viewer changed it meanwhile, say by key
    tv.root.set_setting(MIRRORING_LEVEL_KEY, 30)
    tv.daemon.wait_for_log('volume level not changed..ignore..', since=mark)
    tv.root.set_setting(MIRRORING_MUTE_KEY, 1)
    tv.daemon.wait_until(lambda: tv.setting(MUTE_KEY) == '1', what='muted')


def test_mirroring_is_ignored_outside_usb_audio_mode(tv):
    tv.start(headset=None)
    mark = tv.daemon.log.mark()
    tv.root.set_setting(MIRRORING_LEVEL_KEY, 30)
    tv.daemon.wait_for_log('not usb headset mode, ignore.', since=mark)
    assert tv.setting(LEVEL_KEY) != '30'
