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


def session_on(mac, owner, **options):
    """A session of the owner's: root by effect, the owner's user by authorisation."""

    def spawn(command, **popen):
        become = lambda: os.setresuid(owner.words[1], 0, 0)
        return subprocess.Popen(command, env=mac.environment(), preexec_fn=become, **popen)

    return ControlSession([str(HELPER)], *owner.words, errors=subprocess.PIPE, spawn=spawn,
                          **options)


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
            time.sleep(0.3)
            owner.kill()
            self.assertEqual(session.process.wait(20), 0)
            self.assertAutomatic(mac)
            with self.assertRaises(SessionError):
                session.read_reply(5)
            session.close()

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
