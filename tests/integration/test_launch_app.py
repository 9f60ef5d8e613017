"""Launching the TV viewer with extra data (CUsbServiceUtil::LaunchApp through hadrix-probe) when the
viewer is absent or refuses; the daemon's volume-key tests prove launches that succeed."""
from simtv.bus import VOLUME_APP


def test_launch_fails_without_the_viewer_or_when_it_refuses(mocks, probe, system_bus):
    other = mocks.app('org.nimbos.other-app')
    assert not system_bus.has_owner(VOLUME_APP)
    absent = probe('launch-app', 'extvolume', '10')
    assert absent.returncode == 1
    assert f'Failed to launch {VOLUME_APP}' in absent.stderr
    assert other.calls() == []

    viewer = mocks.app(launch_error='org.nimbos.AppControl.Error.LaunchRejected')
    refused = probe('launch-app', 'extvolume', '10')
    assert refused.returncode == 1
    assert f'Failed to launch {VOLUME_APP}' in refused.stderr
    assert len(viewer.calls('Launch')) == 1
