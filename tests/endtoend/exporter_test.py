"""What the exporter makes of a sample, beside what the sample says."""

import json
import pathlib
import re
import subprocess
import tempfile
import unittest

from simulated import BIN, Mac

PLAIN = {"cpu_usage_ratio": "cpuUsage", "cpu_speed_limit_ratio": "speedLimit",
         "cpu_scheduler_limit_ratio": "schedulerLimit", "cpus_available": "availableCPUs",
         "cpus_installed": "totalCPUs", "thermal_state": "thermalState",
         "thermal_warning_level": "thermalWarning", "memory_pressure_level": "memoryPressure",
         "on_ac_power": "acPower", "low_power_mode": "lowPower", "controller_available": "smcAvailable"}
OF_A_FAN = {"fan_speed_rpm": "rpm", "fan_speed_minimum_rpm": "minimum", "fan_speed_maximum_rpm": "maximum",
            "fan_manual": "manual", "fan_controllable": "controllable"}
KINDS = {"power": "power_watts", "voltage": "voltage_volts", "current": "current_amperes"}
CATEGORIES = {"TC": "cpu", "TG": "gpu", "TH": "storage", "TB": "battery"}


def expected(sample):
    for name, member in PLAIN.items():
        if member in sample:
            yield name, sample[member] / (100 if name.endswith("ratio") else 1)
    for state in ("disabledDriverLoaded", "driverNotLoaded", "unknown", "unsupported"):
        yield f'turbo_driver_state{{state="{state}"}}', sample["turbo"] == state
    for fan in sample["fans"]:
        for name, member in OF_A_FAN.items():
            if member in fan:
                yield f'{name}{{fan="{fan["id"]}"}}', fan[member]
    for it in sample["sensors"]:
        category = CATEGORIES.get(it["key"][:2], "other")
        yield (f'sensor_temperature_celsius{{sensor="{it["key"]}",category="{category}"}}', it["celsius"])
    others = [it for it in sample["additionalSensors"] if it["kind"] in KINDS]
    for it in others:
        yield f'sensor_{KINDS[it["kind"]]}{{sensor="{it["key"]}"}}', it["value"]
    for it in sample["sensors"] + others:
        yield f'sensor_label{{sensor="{it["key"]}",label="{it["label"]}"}}', 1


class ExporterTest(unittest.TestCase):
    def test_every_measurement_is_written_and_no_other(self):
        with tempfile.TemporaryDirectory() as folder:
            file = pathlib.Path(folder, "ferovane.prom")
            for model in ("MacBookPro16,1", "M4Max", "NoController"):
                with Mac(model, "load=40") as mac:
                    probed = mac.run("probe").stdout
                subprocess.run([BIN / "openmetrics-example", file], input=probed, text=True, check=True)
                text = file.read_text()
                self.assertRegex(text, r"\A(# (TYPE|UNIT|HELP) ferovane_.*\n|ferovane_.* \S+\n)+# EOF\n\Z")
                found = {name: float(value) for name, value in re.findall(
                    r"^ferovane_(.*) (\S+)$", re.sub(r"^#.*\n", "", text, flags=re.M), flags=re.M)}
                self.assertGreater(found.pop("sample_timestamp_seconds"), 1.7e9)
                self.assertEqual(found, dict(expected(json.loads(probed))))
            failed = subprocess.run([BIN / "openmetrics-example", file], input="{}", text=True,
                                    capture_output=True)
            self.assertEqual((failed.returncode, failed.stderr), (1, "JSON 成员 date 缺失\n"))
            self.assertEqual((file.read_text(), len(list(file.parent.iterdir()))), (text, 1))


if __name__ == "__main__":
    unittest.main()
