#!/usr/bin/python3
"""The stencil studio in a real browser (headless Chromium driven by
Selenium) at a tablet's and a phone's screen: from the printer's page to the
studio, a picture in, halftone and brightness changed, the preview compared
dot for dot with halftonepreview's of the same page and choice, printed, and
the job's graphic (decoded by zplpreview) compared with the preview. A
damaged picture and one over the size limit get a message, and the studio
works on after them. Screenshots go to the output folder.

    studio.py <base-url> <printer> <build-dir> <job-folder> <output-folder> <picture.png>
"""
import base64
import glob
import json
import os
import shutil
import subprocess
import sys
import tempfile
import time
import urllib.request

from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.support.ui import Select, WebDriverWait

# name, CSS pixels, device pixel ratio, page size (a PWG name part), the
# choice checked (halftone by the engine's name for it, brightness, mirror,
# negative), and halftones whose preview time is only shown.
SCREENS = [
    ("tablet", 820, 1180, 2, "a4", "jarvis-judice-ninke-diffusion", 30, False, False,
     ["sierra-diffusion", "tattoo", "tattoo-x8"]),
    ("phone", 390, 844, 3, "a5", "tattoo-x8", -40, True, True, []),
]

# The canvas's dots against a picture's (a data URL): how many differ, and
# the two sizes. Dark pixels are dots.
COMPARE = """
const [url, done] = arguments;
const canvas = document.getElementById('canvas');
const ours = canvas.getContext('2d').getImageData(0, 0, canvas.width, canvas.height).data;
const image = new Image();
image.onload = () => {
  const other = document.createElement('canvas');
  other.width = image.width;
  other.height = image.height;
  const context = other.getContext('2d');
  context.drawImage(image, 0, 0);
  const theirs = context.getImageData(0, 0, image.width, image.height).data;
  let differ = 0;
  if (image.width === canvas.width && image.height === canvas.height)
    for (let i = 0; i < ours.length; i += 4) differ += (ours[i] < 128) !== (theirs[i] < 128);
  done({differ, ours: [canvas.width, canvas.height], theirs: [image.width, image.height]});
};
image.onerror = () => done({error: 'the picture does not load'});
image.src = url;
"""

# A digest of the canvas's dots, to tell two previews apart.
DIGEST = """
const canvas = document.getElementById('canvas');
const data = canvas.getContext('2d').getImageData(0, 0, canvas.width, canvas.height).data;
let hash = 2166136261, dots = 0;
for (let i = 0; i < data.length; i += 4) {
  const dot = data[i] < 128 ? 1 : 0;
  dots += dot;
  hash = Math.imul(hash ^ dot, 16777619) >>> 0;
}
return canvas.width + 'x' + canvas.height + ' ' + dots + ' dots #' + hash.toString(16);
"""


class Failed(Exception):
    pass


def check(condition, message):
    if not condition:
        raise Failed(message)


def browser_for(width, height, ratio, profile):
    options = webdriver.ChromeOptions()
    options.binary_location = "/usr/bin/chromium"
    for arg in ("--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
                "--disable-background-networking", "--disable-component-update", "--disable-sync",
                "--user-data-dir=" + profile):
        options.add_argument(arg)
    options.add_experimental_option("mobileEmulation", {
        "deviceMetrics": {"width": width, "height": height, "pixelRatio": ratio, "touch": True}})
    browser = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
    browser.set_page_load_timeout(30)
    browser.set_script_timeout(60)
    return browser


