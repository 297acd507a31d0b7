"""Requests as fast as they are answered, each reply held against the request it must belong to.

A reply carries no number. A request that names an unknown member twice is refused by that name, so
a name with a number in it comes back and shows which request was answered; between those, every
reply must be one that its own request could have had.
"""

import collections
import json
import random
import time

MANAGED = "风扇由系统管理"
CONFIRMED = "控制已确认生效"
CUSTOM_LABEL = "独立风扇策略"
UNRETURNED = "恢复自动风扇失败"
INTEL_ONLY = "Apple Silicon 当前仅支持独立风扇控制，不支持 Intel 睿频或电源设置控制"
CURVE = {"points": [{"temperature": 30, "percent": 40}, {"temperature": 90, "percent": 100}],
         "sensor": "CPU"}
LONGEST_BURST = 32
SLOW_SHARE = 0.02  # of the bursts end in a request that takes fans, tools or settings

# What is wrong with a request is told before anything is done.
REFUSED = (
    ({"command": "fly"}, "未知控制命令"),
    ({"command": "status", "duration": 0}, "无效控制时长"),
    ({"command": "status", "label": "模" * 27}, "模式名称过长"),
    ({"command": "profile"}, "无效模式"),
    ({"command": "profile", "profile": "custom"}, "缺少曲线"),
    ({"command": "power-optimize"}, "缺少优化方案"),
    ({"command": "auto", "powerPlan": {"source": "ac", "scope": "current", "lowPower": False,
                                       "displayMinutes": 5, "disableTurbo": False}},
     "电源方案命令不匹配"),
)
REFUSALS = {message for _, message in REFUSED}


class WrongReply(AssertionError):
    pass


class Conversation:
    def __init__(self, session, seed, apple_silicon):
        self.session = session
        self.requests = 0
        self.replies = 0
        self.numbered = 0
        self.slowest = 0.0  # seconds from sending a burst to its last reply
        self.done = collections.Counter()  # by command: answered ok
        self.failed = collections.Counter()  # by command and message
        self._dice = random.Random(seed)
        self._apple_silicon = apple_silicon
        self._labels = {None}  # a running lease's, as far as it can be known

    def burst(self):
        """Sends some requests at once and reads every reply."""
        pairs = [self._quick() for _ in range(self._dice.randint(1, LONGEST_BURST))]
        if self._dice.random() < SLOW_SHARE:
            pairs.append(self._slow())
        began = time.monotonic()
        self.session.send_line(b"".join(line for line, _ in pairs))
        self.requests += len(pairs)
        for line, check in pairs:
            reply = self.session.read_reply()
            self.replies += 1
            if not check(reply):
                raise WrongReply(f"request {self.requests}: {line} was answered {reply}")
        self.slowest = max(self.slowest, time.monotonic() - began)

    def forget_labels(self):
        """For whoever asks for a lease beside this conversation."""
        self._labels = {None, CUSTOM_LABEL}

    def _quick(self):
        dice = self._dice.random()
        if dice < 0.3:
            self.numbered += 1
            name = f"nr{self.requests}_{self.numbered}"
            return (f'{{"command":"status","{name}":1,"{name}":2}}\n'.encode(),
                    lambda reply: reply == {"ok": False, "message": f"JSON 成员 {name} 重复出现"})
        if dice < 0.4:
            request, message = self._dice.choice(REFUSED)
            return self._line(request), lambda reply: reply == {"ok": False, "message": message}
        command = "hello" if dice < 0.5 else "status"
        return self._line({"command": command}), lambda reply: self._is_state(command, reply)

    def _slow(self):
        name, request = self._dice.choice((
            ("profile", {"command": "profile", "profile": self._dice.choice(
                ("quiet", "balanced", "performance", "eco"))}),
            ("profile", {"command": "profile", "profile": "custom", "curve": CURVE}),
            ("profile", {"command": "profile", "profile": "custom", "curve": CURVE}),
            ("test-fans", {"command": "test-fans"}),
            ("auto", {"command": "auto"}),
            ("turbo", {"command": self._dice.choice(("turbo-enable", "turbo-disable"))}),
            ("power", {"command": "power-optimize", "powerPlan": {
                "source": self._dice.choice(("ac", "battery")), "scope": "current",
                "lowPower": self._dice.random() < 0.5, "disableTurbo": False,
                "displayMinutes": self._dice.choice((2, 5, 10))}}),
        ))
        custom = request.get("profile") == "custom"
        label = CUSTOM_LABEL if custom else f"第 {self.requests} 号"
        if name in ("profile", "test-fans"):
            request["label"] = label
        refused = self._apple_silicon and (
            name in ("turbo", "power") or (name == "profile" and not custom))
        return self._line(request), lambda reply: self._is_outcome(name, label, refused, reply)

    @staticmethod
    def _line(request):
        return json.dumps(request, ensure_ascii=False).encode() + b"\n"

    def _is_state(self, command, reply):
        message = reply["message"]
        if not reply["ok"]:
            self.failed[command, message] += 1
            return UNRETURNED in message
        self.done[command] += 1
        held = message == CONFIRMED and "fanStatus" in reply
        return (held or message == MANAGED) and reply.get("label") in self._labels

    def _is_outcome(self, name, label, refused, reply):
        message = reply["message"]
        if refused:
            return reply == {"ok": False, "message": INTEL_ONLY}
        if name in ("profile", "test-fans"):
            # One that was refused may have left the lease before it, or may still be ending.
            self._labels = {None, label} if reply["ok"] else self._labels | {label}
        if not reply["ok"]:
            self.failed[name, message] += 1
            return message not in REFUSALS and not message.startswith("JSON")
        self.done[name] += 1
        if name in ("profile", "test-fans"):
            return message == CONFIRMED and reply.get("label") in (None, label)
        return name != "auto" or message == MANAGED
