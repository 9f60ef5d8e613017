"""The service killed with SIGKILL while it saves its files: each file on disk is whole, as the
last save or the one under way left it, and the next start reads it back. Temporary files left
by saves cut short show how many kills hit a save. Each run prints its seed (HADRIX_CRASH_SEED
replays it)."""
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

from conftest import DEPOT, SUBSCRIBER_FILE, USB_AUDIO_MODE
from simtv import paths
from simtv.alsa_card import EmulatedCard, stereo_headset
from simtv.client_api import SERVER_IFACE, SERVER_NAME, SERVER_PATH
from simtv.devices import CATALOGUE

DEPOT_KEYS = {'product_name', 'vendor_id', 'product_id', 'dev_path', 'manufature', 'card_num',
              'status', 'time_stamp'}
COMING_AND_GOING = ('headset2', 'headset3')
BY_PATH = {f'/devices/platform/soc/xhci-hcd.0/usb1/{CATALOGUE[name].port}/'
           f'{CATALOGUE[name].port}:1.0/sound/card{CATALOGUE[name].card}': name
           for name in ('headset', *COMING_AND_GOING)}


def seeded():
    seed = int(os.environ.get('HADRIX_CRASH_SEED') or time.time_ns() % 1_000_000)
    print(f'\nseed {seed}')
    return seed, random.Random(seed)


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


def kill_as_a_save_begins(tv, rng, mark):
    # A save of the small depot takes well under a millisecond: the kill must follow the log line
    # at once (the line's way to the test is the randomness).
    tv.daemon.wait_for_log(re.compile(r'write to file .*devices\.depot '), since=mark, timeout=10)


def kill_at_any_moment(tv, rng, mark):
    time.sleep(rng.uniform(0, 0.7))


def kill(hadrix):
    hadrix.send_signal(signal.SIGKILL)
    assert hadrix.wait() == -signal.SIGKILL


# (when to kill, at most how many rounds, enough saves cut short to stop early): the first way
# must cut at least one save short to prove anything, the second mostly kills between saves.
@pytest.mark.timeout(240)
@pytest.mark.parametrize('wait_for_kill, rounds, enough_cut_short', [
    pytest.param(kill_as_a_save_begins, 40, 3, id='as-a-save-begins'),
    pytest.param(kill_at_any_moment, 20, None, id='at-any-moment')])
def test_a_killed_service_leaves_the_depot_whole_and_reads_it_back(tv, wait_for_kill, rounds,
                                                                   enough_cut_short):
    seed, rng = seeded()
    # Every card's mixer, in place before the card is first plugged: the service opens it as
    # soon as it hears of the card.
    for name in BY_PATH.values():
        card = CATALOGUE[name].card
        tv.bed.attach_ioctl(f'/dev/snd/controlC{card}', EmulatedCard(card, stereo_headset()))

    def start_with_devices(**options):
        """Starts the service, which adds the devices there one by one; returns the device sets
        its list has had, once its start-up enumeration has ended."""
        present = list(tv.plugged)
        tv.start('m_SendEventToClient end', cards=[CATALOGUE[n].card for n in BY_PATH.values()],
                 **options)
        return {frozenset(subset) for size in range(len(present) + 1)
                for subset in itertools.combinations(present, size)}

    def leftovers():
        return set(tv.root.data_dir.glob('devices.depot.*'))

    # A first run that ends normally leaves a whole depot: what a kill may fall back to.
    start_with_devices(boot=['headset'])
    tv.daemon.wait_until(lambda: tv.root.exists(DEPOT), what='the depot saved')
    assert tv.daemon.stop() == 0
    before = tv.root.read(DEPOT)
    cut_short, at = 0, 120.0
    for round_ in range(1, rounds + 1):
        earlier_leftovers = leftovers()
        states = start_with_devices()
        for _ in range(rng.randint(1, 4)):
            mark, name, at = tv.daemon.log.mark(), rng.choice(COMING_AND_GOING), at + 1.0
            if name in tv.plugged:
                tv.unplug(name, at)
            else:
                tv.plug(name, at)
            states.add(frozenset(tv.plugged))
        wait_for_kill(tv, rng, mark)
        kill(tv.daemon)

        # The previous save, or one of this run's lists.
        assert tv.root.exists(DEPOT), f'round {round_} (seed {seed}): the depot is gone'
        text = tv.root.read(DEPOT)
        assert text == before or depot_devices(text) in states, \
            f'round {round_} (seed {seed}): the depot holds a list this run never had'
        before = text
        cut_short += bool(leftovers() - earlier_leftovers)
        if enough_cut_short and cut_short >= enough_cut_short:
            break
    print(f'saves cut short: {cut_short} of {round_} kills')
    if enough_cut_short:
        assert cut_short > 0, f'no kill landed inside a save in {round_} rounds (seed {seed})'

    # What the last kill left is what the next start reads: started in USB audio mode with no
    # device, the service looks in the depot for the devices of its last run.
    for name in list(tv.plugged):
        tv.log.disconnect(CATALOGUE[name].port, at)
        tv.bed.remove(tv.plugged.pop(name))
    tv.root.write(USB_AUDIO_MODE, '')
    hadrix = tv.start(env={'FAKETIME': '+0 x100'}, preload=paths.FAKETIME_LIBS[:1])
    saved = [entry['dev_path'] for entry in json.loads(before)]
    hadrix.wait_for_log(f'read {len(saved)} devices from the depot', timeout=15)
    read_back = hadrix.log.wait_for('-----strDevPath:', count=len(saved)) if saved else []
    assert [record.message.split(':', 1)[1] for record in read_back] == saved
    assert not hadrix.log.find('prase device depot fail.')
    assert leftovers() == set(), 'the temporary files of saves cut short are cleared away'
    assert hadrix.stop() == 0


