"""Compares what FerovaneHelper reads with what the system's own tools print; see check-mac.

Each comparison ends as "same", "differs", or "unknown" when one of the two does not tell. No names,
serial numbers or paths of a user get into the report.
"""

import json
import os
import plistlib
import pwd
import re
import subprocess
import sys
import time
import uuid

TOOL_SECONDS = 30
TEST_FAN_SECONDS = 40  # holds five, and may take twelve to hand back
HAND_BACK_SECONDS = 10
POLL_SECONDS = 0.5
SPEEDS_UP_BY = 100  # rpm, in five seconds, of a fan that was below nine tenths of its maximum
NEAR_DEGREES = 5  # between readings that are not of one moment
NEAR_SHARE = 0.1  # likewise, of a fan's speed
BATTERY_SHARE = 0.03  # likewise, of a voltage

# A simulated Mac has tools of its own below this folder.
SIMULATED = os.environ.get("FEROVANE_SIMULATED_MAC")
ROOT = os.path.join(SIMULATED, "root") if SIMULATED else ""


def output_of(words, as_root=False):
    """What a program prints; "" when it fails."""
    if as_root and os.geteuid() != 0:
        words = ["sudo", *words]
    try:
        done = subprocess.run(words, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
                              timeout=TOOL_SECONDS, check=False)
    except (OSError, subprocess.TimeoutExpired):
        return ""
    return done.stdout.decode(errors="replace") if done.returncode == 0 else ""


def sysctl(name):
    return output_of([f"{ROOT}/usr/sbin/sysctl", "-n", name]).strip()


def pmset(what):
    return output_of([f"{ROOT}/usr/bin/pmset", "-g", what])


def registry(service):
    """The properties of the first service of a class; empty without one, or when it cannot be told."""
    try:
        found = plistlib.loads(output_of([f"{ROOT}/usr/sbin/ioreg", "-a", "-r", "-c",
                                          service]).encode())
        return found[0] if isinstance(found, list) and found else {}
    except Exception:  # pylint: disable=broad-except; whatever it printed, it tells nothing
        return {}


def whole(text):
    return int(text) if re.fullmatch(r"\d+", text) else None


def first(pattern, text):
    found = re.search(pattern, text)
    return whole(found[1]) if found else None


class Report:
    def __init__(self):
        self.failed = False

    def line(self, verdict, name, detail):
        self.failed = self.failed or verdict in ("differs", "failed")
        print(f"{verdict:8} {name}: {detail}", flush=True)

    def compare(self, name, ours, theirs, near=0.0):
        """near: how far numbers may be apart."""
        detail = f"we read {ours}, the system says {theirs}"
        if ours is None or theirs is None:
            # Neither tells: many a machine has no such value.
            return self.line("same" if ours is theirs else "unknown", name, detail)
        same = ours == theirs if near == 0 else abs(ours - theirs) <= near
        return self.line("same" if same else "differs", name, detail)


