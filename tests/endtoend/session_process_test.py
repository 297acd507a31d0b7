"""A session as its owner sees it, and the client that holds it."""

import json
import os
import signal
import socket
import subprocess
import sys
import unittest

from simulated import (CONFIRMED, CURVE, HELPER, MANAGED, OWNER_UID, TOOL, Mac, Owner, eventually,
                       needs_root, session_on)
from control_client import LONGEST_LINE, ControlSession, RequestFailed, SessionError

PLAN = {"source": "ac", "scope": "current", "lowPower": False, "displayMinutes": 5,
        "idleMinutes": 10, "disableTurbo": True}
# Stands in for the helper: reads one request, then does what a test says.
STAND_IN = """
import os, signal, sys, time
def say(data): os.write(1, data)
def request(): return sys.stdin.buffer.readline()
OK = b'{"ok":true,"message":"m"}\\n'
request()
"""


@needs_root
class SessionProcessTest(unittest.TestCase):
    def test_every_command_on_intel(self):
        with Mac("MacBookPro16,1", "load=30", "speed=20", "ac=1", "ac:displaysleep=20", "ac:sleep=30",
                 "extension-approval=approved") as mac, Owner() as owner, \
                session_on(mac, owner) as session:
            self.assertEqual(session.request("hello")["turbo"], 0)
            quiet = session.request("profile", profile="quiet")
            self.assertEqual([quiet[name] for name in ("message", "label", "turbo")],
                             [CONFIRMED, "静音", 1])
            self.assertTrue(mac.held())
            self.assertEqual(session.request("turbo-enable")["turbo"], 0)
            self.assertEqual(session.request("test-fans")["profile"], "test-fans")
            custom = session.request("profile", profile="custom", curve=CURVE)
            self.assertEqual(custom["label"], "独立风扇策略")
            self.assertEqual([t["id"] for t in custom["fanStatus"]["targets"]], [0, 1])
            self.assertEqual(session.request("auto")["message"], MANAGED)
            self.assertTrue(mac.automatic())
            mac.set("assert=99:caffeinate:PreventUserIdleSystemSleep:film")
            refused = session.exchange({"command": "power-optimize", "powerPlan": PLAN})
            self.assertEqual(refused["message"], "存在阻止休眠的任务，未修改休眠设置")
            mac.set("release=99")
            reply = session.request("power-optimize", powerPlan=PLAN)
            self.assertEqual((reply["message"], reply["turbo"]), ("优化设置已确认生效", 1))
            restored = session.request("power-restore", powerBackup=reply["power"]["backup"])
            self.assertEqual((restored["message"], restored["turbo"]), ("原设置已恢复", 0))
            self.assertEqual(session.request("shutdown")["message"], MANAGED)

    def test_apple_silicon_serves_fans_only(self):
        with Mac("M1Pro", "load=60", "speed=20") as mac, Owner() as owner, \
                session_on(mac, owner) as session:
            refused = session.exchange({"command": "profile", "profile": "quiet"})
            self.assertEqual(refused["message"], "Apple Silicon 当前仅支持独立风扇控制，"
                                                 "不支持 Intel 睿频或电源设置控制")
            self.assertTrue(session.request("profile", profile="custom", curve=CURVE)["ok"])
            session.shut_down()
            self.assertTrue(mac.automatic())

    def test_a_stranger_is_refused_whatever_is_wrong(self):
        with Mac("MacBookPro16,1") as mac, Owner() as owner:
            dead = subprocess.Popen(["true"])
            dead.wait()
            for pid, uid, effective in ((owner.words[0], 1, 0), (dead.pid, owner.words[1], 0),
                                        (*owner.words, owner.words[1]), ("x", owner.words[1], 0)):
                result = mac.run("serve", pid, uid, preexec_fn=lambda: os.setresuid(
                    owner.words[1], effective, effective))
                self.assertEqual((result.returncode, result.stdout, result.stderr),
                                 (1, "", "原生授权会话身份验证失败\n"))

    def test_however_it_ends_the_fans_are_automatic(self):
        for name, status in (("half a line", 0), ("owner", 0), ("SIGTERM", 0), ("SIGHUP", 0),
                             ("too long", 1), ("nobody reads", 0)):
            with self.subTest(name), Mac("MacPro7,1") as mac, Owner() as owner:
                session = session_on(mac, owner)
                self.assertTrue(session.request("profile", profile="custom", curve=CURVE)["ok"])
                if name.startswith("SIG"):
                    session.process.send_signal(getattr(signal, name))
                elif name == "half a line":
                    session.send_line(b'{"command":')
                    session.process.stdin.close()
                elif name == "too long":
                    session.send_line(b"x" * 20000)
                else:
                    for _ in range(1500 if name == "nobody reads" else 0):
                        session.send_line(b'{"command":"status"}\n')
                    owner.kill()
                self.assertEqual(session.process.wait(20), status)
                self.assertTrue(mac.automatic(), mac.journal()[-20:])
                self.assertEqual(session.process.stderr.read().decode(),
                                 "控制消息过长\n" if status else "")
                session.close()
                session.process.stderr.close()

    def test_a_socket_that_is_closed_one_way_ends_it_although_a_tool_hangs(self):
        with Mac("MacBookPro16,1", "extension-approval=approved") as mac, Owner() as owner:
            mac.fault("tool-hangs", "tool=kmutil")
            ours, its = socket.socketpair()
            with ours, its, subprocess.Popen(
                    [HELPER, "serve", *map(str, owner.words)], env=mac.environment(), stdin=its,
                    stdout=its, preexec_fn=lambda: os.setresuid(OWNER_UID, 0, 0)) as helper:
                ours.sendall(json.dumps({"command": "profile", "profile": "custom",
                                         "curve": CURVE}).encode() + b"\n")
                self.assertIn(b'"ok":true', ours.recv(LONGEST_LINE))
                ours.sendall(b'{"command":"turbo-disable"}\n')
                ours.shutdown(socket.SHUT_WR)
                self.assertTrue(eventually(mac.automatic, 12), mac.journal())
                self.assertEqual(helper.wait(12), 0)

    def test_a_killed_client_leaves_nothing_held(self):
        with Mac("MacBookPro16,1") as mac:
            reading, writing = os.pipe()
            client = os.fork()
            if client == 0:
                session = ControlSession([str(TOOL), "run", mac.path, "--", str(HELPER)])
                session.request("profile", profile="custom", curve=CURVE)
                os.write(writing, b"held")
                signal.pause()
            self.assertEqual(os.read(reading, 4), b"held")
            self.assertTrue(mac.held())
            os.kill(client, signal.SIGKILL)
            os.waitpid(client, 0)
            self.assertTrue(eventually(mac.automatic, 5))


