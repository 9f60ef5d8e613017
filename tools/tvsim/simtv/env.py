"""The environment programs under test start with.

Fixtures contribute to one ChildEnv per test: variables with set(), preload libraries with
preload(). The test process's own LD_PRELOAD (umockdev-wrapper's) is kept; a library added
with first=True (a sanitizer runtime) goes before everything else.
"""
import os

# Inherited variables that would tie a child to the developer's session or to another test.
# LANGUAGE would override the menu language the service applies to its texts.
_DROPPED = ('NOTIFY_SOCKET', 'DBUS_SESSION_BUS_ADDRESS', 'DBUS_SYSTEM_BUS_ADDRESS', 'FAKETIME',
            'UMOCKDEV_DIR', 'LD_PRELOAD', 'LANGUAGE', 'LOCPATH')
_DROPPED_PREFIXES = ('HADRIX_', 'FAKETIME_')


class ChildEnv:
    def __init__(self, base=None):
        base = dict(os.environ if base is None else base)
        self._inherited_preload = [lib for lib in base.get('LD_PRELOAD', '').replace(' ', ':')
                                   .split(':') if lib]
        self.vars = {key: value for key, value in base.items()
                     if key not in _DROPPED and not key.startswith(_DROPPED_PREFIXES)}
        self._first = []
        self._last = []

    def set(self, key, value):
        self.vars[key] = str(value)
        return self

    def unset(self, key):
        self.vars.pop(key, None)
        return self

    def preload(self, library, first=False):
        (self._first if first else self._last).append(str(library))
        return self

    def preloads(self):
        ordered = []
        for lib in self._first + self._inherited_preload + self._last:
            if lib not in ordered:
                ordered.append(lib)
        return ordered

    def for_peer(self):
        """The environment of a peer of the programs under test (a mock service): the same
        variables, but none of the libraries preloaded into the programs under test."""
        env = dict(self.vars)
        if self._inherited_preload:
            env['LD_PRELOAD'] = ':'.join(self._inherited_preload)
        return env

    def build(self, extra=None, preload=()):
        """The environment dict for one child: this one plus per-start additions."""
        env = dict(self.vars)
        for key, value in (extra or {}).items():
            if value is None:
                env.pop(key, None)
            else:
                env[key] = str(value)
        libs = self.preloads() + [str(lib) for lib in preload if str(lib) not in self.preloads()]
        if libs:
            env['LD_PRELOAD'] = ':'.join(libs)
        return env
