"""B2: hot-plug to "Start". A USB headset whose card the audio server already lists is plugged
(its uevents sent by the testbed) while the service runs idle with no device; the figure is the
time from the plug to the "Start" signal for its card as a peer on the bus receives it.
Reference, in the same run and timed the same way: bench_ref_hotplug, a bare udev monitor that
answers the same uevents with one "Start" signal.

The service runs at log level info (its log read by the harness, as in the tests); the
reference writes no log. The card's mixer is not emulated: the service's attempt to set it fails
at once, so the figure leaves out the mixer writes a real card takes.
"""
import time

from service_bench import arguments, median, ratio, raw, run, series, World
from simtv.devices import plug

HEADSET = 'headset'
HEADSET_PORT = '1-1'
HEADSET_CARD = 1
# Seconds after boot of the first plug by the viewer (well after the USB core came up); each
# plug is stamped later than the one before, as in a kernel log.
FIRST_PLUG_AT = 120.0
PLUG_SPACING = 10.0
# Quiet time before each plug, so that no work of the previous cycle overlaps it.
SETTLE = 0.3
WATCHED = (('org.nimbos.hadrix', 'Start', None), ('org.nimbos.hadrix', 'Stop', None))


class Plugs:
    """Plugs and unplugs the headset, timing each plug to the next "Start" on the bus."""

    def __init__(self, world, observer):
        self.world = world
        self.observer = observer
        self.at = FIRST_PLUG_AT - PLUG_SPACING

    def plug_to_start(self):
        seen = len(self.observer.signals('Start'))
        self.at += PLUG_SPACING
        time.sleep(SETTLE)
        begin = time.monotonic()
        headset = plug(self.world.testbed, HEADSET, self.world.kernel_log, self.at)
        start = self.observer.wait_for('Start', seen + 1, timeout=10)[seen]
        if start.args != (HEADSET_CARD,):
            raise AssertionError(f'"Start" for card {start.args}, not {HEADSET_CARD}')
        return headset, start.time - begin

    def unplug(self, headset):
        self.world.kernel_log.disconnect(HEADSET_PORT, self.at + PLUG_SPACING / 2)
        self.world.testbed.remove(headset)


def measure_service(world, observer, repeats):
    world.platform(cards=[HEADSET_CARD])
    world.kernel_log.boot()
    service = world.start_service('info')
    # The start-up passes looking for devices end first: a device plugged during them counts as
    # one present at start-up, which takes no hot-plug path.
    service.wait_for_log('No devices found.', timeout=20)
    plugs = Plugs(world, observer)
    times = []
    for _ in range(repeats + 1):
        headset, elapsed = plugs.plug_to_start()
        times.append(elapsed)
        stops = len(observer.signals('Stop'))
        mark = service.log.mark()
        plugs.unplug(headset)
        observer.wait_for('Stop', stops + 1, timeout=10)
        service.wait_for_log('Ondetect info end', since=mark, timeout=10)
    if service.stop() != 0:
        raise AssertionError(f'hadrix exited with {service.returncode}')
    return times[1:]


def measure_reference(world, observer, repeats):
    reference = world.start('bench_ref_hotplug')
    reference.wait_for_output('listening', timeout=10)
    plugs = Plugs(world, observer)
    times = []
    for _ in range(repeats + 1):
        headset, elapsed = plugs.plug_to_start()
        times.append(elapsed)
        plugs.unplug(headset)
    if reference.stop() != 0:
        raise AssertionError(f'bench_ref_hotplug exited with {reference.returncode}')
    return times[1:]


def main():
    options = arguments('B2: hot-plug to "Start" against a bare udev monitor and one signal',
                        repeats=15)
    with World() as world:
        observer = world.observe(WATCHED)
        service = measure_service(world, observer, options.repeats)
        reference = measure_reference(world, observer, options.repeats)
    raw('B2', f'hadrix_ms={series(service, 1e3)}')
    raw('B2', f'reference_ms={series(reference, 1e3)}')
    raw('B2', f'median hadrix_ms={median(service) * 1e3:.2f} reference_ms={median(reference) * 1e3:.2f} '
              f'repeats={options.repeats} (first plug of each side not counted)')
    # The testbed's injection of the uevents is in both figures; the difference is the service's.
    raw('B2', f'median hadrix_minus_reference_ms={(median(service) - median(reference)) * 1e3:.2f}')
    ratio('B2', 'plug-to-start', median(service) / median(reference))


if __name__ == '__main__':
    run('B2', main)
