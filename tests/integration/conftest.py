"""Fixtures of the integration tests: the real programs of the build against a private system
bus, mocked platform services and a private file-system root, one set per test.

Every fixture that changes how the programs start sets variables or preload libraries on
`child_env`; every program started through `launcher` gets the result.
"""
import json
import os
import sys
from pathlib import Path

sys.dont_write_bytecode = True  # the source tree may be read-only
# The simulated TV platform (tools/tvsim/simtv) the programs run on.
sys.path.insert(0, str(Path(__file__).resolve().parents[2] / 'tools' / 'tvsim'))

import pytest  # noqa: E402

from simtv import paths  # noqa: E402
from simtv.alsa_card import EmulatedCard  # noqa: E402
from simtv.bus import Mocks, SystemBus  # noqa: E402
from simtv.client_api import SERVER_IFACE, SERVER_NAME, SERVER_PATH  # noqa: E402
from simtv.daemon import Daemons, Launcher  # noqa: E402
from simtv.devices import CATALOGUE, plug  # noqa: E402
from simtv.env import ChildEnv  # noqa: E402
from simtv.klog import KernelLog  # noqa: E402
from simtv.locales import MissingLocales, compile_locales  # noqa: E402
from simtv.platform import PlatformServices  # noqa: E402
from simtv.observer import SignalObserver  # noqa: E402
from simtv.root import HadrixRoot  # noqa: E402
from simtv.testbed import Testbed  # noqa: E402

_reporters = pytest.StashKey[list]()

# Tests that may be skipped, by node id, each with the reason. Any other skip fails the run: a
# test that silently does not run proves nothing.
ALLOWED_SKIPS = {
    'test_packaging.py::test_policy_lets_only_the_service_user_own_the_names_and_anyone_call_the_api':
        'only a run as root can start the service and its clients as other users',
    'test_unprivileged.py::test_as_its_own_user_with_cap_syslog_alone_the_service_does_its_work':
        'only a run as root can start the service as another user',
    'test_unprivileged.py::test_without_cap_syslog_the_refused_kernel_log_is_said_once_and_the_'
    'service_carries_on':
        'only a run as root can start the service as another user; with kernel.dmesg_restrict 0 '
        'the kernel lets every user read its log',
    'test_client_api.py::test_an_unprivileged_caller_cannot_grow_the_subscriber_table_past_its_bound':
        'only a run as root can run the caller as nobody',
    'test_lifecycle.py::test_a_start_marker_planted_by_someone_else_is_replaced_and_the_first_start_recovers'
    '[foreign-file]': 'only root can give a file to another user',
}


def pytest_configure(config):
    config.addinivalue_line('markers', 'service_policy: the system bus applies the service\'s own '
                                       'D-Bus policy (see the system_bus fixture)')
    if not config.pluginmanager.hasplugin('timeout'):
        raise pytest.UsageError('the integration tests need pytest-timeout '
                                '(Debian package python3-pytest-timeout)')


@pytest.hookimpl(trylast=True)
def pytest_sessionfinish(session, exitstatus):
    reporter = session.config.pluginmanager.get_plugin('terminalreporter')
    if reporter is None:
        return
    unlisted = [report.nodeid for report in reporter.stats.get('skipped', [])
                if report.nodeid not in ALLOWED_SKIPS]
    if unlisted:
        reporter.write_line('skipped tests not listed in conftest.ALLOWED_SKIPS: '
                            + ', '.join(unlisted), red=True)
        session.exitstatus = pytest.ExitCode.TESTS_FAILED


def add_reporter(request, reporter):
    """Registers a callable returning [(title, text)] shown when the test fails."""
    request.node.stash.setdefault(_reporters, []).append(reporter)


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    outcome = yield
    report = outcome.get_result()
    if report.failed:
        for reporter in item.stash.get(_reporters, []):
            for title, text in reporter():
                report.sections.append((title, text))


def program(name):
    try:
        return paths.program(name)
    except paths.MissingProgram as exc:
        missing = str(exc)
    pytest.fail(missing, pytrace=False)


@pytest.fixture
def socket_dir():
    directory = paths.SocketDir()
    yield directory
    directory.remove()


# The service's own D-Bus policy, which a test marked "service_policy" gets on its bus.
SERVICE_POLICY = paths.REPO / 'data' / 'org.nimbos.hadrix.conf'


def service_policy_for_this_user(tmp_path):
    """A copy of the service's policy in which the user the tests run the service as stands in
    for the service's own user."""
    policy = SERVICE_POLICY.read_text()
    assert policy.count('<policy user="hadrix">') == 1
    copy = tmp_path / 'service-policy.conf'
    copy.write_text(policy.replace('<policy user="hadrix">', f'<policy user="{os.getuid()}">'))
    return copy


