"""Everything that may befall the helper, at random. The judge knows the machine, the processes and
the files, and nothing of what the helper is."""

import collections
import ctypes
import json
import os
import random
import signal
import subprocess
import tempfile
import time
import unittest
import uuid

from simulated import (CURVE, MANAGED, PLAN, STOPS, Mac, Owner, ProcessFigures, end, eventually,
                       lease, needs_root, processes_attached, session_on, uses_sanitizer)
from control_client import SessionError

SECONDS = float(os.environ.get("FEROVANE_ATTACK_SECONDS", "15"))
CUTS = int(os.environ.get("FEROVANE_POWER_CUTS", "12"))
SEED = int(os.environ.get("FEROVANE_ATTACK_SEED", time.time_ns() % 10**6))
MODELS = ("MacBookPro11,4", "MacBookPro16,1", "iMac18,3", "MacPro7,1", "M1Pro", "M4Max", "M5Pro")
CODES = ("0x80", "0x82", "0x84", "0x86", "0xE00002BC")
UNRETURNED = "恢复自动风扇失败"
GUARDED_SECONDS = 5  # a guardian hands back at once, on a machine that is not very busy
END_SECONDS = 30  # a lease has 12 to hand its fans back, a tool 6 to end
GROWTH_KIB = 256  # of anonymous memory, after the first fifth of a conversation
PROFILE = {"command": "profile", "profile": "custom", "curve": CURVE}
REQUESTS = (
    PROFILE, PROFILE, {"command": "test-fans"}, {"command": "auto"}, {"command": "status"},
    {"command": "hello"}, {"command": "turbo-disable"}, {"command": "turbo-enable"},
    *({"command": "profile", "profile": name} for name in ("quiet", "balanced", "performance")),
    *({"command": "power-optimize", "powerPlan": {"source": source, "scope": "current",
       "lowPower": low, "displayMinutes": 5, "disableTurbo": False}}
      for source in ("ac", "battery") for low in (False, True)),
)
GARBAGE = (b"\n", b"{}\n", b"\xff\xfe\n", b"[" * 5000 + b"\n", b'{"command":"status","duration":0}\n',
           b'{"command":"profile","profile":"custom"}\n', b'{"command":"fly"}\n')
DEATHS = (signal.SIGABRT, signal.SIGSEGV, signal.SIGQUIT, signal.SIGBUS, signal.SIGALRM)
TGKILL = ctypes.CDLL(None).tgkill


def line(request):
    return json.dumps(request).encode() + b"\n"


