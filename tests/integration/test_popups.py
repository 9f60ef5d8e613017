"""Popups about USB audio devices, as the TV's notification service (a mock recording every
Notify with its hints) receives them; texts are the service's catalogue in the menu language."""
import errno

import pytest

from conftest import LATER
from simtv.alsa_card import BOOLEAN, INTEGER, Control
from simtv.popups import HIDE_TIMEOUT_MS, POPUP_AREA

TV = ('UA55TV', 'REP.DEVICE.TV', None)
SMART_MONITOR = ('LS32MONITOR', 'REP.DEVICE.SMART.MONITOR', None)
KESTRAL_ARK = ('LS55ARK', 'REP.DEVICE.KESTRAL.ARK', None)
SCREEN_WITH_TUNER = ('LH43SCREEN', 'REP.DEVICE.SCREEN', 'true')
NOT_SUPPORTED = 'This USB device is not supported.'
CONNECTED = 'USB audio device connected.'
MAY_NOT_WORK = 'The connected device may not work normally on this {}.'


@pytest.fixture
def popup_tv(tv, app_files, menu_language):
    menu_language('en_US.UTF-8')
    return tv


def start(tv, cards, product=TV, boot=('twin-a',)):
    """Starts the service on this product, by default with a speaker there since boot on the other
    USB bus (it takes no popup, shares no port, and ends the start-up's enumeration at its first
    pass); returns the popups posted."""
    model, device_sid, removable_tuner = product
    features = f'com.corvel/featureconf/product.device_sid={device_sid}\n'
    if removable_tuner is not None:
        features += f'com.corvel/featureconf/broadcast.removable_rf_tuner_support={removable_tuner}\n'
    tv.root.write('/etc/nimbos/system-info.conf', f'[system]\nmodel={model}\n[features]\n{features}')
    tv.start('m_DeviceInit out', 'save cardNum' if boot else 'No devices found.', boot=boot, cards=cards)
    return tv.services.popups


def assert_plain_popup(popup, title, body):
    assert (popup.title, popup.body) == (title, body)
    assert (popup.app_name, popup.expire_timeout) == ('hadrix', HIDE_TIMEOUT_MS)
    assert popup.hints['x-nimbos-display-applist'] == POPUP_AREA
    assert popup.hints['resident'] is True


# Which text for which product is decided in-process; here each text of the catalogue is seen.
@pytest.mark.parametrize('product, kind', [
    (TV, 'TV'), (SMART_MONITOR, 'Smart Monitor'), (KESTRAL_ARK, 'Kestral Ark'), (SCREEN_WITH_TUNER, 'screen'),
], ids=['tv', 'smart-monitor', 'kestral-ark', 'screen'])
def test_device_whose_mixer_cannot_be_set_may_not_work_normally(popup_tv, product, kind):
    popups = start(popup_tv, [1, 7], product)
    popup_tv.plug('headset', mixer=[
        Control('PCM Playback Switch', BOOLEAN, [1]),
        Control('PCM Playback Volume', INTEGER, [30, 30], 0, 127, fail_errno=errno.EIO)])
    [popup] = popups.wait_for(1)
    assert_plain_popup(popup, 'Evolve 20', MAY_NOT_WORK.format(kind))
    assert 'image-path' not in popup.hints
    popup_tv.daemon.wait_until(popup_tv.kpi_warnings, what='a KPI warning')
    assert popup_tv.kpi_warnings() == [(2, 'Evolve 20')]


def test_popups_follow_the_menu_language(popup_tv, menu_language):
    tv = popup_tv
    menu_language('de_DE.UTF-8')
    popups = start(tv, [1, 5, 7, 8], boot=())
    tv.plug('astro')
    [german] = popups.wait_for(1)
    assert (german.title, german.body) == ('Astro A20', 'Dieses USB-Gerät wird nicht unterstützt.')
    mark = tv.daemon.log.mark()
    tv.root.set_setting('db/menu_widget/language', 'fr_FR.UTF-8')
    tv.daemon.wait_for_log('setlocale ret : fr_FR.UTF-8', since=mark)
    tv.unplug('astro', at=LATER + 30)
    tv.plug('twin-a')
    tv.plug('twin-b')
    assert popups.wait_for(2)[1].body == (
        "Branchez l'appareil sur un autre port USB. Du bruit peut survenir lorsque deux "
        'périphériques audio USB sont branchés sur des ports USB voisins.')
