"""Fixtures of the integration tests: the real programs of the build against a private system
bus, mocked platform services and a private file-system root, one set per test.

`child_env` is where fixtures meet: every fixture that changes how the programs under test
start (bus address, HADRIX_ROOT, NOTIFY_SOCKET, and later device emulation, the kernel-log shim
or a faked clock) sets variables or adds preload libraries on it, and every program started
through `launcher` (the daemon, the tools, the probe) gets the result.
"""
import sys
from pathlib import Path

sys.dont_write_bytecode = True  # the source tree may be read-only
# The simulated TV platform (sim/simtv) the programs run on.
sys.path.insert(0, str(Path(__file__).resolve().parents[2] / 'sim'))

import pytest  # noqa: E402

from simtv import paths  # noqa: E402
from simtv.bus import Mocks, SystemBus  # noqa: E402
from simtv.daemon import Daemons, Launcher  # noqa: E402
from simtv.env import ChildEnv  # noqa: E402
from simtv.klog import KernelLog  # noqa: E402
from simtv.locales import MissingLocales, compile_locales  # noqa: E402
from simtv.notify import NotifySocket  # noqa: E402
from simtv.platform import PlatformServices  # noqa: E402
from simtv.observer import SignalObserver  # noqa: E402
from simtv.root import HadrixRoot  # noqa: E402
from simtv.testbed import Testbed  # noqa: E402

_reporters = pytest.StashKey[list]()

# Tests that may be skipped, by node id, each with the reason. Any other skip fails the run: a
# test that silently does not run proves nothing.
ALLOWED_SKIPS = {
    'test_packaging.py::test_udev_rule_passes_udevadm_verify':
        'udevadm verify comes with udev 254; Debian 12 has 252 (the rule is still checked by '
        'test_udev_rule_starts_the_service_for_usb_sound_cards)',
    'test_packaging.py::test_policy_lets_only_root_own_the_names_and_anyone_call_the_api':
        'the policy gives the names to root: only a run as root can own them and drop to nobody',
}


def pytest_configure(config):
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


@pytest.fixture
def system_bus(socket_dir, tmp_path, request):
    bus = SystemBus(socket_dir, tmp_path)
    add_reporter(request, bus.report)
    yield bus
    bus.stop()


@pytest.fixture
def hadrix_root(tmp_path):
    """The test's root, with the build's application files (catalogue, images) when they are
    built: tests that need them ask for `app_files`."""
    root = HadrixRoot(tmp_path / 'root')
    try:
        root.install_app_files(paths.app_files())
    except paths.MissingProgram:
        pass
    return root


@pytest.fixture
def app_files(hadrix_root):
    """Fails the test unless the build's application files are in the test's root."""
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
def notify_socket(socket_dir, child_env):
    """Messages the service sends to its service manager (READY=1, WATCHDOG=1)."""
    sock = NotifySocket(socket_dir / 'notify')
    child_env.set('NOTIFY_SOCKET', sock.path)
    yield sock
    sock.close()


@pytest.fixture
def bus_signals(system_bus, request):
    """The audio-server and speaker-manager signals broadcast on the test's bus ("Start",
    "Stop", "SpkDisconnected"): signals(member), wait_for(member, count, timeout)."""
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
    """hadrix-settings on the test's settings directories: settings_cli('get', key)."""
    return Tool(launcher, 'hadrix-settings')


@pytest.fixture
def hadrixctl(launcher):
    """hadrixctl with the test's environment: hadrixctl('devices')."""
    return Tool(launcher, 'hadrixctl')


@pytest.fixture
def probe(launcher):
    """hadrix-probe with the test's environment: probe('launch-app', key, value)."""
    return Tool(launcher, 'hadrix-probe')


@pytest.fixture
def kernel_log(child_env, tmp_path):
    """The kernel log programs of the test read (through the klogctl shim): a KernelLog the
    test writes, empty at first."""
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
    """USB devices in a umockdev testbed that programs of the test see as the machine's."""
    bed = Testbed()
    for key, value in bed.env().items():
        child_env.set(key, value)
    yield bed
    bed.close()


@pytest.fixture
def fast_clock(child_env):
    """Programs of the test run on a clock 100 times faster (libfaketime): for the service's
    long timers. Uptimes then no longer match kernel-log time stamps."""
    if not paths.FAKETIME_LIBS:
        pytest.fail('libfaketime is not installed (Debian package libfaketime)', pytrace=False)
    child_env.set('FAKETIME', '+0 x100')
    child_env.preload(paths.FAKETIME_LIBS[0])


@pytest.fixture
def platform_services(mocks):
    """platform_services(route=7, power_state=0, cards=(), audio_server=True, **audio-server
    options) starts them."""
    return lambda **options: PlatformServices(mocks.spawn, **options)
