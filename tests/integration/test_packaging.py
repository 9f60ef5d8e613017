"""Installing hadrix as a system service: what `cmake --install` and the Debian package put on
the system, and whether systemd, the D-Bus daemon and udev accept those files."""
import os
import re
import stat
import subprocess
from pathlib import Path

import pytest

from simtv import paths
from simtv.bus import HADRIX_BUS_NAME, restricted_config
from simtv.client_api import SERVER_IFACE, SERVER_NAME, SERVER_PATH
from simtv.wait import wait_until

DAEMON = '/usr/libexec/hadrix'
UNIT = 'usr/lib/systemd/system/hadrix.service'
POLICY = 'usr/share/dbus-1/system.d/org.nimbos.hadrix.conf'
ACTIVATION = {name: f'usr/share/dbus-1/system-services/{name}.service'
              for name in (SERVER_NAME, HADRIX_BUS_NAME)}
UDEV_RULE = 'usr/lib/udev/rules.d/60-hadrix.rules'
TMPFILES = 'usr/lib/tmpfiles.d/hadrix.conf'
# Every file of the install with its mode.
INSTALLED = {
    'usr/libexec/hadrix': 0o755, 'usr/bin/hadrix-settings': 0o755, 'usr/bin/hadrixctl': 0o755,
    **{path: 0o644 for path in (UNIT, POLICY, *ACTIVATION.values(), UDEV_RULE, TMPFILES,
                                'usr/share/doc/hadrix/README.md',
                                'usr/share/doc/hadrix/dbus-api.md',
                                'usr/apps/hadrix/shared/res/img_usb_port_guide.svg')},
    **{f'usr/apps/hadrix/res/locale/{language}/LC_MESSAGES/hadrix.mo': 0o644
       for language in ('en', 'de', 'fr')},
}


def install(destdir, prefix='/usr'):
    """`cmake --install` of the service's component into destdir; returns destdir."""
    build = paths.build_dir()
    if not (build / 'cmake_install.cmake').is_file():
        pytest.fail(f'{build} is not a configured build directory', pytrace=False)
    subprocess.run(['cmake', '--install', str(build), '--prefix', prefix, '--component', 'hadrix'],
                   env=dict(os.environ, DESTDIR=str(destdir)), check=True, capture_output=True,
                   text=True, timeout=50)
    return Path(destdir)


@pytest.fixture(scope='module')
def staged(tmp_path_factory):
    return install(tmp_path_factory.mktemp('stage'))


def ini_values(path, key):
    return [line.split('=', 1)[1] for line in path.read_text().splitlines()
            if line.startswith(key + '=')]


def test_install_puts_every_file_in_place_naming_the_daemon_under_the_prefix(staged, tmp_path):
    found = {str(p.relative_to(staged)): stat.S_IMODE(p.stat().st_mode)
             for p in staged.rglob('*') if p.is_file()}
    assert found == INSTALLED
    assert (staged / DAEMON.lstrip('/')).read_bytes()[:4] == b'\x7fELF'
    assert ini_values(staged / UNIT, 'ExecStart') == [DAEMON]
    assert ini_values(staged / UNIT, 'BusName') == [SERVER_NAME]
    for name, path in ACTIVATION.items():
        keys = ('Name', 'Exec', 'User', 'SystemdService')
        assert [ini_values(staged / path, key) for key in keys] == \
            [[name], [DAEMON], ['root'], ['hadrix.service']]
    # The paths follow the prefix given at install time, not the one of the configure.
    other = install(tmp_path / 'opt', prefix='/opt/hadrix')
    assert ini_values(other / 'opt/hadrix/lib/systemd/system/hadrix.service', 'ExecStart') == \
        ['/opt/hadrix/libexec/hadrix']


