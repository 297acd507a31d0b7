"""The guardian, judged by the machine and the list of processes."""

import concurrent.futures
import json
import os
import random
import shutil
import signal
import statistics
import subprocess
import tempfile
import time
import unittest
import uuid

from simulated import (BIN, CONFIRMED, CURVE, HELPER, OWNER_UID, Mac, Owner, ProcessFigures,
                       children_of, end, eventually, finish, lease, needs_root,
                       processes_attached, processes_with, session_on, uses_sanitizer, wake_ups)

KILLS = int(os.environ.get("FEROVANE_KILLS", "24"))
STOP_SECONDS = float(os.environ.get("FEROVANE_STOP_SECONDS", "5.5"))  # a fan test takes five
AT_ONCE = 3  # cases, which mostly wait
AUTOMATIC_SECONDS = 2.0
REPLACED_SECONDS = 0.25  # far more than a replacement takes, but the machine may be busy
LEASE_ENDS_SECONDS = 5.0  # a round, and the hand-back
GIVES_UP_SECONDS = 60  # it tries for some 25
PRIVATE_KIB = 600
RETURNED = "辅助进程意外结束，风扇已恢复系统自动"
NOT_RETURNED = "辅助进程意外结束，恢复自动风扇失败；请重新启动电脑以恢复系统自动。"
LOST = "风扇守护进程意外结束且无法重新启动，已停止风扇控制"
MACHINES = {"MacBookPro11,4": 30, "MacBookPro16,1": 30, "iMac18,3": 30, "MacPro7,1": 30,
            "M1Pro": 60, "M4Max": 70}
KINDS = ("cooling", "profile", "serve")
DEEDS = {  # to the helper's file, while it runs
    "nothing": lambda file: None,
    "removed": os.unlink,
    "renamed": lambda file: os.rename(file, file + "-old"),
    "replaced": lambda file: (shutil.copy("/bin/true", file + "-new"),
                              os.rename(file + "-new", file)),
}
USER_SIGNALS = ("TERM", "INT", "HUP", "QUIT", "PIPE", "TSTP", "TTIN", "TTOU", "USR1", "USR2",
                "ALRM", "XCPU", "XFSZ")


def guardians_of(helper_pid):
    """Children of a process that have a session of their own."""
    try:
        return [pid for pid in children_of(helper_pid) if os.getsid(pid) == pid]
    except (FileNotFoundError, ProcessLookupError):
        return []  # one has just ended


def named(name):
    """What a command finds that looks for a name, or for a part of a command line."""
    return processes_with(["comm", "cmdline"], name)


class Case:
    """A helper with a file of its own, in a lease on a machine of its own."""

    def __init__(self, model, kind, owner):
        self.mac = Mac(model, f"load={MACHINES[model]}", "speed=20")
        self._folder = tempfile.TemporaryDirectory(dir=BIN.parent, prefix="own-helper-")
        self.name = f"fh{uuid.uuid4().hex[:12]}"  # as long as the system keeps names
        self.file = os.path.join(self._folder.name, self.name)
        os.link(HELPER, self.file)
        self.helper = subprocess.Popen(
            [self.file, *map(str, lease(kind, owner))], env=self.mac.environment(),
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
            preexec_fn=lambda: os.setresuid(OWNER_UID, 0, 0))
        if kind == "serve":
            for request in ({"command": "test-fans"}, {"command": "profile", "profile": "custom",
                                                       "curve": CURVE}):
                self.helper.stdin.write(json.dumps(request) + "\n")
            self.helper.stdin.flush()

    def kill_guardian(self):
        """Returns how many there were."""
        guardians = guardians_of(self.helper.pid)
        for guardian in guardians:
            os.kill(guardian, signal.SIGKILL)
        return len(guardians)

    def kill_helper(self, by_name):
        for pid in named(self.name) if by_name else [self.helper.pid]:
            os.kill(pid, signal.SIGKILL)
        self.helper.wait()

    def judge(self):
        """What is wrong after the helper's death, as a text, and how long the fans were held."""
        began = time.monotonic()
        automatic = eventually(self.mac.automatic, GIVES_UP_SECONDS / 2)
        took = time.monotonic() - began
        if not automatic or took > AUTOMATIC_SECONDS:
            return f"held for {took:.1f} s: {self.mac.journal()[-20:]}", took
        if not eventually(lambda: not processes_attached(self.mac), AUTOMATIC_SECONDS):
            return f"left over: {processes_attached(self.mac)}", took
        return "", took

    def close(self):
        self.helper.kill()
        self.helper.communicate()
        self._folder.cleanup()
        self.mac.__exit__()


def attack(seed):
    """Kills and deeds at random moments. What is wrong, guardians killed, seconds of held fans."""
    dice = random.Random(seed)
    model, kind = dice.choice(sorted(MACHINES)), dice.choice(KINDS)
    deed = dice.choice(sorted(DEEDS))
    killed = 0
    with Owner() as owner:
        case = Case(model, kind, owner)
        try:
            time.sleep(dice.uniform(0, 1.2))
            if dice.random() < 0.75:
                killed += case.kill_guardian()
                for _ in range(dice.choice((0, 0, 3))):
                    time.sleep(dice.uniform(0, 0.02))
                    killed += case.kill_guardian()  # its successors, while they start
                time.sleep(dice.uniform(REPLACED_SECONDS, 2.5))
            DEEDS[deed](case.file)
            if dice.random() < 0.25:
                killed += case.kill_guardian()  # and there may be no other
                time.sleep(dice.uniform(LEASE_ENDS_SECONDS, LEASE_ENDS_SECONDS + 1))
            if dice.random() < 0.3:
                owner.kill()
            case.kill_helper(by_name=dice.random() < 0.5)
            wrong, took = case.judge()
        finally:
            case.close()
    return wrong and f"seed {seed}, {model}, {kind}, file {deed}: {wrong}", killed, took