class ClientTest(unittest.TestCase):
    def session(self, deeds):
        return ControlSession([sys.executable, "-c", STAND_IN + deeds])

    def test_what_goes_wrong_is_an_error_that_says_so(self):
        for deeds, text in (
                ("sys.exit(3)", "has ended: exit status 3"),
                ("os.kill(os.getpid(), 9)", "has ended: exit status -9"),
                ("say(b'{\"ok\":tr'); sys.exit(1)", "has ended: exit status 1"),
                ("request()", "does not answer"),
                ("for _ in range(60): say(b' '); time.sleep(0.05)", "does not answer"),
                (f"say(b'x' * {LONGEST_LINE}); request()", "too long"),
                ("say(b'{\\n')", "not JSON"), ("say(b'[1]\\n')", "not a control reply"),
                ("say(b'{\"ok\":1,\"message\":\"m\"}\\n')", "not a control reply")):
            with self.subTest(deeds), self.session(deeds) as session:
                with self.assertRaisesRegex(SessionError, text):
                    session.request("status", timeout=1.5)

    def test_replies_are_lines_and_a_refusal_leaves_the_session_open(self):
        with self.session("say(OK[:9]); time.sleep(0.1); say(OK[9:] + OK.replace(b'true', b'false'))"
                          "\nrequest(); say(OK); request()") as session:
            self.assertEqual(session.request("status")["message"], "m")
            self.assertFalse(session.read_reply(1)["ok"])
            with self.assertRaisesRegex(SessionError, "request is too long"):
                session.request("status", label="x" * LONGEST_LINE)
            self.assertTrue(session.request("status")["ok"])
        with self.session("say(OK.replace(b'true', b'false')); request()") as session:
            with self.assertRaisesRegex(RequestFailed, "^m$"):
                session.request("auto")


if __name__ == "__main__":
    unittest.main()
