"""A private system bus per test, and python-dbusmock services on it."""
import select
import subprocess
import sys

import dbus
import dbusmock

from . import paths
from .wait import Deadline, WaitTimeout, wait_until

_CONFIG = '''<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>{address}</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_destination="*" eavesdrop="true"/>
    <allow receive_sender="*"/>
    <allow eavesdrop="true"/>
  </policy>
</busconfig>
'''

# A system bus's default rules, as the machine's own system bus has them (nobody owns a name or
# calls a method unless a policy file allows it), and one policy file included.
_RESTRICTED_CONFIG = '''<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>{address}</listen>
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


def restricted_config(address, policy):
    """The configuration of a bus at `address` with the system bus's default rules and the
    policy file `policy`."""
    return _RESTRICTED_CONFIG.format(address=address, policy=policy)


def stop_process(proc, timeout=5.0):
    """Terminates a child of ours, killing it if it does not go; returns its status."""
    if proc.poll() is None:
        proc.terminate()
        try:
            proc.wait(timeout)
        except subprocess.TimeoutExpired:
            proc.kill()
            proc.wait()
    return proc.returncode


def plain(value):
    """dbus-python values as plain Python values (Struct -> tuple, Array -> list, ...)."""
    if isinstance(value, dbus.Boolean):
        return bool(value)
    if isinstance(value, (dbus.String, dbus.ObjectPath, dbus.Signature)):
        return str(value)
    if isinstance(value, (dbus.Byte, dbus.Int16, dbus.Int32, dbus.Int64, dbus.UInt16,
                          dbus.UInt32, dbus.UInt64)):
        return int(value)
    if isinstance(value, dbus.Double):
        return float(value)
    if isinstance(value, dbus.Struct):
        return tuple(plain(item) for item in value)
    if isinstance(value, (dbus.Array, list)):
        return [plain(item) for item in value]
    if isinstance(value, (dbus.Dictionary, dict)):
        return {plain(key): plain(item) for key, item in value.items()}
    return value


class SystemBus:
    """A dbus-daemon as system bus, listening in `socket_dir`: permissive, or with `policy` (a
    D-Bus policy file) the system bus's default rules and that policy, reachable by any user."""

    def __init__(self, socket_dir, work_dir, timeout=10.0, policy=None):
        self._socket = socket_dir / 'system_bus_socket'
        self.address = f'unix:path={self._socket}'
        self.config = work_dir / 'system-bus.conf'
        self.config.write_text(restricted_config(self.address, policy) if policy else
                               _CONFIG.format(address=self.address))
        self.logfile = work_dir / 'dbus-daemon.log'
        self._for_everyone = bool(policy)
        if self._for_everyone:
            socket_dir.path.chmod(0o755)
        self._connections = []
        self._start(timeout)

    def _start(self, timeout):
        self._log = open(self.logfile, 'a')
        self.proc = subprocess.Popen(
            ['dbus-daemon', f'--config-file={self.config}', '--nofork', '--print-address=1'],
            stdout=subprocess.PIPE, stderr=self._log, stdin=subprocess.DEVNULL)
        try:
            self._wait_ready(timeout)
        except BaseException:
            self.stop()
            raise
        if self._for_everyone:
            self._socket.chmod(0o777)

    def restart(self, timeout=10.0):
        """Stops the bus and starts a new one at the same address, as a restart of the system
        bus does: every connection to the old one is lost."""
        self.stop()
        self._start(timeout)

    def _wait_ready(self, timeout):
        deadline = Deadline(timeout)
        ready, _, _ = select.select([self.proc.stdout], [], [], deadline.remaining())
        if not ready or not self.proc.stdout.readline().strip():
            raise WaitTimeout(f'dbus-daemon did not report its address within {timeout:g} s '
                              f'(exit status {self.proc.poll()})')

    def connect(self):
        """A new blocking connection of the test to this bus, closed at teardown."""
        connection = dbus.bus.BusConnection(self.address)
        self._connections.append(connection)
        return connection

    def has_owner(self, name):
        return self.connect_shared().name_has_owner(name)

    def connect_shared(self):
        if not self._connections:
            self.connect()
        return self._connections[0]

    def wait_for_name(self, name, timeout=10.0):
        wait_until(lambda: self.has_owner(name), timeout, what=f'{name} on the system bus')

    def report(self):
        """The bus's own messages, for a failure report (running unprivileged is not news)."""
        lines = [line for line in self.logfile.read_text().splitlines()
                 if 'Failed to set fd limit' not in line]
        return [('dbus-daemon', '\n'.join(lines))] if lines else []

    def stop(self):
        for connection in self._connections:
            connection.close()
        self._connections.clear()
        status = stop_process(self.proc)
        self.proc.stdout.close()
        self._log.close()
        return status


class MockService:
    """One python-dbusmock process on the bus, loaded with a template of templates/."""

    def __init__(self, bus, env, work_dir, template, parameters=None, name=None, timeout=10.0):
        module = dbusmock.mockobject.load_module(str(paths.template(template)))
        self.name = name or module.BUS_NAME
        self.path = module.MAIN_OBJ
        self.interface = module.MAIN_IFACE
        self.bus = bus
        if bus.has_owner(self.name):
            raise AssertionError(f'{self.name} is already owned on the test bus')
        self.logfile = work_dir / f'mock-{self.name}.log'
        self._output = open(work_dir / f'mock-{self.name}.out', 'w')
        self.proc = subprocess.Popen(
            [sys.executable, '-m', 'dbusmock', '--system', '-l', str(self.logfile),
             self.name, self.path, self.interface],
            env=env, stdout=self._output, stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL)
        try:
            wait_until(lambda: self.proc.poll() is not None or bus.has_owner(self.name), timeout,
                       what=f'mock {self.name} on the bus')
            if self.proc.poll() is not None:
                raise AssertionError(f'mock {self.name} exited with {self.proc.returncode}; see '
                                     f'{self._output.name}')
            self.obj = bus.connect_shared().get_object(self.name, self.path)
            self.mock = dbus.Interface(self.obj, dbusmock.MOCK_IFACE)
            self.mock.AddTemplate(str(paths.template(template)),
                                  dbus.Dictionary(parameters or {}, signature='sv'))
        except BaseException:
            self.stop()
            raise

    def calls(self, method=None):
        """[(method, [args...])] in the order received, as plain Python values."""
        return [(str(name), plain(args)) for _, name, args in self.mock.GetCalls()
                if method is None or name == method]

    def wait_for_calls(self, method, count=1, timeout=5.0):
        return wait_until(lambda: len(self.calls(method)) >= count and self.calls(method),
                          timeout, what=f'{count} call(s) of {method} on {self.name}')

    def call(self, method, *args):
        """Calls a method of the mock's own interface, as another peer on the bus would."""
        return getattr(self.obj, method)(*args, dbus_interface=self.interface)

    def clear_calls(self):
        self.mock.ClearCalls()

    def stop(self):
        status = stop_process(self.proc)
        self._output.close()
        return status


HADRIX_BUS_NAME = 'org.nimbos.hadrix'
VOLUME_APP = 'org.nimbos.volume-app'
APP_CONTROL_PATH = '/org/nimbos/AppControl'
APP_CONTROL_IFACE = 'org.nimbos.AppControl'


def launch(connection, app_id, operation='default', extra=(), signature='sa(ss)', args=None,
           timeout=5.0):
    """Calls Launch on an application; `signature` and `args` replace the proper arguments
    when a test sends malformed ones."""
    if args is None:
        args = [operation, dbus.Array([dbus.Struct(pair, signature='ss') for pair in extra],
                                      signature='(ss)')]
    return connection.call_blocking(app_id, APP_CONTROL_PATH, APP_CONTROL_IFACE, 'Launch',
                                    signature, args, timeout=timeout)


class Mocks:
    """python-dbusmock services of templates/ on the test's bus."""

    def __init__(self, bus, child_env, work_dir):
        self.bus = bus
        self.child_env = child_env
        self.work_dir = work_dir
        self.started = []

    def spawn(self, template, parameters=None, name=None):
        mock = MockService(self.bus, self.child_env.for_peer(), self.work_dir, template,
                           parameters, name)
        self.started.append(mock)
        return mock

    def app(self, app_id=VOLUME_APP, **parameters):
        """An application serving Launch under `app_id`."""
        return self.spawn('app', dict(parameters, app_id=app_id), name=app_id)

    def report(self):
        return [(f'mock {mock.name} calls', mock.logfile.read_text())
                for mock in self.started if mock.logfile.exists()]

    def stop(self):
        for mock in self.started:
            mock.stop()