# Names as long as the subscriber file keeps them whole ("obj" + name within 255 bytes), so that
# a save of a full table takes a while.
def long_name(prefix, number):
    return f'{prefix}{number:06d}'.ljust(252, 'x')


class Subscribing(threading.Thread):
    """A client subscribing new names one after the other until the service stops answering; once
    the table is full it subscribes again the processes `known` to be there (each call still
    saves the file). `confirmed` holds the names whose subscription was answered (so saved)."""

    def __init__(self, system_bus, known):
        super().__init__(name='subscribing', daemon=True)
        self.connection = system_bus.connect()
        self.known = sorted(known)
        self.confirmed = []
        self.first_confirmed = threading.Event()

    def run(self):
        full = False
        for number in itertools.count():
            name = self.known[number % len(self.known)] if full else long_name('org.example.new', number)
            try:
                self.connection.call_blocking(SERVER_NAME, SERVER_PATH, SERVER_IFACE,
                                              'SubscribeHadrixServiceCallback', 's', [name],
                                              timeout=5)
            except dbus.DBusException as error:
                if error.get_dbus_name() != 'org.freedesktop.DBus.Error.LimitsExceeded':
                    return
                full = True
                continue
            self.confirmed.append(name)
            self.first_confirmed.set()


@pytest.mark.timeout(120)
def test_a_service_killed_while_saving_subscribers_keeps_every_confirmed_one(
        daemon, system_bus, hadrix_root):
    seed, rng = seeded()
    # Subscribers from earlier runs, leaving room for a few more.
    expected = {long_name('org.example.app', number) for number in range(110)}
    hadrix_root.write(SUBSCRIBER_FILE, ''.join(f'{name} obj{name}\n' for name in expected))
    for round_ in range(1, 11):
        hadrix = daemon.start()
        # It reads back every subscriber the last run saved.
        hadrix.log.wait_for('procName[', count=len(expected))
        system_bus.wait_for_name(SERVER_NAME)
        client = Subscribing(system_bus, expected)
        client.start()
        # Killed at a random moment once the saves are under way, however loaded the machine is.
        assert client.first_confirmed.wait(10), f'round {round_}: no subscription went through'
        time.sleep(rng.uniform(0.0, 0.45))
        kill(hadrix)
        client.join(10)

        lines = hadrix_root.read(SUBSCRIBER_FILE).splitlines(keepends=True)
        saved = {line.split(' ', 1)[0] for line in lines}
        assert all(line == '{0} obj{0}\n'.format(line.split(' ', 1)[0]) for line in lines), \
            f'round {round_} (seed {seed}): a line cut short'
        missing = (expected | set(client.confirmed)) - saved
        assert not missing, f'round {round_} (seed {seed}): {len(missing)} confirmed ones lost'
        expected = saved
    print(f'saves cut short: {len(list(hadrix_root.data_dir.glob(".subscriber.*")))}')
    hadrix = daemon.start()
    hadrix.log.wait_for('procName[', count=len(expected))
    assert list(hadrix_root.data_dir.glob('.subscriber.*')) == [], \
        'the temporary files of saves cut short are cleared away'
    assert hadrix.stop() == 0
