"""Other programs, faults and changes of the world that befall a simulated Mac again and again."""

import collections
import random
import subprocess
import threading

CODES = ("0x80", "0x82", "0x84", "0x86", "0xE00002BC")
# No pending write may settle after a calm has begun.
LONGEST_DELAY = 0.3
LOAD = "30"
COMMAND_SECONDS = 60.0
LONGEST_PAUSE = 0.25
HANG_SHARE = 0.01  # of the tools' faults; each may cost a minute and a half


class Interference(threading.Thread):
    """Interferes until it ends, except while it is calm. Everything it does is counted by name."""

    def __init__(self, mac, seed, long):
        super().__init__(daemon=True)
        self.mac = mac
        self.long = long
        self.counts = collections.Counter()
        self._dice = random.Random(seed)
        self._fans = len(mac.fans())
        self._may_go_on = threading.Event()
        self._acting = threading.Lock()
        self._ended = False
        self._pause = threading.Event()

    def run(self):
        while not self._ended:
            self._may_go_on.wait()
            with self._acting:
                if self._may_go_on.is_set() and not self._ended:
                    self._interfere()
            self._pause.wait(self._dice.uniform(0, LONGEST_PAUSE))

    def go_on(self):
        self._may_go_on.set()

    def calm(self):
        """From its return on, nothing befalls the machine and every fault is over."""
        self._may_go_on.clear()
        with self._acting:
            self.mac.fault("clear")
            self._pause.wait(LONGEST_DELAY + 0.1)
            if "Ftst" in self.mac.state()["keys"]:
                self.mac.write("Ftst", 0)
            self.mac.set(f"load={LOAD}", "ac=1")

    def end(self):
        self._ended = True
        self.go_on()
        self._pause.set()
        self.join()

    def _interfere(self):
        name = self._dice.choice(("fault", "fault", "fault", "rival", "rival", "world", "tool",
                                  "program"))
        words = getattr(self, "_" + name)()
        self.counts[words[0]] += 1
        if name == "program":
            self.mac.run(*words, timeout=COMMAND_SECONDS)
            return
        try:
            self.mac.fault(*words)
        except subprocess.CalledProcessError:
            self.mac.fault("clear")  # too many were waiting for their moment
            self.counts["clear"] += 1

    def _key(self, kinds=("Md", "Tg", "Ac", "Mn")):
        return f"key=F{self._dice.randrange(self._fans)}{self._dice.choice(kinds)}"

    def _moment(self):
        return self._dice.choice(
            (["times=1"], ["times=3"], ["times=2", f"call={self._dice.randrange(1, 60)}"],
             ["times=1", f"write={self._dice.randrange(1, 9)}"], [f"in={self._dice.uniform(0, 1)}"],
             []))

    def _fault(self):
        kind, *words = self._dice.choice((
            ("refuse-write", self._key(), f"code={self._dice.choice(CODES)}"),
            ("refuse-read", self._key(), f"code={self._dice.choice(CODES)}"),
            ("refuse-read", "key=FNum", "code=0x84"),
            ("refuse-call", f"code={self._dice.choice(CODES)}"),
            ("ignore-write", self._key()),
            ("delay-write", self._key(), f"seconds={self._dice.uniform(0, LONGEST_DELAY)}"),
            ("garbage", self._key()), ("zero", self._key()), ("freeze", self._key()),
            ("key-size", self._key(), f"size={self._dice.choice((0, 2, 300))}"),
            ("output-size", self._key(), f"size={self._dice.choice((0, 79))}"),
            ("refuse-open", "code=0xE00002C1"),
            ("garbage",), ("zero",),  # every key at once
        ))
        return [kind, *words, *self._moment()]

    def _rival(self):
        fan = self._dice.randrange(self._fans)
        return self._dice.choice((
            ["take-fan", f"fan={fan}"], ["release-fan", f"fan={fan}"],
            ["drift-target", f"fan={fan}", f"rpm={self._dice.uniform(-200, 200)}"],
            ["keep-target", f"fan={fan}", "rpm=2500", "seconds=0.5"],
            ["other-write", self._key(("Tg",)), f"value={self._dice.uniform(0, 6000)}"],
            ["vanish-fan", f"fan={fan}"], ["hold-unlock", "value=1"], ["clear"], ["clear"],
        ))

    def _world(self):
        return self._dice.choice((
            ["set", "property=load", f"value={self._dice.uniform(0, 100)}"],
            ["set", "property=ac", f"value={self._dice.randrange(2)}"],
            ["sleep", f"seconds={self._dice.choice((1, 60, 3600))}"],
        ))

    def _tool(self):
        if self.long and self._dice.random() < HANG_SHARE:
            return ["tool-ignores-sigterm", "tool=kmutil", "times=1"]
        kinds = ["tool-fails", "tool-garbage", "tool-no-effect"]
        if self.long:  # the allocator keeps two megabytes from then on, once and for all
            kinds.append("tool-megabyte")
        kind = self._dice.choice(kinds)
        return [kind, *(["code=1", "text=no"] if kind == "tool-fails" else []), "times=1"]

    def _program(self):
        return [self._dice.choice(("fan-probe", "probe", "auto"))]
