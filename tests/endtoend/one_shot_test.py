import os
import signal
import subprocess
import time
import unittest
import uuid

from simulated import HELPER, Mac, Owner, eventually, finish, needs_root, send

COOLING_DONE = "散热会话结束，已确认风扇恢复系统自动。\n"
PROFILE_DONE = "模式会话结束，风扇已恢复系统自动；保留睿频选择。\n"
TAKEN = {"cooling": "检测到风扇状态改变或无法读取，散热会话已停止\n",
         "profile": "风扇控制被改变或无法读取，已停止曲线\n"}
# Machines whose fans a lease can take, and how heavily they are loaded for it.
MACHINES = {"MacBookPro11,4": 30, "MacBookPro16,1": 30, "iMac18,3": 30, "MacPro7,1": 30,
            "M1Pro": 60}
CAUSES = ["stop file", "owner", "SIGTERM", "SIGINT", "SIGHUP"]


class StopFile:
    def __init__(self):
        self.session = str(uuid.uuid4())
        self.path = "/tmp/ferovane-stop-" + self.session.upper()

    def create(self, unused=None):
        os.symlink("/nonexistent", self.path)  # it is never followed: a dangling link counts

    def __enter__(self):
        return self

    def __exit__(self, *unused):
        if os.path.lexists(self.path):
            os.unlink(self.path)


def start(mac, command, owner, session):
    words = {"cooling": [command, *owner.words, session],
             "test-fan": [command, *owner.words, session],
             "profile": [command, *owner.words, session, "balanced", "-"]}[command]
    return mac.start(*words)


