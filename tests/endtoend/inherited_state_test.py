"""What the helper inherits from whoever starts it must cost nobody the fans."""

import os
import resource
import signal
import subprocess
import tempfile
import time
import unittest
import uuid

from simulated import HELPER, Mac, Owner, eventually, finish, needs_root

COOLING_DONE = "散热会话结束，已确认风扇恢复系统自动。\n"
EVERY_SIGNAL = set(signal.valid_signals()) - {signal.SIGKILL, signal.SIGSTOP}


def close_standard_descriptors():
    for descriptor in (0, 1, 2):
        os.close(descriptor)


def ignore_all():
    for number in EVERY_SIGNAL:
        signal.signal(number, signal.SIG_IGN)


def start(mac, command, owner, become, **options):
    return mac.start(command, *owner.words, str(uuid.uuid4()), preexec_fn=become, **options)


@needs_root
class InheritedStateTest(unittest.TestCase):
    def test_no_terminal_stops_a_lease_beyond_its_time(self):
        with Mac("iMac18,3") as mac, Owner() as owner:
            began = time.monotonic()
            # In a group of its own: one that no shell could continue is not stopped by these.
            helper = start(mac, "test-fan", owner, os.setpgrp)
            self.assertTrue(eventually(mac.held))
            for number in (signal.SIGTSTP, signal.SIGTTIN, signal.SIGTTOU):
                helper.send_signal(number)
            self.assertEqual(finish(helper), (0, COOLING_DONE, ""))
            self.assertTrue(mac.automatic())
            self.assertLess(time.monotonic() - began, 8)

    def test_a_stop_signal_arrives_whatever_was_done_to_signals(self):
        for name, become in {
            "blocked": lambda: signal.pthread_sigmask(signal.SIG_BLOCK, EVERY_SIGNAL),
            "ignored": ignore_all,
        }.items():
            for number in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP):
                with self.subTest(name, number=number), Mac("MacBookPro16,1") as mac, \
                        Owner() as owner:
                    helper = start(mac, "cooling", owner, become)
                    self.assertTrue(eventually(mac.held))
                    helper.send_signal(number)
                    self.assertEqual(finish(helper), (0, COOLING_DONE, ""))
                    self.assertTrue(mac.automatic())

    def test_a_clock_set_before_the_start_ends_the_helper_and_not_the_hand_back(self):
        with Mac("MacBookPro16,1") as mac, Owner() as owner:
            helper = start(mac, "cooling", owner, lambda: signal.alarm(2))
            self.assertTrue(eventually(mac.held))
            self.assertEqual(finish(helper)[0], -signal.SIGALRM)
            self.assertTrue(eventually(mac.automatic, 2), mac.journal()[-20:])

    def test_without_standard_descriptors_the_fans_are_held_and_handed_back(self):
        with Mac("MacBookPro16,1") as mac, Owner() as owner:
            helper = start(mac, "test-fan", owner, close_standard_descriptors)
            self.assertTrue(eventually(mac.held))
            targets = [os.readlink(f"/proc/{helper.pid}/fd/{descriptor}")
                       for descriptor in (0, 1, 2)]
            self.assertEqual(targets, ["/dev/null"] * 3)
            self.assertEqual(finish(helper)[0], 0)
            self.assertTrue(mac.automatic())
            # Nothing of what the helper said has gone where the machine keeps its state.
            self.assertEqual(mac.run("auto").stdout, "风扇已恢复系统自动。\n")
        # Without them and without room for any there is nothing to be started with.

    def test_however_few_descriptors_there_may_be_no_fan_is_left_held(self):
        outcomes = set()
        for most in range(6, 24):
            with Mac("MacBookPro16,1") as mac, Owner() as owner:
                limit = lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (most, most))
                helper = start(mac, "cooling", owner, limit)
                held = eventually(lambda: helper.poll() is not None or mac.held()) \
                    and helper.poll() is None
                outcomes.add(held)
                helper.kill()
                helper.communicate()
                self.assertTrue(eventually(mac.automatic, 2), (most, mac.journal()[-20:]))
        self.assertEqual(outcomes, {False, True})

    def test_the_end_of_children_is_noticed_and_a_mask_costs_no_tool_its_output(self):
        for name, become in {
            "ignored": ignore_all,
            "mask": lambda: os.umask(0o777),
        }.items():
            with self.subTest(name), Mac("MacBookPro16,1") as mac:
                for word, text in (("turbo-disable", "已确认禁用睿频驱动加载。\n"),
                                   ("turbo-enable", "已确认禁用睿频驱动卸载。\n")):
                    helper = mac.start(word, preexec_fn=become)
                    self.assertEqual(finish(helper), (0, text, ""))

    def test_a_file_that_may_not_grow_is_a_failed_write(self):
        no_growth = lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (0, 0))
        with tempfile.TemporaryFile() as output:
            helper = subprocess.run([HELPER, "probe"], stdout=output, stderr=subprocess.PIPE,
                                    preexec_fn=no_growth, text=True, timeout=30)
        self.assertEqual((helper.returncode, helper.stderr), (1, "无法写入标准输出\n"))

    def test_arguments_of_any_size_are_refused(self):
        with Mac("MacBookPro16,1") as mac, Owner() as owner:
            long = "A" * 120_000
            for words, message in (
                (["profile", *owner.words, str(uuid.uuid4()), "custom", long], "曲线数据无效\n"),
                (["profile", *owner.words, long, "custom", "-"], "无效的模式会话参数\n"),
                (["cooling", long, *owner.words], "无效的散热会话参数或发起程序已经退出\n"),
                (["auto", *[long] * 8], "无效参数\n"),
                ([long], "允许的命令：probe、cooling、profile、auto、turbo-disable、turbo-enable\n"),
            ):
                result = mac.run(*words)
                self.assertEqual((result.returncode, result.stderr), (1, message))
            self.assertEqual(mac.writes(), [])


if __name__ == "__main__":
    unittest.main()
