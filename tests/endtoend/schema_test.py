"""The published schemas, as an independent validator reads them, beside what the helper says and takes:
messages of random sessions, and the same ones broken."""

import collections
import copy
import json
import os
import pathlib
import random
import re
import subprocess
import time
import unittest

from jsonschema import Draft202012Validator

from simulated import BIN, CURVE, PLAN, Mac, Owner, needs_root, session_on

FOLDER = pathlib.Path(__file__).resolve().parents[2] / "docs/schemas"
SCHEMAS = {path.name.split(".")[0]: Draft202012Validator(json.loads(path.read_text()))
           for path in FOLDER.iterdir()}
MESSAGES = int(os.environ.get("FEROVANE_SCHEMA_MESSAGES", 200))
SEED = int(os.environ.get("FEROVANE_SCHEMA_SEED", time.time_ns() % 2**32))
MODELS = ("MacBookPro16,1", "MacBookPro11,4", "iMac18,3", "MacPro7,1", "M1Pro", "M4Max", "NoController")
# What a schema cannot say: bytes of UTF-8, one item against the next, how a number is written, leap
# years.
BEYOND = "^模式名称过长|^温度控制点至少间隔|超出数值范围$|不是有效的日期$"
ODD = (None, True, False, 0, -1, 1, 3, 0.5, 241, 1801, 2**31, 1e17, -2**63 - 1, "", "x", "Custom", "profile",
       "custom", "风" * 27, "a" * 81, [], {}, ["ac"], {"a": 1}, {"points": []}, CURVE, PLAN,
       "2023-02-29T00:00:00Z", "2024-13-01T00:00:00Z", "2024-06-31T00:00:00Z")


def a_curve(dice):
    points = dice.randint(2, 8)
    percents = sorted(dice.choice((0, 12.5, 40, 99, 100)) for _ in range(points - 1)) + [100]
    temperatures = sorted(dice.sample(range(30, 91, 2), points))
    return {"points": [{"temperature": t, "percent": p} for t, p in zip(temperatures, percents)],
            "sensor": dice.choice(("CPU", "GPU", "CPU / GPU 较高温"))}


def a_request(dice, backup):
    command = dice.choice(("hello", "status", "status", "profile", "auto", "turbo-disable", "turbo-enable",
                           "test-fans", "power-optimize", "power-restore"))
    request = {"command": command}
    if command == "profile":
        request["profile"] = dice.choice(
            ("automatic", "eco", "performance", "balanced", "quiet", "custom", "custom"))
    if request.get("profile") == "custom" or dice.random() < 0.1:
        request["curve"] = a_curve(dice)
    if command == "power-optimize":
        request["powerPlan"] = {
            "source": dice.choice(("ac", "battery")), "scope": dice.choice(("current", "batteryAutomatic")),
            "lowPower": dice.random() < 0.5, "disableTurbo": dice.random() < 0.5,
            "displayMinutes": dice.choice((2, 5, 10.0, None)), "idleMinutes": dice.choice((5, 10, 15, None))}
        if dice.random() < 0.3:
            request["powerPlan"]["expected"] = {
                "profiles": dice.choice(([], ["battery", [], "ac", ["sleep", 30, "displaysleep", 20]]))}
    if command == "power-restore":
        request["powerBackup"] = backup or {
            "id": "0123abcd-EF45-6789-abcd-ef0123456789", "date": 1.5, "turboBefore": None,
            "edits": [{"source": "ac", "key": "sleep", "before": 240, "after": 0}]}
    for name, values in {"duration": (0.001, 60, 1800, None), "label": ("", "夜间" * 13, "a" * 80, None),
                         "later": ({"a": [1]}, None), "profile": ("none",)}.items():
        if dice.random() < 0.2 and name not in request:
            request[name] = dice.choice(values)
    if command == "profile" and request["profile"] is None:
        del request["profile"]
    return request


