"""The service killed with SIGKILL while it saves its files: whenever it dies, each file on disk
is whole, as the last save or the one under way left it, and the next start reads it back.

- The device depot: headsets come and go in bursts (the depot is saved half a second after the
  last change of the device list); the kill lands either as a save begins (on its log line) or
  at any moment of the burst.
- The subscriber file: a client subscribes again and again (each subscription saves the whole
  table) and the kill lands at a random moment.

A kill that lands inside a save leaves the save's temporary file behind; the tests count those
to show how many kills hit a save. The seed of each run is printed so that a failure can be
replayed with HADRIX_CRASH_SEED. Settings are written by the settings store, whose writer killed
mid-write is tested in tests/unit/platform/test_settings.cpp.
"""
import itertools
import json
import os
import random
import re
import signal
import threading
import time

import dbus
import pytest

from simtv import paths
from simtv.alsa_card import EmulatedCard, stereo_headset
from simtv.client_api import SERVER_IFACE, SERVER_NAME, SERVER_PATH
from simtv.devices import CATALOGUE, plug

DEPOT = '/home/owner/apps_rw/hadrix/data/devices.depot'
USB_AUDIO_MODE = '/home/owner/apps_rw/hadrix/data/USB_AUDIO_mode'
DEPOT_KEYS = {'product_name', 'vendor_id', 'product_id', 'dev_path', 'manufature', 'card_num',
              'status', 'time_stamp'}
ALWAYS_THERE = 'headset'
COMING_AND_GOING = ('headset2', 'headset3')
AT_BOOT = 3.5
SAVE_STARTS = re.compile(r'write to file .*devices\.depot ')


def dev_path(name):
    device = CATALOGUE[name]
    return (f'/devices/platform/soc/xhci-hcd.0/usb1/{device.port}/{device.port}:1.0/sound/'
            f'card{device.card}')


BY_PATH = {dev_path(name): name for name in (ALWAYS_THERE, *COMING_AND_GOING)}


def depot_devices(text):
    """The set of catalogue names a depot text holds; fails unless it is a whole depot: a JSON
    array of well-formed records of known devices, each once."""
    entries = json.loads(text)
    assert isinstance(entries, list), text
    names = []
    for entry in entries:
        assert isinstance(entry, dict) and set(entry) == DEPOT_KEYS, entry
        name = BY_PATH.get(entry['dev_path'])
        assert name, f'unknown device in the depot: {entry}'
        device = CATALOGUE[name]
        assert (entry['product_name'], entry['manufature'], entry['card_num']) == \
            (device.product, device.manufacturer, device.card), entry
        assert (entry['vendor_id'], entry['product_id']) == device.numbers(), entry
        assert isinstance(entry['status'], int), entry
        assert isinstance(entry['time_stamp'], str) and entry['time_stamp'].isdigit(), entry
        names.append(name)
    assert len(set(names)) == len(names), f'a device saved twice: {text}'
    return frozenset(names)


