"""A private file-system root for the service (HADRIX_ROOT) with its settings directories."""
import os
import shutil
from pathlib import Path

_TYPES = {bool: 'bool', int: 'int', float: 'double', str: 'string'}


def setting_text(value, kind=None):
    """The settings-file content of a value: int:50, bool:1, double:0.5, string:x."""
    kind = kind or _TYPES[type(value)]
    if kind == 'bool':
        value = int(bool(value))
    return f'{kind}:{value}\n'


class HadrixRoot:
    def __init__(self, path):
        self.path = Path(path)
        self.settings_dir = self.path / 'var/lib/nimbos/settings'
        self.runtime_settings_dir = self.path / 'run/nimbos/settings'
        for directory in (self.path / 'tmp', self.settings_dir, self.runtime_settings_dir):
            directory.mkdir(parents=True, exist_ok=True)

    def install_app_files(self, app_files):
        """Copies the application files of a build (paths.app_files()) to /usr/apps."""
        shutil.copytree(app_files, self / '/usr/apps', dirs_exist_ok=True)

    def env(self):
        return {'HADRIX_ROOT': str(self.path), 'HADRIX_SETTINGS_DIR': str(self.settings_dir),
                'HADRIX_RUNTIME_SETTINGS_DIR': str(self.runtime_settings_dir)}

    def __truediv__(self, absolute):
        """The host path of an absolute service path: root / '/tmp/hadrix.running'."""
        return self.path / str(absolute).lstrip('/')

    @property
    def data_dir(self):
        return self / '/home/owner/apps_rw/hadrix/data'

    def read(self, absolute):
        return (self / absolute).read_text()

    def exists(self, absolute):
        return (self / absolute).exists()

    def write(self, absolute, content):
        path = self / absolute
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(content)
        return path

    def setting_path(self, key):
        base = self.runtime_settings_dir if key.startswith('memory/') else self.settings_dir
        return base / key

    def set_setting(self, key, value, kind=None):
        """Stores a key the way the settings store does (temporary file renamed over the key)."""
        path = self.setting_path(key)
        path.parent.mkdir(parents=True, exist_ok=True)
        temporary = path.with_name(f'.{path.name}.test-tmp')
        temporary.write_text(setting_text(value, kind))
        os.replace(temporary, path)
        return path

    def get_setting(self, key):
        """The stored (type, text) of a key, or None when it does not exist."""
        path = self.setting_path(key)
        if not path.exists():
            return None
        kind, _, text = path.read_text().partition(':')
        return kind, text[:-1] if text.endswith('\n') else text

    def unset_setting(self, key):
        self.setting_path(key).unlink(missing_ok=True)
