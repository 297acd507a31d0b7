"""A stop signal that arrives before the helper listens: it dies having touched nothing, or the fans
are handed back."""

import base64
import json
import os
import random
import signal
import sys
import time
import unittest
import uuid

from simulated import OWNER_UID, WAIT_SECONDS, Mac, Owner, needs_root

SIGNALS = (signal.SIGTERM, signal.SIGINT, signal.SIGHUP)
CURVE = base64.b64encode(json.dumps({
    "points": [{"temperature": 30, "percent": 20}, {"temperature": 80, "percent": 100}],
    "sensor": "CPU",
}).encode()).decode()
STARTS = int(os.environ.get("FEROVANE_EARLY_SIGNALS", "60"))
SOON_SECONDS = 0.003  # it is being loaded
LATEST_SECONDS = 0.06  # by then the fans are held, on a machine that is not very busy


def pending(number):
    """What runs between fork and exec: the signal has arrived already, and is blocked."""
    def become():
        os.setresuid(OWNER_UID, 0, 0)  # as whom a session is authorised
        signal.pthread_sigmask(signal.SIG_BLOCK, {number})
        os.kill(os.getpid(), number)
    return become


def commands(owner):
    session = str(uuid.uuid4())
    return {
        "cooling": ("cooling", *owner.words, session),
        "profile": ("profile", *owner.words, session, "custom", CURVE),
        "serve": ("serve", *owner.words),
    }


@needs_root
class EarlySignalTest(unittest.TestCase):
    def test_one_that_waits_already_is_obeyed_before_a_fan_is_taken(self):
        with Mac("MacBookPro16,1") as mac, Owner() as owner:
            for number in SIGNALS:
                for name, words in commands(owner).items():
                    with self.subTest(name, number=number):
                        reading, writing = os.pipe()  # an input without an end
                        helper = mac.start(*words, stdin=reading, preexec_fn=pending(number))
                        output, errors = helper.communicate(timeout=WAIT_SECONDS)
                        os.close(reading)
                        os.close(writing)
                        self.assertEqual((helper.returncode, errors), (0, ""))
                        self.assertEqual(mac.writes(), [])

    def test_one_at_any_moment_of_the_start_leaves_no_fan_held(self):
        draw = random.Random(20260)
        endings = {"died": 0, "handed back": 0, "touched nothing": 0}
        with Mac("MacBookPro11,4") as mac, Owner() as owner:
            for turn in range(STARTS):
                number = SIGNALS[turn % len(SIGNALS)]
                words = commands(owner)["profile" if turn % 2 else "cooling"]
                writes = len(mac.writes())
                helper = mac.start(*words)
                time.sleep(draw.uniform(0, draw.choice((SOON_SECONDS, LATEST_SECONDS))))
                helper.send_signal(number)
                output, errors = helper.communicate(timeout=WAIT_SECONDS)
                wrote = len(mac.writes()) > writes
                if helper.returncode == -number:
                    self.assertFalse(wrote, "it died of a signal after it had taken a fan")
                    endings["died"] += 1
                else:
                    self.assertIn(helper.returncode, (0, 1), errors)
                    self.assertNotIn("恢复自动风扇失败", errors)
                    endings["handed back" if wrote else "touched nothing"] += 1
                self.assertTrue(mac.automatic(), mac.journal()[-10:])
        print(endings, file=sys.stderr)
        self.assertGreater(endings["handed back"], 0)
        self.assertLess(endings["handed back"], STARTS)


if __name__ == "__main__":
    unittest.main()
