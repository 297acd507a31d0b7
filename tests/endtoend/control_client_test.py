"""The session client against helpers that misbehave, and against the real one."""

import os
import signal
import sys
import time
import unittest

from simulated import HELPER, TOOL, Mac, eventually, needs_root
from control_client import LONGEST_LINE, ControlSession, RequestFailed, SessionError

# What stands in for the helper: it reads one request, then does what the test says. `say` writes
# bytes at once, without any buffer.
STAND_IN = """
import os, signal, sys, time
def say(data): os.write(1, data)
def request(): return sys.stdin.buffer.readline()
OK = b'{"ok":true,"message":"m"}\\n'
request()
"""


def session_with(deeds):
    return ControlSession([sys.executable, "-c", STAND_IN + deeds])


def longest(size):
    """A reply of that many bytes before its line feed."""
    return b'{"ok":true,"message":"' + b"x" * (size - 24) + b'"}\n'


class MisbehavingHelperTest(unittest.TestCase):
    def assertFails(self, text, deeds):
        with session_with(deeds) as session:
            with self.assertRaisesRegex(SessionError, text):
                session.request("status", timeout=10)

    def test_its_death_is_told_with_its_status(self):
        self.assertFails("has ended: exit status 3", "sys.exit(3)")
        self.assertFails("has ended: exit status -9", "os.kill(os.getpid(), 9)")
        self.assertFails("has ended: exit status 1", "say(b'{\"ok\":tr'); sys.exit(1)")

    def test_what_died_before_it_was_asked_is_an_error_too(self):
        with session_with("") as session:
            session.process.kill()
            session.process.wait()
            for _ in range(2):
                with self.assertRaisesRegex(SessionError, "exit status -9"):
                    session.request("status")
            self.assertFalse(session.alive)

    def test_silence_ends_at_the_deadline_of_the_whole_reply(self):
        silent = "request()"  # until its input is closed
        dripping = "\nfor _ in range(60): say(b' '); time.sleep(0.05)\n"
        for deeds in (silent, dripping):
            with self.subTest(deeds), session_with(deeds) as session:
                start = time.monotonic()
                with self.assertRaisesRegex(SessionError, "does not answer"):
                    session.request("status", timeout=0.5)
                self.assertLess(time.monotonic() - start, 2)

    def test_the_longest_reply_is_taken_and_no_longer_one(self):
        with session_with(f"say({longest(LONGEST_LINE - 1)!r})") as session:
            self.assertEqual(len(session.request("status")["message"]), LONGEST_LINE - 25)
        self.assertFails("too long", f"say({longest(LONGEST_LINE)!r})")
        self.assertFails("too long", f"say(b'x' * {LONGEST_LINE}); request()")

    def test_replies_are_lines_however_they_arrive(self):
        deeds = "say(OK[:9]); time.sleep(0.1); say(OK[9:] + OK.replace(b'm\"', b'n\"')); request()"
        with session_with(deeds) as session:
            self.assertEqual(session.request("status")["message"], "m")
            self.assertEqual(session.read_reply(1)["message"], "n")

    def test_what_is_no_reply_is_refused(self):
        for reply in (b"\n", b"{\n", b"[1]\n", b'"ok"\n', b'{"ok":1,"message":"m"}\n', b"\xff\n"):
            with self.subTest(reply):
                self.assertFails("the reply is not", f"say({reply!r})")

    def test_a_refusal_leaves_the_session_open(self):
        deeds = "say(OK.replace(b'true', b'false')); request(); say(OK); request()"
        with session_with(deeds) as session:
            with self.assertRaisesRegex(RequestFailed, "^m$"):
                session.request("auto")
            with self.assertRaisesRegex(SessionError, "request is too long"):
                session.request("status", label="x" * LONGEST_LINE)
            self.assertTrue(session.request("status")["ok"])


@needs_root
class RealHelperTest(unittest.TestCase):
    def session(self):
        return ControlSession([str(TOOL), "run", self.mac.path, "--", str(HELPER)])

    def setUp(self):
        self.mac = Mac("MacBookPro16,1")
        self.addCleanup(self.mac.__exit__)
        self.mac.set("load=30", "speed=20", "extension-approval=approved")

    def test_each_way_to_end_a_session_gives_the_fans_back(self):
        for end in ("shut_down", "close", "exception"):
            with self.subTest(end):
                try:
                    with self.session() as session:
                        session.request("profile", profile="performance")
                        self.assertTrue(self.mac.held())
                        if end == "exception":
                            raise KeyError
                        ended = getattr(session, end)()
                        if end == "shut_down":
                            self.assertEqual(ended["message"], "风扇由系统管理")
                            self.assertTrue(self.mac.automatic())
                except KeyError:
                    pass
                self.assertEqual(session.process.returncode, 0)
                self.assertTrue(self.mac.automatic())

    def test_a_killed_client_leaves_nothing_held(self):
        reading, writing = os.pipe()
        client = os.fork()
        if client == 0:
            try:
                session = self.session()
                session.request("profile", profile="performance")
                os.write(writing, b"held")
                signal.pause()
            finally:
                os._exit(1)
        os.close(writing)
        self.assertEqual(os.read(reading, 4), b"held")
        os.close(reading)
        self.assertTrue(self.mac.held())
        os.kill(client, signal.SIGKILL)
        os.waitpid(client, 0)
        self.assertTrue(eventually(self.mac.automatic, 5))


if __name__ == "__main__":
    unittest.main()
