#!/usr/bin/python3
"""Opens a printer's printing defaults in the app's web interface with a real
browser (headless Chromium driven by Selenium), the way a person does: from
the home page to the printer's printing defaults. Checks that every Kelvo
choice shows a label and values in words, not its IPP names; then, given a
halftone, chooses it and saves. Keeps a screenshot of the page.

    web_defaults.py <base-url> <printer> <halftone or -> <screenshot.png> [halftone shown first or -]
                    [user:password]

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


def words_problems(browser):
    """The Kelvo choices that still show an IPP name, and what each says."""
    problems, said = [], []
    for field in browser.find_elements(By.CSS_SELECTOR, '[name^="kelvo-"]'):
        name = field.get_attribute("name")
        heading = field.find_element(By.XPATH, "./ancestor::tr[1]/th").text.strip()
        value = ""
        if field.tag_name == "select":
            # PAPPL's own words would be the keyword, or its parts
            # capitalised ("Burkes-Diffusion", "Burkes Diffusion").
            for option in Select(field).options:
                value = option.get_attribute("value")
                pappl = " ".join(part.capitalize() for part in value.split("-"))
                if option.text.strip() in (value, pappl, pappl.replace(" ", "-")) and "-" in value:
                    problems.append("%s: option %s not in words" % (name, value))
            value = Select(field).first_selected_option.text
        elif field.get_attribute("type") == "checkbox":
            value = "on" if field.is_selected() else "off"
        else:
            value = field.get_attribute("value")
        if "kelvo" in heading or not heading:
            problems.append("%s: heading %r" % (name, heading))
        said.append("%s %s" % (heading, value))
    if not said:
        problems.append("no Kelvo choice on the page")
    return problems, said


def main(base, printer, halftone, screenshot, shown="-", login=None):
    options = webdriver.ChromeOptions()
    options.binary_location = "/usr/bin/chromium"
    # The server's certificate is its own, self-signed.
    for arg in ("--headless=new", "--no-sandbox", "--disable-dev-shm-usage", "--disable-gpu",
                "--window-size=1000,1600", "--no-first-run", "--disable-extensions",
                "--ignore-certificate-errors"):
        options.add_argument(arg)
    browser = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
    browser.set_page_load_timeout(30)
    wait = WebDriverWait(browser, 40)
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
            WebDriverWait(browser, 10).until(ready.presence_of_element_located((By.NAME, "kelvo-halftone")))
        except TimeoutException:
            browser.save_screenshot(screenshot)
            print("web: %s offers no printing defaults to change: %s" % (browser.current_url, browser.title))
            return 3
        wait.until(ready.text_to_be_present_in_element((By.TAG_NAME, "body"), "Halftone:"))
        problems, said = words_problems(browser)
        print("web: %s says: %s" % (printer, "; ".join(said)))
        choice = Select(browser.find_element(By.NAME, "kelvo-halftone"))
        before = choice.first_selected_option.get_attribute("value")
        if shown != "-" and before != shown:
            problems.append("halftone shown %s, expected %s" % (before, shown))
        if halftone != "-":
            choice.select_by_value(halftone)
            save = browser.find_element(By.CSS_SELECTOR, 'input[type="submit"]')
            save.click()
            # The page comes back with the saved values and a message.
            wait.until(ready.staleness_of(save))
            wait.until(ready.presence_of_element_located((By.NAME, "kelvo-halftone")))
            message = " ".join(e.text for e in browser.find_elements(By.CSS_SELECTOR, ".banner"))
            after = Select(browser.find_element(By.NAME, "kelvo-halftone")).first_selected_option
            print("web: %s halftone %s -> %s (%s), page says: %s"
                  % (printer, before, after.get_attribute("value"), after.text, message))
            if after.get_attribute("value") != halftone:
                problems.append("halftone saved as %s" % after.get_attribute("value"))
        browser.save_screenshot(screenshot)
        for problem in problems:
            print("web: " + problem, file=sys.stderr)
        return 1 if problems else 0
    finally:
        browser.quit()


if __name__ == "__main__":
    if len(sys.argv) not in (5, 6, 7):
        print(__doc__, file=sys.stderr)
        sys.exit(2)
    sys.exit(main(*sys.argv[1:]))
