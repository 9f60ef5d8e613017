"""A client application that asks the service for its device list again and again, over a bus
connection of its own, in a process of its own.

    python3 -B -m simtv.api_poller ADDRESS INTERVAL_MS PRODUCT MANUFACTURER

It prints "ready" once its first call was answered, then polls GetDeviceListInfo every
INTERVAL_MS until its standard input is closed, and prints one JSON line: the number of calls,
how many replies held 0, 1 or 2 records, the slowest reply, the errors and the replies that were
not a well-formed list of the expected device (the first few of each). `ApiPollers` starts and
stops a group of them from a test.
"""
import json
import select
import subprocess
import sys
import time
from pathlib import Path

from gi.repository import Gio, GLib

from .client_api import RECORD, SERVER_IFACE, SERVER_NAME, SERVER_PATH, BadReply, records
from .wait import WaitTimeout

KEPT = 5  # the first errors and bad replies kept for the report
CALL_TIMEOUT_MS = 5000


def _check(reply, product, manufacturer):
    """Why the reply is not a list of the expected device, or None."""
    try:
        found = records(reply)
    except BadReply as exc:
        return str(exc)
    for record in found:
        if (record['type'], record['product'], record['manufacturer']) != \
                ('USB Headphone', f'{product} (USB)', manufacturer):
            return f'unexpected record {record}'
        if record['status'] not in ('connected', 'disconnected'):
            return f'unexpected status {record}'
    return None


def main(address, interval_ms, product, manufacturer):
    flags = Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT | \
        Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION
    connection = Gio.DBusConnection.new_for_address_sync(address, flags, None, None)
    summary = {'calls': 0, 'records': {}, 'slowest_ms': 0.0, 'error_count': 0, 'errors': [],
               'bad_count': 0, 'bad': []}
    interval = int(interval_ms) / 1000.0
    while True:
        started = time.monotonic()
        try:
            reply = connection.call_sync(SERVER_NAME, SERVER_PATH, SERVER_IFACE,
                                         'GetDeviceListInfo', GLib.Variant('(i)', (0,)),
                                         GLib.VariantType('(ay)'), Gio.DBusCallFlags.NONE,
                                         CALL_TIMEOUT_MS, None)
        except GLib.Error as exc:
            summary['error_count'] += 1
            if len(summary['errors']) < KEPT:
                summary['errors'].append(exc.message)
        else:
            data = bytes(reply.get_child_value(0).get_data_as_bytes().get_data() or b'')
            count = str(len(data) // RECORD.size)
            summary['records'][count] = summary['records'].get(count, 0) + 1
            fault = _check(data, product, manufacturer)
            if fault:
                summary['bad_count'] += 1
                if len(summary['bad']) < KEPT:
                    summary['bad'].append(fault)
        summary['slowest_ms'] = max(summary['slowest_ms'], (time.monotonic() - started) * 1000)
        summary['calls'] += 1
        if summary['calls'] == 1:
            print('ready', flush=True)
        readable, _, _ = select.select([sys.stdin], [], [], interval)
        if readable and not sys.stdin.read(1):
            break
    connection.close_sync(None)
    print(json.dumps(summary), flush=True)


# Where `-m simtv.api_poller` is found.
SIM_DIR = Path(__file__).resolve().parents[1]


class ApiPollers:
    """`count` poller processes on the bus at `address`, for the device `product` from
    `manufacturer`; `stop()` returns their summaries."""

    def __init__(self, address, count, interval_ms, product, manufacturer, timeout=10.0):
        argv = [sys.executable, '-B', '-m', 'simtv.api_poller', address, str(interval_ms),
                product, manufacturer]
        self.processes = [subprocess.Popen(argv, cwd=SIM_DIR, stdin=subprocess.PIPE,
                                           stdout=subprocess.PIPE, text=True)
                          for _ in range(count)]
        for process in self.processes:
            ready, _, _ = select.select([process.stdout], [], [], timeout)
            if not ready or process.stdout.readline().strip() != 'ready':
                self.kill()
                raise WaitTimeout(f'an API poller did not get its first reply within {timeout:g} s')

    def stop(self, timeout=20.0):
        for process in self.processes:
            process.stdin.close()
        summaries = []
        for process in self.processes:
            try:
                process.wait(timeout)
            except subprocess.TimeoutExpired as exc:
                self.kill()
                raise WaitTimeout(f'an API poller did not stop within {timeout:g} s') from exc
            summaries.append(json.loads(process.stdout.read().strip().splitlines()[-1]))
            process.stdout.close()
        return summaries

    def kill(self):
        for process in self.processes:
            if process.poll() is None:
                process.kill()
                process.wait()


if __name__ == '__main__':
    main(*sys.argv[1:])