@pytest.fixture
def system_bus(socket_dir, tmp_path, request):
    """A permissive bus; with the mark "service_policy", one with the system bus's default rules
    and the service's own policy, which every user can reach (and no mock can own a name on)."""
    marked = request.node.get_closest_marker('service_policy')
    policy = service_policy_for_this_user(tmp_path) if marked else None
    bus = SystemBus(socket_dir, tmp_path, policy=policy)
    add_reporter(request, bus.report)
    yield bus
    bus.stop()


@pytest.fixture
def hadrix_root(tmp_path):
    """The test's root, with the build's application files when they are built."""
    root = HadrixRoot(tmp_path / 'root')
    try:
        root.install_app_files(paths.app_files())
    except paths.MissingProgram:
        pass
    return root


@pytest.fixture
def app_files(hadrix_root):
    try:
        paths.app_files()
    except paths.MissingProgram as exc:
        pytest.fail(str(exc), pytrace=False)
    return hadrix_root / '/usr/apps/hadrix'


@pytest.fixture
def child_env(system_bus, hadrix_root):
    env = ChildEnv()
    env.set('DBUS_SYSTEM_BUS_ADDRESS', system_bus.address)
    for key, value in hadrix_root.env().items():
        env.set(key, value)
    return env


@pytest.fixture
def launcher(child_env, tmp_path, request):
    launcher = Launcher(child_env, tmp_path)
    add_reporter(request, launcher.report)
    yield launcher
    problems = launcher.reap()
    if problems:
        pytest.fail(f'crashed or reported by a sanitizer: {", ".join(problems)}', pytrace=False)


@pytest.fixture
def daemon(launcher, system_bus):
    return Daemons(launcher, system_bus)


@pytest.fixture
def mocks(system_bus, child_env, tmp_path, request):
    mocks = Mocks(system_bus, child_env, tmp_path)
    add_reporter(request, mocks.report)
    yield mocks
    mocks.stop()


@pytest.fixture
def bus_signals(system_bus, request):
    """The audio-server and speaker-manager signals ("Start", "Stop", "SpkDisconnected")."""
    observer = SignalObserver(system_bus.address)
    add_reporter(request, observer.report)
    yield observer
    observer.stop()


class Tool:
    """Runs a program of the build to its end with the test's environment."""

    def __init__(self, launcher, name):
        self.launcher = launcher
        self.path = program(name)

    def __call__(self, *args, env=None, timeout=10.0):
        return self.launcher.run(self.path, args, env, timeout)

    def lines(self, *args):
        """Runs one command that succeeds or reports a failure (exit status 0 or 1); returns
        (exit status, stdout lines)."""
        result = self(*args)
        assert result.returncode in (0, 1), result.stderr
        return result.returncode, result.stdout.splitlines()


@pytest.fixture
def settings_cli(launcher):
    return Tool(launcher, 'hadrix-settings')


@pytest.fixture
def hadrixctl(launcher):
    return Tool(launcher, 'hadrixctl')


@pytest.fixture
def kernel_log(child_env, tmp_path):
    """The kernel log the programs read through the klogctl shim, empty at first."""
    log = KernelLog(tmp_path / 'kernel.log')
    child_env.set('HADRIX_FAKE_KLOG', log.path)
    child_env.preload(program('hadrix-klog-shim'))
    return log


# The menu languages tests switch the service to.
TEST_LOCALES = ('en_US.UTF-8', 'de_DE.UTF-8', 'fr_FR.UTF-8')


@pytest.fixture(scope='session')
def compiled_locales(tmp_path_factory):
    try:
        return compile_locales(tmp_path_factory.mktemp('locales'), TEST_LOCALES)
    except MissingLocales as exc:
        pytest.fail(str(exc), pytrace=False)


@pytest.fixture
def menu_language(compiled_locales, child_env, hadrix_root):
    """menu_language('de_DE.UTF-8') stores the TV's menu language, one of TEST_LOCALES; the
    programs started afterwards find its locale (LOCPATH)."""
    child_env.set('LOCPATH', compiled_locales)

    def choose(name):
        assert name in TEST_LOCALES, f'{name} is not compiled for the tests'
        hadrix_root.set_setting('db/menu_widget/language', name)
    return choose


@pytest.fixture
def testbed(child_env):
    bed = Testbed()
    for key, value in bed.env().items():
        child_env.set(key, value)
    yield bed
    bed.close()


@pytest.fixture
def platform_services(mocks):
    return lambda **options: PlatformServices(mocks.spawn, **options)


