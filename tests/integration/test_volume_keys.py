"""The remote's volume keys while a USB headset carries the TV sound, multiview and
screen-mirroring volume: the real daemon with the key router, the TV viewer, the resource centre
and the other platform services as mocks."""
import json

import pytest

from conftest import LEVEL_KEY, MUTE_KEY, USB_AUDIO_MODE

VOLUME_UP = 'XF86AudioRaiseVolume'
VOLUME_DOWN = 'XF86AudioLowerVolume'
MUTE = 'XF86AudioMute'
REMOTE = 'rc device 0'
OSD_NAME = 'Evolve 20(USB)'
TTS_KEY = 'db/setting/accessibility/tts'
EMANUAL_KEY = 'memory/org.nimbos.emanual-app/active_category'
UI_MODE_KEY = 'memory/multiscreen/ui_mode'
VOLUME_INFO_KEY = 'memory/multiscreen/volumeinfo_usbheadset'
MIRRORING_LEVEL_KEY = 'memory/menu/network/screenmirroring/set_volume_level'
MIRRORING_MUTE_KEY = 'memory/menu/network/screenmirroring/set_volume_mute'


@pytest.fixture
def keys_tv(tv, mocks):
    """The TV with the key router, the resource centre (zones 0 and 1) and the TV viewer."""
    tv.keys = mocks.spawn('key_router')
    mocks.spawn('resource_center', {'zones': [0, 1]})
    tv.viewer = mocks.app()
    return tv


def in_use(tv):
    """Starts in USB audio mode with the headset there: the quickest way to a headset in use."""
    tv.start('switch to usb speaker as it is usb audio mode...', boot=['headset'],
             usb_audio_mode=True)
    wait_grabbed(tv)


def plugged_later(tv):
    tv.start('No devices found.')
    tv.plug('headset')


def grabbed(tv):
    return sorted(str(key) for key in tv.keys.call('GetGrabbedKeys'))


def wait_grabbed(tv, keys=(MUTE, VOLUME_DOWN, VOLUME_UP)):
    tv.daemon.wait_until(lambda: grabbed(tv) == sorted(keys), what=f'keys grabbed: {keys}')


def press(tv, key, device=REMOTE):
    tv.keys.call('PressKey', key, device)


def commands(tv, count=0):
    """(cmd, value) of the TV viewer's launch requests, once there are `count`."""
    def launched():
        return [dict(args[1]) for _, args in tv.viewer.calls('Launch')]
    tv.daemon.wait_until(lambda: len(launched()) >= count, what=f'{count} launches of the viewer')
    return [(pairs['cmd'], pairs['value']) for pairs in launched()]


def test_first_headset_grabs_the_volume_keys_and_the_last_releases_them(keys_tv):
    tv = keys_tv
    in_use(tv)
    modes = tv.keys.calls('SetSpecialKeyMode')
    assert sorted(args[2] for _, args in modes) == [VOLUME_DOWN, VOLUME_UP]
    assert all(args[:2] == [0, 6] for _, args in modes)
    assert all(args[2] == 3 for _, args in tv.keys.calls('AddKey'))
    tv.unplug('headset')
    tv.daemon.wait_until(lambda: grabbed(tv) == [], what='keys released')


def test_learn_remote_page_holds_the_grab_back_until_it_closes(keys_tv):
    tv = keys_tv
    tv.root.set_setting(EMANUAL_KEY, 1)
    tv.start(boot=['headset'], usb_audio_mode=True)
    # The page is watched from the grab decision on: change it only once the watch is in place.
    tv.daemon.wait_for_log('vconf_notify_key_changed t_VconfCBOfEmanualLearnTvRemote success')
    assert tv.keys.calls('SetGrabbedKeys') == []
    tv.root.set_setting(EMANUAL_KEY, 0)
    tv.daemon.wait_for_log('Learn Remote page is Off')
    wait_grabbed(tv)


def test_volume_up_stores_applies_shows_and_speaks_the_level(keys_tv):
    tv = keys_tv
    tv.root.set_setting(TTS_KEY, True)
    tv.root.set_setting(LEVEL_KEY, 50)
    in_use(tv)
    press(tv, VOLUME_UP)
    tv.keys.call('ReleaseKey', VOLUME_UP, REMOTE)
    assert commands(tv, 3) == [('play_tts', 'beep'), ('extvolume_updown', 'up,51'),
                               ('play_tts', 'Volume,51,')]
    assert [tuple(pair) for pair in tv.viewer.calls('Launch')[1][1][1]] == [
        ('cmd', 'extvolume_updown'), ('value', 'up,51'), ('speaker_name', OSD_NAME),
        ('tts_content', OSD_NAME + 'up,51')]
    assert tv.setting(LEVEL_KEY) == '51'
    assert tv.setting('memory/tv-viewer/ext_volume_tts_play') == 'Volume,51,'
    tv.daemon.wait_until(lambda: [51] in [a for _, a in tv.services.audio.calls('SetUsbOutGain')],
                         what='USB output gain 51')


