"""Programs under test as child processes whose output the test reads while they run."""
import os
import signal
import subprocess

from . import paths
from .bus import HADRIX_BUS_NAME
from .log import LogBuffer
from .wait import WaitTimeout, wait_until

# First lines of the reports of the sanitizer runtimes (scripts/test --sanitize=...). A report
# without a crash (a leak at exit, undefined behaviour) still fails the test that saw it.
SANITIZER_MARKERS = ('ERROR: AddressSanitizer', 'ERROR: LeakSanitizer', 'runtime error:',
                     'WARNING: ThreadSanitizer')


def sanitizer_finding(lines):
    """The first line of a sanitizer report among `lines`, else None."""
    return next((line for line in lines if any(marker in line for marker in SANITIZER_MARKERS)),
                None)


class Process:
    """A child in its own process group, with stdout and stderr collected line by line.

    `log` is the standard error (the service's log), `out` the standard output; both are
    also saved as <work_dir>/<label>.stderr / .stdout.
    """

    def __init__(self, argv, env, work_dir, label):
        self.argv = [str(arg) for arg in argv]
        self.label = label
        self.log = LogBuffer(work_dir / f'{label}.stderr')
        self.out = LogBuffer(work_dir / f'{label}.stdout')
        self.proc = subprocess.Popen(self.argv, env=env, stdin=subprocess.DEVNULL,
                                     stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                     start_new_session=True)
        self.pid = self.proc.pid
        self.signals_sent = set()
        self.log.follow(self.proc.stderr, f'{label}-stderr')
        self.out.follow(self.proc.stdout, f'{label}-stdout')

    @property
    def returncode(self):
        return self.proc.poll()

    def running(self):
        return self.proc.poll() is None

    def wait_for_log(self, pattern, timeout=5.0, since=0, count=1):
        """The first matching stderr record (or `count` of them, as a list)."""
        found = self.log.wait_for(pattern, timeout, since, count)
        return found[0] if count == 1 else found

    def wait_for_output(self, pattern, timeout=5.0, since=0, count=1):
        found = self.out.wait_for(pattern, timeout, since, count)
        return found[0] if count == 1 else found

    def wait_until(self, predicate, timeout=5.0, what=None):
        """Polls predicate, failing early if the process exits meanwhile."""
        def check():
            value = predicate()
            if not value and not self.running():
                raise AssertionError(f'{self.label} exited with {self.returncode} while waiting '
                                     f'for {what or predicate}')
            return value
        return wait_until(check, timeout, what=what)

    def wait(self, timeout=10.0):
        """Waits for the process to end by itself; returns its status with all output read."""
        try:
            self.proc.wait(timeout)
        except subprocess.TimeoutExpired as exc:
            raise WaitTimeout(f'{self.label} still running after {timeout:g} s') from exc
        self.log.join()
        self.out.join()
        return self.proc.returncode

    def rss_kib(self):
        """The resident memory of the process now (VmRSS of /proc/<pid>/status), in KiB."""
        with open(f'/proc/{self.pid}/status') as status:
            for line in status:
                if line.startswith('VmRSS:'):
                    return int(line.split()[1])
        raise AssertionError(f'{self.label} has no VmRSS (exited with {self.returncode})')

    def send_signal(self, signum):
        if self.running():
            self.signals_sent.add(signum)
            os.kill(self.pid, signum)

    def crashed(self):
        """The signal that ended the process when nobody sent it (a crash), else None."""
        status = self.proc.poll()
        if status is not None and status < 0 and -status not in self.signals_sent:
            return signal.Signals(-status).name
        return None

    def stop(self, signum=signal.SIGTERM, timeout=10.0):
        """Sends `signum` (terminate request) and returns the exit status."""
        self.send_signal(signum)
        return self.wait(timeout)

    def finish(self, timeout=5.0):
        """Teardown: a terminate request to a process still running, then SIGKILL for whatever
        is left of its process group (children included)."""
        try:
            self.stop(signal.SIGTERM, timeout)
        except WaitTimeout:
            pass
        self.signals_sent.add(signal.SIGKILL)
        try:
            os.killpg(self.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        self.proc.wait()
        for stream in (self.log, self.out):
            try:
                stream.join(2.0)
            except WaitTimeout:
                pass


class Launcher:
    """Starts programs of the build with the test's environment and reaps them at teardown."""

    def __init__(self, child_env, work_dir):
        self.child_env = child_env
        self.work_dir = work_dir
        self.started = []
        self.finished = []
        self._counts = {}

    def start(self, program, args=(), env=None, preload=(), label=None):
        label = label or os.path.basename(str(program))
        self._counts[label] = self._counts.get(label, 0) + 1
        if self._counts[label] > 1:
            label = f'{label}.{self._counts[label]}'
        process = Process([program, *args], self.child_env.build(env, preload), self.work_dir,
                          label)
        self.started.append(process)
        return process

    def run(self, program, args=(), env=None, timeout=10.0):
        """Runs a program to its end: CompletedProcess with text stdout and stderr."""
        argv = [str(program), *map(str, args)]
        try:
            result = subprocess.run(argv, env=self.child_env.build(env),
                                    stdin=subprocess.DEVNULL, capture_output=True, text=True,
                                    timeout=timeout)
        except subprocess.TimeoutExpired as exc:
            raise WaitTimeout(f'{argv} still running after {timeout:g} s') from exc
        self.finished.append(result)
        return result

    def reap(self):
        """Ends every process started; returns the crashes and sanitizer reports seen
        ("label: SIGSEGV")."""
        problems = []
        for process in self.started:
            crash = process.crashed()
            process.finish()
            crash = crash or process.crashed() or sanitizer_finding(process.log.lines())
            if crash:
                problems.append(f'{process.label}: {crash}')
        for result in self.finished:
            finding = sanitizer_finding(result.stderr.splitlines())
            if finding:
                problems.append(f'{os.path.basename(result.args[0])}: {finding}')
        return problems

    def report(self):
        """(title, text) sections of every process started, for a failure report."""
        sections = []
        for process in self.started:
            status = 'running' if process.running() else f'exit status {process.returncode}'
            for name, stream in (('stderr', process.log), ('stdout', process.out)):
                text = stream.dump()
                if text:
                    sections.append((f'{process.label} {name} ({status})', text))
        for result in self.finished:
            text = f'$ {" ".join(result.args)}\n[exit {result.returncode}]\n' \
                   f'--- stdout\n{result.stdout}--- stderr\n{result.stderr}'
            sections.append((f'{os.path.basename(result.args[0])} run', text))
        return sections


class Daemons:
    """Starts the service; every instance is killed at teardown if the test left it running."""

    def __init__(self, launcher, bus):
        self.launcher = launcher
        self.bus = bus

    def start(self, env=None, preload=(), args=(), ready=True, timeout=10.0, command=()):
        """Starts hadrix, through `command` if given (a program that runs the rest of its
        command line, such as setpriv). With `ready`, returns once the create callback has run
        and the service owns its bus name."""
        argv = [*command, paths.program('hadrix'), *args]
        daemon = self.launcher.start(argv[0], argv[1:], env, preload, label='hadrix')
        if ready:
            daemon.wait_for_log('service_app_create', timeout)
            daemon.wait_until(lambda: self.bus.has_owner(HADRIX_BUS_NAME), timeout,
                              what=f'{HADRIX_BUS_NAME} on the bus')
        return daemon
