"""Installing hadrix as a system service: what `cmake --install` and the Debian package put on
the system, and whether systemd, the D-Bus daemon and udev accept those files.

These tests need no device emulation: they stage installs into temporary roots and check the
files with the system's own tools.
"""
import os
import re
import shutil
import stat
import subprocess
import threading
from pathlib import Path

import pytest
from gi.repository import Gio, GLib

from simtv import paths
from simtv.client_api import SERVER_IFACE, SERVER_PATH

PREFIX = '/usr'
DAEMON = f'{PREFIX}/libexec/hadrix'
UNIT = 'usr/lib/systemd/system/hadrix.service'
POLICY = 'usr/share/dbus-1/system.d/org.nimbos.hadrix.conf'
ACTIVATION = {
    'org.nimbos.hadrix.server': 'usr/share/dbus-1/system-services/org.nimbos.hadrix.server.service',
    'org.nimbos.hadrix': 'usr/share/dbus-1/system-services/org.nimbos.hadrix.service',
}
UDEV_RULE = 'usr/lib/udev/rules.d/60-hadrix.rules'
TMPFILES = 'usr/lib/tmpfiles.d/hadrix.conf'

# Every file of the install with its mode.
INSTALLED = {
    'usr/libexec/hadrix': 0o755,
    'usr/bin/hadrix-settings': 0o755,
    'usr/bin/hadrixctl': 0o755,
    UNIT: 0o644,
    POLICY: 0o644,
    **{path: 0o644 for path in ACTIVATION.values()},
    UDEV_RULE: 0o644,
    TMPFILES: 0o644,
    'usr/share/doc/hadrix/README.md': 0o644,
    'usr/share/doc/hadrix/dbus-api.md': 0o644,
    **{f'usr/apps/hadrix/res/locale/{language}/LC_MESSAGES/hadrix.mo': 0o644
       for language in ('en', 'de', 'fr')},
    'usr/apps/hadrix/shared/res/img_usb_port_guide.svg': 0o644,
}


def install(destdir, prefix=PREFIX):
    """`cmake --install` of the service's component into destdir; returns destdir."""
    build = paths.build_dir()
    if not (build / 'cmake_install.cmake').is_file():
        pytest.fail(f'{build} is not a configured build directory', pytrace=False)
    env = dict(os.environ, DESTDIR=str(destdir))
    subprocess.run(['cmake', '--install', str(build), '--prefix', prefix, '--component', 'hadrix'],
                   env=env, check=True, capture_output=True, text=True, timeout=50)
    return Path(destdir)


@pytest.fixture(scope='module')
def staged(tmp_path_factory):
    return install(tmp_path_factory.mktemp('stage'))


def ini_values(path, key):
    return [line.split('=', 1)[1] for line in path.read_text().splitlines()
            if line.startswith(key + '=')]


def test_install_puts_every_file_in_place_with_its_mode(staged):
    found = {str(p.relative_to(staged)): stat.S_IMODE(p.stat().st_mode)
             for p in staged.rglob('*') if p.is_file()}
    assert found == INSTALLED
    assert (staged / DAEMON.lstrip('/')).read_bytes()[:4] == b'\x7fELF'


def test_service_files_name_the_daemon_under_the_install_prefix(staged, tmp_path):
    assert ini_values(staged / UNIT, 'ExecStart') == [DAEMON]
    assert ini_values(staged / UNIT, 'BusName') == ['org.nimbos.hadrix.server']
    for name, path in ACTIVATION.items():
        activation = staged / path
        assert ini_values(activation, 'Name') == [name]
        assert ini_values(activation, 'Exec') == [DAEMON]
        assert ini_values(activation, 'User') == ['root']
        assert ini_values(activation, 'SystemdService') == ['hadrix.service']

    # The paths follow the prefix given at install time, not the one of the configure.
    other = install(tmp_path / 'opt', prefix='/opt/hadrix')
    assert ini_values(other / 'opt/hadrix/lib/systemd/system/hadrix.service', 'ExecStart') == \
        ['/opt/hadrix/libexec/hadrix']


def test_unit_passes_systemd_analyze_verify(staged, tmp_path):
    # verify wants the ExecStart binary to exist: a copy of the unit runs the staged daemon.
    unit = tmp_path / 'hadrix.service'
    unit.write_text((staged / UNIT).read_text().replace(DAEMON, str(staged / DAEMON.lstrip('/'))))
    result = subprocess.run(['systemd-analyze', 'verify', '--man=no', str(unit)],
                            capture_output=True, text=True, timeout=50)
    findings = [line for line in result.stderr.splitlines() if 'hadrix' in line]
    assert result.returncode == 0 and not findings, result.stderr


