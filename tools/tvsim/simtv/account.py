"""The service's own user on the simulated TV, set up as the package sets it up: its sysusers
entry applied to the private root's /etc, its tmpfiles entries to the root's directories, and what
its unit gives the process (user, supplementary groups, ambient capabilities, logs directory)
given by setpriv.

The user itself must be one the host knows: the bus looks up the groups of every uid that
connects and turns away one it cannot find. So nobody (65534) stands in for it: the root's /etc
(the host's users and groups, so that the ids the entry picks are free on the host too) names
65534 "hadrix" before the entry is applied, which then makes the groups the user does not have.

    account = ServiceAccount(hadrix_root)
    daemons.start(command=account.command())                     # as the unit runs it
    daemons.start(command=account.command(capabilities=False))   # the same without CAP_SYSLOG
"""
import grp
import os
import subprocess
from pathlib import Path

from . import paths

DATA = paths.REPO / 'data'
STAND_IN_ID = 65534
SYSUSERS = DATA / 'hadrix.sysusers'
TMPFILES = DATA / 'hadrix.tmpfiles'
UNIT = DATA / 'hadrix.service.in'


def unit_settings(path):
    """The [Service] settings of a unit file: {key: [values]}, one per assignment."""
    settings, section = {}, None
    for line in path.read_text().splitlines():
        line = line.strip()
        if line.startswith('['):
            section = line
        elif section == '[Service]' and '=' in line and not line.startswith('#'):
            key, value = line.split('=', 1)
            settings.setdefault(key, []).append(value)
    return settings


def _ids(etc_file):
    """name: (id, gid or None) from a passwd or group file."""
    entries = {}
    for line in etc_file.read_text().splitlines():
        fields = line.split(':')
        entries[fields[0]] = (int(fields[2]), int(fields[3]) if etc_file.name == 'passwd' else None)
    return entries


class ServiceAccount:
    def __init__(self, root):
        etc = root / '/etc'
        etc.mkdir(parents=True, exist_ok=True)
        unit = unit_settings(UNIT)
        [self.name] = unit['User']
        stand_in = {'passwd': f'{self.name}:x:{STAND_IN_ID}:{STAND_IN_ID}::/:/usr/sbin/nologin\n',
                    'group': f'{self.name}:x:{STAND_IN_ID}:\n'}
        for name, line in stand_in.items():
            (etc / name).write_text(Path('/etc', name).read_text() + line)
        for tool in (['systemd-sysusers', f'--root={root.path}', str(SYSUSERS)],
                     ['systemd-tmpfiles', f'--root={root.path}', '--create', str(TMPFILES)]):
            subprocess.run(tool, check=True, capture_output=True, text=True, timeout=30)
        self.uid, self.gid = _ids(etc / 'passwd')[self.name]
        groups = _ids(etc / 'group')
        # Groups the package does not make are the system's (audio).
        self.groups = [groups[name][0] if name in groups else grp.getgrnam(name).gr_gid
                       for value in unit['SupplementaryGroups'] for name in value.split()]
        self.capabilities = [name.lower().removeprefix('cap_')
                             for value in unit['AmbientCapabilities'] for name in value.split()]
        for value in unit.get('LogsDirectory', []):
            for name in value.split():
                directory = root / f'/var/log/{name}'
                directory.mkdir(parents=True, exist_ok=True)
                os.chown(directory, self.uid, self.gid)
        os.chmod(root / '/tmp', 0o1777)  # as the system's /tmp

    def command(self, capabilities=True):
        """The setpriv command line that runs a program as the unit runs the service; without
        `capabilities`, with no capability at all."""
        argv = ['setpriv', f'--reuid={self.uid}', f'--regid={self.gid}',
                f'--groups={",".join(map(str, self.groups))}', '--no-new-privs']
        if capabilities and self.capabilities:
            caps = ','.join(f'+{name}' for name in self.capabilities)
            argv += [f'--inh-caps={caps}', f'--ambient-caps={caps}']
        return argv