class Studio:
    def __init__(self, browser, base, build, out, name):
        self.browser, self.base, self.build, self.out, self.name = browser, base, build, out, name
        self.wait = WebDriverWait(browser, 60, poll_frequency=0.1)

    def js(self, script, *args):
        return self.browser.execute_script(script, *args)

    def state(self):
        return self.js("return document.body.dataset.state || ''")

    def message(self):
        return self.browser.find_element(By.ID, "message").text

    def shown(self):
        return json.loads(self.js("return document.getElementById('canvas').dataset.shown || 'null'"))

    def shot(self, what):
        path = os.path.join(self.out, "studio-%s-%s.png" % (self.name, what))
        self.browser.save_screenshot(path)
        return path

    def no_sideways_scrolling(self, when):
        width, inner = self.js("return [document.documentElement.scrollWidth, window.innerWidth]")
        check(width <= inner, "%s, %s: the page is %d px wide on a %d px screen" % (self.name, when, width, inner))

    def choose_picture(self, path, expect="ready"):
        shown, said = self.shown(), self.message()
        self.browser.find_element(By.ID, "picture").send_keys(path)
        # A new preview, or a new message.
        self.wait.until(lambda b: (self.state() == "error" and self.message() != said) or (
            self.state() == "ready" and self.shown() not in (None, shown)))
        check(self.state() == expect, "%s: %s ended %s: %s" % (self.name, os.path.basename(path), self.state(),
                                                               self.message()))

    def change(self, engine, brightness, mirror, negative):
        halftone = Select(self.browser.find_element(By.ID, "halftone"))
        keyword = [o.get_attribute("value") for o in halftone.options if o.get_attribute("data-engine") == engine]
        check(keyword, "%s: no halftone runs %s" % (self.name, engine))
        halftone.select_by_value(keyword[0])
        # A slider is dragged: its value moves, then it is let go.
        self.js("const s = document.getElementById('brightness'); s.value = arguments[0];"
                "s.dispatchEvent(new Event('input')); s.dispatchEvent(new Event('change'));", brightness)
        for box, on in (("mirror", mirror), ("negative", negative)):
            if self.browser.find_element(By.ID, box).is_selected() != on:
                self.browser.find_element(By.ID, box).click()
        wanted = {"halftone": keyword[0], "brightness": str(brightness), "mirror": str(mirror).lower(),
                  "negative": str(negative).lower()}
        self.wait.until(lambda b: self.state() == "error" or (self.state() == "ready" and all(
            (self.shown() or {}).get(k) == v for k, v in wanted.items())))
        check(self.state() == "ready", "%s: the preview ended %s: %s" % (self.name, self.state(), self.message()))
        return keyword[0], int(self.js("return document.getElementById('canvas').dataset.ms"))

    def compare(self, png, what):
        with open(png, "rb") as f:
            url = "data:image/png;base64," + base64.b64encode(f.read()).decode()
        result = self.browser.execute_async_script(COMPARE, url)
        check("error" not in result and result["differ"] == 0 and result["ours"] == result["theirs"],
              "%s: the preview and %s differ: %s" % (self.name, what, result))


def job_state(base, printer, job, scratch):
    """Waits up to a minute for the job to end; its state and message."""
    test = os.path.join(scratch, "job.test")
    with open(test, "w") as f:
        f.write("{\nOPERATION Get-Job-Attributes\nGROUP operation-attributes-tag\n"
                "ATTR charset attributes-charset utf-8\nATTR naturalLanguage attributes-natural-language en\n"
                "ATTR uri printer-uri $uri\nATTR integer job-id %s\nSTATUS successful-ok\n"
                "DISPLAY job-state\nDISPLAY job-state-message\n}\n" % job)
    uri = base.replace("http://", "ipp://") + "/ipp/print/" + printer
    deadline, state = time.time() + 60, ""
    while time.time() < deadline:
        text = subprocess.run(["ipptool", "-tv", uri, test], capture_output=True, text=True, timeout=30).stdout
        state = " ".join(line.split("= ", 1)[1] for line in text.splitlines()
                         if "job-state (enum)" in line or "job-state-message" in line)
        if state.split(" ")[0] in ("completed", "aborted", "canceled"):
            break
        time.sleep(0.2)
    return state


