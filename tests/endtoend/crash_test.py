"""Every thread may end the helper in the middle of anything."""

import concurrent.futures
import ctypes
import itertools
import os
import signal
import unittest

from guardian_test import AUTOMATIC_SECONDS
from process_figures import children_of, processes_attached
from simulated import CONFIRMED, CURVE, Mac, Owner, eventually, needs_root, session_on

LIBC = ctypes.CDLL(None, use_errno=True)
AT_ONCE = 4  # cases, which mostly wait
SIGNALS = itertools.cycle(("SIGABRT", "SIGSEGV", "SIGQUIT", "SIGBUS"))
THREADS = ("main", "guardian", "watchdog", "lease")  # in the order in which a session starts them
PROFILE = {"command": "profile", "profile": "custom", "curve": CURVE}
SWITCHING_WRITES = 4  # a mode and a target for each of two fans


class Case:
    """A session of its own on a Mac with two fans, in some state. Every write is read back for
    50 ms, which leaves time to strike before the next."""

    def __init__(self, owner):
        self.mac = Mac("MacBookPro16,1")
        self.session = session_on(self.mac, owner)
        self.pid = self.session.process.pid

    def send(self, request):
        self.session.send_line(b'{"command":"%s"}\n' % request.encode())

    def written(self, count):
        return eventually(lambda: len(self.mac.writes()) >= count)

    def holding(self):
        return self.session.exchange(PROFILE)["message"] == CONFIRMED

    def switching(self):
        self.send("test-fans")
        return self.written(2)

    def adjusting(self):
        held = self.holding()
        self.mac.set("load=100", "speed=20")
        return held and self.written(SWITCHING_WRITES + 1)

    def restoring(self):
        held = self.holding()
        self.send("auto")
        return held and self.written(SWITCHING_WRITES + 1)

    def running_a_tool(self):
        held = self.holding()
        self.mac.fault("tool-ignores-sigterm", "tool=kmutil")
        self.send("turbo-disable")
        return held and eventually(lambda: len(children_of(self.pid)) == 2)

    def crash(self, thread):
        threads = sorted(map(int, os.listdir(f"/proc/{self.pid}/task")))
        index = THREADS.index(thread)
        struck = threads[index if index < len(threads) else 0]  # the lease may have ended
        LIBC.tgkill(self.pid, struck, getattr(signal, next(SIGNALS)))

    def close(self):
        self.session.close()
        self.session.process.stderr.close()
        self.mac.__exit__()


@needs_root
class CrashTest(unittest.TestCase):
    def crash(self, case, state, thread):
        try:
            self.assertTrue(getattr(case, state)(), case.mac.journal())
            case.crash(thread)
            self.assertNotEqual(case.session.process.wait(20), 0)
            self.assertTrue(eventually(case.mac.automatic, AUTOMATIC_SECONDS), case.mac.journal())
            self.assertTrue(eventually(lambda: not processes_attached(case.mac.path),
                                       AUTOMATIC_SECONDS), "a tool outlives the helper")
        finally:
            case.close()

    def test_every_thread_may_end_the_helper_in_every_state(self):
        states = ("switching", "holding", "adjusting", "restoring", "running_a_tool")
        with Owner() as owner, concurrent.futures.ThreadPoolExecutor(AT_ONCE) as pool:
            # All are started before the first thread: Python may not fork safely beside one.
            cases = [(Case(owner), state, thread) for state in states for thread in THREADS]
            running = [(case[1:], pool.submit(self.crash, *case)) for case in cases]
            for words, outcome in running:
                with self.subTest(words):
                    outcome.result()


if __name__ == "__main__":
    unittest.main()
