"""B3: "GetDeviceListInfo" calls per second from 8 clients. The service runs with one USB
headset in use, so every answer carries one device record; 8 client processes (bench_dbus_load),
each with its own bus connection and one call in flight, call it back to back. Reference, in
the same run and from the same clients: org.freedesktop.DBus.Peer.Ping to the same connection
of the service, which its D-Bus library answers by itself. The two loads alternate.

The service runs at log level error: at info its log lines, read by the harness, would cost more
than the calls.
"""
import time

from service_bench import (AT_BOOT, SERVER_IFACE, SERVER_NAME, SERVER_PATH, USB_AUDIO_MODE,
                           arguments, bench_program, median, ratio, raw, run, series, World)
from simtv.client_api import RECORD
from simtv.devices import plug

CLIENTS = 8
PEER_IFACE = 'org.freedesktop.DBus.Peer'


def device_list(connection):
    return bytes(connection.call_blocking(SERVER_NAME, SERVER_PATH, SERVER_IFACE,
                                          'GetDeviceListInfo', 'i', [0], timeout=5))


def wait_for_one_record(world, service):
    # The API has a thread of its own: its name may come after the service's.
    service.wait_until(lambda: world.bus.has_owner(SERVER_NAME), timeout=10, what=SERVER_NAME)
    connection = world.bus.connect()
    service.wait_until(lambda: len(device_list(connection)) == RECORD.size, timeout=30,
                       what='one device record in GetDeviceListInfo')


def load(world, interface, method, seconds, *argument):
    result = world.launcher.run(bench_program('bench_dbus_load'),
                                [world.bus.address, SERVER_NAME, SERVER_PATH, interface, method,
                                 CLIENTS, seconds, *argument], timeout=seconds + 30)
    if result.returncode != 0:
        raise AssertionError(f'bench_dbus_load {method} failed ({result.returncode}): '
                             f'{result.stdout}{result.stderr}')
    fields = dict(field.split('=') for field in result.stdout.split())
    return float(fields['rate'])


def main():
    options = arguments('B3: GetDeviceListInfo calls per second (8 clients) against Peer.Ping',
                        repeats=5, seconds=(2.0, 'seconds of each load'))
    with World() as world:
        world.platform(cards=[1])
        world.kernel_log.boot()
        world.root.write(USB_AUDIO_MODE, '')
        plug(world.testbed, 'headset', world.kernel_log, AT_BOOT)
        service = world.start_service('error')
        wait_for_one_record(world, service)
        pings, calls = [], []
        for _ in range(options.repeats):
            pings.append(load(world, PEER_IFACE, 'Ping', options.seconds))
            time.sleep(0.2)
            calls.append(load(world, SERVER_IFACE, 'GetDeviceListInfo', options.seconds, 0))
            time.sleep(0.2)
        if service.stop() != 0:
            raise AssertionError(f'hadrix exited with {service.returncode}')
    raw('B3', f'GetDeviceListInfo_per_s={series(calls, digits=0)}')
    raw('B3', f'Ping_per_s={series(pings, digits=0)}')
    raw('B3', f'median GetDeviceListInfo_per_s={median(calls):.0f} Ping_per_s={median(pings):.0f} '
              f'clients={CLIENTS} seconds={options.seconds:g} repeats={options.repeats}')
    ratio('B3', 'calls-per-second', median(calls) / median(pings))


if __name__ == '__main__':
    run('B3', main)
