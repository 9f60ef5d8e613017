"""The remote's volume keys while a USB headset carries the TV sound, end to end: the real daemon
grabs them at the key router, and a press reaches the stored level, the USB output gain and the
TV viewer. The key handling's rules (steps, bounds, mute, speech, what the viewer is sent, the
headset's own keys, the learn-remote page, multiview and mirroring) are proven in-process
(tests/unit/core/test_keys.cpp and its neighbours)."""
import pytest

from conftest import LEVEL_KEY

VOLUME_UP = 'XF86AudioRaiseVolume'
VOLUME_DOWN = 'XF86AudioLowerVolume'
MUTE = 'XF86AudioMute'
REMOTE = 'rc device 0'


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


def test_volume_up_stores_applies_and_shows_the_level(keys_tv):
    tv = keys_tv
    tv.root.set_setting(LEVEL_KEY, 50)
    in_use(tv)
    press(tv, VOLUME_UP)
    assert commands(tv, 1) == [('extvolume_updown', 'up,51')]
    assert tv.setting(LEVEL_KEY) == '51'
    tv.daemon.wait_until(lambda: [51] in [a for _, a in tv.services.audio.calls('SetUsbOutGain')],
                         what='USB output gain 51')
