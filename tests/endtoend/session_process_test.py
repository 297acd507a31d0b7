"""A session as its owner sees it, and the client that holds it."""

import json
import os
import socket
import subprocess
import sys
import unittest

from simulated import (BIN, CURVE, HELPER, MANAGED, OWNER_UID, PLAN, Mac, Owner, end, eventually,
                       needs_root, session_on)
from control_client import LONGEST_LINE, ControlSession, RequestFailed, SessionError

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
            self.assertEqual(session.request("profile", profile="quiet")["label"], "静音")
            self.assertTrue(mac.held())
            automatic = session.request("profile", profile="automatic")
            self.assertEqual((automatic["turbo"], automatic.get("session")), (1, None))
            self.assertEqual(session.request("turbo-enable")["turbo"], 0)
            self.assertEqual(session.request("test-fans", label="secret")["profile"],
                             "test-fans")
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
            again = session.request("power-optimize", powerPlan=PLAN)
            self.assertEqual(again["message"], "所选设置已满足")
            restored = session.request("power-restore", powerBackup=reply["power"]["backup"])
            self.assertEqual((restored["message"], restored["turbo"]), ("原设置已恢复", 0))
            reply = session.request("power-optimize", powerPlan=PLAN)
            mac.set("ac:sleep=7")
            restored = session.request("power-restore", powerBackup=reply["power"]["backup"])
            self.assertEqual(restored["message"], "恢复已结束；外部更改保留")
            self.assertEqual(session.request("shutdown")["message"], MANAGED)
            self.assertEqual(end(session), 0)
            changed = ["电源设置 displaysleep（ac）改为 5：已确认",
                       "电源设置 sleep（ac）改为 10：已确认", "睿频改为禁用：已确认"]
            ended = "，风扇已恢复系统自动：已按请求结束控制"
            self.assertEqual(mac.log(), [
                "睿频改为禁用：已确认", "风扇控制开始（quiet），最长 1800 秒",
                "风扇控制结束（quiet）" + ended, "已按请求恢复全部风扇为系统自动",
                "睿频改为启用：已确认", "风扇控制开始（test-fans），最长 5 秒",
                "风扇控制结束（test-fans）" + ended, "风扇控制开始（custom），最长 1800 秒",
                "风扇控制结束（custom）" + ended, "已按请求恢复全部风扇为系统自动",
                *changed, "电源设置 sleep（ac）改回 30：已确认",
                "电源设置 displaysleep（ac）改回 20：已确认", "睿频改回启用：已确认",
                *changed, "电源设置 displaysleep（ac）改回 20：已确认", "睿频改回启用：已确认"])

    def test_a_stranger_is_refused_whatever_is_wrong(self):
        with Mac("MacBookPro16,1") as mac, Owner() as owner:
            dead = subprocess.Popen(["true"])
            dead.wait()
            user = owner.words[1]
            for pid, uid, real, effective in (
                    (owner.words[0], 1, user, 0), (dead.pid, user, user, 0), (*owner.words, 0, 0),
                    (*owner.words, user, user), ("x", user, user, 0)):
                result = mac.run("serve", pid, uid, preexec_fn=lambda: os.setresuid(
                    real, effective, effective))
                self.assertEqual((result.returncode, result.stdout, result.stderr),
                                 (1, "", "原生授权会话身份验证失败\n"))
            self.assertEqual(mac.log(), ["已拒绝调用：serve"] * 4, "and nobody else's process")

    def test_the_example_monitor_holds_a_profile_by_the_client_of_the_library(self):
        monitor = "monitor-example-simulated" if sys.platform == "darwin" else "monitor-example"
        with Mac("MacPro7,1") as mac:
            result = subprocess.run([BIN / monitor, "2", "/dev/null", "performance", HELPER],
                                    env=mac.environment(), capture_output=True, text=True)
            self.assertEqual((result.returncode, result.stderr),
                             (0, "控制已确认生效\n风扇由系统管理\n"))
            self.assertIn("F0Md=1", mac.writes())
            self.assertTrue(mac.automatic())

    def test_a_signal_or_a_line_too_long_ends_it_with_automatic_fans(self):
        for deed, status, message in (
                (lambda session: session.process.terminate(), 0, b""),
                (lambda session: session.send_line(b"x" * 20000), 1, "控制消息过长\n".encode())):
            with Mac("MacPro7,1") as mac, Owner() as owner:
                session = session_on(mac, owner)
                session.request("profile", profile="custom", curve=CURVE)
                deed(session)
                self.assertEqual(session.process.wait(20), status)
                self.assertTrue(mac.automatic(), mac.journal()[-20:])
                self.assertEqual(session.process.stderr.read(), message)
                end(session)

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


class ClientTest(unittest.TestCase):
    def session(self, deeds):
        return ControlSession([sys.executable, "-c", STAND_IN + deeds])

    def test_what_goes_wrong_is_an_error_that_says_so(self):
        for deeds, text in (
                ("sys.exit(3)", "has ended: exit status 3"),
                ("say(b'{\"ok\":tr'); sys.exit(1)", "has ended: exit status 1"),
                ("request()", "does not answer"),
                ("for _ in range(40): say(b' '); time.sleep(0.05)\nsay(OK)", "does not answer"),
                (f"say(b'x' * {LONGEST_LINE}); request()", "too long"),
                ("say(b'{\\n')", "not JSON"), ("say(b'[1]\\n')", "not a control reply"),
                ("say(b'{\"ok\":1,\"message\":\"m\"}\\n')", "not a control reply")):
            with self.subTest(deeds), self.session(deeds) as session:
                with self.assertRaisesRegex(SessionError, text):
                    session.request("status", timeout=1.5)
                with self.assertRaisesRegex(SessionError, "session is over: .*" + text):
                    session.request("auto")

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
