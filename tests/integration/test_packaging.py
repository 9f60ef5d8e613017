"""Installing hadrix as a system service: what `cmake --install` and the Debian package put on
the system, and whether systemd, the D-Bus daemon and udev accept those files."""
import os
import pwd
import re
import stat
import subprocess
from pathlib import Path

import pytest

from simtv import paths
from simtv.account import ServiceAccount, unit_settings
from simtv.bus import HADRIX_BUS_NAME, restricted_config
from simtv.client_api import SERVER_IFACE, SERVER_NAME, SERVER_PATH
from simtv.root import HadrixRoot
from simtv.wait import wait_until

DAEMON = '/usr/libexec/hadrix'
UNIT = 'usr/lib/systemd/system/hadrix.service'
POLICY = 'usr/share/dbus-1/system.d/org.nimbos.hadrix.conf'
ACTIVATION = {name: f'usr/share/dbus-1/system-services/{name}.service'
              for name in (SERVER_NAME, HADRIX_BUS_NAME)}
UDEV_RULE = 'usr/lib/udev/rules.d/60-hadrix.rules'
TMPFILES = 'usr/lib/tmpfiles.d/hadrix.conf'
SYSUSERS = 'usr/lib/sysusers.d/hadrix.conf'
DATA_DIR = '/home/owner/apps_rw/hadrix/data'
SETTINGS_DIRS = ('/var/lib/nimbos/settings', '/run/nimbos/settings')
# The most `systemd-analyze security` may find the unit exposed (0 none, 10 all).
EXPOSURE_TARGET = 1.5
# Every file of the install with its mode.
INSTALLED = {
    'usr/libexec/hadrix': 0o755, 'usr/bin/hadrix-settings': 0o755, 'usr/bin/hadrixctl': 0o755,
    **{path: 0o644 for path in (UNIT, POLICY, *ACTIVATION.values(), UDEV_RULE, TMPFILES, SYSUSERS,
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
            [[name], [DAEMON], ['hadrix'], ['hadrix.service']]
    # The paths follow the prefix given at install time, not the one of the configure.
    other = install(tmp_path / 'opt', prefix='/opt/hadrix')
    assert ini_values(other / 'opt/hadrix/lib/systemd/system/hadrix.service', 'ExecStart') == \
        ['/opt/hadrix/libexec/hadrix']


def test_unit_verifies_and_gives_the_service_its_user_and_what_it_needs_alone(staged, tmp_path,
                                                                             capsys):
    # verify wants the ExecStart binary to exist: a copy of the unit runs the staged daemon.
    unit = tmp_path / 'hadrix.service'
    unit.write_text((staged / UNIT).read_text().replace(DAEMON, str(staged / DAEMON.lstrip('/'))))
    result = subprocess.run(['systemd-analyze', 'verify', '--man=no', str(unit)],
                            capture_output=True, text=True, timeout=50)
    assert result.returncode == 0 and 'hadrix' not in result.stderr, result.stderr
    security = subprocess.run(['systemd-analyze', 'security', '--offline=yes', '--no-pager',
                               str(unit)], capture_output=True, text=True, timeout=50)
    [overall] = [line for line in security.stdout.splitlines() if 'Overall exposure' in line]
    with capsys.disabled():
        print(f'\n{overall}')
    assert float(re.search(r': (\d+\.\d+)', overall).group(1)) <= EXPOSURE_TARGET, \
        security.stdout

    settings = {key: ' '.join(values) for key, values in unit_settings(unit).items()}
    # Its own user, CAP_SYSLOG (klogctl) and nothing else, the ALSA nodes through the audio group.
    expected = {'User': 'hadrix', 'SupplementaryGroups': 'audio nimbos-settings',
                'AmbientCapabilities': 'CAP_SYSLOG', 'CapabilityBoundingSet': 'CAP_SYSLOG',
                'DeviceAllow': 'char-alsa rw', 'Restart': 'on-failure', 'Type': 'dbus',
                'BusName': SERVER_NAME, 'PrivateTmp': 'no', 'LogsDirectory': 'hadrix'}
    assert {key: settings.get(key) for key in expected} == expected
    # The kernel log, udev over netlink in the host's namespace, the bus as the real user, the
    # start marker in the shared /tmp: none of these may be walled off.
    for key in ('ProtectKernelLogs', 'PrivateNetwork', 'PrivateUsers', 'DynamicUser'):
        assert settings.get(key, 'no') == 'no', key
    assert 'AF_NETLINK' in settings['RestrictAddressFamilies'].split()
    assert 'syslog' in settings['SystemCallFilter'].split()
    assert int(settings['WatchdogSec']) > 5
    # It sees the sound nodes and its data directory, and writes to /tmp and the settings store.
    assert {'/dev/snd', DATA_DIR} <= set(settings['BindPaths'].split())
    assert {'/tmp', *SETTINGS_DIRS} <= set(settings['ReadWritePaths'].split())


def test_sysusers_and_tmpfiles_entries_make_the_user_and_its_directories(staged, tmp_path):
    """Applied to an empty root, as the package's postinst applies them to the system."""
    (tmp_path / 'etc').mkdir()
    for tool in (['systemd-sysusers', f'--root={tmp_path}', str(staged / SYSUSERS)],
                 ['systemd-tmpfiles', f'--root={tmp_path}', '--create', str(staged / TMPFILES)]):
        subprocess.run(tool, check=True, capture_output=True, text=True, timeout=30)
    users = {line.split(':')[0]: int(line.split(':')[2])
             for line in (tmp_path / 'etc/passwd').read_text().splitlines()}
    groups = {line.split(':')[0]: int(line.split(':')[2])
              for line in (tmp_path / 'etc/group').read_text().splitlines()}

    def owned(path):
        st = (tmp_path / path.lstrip('/')).stat()
        return st.st_uid, st.st_gid, stat.S_IMODE(st.st_mode)
    assert owned(DATA_DIR) == (users['hadrix'], groups['hadrix'], 0o750)
    for directory in SETTINGS_DIRS:
        assert owned(directory) == (0, groups['nimbos-settings'], 0o2775), directory


def gdbus(address, dest, path, method, *arguments, user=None):
    """gdbus call, as `user` (a uid) if given: (exit status, output)."""
    def drop_privileges():
        os.setgroups([])
        os.setgid(user)
        os.setuid(user)
    result = subprocess.run(['gdbus', 'call', '--address', address, '--dest', dest,
                             '--object-path', path, '--method', method, *arguments],
                            preexec_fn=drop_privileges if user else None, capture_output=True,
                            text=True, timeout=20)
    return result.returncode, result.stdout + result.stderr


@pytest.mark.skipif(os.geteuid() != 0, reason='the policy names root: needs root to test')
def test_policy_lets_only_the_service_user_own_the_names_and_anyone_call_the_api(staged,
                                                                                 socket_dir,
                                                                                 daemon):
    """The service, as its user (simtv.account), on a bus with the system bus's default rules
    plus the policy; the user's stand-in takes its name in a copy of the policy."""
    directory = socket_dir.path
    directory.chmod(0o755)  # a short path the unprivileged programs can reach
    root = HadrixRoot(directory / 'root')
    account = ServiceAccount(root)
    policy = (staged / POLICY).read_text()
    assert policy.count(f'<policy user="{account.name}">') == 1
    (directory / 'policy.conf').write_text(
        policy.replace(f'<policy user="{account.name}">', f'<policy user="{account.uid}">'))
    (directory / 'bus.conf').write_text(restricted_config(f'unix:path={directory / "bus"}',
                                                          directory / 'policy.conf'))
    bus = subprocess.Popen(['dbus-daemon', f'--config-file={directory / "bus.conf"}', '--nofork',
                            '--print-address=1'], stdout=subprocess.PIPE, text=True)
    try:
        address = bus.stdout.readline().strip()
        assert address, 'dbus-daemon refused the configuration'
        (directory / 'bus').chmod(0o777)
        hadrix = daemon.start(env={'DBUS_SYSTEM_BUS_ADDRESS': address, **root.env()},
                              command=account.command(), ready=False)
        for name in (SERVER_NAME, HADRIX_BUS_NAME):
            wait_until(lambda: gdbus(address, 'org.freedesktop.DBus', '/org/freedesktop/DBus',
                                     'org.freedesktop.DBus.GetNameOwner', name)[0] == 0,
                       timeout=10, what=f'the service\'s user owning {name}')
        someone = pwd.getpwnam('daemon').pw_uid  # any other user
        request_name = ('org.freedesktop.DBus', '/org/freedesktop/DBus',
                        'org.freedesktop.DBus.RequestName', SERVER_NAME, 'uint32 4')
        launch = (HADRIX_BUS_NAME, '/org/nimbos/AppControl', 'org.nimbos.AppControl.Launch',
                  'default', '[]')
        for user, arguments, allowed, out in [
                (someone, request_name, False, 'AccessDenied'),
                (0, request_name, False, 'AccessDenied'),
                (someone, (SERVER_NAME, SERVER_PATH, f'{SERVER_IFACE}.check_dbus_connection',
                           'player'), True, "('objplayer',)"),
                (someone, (SERVER_NAME, '/org/nimbos/hadrix/Diagnostics',
                           'org.nimbos.hadrix.Diagnostics.GetHistory', 'uint32 5'), True,
                 '(@aa{sv} [],)'),
                # Launch requests carry debug commands: root only.
                (someone, launch, False, 'AccessDenied'),
                (0, launch, True, '()')]:
            status, output = gdbus(address, *arguments, user=user)
            assert (status == 0) == allowed and out in output, (user, arguments, output)
        hadrix.wait_for_log('service_app_control')
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
    assert {'dbus', 'systemd', 'libglib2.0-0', 'libasound2', 'libudev1', 'libsystemd0'} <= \
        {d.split()[0] for d in control['Depends'].split(', ')}
    assert 'postinst' in dpkg_deb('-I') and 'postrm' in dpkg_deb('-I')
    # The packaged unit runs the packaged daemon.
    subprocess.run(['dpkg-deb', '-x', str(deb), str(tmp_path / 'root')], check=True)
    assert ini_values(tmp_path / 'root' / UNIT, 'ExecStart') == [DAEMON]
