"""What the helper inherits from whoever starts it, and what happens while it starts, must cost
nobody the fans."""

import base64
import fcntl
import json
import os
import random
import resource
import signal
import subprocess
import sys
import tempfile
import time
import unittest
import uuid

from simulated import (CURVE, HELPER, OWNER_UID, WAIT_SECONDS, Mac, Owner, eventually, finish,
                       needs_root)

COOLING_DONE = "散热会话结束，已确认风扇恢复系统自动。\n"
EVERY_SIGNAL = set(signal.valid_signals()) - {signal.SIGKILL, signal.SIGSTOP}
STOPS = (signal.SIGTERM, signal.SIGINT, signal.SIGHUP)
STARTS = int(os.environ.get("FEROVANE_EARLY_SIGNALS", "45"))
SOON_SECONDS = 0.003  # it is being loaded
LATEST_SECONDS = 0.06  # by then the fans are held, on a machine that is not very busy


def ignore_all():
    for number in EVERY_SIGNAL:
        signal.signal(number, signal.SIG_IGN)


def pending(number):
    """What runs between fork and exec: the signal has arrived already, and is blocked."""
    def become():
        os.setresuid(OWNER_UID, 0, 0)  # as whom a session is authorised
        signal.pthread_sigmask(signal.SIG_BLOCK, {number})
        os.kill(os.getpid(), number)
    return become


def commands(owner):
    curve = base64.b64encode(json.dumps(CURVE).encode()).decode()
    session = str(uuid.uuid4())
    return (("cooling", *owner.words, session),
            ("profile", *owner.words, session, "custom", curve), ("serve", *owner.words))


def start(mac, command, owner, become):
    return mac.start(command, *owner.words, str(uuid.uuid4()), preexec_fn=become)


@needs_root
class InheritedStateTest(unittest.TestCase):
    def test_a_stop_signal_that_waits_already_is_obeyed_before_a_fan_is_taken(self):
        with Mac("MacBookPro16,1") as mac, Owner() as owner:
            for number in STOPS:
                for words in commands(owner):
                    reading, writing = os.pipe()  # an input without an end
                    helper = mac.start(*words, stdin=reading, preexec_fn=pending(number))
                    self.assertEqual(finish(helper)[::2], (0, ""), (words, number))
                    os.close(reading)
                    os.close(writing)
                    self.assertEqual(mac.writes(), [])

    def test_one_at_any_moment_of_the_start_leaves_no_fan_held(self):
        draw = random.Random(20260)
        held = 0
        with Mac("MacBookPro11,4") as mac, Owner() as owner:
            for turn in range(STARTS):
                number = STOPS[turn % len(STOPS)]
                writes = len(mac.writes())
                helper = mac.start(*commands(owner)[turn % 2])
                time.sleep(draw.uniform(0, draw.choice((SOON_SECONDS, LATEST_SECONDS))))
                helper.send_signal(number)
                status, _, errors = finish(helper)
                wrote = len(mac.writes()) > writes
                held += wrote
                self.assertIn(status, (0, 1) if wrote else (0, 1, -number), errors)
                self.assertNotIn("恢复自动风扇失败", errors)
                self.assertTrue(mac.automatic(), mac.journal()[-10:])
        print(f"signals while it starts: {STARTS}, fans taken in {held}", file=sys.stderr)

    def test_a_stop_signal_arrives_and_no_terminal_stops_a_lease_whatever_was_done_before(self):
        for become in (lambda: signal.pthread_sigmask(signal.SIG_BLOCK, EVERY_SIGNAL), ignore_all,
                       os.setpgrp):  # no shell could continue a group of its own
            for number in STOPS:
                with Mac("MacBookPro16,1") as mac, Owner() as owner:
                    helper = start(mac, "cooling", owner, become)
                    self.assertTrue(eventually(mac.held))
                    for stop in (signal.SIGTSTP, signal.SIGTTIN, signal.SIGTTOU, number):
                        helper.send_signal(stop)
                    self.assertEqual(finish(helper), (0, COOLING_DONE, ""))
                    self.assertTrue(mac.automatic())

    def test_a_clock_set_before_the_start_ends_the_helper_and_not_the_hand_back(self):
        with Mac("MacBookPro16,1") as mac, Owner() as owner:
            helper = start(mac, "cooling", owner, lambda: signal.alarm(1))
            self.assertEqual(finish(helper)[0], -signal.SIGALRM)
            self.assertTrue(eventually(mac.automatic, 2), mac.journal()[-20:])

    def test_however_few_descriptors_there_may_be_no_fan_is_left_held(self):
        outcomes = set()
        for most in range(6, 24, 2):
            with Mac("MacBookPro16,1") as mac, Owner() as owner:
                limit = lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (most, most))
                helper = start(mac, "cooling", owner, limit)
                eventually(lambda: helper.poll() is not None or mac.held())
                outcomes.add(helper.poll() is None)
                helper.kill()
                helper.communicate()
                self.assertTrue(eventually(mac.automatic, 2), (most, mac.journal()[-20:]))
        self.assertEqual(outcomes, {False, True})

    def test_without_standard_descriptors_the_fans_are_held_and_handed_back(self):
        with Mac("MacBookPro16,1") as mac, Owner() as owner:
            helper = start(mac, "test-fan", owner, lambda: os.closerange(0, 3))
            self.assertTrue(eventually(mac.held))
            self.assertEqual([os.readlink(f"/proc/{helper.pid}/fd/{standard}")
                              for standard in range(3)], ["/dev/null"] * 3)
            self.assertEqual(finish(helper)[0], 0)
            self.assertTrue(mac.automatic())
            # Nothing of what the helper said has gone where the machine keeps its state.
            self.assertEqual(mac.run("auto").stdout, "风扇已恢复系统自动。\n")

    def test_the_end_of_children_is_noticed_and_a_mask_costs_no_tool_its_output(self):
        for become in (ignore_all, lambda: os.umask(0o777)):
            with Mac("MacBookPro16,1") as mac:
                for word, text in (("turbo-disable", "已确认禁用睿频驱动加载。\n"),
                                   ("turbo-enable", "已确认禁用睿频驱动卸载。\n")):
                    self.assertEqual(finish(mac.start(word, preexec_fn=become)), (0, text, ""))

    def test_an_output_that_takes_nothing_fails_and_one_that_does_not_block_is_waited_for(self):
        no_growth = lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (0, 0))
        with tempfile.TemporaryFile() as output:
            helper = subprocess.run([HELPER, "probe"], stdout=output, stderr=subprocess.PIPE,
                                    preexec_fn=no_growth, text=True, timeout=WAIT_SECONDS)
        self.assertEqual((helper.returncode, helper.stderr), (1, "无法写入标准输出\n"))
        with Mac("MacPro7,1") as mac:
            reading, writing = os.pipe()
            os.set_blocking(writing, False)
            fcntl.fcntl(writing, fcntl.F_SETPIPE_SZ, 4096)
            helper = subprocess.Popen([HELPER, "probe"], env=mac.environment(), stdout=writing)
            os.close(writing)
            time.sleep(0.6)  # the pipe is full by then
            with os.fdopen(reading) as output:
                self.assertGreater(len(json.load(output)), 5)
            self.assertEqual(helper.wait(), 0)


if __name__ == "__main__":
    unittest.main()
