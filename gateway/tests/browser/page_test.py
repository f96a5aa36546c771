"""The web page in a real browser (Debian's headless Chromium through chromium-driver)
against the real system: host, example owners and kepwebd. Every test saves a
screenshot in KEP_BROWSER_SHOTS and fails on any error in the browser's console other
than the HTTP statuses it provokes on purpose.

    page_test.py BUILD-DIR SOURCE-DIR [TestClass ...]
"""
import contextlib
import json
import os
import re
import shutil
import sys
import tempfile
import time
import unittest

try:
    from selenium import webdriver
    from selenium.common.exceptions import TimeoutException
    from selenium.webdriver.chrome.options import Options
    from selenium.webdriver.chrome.service import Service
    from selenium.webdriver.common.by import By
    from selenium.webdriver.common.keys import Keys
    from selenium.webdriver.support.ui import WebDriverWait
except ImportError as e:
    sys.exit('%s: tools/dev.sh deps installs python3-selenium (run with Debian\'s /usr/bin/python3)' % e)

from system import System

BUILD, SOURCE = None, None
SHOTS = os.environ.get('KEP_BROWSER_SHOTS', 'browser-shots')
CHROMIUM = os.environ.get('KEP_CHROMIUM', '/usr/bin/chromium')
DRIVER = os.environ.get('KEP_CHROMEDRIVER', '/usr/bin/chromedriver')
DESKTOP, PHONE = (1280, 900), (390, 844)


def browser(profile):
    o = Options()
    o.binary_location = CHROMIUM
    # The background-networking flags keep Chromium from calling out: this machine's
    # network is closed, and a test must not depend on anything but the gateway.
    for flag in ('--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
                 '--disable-background-networking', '--disable-component-update', '--disable-sync',
                 '--disable-dev-shm-usage', '--user-data-dir=' + profile,
                 '--window-size=%d,%d' % DESKTOP):
        o.add_argument(flag)
    o.set_capability('goog:loggingPrefs', {'browser': 'ALL'})
    return webdriver.Chrome(service=Service(DRIVER), options=o)


