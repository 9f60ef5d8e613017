"""Popups about USB audio devices, as the TV's notification service receives them: the real
daemon against the platform's services (the notification service a mock that records every
Notify with its hints), USB devices in a umockdev testbed and a kernel log saying the devices
were plugged by the viewer.

Texts are the service's catalogue in the menu language; the locales are compiled for the test
run (fixture `menu_language`).
"""
import errno
import json

import pytest

from simtv import paths
from simtv.alsa_card import BOOLEAN, INTEGER, Control, EmulatedCard
from simtv.devices import CATALOGUE, plug
from simtv.popups import GUIDE_LAYOUT, HIDE_TIMEOUT_MS, POPUP_AREA, Popups

SYSTEM_INFO = '/etc/nimbos/system-info.conf'
KPI_FILE = '/var/log/hadrix/kpi.jsonl'
GUIDE_IMAGE = '/usr/apps/hadrix/shared/res/img_usb_port_guide.svg'
LATER = 120.0  # seconds after boot: plugged by the viewer
AT_BOOT = 3.5  # seconds after boot: found while booting

TV = ('UA55TV', 'REP.DEVICE.TV', None)
EASEL_32_TV = ('UE32KF03BXA', 'REP.DEVICE.TV', None)
SMART_MONITOR = ('LS32MONITOR', 'REP.DEVICE.SMART.MONITOR', None)
KESTRAL_ARK = ('LS55ARK', 'REP.DEVICE.KESTRAL.ARK', None)
SCREEN_WITH_TUNER = ('LH43SCREEN', 'REP.DEVICE.SCREEN', 'true')
SCREEN_WITHOUT_TUNER = ('LH43SCREEN', 'REP.DEVICE.SCREEN', 'false')

ENGLISH = {
    'connect': 'Connected',
    'not supported': 'This USB device is not supported.',
    'connected': 'USB audio device connected.',
    'other port': 'Connect the device to another USB port.',
    'noise': 'Noise may occur when two USB audio devices are connected to neighbouring USB ports.',
    'TV': 'The connected device may not work normally on this TV.',
    'Smart Monitor': 'The connected device may not work normally on this Smart Monitor.',
    'Kestral Ark': 'The connected device may not work normally on this Kestral Ark.',
    'screen': 'The connected device may not work normally on this screen.',
}


def failing_mixer():
    """A headset whose playback volume refuses every write: the service cannot set it up."""
    return [Control('PCM Playback Switch', BOOLEAN, [1]),
            Control('PCM Playback Volume', INTEGER, [30, 30], 0, 127, fail_errno=errno.EIO)]


@pytest.fixture
def tv(platform_services, kernel_log, testbed, daemon, hadrix_root, app_files, menu_language):
    """A TV (or another product) whose kernel log shows a normal boot, its platform services up,
    its menu in English unless a test picks another language."""
    kernel_log.boot()
    menu_language('en_US.UTF-8')

    class Tv:
        root = hadrix_root
        bed = testbed
        log = kernel_log
        hubs = set()

        def product(self, model, device_sid, removable_tuner):
            features = f'com.corvel/featureconf/product.device_sid={device_sid}\n'
            if removable_tuner is not None:
                features += ('com.corvel/featureconf/broadcast.removable_rf_tuner_support='
                             f'{removable_tuner}\n')
            hadrix_root.write(SYSTEM_INFO, f'[system]\nmodel={model}\n[features]\n{features}')

        def start(self, cards, boot_devices=False):
            self.services = platform_services(cards=cards)
            self.popups = self.services.popups
            self.daemon = daemon.start()
            self.daemon.wait_for_log('m_DeviceInit out', timeout=10)
            if not boot_devices:
                self.daemon.wait_for_log('No devices found.', timeout=20)
            return self.daemon

        def plug(self, name, mixer=None):
            """The viewer plugs catalogue device `name`; with `mixer` (controls) its card has
            that emulated mixer."""
            port = CATALOGUE[name].port
            if '.' in port and port.rsplit('.', 1)[0] not in self.hubs:
                self.hubs.add(port.rsplit('.', 1)[0])
                testbed.add_hub(port.rsplit('.', 1)[0], devnum=60 + len(self.hubs))
            mark = self.daemon.log.mark()
            headset = plug(testbed, name, kernel_log, LATER, initialized=mixer is None)
            if mixer is not None:
                testbed.attach_ioctl(headset.control, EmulatedCard(headset.card, mixer))
                testbed.initialize(headset)
            self.daemon.wait_for_log('Ondetect info end', since=mark, timeout=10)
            return headset

        def unplug(self, name, headset):
            mark = self.daemon.log.mark()
            kernel_log.disconnect(CATALOGUE[name].port, LATER + 30)
            testbed.remove(headset)
            self.daemon.wait_for_log('Ondetect info end', since=mark, timeout=10)

        def warnings(self):
            if not hadrix_root.exists(KPI_FILE):
                return []
            events = [json.loads(line) for line in hadrix_root.read(KPI_FILE).splitlines()]
            return [(e['warning_code'], e['product_name']) for e in events if e['event'] == 'warning']

    return Tv()