def run(screen, base, printer, build, jobs, out, picture, scratch):
    name, width, height, ratio, size, engine, brightness, mirror, negative, timed = screen
    profile = tempfile.mkdtemp(prefix="profile-", dir=scratch)
    browser = browser_for(width, height, ratio, profile)
    try:
        studio = Studio(browser, base, build, out, name)
        # From the printer's page to the studio; a printer just added gets
        # its link within a second.
        deadline = time.time() + 10
        while True:
            browser.get(base + "/" + printer)
            links = browser.find_elements(By.LINK_TEXT, "Stencil studio")
            if links or time.time() > deadline:
                break
            time.sleep(0.5)
        check(links, "%s: the printer's page has no link to the studio" % name)
        links[0].click()
        studio.wait.until(lambda b: studio.state() == "ready" and
                          b.find_element(By.ID, "halftone").is_enabled())
        studio.no_sideways_scrolling("the empty page")
        media = Select(browser.find_element(By.ID, "media"))
        sizes = [o.get_attribute("value") for o in media.options if "_%s_" % size in o.get_attribute("value")]
        check(sizes, "%s: no %s page size among %s" % (name, size, [o.text for o in media.options]))
        media.select_by_value(sizes[0])

        studio.choose_picture(picture)
        times = ["%s %d ms" % (other, studio.change(other, 0, False, False)[1]) for other in timed]
        if times:
            print("%s: %s page, preview shown after a change of halftone: %s" % (name, sizes[0], ", ".join(times)))
        first = studio.js(DIGEST)
        keyword, ms = studio.change(engine, brightness, mirror, negative)
        second = studio.js(DIGEST)
        check(first != second, "%s: the preview did not change: %s" % (name, first))
        shown = studio.shown()

        # halftonepreview of the page the server holds, with the same choice.
        with urllib.request.urlopen(base + "/kelvo-studio/page?page=" + shown["page"], timeout=30) as reply:
            pgm = reply.read()
        magic, size, top, pixels = pgm.split(b"\n", 3)
        check(magic == b"P5" and top == b"255", "%s: the held page is no PGM" % name)
        w, h = map(int, size.split())
        ink = os.path.join(scratch, name + ".ink")
        with open(ink, "wb") as f:
            f.write(pixels.translate(bytes(255 - i for i in range(256))))
        expected = os.path.join(out, "studio-%s-halftonepreview.png" % name)
        command = [os.path.join(build, "tools/halftonepreview"), "--raw", "%dx%d" % (w, h), "-t", engine,
                   "-b", str(brightness)] + (["-m"] if mirror else []) + (["-n"] if negative else []) + [ink, expected]
        subprocess.run(command, check=True, stdout=subprocess.DEVNULL, timeout=60)
        studio.compare(expected, "halftonepreview")
        print("%s: %s page %dx%d, %s, brightness %d%s%s: preview equals halftonepreview (%s -> %s), shown %d ms "
              "after the change" % (name, sizes[0], w, h, keyword, brightness, ", mirror" if mirror else "",
                                    ", negative" if negative else "", first, second, ms))

        browser.find_element(By.ID, "actual").click()
        studio.js("document.getElementById('toolbar').scrollIntoView()")
        css, dots = studio.js("const c = document.getElementById('canvas');"
                              "return [c.getBoundingClientRect().width * window.devicePixelRatio, c.width]")
        check(abs(css - dots) < 1, "%s: at 1 dot = 1 pixel the canvas is %.1f device pixels for %d dots" %
              (name, css, dots))
        studio.no_sideways_scrolling("a full-size preview")
        studio.shot("one-dot-one-pixel")
        browser.find_element(By.ID, "fit").click()
        studio.shot("preview")

        # Print: the printer receives exactly the preview. The file device
        # names a job's file after the job and overwrites it (and PAPPL 1.3
        # may start a job before its name is set): the job's file is the one
        # that is new or written anew.
        def files():
            return {p: (os.stat(p).st_mtime_ns, os.stat(p).st_size) for p in glob.glob(os.path.join(jobs, "*.prn"))}
        before = files()
        browser.find_element(By.ID, "print").click()
        studio.wait.until(lambda b: studio.js("return document.body.dataset.job || ''") != "")
        check("sent" in studio.message(), "%s: printing says %s" % (name, studio.message()))
        job = studio.js("return document.body.dataset.job")
        state = job_state(base, printer, job, scratch)
        check(state.startswith("completed"), "%s: job %s ended %s" % (name, job, state))
        new = [p for p, stat in files().items() if before.get(p) != stat]
        check(len(new) == 1, "%s: %d job files were written" % (name, len(new)))
        decoded = os.path.join(out, "studio-%s-printed" % name)
        report = subprocess.run([os.path.join(build, "tools/zplpreview"), "-o", decoded, new[0]], check=True,
                                capture_output=True, text=True, timeout=60).stdout
        graphics = [line for line in report.splitlines() if not line.startswith(" ")]
        check(len(graphics) == 1, "%s: the job holds %s" % (name, report))
        studio.compare(decoded + "-1.png", "the printed graphic")
        print("%s: job %s printed the preview dot for dot: %s" % (name, job, graphics[0]))

        # A damaged picture, and (once) one over the limit: a message each,
        # then the studio goes on.
        damaged = os.path.join(scratch, "damaged.png")
        with open(picture, "rb") as f:
            whole = f.read()
        with open(damaged, "wb") as f:
            f.write(whole[:len(whole) // 3])
        bad = [(damaged, "damaged")]
        if name == "tablet":
            # A picture that says it is 20000 x 20000 pixels is refused before
            # anything is decoded.
            huge = os.path.join(scratch, "huge.png")
            with open(huge, "wb") as f:
                f.write(whole[:16] + (20000).to_bytes(4, "big") * 2 + whole[24:])
            bad.append((huge, "million pixels"))
            big = os.path.join(scratch, "big.png")
            with open(big, "wb") as f:
                f.write(whole + bytes(33 << 20))
            bad.append((big, "up to 32 MB"))
        for path, words in bad:
            studio.choose_picture(path, expect="error")
            check(words in studio.message(), "%s: %s says %s" % (name, os.path.basename(path), studio.message()))
            check(browser.find_element(By.ID, "print").get_attribute("disabled") is not None,
                  "%s: Print is offered after %s" % (name, os.path.basename(path)))
            studio.no_sideways_scrolling("a message")
            print("%s: %s: %s" % (name, os.path.basename(path), studio.message()))
        studio.shot("message")
        studio.choose_picture(picture)
        print("%s: the next picture is shown again: %s" % (name, studio.js(DIGEST)))
        return ms
    finally:
        browser.quit()


def main(base, printer, build, jobs, out, picture):
    scratch = tempfile.mkdtemp(prefix="kelvo-studio-browser-")
    try:
        for screen in SCREENS:
            run(screen, base, printer, build, jobs, out, picture, scratch)
        return 0
    except Failed as e:
        print("FAIL: %s" % e, file=sys.stderr)
        return 1
    finally:
        shutil.rmtree(scratch, ignore_errors=True)


if __name__ == "__main__":
    if len(sys.argv) != 7:
        print(__doc__, file=sys.stderr)
        sys.exit(2)
    sys.exit(main(*sys.argv[1:]))