class PageTest(unittest.TestCase):
    """One system and one browser per class; each test starts from a fresh page load."""
    gateway_args = ()

    @classmethod
    def setUpClass(cls):
        cls.system = System(BUILD, SOURCE)
        cls.profile = tempfile.mkdtemp(prefix='kep-chromium-')
        cls.driver = None
        try:
            cls.system.start()
            cls.url = cls.system.gateway(*cls.gateway_args)
            cls.driver = browser(cls.profile)
        except BaseException:
            cls.tearDownClass()
            raise

    @classmethod
    def tearDownClass(cls):
        if cls.driver:
            cls.driver.quit()
        cls.system.stop()
        shutil.rmtree(cls.profile, ignore_errors=True)

    def setUp(self):
        self.expected_statuses = set()  # HTTP errors this test provokes on purpose
        self.driver.set_window_size(*DESKTOP)
        self.driver.get(self.url + '/')
        self.driver.get_log('browser')  # what an earlier test left
        self.addCleanup(self.check_console)
        self.addCleanup(self.screenshot)

    def screenshot(self, suffix=''):
        os.makedirs(SHOTS, exist_ok=True)
        self.driver.save_screenshot(os.path.join(SHOTS, self.id().split('.', 1)[1] + suffix + '.png'))

    def check_console(self):
        bad = []
        for e in self.driver.get_log('browser'):
            if e['level'] not in ('SEVERE', 'ERROR'):
                continue
            if e['source'] == 'network' and any('status of %d' % s in e['message'] for s in self.expected_statuses):
                continue
            bad.append(e['message'])
        self.assertEqual(bad, [], 'errors in the browser console')

    # ---- helpers

    @contextlib.contextmanager
    def using(self, driver):
        """The helpers below drive another browser meanwhile."""
        saved = self.driver
        self.driver = driver
        try:
            yield
        finally:
            self.driver = saved

    def second_browser(self, user, size=DESKTOP):
        """Another browser with a profile of its own, logged in as user; checked like the first."""
        profile = tempfile.mkdtemp(prefix='kep-chromium-')
        self.addCleanup(shutil.rmtree, profile, ignore_errors=True)
        driver = browser(profile)
        self.addCleanup(driver.quit)
        driver.set_window_size(*size)
        driver.get(self.url + '/')
        with self.using(driver):
            self.log_in_as(user)

        def check():
            with self.using(driver):
                self.check_console()
        self.addCleanup(check)
        return driver

    def find(self, css, within=None):
        return (within or self.driver).find_element(By.CSS_SELECTOR, css)

    def finds(self, css, within=None):
        return (within or self.driver).find_elements(By.CSS_SELECTOR, css)

    def wait(self, condition, what, seconds=5):
        try:
            return WebDriverWait(self.driver, seconds, poll_frequency=0.02).until(lambda d: condition())
        except TimeoutException:
            self.fail('waited %g s for %s' % (seconds, what))

    def wait_text(self, css, text, seconds=5):
        def seen():
            for e in self.finds(css):
                if text in e.text:
                    return e
            return None
        return self.wait(seen, '"%s" in %s' % (text, css), seconds)

    def log_in(self, user, password, keyboard=False):
        self.find('#username').clear()
        self.find('#password').clear()
        self.find('#username').send_keys(user)
        self.find('#password').send_keys(password + (Keys.ENTER if keyboard else ''))
        if not keyboard:
            self.find('#login button').click()

    def log_in_as(self, user):
        from system import USERS
        self.log_in(user, USERS[user][0])
        self.wait_view()

    def wait_view(self):
        """Waits until a module's view is shown with its tables read."""
        self.wait(lambda: self.finds('#module:not([aria-busy]) h2'), 'a module shown')

    def table(self, name):
        return self.find('section[data-table="%s"]' % name)

    def row_names(self, table):
        return [e.text for e in self.finds('section[data-table="%s"] tbody tr th' % table)]

    def host(self, request):
        """The host's answer to a request, asked past the gateway: what really happened."""
        out = self.system._kepctl('call', json.dumps(request)).stdout
        return json.loads(out)

    def fill_dialog(self, values):
        d = self.find('dialog[open]')
        for label, value in values.items():
            box = d.find_element(By.XPATH, './/label[normalize-space()="%s"]/following-sibling::*[1]' % label)
            box.clear()
            box.send_keys(value)
        return d


