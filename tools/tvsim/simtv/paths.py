"""Where the tree, the build and the programs of the build are."""
import os
import re
import shutil
import tempfile
from pathlib import Path

SIMULATOR = Path(__file__).resolve().parents[1]
REPO = SIMULATOR.parents[1]
TEMPLATES = SIMULATOR / 'templates'

# Programs of the build, by name, relative to the build directory.
PROGRAMS = {
    'hadrix': 'src/hadrix',
    'hadrix-settings': 'tools/hadrix-settings',
    'hadrixctl': 'tools/hadrixctl',
    'hadrix-klog-shim': 'tools/tvsim/shims/libhadrix-klog-shim.so',
}

# The application files of the build, laid out as under HADRIX_ROOT.
STAGED_APP_FILES = 'root/usr/apps'

# libfaketime's preload library: Debian installs it under the multiarch directory.
FAKETIME_LIBS = sorted(Path('/usr/lib').glob('*/faketime/libfaketime.so.1'))


class MissingProgram(Exception):
    pass


def build_dir():
    """HADRIX_BUILD_DIR, or <repo>/build."""
    return Path(os.environ.get('HADRIX_BUILD_DIR') or REPO / 'build').resolve()


def program(name):
    """Path of a built program; raises MissingProgram with how to build it."""
    build = build_dir()
    path = build / PROGRAMS[name]
    if not os.access(path, os.X_OK):
        raise MissingProgram(
            f'{name} is not built: {path} does not exist. Build it with '
            f'"cmake --build {build} --target {name}", or point HADRIX_BUILD_DIR at the build '
            f'directory that has it.')
    return path


def sanitizers():
    """The sanitizers the build was made with (HADRIX_SANITIZE, e.g. "address,undefined"), or
    "" for a plain build."""
    cache = build_dir() / 'CMakeCache.txt'
    if not cache.is_file():
        return ''
    found = re.search(r'^HADRIX_SANITIZE:STRING=(.*)$', cache.read_text(), re.MULTILINE)
    return found.group(1).strip() if found else ''


def app_files():
    """The application files the build staged as under HADRIX_ROOT (translation catalogue,
    images): <build>/root/usr/apps; raises MissingProgram with how to build them."""
    build = build_dir()
    path = build / STAGED_APP_FILES
    if not path.is_dir():
        raise MissingProgram(
            f'the application files are not built: {path} does not exist. Build them with '
            f'"cmake --build {build} --target hadrix-res".')
    return path


def template(name):
    """Path of a mock template module in templates/ beside simtv/."""
    path = TEMPLATES / f'{name}.py'
    if not path.is_file():
        raise FileNotFoundError(f'no mock template {path}')
    return path


class SocketDir:
    """A short private directory for unix sockets.

    sun_path holds at most 107 bytes, which pytest's per-test directories can exceed, so
    sockets live in a directory of their own under /tmp.
    """

    def __init__(self):
        self.path = Path(tempfile.mkdtemp(prefix='hx-', dir='/tmp'))

    def __truediv__(self, name):
        return self.path / name

    def remove(self):
        shutil.rmtree(self.path, ignore_errors=True)
