"""Commands that end by themselves: what is said, by which status, and what becomes of the fans."""

import json
import os
import pathlib
import time
import unittest
import uuid

from simulated import HELPER, OWNER_UID, STOPS, Mac, Owner, eventually, finish, lease, needs_root

DONE = {"cooling": "散热会话结束，已确认风扇恢复系统自动。\n",
        "test-fan": "散热会话结束，已确认风扇恢复系统自动。\n",
        "profile": "模式会话结束，风扇已恢复系统自动；保留睿频选择。\n"}
LOGGED = {"cooling": ("cooling", 300), "test-fan": ("test-fan", 5),
          "profile": ("balanced", 1800)}
WHY = {"stop file": "已按请求结束控制", "owner": "发起程序已退出，控制已结束",
       "SIGTERM": "辅助进程收到停止信号，控制已结束", "an hour's sleep": "电脑曾经休眠，控制已结束"}
TAKEN = {"cooling": "检测到风扇状态改变或无法读取，散热会话已停止\n",
         "profile": "风扇控制被改变或无法读取，已停止曲线\n"}
FANS = {"MacBookPro11,4": 2, "MacBookPro16,1": 2, "iMac18,3": 1, "MacPro7,1": 4, "MacBook10,1": 0,
        "M1Pro": 2, "M4Max": 2, "M5Pro": 2, "NoController": 0}


class OneShotTest(unittest.TestCase):
    def assertEnded(self, mac, helper, status, output="", errors=""):
        self.assertEqual(finish(helper), (status, output, errors))
        self.assertTrue(mac.automatic(), mac.journal()[-20:])

    def strike(self, cause, mac, owner, helper, session):
        stop_file = pathlib.Path(f"/tmp/ferovane-stop-{session}")
        self.addCleanup(stop_file.unlink, missing_ok=True)
        {"stop file": lambda: stop_file.symlink_to("/nonexistent"),  # never followed
         "owner": owner.kill,
         "SIGTERM": helper.terminate,
         # The clock goes on, and it is longer than any lease.
         "an hour's sleep": lambda: mac.fault("sleep", "seconds=3600", "in=0.3"),
         "rival": lambda: mac.fault("drift-target", "fan=0", "rpm=-40", "in=0.5")}[cause]()

    @needs_root
    def test_each_cause_of_ending(self):
        for cause, model, commands in (
                ("stop file", "MacBookPro16,1", DONE), ("owner", "MacBookPro11,4", TAKEN),
                ("SIGTERM", "MacPro7,1", TAKEN), ("rival", "M1Pro", TAKEN),
                ("an hour's sleep", "MacBookPro16,1", TAKEN)):
            for command in commands:
                with self.subTest(cause, command=command), Owner() as owner, \
                        Mac(model, "load=40", "speed=20") as mac:
                    session = str(uuid.uuid4()).upper()
                    helper = mac.start(*lease(command, owner, session))
                    self.assertTrue(eventually(mac.held), helper.poll())
                    began = time.monotonic()
                    self.strike(cause, mac, owner, helper, session)
                    if cause == "rival":
                        self.assertEnded(mac, helper, 1, errors=TAKEN[command])
                    else:
                        self.assertEnded(mac, helper, 0, DONE[command])
                    self.assertLess(time.monotonic() - began, 8)
                    mode, most = LOGGED[command]
                    why = WHY.get(cause, TAKEN.get(command, "").rstrip())
                    self.assertEqual(mac.log(), [
                        f"风扇控制开始（{mode}），最长 {most} 秒",
                        f"风扇控制结束（{mode}），风扇已恢复系统自动：{why}"])

    @needs_root
    def test_a_log_that_hangs_delays_nothing(self):
        with Owner() as owner, Mac("MacBookPro16,1", "load=40", "speed=20") as mac:
            mac.fault("log-hangs")
            for command in TAKEN:
                helper = mac.start(*lease(command, owner))
                self.assertTrue(eventually(mac.held), helper.poll())
                began = time.monotonic()
                helper.terminate()
                self.assertEnded(mac, helper, 0, DONE[command])
                self.assertLess(time.monotonic() - began, 1.5)
            self.assertEqual(mac.log(), [])

    @needs_root
    def test_a_hand_back_that_has_begun_is_finished(self):
        with Mac("MacBookPro16,1") as mac:
            mac.write("F0Md", 1)
            mac.fault("delay-write", "key=F0Md", "seconds=0.5")
            helper = mac.start("auto")
            self.assertTrue(eventually(lambda: "F0Md=0" in mac.writes()))
            for stop in STOPS:
                helper.send_signal(stop)
            self.assertEnded(mac, helper, 0, "风扇已恢复系统自动。\n")

    @needs_root
    def test_a_reader_that_is_gone_is_a_failure_like_any_other(self):
        with Mac("MacBookPro16,1") as mac:
            for word in ("probe", "fan-probe", "auto", "turbo-enable"):
                reading, writing = os.pipe()
                os.close(reading)
                result = mac.run(word, stdout=writing)
                os.close(writing)
                self.assertEqual((result.returncode, result.stderr), (1, "无法写入标准输出\n"), word)

    def test_without_its_machine_it_takes_no_other(self):
        with Mac("M1Pro") as mac:
            probed = mac.tool("run", mac.path, "--", HELPER, "fan-probe")
            self.assertEqual(json.loads(probed)["FNum"], 2)
            mac.path = "/no/where"
            self.assertEqual(mac.run("fan-probe").returncode, 2)

    def test_every_machine_is_sampled_by_anybody(self):
        user = OWNER_UID if os.geteuid() == 0 else None
        for model, fans in FANS.items():
            with self.subTest(model), Mac(model) as mac:
                result = mac.run("probe", user=user)
                self.assertEqual((result.returncode, result.stderr), (0, ""))
                sample = json.loads(result.stdout)
                self.assertRegex(sample["date"], r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ$")
                self.assertEqual([fan["id"] for fan in sample["fans"]], list(range(fans)))
                self.assertEqual(sample["smcAvailable"], model != "NoController")
                keys = json.loads(mac.run("fan-probe", user=user).stdout)
                self.assertEqual(keys.get("FNum", 0), fans)
                self.assertEqual(list(keys) + list(sample), sorted(keys) + sorted(sample))
                self.assertIn('\n  "cpuUsage": ', result.stdout)
                if user:
                    for words in (["auto"], [], ["cooling", "1"], ["serve", "1"]):
                        refused = mac.run(*words, user=user)
                        self.assertEqual((refused.returncode, refused.stdout, refused.stderr), (
                            1, "", "硬件控制需要管理员授权；监测不需要管理员权限。\n"))
                self.assertEqual(mac.writes(), [], "monitoring writes nothing")


if __name__ == "__main__":
    unittest.main()