def test_held_key_steps_by_two_and_stops_at_100(keys_tv):
    tv = keys_tv
    tv.root.set_setting(LEVEL_KEY, 95)
    in_use(tv)
    tv.keys.call('HoldKey', VOLUME_UP, REMOTE, 4)
    tv.daemon.wait_until(lambda: tv.setting(LEVEL_KEY) == '100', what='level 100')
    values = [value for _, value in commands(tv)]
    assert values[0] == 'up,96'
    levels = [int(value.split(',')[1]) for value in values]
    assert levels == sorted(levels) and levels[-1] == 100
    assert all(value.startswith(('up2,', 'down2,')) for value in values[1:])


def test_a_press_while_muted_unmutes_first(keys_tv):
    tv = keys_tv
    tv.root.set_setting(LEVEL_KEY, 20)
    tv.root.set_setting(MUTE_KEY, 1)
    # Not the first start since boot, which would reset the mute state.
    tv.root.write('/tmp/hadrix.running', '')
    in_use(tv)
    press(tv, VOLUME_DOWN)
    assert commands(tv, 2)[:2] == [('extvolume', '-5'), ('extvolume_updown', 'down,19')]
    assert tv.setting(MUTE_KEY) == '0'


def test_mute_key_toggles_and_keys_of_the_headset_itself_are_dropped_before_any_beep(keys_tv):
    tv = keys_tv
    tv.root.set_setting(TTS_KEY, True)
    in_use(tv)
    mark = tv.daemon.log.mark()
    press(tv, VOLUME_UP, device='Jabra Evolve 20 Consumer Control')
    tv.daemon.wait_for_log('Volume control from USB_HEADSET_DEVICE,block it', since=mark)
    # Had the headset's key gone on, a beep and a level change would stand before the mute.
    press(tv, MUTE)
    assert commands(tv, 1) == [('extvolume', '-4')]
    press(tv, MUTE)
    assert commands(tv, 2) == [('extvolume', '-4'), ('extvolume', '-5')]
    assert [a for _, a in tv.services.audio.calls('SetUsbOutMute')][-2:] == [[True], [False]]


def test_multiview_routes_per_zone_and_publishes_the_volume(keys_tv):
    tv = keys_tv
    tv.root.set_setting(UI_MODE_KEY, 'on')
    tv.root.set_setting(LEVEL_KEY, 40)
    plugged_later(tv)
    tv.services.sound.wait_for_calls('SetMultiviewSpeakerSelection', count=2)
    assert sorted(a for _, a in tv.services.sound.calls('SetMultiviewSpeakerSelection')) == \
        [[15, 0], [15, 1]]
    wait_grabbed(tv)
    press(tv, VOLUME_UP)
    tv.daemon.wait_until(lambda: tv.setting(LEVEL_KEY) == '41', what='level 41')
    # The value's form: tests/unit/core/test_multiview.cpp.
    tv.daemon.wait_until(
        lambda: json.loads(tv.setting(VOLUME_INFO_KEY) or '{}').get('volumelevel') == 41,
        what='volume info 41')
    assert 'extvolume_updown' not in [cmd for cmd, _ in commands(tv)]


def test_mirroring_changes_level_and_mute_in_usb_audio_mode_once_per_value(keys_tv):
    tv = keys_tv
    in_use(tv)
    tv.daemon.wait_until(lambda: tv.root.exists(USB_AUDIO_MODE), what='USB audio mode')
    tv.root.set_setting(MIRRORING_LEVEL_KEY, 30)
    tv.daemon.wait_until(lambda: tv.setting(LEVEL_KEY) == '30', what='level 30')
    mark = tv.daemon.log.mark()
    tv.root.set_setting(LEVEL_KEY, 60)  # the viewer changed it meanwhile, say by key
    tv.root.set_setting(MIRRORING_LEVEL_KEY, 30)
    tv.daemon.wait_for_log('volume level not changed..ignore..', since=mark)
    tv.root.set_setting(MIRRORING_MUTE_KEY, 1)
    tv.daemon.wait_until(lambda: tv.setting(MUTE_KEY) == '1', what='muted')


def test_mirroring_is_ignored_outside_usb_audio_mode(keys_tv):
    keys_tv.start('No devices found.')
    mark = keys_tv.daemon.log.mark()
    keys_tv.root.set_setting(MIRRORING_LEVEL_KEY, 30)
    keys_tv.daemon.wait_for_log('not usb headset mode, ignore.', since=mark)
    assert keys_tv.setting(LEVEL_KEY) != '30'
