import os
import random
import signal
import socket
import subprocess
import time
import unittest
import uuid

from conversation import CONFIRMED
from process_figures import ProcessFigures, wake_ups
from simulated import OWNER_UID, Mac, Owner, eventually, needs_root
from session_process_test import CURVE, session_on

KILLS = int(os.environ.get("FEROVANE_KILLS", "60"))
AUTOMATIC_SECONDS = 2.0
GIVES_UP_SECONDS = 60  # it tries for some 25
SYSTEM_LOG = "/dev/log"
STOP_SECONDS = float(os.environ.get("FEROVANE_STOP_SECONDS", "5.5"))  # a fan test takes five
MACHINES = {"MacBookPro11,4": 30, "MacBookPro16,1": 30, "iMac18,3": 30, "MacPro7,1": 30,
            "M1Pro": 60, "M4Max": 70}


def guardians_of(helper_pid):
    """Children of a process that have a session of their own."""
    listed = subprocess.run(["ps", "-eo", "pid=,ppid=,sid="], capture_output=True, text=True,
                            check=True).stdout
    rows = [tuple(map(int, line.split())) for line in listed.splitlines()]
    return [pid for pid, parent, session in rows if parent == helper_pid and session == pid]


@needs_root
class GuardianTest(unittest.TestCase):
    def start_lease(self, mac, owner, kind):
        if kind == "session":
            session = session_on(mac, owner)
            session.send_line(b'{"command":"test-fans"}\n')
            session.send_line(b'{"command":"profile","profile":"performance"}\n')
            return session.process
        words = [kind, *owner.words, str(uuid.uuid4())]
        return mac.start(*words, *(["balanced", "-"] if kind == "profile" else []))

    def close(self, process):
        for stream in (process.stdin, process.stdout, process.stderr):
            if stream:
                stream.close()

    def test_a_helper_killed_at_any_moment_leaves_the_fans_automatic(self):
        dice = random.Random(4096)
        for kill in range(KILLS):
            model = dice.choice(sorted(MACHINES))
            kind = dice.choice(["cooling", "profile", "session"])
            with self.subTest(kill=kill, model=model, kind=kind), Mac(model) as mac, \
                    Owner() as owner:
                mac.set(f"load={MACHINES[model]}", "speed=20")
                helper = self.start_lease(mac, owner, kind)
                time.sleep(dice.uniform(0, 1.2))
                helper.kill()
                if dice.random() < 0.3:
                    owner.kill()
                helper.wait()
                began = time.monotonic()
                self.assertTrue(eventually(mac.automatic, 20), mac.journal()[-20:])
                self.assertLess(time.monotonic() - began, AUTOMATIC_SECONDS)
                self.close(helper)

    def test_a_crash_is_made_good_and_a_stop_is_no_crash(self):
        for name in ("SIGSEGV", "SIGABRT", "SIGQUIT"):
            with self.subTest(name), Mac("MacBookPro16,1") as mac, Owner() as owner:
                helper = self.start_lease(mac, owner, "cooling")
                self.assertTrue(eventually(mac.held))
                helper.send_signal(signal.SIGSTOP)
                time.sleep(0.5)
                self.assertTrue(mac.held(), "a stopped helper still holds its fans")
                helper.send_signal(getattr(signal, name))
                helper.send_signal(signal.SIGCONT)
                helper.wait()
                self.assertTrue(eventually(mac.automatic, AUTOMATIC_SECONDS))
                self.close(helper)

    def test_each_helper_has_one_guardian_that_ends_with_it(self):
        with Mac("MacBookPro16,1") as mac, Owner() as owner:
            session = session_on(mac, owner)
            session.request("profile", profile="custom", curve=CURVE)
            (guardian,) = guardians_of(session.process.pid)
            links = [os.readlink(f"/proc/{guardian}/fd/{fd}")
                     for fd in os.listdir(f"/proc/{guardian}/fd")]
            self.assertEqual([link.split(":")[0] for link in sorted(links)],
                             ["/dev/null", "/dev/null", "socket"])
            session.close()
            self.assertFalse(os.path.exists(f"/proc/{guardian}"))
            self.assertTrue(mac.automatic())

    def test_the_user_who_may_kill_the_helper_may_not_kill_its_guardian(self):
        with Mac("MacBookPro16,1") as mac, Owner() as owner:
            session = session_on(mac, owner)
            session.request("profile", profile="custom", curve=CURVE)
            (guardian,) = guardians_of(session.process.pid)
            as_user = lambda pid: subprocess.run(["kill", "-KILL", str(pid)], user=OWNER_UID,
                                                 stderr=subprocess.DEVNULL).returncode
            self.assertNotEqual(as_user(guardian), 0)
            self.assertEqual(as_user(session.process.pid), 0)
            session.process.wait()
            self.assertTrue(eventually(mac.automatic, AUTOMATIC_SECONDS), mac.journal()[-20:])
            self.close(session.process)

    def test_a_stop_longer_than_the_lease_is_no_death_and_the_guardian_sleeps_through_it(self):
        with Mac("MacBookPro16,1") as mac, Owner() as owner:
            session = session_on(mac, owner)
            self.assertEqual(session.request("test-fans")["message"], CONFIRMED)
            (guardian,) = guardians_of(session.process.pid)
            session.process.send_signal(signal.SIGSTOP)
            before = wake_ups(guardian)
            time.sleep(STOP_SECONDS)
            self.assertTrue(mac.held(), "a stopped helper still holds its fans")
            self.assertEqual(wake_ups(guardian), before)
            session.process.send_signal(signal.SIGCONT)
            self.assertTrue(eventually(mac.automatic, AUTOMATIC_SECONDS), mac.journal())
            self.assertEqual(session.request("profile", profile="custom", curve=CURVE)["message"],
                             CONFIRMED)
            self.assertEqual(guardians_of(session.process.pid), [guardian])
            figures = ProcessFigures(guardian)
            print(f"guardian: resident {figures.resident} KiB, proportional "
                  f"{figures.proportional}, private {figures.private}")
            session.close()
            self.assertTrue(mac.automatic())
            session.process.stderr.close()

    def test_two_helpers_have_two_guardians(self):
        with Mac("MacBookPro16,1") as first_mac, Mac("M1Pro") as second_mac, Owner() as owner:
            sessions = [session_on(mac, owner) for mac in (first_mac, second_mac)]
            for session in sessions:
                session.request("profile", profile="custom", curve=CURVE)
            guardians = [guardians_of(session.process.pid) for session in sessions]
            self.assertEqual([len(found) for found in guardians], [1, 1])
            sessions[0].process.kill()
            self.assertTrue(eventually(first_mac.automatic, AUTOMATIC_SECONDS))
            self.assertTrue(second_mac.held())
            self.assertEqual(guardians_of(sessions[1].process.pid), guardians[1])
            for session in sessions:
                session.close()
                session.process.stderr.close()
            self.assertTrue(second_mac.automatic())

    def test_a_guardian_that_is_killed_is_replaced_at_the_next_lease(self):
        with Mac("MacBookPro16,1") as mac, Owner() as owner:
            session = session_on(mac, owner)
            session.request("profile", profile="custom", curve=CURVE)
            (first,) = guardians_of(session.process.pid)
            os.kill(first, signal.SIGKILL)
            self.assertEqual(session.request("status")["message"], "控制已确认生效")
            session.request("profile", profile="custom", curve=CURVE)
            self.assertTrue(eventually(
                lambda: [g for g in guardians_of(session.process.pid) if g != first]))
            session.process.kill()
            session.process.wait()
            self.assertTrue(eventually(mac.automatic, AUTOMATIC_SECONDS), mac.journal()[-20:])
            self.close(session.process)

    def test_a_hand_back_that_fails_at_first_is_tried_again(self):
        with Mac("MacBookPro16,1") as mac, Owner() as owner:
            helper = self.start_lease(mac, owner, "cooling")
            self.assertTrue(eventually(mac.held))
            mac.fault("refuse-write", "key=F1Md", "code=0x80", "times=2")
            helper.kill()
            helper.wait()
            self.assertTrue(eventually(mac.automatic, 2 * AUTOMATIC_SECONDS))
            self.close(helper)

    def test_a_hand_back_that_fails_for_good_is_told_to_the_system_log(self):
        log = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        try:
            log.bind(SYSTEM_LOG)
        except OSError:
            self.skipTest("somebody else listens to the system log")
        self.addCleanup(lambda: (log.close(), os.unlink(SYSTEM_LOG)))
        with Mac("MacBookPro16,1") as mac, Owner() as owner:
            helper = self.start_lease(mac, owner, "cooling")
            self.assertTrue(eventually(mac.held))
            mac.fault("refuse-write", "key=F1Md", "code=0x80")
            helper.kill()
            helper.wait()
            log.settimeout(GIVES_UP_SECONDS)
            told = log.recv(4096).decode()
            self.assertIn("FerovaneHelper", told)
            self.assertIn("恢复自动风扇失败", told)
            self.close(helper)


if __name__ == "__main__":
    unittest.main()
