import os
import statistics
import sys
import tempfile
import time
import unittest

from conversation import CONFIRMED, CURVE, MANAGED, Conversation
from interference import Interference
from process_figures import ProcessFigures, processes_attached, uses_sanitizer
from session_process_test import session_on
from simulated import Mac, Owner, eventually, needs_root

SECONDS = float(os.environ.get("FEROVANE_SOAK_SECONDS", "5"))
LOOKS = 120  # in a long run; a short one has one a second
LONG = SECONDS >= 600
GROWTH_KIB = 128  # of anonymous memory after the warm-up; a page a minute would be more in an hour
SEED = int(os.environ.get("FEROVANE_SOAK_SEED", "20261121"))


class Soak:
    """One session on one machine, stopped now and then for a look at it."""

    def __init__(self, test, mac, owner, apple_silicon):
        self.test = test
        self.mac = mac
        self.session = session_on(mac, owner)
        self.figures = []
        self.talk = Conversation(self.session, SEED, apple_silicon)
        self.interference = Interference(mac, SEED + 1, LONG)

    def run(self):
        pause = max(1.0, SECONDS / LOOKS)
        end = time.monotonic() + SECONDS
        self.interference.start()
        try:
            while time.monotonic() < end:
                self.interference.go_on()
                calm = min(end, time.monotonic() + pause)
                while time.monotonic() < calm:
                    self.talk.burst()
                self.look()
        finally:
            self.interference.end()

    def look(self):
        """When nothing disturbs, everything works, at once, and what is said is so."""
        self.interference.calm()
        self.test.assertEqual(self.session.exchange({"command": "auto"})["message"], MANAGED,
                              self.mac.journal()[-30:])
        self.test.assertTrue(self.mac.automatic(), self.mac.journal()[-30:])
        held = self.session.exchange({"command": "profile", "profile": "custom", "curve": CURVE})
        self.talk.forget_labels()
        self.test.assertEqual(held["message"], CONFIRMED, self.mac.journal()[-30:])
        self.test.assertTrue(self.mac.held(), self.mac.journal()[-30:])
        self.figures.append(ProcessFigures(self.session.process.pid))
        if LONG:
            self.report(sys.stderr)

    def report(self, to):
        first, last = self.figures[len(self.figures) // 5], self.figures[-1]
        talk, strikes = self.talk, self.interference.counts
        text = "; ".join(f"{name} {count}" for name, count in strikes.most_common())
        print(f"\n{self.mac.model}: {talk.requests} requests, {talk.replies} replies, "
              f"{talk.numbered} of them numbered, slowest burst {talk.slowest:.2f} s\n"
              f"anonymous KiB {first.anonymous} -> {last.anonymous}, resident {first.resident} -> "
              f"{last.resident}, descriptors {first.descriptors} -> {last.descriptors}, threads "
              f"{first.threads} -> {last.threads}, children {first.children} -> {last.children}, "
              f"{len(self.figures)} looks\n"
              f"done: {dict(talk.done)}\nfailed: "
              f"{sum(talk.failed.values())} with {len(talk.failed)} different messages\n"
              f"{sum(strikes.values())} disturbances: {text}", file=to, flush=True)


    def report_failures(self):
        for (command, message), count in self.talk.failed.most_common():
            print(f"    {count} {command}: {message.strip()}")


@needs_root
class SoakTest(unittest.TestCase):
    def soak(self, model, apple_silicon):
        with tempfile.TemporaryDirectory() as temporary, Mac(model) as mac, \
                Owner(2 * SECONDS + 600) as owner:
            os.environ["TMPDIR"] = temporary
            soak = Soak(self, mac, owner, apple_silicon)
            soak.run()
            pid = soak.session.process.pid
            sanitized = uses_sanitizer(pid)
            self.assertEqual(soak.session.shut_down()["message"], MANAGED)
            self.assertEqual(soak.session.close(), 0)
            self.assertTrue(mac.automatic(), mac.journal()[-30:])
            self.assertEqual(soak.session.process.stderr.read(), b"")
            soak.session.process.stderr.close()
            self.assertTrue(eventually(lambda: not processes_attached(mac.path)))
            self.assertEqual(os.listdir(temporary), [])
            soak.report(sys.stdout)
            soak.report_failures()
            self.check(soak, sanitized)

    def check(self, soak, sanitized):
        self.assertEqual(soak.talk.replies, soak.talk.requests)
        self.assertGreater(soak.talk.done["status"], 0)
        if LONG:  # in a few seconds every one may be disturbed; each look has one that is not
            self.assertGreater(soak.talk.done["profile"], 0)
        settled = soak.figures[len(soak.figures) // 5:]
        for name in ("descriptors", "threads", "children"):
            self.assertEqual(len({getattr(figures, name) for figures in settled}), 1, name)
        if not sanitized:
            half = len(settled) // 2
            early, late = (statistics.median(figures.anonymous for figures in part)
                           for part in (settled[:half], settled[half:]))
            self.assertLess(late - early, GROWTH_KIB)

    def test_on_intel(self):
        self.soak("MacBookPro16,1", False)

    def test_on_apple_silicon(self):
        self.soak("M1Pro", True)


if __name__ == "__main__":
    unittest.main()
