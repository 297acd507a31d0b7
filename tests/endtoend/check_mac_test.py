"""scripts/check-mac on simulated Macs: it finds nothing where nothing is wrong, and each fault."""

import pathlib
import shlex
import subprocess
import sys
import unittest

from simulated import BIN, Mac, needs_root

SCRIPT = pathlib.Path(__file__).resolve().parents[2] / "scripts/check_mac.py"

# What a tool of the machine prints otherwise than it is, or than the helper reads it.
FAULTS = {
    "power on mains": ("usr/bin/pmset", "s/Battery Power'/AC Power'/"),
    "low power mode": ("usr/bin/pmset", "s/lowpowermode  *0/lowpowermode 1/"),
    "speed limit": ("usr/bin/pmset", "s/Speed_Limit.*/Speed_Limit \t= 60/"),
    "scheduler limit": ("usr/bin/pmset", "s/Scheduler_Limit.*/Scheduler_Limit \t= 60/"),
    "processors available": ("usr/bin/pmset", "s/Available_CPUs.*/Available_CPUs \t= 4/"),
    "thermal warning ever given": ("usr/bin/pmset", "/thermal warning/d"),
    "processors": ("usr/sbin/sysctl", "s/^16$/8/"),
    "memory pressure": ("usr/sbin/sysctl", "s/^1$/2/"),
    "controller present": ("usr/sbin/ioreg", "/AppleSMC/d"),
    "battery voltage": ("usr/sbin/ioreg", r"s/\(Voltage<.key><integer>\)/\11/"),
    "battery cycles": ("usr/sbin/ioreg", r"s/\(CycleCount<.key><integer>\)/\11/"),
    "temperatures": ("usr/bin/powermetrics", "s/temperature: /&1/"),
    "fan speeds": ("usr/bin/powermetrics", "s/Fan: /&9/"),
}
FAN_TEST = ("fans taken", "fans sped up", "helper content", "fans handed back")


@unittest.skipIf(sys.platform == "darwin", "it reads the real Mac there")
class CheckMacTest(unittest.TestCase):
    def check(self, mac, *words):
        """The verdicts, and the exit status."""
        done = subprocess.run([sys.executable, "-B", SCRIPT, BIN, *words], env=mac.environment(),
                              capture_output=True, text=True, stdin=subprocess.DEVNULL)
        self.assertEqual(done.stderr, "")
        lines = [line for line in done.stdout.splitlines() if line[:1].isalpha() and ": " in line]
        verdicts = {line[9:].split(":")[0]: line.split()[0] for line in lines
                    if line.split()[0] in ("same", "differs", "unknown", "failed")}
        return verdicts, done.returncode

    @needs_root
    def test_nothing_is_wrong_with_a_sound_machine(self):
        for model in ("MacBookPro16,1", "M1Pro"):
            with self.subTest(model), Mac(model, "ambient=20") as mac:
                verdicts, status = self.check(mac, "--yes")
                self.assertEqual(verdicts, dict.fromkeys([*FAULTS, *FAN_TEST], "same"))
                self.assertEqual(status, 0)
                self.assertTrue(mac.automatic())

    @needs_root
    def test_each_fault_is_seen(self):
        with Mac("MacBookPro16,1") as mac:
            mac.fault("refuse-write", "key=F0Tg", "code=0x82")  # and the fan test is short
            for name, (tool, otherwise) in FAULTS.items():
                path = pathlib.Path(mac.path, "root", tool)
                sound = path.read_text()
                real = path.with_suffix(".real")
                path.rename(real)
                path.write_text(f"#!/bin/sh\n'{real}' \"$@\" | sed {shlex.quote(otherwise)}\n")
                path.chmod(0o755)
                words = ["--yes"] if "powermetrics" in tool else ["--reads-only"]
                verdicts, status = self.check(mac, *words)
                real.unlink()
                path.write_text(sound)
                with self.subTest(name):
                    wrong = {one for one, verdict in verdicts.items() if verdict == "differs"}
                    self.assertEqual((wrong, status), ({name}, 1))

    @needs_root
    def test_a_fan_that_does_not_obey(self):
        for fault, wrong in ((("refuse-write", "key=F0Md", "code=0x82"),
                              {"fans taken", "fans sped up", "helper content"}),
                             (("freeze", "key=F1Ac"), {"fans sped up"})):
            with self.subTest(fault), Mac("MacBookPro16,1") as mac:
                mac.fault(*fault)
                verdicts, status = self.check(mac, "--yes")
                self.assertEqual({one for one in FAN_TEST if verdicts[one] == "failed"}, wrong)
                self.assertEqual(status, 1)
                mac.fault("clear")
                self.assertTrue(mac.automatic())


if __name__ == "__main__":
    unittest.main()
