import os
import random
import signal
import subprocess
import time
import unittest

from simulated import HELPER, Mac, Owner, eventually, needs_root
from control_client import ControlSession, SessionError

MACHINES = {"MacBookPro16,1": 30, "MacBookPro11,4": 30, "MacPro7,1": 30}
CURVE = {"points": [{"temperature": 30, "percent": 40}, {"temperature": 90, "percent": 100}],
         "sensor": "CPU"}
OWNER_DEATHS = int(os.environ.get("FEROVANE_OWNER_DEATHS", "60"))


def session_on(mac, owner, before=lambda: None, **options):
    """A session of the owner's: root by effect, the owner's user by authorisation. before: done in
    the helper's process first."""

    def spawn(command, **popen):
        become = lambda: (before(), os.setresuid(owner.words[1], 0, 0))
        return subprocess.Popen(command, env=mac.environment(), preexec_fn=become, **popen)

    return ControlSession([str(HELPER)], *owner.words, errors=subprocess.PIPE, spawn=spawn,
                          **options)


def tools_on(mac):
    """The processes of the extension tool that act on a machine."""
    found = subprocess.run(["pgrep", "-f", f"kmutil {mac.path} "], capture_output=True, text=True)
    return [int(pid) for pid in found.stdout.split()]


@needs_root
class SessionProcessTest(unittest.TestCase):
    def assertAutomatic(self, mac):
        self.assertTrue(mac.automatic(), mac.journal()[-20:])

    def test_every_command_on_intel(self):
        for model, load in MACHINES.items():
            with self.subTest(model), Mac(model) as mac, Owner() as owner:
                mac.set(f"load={load}", "speed=20", "extension-approval=approved")
                with session_on(mac, owner) as session:
                    self.assertEqual(session.request("hello")["turbo"], 0)
                    self.assertEqual(session.request("turbo-disable")["turbo"], 1)
                    self.assertEqual(session.request("turbo-enable")["turbo"], 0)
                    quiet = session.request("profile", profile="quiet")
                    self.assertEqual((quiet["message"], quiet["label"], quiet["turbo"]),
                                     ("控制已确认生效", "静音", 1))
                    self.assertTrue(mac.held())
                    self.assertEqual(session.request("test-fans")["profile"], "test-fans")
                    custom = session.request("profile", profile="custom", curve=CURVE)
                    self.assertEqual(custom["label"], "独立风扇策略")
                    self.assertEqual([t["id"] for t in custom["fanStatus"]["targets"]],
                                     [fan["id"] for fan in mac.fans()])
                    self.assertEqual(session.request("auto")["message"], "风扇由系统管理")
                    self.assertAutomatic(mac)
                    self.assertEqual(session.request("shutdown")["message"], "风扇由系统管理")
                self.assertEqual(session.process.returncode, 0)
                self.assertEqual(session.process.stderr.read(), b"")

    def test_power_on_every_kind_of_machine(self):
        for model in MACHINES:
            with self.subTest(model), Mac(model) as mac, Owner() as owner, \
                    session_on(mac, owner) as session:
                mac.set("ac=1", "ac:displaysleep=20", "ac:sleep=30", "extension-approval=approved")
                plan = {"source": "ac", "scope": "current", "lowPower": False,
                        "displayMinutes": 5, "idleMinutes": 10, "disableTurbo": True}
                mac.set("assert=99:caffeinate:PreventUserIdleSystemSleep:film")
                refused = session.exchange({"command": "power-optimize", "powerPlan": plan})
                self.assertEqual(refused["message"], "存在阻止休眠的任务，未修改休眠设置")
                mac.set("release=99")
                reply = session.request("power-optimize", powerPlan=plan)
                self.assertEqual((reply["message"], reply["turbo"]), ("优化设置已确认生效", 1))
                restored = session.request("power-restore", powerBackup=reply["power"]["backup"])
                self.assertEqual((restored["message"], restored["turbo"]), ("原设置已恢复", 0))
                again = session.request("power-restore", powerBackup=reply["power"]["backup"])
                self.assertEqual(again["power"], {"changed": False, "skipped": 0})

    def test_two_lines_in_one_write_get_two_replies(self):
        with Mac("iMac18,3") as mac, Owner() as owner, session_on(mac, owner) as session:
            session.send_line(b'{"command":"hello"}\n{"command":"dance"}\n')
            self.assertEqual([session.read_reply()["message"] for _ in range(2)],
                             ["风扇由系统管理", "未知控制命令"])

    def test_a_megabyte_of_a_tool_fits_a_reply(self):
        with Mac("MacBookPro16,1") as mac, Owner() as owner, session_on(mac, owner) as session:
            mac.fault("tool-megabyte", "tool=kmutil")
            mac.fault("tool-fails", "tool=kmutil", "code=9", "text=x")
            reply = session.exchange({"command": "turbo-disable"})
            self.assertTrue(reply["message"].endswith("…（内容过长，其余已省略）"))
            self.assertTrue(session.request("status")["ok"])

    def test_a_locked_controller_never_keeps_a_fan(self):
        # The hand-back of the refused test leaves the fans free for some seconds, in which a lease
        # can have them without the unlock; then the system takes them again.
        with Mac("M4Max") as mac, Owner() as owner, session_on(mac, owner) as session:
            mac.set("load=70", "speed=50")
            self.assertTrue(eventually(lambda: mac.fans()[0]["target"] > 2317))
            refused = session.exchange({"command": "test-fans"})
            self.assertEqual((refused["ok"], refused["message"][:8]), (False, "SMC Ftst"))
            self.assertAutomatic(mac)
            session.exchange({"command": "profile", "profile": "custom", "curve": CURVE})
            idle = lambda: session.request("status")["message"] == "风扇由系统管理"
            self.assertTrue(eventually(idle))
            self.assertAutomatic(mac)

    def test_power_is_changed_and_given_back(self):
        with Mac("MacBookPro16,1") as mac, Owner() as owner, session_on(mac, owner) as session:
            mac.set("ac=0", "battery:displaysleep=20", "battery:sleep=30")
            plan = {"source": "battery", "scope": "current", "lowPower": False,
                    "displayMinutes": 5, "disableTurbo": False}
            reply = session.request("power-optimize", powerPlan=plan)
            self.assertEqual(reply["message"], "优化设置已确认生效")
            backup = reply["power"]["backup"]
            self.assertEqual(backup["edits"], [{"source": "battery", "key": "displaysleep",
                                                "before": 20, "after": 5}])
            again = session.request("power-optimize", powerPlan=plan)
            self.assertEqual(again["message"], "所选设置已满足")
            restored = session.request("power-restore", powerBackup=backup)
            self.assertEqual(restored["message"], "原设置已恢复")
            mac.set("battery:displaysleep=9")
            kept = session.request("power-restore", powerBackup=backup)
            self.assertEqual((kept["message"], kept["power"]["skipped"]),
                             ("恢复已结束；外部更改保留", 1))

    def test_apple_silicon_serves_fans_only(self):
        with Mac("M1Pro") as mac, Owner() as owner, session_on(mac, owner) as session:
            mac.set("load=60", "speed=20")
            refused = session.exchange({"command": "profile", "profile": "quiet"})
            self.assertEqual(refused["message"], "Apple Silicon 当前仅支持独立风扇控制，"
                                                 "不支持 Intel 睿频或电源设置控制")
            self.assertTrue(session.request("profile", profile="custom", curve=CURVE)["ok"])
            session.shut_down()
            self.assertAutomatic(mac)

    def test_a_stranger_is_refused_whatever_is_wrong(self):
        with Mac("MacBookPro16,1") as mac, Owner() as owner:
            dead = subprocess.Popen(["true"])
            dead.wait()
            for pid, uid, effective in ((owner.words[0], 1, 0), (dead.pid, owner.words[1], 0),
                                        (*owner.words, owner.words[1]), ("x", owner.words[1], 0)):
                become = lambda: os.setresuid(owner.words[1], effective, effective)
                result = subprocess.run([HELPER, "serve", str(pid), str(uid)], preexec_fn=become,
                                        env=mac.environment(), capture_output=True, timeout=30)
                self.assertEqual((result.returncode, result.stdout), (1, b""))
                self.assertEqual(result.stderr.decode(), "原生授权会话身份验证失败\n")

    def test_however_it_ends_the_fans_are_automatic(self):
        endings = {
            "input": lambda session, owner: session.process.stdin.close(),
            "half a line": lambda session, owner: (session.send_line(b'{"command":'),
                                                   session.process.stdin.close()),
            "owner": lambda session, owner: owner.kill(),
            "SIGTERM": lambda session, owner: session.process.send_signal(signal.SIGTERM),
            "SIGHUP": lambda session, owner: session.process.send_signal(signal.SIGHUP),
            "too long": lambda session, owner: session.send_line(b"x" * 20000),
        }
        for name, end in endings.items():
            with self.subTest(name), Mac("MacPro7,1") as mac, Owner() as owner:
                session = session_on(mac, owner)
                self.assertTrue(session.request("profile", profile="custom", curve=CURVE)["ok"])
                end(session, owner)
                status = session.process.wait(20)
                self.assertAutomatic(mac)
                self.assertEqual(status, 1 if name == "too long" else 0)
                self.assertEqual(session.process.stderr.read().decode(),
                                 "控制消息过长\n" if name == "too long" else "")
                self.assertEqual(session.process.stdout.read() or b"", b"")
                session.close()
                session.process.stderr.close()

    def test_a_reader_that_never_reads_does_not_keep_the_fans(self):
        with Mac("MacBookPro16,1") as mac, Owner() as owner:
            session = session_on(mac, owner)
            self.assertTrue(session.request("profile", profile="custom", curve=CURVE)["ok"])
            for _ in range(1500):
                session.send_line(b'{"command":"status"}\n')
            owner.kill()
            self.assertEqual(session.process.wait(20), 0)
            self.assertAutomatic(mac)
            session.close()

    def test_a_tool_that_hangs_delays_only_its_own_request(self):
        with Mac("MacBookPro16,1") as mac, Owner() as owner:
            session = session_on(mac, owner)
            self.assertTrue(session.request("profile", profile="custom", curve=CURVE)["ok"])
            mac.fault("tool-ignores-sigterm")
            session.send_line(b'{"command":"turbo-disable"}\n')
            started = lambda: tools_on(mac)
            self.assertTrue(eventually(started))
            (tool,) = started()
            time.sleep(0.3)
            owner.kill()
            self.assertEqual(session.process.wait(20), 0)
            self.assertAutomatic(mac)
            with self.assertRaises(SessionError):
                session.read_reply(5)
            session.close()
            os.kill(tool, signal.SIGKILL)  # it outlives the helper, and would outlive the tests

    def test_the_owner_is_killed_at_random_moments(self):
        dice = random.Random(20261121)
        for death in range(OWNER_DEATHS):
            with Mac(dice.choice(sorted(MACHINES))) as mac, Owner() as owner:
                mac.set("load=40", "speed=20")
                session = session_on(mac, owner)
                session.request("hello")  # an owner that dies before this is a stranger
                session.send_line(b'{"command":"test-fans"}\n'
                                  b'{"command":"profile","profile":"performance"}\n')
                time.sleep(dice.uniform(0, 1.2))
                owner.kill()
                self.assertEqual(session.process.wait(20), 0, death)
                self.assertAutomatic(mac)
                session.close()
                session.process.stderr.close()


if __name__ == "__main__":
    unittest.main()