@needs_root
class OneShotTest(unittest.TestCase):
    def assertEnded(self, mac, helper, status, output="", errors=""):
        self.assertEqual(finish(helper), (status, output, errors))
        self.assertTrue(mac.automatic(), mac.journal()[-20:])

    def test_each_cause_of_stopping_while_the_fans_are_held(self):
        runs = [(model, command) for command in ("cooling", "profile") for model in MACHINES]
        # Every cause meets both commands, each time on another machine.
        for number, (model, command) in enumerate(runs):
            cause = CAUSES[(number + number // len(CAUSES)) % len(CAUSES)]
            with self.subTest(model=model, command=command, cause=cause), Mac(model) as mac, \
                    Owner() as owner, StopFile() as stop:
                mac.set(f"load={MACHINES[model]}", "speed=20")
                helper = start(mac, command, owner, stop.session)
                self.assertTrue(eventually(mac.held), helper.poll())
                began = time.monotonic()
                {"stop file": stop.create, "owner": lambda unused: owner.kill()}.get(
                    cause, send(cause) if cause.startswith("SIG") else None)(helper)
                self.assertEnded(mac, helper, 0,
                                 COOLING_DONE if command == "cooling" else PROFILE_DONE)
                self.assertLess(time.monotonic() - began, 5)

    def test_a_signal_during_the_switching_hands_back_what_was_taken(self):
        for command in ("cooling", "profile"):
            with self.subTest(command), Mac("MacPro7,1") as mac, Owner() as owner, \
                    StopFile() as stop:
                mac.fault("delay-write", "seconds=0.4")
                helper = start(mac, command, owner, stop.session)
                self.assertTrue(eventually(lambda: any(f["manual"] for f in mac.fans())))
                helper.send_signal(signal.SIGTERM)
                status, _, errors = finish(helper)
                # Cooling had not begun; a curve's first round had, and is one that was stopped.
                self.assertEqual((status, errors), (1, "散热会话已取消或超时\n")
                                 if command == "cooling" else (0, ""))
                self.assertTrue(mac.automatic(), mac.journal()[-20:])

    def test_a_signal_during_the_hand_back_does_not_cut_it_short(self):
        with Mac("MacPro7,1") as mac, Owner() as owner, StopFile() as stop:
            helper = start(mac, "cooling", owner, stop.session)
            self.assertTrue(eventually(mac.held))
            mac.fault("delay-write", "seconds=0.5")
            for name in ("SIGTERM", "SIGHUP", "SIGINT"):
                helper.send_signal(getattr(signal, name))
                time.sleep(0.2)
            self.assertEnded(mac, helper, 0, COOLING_DONE)

    def test_another_program_that_takes_a_fan_ends_it(self):
        for model in ("MacBookPro11,4", "MacBookPro16,1", "M1Pro"):
            for command in ("cooling", "profile"):
                with self.subTest(model=model, command=command), Mac(model) as mac, \
                        Owner() as owner, StopFile() as stop:
                    mac.set(f"load={MACHINES[model]}")
                    helper = start(mac, command, owner, stop.session)
                    self.assertTrue(eventually(mac.held))
                    time.sleep(0.5)
                    mac.fault("drift-target", "fan=1", "rpm=-40")
                    self.assertEnded(mac, helper, 1, errors=TAKEN[command])

    def test_a_fan_that_is_taken_already_is_left_alone(self):
        with Mac("MacBookPro16,1") as mac, Owner() as owner, StopFile() as stop:
            mac.fault("take-fan", "fan=1")
            status, _, errors = finish(start(mac, "cooling", owner, stop.session))
            self.assertEqual(status, 1)
            self.assertIn("请先恢复系统自动风扇并退出其他风扇控制软件", errors)
            self.assertEqual(mac.writes(), [])
            self.assertEqual(mac.run("auto").stdout, "风扇已恢复系统自动。\n")
            self.assertTrue(mac.automatic())

    def test_a_fan_test_ends_by_itself(self):
        with Mac("iMac18,3") as mac, Owner() as owner, StopFile() as stop:
            began = time.monotonic()
            helper = start(mac, "test-fan", owner, stop.session)
            self.assertEnded(mac, helper, 0, COOLING_DONE)
            self.assertTrue(4.9 < time.monotonic() - began < 8)

    def test_a_locked_controller_ends_restored_with_its_error(self):
        with Mac("M4Max") as mac, Owner() as owner, StopFile() as stop:
            mac.set("load=70", "speed=50")
            self.assertTrue(eventually(lambda: mac.fans()[0]["target"] > 2317))
            status, output, errors = finish(start(mac, "cooling", owner, stop.session))
            self.assertEqual((status, output), (1, ""))
            self.assertNotEqual(errors, "")
            self.assertTrue(mac.automatic(), mac.journal()[-10:])

    def test_a_machine_whose_mode_cannot_be_told_is_refused(self):
        with Mac("M5Pro") as mac, Owner() as owner, StopFile() as stop:
            mac.set("load=60", "speed=20")
            status, _, errors = finish(start(mac, "profile", owner, stop.session))
            self.assertEqual((status, errors), (1, "请先恢复系统自动风扇并退出其他控制程序\n"))
            self.assertEqual(mac.writes(), [])

    def test_turbo_goes_through_the_systems_tool(self):
        with Mac("MacBookPro16,1") as mac:
            mac.set("extension-approval=not-approved")
            result = mac.run("turbo-disable")
            self.assertEqual((result.returncode, result.stdout), (1, ""))
            self.assertTrue(result.stderr.startswith(
                "睿频操作未确认。需要已安装且获得系统批准的驱动。\n"), result.stderr)
            self.assertIn("not approved to load", result.stderr)
            mac.set("extension-approval=approved")
            self.assertEqual(mac.run("turbo-disable").stdout, "已确认禁用睿频驱动加载。\n")
            self.assertEqual(mac.run("turbo-enable").stdout, "已确认禁用睿频驱动卸载。\n")


    def test_a_hand_back_that_has_begun_is_finished(self):
        for name in ("SIGTERM", "SIGINT", "SIGHUP"):
            with self.subTest(name), Mac("MacBookPro16,1") as mac:
                mac.write("F0Md", 1)
                mac.fault("delay-write", "key=F0Md", "seconds=0.5")
                helper = mac.start("auto")
                self.assertTrue(eventually(lambda: "F0Md=0" in mac.writes()))
                helper.send_signal(getattr(signal, name))
                self.assertEnded(mac, helper, 0, "风扇已恢复系统自动。\n")

    def test_a_reader_that_is_gone_is_a_failure_like_any_other(self):
        for word in ("probe", "fan-probe", "auto", "turbo-enable"):
            with self.subTest(word), Mac("MacBookPro16,1") as mac:
                reading, writing = os.pipe()
                os.close(reading)
                helper = subprocess.run([HELPER, word], env=mac.environment(), text=True,
                                        stdout=writing, stderr=subprocess.PIPE, timeout=30)
                os.close(writing)
                self.assertEqual((helper.returncode, helper.stderr), (1, "无法写入标准输出\n"))


if __name__ == "__main__":
    unittest.main()
