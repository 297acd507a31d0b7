import json
import os
import re
import subprocess
import unittest

from simulated import HELPER, Mac, OWNER_UID, needs_root

MODELS = {  # fans of each built-in machine
    "MacBookPro11,4": 2, "MacBookPro16,1": 2, "iMac18,3": 1, "MacPro7,1": 4, "MacBook10,1": 0,
    "M1Pro": 2, "M4Max": 2, "M5Pro": 2, "NoController": 0,
}
REQUIRED = {"date", "sensors", "fans", "totalCPUs", "thermalState", "turbo", "lowPower",
            "smcAvailable"}
OPTIONAL = {"cpuUsage", "speedLimit", "schedulerLimit", "availableCPUs", "thermalWarning",
            "acPower", "memoryPressure", "additionalSensors"}


def without_numbers(text):
    """One number has many correct spellings."""
    return re.sub(r"-?\d+(\.\d+)?(e[-+]?\d+)?", "N", text)


class ProbeTest(unittest.TestCase):
    def test_every_machine_is_sampled(self):
        for model, fans in MODELS.items():
            with self.subTest(model), Mac(model) as mac:
                result = mac.run("probe")
                self.assertEqual((result.returncode, result.stderr), (0, ""))
                text = result.stdout
                sample = json.loads(text)
                canonical = json.dumps(sample, indent=2, sort_keys=True, ensure_ascii=False)
                self.assertEqual(without_numbers(text), without_numbers(canonical + "\n"))
                self.assertNotIn("null", text)
                self.assertLessEqual(REQUIRED, set(sample))
                self.assertLessEqual(set(sample), REQUIRED | OPTIONAL)
                self.assertRegex(sample["date"], r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ$")
                self.assertIn("cpuUsage", sample)
                self.assertEqual([fan["id"] for fan in sample["fans"]], list(range(fans)))
                self.assertEqual(sample["smcAvailable"], model != "NoController")
                cpu = [s["celsius"] for s in sample["sensors"] if s["key"].startswith("TC")]
                if model != "NoController":
                    self.assertTrue(30 < max(cpu) < 110, max(cpu))
                self.assertEqual(mac.writes(), [], "monitoring writes nothing")

    def test_fan_probe_prints_the_keys_it_can_read(self):
        with Mac("MacBookPro11,4") as mac:
            result = mac.run("fan-probe")
            values = json.loads(result.stdout)
            self.assertEqual(result.stdout.count("\n"), 1)
            self.assertEqual(set(values), {"FNum", "F0Tg", "F0Ac", "F0Mn", "F0Mx", "FS! "})
            self.assertEqual((values["FNum"], values["F0Mx"]), (2, 6156))
        with Mac("M5Pro") as mac:
            values = json.loads(mac.run("fan-probe").stdout)
            self.assertIn("F0md", values)
            self.assertNotIn("F0Md", values)

    def test_without_a_machine_the_host_is_told_honestly(self):
        environment = {k: v for k, v in os.environ.items() if k != "FEROVANE_SIMULATED_MAC"}
        run = lambda word: subprocess.run([HELPER, word], env=environment, text=True,
                                          capture_output=True, check=True).stdout
        self.assertEqual(run("fan-probe"), "{}\n")
        sample = json.loads(run("probe"))
        self.assertEqual(sample["totalCPUs"], os.cpu_count())
        self.assertEqual((sample["fans"], sample["sensors"]), ([], []))
        self.assertFalse(sample["smcAvailable"])
        self.assertTrue(0 <= sample["cpuUsage"] <= 100)
        for absent in ("speedLimit", "acPower", "thermalWarning"):
            self.assertNotIn(absent, sample)

    @needs_root
    def test_monitoring_works_for_everybody_and_control_for_root(self):
        with Mac("MacBookPro16,1") as mac:
            self.assertEqual(mac.run("fan-probe", user=OWNER_UID).returncode, 0)
            for words in (["auto"], ["probe", "x"], [], ["cooling", "1"], ["serve", "1"]):
                result = mac.run(*words, user=OWNER_UID)
                self.assertEqual((result.returncode, result.stdout), (1, ""))
                self.assertEqual(result.stderr,
                                 "硬件控制需要管理员授权；监测不需要管理员权限。\n")
            self.assertEqual(mac.writes(), [])


if __name__ == "__main__":
    unittest.main()