def assert_plain_popup(popup):
    """What every popup of the service carries besides its texts."""
    assert popup.app_name == 'hadrix'
    assert popup.expire_timeout == HIDE_TIMEOUT_MS
    assert popup.hints['x-nimbos-display-applist'] == POPUP_AREA
    assert popup.hints['resident'] is True


def test_noise_popup_on_a_tv_shows_the_port_guide(tv):
    tv.product(*TV)
    tv.start(cards=[7, 8])
    tv.plug('twin-a')
    tv.plug('twin-b')

    [popup] = tv.popups.wait_for(1)
    assert popup.title == 'USB Audio Device'
    assert popup.body == f'{ENGLISH["other port"]} {ENGLISH["noise"]}'
    assert popup.hints['x-nimbos-layout'] == GUIDE_LAYOUT
    assert popup.hints['image-path'] == str(tv.root / GUIDE_IMAGE)
    assert '<svg' in tv.root.read(GUIDE_IMAGE), 'the guide image is installed where the hint points'
    assert_plain_popup(popup)
    assert len(tv.popups.posted()) == 1, 'the first device alone on its port gets no popup'


@pytest.mark.parametrize('product', [EASEL_32_TV, SMART_MONITOR, SCREEN_WITH_TUNER],
                         ids=['easel-32-tv', 'smart-monitor', 'screen'])
def test_noise_popup_elsewhere_is_one_sentence_without_guide(tv, product):
    tv.product(*product)
    tv.start(cards=[7, 8])
    tv.plug('twin-a')
    tv.plug('twin-b')

    [popup] = tv.popups.wait_for(1)
    assert (popup.title, popup.body) == ('USB Audio Device', ENGLISH['noise'])
    assert 'x-nimbos-layout' not in popup.hints and 'image-path' not in popup.hints
    assert_plain_popup(popup)


@pytest.mark.parametrize('product, text', [
    (TV, 'TV'), (SMART_MONITOR, 'Smart Monitor'), (KESTRAL_ARK, 'Kestral Ark'),
    (SCREEN_WITH_TUNER, 'screen'), (SCREEN_WITHOUT_TUNER, 'TV'),
], ids=['tv', 'smart-monitor', 'kestral-ark', 'screen', 'screen-without-tuner'])
def test_device_whose_mixer_cannot_be_set_may_not_work_normally(tv, product, text):
    tv.product(*product)
    tv.start(cards=[1])
    tv.plug('headset', mixer=failing_mixer())

    [popup] = tv.popups.wait_for(1)
    assert (popup.title, popup.body) == ('Evolve 20', ENGLISH[text])
    assert 'image-path' not in popup.hints
    assert_plain_popup(popup)
    tv.daemon.wait_until(lambda: tv.warnings(), what='a KPI warning')
    assert tv.warnings() == [(2, 'Evolve 20')]


def test_a_third_headset_is_announced_and_replaces_the_popup_on_screen(tv):
    tv.product(*TV)
    tv.start(cards=[1, 3, 5, 7])
    tv.plug('headset')
    tv.plug('twin-a')
    assert tv.popups.posted() == [], 'two devices on ports of their own need no popup'

    tv.plug('astro')
    [unsupported] = tv.popups.wait_for(1)
    assert (unsupported.title, unsupported.body) == ('Astro A20', ENGLISH['not supported'])
    [(first_id, _, _)] = tv.popups.on_screen()

    tv.plug('headset3')
    connected = tv.popups.wait_for(2)[1]
    tv.daemon.wait_for_log('USB HEADSET more than 2..')
    # The name is the title; the text's name placeholder is gone.
    assert (connected.title, connected.body) == ('Arctis 1 Wireless', ENGLISH['connected'])
    assert_plain_popup(connected)

    assert tv.popups.closed() == [first_id], 'the first popup is taken down for the second'
    [(second_id, title, _)] = tv.popups.on_screen()
    assert title == 'Arctis 1 Wireless'
    # The viewer closes it: the service hears of it. The first popup, taken down by the service
    # itself, was announced earlier on the bus and is not reported.
    tv.popups.mock.call('Dismiss', second_id)
    tv.daemon.wait_for_log('event_type: 2')
    assert not tv.daemon.log.find('event_type: 3')
    assert tv.warnings() == [(1, 'Astro A20')]


