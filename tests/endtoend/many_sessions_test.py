import os
import random
import signal
import tempfile
import time
import unittest

from conversation import CONFIRMED, CURVE
from process_figures import processes_attached
from session_process_test import session_on
from simulated import Mac, Owner, eventually, needs_root

SESSIONS = int(os.environ.get("FEROVANE_SESSIONS", "12"))
MACHINE = "iMac18,3"  # one fan: the quickest to take
STATUS = b'{"command":"status"}\n'
PROFILE = {"command": "profile", "profile": "custom", "curve": CURVE}
SLOW_REPLIES = 400  # more than a pipe holds


def files_below(folder):
    return sorted(os.path.join(path, name) for path, _, names in os.walk(folder) for name in names)


def read_slowly(session, owner):
    """Lets replies pile up and takes them in small bites."""
    for _ in range(SLOW_REPLIES):
        session.send_line(STATUS)
    received = b""
    while received.count(b"\n") < SLOW_REPLIES:
        received += session.process.stdout.read(97) or b""
        time.sleep(0)
    assert received.count(b'"ok":true') == SLOW_REPLIES, received
    session.close()


def write_in_pieces(session, owner):
    for place in range(len(STATUS)):
        session.send_line(STATUS[place:place + 1])
    assert session.read_reply()["ok"]
    session.shut_down()
    session.close()


def kill_helper(session, owner):
    session.process.kill()
    session.close()


def leave(*steps):
    def ending(session, owner):
        for step in steps:
            step(session, owner)
        session.close()
    return ending


def send(line):
    return lambda session, owner: session.send_line(line)


def stop_by(name):
    return lambda session, owner: session.process.send_signal(getattr(signal, name))


# What a session is like from the moment its fans are held, and its exit status.
COURSES = {
    "shut down": (leave(lambda session, owner: session.shut_down()), 0),
    "input closed": (leave(), 0),
    "half a line": (leave(send(STATUS[:9])), 0),
    "half a line and the owner's death": (
        leave(send(STATUS[:9]), lambda session, owner: owner.kill()), 0),
    "half a line and a signal": (leave(send(STATUS[:9]), stop_by("SIGTERM")), 0),
    "replies nobody reads": (leave(*[send(STATUS)] * 20), 0),
    "a line too long": (leave(send(b"x" * 20000)), 1),
    "slow reader": (read_slowly, 0),
    "slow writer": (write_in_pieces, 0),
    "killed": (kill_helper, -signal.SIGKILL),
}


@needs_root
class ManySessionsTest(unittest.TestCase):
    def one_session(self, mac, course):
        end, status = COURSES[course]
        with Owner() as owner:
            session = session_on(mac, owner)
            self.assertEqual(session.exchange(PROFILE)["message"], CONFIRMED, course)
            end(session, owner)
            self.assertEqual(session.process.returncode, status, course)
            errors = session.process.stderr.read().decode()
            session.process.stderr.close()
            self.assertEqual(errors, "控制消息过长\n" if status == 1 else "", course)
        self.assertTrue(eventually(mac.automatic, 2), (course, mac.journal()[-20:]))

    def test_one_after_the_other_leaves_nothing_behind(self):
        dice = random.Random(SESSIONS)
        courses = sorted(COURSES)
        dice.shuffle(courses)
        with tempfile.TemporaryDirectory() as temporary, Mac(MACHINE) as mac:
            os.environ["TMPDIR"] = temporary
            files = files_below(os.path.dirname(mac.path))
            descriptors = len(os.listdir("/proc/self/fd"))
            for number in range(SESSIONS):
                self.one_session(mac, courses[number % len(courses)])
            # A killed helper's guardian may still be ending its last command.
            self.assertTrue(eventually(lambda: not processes_attached(mac.path), 5),
                            processes_attached(mac.path))
            self.assertEqual(files_below(os.path.dirname(mac.path)), files)
            self.assertEqual(os.listdir(temporary), [])
            self.assertEqual(len(os.listdir("/proc/self/fd")), descriptors)
            print(f"{SESSIONS} sessions, {len(mac.journal())} lines in the journal")


if __name__ == "__main__":
    unittest.main()
