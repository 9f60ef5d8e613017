"""The simulated TV (tools/tvsim/tvsim.py), run as scripts/demo runs it: the scripted story ends
unattended within its time budget and its timeline shows each scene's key events; the
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

TVSIM = ['/usr/bin/python3', str(Path(__file__).resolve().parents[2] / 'tools/tvsim/tvsim.py')]
DEMO_BUDGET = 120.0
# The scenes in order, each with the (who, regular expression) of its key events in any order.
STORY = {
    'The TV is on; the service starts': [
        ('systemd', r'^the service reported it is ready$'),
        ('hadrix', r'^no USB audio device at start-up$')],
    'Devices that are not for the TV sound': [
        ('hadrix', r'^it is a webcam: its microphone is no output, ignored$'),
        ('hadrix', r"^it is a gamepad's sound card: left alone$"),
        ('client', r'^HD Pro Webcam C920 \(Logitech, 046d:082d, port 1-4, card 4\): was left alone when it '
                   r"was plugged in at \d\d:\d\d:\d\d\. Its name is in the service's table of webcams"),
        # The gamepad library and the joystick's input device race to tell the service first.
        ('client', r"^8BitDo Pro 2 Audio \(8BitDo, 2dc8:3106, port 1-7\): was left alone .* It is a "
                   r"gamepad's audio function: (the gamepad library lists a gamepad|a joystick) with its "
                   r"USB ids( is connected)?\.$")],
    "A headset of the viewer's": [
        ('viewer', r'^plugs a USB headset, Jabra Evolve 20'),
        ('platform', r'^sound manager <- output route 15$'),
        ('bus', r'^audio server <- "Start" card 1$'),
        ('client', r'^yes +USB Headphone +connected +35 +Evolve 20 \(USB\) +Jabra$')],
    'Volume keys of the remote, with the on-screen volume': [
        ('platform', r'^TV viewer <- extvolume_updown "up,36": the volume bar shows 36 \(up\) '
                     r'for "Evolve 20\(USB\)"$'),
        ('platform', r'^audio control <- headset mute True$'),
        ('hadrix', r'^a key of the headset itself: the headset handles it$'),
        ('platform', r'^TV viewer <- play_tts "Volume,41,": the screen reader says "Volume,41,"$')],
    'More headsets: two carry the sound, a third waits': [
        ('bus', r'^audio server <- "Start" card 2$'),
        ('popup', r'^└ .*Noise may occur.*\[beside it: the USB-port guide image\]$'),
        ('hadrix', r'^two headsets already carry the sound: this one waits$'),
        ('client', r'^Arctis 1 Wireless \(SteelSeries, 1038:12b3, port 1-3, card 3\): waits for a free '
                   r'place when it was plugged in at .* Two devices take the sound at most: 2 attached, \d in '
                   r'use\.$')],
    'Multiview and screen mirroring': [
        ('platform', r'^multiview screen <- volume info: mute off, level 41$'),
        ('hadrix', r'^screen mirroring changed the level to 30$')],
    'The viewer picks another output, then the headset again': [
        ('hadrix', r'^the TV output route is now 7$'),
        ('bus', r'^audio server <- "Stop" card 1$'),
        ('hadrix', r'^the TV output route is now 15$')],
    'Standby and resume': [
        ('hadrix', r'^power state 0 -> 4$'),
        ('bus', r'^audio server <- "Stop" card 2$'),
        ('hadrix', r'^USB audio mode from before: the sound goes to the headset$'),
        ('bus', r'^audio server <- "Start" card 1$'),
        ('client', r'^Evolve 20 \(Jabra, 0b0e:0300, port 1-1, card 1\): took the sound when the service '
                   r'looked for devices after standby at .* USB audio mode was stored'),
        ('client', r'^Arctis 1 Wireless .*: waits for a free place when the service looked for devices '
                   r'after standby')],
    'An engineer asks the service directly': [
        ('client', r'^\$ hadrixctl debug audio_control getUsbOutGain$'),
        ('hadrix', r'^debug command result: the headset gain is 30$')],
    'The headsets go; devices on a hub; an unsupported headset': [
        ('bus', r'^speaker manager <- "SpkDisconnected" \(15, HADRIX_DEVICE\)$'),
        ('bus', r'^audio server <- "Start" card 8$'),
        ('popup', r'^└ Dieses USB-Gerät wird nicht unterstützt\.$')],
    'Everything unplugged': [
        ('hadrix', r'^the service quits in 10 minutes unless a headset comes$'),
        ('tv', r'^hadrix exited with status 0$')],
    'The ten-minute quit, on a clock 100 times faster (libfaketime)': [
        ('tv', r'^hadrix started .*100 times faster'),
        ('hadrix', r'^ten minutes without a headset: quitting$'),
        ('tv', r'^hadrix exited by itself with status 0$')],
}
TIMELINE_LINE = re.compile(r'^ *(?P<seconds>\d+\.\d\d)s  (?P<who>\S+) +(?P<text>.*)$')
SCENE_LINE = re.compile(r'^ +── (?P<title>.*) ──$')


def tvsim_env():
    env = {key: value for key, value in os.environ.items() if key != 'UMOCKDEV_DIR'}
    env['HADRIX_BUILD_DIR'] = str(paths.build_dir())
    return env


@pytest.mark.timeout(DEMO_BUDGET + 30)
def test_demo_tells_the_whole_story_unattended_within_its_budget():
    started = time.monotonic()
    result = subprocess.run([*TVSIM, 'demo'], env=tvsim_env(), capture_output=True, text=True,
                            stdin=subprocess.DEVNULL, timeout=DEMO_BUDGET)
    assert result.returncode == 0, result.stdout[-3000:] + result.stderr
    assert time.monotonic() - started < DEMO_BUDGET
    told = {}  # {scene title: [(seconds, who, text), ...]}
    events = told.setdefault('', [])
    for line in result.stdout.splitlines():
        scene, event = SCENE_LINE.match(line), TIMELINE_LINE.match(line)
        if scene:
            events = told.setdefault(scene['title'], [])
        elif event:
            events.append((float(event['seconds']), event['who'], event['text'].strip()))
    assert [title for title in told if title] == list(STORY), result.stdout
    for title, expected in STORY.items():
        absent = [(who, pattern) for who, pattern in expected
                  if not any(who == w and re.search(pattern, text) for _, w, text in told[title])]
        assert not absent, f'scene "{title}" lacks {absent}:\n{result.stdout}'


@pytest.mark.timeout(90)
def test_run_takes_commands_and_can_be_reached_from_another_shell(tmp_path):
    with open(tmp_path / 'tvsim.stderr', 'w') as stderr:
        proc = subprocess.Popen([*TVSIM, 'run'], env=tvsim_env(), stdin=subprocess.PIPE,
                                stdout=subprocess.PIPE, stderr=stderr, text=True)
    lines, seen = queue.Queue(), []
    threading.Thread(target=lambda: [lines.put(line.rstrip('\n')) for line in proc.stdout],
                     daemon=True).start()

    def expect(command, pattern, timeout=30.0):
        """Sends the command (if any); returns the first line from then on that matches."""
        if command:
            proc.stdin.write(command + '\n')
            proc.stdin.flush()
        deadline = time.monotonic() + timeout
        while True:
            try:
                seen.append(lines.get(timeout=max(0.01, deadline - time.monotonic())))
            except queue.Empty:
                raise AssertionError(f'no line matching {pattern!r}; output so far:\n'
                                     + '\n'.join(seen)) from None
            if re.search(pattern, seen[-1]):
                return seen[-1]

    try:
        exports = expect(None, r'^  export DBUS_SYSTEM_BUS_ADDRESS=')
        expect(None, r'^  quit ')
        env = {key: value for key, value in os.environ.items()
               if not key.startswith(('DBUS_', 'HADRIX_', 'UMOCKDEV_')) and key != 'LD_PRELOAD'}
        env.update(pair.split('=', 1) for pair in exports.split()[1:])
        ping = subprocess.run([str(paths.program('hadrixctl')), 'ping', 'engineer'], env=env,
                              capture_output=True, text=True, timeout=10)
        assert ping.returncode == 0 and 'engineer' in ping.stdout, ping.stderr
        for command, pattern in [
                ('bogus', r"^\? unknown command 'bogus'; \"help\" lists the commands$"),
                ('plug nothing', r'^\? usage: plug NAME, NAME one of: headset, .*gamepad'),
                ('key up sideways', r'^\? usage: key up\|down\|mute \[HOLD\]'),
                ('plug headset', r'bus +audio server <- "Start" card 1$'),
                ('plug headset', r'^\? headset is plugged already$'),
                ('key up', r'TV viewer <- extvolume_updown "up,51": the volume bar shows 51'),
                ('ctl devices',
                 r'client +yes +USB Headphone +connected +51 +Evolve 20 \(USB\) +Jabra$'),
                ('why 1-1', r'client +Evolve 20 \(Jabra, 0b0e:0300, port 1-1, card 1\): took the sound '
                            r'when it was plugged in'),
                ('why nothing', r'client +\(exit status 1\)$'),
                ('state', r'state +headset volume 51, muted 0$'),
                ('quit', r'tv +hadrix exited with status 0$')]:
            expect(command, pattern)
        proc.stdin.close()
        assert proc.wait(30) == 0
    finally:
        proc.kill()
        proc.wait()
