"""The daemon's log: parsing its lines and collecting them while it runs."""
import re
import threading
from dataclasses import dataclass
from typing import Optional

from .wait import Deadline, WaitTimeout

ANSI = re.compile(r'\x1b\[[0-9;]*m')
RED = '\x1b[0;31m'
YELLOW = '\x1b[0;33m'

# HH:MM:SS.mmm P/tag(pid:tid): body
_HEAD = re.compile(r'^(?P<time>\d\d:\d\d:\d\d\.\d{3}) (?P<prio>[DIWEF])/(?P<tag>[^(]*)'
                   r'\((?P<pid>\d+):(?P<tid>\d+)\): (?P<body>.*)$')
# The service's body: file: function(line) > message
_SOURCE = re.compile(r'^(?P<file>\S+): (?P<func>.+?)\((?P<line>\d+)\) > (?P<message>.*)$')


@dataclass(frozen=True)
class LogRecord:
    raw: str
    prio: Optional[str] = None
    tag: Optional[str] = None
    pid: Optional[int] = None
    tid: Optional[int] = None
    file: Optional[str] = None
    func: Optional[str] = None
    line: Optional[int] = None
    message: str = ''

    @property
    def text(self):
        """The whole line without colour escapes."""
        return ANSI.sub('', self.raw)

    @property
    def colour(self):
        """The escape the message starts with (RED, YELLOW), or None."""
        body = self.raw.split(' > ', 1)[-1]
        match = re.match(r'\x1b\[[0-9;]*m', body)
        return match.group(0) if match else None


def parse(raw):
    head = _HEAD.match(raw)
    if not head:
        return LogRecord(raw=raw, message=ANSI.sub('', raw))
    fields = dict(raw=raw, prio=head['prio'], tag=head['tag'], pid=int(head['pid']),
                  tid=int(head['tid']))
    source = _SOURCE.match(head['body'])
    if source:
        fields.update(file=source['file'], func=source['func'], line=int(source['line']),
                      message=ANSI.sub('', source['message']))
    else:
        fields['message'] = ANSI.sub('', head['body'])
    return LogRecord(**fields)


def matcher(pattern):
    """A predicate on LogRecord: a str matches as a substring of the uncoloured line, a
    compiled regex is searched in it, a callable is used as it is."""
    if isinstance(pattern, str):
        return lambda record: pattern in record.text
    if isinstance(pattern, re.Pattern):
        return lambda record: pattern.search(record.text) is not None
    return pattern


class LogBuffer:
    """Lines of a stream, filled by a reader thread, readable and awaitable from the test.

    Every line is also appended to `path` as it arrives, so the log survives the test.
    """

    def __init__(self, path):
        self.path = path
        self._records = []
        self._closed = False
        self._cond = threading.Condition()
        self._file = open(path, 'w', encoding='utf-8', buffering=1)
        self._thread = None

    def follow(self, stream, name):
        self._thread = threading.Thread(target=self._read, args=(stream,), name=name, daemon=True)
        self._thread.start()

    def _read(self, stream):
        try:
            for chunk in iter(stream.readline, b''):
                self.append(chunk.decode('utf-8', errors='replace').rstrip('\n'))
        finally:
            stream.close()
            with self._cond:
                self._closed = True
                self._file.close()
                self._cond.notify_all()

    def append(self, raw):
        with self._cond:
            self._records.append(parse(raw))
            self._file.write(raw + '\n')
            self._cond.notify_all()

    def join(self, timeout=5.0):
        """Waits until the stream has ended and every line is in."""
        if self._thread:
            self._thread.join(timeout)
            if self._thread.is_alive():
                raise WaitTimeout(f'log reader of {self.path} still running after {timeout:g} s')

    def mark(self):
        """Position to pass as `since`, so only later lines are considered."""
        with self._cond:
            return len(self._records)

    def records(self, since=0):
        with self._cond:
            return self._records[since:]

    def lines(self, since=0):
        """Lines without colour escapes."""
        return [record.text for record in self.records(since)]

    def find(self, pattern, since=0):
        match = matcher(pattern)
        return [record for record in self.records(since) if match(record)]

    def wait_for(self, pattern, timeout=5.0, since=0, count=1):
        """Waits until `count` lines after `since` match; returns the matching records.

        Fails at once when the stream ends (the process is gone) without enough matches.
        """
        match = matcher(pattern)
        deadline = Deadline(timeout)
        seen = since
        found = []
        with self._cond:
            while True:
                found += [record for record in self._records[seen:] if match(record)]
                seen = len(self._records)
                if len(found) >= count:
                    return found[:count]
                if self._closed:
                    raise WaitTimeout(f'{self.path.name} ended before {count} line(s) matching '
                                      f'{pattern!r} (found {len(found)})')
                if deadline.expired():
                    raise WaitTimeout(f'timed out after {timeout:g} s waiting for {count} line(s) '
                                      f'matching {pattern!r} in {self.path.name} '
                                      f'(found {len(found)})')
                self._cond.wait(deadline.remaining())

    def dump(self, tail=200):
        lines = self.lines()
        skipped = len(lines) - tail
        head = [f'... ({skipped} earlier lines in {self.path})'] if skipped > 0 else []
        return '\n'.join(head + lines[-tail:])
