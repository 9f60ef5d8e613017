"""The host's key router client and resource centre client (through hadrix-probe): grabbed keys
of the remote arrive as key events with their device, other keys do not; a held key repeats its
key-down; connecting without a router fails; zone lists round trip, and a failing or absent
resource centre is an error."""
import re

import dbus

VOLUME_UP = 'XF86AudioRaiseVolume'
VOLUME_DOWN = 'XF86AudioLowerVolume'
MUTE = 'XF86AudioMute'
REMOTE = 'rc device 0'

IO_ERROR = 'error -5'
NO_ROUTER = 'error -2'


def grab(launcher, probe, *keys):
    """Starts a probe that grabs `keys` and waits until it listens for their events."""
    grabber = launcher.start(probe.path, ['keys-grab', '20', *keys], label='keys-grab')
    grabber.wait_for_output('ready')
    return grabber


def key_lines(grabber):
    """Stops the grabbing probe and returns the key events it printed."""
    assert grabber.stop() == 0
    return [line for line in grabber.out.lines() if line != 'ready']


# --- key router ------------------------------------------------------------------------------

def test_grabbed_keys_arrive_with_their_device(mocks, probe, launcher):
    router = mocks.spawn('key_router')
    grabber = grab(launcher, probe, VOLUME_UP, MUTE)

    assert router.calls() == [('ResetKeyGrabConfig', [0]), ('AddKey', [0, VOLUME_UP, 3]),
                              ('AddKey', [0, MUTE, 3]), ('SetGrabbedKeys', [0])]
    assert router.call('GetGrabbedKeys') == [MUTE, VOLUME_UP]
    router.call('PressKey', VOLUME_DOWN, REMOTE)
    router.call('PressKey', VOLUME_UP, REMOTE)
    router.call('ReleaseKey', VOLUME_UP, REMOTE)
    router.call('PressKey', MUTE, 'Smart Control 2')
    router.call('ReleaseKey', MUTE, '')
    grabber.wait_for_output(f'up {MUTE}')

    # The ungrabbed key was sent before the grabbed ones and never arrived.
    assert key_lines(grabber) == [f'down {VOLUME_UP} {REMOTE}', f'up {VOLUME_UP} {REMOTE}',
                                  f'down {MUTE} Smart Control 2', f'up {MUTE} -']


def test_released_keys_no_longer_arrive(mocks, probe, launcher):
    router = mocks.spawn('key_router')
    grabber = grab(launcher, probe, VOLUME_UP, VOLUME_DOWN)

    # Another client of window 0 releases one of the two keys.
    router.call('ResetKeyGrabConfig', 0)
    router.call('AddKey', 0, VOLUME_UP, 3)
    router.call('UnsetGrabbedKeys', 0)
    assert router.call('GetGrabbedKeys') == [VOLUME_DOWN]
    router.call('HoldKey', VOLUME_UP, REMOTE, 2)
    router.call('PressKey', VOLUME_DOWN, REMOTE)
    grabber.wait_for_output(f'down {VOLUME_DOWN}')

    assert key_lines(grabber) == [f'down {VOLUME_DOWN} {REMOTE}']


def test_connecting_without_a_router_fails_at_once(mocks, probe, system_bus):
    assert not system_bus.has_owner('org.nimbos.KeyRouter')

    status, lines = probe.lines('timed', 'keys-grab', '5', VOLUME_UP)

    took = re.fullmatch(r'took (\d+) ms', lines.pop())
    assert took, lines
    assert (status, lines) == (1, [NO_ROUTER])
    assert int(took[1]) < 500


def test_failing_router_fails_the_grab(mocks, probe):
    router = mocks.spawn('key_router', {'failing': True})

    assert probe.lines('keys-grab', '5', VOLUME_UP) == (1, [IO_ERROR])

    assert router.calls() == [('ResetKeyGrabConfig', [0])]


# --- resource centre zones ---------------------------------------------------------------------

def test_zone_lists_round_trip(mocks, probe):
    centre = mocks.spawn('resource_center')

    assert probe.lines('zones', '1') == (0, ['zone 0', 'zone 1'])
    centre.call('SetZones', dbus.Array([7, -3, 2], signature='i'))
    assert probe.lines('zones', '4') == (0, ['zone 7', 'zone -3', 'zone 2'])
    centre.call('SetZones', dbus.Array([], signature='i'))
    assert probe.lines('zones', '1') == (0, [])

    assert centre.calls('GetZones') == [('GetZones', [1]), ('GetZones', [4]), ('GetZones', [1])]


def test_failing_or_absent_resource_centre_is_an_error(mocks, probe, system_bus):
    assert probe.lines('zones', '1') == (1, [IO_ERROR])

    centre = mocks.spawn('resource_center', {'failing': True})
    assert probe.lines('zones', '1') == (1, [IO_ERROR])
    centre.call('SetFailing', False)
    assert probe.lines('zones', '1') == (0, ['zone 0', 'zone 1'])