@needs_root
class GuardianTest(unittest.TestCase):
    def test_whoever_is_killed_at_whatever_moment_the_fans_are_automatic(self):
        first = int(os.environ.get("FEROVANE_SEED", random.randrange(1 << 30)))
        print(f"FEROVANE_SEED={first}", flush=True)
        with concurrent.futures.ProcessPoolExecutor(AT_ONCE) as pool:
            wrong, killed, took = zip(*pool.map(attack, range(first, first + KILLS)))
        print(f"{KILLS} helpers and {sum(killed)} guardians killed; fans held for "
              f"{statistics.median(took):.2f} s, at most {max(took):.2f} s")
        self.assertEqual([text for text in wrong if text], [])

    def test_without_a_guardian_the_lease_ends_and_says_so(self):
        with Owner() as owner:
            for kind in KINDS:
                with self.subTest(kind):
                    case = Case("MacBookPro16,1", kind, owner)
                    self.assertTrue(eventually(case.mac.held))
                    os.unlink(case.file)
                    case.kill_guardian()
                    self.assertTrue(eventually(case.mac.automatic, LEASE_ENDS_SECONDS))
                    if kind != "serve":
                        self.assertEqual(finish(case.helper)[::2], (1, LOST + "\n"))
                    case.close()

    def test_a_guardian_that_starts_when_the_helper_is_killed_hands_back(self):
        with Owner() as owner:
            case = Case("M1Pro", "cooling", owner)
            self.assertTrue(eventually(case.mac.held))
            (lost,) = guardians_of(case.helper.pid)
            os.kill(lost, signal.SIGKILL)
            successors = lambda: [pid for pid in guardians_of(case.helper.pid) if pid != lost]
            while not successors():
                pass  # it is to be met before it stands
            (successor,) = successors()
            os.kill(successor, signal.SIGSTOP)
            case.kill_helper(by_name=False)
            os.kill(successor, signal.SIGCONT)
            self.assertEqual(case.judge()[0], "")
            case.close()

    def test_stands_apart_from_the_helper_and_its_user(self):
        with Owner() as owner:
            case = Case("M1Pro", "serve", owner)
            self.assertTrue(eventually(case.mac.held))
            (guardian,) = guardians_of(case.helper.pid)
            links = [os.readlink(f"/proc/{guardian}/fd/{fd}")
                     for fd in os.listdir(f"/proc/{guardian}/fd")]
            self.assertEqual([link.split(":")[0] for link in sorted(links)],
                             ["/dev/null", "/dev/null", "socket"])
            self.assertEqual(processes_with(["status"], "\nUid:\t0\t0\t0\t0\n").count(guardian), 1)
            self.assertEqual(named(case.name), [case.helper.pid])
            as_user = lambda pid: subprocess.run(["kill", "-KILL", str(pid)], user=OWNER_UID,
                                                 stderr=subprocess.DEVNULL).returncode
            self.assertNotEqual(as_user(guardian), 0)
            for name in USER_SIGNALS:
                os.kill(guardian, getattr(signal, "SIG" + name))
            self.assertEqual(as_user(case.helper.pid), 0)
            case.helper.wait()
            self.assertEqual(case.judge()[0], "")
            case.close()

    def test_a_stop_longer_than_the_lease_is_no_death_and_the_guardian_sleeps_through_it(self):
        with Mac("MacBookPro16,1") as mac, Mac("M1Pro") as other_mac, Owner() as owner:
            session, other = session_on(mac, owner), session_on(other_mac, owner)
            other.request("profile", profile="custom", curve=CURVE)
            self.assertEqual(session.request("test-fans")["message"], CONFIRMED)
            (guardian,) = guardians_of(session.process.pid)
            session.process.send_signal(signal.SIGSTOP)
            before = wake_ups(guardian)
            time.sleep(STOP_SECONDS)
            self.assertTrue(mac.held(), "a stopped helper still holds its fans")
            self.assertEqual(wake_ups(guardian), before)
            private = ProcessFigures(guardian).private
            print(f"guardian: private {private} KiB")
            if not uses_sanitizer(guardian):
                self.assertLess(private, PRIVATE_KIB)
            session.process.send_signal(signal.SIGCONT)
            self.assertTrue(eventually(mac.automatic, AUTOMATIC_SECONDS), mac.journal())
            session.request("profile", profile="custom", curve=CURVE)
            self.assertEqual(guardians_of(session.process.pid), [guardian])
            session.process.kill()
            session.process.wait()
            self.assertTrue(eventually(mac.automatic, AUTOMATIC_SECONDS))
            self.assertTrue(other_mac.held(), "the fans of another helper")
            for each in (session, other):
                end(each)
            self.assertTrue(other_mac.automatic())
            self.assertEqual(processes_attached(other_mac), [])

    def test_a_hand_back_that_fails_is_tried_again_and_then_told_to_the_system_log(self):
        for times in (["times=2"], []):
            with Owner() as owner:
                case = Case("MacBookPro16,1", "cooling", owner)
                self.assertTrue(eventually(case.mac.held))
                case.mac.fault("refuse-write", "key=F1Md", "code=0x80", *times)
                case.kill_helper(by_name=False)
                self.assertTrue(eventually(lambda: len(case.mac.log()) > 1, GIVES_UP_SECONDS))
                self.assertEqual(case.mac.log()[1], RETURNED if times else NOT_RETURNED)
                self.assertEqual(case.mac.automatic(), bool(times))
                case.close()


if __name__ == "__main__":
    unittest.main()