class Check:
    def __init__(self, binaries):
        self.report = Report()
        self.helper = os.path.join(binaries, "FerovaneHelper")
        self.dump = os.path.join(binaries, "key-dump")
        self.sample = self.probe()

    def probe(self):
        return json.loads(output_of([self.helper, "probe"]) or "{}")

    def describe(self):
        print("FerovaneHelper on", sysctl("machdep.cpu.brand_string") or "an unknown processor",
              "with macOS", sysctl("kern.osproductversion") or "of an unknown version")
        if not self.sample:
            self.report.line("failed", "probe", "the helper gives no sample")
        for sensor in self.sample.get("sensors", []):
            print(f"  {sensor['key']} {sensor['celsius']:.1f} °C")
        for fan in self.sample.get("fans", []):
            print("  fan", json.dumps(fan, sort_keys=True))

    def compare_power(self):
        source = re.search(r"'((?:AC|Battery|UPS) Power)'", pmset("ps"))
        self.report.compare("power on mains", self.sample.get("acPower"),
                            source[1] == "AC Power" if source else None)
        section = re.search(rf"^{source[1] if source else 'AC Power'}:\n((?: .*\n?)*)",
                            pmset("custom"), re.M)
        mode = first(r"\b(?:lowpowermode|powermode) +(\d+)", section[1]) if section else None
        self.report.compare("low power mode", self.sample.get("lowPower"),
                            None if mode is None else mode == 1)

    def compare_limits(self):
        print_ = pmset("therm")
        for name, ours, theirs in (("speed limit", "speedLimit", "CPU_Speed_Limit"),
                                   ("scheduler limit", "schedulerLimit", "CPU_Scheduler_Limit"),
                                   ("processors available", "availableCPUs", "CPU_Available_CPUs")):
            self.report.compare(name, self.sample.get(ours), first(rf"{theirs}\s*= (\d+)", print_))
        self.report.compare("thermal warning ever given", "thermalWarning" in self.sample,
                            "No thermal warning level" not in print_ if print_ else None)

    def compare_system(self):
        self.report.compare("processors", self.sample.get("totalCPUs"),
                            whole(sysctl("hw.logicalcpu")))
        self.report.compare("memory pressure", self.sample.get("memoryPressure"),
                            whole(sysctl("kern.memorystatus_vm_pressure_level")))
        self.report.compare("controller present", self.sample.get("smcAvailable"),
                            bool(registry("AppleSMC")))

    def compare_battery(self):
        """Two keys of the controller, decoded here, and what the battery's own driver says."""
        keys = dict(re.findall(r"^(B0AV|B0CT),ui16,2,\w\w,(\w{4}),00$", output_of([self.dump]), re.M))
        order = "little" if sysctl("hw.optional.arm64") == "1" else "big"
        battery = registry("AppleSmartBattery")
        for name, key, theirs, share in (("battery voltage", "B0AV", "Voltage", BATTERY_SHARE),
                                         ("battery cycles", "B0CT", "CycleCount", 0)):
            ours = int.from_bytes(bytes.fromhex(keys[key]), order) if key in keys else None
            self.report.compare(name, ours, battery.get(theirs), share * (ours or 0))

    def compare_metrics(self):
        """Each temperature and speed that it prints has to be near to one of ours."""
        text = output_of([f"{ROOT}/usr/bin/powermetrics", "-n", "1", "-i", "500",
                          "--samplers", "smc"], as_root=True)
        sample = self.probe()
        temperatures = [sensor["celsius"] for sensor in sample.get("sensors", [])]
        speeds = [fan["rpm"] for fan in sample.get("fans", []) if "rpm" in fan]
        for name, unit, ours, near in (
                ("temperatures", "C", temperatures, lambda _: NEAR_DEGREES),
                ("fan speeds", "rpm", speeds, lambda rpm: max(SPEEDS_UP_BY, NEAR_SHARE * rpm))):
            theirs = [float(number) for number in
                      re.findall(rf"(?m)^.*: *(\d+(?:\.\d+)?) *{unit}\s*$", text)]
            detail = f"powermetrics prints {theirs}"
            if not theirs or not ours:
                self.report.line("unknown", name, detail)
            elif all(any(abs(one - value) <= near(value) for one in ours) for value in theirs):
                self.report.line("same", name, detail + ", each near to one of ours")
            else:
                self.report.line("differs", name, f"{detail}, we read {ours}")

    def test_fans(self):
        before = [fan for fan in self.probe().get("fans", []) if fan["controllable"]]
        if not before:
            return self.report.line("unknown", "fan test", "no fan that could be taken")
        with Owner() as owner:
            words = [self.helper, "test-fan", str(owner.pid), str(owner.uid), str(uuid.uuid4())]
            words = words if os.geteuid() == 0 else ["sudo", *words]
            process = subprocess.Popen(words, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
            taken, fastest = self.watch(process, before)
            said = process.communicate()[0].decode(errors="replace").strip()
        slow = [fan["id"] for fan in before if fan["rpm"] < (1 - NEAR_SHARE) * fan["maximum"] and
                fastest.get(fan["id"], 0) < fan["rpm"] + SPEEDS_UP_BY]
        self.verdict("fans taken", len(taken) == len(before), f"{sorted(taken)} of {len(before)}")
        self.verdict("fans sped up", not slow, f"fastest {fastest} rpm, not faster: {slow}")
        self.verdict("helper content", process.returncode == 0,
                     f"status {process.returncode}, {said}")
        return self.verdict("fans handed back", self.handed_back(), "every fan is automatic again")

    def watch(self, process, before):
        """The fans that were seen manual, and the highest speed of each, until the helper ends."""
        ids = {fan["id"] for fan in before}
        taken, fastest = set(), {}
        deadline = time.monotonic() + TEST_FAN_SECONDS
        try:
            while process.poll() is None and time.monotonic() < deadline:
                for fan in self.probe().get("fans", []):
                    if fan["id"] in ids and fan.get("manual"):
                        taken.add(fan["id"])
                    fastest[fan["id"]] = max(fastest.get(fan["id"], 0), round(fan.get("rpm", 0)))
                time.sleep(POLL_SECONDS)
        except KeyboardInterrupt:  # the helper got it, too: whether it hands back is seen below
            pass
        if process.poll() is None:  # it hands back by itself when it is told to end
            output_of(["kill", str(process.pid)], as_root=True)
        return taken, fastest

    def handed_back(self):
        """Whether no fan is manual any more; asks for it when one is."""
        for last_try in (False, True):
            deadline = time.monotonic() + HAND_BACK_SECONDS
            while time.monotonic() < deadline:
                fans = self.probe().get("fans", [])
                if fans and all(fan.get("manual") is False for fan in fans):
                    return not last_try
                time.sleep(POLL_SECONDS)
            if not last_try:
                output_of([self.helper, "auto"], as_root=True)
        print(f"THE FANS ARE NOT HANDED BACK. Run: sudo {self.helper} auto. If that fails, shut down.")
        return False

    def verdict(self, name, good, detail):
        self.report.line("same" if good else "failed", name, detail)


class Owner:
    """On whose behalf the fans are taken: this process, or for root one of somebody else's."""

    def __enter__(self):
        self.uid = os.getuid()
        self.process = None
        if self.uid == 0:
            self.uid = int(os.environ.get("SUDO_UID") or 0) or pwd.getpwnam("nobody").pw_uid
            self.process = subprocess.Popen(["sleep", "600"], user=self.uid)
        self.pid = self.process.pid if self.process else os.getpid()
        return self

    def __exit__(self, *unused):
        if self.process:
            self.process.kill()
            self.process.wait()


def agrees(words):
    if "--yes" in words:
        return True
    if "--reads-only" in words or not sys.stdin.isatty():
        return False
    print("Next, as root: powermetrics prints temperatures and speeds, and then the fans run at full "
          "speed for five\nseconds and are handed back. Type yes to go on:", file=sys.stderr)
    if sys.stdin.readline().strip() != "yes":
        return False
    return os.geteuid() == 0 or subprocess.run(["sudo", "-v"], check=False).returncode == 0


def main():
    if len(sys.argv) < 2 or not set(sys.argv[2:]) <= {"--yes", "--reads-only"}:
        sys.exit("Usage: scripts/check-mac [--reads-only | --yes]")
    check = Check(sys.argv[1])
    check.describe()
    check.compare_power()
    check.compare_limits()
    check.compare_system()
    check.compare_battery()
    if agrees(sys.argv[2:]):
        check.compare_metrics()
        check.test_fans()
    else:
        print("The temperatures, the fans' speeds and the fan test were left out.")
    print("Result:", "something differs" if check.report.failed else "nothing differs")
    return 1 if check.report.failed else 0


if __name__ == "__main__":
    sys.exit(main())
