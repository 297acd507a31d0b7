"""The published schemas, as an independent validator reads them, beside what the helper takes and says:
random sessions on several machines, with every message also broken."""

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
COMMANDS = ("hello", "status", "profile", "profile", "auto", "turbo-disable", "turbo-enable", "test-fans",
            "power-optimize", "power-restore", "power-restore")
# What a schema cannot say: bytes of UTF-8, one item against the next, how a number is written, leap
# years.
BEYOND = "^(模式名称|请求编号)过长|^温度控制点至少间隔|超出数值范围$|不是有效的日期$"
ODD = (None, True, False, 0, -1, 1, 3, 0.5, 241, 1801, 2**31, 1e17, -2**63 - 1, "", "x", "profile", "custom",
       "风" * 27, "a" * 81, [], {}, ["ac"], {"a": 1}, {"points": []}, CURVE, PLAN, "2023-02-29T00:00:00Z",
       "2024-13-01T00:00:00Z", "2024-06-31T00:00:00Z")
BACKUP = {"id": "0123abcd-EF45-6789-abcd-ef0123456789", "date": 1.5, "turboBefore": None,
          "edits": [{"source": "ac", "key": "sleep", "before": 240, "after": 0}]}


def a_curve(dice):
    points = dice.randint(2, 8)
    percents = sorted(dice.choice((0, 12.5, 40, 99, 100)) for _ in range(points - 1)) + [100]
    temperatures = sorted(dice.sample(range(30, 91, 2), points))
    return {"points": [{"temperature": t, "percent": p} for t, p in zip(temperatures, percents)],
            "sensor": dice.choice(("CPU", "GPU", "CPU / GPU 较高温"))}


def a_request(dice, backup):
    """Not always one that goes together."""
    expected = ([], ["battery", []], ["ac", ["sleep", 30, "displaysleep", 20], "battery", ["sleep", 5]])
    likely = {"profile": "profile", "power-optimize": "powerPlan", "power-restore": "powerBackup"}
    members = {
        "profile": ("automatic", "eco", "performance", "balanced", "quiet", "custom", "custom", "none"),
        "curve": (CURVE, a_curve(dice), a_curve(dice), None), "later": ({"a": [1]}, None),
        "duration": (0.001, 60, 1800, None), "label": ("", "夜间" * 13, "a" * 80, None),
        "powerPlan": (PLAN, {**PLAN, "displayMinutes": None, "idleMinutes": 10.0}, {
            **PLAN, "scope": "batteryAutomatic", "expected": {"profiles": dice.choice(expected)}}),
        "powerBackup": (BACKUP, backup), "id": (7, 2**63 - 1, "风" * 21 + "a", None)}
    command = dice.choice(COMMANDS)
    return {"command": command, **{
        name: dice.choice(values) for name, values in members.items()
        if dice.random() < (0.9 if name in (likely.get(command), "curve") else 0.1)}}


def places(message):
    """Every place in a message: the container and the key or index."""
    for key, value in list(message.items() if isinstance(message, dict) else enumerate(message)):
        yield message, key
        if isinstance(value, (dict, list)):
            yield from places(value)


def broken(dice, message, odd):
    message = copy.deepcopy(message) or {"FNum": 0}
    for within, key in dice.choices(list(places(message)), k=dice.randint(1, 2)):
        if isinstance(within, dict) and key not in within or isinstance(within, list) and key >= len(within):
            continue  # the first deed took it away
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
            within[key] = copy.deepcopy(dice.choice(odd))
    return message


@needs_root
class SchemaTest(unittest.TestCase):
    def setUp(self):
        for schema in SCHEMAS.values():
            schema.check_schema(schema.schema)
        self.dice = random.Random(SEED)
        self.counts = collections.Counter()
        self.judge = subprocess.Popen([BIN / "message-judge"], stdin=subprocess.PIPE,
                                      stdout=subprocess.PIPE, text=True)
        self.addCleanup(self.judge.communicate)

    def refusal(self, name, message):
        """What the library says of a message; the schema has to agree."""
        self.judge.stdin.write(f"{name} {json.dumps(message, ensure_ascii=False)}\n")
        self.judge.stdin.flush()
        refusal, valid = self.judge.stdout.readline().rstrip("\n"), SCHEMAS[name].is_valid(message)
        if refusal and valid:
            self.assertRegex(refusal, BEYOND, message)
            self.counts["beyond", re.search(BEYOND, refusal)[0]] += 1
        else:
            self.assertEqual(valid, not refusal, f"seed {SEED}, {name}: {refusal} {message}")
            self.counts["accepted" if valid else "refused", name] += 1
        return refusal

    def said(self, name, message):
        """The helper reads null as an absent member but writes none, so these schemas know none."""
        self.assertEqual(self.refusal(name, message), "", message)
        self.refusal(name, broken(self.dice, message, ODD[1:]))
        return message

    def hold(self, mac, session, requests):
        backup = BACKUP
        for _ in range(requests):
            request = a_request(self.dice, backup)
            request = broken(self.dice, request, ODD) if self.dice.random() < 0.3 else request
            refusal = self.refusal("ControlRequest", request)
            reply = self.said("ControlReply", session.exchange(request))
            if refusal:
                self.assertEqual((reply["ok"], reply["message"]), (False, refusal), request)
            if "id" in reply:
                self.assertEqual((reply["id"], reply["code"] == "invalid"), (request["id"], bool(refusal)))
                self.assertIn(reply["code"], SCHEMAS["ControlReply"].schema["properties"]["code"]["examples"])
            backup = reply.get("power", {}).get("backup", backup)
        for name, word in (("Snapshot", "probe"), ("FanProbe", "fan-probe")):
            self.said(name, json.loads(mac.run(word).stdout))

    def test_schemas_and_helper_agree(self):
        while sum(n for (what, _), n in self.counts.items() if what == "accepted") < MESSAGES:
            with Mac(self.dice.choice(MODELS), "load=30", "speed=20", "ac:displaysleep=20", "ac:sleep=30",
                     f"ac={self.dice.randint(0, 1)}", "extension-approval=approved") as mac, \
                    Owner() as owner, session_on(mac, owner) as session, session.process.stderr:
                self.hold(mac, session, 30)
        print(f"seed {SEED}:", dict(self.counts))


if __name__ == "__main__":
    unittest.main()
