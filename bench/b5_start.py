"""B5: start to bus name owned. The time from starting the service (just before its process is
created) to the bus announcing "org.nimbos.hadrix.server" owned (NameOwnerChanged as a peer
receives it), with the platform's services up and no USB device. Reference, in the same run and
timed the same way, started with the same environment and preloads: bench_ref_service owning a
name. Starts alternate; each process is stopped, and its name released, before the next starts.

The service runs at log level error: its start-up lines, read by the harness, are not the
service's start.
"""
import time

from service_bench import (REFERENCE_NAME, SERVER_NAME, arguments, median, ratio, raw, run, series,
                           World)
from simtv.bus import HADRIX_BUS_NAME
from simtv.wait import wait_until

BUS_IFACE = 'org.freedesktop.DBus'
WATCHED = ((BUS_IFACE, 'NameOwnerChanged', '/org/freedesktop/DBus'),)


class Owners:
    """Owner changes of the names the benchmark starts."""

    def __init__(self, world):
        self.observer = world.observe(WATCHED)

    def changes(self, name):
        return [change for change in self.observer.signals('NameOwnerChanged')
                if change.args[0] == name]

    def wait_for(self, name, count, owned):
        def found():
            matching = [change for change in self.changes(name) if bool(change.args[2]) == owned]
            return len(matching) >= count and matching[count - 1]
        return wait_until(found, timeout=20, interval=0.005,
                          what=f'{name} {"owned" if owned else "released"} ({count})')


def time_to_name(owners, name, count, start, running_name=None):
    """Seconds from start() to `name` owned; the process is stopped once it owns running_name
    too (the service's client API is on the bus before its main loop takes SIGTERM)."""
    begin = time.monotonic()
    process = start()
    owned = owners.wait_for(name, count, owned=True)
    elapsed = owned.time - begin
    if running_name:
        owners.wait_for(running_name, count, owned=True)
    if process.stop() != 0:
        raise AssertionError(f'{process.label} exited with {process.returncode}')
    owners.wait_for(name, count, owned=False)
    return elapsed


def main():
    options = arguments('B5: start to bus name owned against a minimal GDBus service', repeats=10)
    with World() as world:
        world.platform(cards=[])
        world.kernel_log.boot()
        owners = Owners(world)
        service, reference = [], []
        for attempt in range(1, options.repeats + 2):
            service.append(time_to_name(owners, SERVER_NAME, attempt,
                                        lambda: world.start_service('error', ready=False),
                                        running_name=HADRIX_BUS_NAME))
            reference.append(time_to_name(owners, REFERENCE_NAME, attempt,
                                          lambda: world.start('bench_ref_service', REFERENCE_NAME)))
        service, reference = service[1:], reference[1:]
    raw('B5', f'hadrix_ms={series(service, 1e3)}')
    raw('B5', f'reference_ms={series(reference, 1e3)}')
    raw('B5', f'median hadrix_ms={median(service) * 1e3:.2f} reference_ms={median(reference) * 1e3:.2f} '
              f'repeats={options.repeats} (first start of each side not counted)')
    ratio('B5', 'start-to-name', median(service) / median(reference))


if __name__ == '__main__':
    run('B5', main)