# Kernel-log time stamps, in seconds after boot: a device found while booting, one the viewer
# plugged later.
AT_BOOT = 3.5
LATER = 120.0
DATA_DIR = '/home/owner/apps_rw/hadrix/data'
USB_AUDIO_MODE = f'{DATA_DIR}/USB_AUDIO_mode'
SUBSCRIBER_FILE = f'{DATA_DIR}/.subscriber'
DEPOT = f'{DATA_DIR}/devices.depot'
DECISIONS = f'{DATA_DIR}/decisions.json'
KPI_FILE = '/var/log/hadrix/kpi.jsonl'
LEVEL_KEY = 'db/hadrix/volume_level'
MUTE_KEY = 'db/hadrix/volume_mute_status'
USB_HEADSET_ROUTE = 15


class Tv:
    """A TV whose kernel log shows a normal boot; `start` brings up its platform services and
    the service, `plug`/`unplug` are the viewer's."""

    def __init__(self, platform_services, kernel_log, testbed, system_bus, daemon, hadrix_root,
                 bus_signals):
        kernel_log.boot()
        self._platform_services, self._daemons = platform_services, daemon
        self.log, self.bed, self.bus, self.root = kernel_log, testbed, system_bus, hadrix_root
        self.signals = bus_signals
        self.services = self.daemon = self._connection = None
        self.plugged = {}
        self.mixers = {}
        self._hubs = set()

    def start(self, *logs, cards=(1,), boot=(), usb_audio_mode=False, env=None, preload=(),
              command=(), **options):
        """Starts the service (through `command`, see Daemons.start) with the `boot` devices
        there since boot; returns once it has logged each of the `logs` in turn and serves its
        client API."""
        if usb_audio_mode:
            self.root.write(USB_AUDIO_MODE, '')
        for name in boot:
            self.plugged[name] = plug(self.bed, name, self.log, AT_BOOT)
        if self.services is None:
            self.services = self._platform_services(cards=cards, **options)
        self.daemon = self._daemons.start(env=env, preload=preload, command=command)
        for pattern in logs:
            self.daemon.wait_for_log(pattern, timeout=25)
        self.bus.wait_for_name(SERVER_NAME)
        return self.daemon

    def plug(self, name, at=LATER, mixer=None, until='Ondetect info end'):
        """Plugs catalogue device `name` (its card with an emulated mixer of these controls, if
        given, kept in `mixers`); returns once the service has handled it (logged `until`)."""
        hub = CATALOGUE[name].port.rpartition('.')[0]
        if hub and hub not in self._hubs:
            self._hubs.add(hub)
            self.bed.add_hub(hub, devnum=60 + len(self._hubs))
        mark = self.daemon.log.mark()
        headset = plug(self.bed, name, self.log, at, initialized=mixer is None)
        if mixer is not None:
            self.mixers[name] = EmulatedCard(headset.card, mixer)
            self.bed.attach_ioctl(headset.control, self.mixers[name])
            self.bed.initialize(headset)
        self.daemon.wait_for_log(until, since=mark, timeout=10)
        self.plugged[name] = headset
        return headset

    def unplug(self, name, at=None):
        """Unplugs it, with the kernel's disconnect line stamped `at` if given."""
        mark = self.daemon.log.mark()
        if at is not None:
            self.log.disconnect(CATALOGUE[name].port, at)
        self.bed.remove(self.plugged.pop(name))
        self.daemon.wait_for_log('Ondetect info end', since=mark, timeout=10)

    def call(self, method, signature='s', *args):
        """A call of the client API."""
        self.bus.wait_for_name(SERVER_NAME)
        self._connection = self._connection or self.bus.connect()
        return self._connection.call_blocking(SERVER_NAME, SERVER_PATH, SERVER_IFACE, method,
                                                signature, list(args), timeout=5)

    def setting(self, key):
        stored = self.root.get_setting(key)
        return stored[1] if stored else None

    def speaker_selections(self):
        return [args[0] for _, args in self.services.sound.calls('SetSpeakerSelection')]

    def kpi_warnings(self):
        """(warning code, product name) of each warning in the KPI log."""
        if not self.root.exists(KPI_FILE):
            return []
        events = [json.loads(line) for line in self.root.read(KPI_FILE).splitlines()]
        return [(e['warning_code'], e['product_name']) for e in events if e.get('event') == 'warning']


@pytest.fixture
def tv(platform_services, kernel_log, testbed, system_bus, daemon, hadrix_root, bus_signals):
    return Tv(platform_services, kernel_log, testbed, system_bus, daemon, hadrix_root, bus_signals)