class Attack:
    """One helper's life on one machine. Every deed is remembered, for whoever reads a failure."""

    def __init__(self, dice, mac, owner):
        self.dice, self.mac, self.owner = dice, mac, owner
        self.fans = len(mac.fans())
        self.deeds = []
        session = str(uuid.UUID(int=dice.getrandbits(128)))
        self.stop_file = "/tmp/ferovane-stop-" + session.upper()
        if dice.random() < 0.4:
            self.deeds.append(dice.choice(("cooling", "profile", "test-fan")))
            self.process = mac.start(*lease(self.deeds[0], owner, session), stdin=subprocess.PIPE)
            self.session = None
        else:
            self.session = session_on(mac, owner)
            self.process = self.session.process

    def run(self):
        if self.dice.random() < 0.3:  # it ends while it starts, or soon after
            if self.session:
                self.send(line(PROFILE))
            time.sleep(self.dice.uniform(0, self.dice.choice((0.003, 0.06))))
            return self.note(self.end)
        for _ in range(self.dice.randrange(1, 9)):
            deed = self.dice.choice((self.ask, self.ask, self.ask, self.fault, self.fault,
                                     self.rival, self.world, self.wait, self.wait, self.freeze))
            deed()
        self.mac.fault("clear")
        self.note(self.end)

    def note(self, deed):
        self.deeds.append(f"{deed.__name__} {deed() or ''}")

    def send(self, data):
        self.deeds.append(data[:60])
        try:
            self.session.send_line(data)
        except (SessionError, OSError):
            pass  # it has ended already

    def ask(self):
        if self.session:
            burst = [line(self.dice.choice(REQUESTS)) for _ in range(self.dice.randrange(1, 4))]
            self.send(self.dice.choice(GARBAGE) if self.dice.random() < 0.2 else b"".join(burst))

    def key(self):
        return f"key=F{self.dice.randrange(self.fans)}{self.dice.choice(('Md', 'Tg', 'Ac', 'Mn'))}"

    def befall(self, *words):
        self.deeds.append(words)
        self.mac.fault(*words)

    def fault(self):
        code = f"code={self.dice.choice(CODES)}"
        words = self.dice.choice((
            ("refuse-write", self.key(), code), ("refuse-read", self.key(), code),
            ("refuse-call", code), ("ignore-write", self.key()), ("garbage", self.key()),
            ("delay-write", self.key(), "seconds=0.3"), ("zero", self.key()), ("garbage",),
            ("freeze", self.key()), ("key-size", self.key(), "size=2"), ("zero",),
            ("refuse-open", "code=0xE00002C1"), ("tool-fails", "code=1", "text=no"),
            ("tool-garbage",), ("tool-no-effect",), ("tool-ignores-sigterm", "tool=kmutil")))
        self.befall(*words, *self.dice.choice((["times=1"], ["times=3"], ["in=0.5"], [])))

    def rival(self):
        fan = f"fan={self.dice.randrange(self.fans)}"
        self.befall(*self.dice.choice((
            ("take-fan", fan), ("release-fan", fan), ("drift-target", fan, "rpm=-80"),
            ("keep-target", fan, "rpm=2500", "seconds=0.5"), ("vanish-fan", fan))))

    def world(self):
        self.befall(*self.dice.choice((
            ("set", "property=load", f"value={self.dice.randrange(101)}"),
            ("set", "property=ac", f"value={self.dice.randrange(2)}"),
            ("sleep", f"seconds={self.dice.choice((1, 60, 3600))}"))))

    def wait(self):
        seconds = self.dice.uniform(0, 0.6)
        self.deeds.append(f"{seconds:.2f} s")
        time.sleep(seconds)

    def freeze(self):
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGSTOP)
            self.wait()
            self.process.send_signal(signal.SIGCONT)

    def end(self):
        kind = self.dice.choice(("kill", "crash", "owner", "stop", "input"))
        self.dies = kind in ("kill", "crash")
        if kind == "owner":
            self.owner.kill()
        elif kind == "input" and self.session:
            self.process.stdin.close()
        elif kind == "input":
            os.symlink("/nonexistent", self.stop_file)
        elif kind == "crash" and self.process.poll() is None:  # in whichever thread
            thread = self.dice.choice(os.listdir(f"/proc/{self.process.pid}/task"))
            TGKILL(self.process.pid, int(thread), self.dice.choice(DEATHS))
        elif self.process.poll() is None:
            self.process.send_signal(signal.SIGKILL if kind == "kill" else self.dice.choice(STOPS))
        return kind

    def said(self):
        """What the helper said until its end."""
        self.process.wait(END_SECONDS)
        os.set_blocking(self.process.stdout.fileno(), True)
        texts = [pipe.read() or "" for pipe in (self.process.stdout, self.process.stderr)]
        for pipe in (self.process.stdin, self.process.stdout, self.process.stderr):
            pipe.close()
        return "".join(text if isinstance(text, str) else text.decode() for text in texts)


def ours(state):
    """The fans that are neither the system's nor another program's."""
    return [fan["id"] for fan in state["fans"]
            if fan["manual"] and fan["holder"] not in ("system", "other program")]


def settings(mac):
    """The two settings of the plan on AC power, and whether the driver is loaded."""
    report = subprocess.run([os.path.join(mac.path, "root/usr/bin/pmset"), "-g", "custom"],
                            env=mac.environment(), capture_output=True, text=True).stdout
    section = report.split("AC Power:")[1].split("Power:")[0]
    rows = dict(row.split()[:2] for row in section.splitlines() if len(row.split()) >= 2)
    return rows.get("displaysleep"), rows.get("sleep"), mac.state()["extensionLoaded"]


