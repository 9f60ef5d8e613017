"""The service as its unit runs it: its own user, the audio and settings groups, CAP_SYSLOG and
nothing else, on a root laid out by the package's own sysusers and tmpfiles entries
(simtv.account). The kernel log comes from the klogctl shim, but only when the real kernel would
let the daemon read its own log (HADRIX_FAKE_KLOG_ACCESS=kernel): whether CAP_SYSLOG is needed
and enough is the kernel's answer, not the shim's."""
import os
import re
import shutil
import tempfile
from pathlib import Path

import pytest

from conftest import DEPOT, KPI_FILE, MUTE_KEY, SUBSCRIBER_FILE, USB_AUDIO_MODE
from simtv.account import ServiceAccount
from simtv.alsa_card import stereo_headset

pytestmark = pytest.mark.skipif(os.geteuid() != 0,
                                reason='only root can start the service as another user')

CAP_SYSLOG = 34
DMESG_RESTRICT = Path('/proc/sys/kernel/dmesg_restrict')
REFUSAL = 'the kernel log cannot be read: permission denied (EPERM); reading it needs CAP_SYSLOG'
FAILED_ATTEMPT = re.compile(r'empty kernel log \(rc -1\), attempt (\d+)')


@pytest.fixture
def tmp_path():
    """The test's directory, which the service's user can pass through (pytest's own are the
    test user's alone)."""
    directory = Path(tempfile.mkdtemp(prefix='hadrix-unprivileged-', dir='/tmp'))
    directory.chmod(0o711)
    yield directory
    shutil.rmtree(directory, ignore_errors=True)


@pytest.fixture
def account(hadrix_root, socket_dir, testbed, child_env, kernel_log):
    socket_dir.path.chmod(0o711)
    testbed.admit_other_users()
    child_env.set('HADRIX_FAKE_KLOG_ACCESS', 'kernel')
    return ServiceAccount(hadrix_root)


def credentials(pid):
    """(real, effective uid), effective capability bits and groups of a process."""
    status = dict(line.split(':', 1) for line in Path(f'/proc/{pid}/status').read_text().splitlines())
    uids = [int(uid) for uid in status['Uid'].split()]
    return uids[:2], int(status['CapEff'], 16), sorted(int(gid) for gid in status['Groups'].split())


def test_as_its_own_user_with_cap_syslog_alone_the_service_does_its_work(tv, account):
    tv.root.set_setting(MUTE_KEY, 1)  # left muted by an earlier run
    daemon = tv.start('m_DeviceInit out', 'No devices found.', command=account.command())
    assert credentials(daemon.pid) == ([account.uid] * 2, 1 << CAP_SYSLOG, sorted(account.groups))

    # The kernel granted the log: the plug is the viewer's, the sound goes to the headset, whose
    # mixer (an ALSA node of the audio group) is set.
    tv.plug('headset', mixer=stereo_headset())
    assert tv.signals.wait_for('Start')[0].args == (1,)
    daemon.wait_until(lambda: tv.root.exists(USB_AUDIO_MODE) and tv.root.exists(DEPOT),
                      what='USB audio mode marker and depot')
    assert tv.mixers['headset'].accepted_writes()
    assert str(tv.call('SubscribeHadrixServiceCallback', 's', 'org.example.player')) == \
        'objorg.example.player'

    # What it wrote is its own, the settings key included (the first start since boot unmutes).
    assert tv.root.get_setting(MUTE_KEY) == ('int', '0')
    written = [tv.root / path for path in (USB_AUDIO_MODE, DEPOT, SUBSCRIBER_FILE, KPI_FILE,
                                           '/tmp/hadrix.running', '/tmp/dmesg.txt.success')]
    written.append(tv.root.setting_path(MUTE_KEY))
    assert {str(path): path.stat().st_uid for path in written} == \
        {str(path): account.uid for path in written}


@pytest.mark.skipif(DMESG_RESTRICT.exists() and DMESG_RESTRICT.read_text().strip() == '0',
                    reason='kernel.dmesg_restrict is 0: the kernel lets every user read its log')
def test_without_cap_syslog_the_refused_kernel_log_is_said_once_and_the_service_carries_on(
        tv, account):
    daemon = tv.start('m_DeviceInit out', command=account.command(capabilities=False))
    assert credentials(daemon.pid)[1] == 0
    # The boot's parse: ten attempts, each refused and logged, none saved, no data.
    daemon.wait_for_log(FAILED_ATTEMPT, count=10, timeout=10)
    # A plug parses again: ten more, and still the one line saying why.
    tv.plug('headset')
    attempts = daemon.wait_for_log(FAILED_ATTEMPT, count=20, timeout=10)
    assert [int(FAILED_ATTEMPT.search(r.text).group(1)) for r in attempts] == list(range(1, 11)) * 2
    assert len(daemon.log.find(REFUSAL)) == 1
    assert not list((tv.root / '/tmp').glob('dmesg.txt*'))
    assert str(tv.call('check_dbus_connection', 's', 'player')) == 'objplayer'
    assert daemon.running()