def test_unit_allows_what_the_service_needs(staged):
    unit = (staged / UNIT).read_text()
    settings = dict(line.split('=', 1) for line in unit.splitlines()
                    if '=' in line and not line.startswith('#'))
    # klogctl, the ALSA nodes, udev over netlink, the 5 s heartbeat within the watchdog period.
    assert 'CAP_SYSLOG' in settings['CapabilityBoundingSet'].split()
    assert settings.get('ProtectKernelLogs', 'no') == 'no'
    assert settings['DeviceAllow'] == 'char-alsa rw'
    assert 'AF_NETLINK' in settings['RestrictAddressFamilies'].split()
    assert 'syslog' in settings['SystemCallFilter'].split()
    assert int(settings['WatchdogSec']) > 5
    assert settings['Restart'] == 'on-failure'
    assert settings['Type'] == 'dbus'
    # The places it writes: /tmp (shared, the start marker outlives the unit), its data
    # directory, the settings store and the KPI log.
    writable = settings['ReadWritePaths'].split()
    assert '/tmp' in writable and settings['PrivateTmp'] == 'no'
    assert '-/home/owner/apps_rw/hadrix' in writable
    assert settings['StateDirectory'] == 'nimbos/settings'
    assert settings['RuntimeDirectory'] == 'nimbos/settings'
    assert settings['LogsDirectory'] == 'hadrix'
    entries = [line.split() for line in (staged / TMPFILES).read_text().splitlines()
               if line and not line.startswith('#')]
    assert [entry[:2] for entry in entries] == [['d', '/home/owner/apps_rw/hadrix/data']]


