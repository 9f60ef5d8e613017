"""The simulated TV (tools/tvsim/tvsim.py), run as scripts/demo runs it: the scripted story ends
unattended within its time budget and its timeline tells what the service did, in order; the
interactive mode takes commands on standard input and can be reached from another shell."""
import os
import queue
import re
import subprocess
import threading
import time
from pathlib import Path

import pytest

from simtv import paths

TVSIM = Path(__file__).resolve().parents[2] / 'tools' / 'tvsim' / 'tvsim.py'
PYTHON = '/usr/bin/python3'
# The whole story, unattended, in under two minutes.
DEMO_BUDGET = 120.0

# What each scene of the story must show: (who, a regular expression for the text), in any
# order within the scene (the service does some things in the background); the scenes in order.
STORY = {
    'The TV is on; the service starts': [
        ('hadrix', r'^stored headset volume: 35$'),
        ('systemd', r'^the service reported it is ready$'),
        ('client', r'^\$ hadrixctl monitor'),
        ('monitor', r'^no USB audio devices$'),
        ('hadrix', r'^no USB audio device at start-up$'),
    ],
    'Devices that are not for the TV sound': [
        ('viewer', r'^plugs a webcam'),
        ('hadrix', r'^it is a webcam: its microphone is no output, ignored$'),
        ('viewer', r'^plugs a gamepad'),
        ('hadrix', r"^it is a gamepad's sound card: left alone$"),
        ('platform', r'^event log <- warning unsupported_device "8BitDo Pro 2 Audio"$'),
    ],
    "A headset of the viewer's": [
        ('viewer', r'^plugs a USB headset, Jabra Evolve 20'),
        ('platform', r'^sound manager <- output route 15$'),
        ('platform', r'^key router <- grab the staged keys$'),
        ('bus', r'^audio server <- "Start" card 1$'),
        ('monitor', r'^yes +USB Headphone +connected +35 +Evolve 20 \(USB\) +Jabra$'),
        ('client', r'^\$ hadrixctl devices$'),
        ('client', r'^yes +USB Headphone +connected +35 +Evolve 20 \(USB\) +Jabra$'),
    ],
    'Volume keys of the remote, with the on-screen volume': [
        ('platform', r'^TV viewer <- extvolume_updown "up,36": the volume bar shows 36 \(up\) '
                     r'for "Evolve 20\(USB\)"$'),
        ('platform', r'^TV viewer <- extvolume_updown "up2,41"'),
        ('platform', r'^TV viewer <- extvolume "-4": the volume bar shows "muted"$'),
        ('platform', r'^audio control <- headset mute True$'),
        ('hadrix', r'^a key of the headset itself: the headset handles it$'),
        ('platform', r'^TV viewer <- play_tts "beep": the screen reader beeps$'),
        ('platform', r'^TV viewer <- play_tts "Volume,41,": the screen reader says "Volume,41,"$'),
    ],
    'More headsets: two carry the sound, a third waits': [
        ('bus', r'^audio server <- "Start" card 2$'),
        ('popup', r'^└ .*Noise may occur.*\[beside it: the USB-port guide image\]$'),
        ('hadrix', r'^two headsets already carry the sound: this one waits$'),
        ('popup', r'^┌ Arctis 1 Wireless$'),
        ('popup', r'^└ USB audio device connected\.$'),
        ('platform', r'the volume bar shows 40 \(down\) for "Evolve 20\(USB\) \+ '
                     r'H390 USB Headset\(USB\)"$'),
    ],
    'Multiview and screen mirroring': [
        ('platform', r'^multiview screen <- volume info: mute off, level 40$'),
        ('platform', r'^multiview screen <- volume info: mute off, level 41$'),
        ('hadrix', r'^screen mirroring changed the level to 30$'),
        ('platform', r'^audio control <- headset gain 30$'),
        ('hadrix', r'^screen mirroring changed the mute state to 1$'),
    ],
    'The viewer picks another output, then the headset again': [
        ('hadrix', r'^the TV output route is now 7$'),
        ('bus', r'^audio server <- "Stop" card 1$'),
        ('platform', r'^key router <- release the staged keys$'),
        ('hadrix', r'^the TV output route is now 15$'),
        ('bus', r'^audio server <- "Start" card 2$'),
    ],
    'Standby and resume': [
        ('hadrix', r'^power state 0 -> 4$'),
        ('bus', r'^audio server <- "Stop" card 2$'),
        ('hadrix', r'^power state 4 -> 0$'),
        ('hadrix', r'^USB audio mode from before: the sound goes to the headset$'),
        ('bus', r'^audio server <- "Start" card 1$'),
    ],
    'An engineer asks the service directly': [
        ('client', r'^\$ hadrixctl debug audio_control getUsbOutGain$'),
        ('hadrix', r'^debug command result: the headset gain is 30$'),
        ('state', r'^output route 15, USB audio mode on$'),
    ],
    'The headsets go; devices on a hub; an unsupported headset': [
        ('hadrix', r'^the service quits in 10 minutes unless a headset comes$'),
        ('bus', r'^speaker manager <- "SpkDisconnected" \(15, HADRIX_DEVICE\)$'),
        ('monitor', r'^no USB audio devices$'),
        ('bus', r'^audio server <- "Start" card 8$'),
        ('popup', r'^┌ USB Audio Device$'),
        ('hadrix', r'^menu language applied: de_DE\.UTF-8$'),
        ('hadrix', r'^an Astro headset: not supported, left alone$'),
        ('popup', r'^└ Dieses USB-Gerät wird nicht unterstützt\.$'),
    ],
    'Everything unplugged': [
        ('popup', r'^└ Schließen Sie das Gerät an einen anderen USB-Anschluss an\.'
                  r'.*guide image\]$'),
        ('hadrix', r'^the service quits in 10 minutes unless a headset comes$'),
        ('monitor', r'^hadrix left the bus$'),
        ('tv', r'^hadrix exited with status 0$'),
    ],
    'The ten-minute quit, on a clock 100 times faster (libfaketime)': [
        ('tv', r'^hadrix started .*100 times faster'),
        ('monitor', r'^hadrix is on the bus$'),
        ('hadrix', r'^the service quits in 10 minutes unless a headset comes$'),
        ('hadrix', r'^ten minutes without a headset: quitting$'),
        ('tv', r'^hadrix exited by itself with status 0$'),
    ],
}

