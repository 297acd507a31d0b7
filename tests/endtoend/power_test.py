"""Power plans and turbo switches that are cut in at random moments; judged by the machine alone."""

import json
import os
import random
import signal
import subprocess
import time
import unittest

from simulated import Mac, Owner, eventually, needs_root, session_on

CUTS = int(os.environ.get("FEROVANE_POWER_CUTS", "12"))
SEED = int(os.environ.get("FEROVANE_POWER_SEED", "20261122"))
PLAN = {"source": "ac", "scope": "current", "lowPower": False, "displayMinutes": 5,
        "idleMinutes": 10, "disableTurbo": True}
BEFORE = {"displaysleep": "20", "sleep": "30"}


def tools_on(mac):
    found = subprocess.run(["pgrep", "-f", f"(pmset|kmutil) {mac.path} "], capture_output=True,
                           text=True)
    return found.stdout.split()


def settings(mac):
    """The two settings of the plan on AC power, and whether the driver is loaded."""
    report = subprocess.run([os.path.join(mac.path, "root/usr/bin/pmset"), "-g", "custom"],
                            env=mac.environment(), capture_output=True, text=True).stdout
    section = report.split("AC Power:")[1].split("Power:")[0]
    rows = dict(line.split()[:2] for line in section.splitlines() if len(line.split()) >= 2)
    return {key: rows.get(key) for key in BEFORE}, mac.state()["extensionLoaded"]


@needs_root
class PowerTest(unittest.TestCase):
    def cut(self, dice, cause, hanging):
        with Mac("MacBookPro16,1") as mac, Owner() as owner:
            mac.set("ac=1", "ac:displaysleep=20", "ac:sleep=30", "extension-approval=approved")
            session = session_on(mac, owner)
            session.request("hello")
            if hanging:
                mac.fault("tool-hangs", "tool=kmutil")
            session.send_line(json.dumps({"command": "power-optimize", "powerPlan": PLAN}).encode()
                              + b"\n")
            time.sleep(dice.uniform(0, 0.6))
            {"SIGTERM": lambda: session.process.send_signal(signal.SIGTERM),
             "owner": owner.kill,
             "hang-up": session.process.stdin.close,
             "SIGKILL": session.process.kill}[cause]()
            session.process.wait(20)
            reply = session.process.stdout.read() or b""
            self.assertTrue(eventually(lambda: not tools_on(mac), 3), (cause, hanging))
            self.assertTrue(mac.automatic())
            if cause != "SIGKILL" and b'"backup"' not in reply:
                self.assertEqual(settings(mac), (BEFORE, False), (cause, hanging, reply))
            session.close()
            session.process.stderr.close()

    def test_a_plan_that_is_cut_in_is_put_back_or_recorded(self):
        dice = random.Random(SEED)
        for number in range(CUTS):
            cause = ("SIGTERM", "owner", "hang-up", "SIGKILL")[number % 4]
            with self.subTest(cause=cause, number=number, seed=SEED):
                self.cut(dice, cause, hanging=number % 8 >= 4)


if __name__ == "__main__":
    unittest.main()