class AdminPage(PageTest):
    def test_login_refused_then_accepted(self):
        self.expected_statuses = {401}
        self.log_in('admin', 'not-the-password')
        self.wait_text('#login-message', 'Wrong user name or password.')
        self.assertFalse(self.find('#app').is_displayed())
        self.assertEqual(self.find('#password').get_attribute('value'), '')
        self.log_in_as('admin')
        self.assertEqual(self.find('#who').text, 'admin · admin')
        self.assertEqual([a.text for a in self.finds('nav a')], ['dhcp', 'system', 'ntp'])
        self.assertEqual(self.find('#login-message').text, '')

    def test_list_table_add_edit_delete(self):
        self.log_in_as('admin')
        host = self.table('host')
        self.assertEqual(self.row_names('host'), ['host_1'])
        self.assertIn('(1 row)', self.find('h3', host).text)
        self.assertEqual(self.find('tr[data-section="host_1"] td[data-option="hostname"]', host).text, 'nas')

        self.find('button.add', host).click()
        self.fill_dialog({'mac': '02:00:00:00:00:42', 'ip': '192.168.1.42', 'hostname': 'printer'})
        self.find('dialog[open] button[type=submit]').click()
        self.wait_text('section[data-table="host"] > .answer', 'Added host_2.')
        self.wait(lambda: self.row_names('host') == ['host_1', 'host_2'], 'the new row')
        self.assertIn('(2 rows)', self.find('section[data-table="host"] h3').text)
        self.wait(lambda: not self.finds('dialog'), 'the dialog closed')
        added = self.host({'method': 'get', 'dhcp': {'name': 'host_2'}})
        self.assertEqual(added['dhcp']['host_2'], {'mac': '02:00:00:00:00:42', 'ip': '192.168.1.42', 'hostname': 'printer'})

        self.find('tr[data-section="host_2"] button.edit').click()
        self.fill_dialog({'hostname': 'office-printer'})
        self.find('dialog[open] button[type=submit]').click()
        self.wait_text('section[data-table="host"] > .answer', 'Saved host_2.')
        self.wait_text('tr[data-section="host_2"] td[data-option="hostname"]', 'office-printer')
        self.assertEqual(self.host({'method': 'get', 'dhcp': {'name': 'host_2'}})['dhcp']['host_2']['hostname'],
                         'office-printer')

        self.find('tr[data-section="host_2"] button.delete').click()
        self.wait_text('dialog[open] h2', 'Delete host_2?')
        self.find('dialog[open] button[type=submit]').click()
        self.wait_text('section[data-table="host"] > .answer', 'Deleted host_2.')
        self.wait(lambda: self.row_names('host') == ['host_1'], 'the row gone')
        self.assertEqual(self.host({'method': 'get', 'dhcp': {'table': 'host'}})['dhcp']['count'], {'host': 1})

    def test_owner_refusals_are_shown_with_their_meaning(self):
        self.log_in_as('admin')
        # The address of host_1 again: the owner's own code, passed on.
        self.find('section[data-table="host"] button.add').click()
        self.fill_dialog({'mac': '02:00:00:00:00:43', 'ip': '192.168.1.2'})
        self.find('dialog[open] button[type=submit]').click()
        message = 'Refused: error_code 1002: code passed on from the owner\'s callback'
        self.wait_text('dialog[open] .answer', message)
        self.assertIn(message, self.find('section[data-table="host"] > .answer').text)
        # An option the owner does not know, given as a free option: the kit's code.
        self.fill_dialog({'ip': '192.168.1.43', 'Other option': 'colour', 'its value': 'blue'})
        self.find('dialog[open] button[type=submit]').click()
        self.wait_text('dialog[open] .answer', 'the owner cannot take that value')
        self.find('dialog[open] button.cancel').click()
        self.wait(lambda: not self.finds('dialog'), 'the dialog closed')
        self.assertEqual(self.row_names('host'), ['host_1'])
        self.assertEqual(self.host({'method': 'get', 'dhcp': {'table': 'host'}})['dhcp']['count'], {'host': 1})

    def test_named_section_form_changes_only_that_section(self):
        self.log_in_as('admin')
        self.find('nav a[data-module="system"]').click()
        zone = self.wait(lambda: self.finds('#module:not([aria-busy]) form[data-section="zone"]'), 'the zone form')[0]
        name = self.find('input[name="name"]', zone)
        self.assertEqual(name.get_attribute('value'), 'UTC')
        name.clear()
        name.send_keys('Europe/Berlin')
        self.find('input[name="dst"]', zone).click()
        self.find('button[type=submit]', zone).click()
        self.wait_text('form[data-section="zone"] .answer', 'Saved zone.')
        self.assertEqual(self.host({'method': 'get', 'system': {'name': ['zone', 'ntp']}})['system'],
                         {'zone': {'name': 'Europe/Berlin', 'dst': True},
                          'ntp': {'enabled': True, 'server': 'pool.ntp.org', 'intervalMinutes': 60}})
        # A number keeps its type on the way back.
        interval = self.find('form[data-section="ntp"] input[name="intervalMinutes"]')
        interval.clear()
        interval.send_keys('15')
        self.find('form[data-section="ntp"] button[type=submit]').click()
        self.wait_text('form[data-section="ntp"] .answer', 'Saved ntp.')
        self.assertEqual(self.host({'method': 'get', 'system': {'name': 'ntp'}})['system']['ntp']['intervalMinutes'], 15)

    def test_action_runs_with_its_parameters(self):
        self.log_in_as('admin')
        action = self.find('form[data-action="restart"]')
        params = self.find('textarea', action)
        params.clear()
        params.send_keys('{"delay": ')
        self.find('button', action).click()
        self.wait_text('form[data-action="restart"] .answer', 'The parameters are not JSON')
        params.send_keys('3}')
        self.find('button', action).click()
        self.wait_text('form[data-action="restart"] .answer', 'Done.')
        self.assertEqual(json.loads(self.find('.result', action).text),
                         {'service': 'dhcp', 'restarted': True, 'delay': 3})

    def test_dynamic_table_is_read_only_and_refreshes(self):
        self.log_in_as('admin')
        client = self.table('client')
        self.assertGreaterEqual(len(self.row_names('client')), 5)
        self.assertEqual(self.finds('button.add, button.edit, button.delete', client), [])
        stamp = self.find('.stamp', client).text
        self.assertTrue(stamp.startswith('read at'))
        time.sleep(1)  # the stamp has a resolution of a second
        self.find('button.refresh', client).click()
        self.wait(lambda: self.find('.stamp', client).text != stamp, 'a newer read')

    def test_keyboard_alone(self):
        self.log_in('admin', 'admin-pw', keyboard=True)
        self.wait_view()
        active = self.driver.switch_to.active_element
        self.assertEqual(active.text, 'dhcp')  # the focus went to the module's heading
        # Tab from the heading backwards to the module list, to "ntp", and open it.
        nav = self.find('nav a[data-module="ntp"]')
        for _ in range(10):
            if self.driver.switch_to.active_element == nav:
                break
            self.driver.switch_to.active_element.send_keys(Keys.SHIFT, Keys.TAB)
        self.assertEqual(self.driver.switch_to.active_element, nav)
        nav.send_keys(Keys.ENTER)
        self.wait(lambda: self.driver.switch_to.active_element.text == 'ntp', 'the ntp heading focused')
        add = self.find('section[data-table="server"] button.add')
        for _ in range(20):
            if self.driver.switch_to.active_element == add:
                break
            self.driver.switch_to.active_element.send_keys(Keys.TAB)
        self.assertEqual(self.driver.switch_to.active_element, add)
        add.send_keys(Keys.ENTER)
        # The dialog opens with its first field focused; Escape closes it and the focus comes back.
        self.wait(lambda: self.driver.switch_to.active_element.get_attribute('name') == 'address', 'the first field')
        self.driver.switch_to.active_element.send_keys(Keys.ESCAPE)
        self.wait(lambda: not self.finds('dialog'), 'the dialog closed')
        self.assertEqual(self.driver.switch_to.active_element, add)
        add.send_keys(Keys.ENTER)
        self.wait(lambda: self.driver.switch_to.active_element.get_attribute('name') == 'address', 'the first field')
        self.driver.switch_to.active_element.send_keys('2.pool.ntp.org', Keys.ENTER)
        self.wait_text('section[data-table="server"] > .answer', 'Added server_3.')
        self.assertEqual(self.row_names('server'), ['server_1', 'server_2', 'server_3'])

    def test_phone_width_first_view(self):
        self.driver.set_window_size(*PHONE)
        self.log_in_as('admin')
        # Nothing but a table's own scroller may be wider than the screen.
        self.assertLessEqual(self.driver.execute_script('return document.documentElement.scrollWidth'),
                             self.driver.execute_script('return window.innerWidth'))
        ms = self.driver.execute_script(
            "return performance.measure('first', 'kep-login', 'kep-first-view').duration")
        print('first view after login: %.0f ms' % ms, file=sys.stderr)
        with open(os.path.join(SHOTS, 'first-view.txt'), 'w') as f:
            f.write('%s %.0f ms\n' % (self.id(), ms))


