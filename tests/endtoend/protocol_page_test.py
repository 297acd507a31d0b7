"""The examples of docs/protocol.md are what the helper says, and its table of codes is the enumeration."""

import json
import pathlib
import re
import unittest

from simulated import Mac, Owner, needs_root, session_on

ROOT = pathlib.Path(__file__).resolve().parents[2]
PAGE = (ROOT / "docs/protocol.md").read_text(encoding="utf-8")
UUID = "[0-9A-F]{8}(-[0-9A-F]{4}){3}-[0-9A-F]{12}"


def steady(text):
    """Without what differs from one run to the next."""
    return re.sub(rf'{UUID}|(?<=:)\d+\.\d+|(?<="rpm":)\d+', "~", text)


@needs_root
class ProtocolPageTest(unittest.TestCase):
    def test_its_examples_are_what_is_said(self):
        blocks = re.findall(r"^```session\n(.*?)^```", PAGE, re.M | re.S)
        with Mac("MacBookPro16,1", "load=30", "speed=20", "ac=1", "ac:displaysleep=20", "ac:sleep=30",
                 "extension-approval=approved") as mac, Owner() as owner, \
                session_on(mac, owner) as session:
            self.said = []
            for line in "".join(blocks).splitlines():
                if not line.startswith("< "):
                    self.said.append(line)
                    self.said.append("< " + self.answer(mac, session, line))
            self.assertEqual(steady("\n".join(self.said)), steady("".join(blocks).rstrip()),
                             "\n".join(self.said))

    @staticmethod
    def answer(mac, session, line):
        if line.startswith("$ "):
            return mac.run(*line.split()[1:]).stdout.rstrip()
        session.send_line(line[2:].encode() + b"\n")
        return json.dumps(session.read_reply(), ensure_ascii=False, separators=(",", ":"))

    def test_its_codes_are_the_codes(self):
        source = (ROOT / "core/model/result_code.h").read_text(encoding="utf-8")
        words = {"none": "none", "giveUp": "give up", "askUser": "ask the user", "retry": "retry"}
        codes = [(code, words[advice])
                 for code, advice in re.findall(r'\{ResultCode::\w+, "(.*)", Advice::(\w+)\}', source)]
        self.assertEqual(re.findall(r"^\| `([a-z-]+)` \| .* \| (none|retry|give up|ask the user) \|$",
                                    PAGE, re.M), codes)


if __name__ == "__main__":
    unittest.main()