def test_unit_passes_systemd_analyze_verify_and_allows_what_the_service_needs(staged, tmp_path):
    # verify wants the ExecStart binary to exist: a copy of the unit runs the staged daemon.
    unit = tmp_path / 'hadrix.service'
    unit.write_text((staged / UNIT).read_text().replace(DAEMON, str(staged / DAEMON.lstrip('/'))))
    result = subprocess.run(['systemd-analyze', 'verify', '--man=no', str(unit)],
                            capture_output=True, text=True, timeout=50)
    assert result.returncode == 0 and 'hadrix' not in result.stderr, result.stderr

    settings = dict(line.split('=', 1) for line in (staged / UNIT).read_text().splitlines()
                    if '=' in line and not line.startswith('#'))
    # klogctl, the ALSA nodes, udev over netlink, the 5 s heartbeat within the watchdog period.
    assert 'CAP_SYSLOG' in settings['CapabilityBoundingSet'].split()
    assert settings.get('ProtectKernelLogs', 'no') == 'no'
    assert 'AF_NETLINK' in settings['RestrictAddressFamilies'].split()
    assert 'syslog' in settings['SystemCallFilter'].split()
    assert int(settings['WatchdogSec']) > 5
    # It writes to /tmp (shared: the start marker outlives the unit), its data directory, the
    # settings store and the KPI log.
    assert {'/tmp', '-/home/owner/apps_rw/hadrix'} <= set(settings['ReadWritePaths'].split())
    expected = {'DeviceAllow': 'char-alsa rw', 'Restart': 'on-failure', 'Type': 'dbus',
                'PrivateTmp': 'no', 'StateDirectory': 'nimbos/settings',
                'RuntimeDirectory': 'nimbos/settings', 'LogsDirectory': 'hadrix'}
    assert {key: settings.get(key) for key in expected} == expected
    entries = [line.split()[:2] for line in (staged / TMPFILES).read_text().splitlines()
               if line and not line.startswith('#')]
    assert entries == [['d', '/home/owner/apps_rw/hadrix/data']]


def gdbus(address, dest, path, method, *arguments, user=None):
    """gdbus call, as `user` (a uid) if given: (exit status, output)."""
    def drop_privileges():
        os.setgid(user)
        os.setuid(user)
    result = subprocess.run(['gdbus', 'call', '--address', address, '--dest', dest,
                             '--object-path', path, '--method', method, *arguments],
                            preexec_fn=drop_privileges if user else None, capture_output=True,
                            text=True, timeout=20)
    return result.returncode, result.stdout + result.stderr


@pytest.mark.skipif(os.geteuid() != 0, reason='the policy names root: needs root to test')
def test_policy_lets_only_root_own_the_names_and_anyone_call_the_api(staged, socket_dir, daemon):
    """The service, as root, on a bus with the system bus's default rules plus the policy."""
    directory = socket_dir.path
    directory.chmod(0o755)  # a short path the unprivileged client can reach
    (directory / 'bus.conf').write_text(restricted_config(f'unix:path={directory / "bus"}',
                                                          staged / POLICY))
    bus = subprocess.Popen(['dbus-daemon', f'--config-file={directory / "bus.conf"}', '--nofork',
                            '--print-address=1'], stdout=subprocess.PIPE, text=True)
    try:
        address = bus.stdout.readline().strip()
        assert address, 'dbus-daemon refused the configuration'
        (directory / 'bus').chmod(0o777)
        hadrix = daemon.start(env={'DBUS_SYSTEM_BUS_ADDRESS': address}, ready=False)
        for name in (SERVER_NAME, HADRIX_BUS_NAME):
            wait_until(lambda: gdbus(address, 'org.freedesktop.DBus', '/org/freedesktop/DBus',
                                     'org.freedesktop.DBus.GetNameOwner', name)[0] == 0,
                       timeout=10, what=f'root owning {name}')
        nobody = 65534
        for arguments, allowed, out in [
                (('org.freedesktop.DBus', '/org/freedesktop/DBus',
                  'org.freedesktop.DBus.RequestName', SERVER_NAME, 'uint32 4'),
                 False, 'AccessDenied'),
                ((SERVER_NAME, SERVER_PATH, f'{SERVER_IFACE}.check_dbus_connection', 'player'),
                 True, "('objplayer',)"),
                ((SERVER_NAME, '/org/nimbos/hadrix/Diagnostics',
                  'org.nimbos.hadrix.Diagnostics.GetHistory', 'uint32 5'), True, '(@aa{sv} [],)'),
                # Launch requests carry debug commands: root only.
                ((HADRIX_BUS_NAME, '/org/nimbos/AppControl', 'org.nimbos.AppControl.Launch',
                  'default', '[]'), False, 'AccessDenied')]:
            status, output = gdbus(address, *arguments, user=nobody)
            assert (status == 0) == allowed and out in output, (arguments, output)
        assert hadrix.stop() == 0
    finally:
        bus.terminate()
        bus.wait(timeout=10)