class RolePage(PageTest):
    def test_read_only_role_sees_no_denied_module_and_no_changes(self):
        self.log_in_as('viewer')
        self.assertEqual(self.find('#who').text, 'viewer · viewer')
        self.assertEqual([a.text for a in self.finds('nav a')], ['dhcp', 'ntp'])  # no "system"
        self.assertEqual(self.row_names('host'), ['host_1'])
        self.assertEqual(self.finds('button.add, button.edit, button.delete, form.action, section.actions'), [])
        for box in self.finds('form.section input'):
            self.assertFalse(box.is_enabled())
        self.assertEqual(self.finds('form.section button'), [])
        # The address of a denied module shows the first allowed one instead.
        self.find('nav a[data-module="ntp"]').click()
        self.wait_text('#module h2', 'ntp')
        self.driver.get(self.url + '/#system')
        self.wait_text('#module h2', 'dhcp')
        self.find('nav a[data-module="ntp"]').click()
        self.wait_text('#module h2', 'ntp')
        self.driver.get(self.url + '/#%zz')  # not an encoding the page makes
        self.wait_text('#module h2', 'dhcp')

    def test_role_without_exec_is_offered_no_action(self):
        self.log_in_as('operator')
        self.assertEqual([a.text for a in self.finds('nav a')], ['dhcp', 'system', 'ntp'])
        self.assertTrue(self.finds('section[data-table="host"] button.add'))
        self.assertTrue(self.finds('form[data-section="lan"] button'))
        self.assertEqual(self.finds('form.action, section.actions'), [])


