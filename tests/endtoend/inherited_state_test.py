"""What the helper inherits from whoever starts it, and what happens while it starts, must cost
nobody the fans."""

import os
import resource
import signal
import tempfile
import unittest

from simulated import OWNER_UID, STOPS, Mac, Owner, eventually, finish, lease, needs_root

COOLING_DONE = "散热会话结束，已确认风扇恢复系统自动。\n"
EVERY_SIGNAL = set(signal.valid_signals()) - {signal.SIGKILL, signal.SIGSTOP}


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


def start(mac, command, owner, become, **options):
    return mac.start(*lease(command, owner), preexec_fn=become, **options)


@needs_root
class InheritedStateTest(unittest.TestCase):
    def test_a_stop_signal_that_waits_already_is_obeyed_before_a_fan_is_taken(self):
        with Mac("MacBookPro16,1") as mac, Owner() as owner:
            for number in STOPS:
                for word in ("cooling", "profile", "serve"):
                    reading, writing = os.pipe()  # an input without an end
                    helper = start(mac, word, owner, pending(number), stdin=reading)
                    self.assertEqual(finish(helper)[::2], (0, ""), (word, number))
                    os.close(reading)
                    os.close(writing)
                    self.assertEqual(mac.writes(), [])

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

    def test_an_output_that_takes_nothing_fails(self):
        no_growth = lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (0, 0))
        with Mac("MacPro7,1") as mac, tempfile.TemporaryFile() as output:
            result = mac.run("probe", stdout=output, preexec_fn=no_growth)
            self.assertEqual((result.returncode, result.stderr), (1, "无法写入标准输出\n"))


if __name__ == "__main__":
    unittest.main()