# One udev rule: comma-separated KEY{attribute}OP"value" items; match keys compare (== !=),
# the others assign (= += -= :=).
UDEV_ITEM = re.compile(r'\s*([A-Z_]+)(\{[^}]+\})?\s*(==|!=|\+=|-=|:=|=)\s*"([^"]*)"\s*')
UDEV_MATCH_KEYS = {'ACTION', 'SUBSYSTEM', 'SUBSYSTEMS', 'KERNEL', 'KERNELS', 'ATTR', 'ATTRS',
                   'ENV', 'TAG', 'DRIVER', 'DRIVERS', 'DEVPATH'}
UDEV_ASSIGN_KEYS = {'TAG', 'ENV', 'RUN', 'SYMLINK', 'OWNER', 'GROUP', 'MODE'}


def test_udev_rule_starts_the_service_for_usb_sound_cards(staged):
    rules = [[UDEV_ITEM.fullmatch(item) for item in line.split(',')]
             for line in (staged / UDEV_RULE).read_text().splitlines()
             if line.strip() and not line.lstrip().startswith('#')]
    assert len(rules) == 1 and all(rules[0]), rules
    items = [m.groups() for m in rules[0]]
    for key, _, op, _ in items:
        assert key in (UDEV_MATCH_KEYS if op in ('==', '!=') else UDEV_ASSIGN_KEYS), key
    assert {('SUBSYSTEM', None, '==', 'sound'), ('SUBSYSTEMS', None, '==', 'usb'),
            ('TAG', None, '+=', 'systemd'),
            ('ENV', '{SYSTEMD_WANTS}', '+=', 'hadrix.service')} <= set(items)


def test_debian_package_holds_the_install_and_its_dependencies(tmp_path):
    result = subprocess.run(['cpack', '-G', 'DEB', '--config',
                             str(paths.build_dir() / 'CPackConfig.cmake'), '-B', str(tmp_path)],
                            capture_output=True, text=True, timeout=55)
    assert result.returncode == 0, result.stdout + result.stderr
    [deb] = tmp_path.glob('hadrix_*.deb')

    def dpkg_deb(*args):
        return subprocess.run(['dpkg-deb', *args, str(deb)], capture_output=True, text=True,
                              check=True).stdout
    modes = {}
    for line in dpkg_deb('-c').splitlines():
        permissions, _, _, _, _, name = line.split(None, 5)
        if not permissions.startswith('d'):
            modes[name.removeprefix('./')] = permissions
    assert set(modes) == set(INSTALLED)
    assert (modes['usr/libexec/hadrix'], modes[UNIT]) == ('-rwxr-xr-x', '-rw-r--r--')
    control = dict(line.split(': ', 1) for line in dpkg_deb('-f').splitlines()
                   if ': ' in line and not line.startswith(' '))
    assert control['Package'] == 'hadrix'
    assert {'dbus', 'libglib2.0-0', 'libasound2', 'libudev1', 'libsystemd0'} <= \
        {d.split()[0] for d in control['Depends'].split(', ')}
    assert 'postinst' in dpkg_deb('-I') and 'postrm' in dpkg_deb('-I')
    # The packaged unit runs the packaged daemon.
    subprocess.run(['dpkg-deb', '-x', str(deb), str(tmp_path / 'root')], check=True)
    assert ini_values(tmp_path / 'root' / UNIT, 'ExecStart') == [DAEMON]
