"""What the benchmarks of the running service (B2–B5) share: the world of the integration tests
(tools/tvsim/simtv) put together once per benchmark run, the programs of bench/, and
how figures are printed.

Run a benchmark with Debian's Python under the umockdev preload, as the integration tests:
    HADRIX_BUILD_DIR=<build> umockdev-wrapper /usr/bin/python3 bench/b2_hotplug.py
(scripts/bench does that.) The build must have the service, the kernel-log shim and the programs
of bench/.
"""
import argparse
import os
import shutil
import statistics
import sys
import tempfile
from pathlib import Path

sys.dont_write_bytecode = True  # the source tree may be read-only
sys.path.insert(0, str(Path(__file__).resolve().parents[1] / 'tools' / 'tvsim'))

from simtv import paths  # noqa: E402
from simtv.bus import Mocks, SystemBus  # noqa: E402
from simtv.client_api import SERVER_IFACE, SERVER_NAME, SERVER_PATH  # noqa: E402,F401
from simtv.daemon import Daemons, Launcher  # noqa: E402
from simtv.env import ChildEnv  # noqa: E402
from simtv.klog import KernelLog  # noqa: E402
from simtv.observer import SignalObserver  # noqa: E402
from simtv.platform import PlatformServices  # noqa: E402
from simtv.root import HadrixRoot  # noqa: E402
from simtv.testbed import Testbed  # noqa: E402

USB_AUDIO_MODE = '/home/owner/apps_rw/hadrix/data/USB_AUDIO_mode'
# The name the reference service owns beside the service.
REFERENCE_NAME = 'org.nimbos.bench.reference'
# Seconds after boot of a device the kernel found while booting.
AT_BOOT = 3.5


class BenchError(Exception):
    """The benchmark could not measure what it measures; the message says why."""


def bench_program(name):
    """A program of bench/ in the build."""
    path = paths.build_dir() / 'bench' / name
    if not os.access(path, os.X_OK):
        raise BenchError(f'{path} is not built: cmake --build {paths.build_dir()} --target {name}')
    return path


class World:
    """A private system bus, the platform's services (mocks), USB devices (umockdev), the kernel
    log (klogctl shim) and a private root, as every integration test gets them; programs started
    through `launcher` see all of it. Everything is stopped at the end of the `with` block; the
    files stay when the block ended with an error."""

    def __init__(self):
        paths.program('hadrix')  # a missing service is said here, not at its first start
        self.work_dir = Path(tempfile.mkdtemp(prefix='hadrix-bench-'))
        self.socket_dir = paths.SocketDir()
        self._observers = []
        self.bus = self.testbed = self.launcher = self.mocks = None
        try:
            self._build()
        except BaseException:
            self._close(failed=True)
            raise

    def _build(self):
        self.bus = SystemBus(self.socket_dir, self.work_dir)
        self.root = HadrixRoot(self.work_dir / 'root')
        self.env = ChildEnv()
        self.env.set('DBUS_SYSTEM_BUS_ADDRESS', self.bus.address)
        for key, value in self.root.env().items():
            self.env.set(key, value)
        self.kernel_log = KernelLog(self.work_dir / 'kernel.log')
        self.env.set('HADRIX_FAKE_KLOG', self.kernel_log.path)
        self.env.preload(paths.program('hadrix-klog-shim'))
        self.testbed = Testbed()
        for key, value in self.testbed.env().items():
            self.env.set(key, value)
        self.launcher = Launcher(self.env, self.work_dir)
        self.mocks = Mocks(self.bus, self.env, self.work_dir)
        self.daemons = Daemons(self.launcher, self.bus)
        self.services = None

    def __enter__(self):
        return self

    def __exit__(self, kind, error, trace):
        crashes = self._close(failed=kind is not None)
        if crashes and kind is None:
            raise BenchError(f'killed by a signal nobody sent: {", ".join(crashes)}')

    def _close(self, failed):
        """Stops whatever was started; returns the crashes seen."""
        for observer in self._observers:
            observer.stop()
        crashes = self.launcher.reap() if self.launcher else []
        for part in (self.mocks, self.bus):
            if part:
                part.stop()
        if self.testbed:
            self.testbed.close()
        self.socket_dir.remove()
        if failed or crashes:
            print(f'logs and files of the run: {self.work_dir}', file=sys.stderr)
        else:
            shutil.rmtree(self.work_dir, ignore_errors=True)
        return crashes

    def platform(self, **options):
        """The sound manager, audio control, device power and audio server mocks."""
        self.services = PlatformServices(self.mocks.spawn, **options)
        return self.services

    def start_service(self, log_level, ready=True):
        """Starts hadrix logging from `log_level` on; with `ready`, returns once it owns its
        bus name."""
        return self.daemons.start(env={'HADRIX_LOG_LEVEL': log_level}, ready=ready)

    def start(self, name, *args):
        """Starts a program of bench/ with the same environment and preloads as the service."""
        return self.launcher.start(bench_program(name), args, label=name)

    def observe(self, watched):
        """A SignalObserver of the bus for `watched` (interface, member, path) triples."""
        observer = SignalObserver(self.bus.address, watched=watched)
        self._observers.append(observer)
        return observer


def median(values):
    return statistics.median(values)


def raw(bench_id, text):
    print(f'{bench_id} raw {text}', flush=True)


def ratio(bench_id, case, value):
    print(f'{bench_id} {case} ratio={value:.2f}', flush=True)


def series(values, scale=1.0, digits=2):
    return ','.join(f'{value * scale:.{digits}f}' for value in values)


def arguments(description, repeats, **extra):
    """The command line of a benchmark: --repeats, and `extra` options name=(default, help)."""
    parser = argparse.ArgumentParser(description=description)
    parser.add_argument('--repeats', type=int, default=repeats,
                        help=f'measurements of each side (default {repeats}; the median counts)')
    for name, (default, text) in extra.items():
        parser.add_argument(f'--{name}', type=type(default), default=default,
                            help=f'{text} (default {default})')
    return parser.parse_args()


def run(bench_id, main):
    """Runs main(); a failure to measure is one line on standard error and exit status 1."""
    sys.setswitchinterval(0.0005)  # the signal observer's thread must not wait on the log readers
    try:
        main()
    except (BenchError, AssertionError, paths.MissingProgram) as exc:
        print(f'{bench_id}: {exc}', file=sys.stderr)
        sys.exit(1)
