import concurrent.futures
import contextlib
import ctypes
import itertools
import json
import os
import resource
import signal
import subprocess
import unittest
import uuid
from types import SimpleNamespace

from conversation import CONFIRMED, CURVE
from guardian_test import AUTOMATIC_SECONDS, guardians_of
from process_figures import address_space, children_of, is_running, uses_sanitizer
from session_process_test import session_on
from control_client import SessionError
from simulated import OWNER_UID, Mac, Owner, eventually, needs_root

LIBC = ctypes.CDLL(None, use_errno=True)
AT_ONCE = 4  # cases, which mostly wait
SIGNALS = itertools.cycle(("SIGABRT", "SIGSEGV", "SIGQUIT", "SIGBUS"))
THREADS = ("main", "guardian", "watchdog", "lease")  # in the order in which a session starts them
PROFILE = {"command": "profile", "profile": "custom", "curve": CURVE}
SWITCHING_WRITES = 4  # a mode and a target for each of two fans
TOO_LARGE = [{"command": "turbo-disable"}, {"command": "status", "padding": "x" * 15000}]
UNDER_LIMIT = ({"command": "status"}, *TOO_LARGE, PROFILE, {"command": "test-fans"},
               {"command": "auto"}, {"command": "status"}, PROFILE)

# What a running helper is left with, and how it may end. Short of memory it refuses what needs some
# and goes on; but the stand-ins for a Mac's kernel need memory themselves, and fail by ending it.
# Without descriptors it cannot wait for a request, nor learn here whether its owner lives.
SHORT_OF_MEMORY = (0, -signal.SIGABRT)
LIMITS = {
    "AS": (lambda pid: address_space(pid) - 1, SHORT_OF_MEMORY),  # in bytes: not one page more
    "DATA": (lambda pid: 0, SHORT_OF_MEMORY),
    "NOFILE": (lambda pid: 0, (0, 1)),
}


def line(request):
    return json.dumps(request).encode() + b"\n"


class Case:
    """A session of its own on a Mac with two fans, in some state. Every write is read back for
    50 ms, which leaves time to strike before the next."""

    def __init__(self, owner):
        self.mac = Mac("MacBookPro16,1")
        self.session = session_on(self.mac, owner)
        self.pid = self.session.process.pid

    def send(self, **request):
        self.session.send_line(line(request))

    def written(self, count):
        return eventually(lambda: len(self.mac.writes()) >= count)

    def switching(self):
        self.send(**PROFILE)
        return self.written(2)

    def holding(self):
        return self.session.exchange(PROFILE)["message"] == CONFIRMED

    def adjusting(self):
        held = self.holding()
        self.mac.set("load=100", "speed=20")
        return held and self.written(SWITCHING_WRITES + 1)

    def restoring(self):
        held = self.holding()
        self.send(command="auto")
        return held and self.written(SWITCHING_WRITES + 1)

    def running_a_tool(self):
        held = self.holding()
        self.mac.fault("tool-ignores-sigterm", "tool=kmutil")
        self.send(command="turbo-disable")
        return held and eventually(lambda: len(children_of(self.pid)) == 2)

    def crash(self, thread, signal_name):
        threads = sorted(map(int, os.listdir(f"/proc/{self.pid}/task")))
        index = THREADS.index(thread)
        struck = threads[index if index < len(threads) else 0]  # the lease may have ended
        if LIBC.tgkill(self.pid, struck, getattr(signal, signal_name)) != 0:
            raise OSError(ctypes.get_errno(), thread)

    def close(self):
        self.session.close()
        self.session.process.stderr.close()
        self.mac.__exit__()


