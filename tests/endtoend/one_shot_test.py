"""Commands that end by themselves: what is said, by which status, and what becomes of the fans."""

import json
import os
import signal
import time
import unittest
import uuid

from simulated import OWNER_UID, Mac, Owner, eventually, finish, needs_root

DONE = {"cooling": "散热会话结束，已确认风扇恢复系统自动。\n",
        "test-fan": "散热会话结束，已确认风扇恢复系统自动。\n",
        "profile": "模式会话结束，风扇已恢复系统自动；保留睿频选择。\n"}
TAKEN = {"cooling": "检测到风扇状态改变或无法读取，散热会话已停止\n",
         "profile": "风扇控制被改变或无法读取，已停止曲线\n"}
FANS = {"MacBookPro11,4": 2, "MacBookPro16,1": 2, "iMac18,3": 1, "MacPro7,1": 4, "MacBook10,1": 0,
        "M1Pro": 2, "M4Max": 2, "M5Pro": 2, "NoController": 0}
REQUIRED = {"date", "sensors", "fans", "totalCPUs", "thermalState", "turbo", "lowPower",
            "smcAvailable", "cpuUsage"}
OPTIONAL = {"speedLimit", "schedulerLimit", "availableCPUs", "thermalWarning", "acPower",
            "memoryPressure", "additionalSensors"}


class OneShotTest(unittest.TestCase):
    def start(self, mac, owner, command):
        self.session = str(uuid.uuid4())
        return mac.start(command, *owner.words, self.session,
                         *(["balanced", "-"] if command == "profile" else []))

    def assertEnded(self, mac, helper, status, output="", errors=""):
        self.assertEqual(finish(helper), (status, output, errors))
        self.assertTrue(mac.automatic(), mac.journal()[-20:])

    def end(self, cause, mac, owner, helper):
        """What happens while the fans are held; whether the lease then ends as planned."""
        if cause == "stop file":  # never followed: a dangling link counts
            path = "/tmp/ferovane-stop-" + self.session.upper()
            os.symlink("/nonexistent", path)
            self.addCleanup(os.unlink, path)
        elif cause == "owner":
            owner.kill()
        elif cause == "an hour's sleep":  # the clock goes on, and it is longer than any lease
            mac.fault("sleep", "seconds=3600", "in=0.3")
        elif cause == "rival":
            mac.fault("drift-target", "fan=0", "rpm=-40", "in=0.5")
        else:
            helper.send_signal(getattr(signal, cause))
        return cause != "rival"

    @needs_root
    def test_each_cause_of_ending(self):
        for cause, model, commands in (
                ("stop file", "MacBookPro16,1", DONE), ("owner", "MacBookPro11,4", TAKEN),
                ("SIGTERM", "M1Pro", TAKEN), ("SIGHUP", "MacBookPro16,1", TAKEN),
                ("SIGINT", "MacPro7,1", TAKEN), ("rival", "M1Pro", TAKEN),
                ("an hour's sleep", "MacBookPro16,1", TAKEN)):
            for command in commands:
                with self.subTest(cause, command=command), Owner() as owner, \
                        Mac(model, "load=40", "speed=20") as mac:
                    helper = self.start(mac, owner, command)
                    self.assertTrue(eventually(mac.held), helper.poll())
                    began = time.monotonic()
                    if self.end(cause, mac, owner, helper):
                        self.assertEnded(mac, helper, 0, DONE[command])
                    else:
                        self.assertEnded(mac, helper, 1, errors=TAKEN[command])
                    self.assertLess(time.monotonic() - began, 8)

    @needs_root
    def test_a_hand_back_that_has_begun_is_finished(self):
        with Mac("MacBookPro16,1") as mac:
            mac.write("F0Md", 1)
            mac.fault("delay-write", "key=F0Md", "seconds=0.5")
            helper = mac.start("auto")
            self.assertTrue(eventually(lambda: "F0Md=0" in mac.writes()))
            for name in ("SIGTERM", "SIGINT", "SIGHUP"):
                helper.send_signal(getattr(signal, name))
            self.assertEnded(mac, helper, 0, "风扇已恢复系统自动。\n")

    @needs_root
    def test_what_it_cannot_take_it_leaves_alone(self):
        for model, command, fault, message in (
                ("MacBookPro16,1", "cooling", ["take-fan", "fan=1"], "请先恢复系统自动风扇并退出其他"),
                ("M5Pro", "profile", [], "请先恢复系统自动风扇并退出其他控制程序")):
            with Mac(model, "load=60", "speed=20") as mac, Owner() as owner:
                if fault:
                    mac.fault(*fault)
                status, _, errors = finish(self.start(mac, owner, command))
                self.assertEqual((status, mac.writes()), (1, []))
                self.assertIn(message, errors)

    @needs_root
    def test_a_reader_that_is_gone_is_a_failure_like_any_other(self):
        with Mac("MacBookPro16,1") as mac:
            for word in ("probe", "fan-probe", "auto", "turbo-enable"):
                reading, writing = os.pipe()
                os.close(reading)
                result = mac.run(word, stdout=writing)
                os.close(writing)
                self.assertEqual((result.returncode, result.stderr), (1, "无法写入标准输出\n"), word)

    def test_every_machine_is_sampled_by_anybody(self):
        user = OWNER_UID if os.geteuid() == 0 else None
        for model, fans in FANS.items():
            with self.subTest(model), Mac(model) as mac:
                result = mac.run("probe", user=user)
                self.assertEqual((result.returncode, result.stderr), (0, ""))
                sample = json.loads(result.stdout)
                self.assertLessEqual(REQUIRED, set(sample))
                self.assertLessEqual(set(sample), REQUIRED | OPTIONAL)
                self.assertRegex(sample["date"], r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ$")
                self.assertEqual([fan["id"] for fan in sample["fans"]], list(range(fans)))
                self.assertEqual(sample["smcAvailable"], model != "NoController")
                keys = json.loads(mac.run("fan-probe", user=user).stdout)
                self.assertEqual(keys.get("FNum", 0), fans)
                if user:
                    for words in (["auto"], [], ["cooling", "1"], ["serve", "1"]):
                        refused = mac.run(*words, user=user)
                        self.assertEqual((refused.returncode, refused.stdout, refused.stderr), (
                            1, "", "硬件控制需要管理员授权；监测不需要管理员权限。\n"))
                self.assertEqual(mac.writes(), [], "monitoring writes nothing")


if __name__ == "__main__":
    unittest.main()
