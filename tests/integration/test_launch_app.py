"""Launching the TV viewer with extra data (CUsbServiceUtil::LaunchApp through hadrix-probe)."""
from simtv.bus import VOLUME_APP
from simtv.log import parse


def test_extra_data_reach_the_viewer_in_order(mocks, probe):
    viewer = mocks.app()
    pairs = [('extvolume', '35'), ('mute', 'off'), ('a_key', 'last'), ('extvolume_updown', 'up')]

    result = probe('launch-app', *[item for pair in pairs for item in pair])

    assert result.returncode == 0, result.stderr
    assert viewer.wait_for_calls('Launch') == [('Launch', ['default', pairs])]


def test_each_launch_is_one_request(mocks, probe):
    viewer = mocks.app()

    assert probe('launch-app', 'play_tts', 'first').returncode == 0
    assert probe('launch-app', 'play_tts', 'second').returncode == 0

    assert viewer.wait_for_calls('Launch', count=2) == [
        ('Launch', ['default', [('play_tts', 'first')]]),
        ('Launch', ['default', [('play_tts', 'second')]]),
    ]


def test_no_viewer_on_the_bus_fails_the_launch(mocks, probe, system_bus):
    other = mocks.app('org.nimbos.other-app')
    assert not system_bus.has_owner(VOLUME_APP)

    result = probe('launch-app', 'extvolume', '10')

    assert result.returncode == 1
    messages = [parse(line).message for line in result.stderr.splitlines()]
    assert f'Failed to launch {VOLUME_APP}' in messages
    assert other.calls() == []


def test_viewer_refusing_the_launch_fails_it(mocks, probe):
    viewer = mocks.app(launch_error='org.nimbos.AppControl.Error.LaunchRejected')

    result = probe('launch-app', 'extvolume', '10')

    assert result.returncode == 1
    assert f'Failed to launch {VOLUME_APP}' in result.stderr
    assert len(viewer.calls('Launch')) == 1


def test_probe_refuses_odd_arguments(probe):
    result = probe('launch-app', 'key-without-value')

    assert result.returncode == 2
    assert 'usage: hadrix-probe launch-app' in result.stderr
