"""The page of a day: one document that needs nothing else, whatever names a machine bears, and in a
browser, where one is installed."""

import base64
import hashlib
import json
import os
import re
import shutil
import subprocess
import tempfile
import unittest
from xml.etree import ElementTree

from simulated import BIN, MONITOR, Mac, eventually

BROWSER = next(filter(None, map(shutil.which, ("chromium", "chromium-browser", "google-chrome"))), None)
NAME = "</span><script>document.title='x'</script>&amp;\"']]>\x01;|\u202e"
OVERLAPS = """[...document.querySelectorAll('.plot')].flatMap(plot => ['.x', '.y'].map(kind => {
    const boxes = [...plot.querySelectorAll(kind)].map(it => it.getBoundingClientRect());
    return boxes.some((a, i) => boxes.some((b, j) => j > i && a.width && b.width && a.left < b.right &&
        b.left < a.right && a.top < b.bottom && b.top < a.bottom));
})).filter(Boolean).length"""
EMPTY = """[...document.querySelectorAll('svg')].filter(it => {
    const box = it.getBoundingClientRect();
    return !(box.width > 100 && box.height > 10 && it.getBBox().width > 0); }).length"""


class Browser:
    """Speaks the developer tools' protocol: pipes, and zero bytes between messages."""

    def __init__(self, folder):
        (theirs, self.requests), (answers, its) = os.pipe(), os.pipe()
        self.process = subprocess.Popen(
            ["sh", "-c", f'exec "$0" "$@" 3<&{theirs} 4>&{its}', BROWSER, "--headless", "--no-sandbox",
             "--remote-debugging-pipe", f"--user-data-dir={folder}", "about:blank"],
            pass_fds=(theirs, its), stderr=subprocess.DEVNULL)
        self.answers, self.session, self.complaints = os.fdopen(answers, "rb"), {}, []
        os.close(theirs), os.close(its)
        page = next(it for it in self("Target.getTargets")["targetInfos"] if it["type"] == "page")
        attached = self("Target.attachToTarget", targetId=page["targetId"], flatten=True)
        self.session = {"sessionId": attached["sessionId"]}
        self("Runtime.enable"), self("Log.enable")

    def __call__(self, method, **parameters):
        os.write(self.requests, json.dumps({"id": 1, "method": method, "params": parameters,
                                            **self.session}).encode() + b"\0")
        while "id" not in (message := json.loads(b"".join(iter(lambda: self.answers.read(1), b"\0")))):
            if message["method"] in ("Runtime.exceptionThrown", "Log.entryAdded"):
                self.complaints.append(message)
        return message["result"]

    def value(self, expression):
        return self("Runtime.evaluate", expression=expression, returnByValue=True)["result"].get("value")

    def end(self):
        os.close(self.requests)
        self.process.wait()
        self.answers.close()


class PageTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory(ignore_cleanup_errors=True)
        cls.addClassCleanup(cls.folder.cleanup)
        cls.file = os.path.join(cls.folder.name, "day.html")
        samples = subprocess.run([BIN / "day-page", cls.file, NAME], check=True, text=True,
                                 capture_output=True).stdout
        cls.samples = [tuple(map(float, line.split())) for line in samples.splitlines()]

    def check(self, file):
        with open(file, encoding="utf-8") as page:
            text = page.read()
        self.assertNotRegex(text, r"https?:|\b(src|href|xmlns)=|url\(|@import")
        root = ElementTree.fromstring(text)
        script, = root.iter("script")
        digest = base64.b64encode(hashlib.sha256(script.text.encode()).digest()).decode()
        self.assertIn(f"default-src 'none'; style-src 'unsafe-inline'; base-uri 'none'; form-action "
                      f"'none'; script-src 'sha256-{digest}'", text)
        return root

    def test_it_is_whole_in_itself_and_names_are_text(self):
        sections = self.check(self.file).findall(".//section[h2]")
        named = [it.find("h2").text for it in sections if NAME.replace("\x01", "\ufffd") in "".join(it.itertext())]
        self.assertEqual(named, ["诊断", "应用", "传感器", "记录"])

    def test_the_example_draws_what_it_sees_and_a_day_that_it_saved(self):
        day, page = (os.path.join(self.folder.name, name) for name in ("day", "page.html"))
        with Mac("MacBookPro16,1") as mac:
            for samples in ("1", "2"):
                subprocess.run([MONITOR, "--page", page, "--day", day, samples, "/dev/null"],
                               env=mac.environment(), check=True, stdout=subprocess.DEVNULL)
        self.assertIn("CPU core sensor 1", "".join(self.check(page).itertext()))

    @unittest.skipUnless(BROWSER, "no browser is installed")
    def test_a_browser_shows_it_and_tells_the_bucket_under_the_cursor(self):
        browser = Browser(os.path.join(self.folder.name, "profile"))
        self.addCleanup(browser.end)
        browser("Page.navigate", url=f"file://{self.file}")
        self.assertTrue(eventually(lambda: browser.value("document.querySelector('#tip + script') !== null")))
        browser.value("for (const it of document.querySelectorAll('details')) it.open = true")
        backs = set()
        for width, scheme in ((360, "dark"), (1280, "light")):
            browser("Emulation.setDeviceMetricsOverride", width=width, height=2000, deviceScaleFactor=1,
                    mobile=False)
            browser("Emulation.setEmulatedMedia", features=[{"name": "prefers-color-scheme", "value": scheme}])
            self.assertEqual([browser.value(it) for it in (EMPTY, OVERLAPS)], [0, 0], width)
            self.assertLessEqual(browser.value("document.documentElement.scrollWidth"), width)
            backs.add(browser.value("getComputedStyle(document.body).backgroundColor"))
        self.assertEqual(len(backs), 2)
        left, y, width = browser.value(
            "it = document.querySelector('.plot').getBoundingClientRect(), [it.x, it.y + 9, it.width]")

        def told(part):
            browser("Input.dispatchMouseEvent", type="mouseMoved", x=left + part * width, y=y)
            return browser.value("tip.offsetWidth ? tip.innerText : ''")
        for part in (0.1, 0.5, 0.97):
            text = told(part)
            first, last = (60 * int(h) + int(m) for h, m in re.findall(r"(\d+):(\d+)", text))
            seen = [celsius for at, celsius in self.samples if first <= at // 60 % 1440 <= last]
            figures = [float(it) for it in re.findall(r"([\d.]+) °C", text)]
            for figure, expected in zip(figures, (sum(seen) / len(seen), min(seen), max(seen)), strict=True):
                self.assertAlmostEqual(figure, expected, delta=0.051, msg=text)
        asleep = next(a for (a, _), (b, _) in zip(self.samples, self.samples[1:]) if b > a + 3600) + 1800
        self.assertEqual(told(1 - (self.samples[-1][0] - asleep) / 86400), "")
        self.assertEqual(browser.complaints, [])
        self.assertNotEqual(browser.value("document.title"), "x")


if __name__ == "__main__":
    unittest.main()