class Bench:
    """The TV whose service is started, driven through a burst of plugs and killed, over and
    over, on one root; `states` holds every device set the service's list has had since the
    last start."""

    def __init__(self, daemon, testbed, kernel_log, hadrix_root):
        self.daemon = daemon
        self.testbed = testbed
        self.kernel_log = kernel_log
        self.root = hadrix_root
        self.plugged = {}
        # Every card's mixer, in place before the card is first plugged: the service opens it as
        # soon as it hears of the card.
        for name in BY_PATH.values():
            card = CATALOGUE[name].card
            testbed.attach_ioctl(f'/dev/snd/controlC{card}', EmulatedCard(card, stereo_headset()))
        self.at = 120.0
        self.plug(ALWAYS_THERE, AT_BOOT)
        self.states = set()
        self.hadrix = None

    def plug(self, name, at=None):
        self.plugged[name] = plug(self.testbed, name, self.kernel_log, at or self.at)

    def unplug(self, name):
        self.kernel_log.disconnect(CATALOGUE[name].port, self.at)
        self.testbed.remove(self.plugged.pop(name))

    def start(self, **options):
        self.hadrix = self.daemon.start(**options)
        return self.hadrix

    def start_with_devices(self):
        """Starts the service and waits for its start-up enumeration to end (its broadcast)."""
        self.start()
        # The enumeration adds the devices one by one.
        present = list(self.plugged)
        self.states = {frozenset(subset) for size in range(len(present) + 1)
                       for subset in itertools.combinations(present, size)}
        self.hadrix.wait_for_log('m_SendEventToClient end', timeout=15)

    def toggle(self, name):
        """Plugs `name` or unplugs it, and waits until the service has handled it; returns the
        log mark from before."""
        mark = self.hadrix.log.mark()
        self.at += 1.0
        if name in self.plugged:
            self.unplug(name)
        else:
            self.plug(name)
        self.states.add(frozenset(self.plugged))
        self.hadrix.wait_for_log('Ondetect info end', since=mark, timeout=10)
        return mark

    def kill(self):
        self.hadrix.send_signal(signal.SIGKILL)
        assert self.hadrix.wait() == -signal.SIGKILL

    def depot(self):
        path = self.root / DEPOT
        return path.read_text() if path.exists() else None

    def leftovers(self):
        """Temporary files of saves that were cut short."""
        return sorted(path.name for path in self.root.data_dir.glob('devices.depot.*'))


def kill_as_a_save_begins(bench, rng, mark):
    # A save of the small depot takes well under a millisecond: the kill must follow the log line
    # at once (the line's way to the test is the randomness).
    bench.hadrix.wait_for_log(SAVE_STARTS, since=mark, timeout=10)


def kill_at_any_moment(bench, rng, mark):
    time.sleep(rng.uniform(0, 0.7))


# (when to kill, at most how many rounds, enough saves cut short to stop early): the first way
# must cut at least one save short to prove anything, the second mostly kills between saves.
KILLS = [pytest.param(kill_as_a_save_begins, 40, 3, id='as-a-save-begins'),
         pytest.param(kill_at_any_moment, 20, None, id='at-any-moment')]


@pytest.fixture
def bench(platform_services, kernel_log, testbed, daemon, hadrix_root):
    kernel_log.boot()
    platform_services(cards=[CATALOGUE[name].card for name in BY_PATH.values()])
    return Bench(daemon, testbed, kernel_log, hadrix_root)


@pytest.mark.timeout(240)
@pytest.mark.parametrize('wait_for_kill, rounds, enough_cut_short', KILLS)
def test_a_killed_service_leaves_the_depot_whole_and_reads_it_back(bench, wait_for_kill, rounds,
                                                                   enough_cut_short):
    seed = int(os.environ.get('HADRIX_CRASH_SEED') or time.time_ns() % 1_000_000)
    print(f'\nseed {seed}')
    rng = random.Random(seed)
    # A first run that ends normally leaves a whole depot: what a kill may fall back to.
    bench.start_with_devices()
    bench.hadrix.wait_until(lambda: bench.depot(), what='the depot saved')
    assert bench.hadrix.stop() == 0
    before = bench.depot()
    cut_short = 0
    for round_ in range(1, rounds + 1):
        earlier_leftovers = set(bench.leftovers())
        bench.start_with_devices()
        for _ in range(rng.randint(1, 4)):
            mark = bench.toggle(rng.choice(COMING_AND_GOING))
        wait_for_kill(bench, rng, mark)
        bench.kill()

        # The previous save, or one of this run's lists.
        text = bench.depot()
        assert text is not None, f'round {round_} (seed {seed}): the depot is gone'
        if text != before:
            assert depot_devices(text) in bench.states, \
                f'round {round_} (seed {seed}): the depot holds a list this run never had'
        before = text
        cut_short += bool(set(bench.leftovers()) - earlier_leftovers)
        if enough_cut_short and cut_short >= enough_cut_short:
            break
    print(f'saves cut short: {cut_short} of {round_} kills')
    if enough_cut_short:
        assert cut_short > 0, f'no kill landed inside a save in {round_} rounds (seed {seed})'

    # What the last kill left is what the next start reads: started in USB audio mode with no
    # device, the service looks in the depot for the devices of its last run.
    for name in list(bench.plugged):
        bench.unplug(name)
    bench.root.write(USB_AUDIO_MODE, '')
    hadrix = bench.start(env={'FAKETIME': '+0 x100'}, preload=paths.FAKETIME_LIBS[:1])
    saved = [entry['dev_path'] for entry in json.loads(before)]
    hadrix.wait_for_log(f'read {len(saved)} devices from the depot', timeout=15)
    read_back = hadrix.log.wait_for('-----strDevPath:', count=len(saved)) if saved else []
    assert [record.message.split(':', 1)[1] for record in read_back] == saved
    assert not hadrix.log.find('prase device depot fail.')
    assert bench.leftovers() == [], 'the temporary files of saves cut short are cleared away'
    assert hadrix.stop() == 0


