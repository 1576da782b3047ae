#!/usr/bin/python3
"""Sets a printer's default halftone in the app's web interface with a real
browser (headless Chromium driven by Selenium), the way a person does: from
the home page to the printer's printing defaults, choose, save. Keeps a
screenshot of the saved page.

    web_defaults.py <base-url> <printer> <halftone> <screenshot.png> [user:password]

With a user and password the browser logs in (HTTP Basic, as the page asks
over TLS) and goes to the printing defaults directly. Exits 3 when the page
shows no printing defaults to change (a login refused or not given).
"""
import sys
from urllib.parse import urlsplit

from selenium import webdriver
from selenium.common.exceptions import TimeoutException
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.support import expected_conditions as ready
from selenium.webdriver.support.ui import Select, WebDriverWait


def main(base, printer, halftone, screenshot, login=None):
    options = webdriver.ChromeOptions()
    options.binary_location = "/usr/bin/chromium"
    # The server's certificate is its own, self-signed.
    for arg in ("--headless=new", "--no-sandbox", "--disable-dev-shm-usage", "--disable-gpu",
                "--window-size=1000,1400", "--no-first-run", "--disable-extensions",
                "--ignore-certificate-errors"):
        options.add_argument(arg)
    browser = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
    browser.set_page_load_timeout(30)
    wait = WebDriverWait(browser, 20)
    try:
        if login:
            url = urlsplit(base)
            browser.get("%s://%s@%s/%s/printing" % (url.scheme, login, url.netloc, printer))
        else:
            browser.get(base + "/")
            link = wait.until(ready.element_to_be_clickable(
                (By.CSS_SELECTOR, 'a[href$="/%s/printing"]' % printer)))
            link.click()
        try:
            field = WebDriverWait(browser, 10).until(
                ready.presence_of_element_located((By.NAME, "kelvo-halftone")))
        except TimeoutException:
            browser.save_screenshot(screenshot)
            print("web: %s offers no printing defaults to change: %s" % (browser.current_url, browser.title))
            return 3
        choice = Select(field)
        before = choice.first_selected_option.get_attribute("value")
        choice.select_by_value(halftone)
        save = browser.find_element(By.CSS_SELECTOR, 'input[type="submit"]')
        save.click()
        # The page comes back with the saved values and a message.
        wait.until(ready.staleness_of(save))
        wait.until(ready.presence_of_element_located((By.NAME, "kelvo-halftone")))
        message = " ".join(e.text for e in browser.find_elements(By.CSS_SELECTOR, ".banner"))
        after = Select(browser.find_element(By.NAME, "kelvo-halftone")).first_selected_option.get_attribute("value")
        browser.save_screenshot(screenshot)
        print("web: %s halftone %s -> %s, page says: %s" % (printer, before, after, message))
        return 0 if after == halftone else 1
    finally:
        browser.quit()


if __name__ == "__main__":
    if len(sys.argv) not in (5, 6):
        print(__doc__, file=sys.stderr)
        sys.exit(2)
    sys.exit(main(*sys.argv[1:]))
