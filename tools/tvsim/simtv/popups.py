"""Popups the service posted, as the notification service (templates/notifications.py) received
them: one Popup per Notify call, and the ids it was asked to close."""
from dataclasses import dataclass

from .wait import wait_until

# How the service marks its popups (the platform's numbers, passed through as hints).
GUIDE_LAYOUT = 3
POPUP_AREA = 16
HIDE_TIMEOUT_MS = 60000


@dataclass
class Popup:
    app_name: str
    replaces_id: int
    title: str
    body: str
    hints: dict
    expire_timeout: int


class Popups:
    def __init__(self, mock):
        self.mock = mock

    def posted(self):
        return [Popup(args[0], args[1], args[3], args[4], args[6], args[7])
                for _, args in self.mock.calls('Notify')]

    def wait_for(self, count=1, timeout=10.0):
        """The first `count` popups, once that many have been posted."""
        return wait_until(lambda: len(self.posted()) >= count and self.posted()[:count], timeout,
                          what=f'{count} popup(s) posted')

    def closed(self):
        """The ids the service asked to close, in order."""
        return [args[0] for _, args in self.mock.calls('CloseNotification')]

    def on_screen(self):
        """(id, title, body) of the popups on screen now, oldest first."""
        return [tuple(item) for item in self.mock.call('OnScreen')]