class SessionEnd(PageTest):
    # Idle time-out 6 s, a little longer than the page's poll: a poll that counted as
    # activity would keep the session alive past the test's wait.
    gateway_args = ('-i', '6')

    def test_idle_session_ends_despite_polling(self):
        self.expected_statuses = {401}
        self.log_in_as('admin')
        # Auto-refresh polls as background: it must not keep the session alive.
        self.find('section[data-table="client"] input[type=checkbox]').click()
        self.wait_text('#login-message', 'Your session ended', seconds=12)
        self.assertFalse(self.find('#app').is_displayed())
        self.assertEqual(self.finds('nav a'), [])
        self.log_in_as('admin')

    def test_logout(self):
        self.log_in_as('admin')
        self.find('#logout').click()
        self.wait_text('#login-message', 'You are logged out.')
        self.assertNotIn('error', self.find('#login-message').get_attribute('class'))
        self.assertEqual(self.finds('#module section'), [])


class ChangeSetPage(PageTest):
    """Changes to several modules collected on the page and applied as one change set;
    the banner every logged-in user sees while it waits for a confirm; Confirm and Undo.
    Each test starts from whatever the one before left, read from the host."""

    def setUp(self):
        # Registered first, so it runs last: after the screenshot of a failure.
        self.addCleanup(self.undo_left_over)
        super().setUp()

    def undo_left_over(self):
        """A test that failed inside a confirm window leaves the next one a host free of it."""
        for button in self.finds('#pending button.undo'):
            button.click()
            self.wait(lambda: not self.finds('#pending *'), 'the change set undone')

    def stored(self):
        """The DHCP range and the time zone as the host has them."""
        lan = self.host({'method': 'get', 'dhcp': {'name': 'lan'}})['dhcp']['lan']
        zone = self.host({'method': 'get', 'system': {'name': 'zone'}})['system']['zone']
        return lan['start'], lan['end'], zone['name']

    def hostname(self):
        """host_1's, read with its table: read by name, a row the file held at the start answers -10000."""
        rows = self.host({'method': 'get', 'dhcp': {'table': 'host'}})['dhcp']['host']
        return next(r['host_1'] for r in rows if 'host_1' in r)['hostname']

    def section(self, name):
        return self.wait(lambda: self.finds('#module:not([aria-busy]) form[data-section="%s"]' % name),
                         'the %s form' % name)[0]

    def collect(self, module, section, values):
        """Edits a section's form in its module's view and adds it to the change set."""
        self.find('nav a[data-module="%s"]' % module).click()
        form = self.section(section)
        for option, value in values.items():
            box = self.find('input[name="%s"]' % option, form)
            box.clear()
            box.send_keys(value)
        self.find('button.collect', form).click()
        self.wait_text('form[data-section="%s"] .answer' % section, 'In the change set')

    def apply(self, seconds):
        box = self.find('#confirm-seconds')
        box.clear()
        box.send_keys(str(seconds))
        self.find('#apply-changes button[type=submit]').click()

    def seconds_left(self):
        m = re.search(r'Undone in (\d+) s', self.find('#pending .left').text)
        return int(m.group(1)) if m else None

    def test_refused_change_undoes_the_others_and_is_named(self):
        before = self.stored()
        self.log_in_as('admin')
        self.collect('system', 'zone', {'name': 'Africa/Cairo'})
        self.collect('dhcp', 'lan', {'start': '192.168.1.999'})  # the owner takes no such address
        self.find('#confirm-on').click()  # no window: applied or refused at once
        self.find('#apply-changes button[type=submit]').click()
        outcome = self.wait_text('#outcome', 'Change 2 of 2 (dhcp · lan) was refused: error_code ').text
        self.assertIn('Undoing all of them: everything was put back (', outcome)
        self.assertEqual(self.stored(), before)
        # The banner of its applying goes, and leaves the outcome standing.
        self.wait(lambda: not self.finds('#pending *'), 'the banner gone')
        self.assertEqual(self.find('#outcome').text, outcome)
        # The set stays, to be put right, the refused change marked.
        self.assertEqual([e.text for e in self.finds('#change-list li .tag')], ['refused'])
        self.assertTrue(self.finds('#change-list li:nth-child(2) .tag'))
        self.screenshot('-refused')
        # The refused change discarded by keyboard, the rest goes through alone.
        discard = self.find('#change-list li:nth-child(2) button.discard')
        discard.send_keys(Keys.ENTER)
        self.wait(lambda: len(self.finds('#change-list li')) == 1, 'one change left')
        self.assertEqual(self.driver.switch_to.active_element.get_attribute('aria-label'), 'Discard system · zone')
        self.find('#apply-changes button[type=submit]').click()
        self.wait_text('#outcome', 'Applied 1 change together.')
        self.assertEqual(self.stored(), (before[0], before[1], 'Africa/Cairo'))
        self.assertFalse(self.find('#changes').is_displayed())
        self.assertEqual(self.finds('#pending *'), [])  # nothing waits for a confirm

    def test_unconfirmed_window_undoes_both_then_confirmed_keeps_both(self):
        before = self.stored()
        self.log_in_as('admin')
        self.collect('dhcp', 'lan', {'start': '192.168.1.60', 'end': '192.168.1.90'})
        self.collect('system', 'zone', {'name': 'Asia/Tokyo'})
        self.assertEqual([e.text for e in self.finds('#change-list .what')], ['dhcp · lan', 'system · zone'])
        self.assertIn('(2 changes)', self.find('#changes h2').text)
        self.assertEqual(self.stored(), before)  # collected only
        self.screenshot('-collected')

        self.apply(4)
        applied = time.monotonic()
        self.wait_text('#pending .what', 'Your change set')
        self.assertIn(' on dhcp, system is applied and waits for a confirm.', self.find('#pending .what').text)
        self.assertEqual(self.driver.switch_to.active_element.text, 'Confirm')
        self.assertEqual(self.stored(), ('192.168.1.60', '192.168.1.90', 'Asia/Tokyo'))
        self.assertFalse(self.find('#changes').is_displayed())
        first = self.seconds_left()
        self.assertIn(first, (3, 4))
        self.screenshot('-banner')
        self.wait(lambda: (self.seconds_left() or 0) < first, 'the countdown going down')
        # Not confirmed: both modules back when the window ends, the page reading them again.
        self.wait_text('#outcome', 'was not confirmed in time and has been undone.', seconds=8)
        self.assertLess(time.monotonic() - applied, 4 + 2.5)
        self.assertEqual(self.finds('#pending *'), [])
        self.assertEqual(self.stored(), before)
        self.wait(lambda: self.find('input[name="name"]', self.section('zone')).get_attribute('value') == before[2],
                  'the zone form showing the old name')

        # Again, and confirmed after a reload, which ends the session but not the change set:
        # its user may still confirm it.
        self.collect('dhcp', 'lan', {'start': '192.168.1.60', 'end': '192.168.1.90'})
        self.collect('system', 'zone', {'name': 'Asia/Tokyo'})
        self.apply(30)
        self.wait_text('#pending .what', 'Your change set')
        self.driver.get(self.url + '/')
        self.log_in_as('admin')
        self.wait_text('#pending .what', 'Your change set')
        self.find('#pending button.confirm').send_keys(Keys.ENTER)
        self.wait_text('#outcome', 'is confirmed: its changes stay.')
        self.assertEqual(self.finds('#pending *'), [])
        self.assertEqual(self.stored(), ('192.168.1.60', '192.168.1.90', 'Asia/Tokyo'))
        pending = json.loads(self.system._kepctl('pending').stdout or '{}')
        self.assertNotIn('pending', pending)

    def test_undo_restores_at_once_and_others_see_the_banner_only(self):
        other = self.second_browser('operator', PHONE)
        hostname = self.hostname()
        zone = self.stored()[2]
        self.log_in_as('admin')
        # A row's edit goes into the change set from its dialog.
        self.find('tr[data-section="host_1"] button.edit').click()
        self.fill_dialog({'hostname': 'nas-moved'})
        self.find('dialog[open] button.collect').click()
        self.wait(lambda: not self.finds('dialog'), 'the dialog closed')
        self.wait_text('tr[data-section="host_1"] th .tag', 'in change set')
        self.collect('system', 'zone', {'name': 'America/Lima'})
        self.apply(60)
        what = self.wait_text('#pending .what', 'Your change set').text
        change_set = re.search(r'change set (\d+)', what).group(1)

        with self.using(other):
            self.wait_text('#pending .what', 'Change set %s of admin on dhcp, system' % change_set)
            self.assertEqual(self.finds('#pending button'), [])
            self.assertIn('unless admin confirms it', self.find('#pending .left').text)
            # The view shown was read again: it has the change set's values.
            self.wait_text('tr[data-section="host_1"] td[data-option="hostname"]', 'nas-moved')
            # A write to a module of the change set is refused, and the page says why.
            lease = self.find('form[data-section="lan"] input[name="leaseMinutes"]')
            lease.clear()
            lease.send_keys('99')
            self.find('form[data-section="lan"] button[type=submit]').click()
            refused = self.wait_text('form[data-section="lan"] .answer', 'Refused: change set %s of ' % change_set)
            self.assertIn('of user admin (through pid', refused.text)
            self.assertLessEqual(self.driver.execute_script('return document.documentElement.scrollWidth'),
                                 self.driver.execute_script('return window.innerWidth'))
            self.screenshot('-other-user')

        self.find('#pending button.undo').click()
        self.wait_text('#outcome', 'Change set %s is undone: everything was put back (' % change_set)
        self.assertEqual(self.finds('#pending *'), [])
        self.assertEqual(self.hostname(), hostname)
        self.assertEqual(self.stored()[2], zone)
        with self.using(other):
            self.wait_text('#outcome', 'Change set %s of admin has ' % change_set)  # ended, or been undone
            self.assertEqual(self.finds('#pending *'), [])
            self.wait_text('tr[data-section="host_1"] td[data-option="hostname"]', hostname)


if __name__ == '__main__':
    BUILD, SOURCE = os.path.abspath(sys.argv[1]), os.path.abspath(sys.argv[2])
    for tool in (CHROMIUM, DRIVER):
        if not os.access(tool, os.X_OK):
            sys.exit('%s is missing: tools/dev.sh deps installs chromium and chromium-driver' % tool)
    unittest.main(argv=[sys.argv[0], '-v', *sys.argv[3:]])
