"""B4: resident memory and wake-ups per second of the idle service. The service runs with one
USB headset in use (started in USB audio mode with the headset there), the state it stays in for
as long as the headset is used; once it has sent "Start" and settled, nothing happens for the
measured window (60 s by default). Reference, measured over the same window on the same bus
with the same environment and preloads: bench_ref_service, a GLib service that owns one name.

Memory is VmRSS of /proc/<pid>/status at the end of the window. Wake-ups are the context
switches (voluntary and involuntary) of all the threads of the process during the window, from
/proc/<pid>/task/*/status; a thread that ends within the window is not counted.
The service runs at log level info.
"""
import time
from pathlib import Path

from service_bench import (AT_BOOT, REFERENCE_NAME, USB_AUDIO_MODE, arguments, median, ratio, raw,
                           run, World)
from simtv.devices import plug

WATCHED = (('org.nimbos.hadrix', 'Start', None),)


def status_fields(path):
    fields = {}
    for line in Path(path).read_text().splitlines():
        key, _, value = line.partition(':')
        fields[key] = value.strip()
    return fields


def rss_kib(pid):
    return int(status_fields(f'/proc/{pid}/status')['VmRSS'].split()[0])


def switches_by_thread(pid):
    """{(tid, name): voluntary + involuntary context switches} of every thread of `pid`."""
    counts = {}
    for task in Path(f'/proc/{pid}/task').iterdir():
        try:
            fields = status_fields(task / 'status')
        except FileNotFoundError:
            continue  # the thread ended meanwhile
        counts[(int(task.name), fields['Name'])] = (int(fields['voluntary_ctxt_switches'])
                                                    + int(fields['nonvoluntary_ctxt_switches']))
    return counts


class Sample:
    """Context switches of a process's threads between construction and finish()."""

    def __init__(self, pid):
        self.pid = pid
        self.before = switches_by_thread(pid)
        self.threads = {}
        self.rate = None
        self.rss = None

    def finish(self, seconds):
        after = switches_by_thread(self.pid)
        self.threads = {key: count - self.before.get(key, 0) for key, count in after.items()}
        self.rate = sum(self.threads.values()) / seconds
        self.rss = rss_kib(self.pid)

    def threads_text(self):
        return ' '.join(f'{name}/{tid}:{count}' for (tid, name), count in sorted(self.threads.items()))


def main():
    options = arguments('B4: idle memory and wake-ups against a minimal GLib D-Bus service',
                        repeats=1, seconds=(60.0, 'length of the idle window'),
                        settle=(5.0, 'seconds of quiet after "Start" before the window'))
    with World() as world:
        world.platform(cards=[1])
        world.kernel_log.boot()
        world.root.write(USB_AUDIO_MODE, '')
        plug(world.testbed, 'headset', world.kernel_log, AT_BOOT)
        observer = world.observe(WATCHED)
        service = world.start_service('info')
        reference = world.start('bench_ref_service', REFERENCE_NAME)
        world.bus.wait_for_name(REFERENCE_NAME)
        observer.wait_for('Start', timeout=30)
        time.sleep(options.settle)
        samples = []
        for _ in range(options.repeats):
            window = (Sample(service.pid), Sample(reference.pid))
            begin = time.monotonic()
            time.sleep(options.seconds)
            elapsed = time.monotonic() - begin
            for sample in window:
                sample.finish(elapsed)
            samples.append(window)
            if not service.running() or not reference.running():
                raise AssertionError('a process ended during the idle window')
        for program in (service, reference):
            if program.stop() != 0:
                raise AssertionError(f'{program.label} exited with {program.returncode}')
    for mine, theirs in samples:
        raw('B4', f'hadrix rss_kib={mine.rss} wakeups_per_s={mine.rate:.2f} '
                  f'threads={mine.threads_text()}')
        raw('B4', f'reference rss_kib={theirs.rss} wakeups_per_s={theirs.rate:.2f} '
                  f'threads={theirs.threads_text()}')
    raw('B4', f'window_s={options.seconds:g} settle_s={options.settle:g} windows={options.repeats}')
    rss = [median([sample.rss for sample in side]) for side in zip(*samples)]
    rates = [median([sample.rate for sample in side]) for side in zip(*samples)]
    raw('B4', f'median hadrix rss_kib={rss[0]:.0f} wakeups_per_s={rates[0]:.2f}; '
              f'reference rss_kib={rss[1]:.0f} wakeups_per_s={rates[1]:.2f}')
    ratio('B4', 'rss', rss[0] / rss[1])
    # One wake-up per window at least, so that a reference that never woke still gives a ratio.
    ratio('B4', 'wakeups', rates[0] / max(rates[1], 1.0 / options.seconds))


if __name__ == '__main__':
    run('B4', main)