SUBSCRIBER_FILE = '/home/owner/apps_rw/hadrix/data/.subscriber'
# Subscribers the file holds from earlier runs: enough lines that saving them takes a while.
KNOWN_SUBSCRIBERS = 2000
SUBSCRIBER_ROUNDS = 10


def subscriber_line(name):
    return f'{name} obj{name}\n'


class Subscribing(threading.Thread):
    """A client subscribing new names one after the other until the service stops answering;
    `confirmed` holds the names whose subscription was answered (so saved)."""

    def __init__(self, system_bus):
        super().__init__(name='subscribing', daemon=True)
        self.connection = system_bus.connect()
        self.confirmed = []

    def run(self):
        for number in itertools.count():
            name = f'org.example.new{number:06d}'
            try:
                self.connection.call_blocking(SERVER_NAME, SERVER_PATH, SERVER_IFACE,
                                              'SubscribeHadrixServiceCallback', 's', [name],
                                              timeout=5)
            except dbus.DBusException:
                return
            self.confirmed.append(name)


@pytest.mark.timeout(120)
def test_a_service_killed_while_saving_subscribers_keeps_every_confirmed_one(
        daemon, system_bus, hadrix_root):
    seed = int(os.environ.get('HADRIX_CRASH_SEED') or time.time_ns() % 1_000_000)
    print(f'\nseed {seed}')
    rng = random.Random(seed)
    known = [f'org.example.app{number:05d}' for number in range(KNOWN_SUBSCRIBERS)]
    hadrix_root.write(SUBSCRIBER_FILE, ''.join(subscriber_line(name) for name in known))
    expected = set(known)
    for round_ in range(1, SUBSCRIBER_ROUNDS + 1):
        hadrix = daemon.start()
        # It reads back every subscriber the last run saved.
        hadrix.log.wait_for('procName[', count=len(expected))
        system_bus.wait_for_name(SERVER_NAME)
        client = Subscribing(system_bus)
        client.start()
        time.sleep(rng.uniform(0.05, 0.5))
        hadrix.send_signal(signal.SIGKILL)
        assert hadrix.wait() == -signal.SIGKILL
        client.join(10)
        assert client.confirmed, f'round {round_}: no subscription went through before the kill'

        text = hadrix_root.read(SUBSCRIBER_FILE)
        lines = text.splitlines(keepends=True)
        saved = {line.split(' ', 1)[0] for line in lines}
        assert all(line == subscriber_line(line.split(' ', 1)[0]) for line in lines), \
            f'round {round_} (seed {seed}): a line cut short'
        expected |= set(client.confirmed)
        missing = expected - saved
        assert not missing, \
            f'round {round_} (seed {seed}): {len(missing)} confirmed subscribers lost'
        expected = saved
    cut_short = list(hadrix_root.data_dir.glob('.subscriber.*'))
    print(f'saves cut short in the last round: {len(cut_short)}')
    hadrix = daemon.start()
    hadrix.log.wait_for('procName[', count=len(expected))
    assert list(hadrix_root.data_dir.glob('.subscriber.*')) == [], \
        'the temporary files of saves cut short are cleared away'
    assert hadrix.stop() == 0