TIMELINE_LINE = re.compile(r'^ *(?P<seconds>\d+\.\d\d)s  (?P<who>\S+) +(?P<text>.*)$')
SCENE_LINE = re.compile(r'^ +── (?P<title>.*) ──$')


def tvsim_env():
    env = {key: value for key, value in os.environ.items() if key != 'UMOCKDEV_DIR'}
    env['HADRIX_BUILD_DIR'] = str(paths.build_dir())
    return env


def scenes(output):
    """{scene title: [(seconds, who, text), ...]} of the timeline, in the order told."""
    told = {}
    events = told.setdefault('', [])
    for line in output.splitlines():
        scene, event = SCENE_LINE.match(line), TIMELINE_LINE.match(line)
        if scene:
            events = told.setdefault(scene['title'], [])
        elif event:
            events.append((float(event['seconds']), event['who'], event['text'].strip()))
    return told


def missing(events, expected):
    """The expected (who, pattern) pairs no event matches."""
    return [(who, pattern) for who, pattern in expected
            if not any(who == event_who and re.search(pattern, text)
                       for _, event_who, text in events)]


@pytest.mark.timeout(DEMO_BUDGET + 30)
def test_demo_tells_the_whole_story_unattended_within_its_budget():
    started = time.monotonic()
    result = subprocess.run([PYTHON, str(TVSIM), 'demo'], env=tvsim_env(), capture_output=True,
                            text=True, stdin=subprocess.DEVNULL, timeout=DEMO_BUDGET)
    took = time.monotonic() - started
    assert result.returncode == 0, result.stdout[-3000:] + result.stderr
    assert took < DEMO_BUDGET
    told = scenes(result.stdout)
    assert [title for title in told if title] == list(STORY), result.stdout
    for title, expected in STORY.items():
        absent = missing(told[title], expected)
        assert not absent, f'scene "{title}" lacks {absent}:\n{result.stdout}'
    assert told[title][-1][0] < DEMO_BUDGET


