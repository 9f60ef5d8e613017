"""Launching the TV viewer with extra data (CUsbServiceUtil::LaunchApp through hadrix-probe) when the
viewer is absent or refuses; the daemon's volume-key tests prove launches that succeed."""
from simtv.bus import VOLUME_APP
from simtv.log import parse


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
