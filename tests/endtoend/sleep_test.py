import contextlib
import unittest
import uuid

from conversation import CONFIRMED, CURVE, MANAGED
from session_process_test import session_on
from simulated import Mac, Owner, eventually, finish, needs_root

HOUR = "seconds=3600"  # longer than any lease
MINUTE = "seconds=60"  # shorter than "cooling" and "profile", longer than a fan test
COOLED = "散热会话结束，已确认风扇恢复系统自动。\n"
MODE_ENDED = "模式会话结束，风扇已恢复系统自动；保留睿频选择。\n"
COOLING_CHANGED = "检测到风扇状态改变或无法读取，散热会话已停止\n"
NOT_CONFIRMED = "SMC F0Tg 回读不一致，操作未确认"
CURVE_CHANGED = "风扇控制被改变或无法读取，已停止曲线\n"
WHILE_HELD = None
SWITCHING_WRITES = 4  # a mode and a target for each of two fans
INTO_THE_ROUND = "in=0.3"  # every write is read back, and the next round is still to come

# The clock goes on while a Mac sleeps, and its controller has given up every manual mode when it
# wakes. A lease whose time has run out meanwhile ends as planned; another finds its fans taken away.
# Command, write at which it sleeps, for how long; exit status, output, how standard error begins.
ONE_SHOT = (
    ("cooling", WHILE_HELD, HOUR, 0, COOLED, ""),
    ("cooling", WHILE_HELD, MINUTE, 1, "", COOLING_CHANGED),
    ("cooling", "write=2", HOUR, 1, "", NOT_CONFIRMED),
    ("test-fan", WHILE_HELD, MINUTE, 0, COOLED, ""),
    ("profile", WHILE_HELD, HOUR, 0, MODE_ENDED, ""),
    ("profile", WHILE_HELD, MINUTE, 1, "", CURVE_CHANGED),
    ("profile", "write=1", HOUR, 0, MODE_ENDED, ""),
)
PROFILE = {"command": "profile", "profile": "custom", "curve": CURVE}
SESSIONS = (("MacBookPro16,1", PROFILE, HOUR), ("iMac18,3", PROFILE, MINUTE),
            ("MacPro7,1", {"command": "test-fans"}, MINUTE), ("M1Pro", PROFILE, HOUR))


@needs_root
class SleepTest(unittest.TestCase):
    """Every case of a test runs at once: they do little but wait."""

    def setUp(self):
        self.open = contextlib.ExitStack()
        self.addCleanup(self.open.close)
        self.owner = self.open.enter_context(Owner())

    def start(self, mac, command):
        words = [command, *self.owner.words, str(uuid.uuid4())]
        return mac.start(*words, *(["balanced", "-"] if command == "profile" else []))

    def test_a_one_shot_lease_ends_with_the_sleep(self):
        running = []
        for command, moment, length, *expected in ONE_SHOT:
            mac = self.open.enter_context(Mac("MacBookPro16,1"))
            if moment is not WHILE_HELD:
                mac.fault("sleep", length, moment)
            running.append((f"{command} {moment} {length}", mac, self.start(mac, command), expected))
            if moment is WHILE_HELD:
                self.assertTrue(eventually(lambda: len(mac.writes()) >= SWITCHING_WRITES))
                mac.fault("sleep", length, INTO_THE_ROUND)
        for name, mac, helper, (status, output, error) in running:
            with self.subTest(name):
                *told, told_error = finish(helper)
                self.assertEqual(told, [status, output], told_error)
                self.assertTrue(told_error.startswith(error), told_error)
                self.assertEqual(told_error == "", error == "")
                self.assertTrue(mac.automatic(), mac.journal())

    def test_a_session_outlives_the_sleep_and_its_lease_does_not(self):
        running = []
        for model, request, length in SESSIONS:
            mac = self.open.enter_context(Mac(model))
            session = session_on(mac, self.owner)
            running.append((f"{model} {request['command']} {length}", mac, session))
            self.assertEqual(session.exchange(request)["message"], CONFIRMED, model)
            self.assertTrue(mac.held())
            mac.fault("sleep", length)
        for name, mac, session in running:
            with self.subTest(name):
                state = lambda: session.exchange({"command": "status"})
                self.assertTrue(eventually(lambda: state()["message"] == MANAGED), state())
                self.assertTrue(mac.automatic(), mac.journal())
                self.assertNotIn("fanStatus", state())
                self.assertEqual(session.exchange(PROFILE)["message"], CONFIRMED)
                self.assertTrue(mac.held())
                self.assertEqual(session.shut_down()["message"], MANAGED)
                self.assertTrue(mac.automatic(), mac.journal())
                self.assertEqual(session.close(), 0)
                self.assertEqual(session.process.stderr.read(), b"")
                session.process.stderr.close()


if __name__ == "__main__":
    unittest.main()
