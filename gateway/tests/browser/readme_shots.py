"""Screenshots of the page for the README, taken from the real system as the browser
tests see it: docs/page.png at desktop width, docs/page-phone.png at phone width.

    readme_shots.py BUILD-DIR SOURCE-DIR      (tools/dev.sh shots)
"""
import os
import shutil
import sys
import tempfile
import time

from page_test import PHONE, browser
from system import USERS, System


def shoot(driver, url, size, path):
    driver.set_window_size(*size)
    driver.get(url + '/')
    driver.find_element('css selector', '#username').send_keys('admin')
    driver.find_element('css selector', '#password').send_keys(USERS['admin'][0] + '\n')
    deadline = time.monotonic() + 10
    while not driver.find_elements('css selector', '#module:not([aria-busy]) section.table tbody'):
        if time.monotonic() > deadline:
            sys.exit('the page did not show its first view')
        time.sleep(0.05)
    driver.execute_script('document.activeElement.blur()')
    driver.save_screenshot(path)
    print('wrote', path)


def main():
    build, source = os.path.abspath(sys.argv[1]), os.path.abspath(sys.argv[2])
    system = System(build, source)
    profile = tempfile.mkdtemp(prefix='kep-chromium-')
    driver = None
    try:
        system.start()
        url = system.gateway()
        driver = browser(profile)
        shoot(driver, url, (1200, 820), os.path.join(source, 'docs', 'page.png'))
        shoot(driver, url, PHONE, os.path.join(source, 'docs', 'page-phone.png'))
    finally:
        if driver:
            driver.quit()
        system.stop()
        shutil.rmtree(profile, ignore_errors=True)


if __name__ == '__main__':
    main()
