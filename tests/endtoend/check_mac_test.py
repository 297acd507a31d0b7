"""scripts/check-mac on simulated Macs: it finds nothing where nothing is wrong, and each fault."""

import pathlib
import re
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


@needs_root
@unittest.skipIf(sys.platform == "darwin", "it reads the real Mac there")
class CheckMacTest(unittest.TestCase):
    def check(self, mac, *words):
        """The verdicts, and the exit status."""
        done = subprocess.run([sys.executable, "-B", SCRIPT, BIN, *words], env=mac.environment(),
                              capture_output=True, text=True, stdin=subprocess.DEVNULL)
        self.assertEqual(done.stderr, "")
        found = re.findall(r"(?m)^(same|differs|unknown|failed) +([^:]+):", done.stdout)
        return {name: verdict for verdict, name in found}, done.returncode

    def test_machines_and_their_fans(self):
        refuses = "refuse-write", "key=F0Md", "code=0x82"
        for model, fault, failed in (
                ("MacBookPro16,1", (), ()), ("M1Pro", (), ()),
                ("MacBookPro16,1", refuses, ("fans taken", "fans sped up", "helper content")),
                ("MacBookPro16,1", ("freeze", "key=F1Ac"), ("fans sped up",)),
                ("MacBookPro16,1", ("ignore-write", "key=F1Md", "write=5"),
                 ("helper content", "fans handed back"))):
            with self.subTest(model, fault=fault), Mac(model) as mac:
                mac.fault(*fault or ["clear"])
                wanted = dict.fromkeys([*FAULTS, *FAN_TEST], "same") | dict.fromkeys(failed, "failed")
                self.assertEqual(self.check(mac, "--yes"), (wanted, 1 if failed else 0))
                self.assertEqual(mac.automatic(), "fans handed back" not in failed)

    def test_each_fault_is_seen(self):
        with Mac("MacBookPro16,1") as mac:
            mac.fault("refuse-write", "key=F0Tg", "code=0x82")  # and the fan test is short
            for name, (tool, otherwise) in FAULTS.items():
                path = pathlib.Path(mac.path, "root", tool)
                sound = path.read_text()
                path.write_text(sound.replace("exec ", "").rstrip() +
                                f" | sed {shlex.quote(otherwise)}\n")
                verdicts, status = self.check(
                    mac, "--yes" if "powermetrics" in tool else "--reads-only")
                path.write_text(sound)
                with self.subTest(name):
                    wrong = {one for one, verdict in verdicts.items() if verdict == "differs"}
                    self.assertEqual((wrong, status), ({name}, 1))


if __name__ == "__main__":
    unittest.main()