def test_unplugging_names_the_headset_that_takes_over(tv):
    tv.product(*TV)
    tv.start(cards=[1, 3, 7])
    headset = tv.plug('headset')
    tv.plug('twin-a')
    tv.plug('headset3')
    tv.popups.wait_for(1)

    tv.unplug('headset', headset)
    taken_over = tv.popups.wait_for(2)[1]
    assert (taken_over.title, taken_over.body) == ('Arctis 1 Wireless', ENGLISH['connected'])


def test_device_without_a_name_is_titled_connect(tv):
    tv.product(*TV)
    tv.start(cards=[5])
    mark = tv.daemon.log.mark()
    # An Astro headset by its ids, reporting no product name.
    tv.log.detect('1-5', LATER, '9886', '0047', '')
    tv.bed.add_headset(card=5, vid='9886', pid='0047', product='', manufacturer='Astro Gaming',
                       port='1-5', devnum=7)
    tv.daemon.wait_for_log('Ondetect info end', since=mark, timeout=10)

    [popup] = tv.popups.wait_for(1)
    assert (popup.title, popup.body) == (ENGLISH['connect'], ENGLISH['not supported'])


def test_unsupported_device_at_boot_is_warned_about_once(tv, testbed, kernel_log):
    tv.product(*TV)
    plug(testbed, 'astro', kernel_log, AT_BOOT)
    tv.start(cards=[1, 5])
    # Every enumeration pass finds it again; the warning comes once.
    [popup] = tv.popups.wait_for(1, timeout=20)
    assert (popup.title, popup.body) == ('Astro A20', ENGLISH['not supported'])

    headset = tv.plug('headset')
    mark = tv.daemon.log.mark()
    tv.unplug('headset', headset)
    # With the last headset gone the unsupported devices are looked at again.
    tv.daemon.wait_for_log('unsupported devices size :1', since=mark)
    assert len(tv.popups.posted()) == 1
    assert tv.warnings() == [(1, 'Astro A20')]


def test_popups_follow_the_menu_language(tv, menu_language, hadrix_root):
    tv.product(*TV)
    menu_language('de_DE.UTF-8')
    tv.start(cards=[1, 5, 7, 8])
    astro = tv.plug('astro')
    [german] = tv.popups.wait_for(1)
    assert (german.title, german.body) == ('Astro A20', 'Dieses USB-Gerät wird nicht unterstützt.')

    mark = tv.daemon.log.mark()
    hadrix_root.set_setting('db/menu_widget/language', 'fr_FR.UTF-8')
    tv.daemon.wait_for_log('setlocale ret : fr_FR.UTF-8', since=mark)
    tv.unplug('astro', astro)
    tv.plug('twin-a')
    tv.plug('twin-b')
    french = tv.popups.wait_for(2)[1]
    assert french.body == ('Branchez l\'appareil sur un autre port USB. Du bruit peut survenir '
                           'lorsque deux périphériques audio USB sont branchés sur des ports USB '
                           'voisins.')


def test_host_client_updates_the_popup_in_place_and_reports_dismissal(mocks, launcher):
    """The platform layer alone (hadrix-probe): posting again replaces the popup on screen, the
    text's "%s" are filled, and the user's dismissal comes back on the main loop."""
    popups = Popups(mocks.spawn('notifications'))
    probe = launcher.start(paths.program('hadrix-probe'),
                           ['notify', 10, 'Evolve 20', 'Volume %s of %s', 35, 100], label='probe')
    probe.wait_for_output('posted 0 0')
    probe.wait_for_output('ready')
    first, second = popups.posted()
    assert (first.replaces_id, first.title, first.body) == (0, 'Evolve 20', 'Volume 35 of 100')
    [(shown_id, title, _)] = popups.on_screen()
    assert (second.replaces_id, second.title) == (shown_id, 'Evolve 20 (updated)')
    assert first.hints == {} and first.expire_timeout == -1, 'nothing set, nothing sent'

    popups.mock.call('Dismiss', shown_id)
    probe.wait_for_output('event 2 on-loop')
    assert probe.stop() == 0
    assert popups.closed() == [shown_id], 'deleting the handle takes its popup down'