def real_messages(dice, each):
    """Without end: pairs of a schema's name and a message, `each` requests on one machine."""
    while True:
        model = dice.choice(MODELS)
        with Mac(model, "load=30", "speed=20", "ac:displaysleep=20", "ac:sleep=30",
                 f"ac={dice.randint(0, 1)}", "extension-approval=approved") as mac, Owner() as owner, \
                session_on(mac, owner) as session, session.process.stderr:
            backup = None
            for i in range(each):
                request = a_request(dice, backup) if i < each - 1 else {"command": "shutdown"}
                yield "ControlRequest", request
                reply = session.exchange(request)
                backup = reply.get("power", {}).get("backup", backup)
                yield "ControlReply", reply
            yield "Snapshot", json.loads(mac.run("probe").stdout)
            yield "FanProbe", json.loads(mac.run("fan-probe").stdout)


def places(message):
    """Every place in a message: the container and the key or index."""
    for key, value in list(message.items() if isinstance(message, dict) else enumerate(message)):
        yield message, key
        if isinstance(value, (dict, list)):
            yield from places(value)


def broken(dice, message):
    message = copy.deepcopy(message)
    for _ in range(dice.randint(1, 2)):
        message = message or {"FNum": 0}
        within, key = dice.choice(list(places(message)))
        deed, value = dice.randrange(5), within[key]
        if deed == 0:
            del within[key]
        elif deed == 1 and isinstance(value, (int, float)):
            within[key] = dice.choice((value + 1, value * 10, -value, value + 0.5))
        elif deed == 2 and isinstance(value, list) and value:
            value.insert(dice.randrange(len(value)), copy.deepcopy(dice.choice(value)))
        elif deed == 3 and isinstance(value, str):
            within[key] = dice.choice((value + "x", value[1:], value.upper()))
        else:
            within[key] = copy.deepcopy(dice.choice(ODD))
    return message


def without_nulls(message):
    """The helper reads a null as an absent member, but writes none, so those schemas know none."""
    if isinstance(message, list):
        return list(map(without_nulls, message))
    if not isinstance(message, dict):
        return message
    return {name: without_nulls(value) for name, value in message.items() if value is not None}


@needs_root
class SchemaTest(unittest.TestCase):
    def setUp(self):
        print("seed", SEED)
        self.dice = random.Random(SEED)
        self.judge = subprocess.Popen([BIN / "message-judge"], stdin=subprocess.PIPE,
                                      stdout=subprocess.PIPE, text=True)
        self.addCleanup(self.judge.wait)
        self.addCleanup(self.judge.stdout.close)
        self.addCleanup(self.judge.stdin.close)
        self.messages = real_messages(self.dice, 20 if MESSAGES <= 200 else 60)
        self.addCleanup(self.messages.close)

    def refusal(self, name, message):
        self.judge.stdin.write(f"{name} {json.dumps(message, ensure_ascii=False)}\n")
        self.judge.stdin.flush()
        return self.judge.stdout.readline().rstrip("\n")

    def test_real_messages_are_accepted(self):
        counts = collections.Counter()
        for _ in range(MESSAGES):
            name, message = next(self.messages)
            counts[name] += 1
            self.assertEqual([error.message for error in SCHEMAS[name].iter_errors(message)], [], message)
            self.assertEqual(self.refusal(name, message), "", message)
        print("accepted:", dict(counts))

    def test_a_broken_message_is_refused_by_both_or_says_why_not(self):
        samples = [next(self.messages) for _ in range(min(MESSAGES // 2, 1000))]
        counts, beyond = collections.Counter(), collections.Counter()
        with Mac("M1Pro") as mac, Owner() as owner, session_on(mac, owner) as session, \
                session.process.stderr:
            while sum(counts.values()) < MESSAGES // 10:
                name, message = self.dice.choice(samples)
                message = broken(self.dice, message)
                message = message if name == "ControlRequest" else without_nulls(message)
                refusal, valid = self.refusal(name, message), SCHEMAS[name].is_valid(message)
                self.assertTrue(refusal or valid, f"only the schema refuses {name} {message}")
                if not refusal:
                    continue
                if valid:
                    self.assertRegex(refusal, BEYOND, f"only the helper refuses {name} {message}")
                    beyond[re.search(BEYOND, refusal)[0]] += 1
                    continue
                counts[name] += 1
                if name == "ControlRequest":
                    reply = session.exchange(message)
                    self.assertEqual((reply["ok"], reply["message"]), (False, refusal), message)
        print("refused:", dict(counts), "beyond the schema:", dict(beyond))


if __name__ == "__main__":
    unittest.main()