@needs_root
class CrashTest(unittest.TestCase):
    def crash(self, case, state, thread, signal_name):
        others = set()
        try:
            self.assertTrue(getattr(case, state)(), case.mac.journal())
            others = set(children_of(case.pid)) - set(guardians_of(case.pid))
            case.crash(thread, signal_name)
            self.assertNotEqual(case.session.process.wait(20), 0)
            self.assertTrue(eventually(case.mac.automatic, AUTOMATIC_SECONDS), case.mac.journal())
        finally:
            for tool in others:
                os.kill(tool, signal.SIGKILL)  # nobody is left to end one that hangs
            case.close()

    def test_every_thread_may_end_the_helper_in_every_state(self):
        states = ("switching", "holding", "adjusting", "restoring", "running_a_tool")
        with Owner() as owner, concurrent.futures.ThreadPoolExecutor(AT_ONCE) as pool:
            # All are started before the first thread: Python may not fork safely beside one.
            cases = [(Case(owner), state, thread, next(SIGNALS))
                     for state in states for thread in THREADS]
            running = [(words, pool.submit(self.crash, case, *words)) for case, *words in cases]
            for words, outcome in running:
                with self.subTest(words):
                    outcome.result()

    def test_the_helper_and_its_owner_are_killed_together(self):
        for in_session in (False, True):
            with self.subTest(in_session=in_session), Mac("MacPro7,1") as mac:
                owner = subprocess.Popen(["sleep", "600"], user=OWNER_UID, preexec_fn=os.setpgrp)
                join = lambda: os.setpgid(0, owner.pid)
                words = (owner.pid, OWNER_UID)
                if in_session:
                    session = session_on(mac, SimpleNamespace(words=words), before=join)
                    session.send_line(line(PROFILE))
                    helper = session.process
                else:
                    helper = mac.start("cooling", *words, uuid.uuid4(), preexec_fn=join)
                self.assertTrue(eventually(mac.held))
                os.killpg(owner.pid, signal.SIGKILL)
                self.assertEqual((owner.wait(), helper.wait()), (-signal.SIGKILL,) * 2)
                self.assertTrue(eventually(mac.automatic, AUTOMATIC_SECONDS), mac.journal())
                for stream in (helper.stdin, helper.stdout, helper.stderr):
                    if stream:
                        stream.close()

    def test_a_limit_that_is_hit_while_fans_are_held(self):
        for name, (limit, statuses) in LIMITS.items():
            # Only a process whose every user id is the caller's own may be limited from outside.
            myself = SimpleNamespace(words=(os.getpid(), os.getuid()))
            with self.subTest(name), Mac("iMac18,3") as mac:
                session = session_on(mac, myself)
                self.assertEqual(session.exchange(PROFILE)["message"], CONFIRMED)
                pid = session.process.pid
                (guardian,) = guardians_of(pid)
                sanitized = uses_sanitizer(pid)
                resource.prlimit(pid, getattr(resource, "RLIMIT_" + name), (limit(pid),) * 2)
                refused = self.ask_under_limit(session, mac)
                session.close()
                self.assertTrue(eventually(mac.automatic, AUTOMATIC_SECONDS), mac.journal())
                self.assertTrue(eventually(lambda: not is_running(guardian)))
                session.process.stderr.close()
                status = session.process.returncode
                if not sanitized:  # their own memory runs out first, which ends them
                    self.assertIn(status, statuses)
                    if statuses is SHORT_OF_MEMORY and status == 0:
                        self.assertEqual([r for r in TOO_LARGE if r not in refused], [])

    def ask_under_limit(self, session, mac):
        """Requests that need threads, tools and room; returns those that were refused."""
        refused = []
        mac.fault("tool-megabyte")
        with contextlib.suppress(SessionError):
            for request in UNDER_LIMIT:
                reply = session.exchange(request, 30)
                if not reply["ok"]:
                    refused.append(request)
                elif request is PROFILE:
                    self.assertTrue(mac.held(), mac.journal())
                elif request["command"] == "auto":
                    self.assertTrue(mac.automatic(), mac.journal())
        return refused


if __name__ == "__main__":
    unittest.main()
