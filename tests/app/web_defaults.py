#!/usr/bin/python3
"""Sets a printer's default halftone in the app's web interface with a real
browser (headless Chromium driven by Selenium), the way a person does: from
the home page to the printer's printing defaults, choose, save. Keeps a
screenshot of the saved page.

    web_defaults.py <base-url> <printer> <halftone> <screenshot.png>
"""
import sys

from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.support import expected_conditions as ready
from selenium.webdriver.support.ui import Select, WebDriverWait


def main(base, printer, halftone, screenshot):
    options = webdriver.ChromeOptions()
    options.binary_location = "/usr/bin/chromium"
    for arg in ("--headless=new", "--no-sandbox", "--disable-dev-shm-usage", "--disable-gpu",
                "--window-size=1000,1400", "--no-first-run", "--disable-extensions"):
        options.add_argument(arg)
    browser = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
    browser.set_page_load_timeout(30)
    wait = WebDriverWait(browser, 20)
    try:
        browser.get(base + "/")
        link = wait.until(ready.element_to_be_clickable(
            (By.CSS_SELECTOR, 'a[href$="/%s/printing"]' % printer)))
        link.click()
        wait.until(ready.url_contains("/%s/printing" % printer))
        choice = Select(wait.until(ready.presence_of_element_located((By.NAME, "kelvo-halftone"))))
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
    if len(sys.argv) != 5:
        print(__doc__, file=sys.stderr)
        sys.exit(2)
    sys.exit(main(*sys.argv[1:]))