class Session:
    """tvsim run with its standard output read line by line while it runs."""

    def __init__(self):
        self.proc = subprocess.Popen([PYTHON, str(TVSIM), 'run'], env=tvsim_env(),
                                     stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                     stderr=subprocess.PIPE, text=True)
        self.lines = []
        self._queue = queue.Queue()
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()

    def _read(self):
        for line in self.proc.stdout:
            self._queue.put(line.rstrip('\n'))

    def wait_for(self, pattern, timeout=30.0):
        """The first line from now on that matches."""
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            try:
                line = self._queue.get(timeout=0.2)
            except queue.Empty:
                assert self.proc.poll() is None, self.report('tvsim ended early')
                continue
            self.lines.append(line)
            if re.search(pattern, line):
                return line
        raise AssertionError(self.report(f'no line matching {pattern!r}'))

    def send(self, *commands):
        self.proc.stdin.write(''.join(command + '\n' for command in commands))
        self.proc.stdin.flush()

    def finish(self, timeout=30.0):
        """Ends the input; returns the exit status once all output is in `lines`."""
        self.proc.stdin.close()
        status = self.proc.wait(timeout)
        self._reader.join(5)
        while not self._queue.empty():
            self.lines.append(self._queue.get())
        return status

    def report(self, what):
        return f'{what}; output so far:\n' + '\n'.join(self.lines)

    def kill(self):
        if self.proc.poll() is None:
            self.proc.kill()
            self.proc.wait()


@pytest.mark.timeout(90)
def test_run_takes_commands_and_can_be_reached_from_another_shell():
    session = Session()
    try:
        exports = session.wait_for(r'^  export DBUS_SYSTEM_BUS_ADDRESS=')
        env = {key: value for key, value in os.environ.items()
               if not key.startswith(('DBUS_', 'HADRIX_', 'UMOCKDEV_')) and key != 'LD_PRELOAD'}
        env.update(pair.split('=', 1) for pair in exports.split()[1:])
        session.wait_for(r'^commands:$')
        session.wait_for(r'^  quit ')

        # Another shell: the client API of the running service.
        ping = subprocess.run([str(paths.program('hadrixctl')), 'ping', 'engineer'], env=env,
                              capture_output=True, text=True, timeout=10)
        assert ping.returncode == 0, ping.stderr
        assert 'engineer' in ping.stdout

        session.send('bogus')
        session.wait_for(r"^\? unknown command 'bogus'; \"help\" lists the commands$")
        session.send('plug nothing')
        session.wait_for(r'^\? usage: plug NAME, NAME one of: headset, .*gamepad')
        session.send('key up sideways')
        session.wait_for(r'^\? usage: key up\|down\|mute \[HOLD\]')
        session.send('plug headset')
        session.wait_for(r'bus +audio server <- "Start" card 1$')
        session.send('plug headset')
        session.wait_for(r'^\? headset is plugged already$')
        session.send('key up')
        session.wait_for(r'TV viewer <- extvolume_updown "up,51": the volume bar shows 51')
        session.send('ctl devices')
        session.wait_for(r'client +yes +USB Headphone +connected +51 +Evolve 20 \(USB\) +Jabra$')
        session.send('state')
        session.wait_for(r'state +headset volume 51, muted 0$')
        session.send('quit')
        session.wait_for(r'tv +hadrix exited with status 0$')
        assert session.finish() == 0, session.report('tvsim failed')
    finally:
        session.kill()