@needs_root
class AttackerTest(unittest.TestCase):
    def setUp(self):
        temporary = tempfile.TemporaryDirectory()
        self.addCleanup(temporary.cleanup)
        self.temporary = os.environ["TMPDIR"] = temporary.name
        self.addCleanup(os.environ.pop, "TMPDIR")

    def judge(self, attack, told):
        mac = attack.mac
        if os.path.lexists(attack.stop_file):
            os.unlink(attack.stop_file)
        story = f"\n{attack.deeds}\n{told}\n" + "\n".join(mac.journal()[-30:])
        if attack.dies:
            self.assertTrue(eventually(lambda: not ours(mac.state()), GUARDED_SECONDS), story)
        else:  # a signal may come before it is waited for, but not after a fan is taken
            statuses = (0, 1) if mac.writes() else (0, 1, *(-stop for stop in STOPS))
            self.assertIn(attack.process.returncode, statuses, story)
        self.assertTrue(eventually(lambda: not processes_attached(mac), END_SECONDS), story)
        if UNRETURNED not in told:
            self.assertEqual(ours(mac.state()), [], story)
        self.assertEqual(os.listdir(self.temporary), [], story)
        mac.run("auto")
        if mac.model != "M5Pro":  # whose mode nobody can tell
            self.assertTrue(mac.automatic(), story)

    def test_whatever_befalls_it_the_fans_are_handed_back(self):
        until = time.monotonic() + SECONDS
        lives = 0
        while lives == 0 or time.monotonic() < until:
            dice = random.Random(f"{SEED} {lives}")
            with self.subTest(seed=SEED, life=lives), Owner() as owner, \
                    Mac(dice.choice(MODELS), "load=60", "speed=20", "ac=1") as mac:
                attack = Attack(dice, mac, owner)
                attack.run()
                self.judge(attack, attack.said())
            lives += 1
        print(f"{lives} lives, FEROVANE_ATTACK_SEED={SEED}")

    def converse(self, model, seconds):
        """Requests as fast as they are answered. One that names an unknown member twice is refused
        by that name, so a number in it shows which request was answered."""
        dice = random.Random(SEED)
        figures, failed = [], collections.Counter()
        with Owner(seconds + 600) as owner, Mac(model, "load=60", "speed=20") as mac:
            session = session_on(mac, owner)
            until = time.monotonic() + seconds
            while time.monotonic() < until or len(figures) < 10:
                names = [f"n{dice.getrandbits(40)}" for _ in range(dice.randrange(1, 33))]
                request = dice.choice(REQUESTS[:6])
                session.send_line("".join(f'{{"command":"status","{name}":1,"{name}":2}}\n'
                                          for name in names).encode() + line(request))
                for name in names:
                    self.assertEqual(session.read_reply(), {
                        "ok": False, "message": f"JSON 成员 {name} 重复出现"}, SEED)
                reply = session.read_reply()
                if not reply["ok"]:
                    failed[reply["message"]] += 1
                elif request["command"] in ("profile", "test-fans"):
                    self.assertTrue(mac.held(), (SEED, mac.journal()[-30:]))
                    self.assertEqual(session.exchange({"command": "auto"})["message"], MANAGED)
                    self.assertTrue(mac.automatic(), (SEED, mac.journal()[-30:]))
                    figures.append(ProcessFigures(session.process.pid))
            sanitized = uses_sanitizer(session.process.pid)
            self.assertEqual(session.shut_down()["message"], MANAGED)
            self.assertEqual(session.process.stderr.read(), b"")
            self.assertEqual(end(session), 0)
            self.assertTrue(eventually(lambda: not processes_attached(mac)))
        self.assertEqual(failed, {})
        settled = figures[len(figures) // 5:]
        for name in ("descriptors", "threads", "children"):
            self.assertEqual(len({getattr(figure, name) for figure in settled}), 1, name)
        if not sanitized:
            self.assertLess(settled[-1].anonymous - settled[0].anonymous, GROWTH_KIB)

    def test_a_long_conversation_is_answered_in_order_and_costs_nothing(self):
        for model in ("iMac18,3", "M1Pro"):
            with self.subTest(model):
                self.converse(model, SECONDS / 4)

    def cut(self, dice, cause, hanging):
        with Owner() as owner, Mac("MacBookPro16,1", "ac=1", "ac:displaysleep=20", "ac:sleep=30",
                                   "extension-approval=approved") as mac:
            before = settings(mac)
            session = session_on(mac, owner)
            session.request("hello")
            if hanging:
                mac.fault("tool-hangs", "tool=kmutil")
            session.send_line(line({"command": "power-optimize", "powerPlan": PLAN}))
            time.sleep(dice.uniform(0, 0.6))
            {"SIGTERM": session.process.terminate, "owner": owner.kill,
             "hang-up": session.process.stdin.close, "SIGKILL": session.process.kill}[cause]()
            session.process.wait(20)
            reply = session.process.stdout.read() or b""
            self.assertTrue(eventually(lambda: not processes_attached(mac)))
            self.assertTrue(mac.automatic())
            if cause != "SIGKILL" and b'"backup"' not in reply:
                self.assertEqual(settings(mac), before, reply)
            end(session)

    def test_a_power_plan_that_is_cut_in_is_put_back_or_recorded(self):
        dice = random.Random(SEED)
        for number in range(CUTS):
            cause = ("SIGTERM", "owner", "hang-up", "SIGKILL")[number % 4]
            with self.subTest(cause=cause, number=number, seed=SEED):
                self.cut(dice, cause, hanging=number % 8 >= 4)


if __name__ == "__main__":
    unittest.main()
