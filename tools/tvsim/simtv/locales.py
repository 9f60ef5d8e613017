"""Locales for programs under test that follow a menu language.

The machine may have no locale but C generated; `compile_locales` compiles the ones a test needs
with localedef into a directory of its own, and programs started with LOCPATH=<that directory>
find them there, leaving the machine's locales alone.
"""
import shutil
import subprocess
from pathlib import Path

SOURCES = Path('/usr/share/i18n/locales')


class MissingLocales(RuntimeError):
    pass


def compile_locales(directory, names):
    """Compiles each locale name ('de_DE.UTF-8') into `directory`; returns the directory."""
    if not shutil.which('localedef') or not SOURCES.is_dir():
        raise MissingLocales('compiling locales needs localedef and the locale sources '
                             '(Debian package locales)')
    directory = Path(directory)
    directory.mkdir(parents=True, exist_ok=True)
    for name in names:
        if (directory / name).is_dir():
            continue
        territory, charmap = name.split('.', 1)
        result = subprocess.run(['localedef', '-i', territory, '-f', charmap, str(directory / name)],
                                capture_output=True, text=True)
        # localedef warns about harmless details with exit status 1; only a missing result fails.
        if not (directory / name / 'LC_MESSAGES').is_dir():
            raise MissingLocales(f'localedef could not compile {name}: {result.stderr.strip()}')
    return directory