class PolicyBus:
    """A dbus-daemon with the system bus's default rules plus the installed policy."""

    CONFIG = '''<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>unix:path={socket}</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <deny own="*"/>
    <deny send_type="method_call"/>
    <allow send_type="signal"/>
    <allow send_requested_reply="true" send_type="method_return"/>
    <allow send_requested_reply="true" send_type="error"/>
    <allow receive_type="method_call"/>
    <allow receive_type="method_return"/>
    <allow receive_type="error"/>
    <allow receive_type="signal"/>
    <allow send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus"/>
  </policy>
  <include>{policy}</include>
</busconfig>
'''

    def __init__(self, policy, directory):
        # A short path (socket names are limited) that the unprivileged client can reach.
        directory.chmod(0o755)
        socket = directory / 'bus'
        config = directory / 'bus.conf'
        config.write_text(self.CONFIG.format(socket=socket, policy=policy))
        self.process = subprocess.Popen(
            ['dbus-daemon', f'--config-file={config}', '--nofork', '--print-address=1'],
            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        self.address = self.process.stdout.readline().strip()
        if not self.address:
            self.process.wait(timeout=10)
            pytest.fail(f'dbus-daemon refused the configuration: {self.process.stderr.read()}',
                        pytrace=False)
        socket.chmod(0o777)

    def stop(self):
        self.process.terminate()
        self.process.wait(timeout=10)


def gdbus_as_nobody(address, *arguments):
    """gdbus call as the unprivileged user: (exit status, output)."""
    def drop_privileges():
        os.setgid(65534)
        os.setuid(65534)
    result = subprocess.run(['gdbus', 'call', '--address', address, *arguments],
                            preexec_fn=drop_privileges, capture_output=True, text=True, timeout=20)
    return result.returncode, result.stdout + result.stderr


class ApiStandIn:
    """Owns the service's names as root and answers check_dbus_connection like the service."""

    XML = f'''<node><interface name="{SERVER_IFACE}">
      <method name="check_dbus_connection"><arg type="s" direction="in"/>
        <arg type="s" direction="out"/></method></interface></node>'''

    def __init__(self, address):
        self.context = GLib.MainContext.new()
        self.loop = GLib.MainLoop.new(self.context, False)
        self.context.push_thread_default()
        try:
            self.connection = Gio.DBusConnection.new_for_address_sync(
                address, Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT
                | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION, None, None)
            info = Gio.DBusNodeInfo.new_for_xml(self.XML).interfaces[0]
            self.connection.register_object(SERVER_PATH, info, self._call, None, None)
        finally:
            self.context.pop_thread_default()
        self.thread = threading.Thread(target=self._run, daemon=True)
        self.thread.start()

    def _run(self):
        self.context.push_thread_default()
        self.loop.run()

    @staticmethod
    def _call(connection, sender, path, interface, method, parameters, invocation):
        invocation.return_value(GLib.Variant('(s)', ('obj' + parameters.unpack()[0],)))

    def own(self, name):
        reply = self.connection.call_sync(
            'org.freedesktop.DBus', '/org/freedesktop/DBus', 'org.freedesktop.DBus',
            'RequestName', GLib.Variant('(su)', (name, 4)), None, Gio.DBusCallFlags.NONE, 5000,
            None)
        return reply.unpack()[0]

    def stop(self):
        self.loop.quit()
        self.thread.join(timeout=10)
        self.connection.close_sync(None)


@pytest.mark.skipif(os.geteuid() != 0, reason='the policy names root: needs root to test')
def test_policy_lets_only_root_own_the_names_and_anyone_call_the_api(staged, socket_dir):
    bus = PolicyBus(staged / POLICY, socket_dir.path)
    service = ApiStandIn(bus.address)
    try:
        # Root owns both names (1: primary owner).
        assert service.own('org.nimbos.hadrix.server') == 1
        assert service.own('org.nimbos.hadrix') == 1

        rc, out = gdbus_as_nobody(bus.address, '--dest', 'org.freedesktop.DBus',
                                  '--object-path', '/org/freedesktop/DBus',
                                  '--method', 'org.freedesktop.DBus.RequestName',
                                  'org.nimbos.hadrix.server', 'uint32 4')
        assert rc != 0 and 'AccessDenied' in out, out

        rc, out = gdbus_as_nobody(bus.address, '--dest', 'org.nimbos.hadrix.server',
                                  '--object-path', SERVER_PATH,
                                  '--method', f'{SERVER_IFACE}.check_dbus_connection', 'player')
        assert rc == 0 and "('objplayer',)" in out, out

        # Launch requests carry debug commands: root only.
        rc, out = gdbus_as_nobody(bus.address, '--dest', 'org.nimbos.hadrix',
                                  '--object-path', '/org/nimbos/AppControl',
                                  '--method', 'org.nimbos.AppControl.Launch', 'default', '[]')
        assert rc != 0 and 'AccessDenied' in out, out
    finally:
        service.stop()
        bus.stop()


# One udev rule: comma-separated KEY{attribute}OP"value" items; match keys compare (== !=),
# the others assign (= += -= :=).
UDEV_ITEM = re.compile(r'\s*([A-Z_]+)(\{[^}]+\})?\s*(==|!=|\+=|-=|:=|=)\s*"([^"]*)"\s*')
UDEV_MATCH_KEYS = {'ACTION', 'SUBSYSTEM', 'SUBSYSTEMS', 'KERNEL', 'KERNELS', 'ATTR', 'ATTRS',
                   'ENV', 'TAG', 'DRIVER', 'DRIVERS', 'DEVPATH'}
UDEV_ASSIGN_KEYS = {'TAG', 'ENV', 'RUN', 'SYMLINK', 'OWNER', 'GROUP', 'MODE'}


def udev_rules(text):
    for line in text.splitlines():
        if line.strip() and not line.lstrip().startswith('#'):
            yield [UDEV_ITEM.fullmatch(item) for item in line.split(',')]


def test_udev_rule_starts_the_service_for_usb_sound_cards(staged):
    rules = list(udev_rules((staged / UDEV_RULE).read_text()))
    assert len(rules) == 1 and all(rules[0]), rules
    items = [(m[1], m[2], m[3], m[4]) for m in rules[0]]
    for key, _, op, _ in items:
        assert key in (UDEV_MATCH_KEYS if op in ('==', '!=') else UDEV_ASSIGN_KEYS), key
    assert ('SUBSYSTEM', None, '==', 'sound') in items
    assert ('SUBSYSTEMS', None, '==', 'usb') in items
    assert ('TAG', None, '+=', 'systemd') in items
    assert ('ENV', '{SYSTEMD_WANTS}', '+=', 'hadrix.service') in items


def test_udev_rule_passes_udevadm_verify(staged):
    udevadm = shutil.which('udevadm')
    if not udevadm or subprocess.run([udevadm, 'verify', '--help'],
                                     capture_output=True).returncode != 0:
        pytest.skip('udevadm verify needs udev 254 or later')
    result = subprocess.run([udevadm, 'verify', str(staged / UDEV_RULE)],
                            capture_output=True, text=True, timeout=30)
    assert result.returncode == 0, result.stdout + result.stderr


def test_debian_package_holds_the_install_and_its_dependencies(tmp_path):
    build = paths.build_dir()
    result = subprocess.run(['cpack', '-G', 'DEB', '--config', str(build / 'CPackConfig.cmake'),
                             '-B', str(tmp_path)], capture_output=True, text=True, timeout=55)
    assert result.returncode == 0, result.stdout + result.stderr
    [deb] = tmp_path.glob('hadrix_*.deb')

    listing = subprocess.run(['dpkg-deb', '-c', str(deb)], capture_output=True, text=True,
                             check=True).stdout
    modes = {}
    for line in listing.splitlines():
        permissions, _, _, _, _, name = line.split(None, 5)
        if not permissions.startswith('d'):
            modes[name.removeprefix('./')] = permissions
    assert set(modes) == set(INSTALLED)
    assert modes['usr/libexec/hadrix'] == '-rwxr-xr-x'
    assert modes[UNIT] == '-rw-r--r--'

    def field(name):
        return subprocess.run(['dpkg-deb', '-f', str(deb), name], capture_output=True,
                              text=True, check=True).stdout.strip()
    assert field('Package') == 'hadrix'
    depends = {d.split()[0] for d in field('Depends').split(', ')}
    assert {'dbus', 'libglib2.0-0', 'libasound2', 'libudev1', 'libsystemd0'} <= depends
    control = subprocess.run(['dpkg-deb', '-I', str(deb)], capture_output=True, text=True,
                             check=True).stdout
    assert 'postinst' in control and 'postrm' in control

    # The packaged unit runs the packaged daemon.
    unpacked = tmp_path / 'root'
    subprocess.run(['dpkg-deb', '-x', str(deb), str(unpacked)], check=True)
    assert ini_values(unpacked / UNIT, 'ExecStart') == [DAEMON]
