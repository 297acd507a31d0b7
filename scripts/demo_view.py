"""The run in the terminal: one block of lines redrawn in place, or a line a second elsewhere."""

import os
import shutil
import sys
import unicodedata

from demo_recording import lease_text, targets_in

BAR_CELLS = 24


def cells(text):
    """How many columns of a terminal a text takes."""
    return sum(2 if unicodedata.east_asian_width(c) in "WF" else 1 for c in text)


def cut(text, width):
    while cells(text) > width:
        text = text[:-1]
    return text


def clock(seconds):
    return f"{int(seconds) // 60:02d}:{int(seconds) % 60:02d}"


def number(value, unit, digits=0):
    return "–" if value is None else f"{value:.{digits}f} {unit}"


def turbo_text(reply):
    return {0: "on", 1: "off"}.get(reply.get("turbo"), "unknown")


def mode_text(reply):
    if not reply.get("session"):
        return "automatic"
    return f"{reply['profile']}  {reply['label']}"


def remaining_text(reply):
    status = reply.get("fanStatus")
    return clock(status["remainingSeconds"]) if status else "–"


def bar(fan):
    low, high, rpm = fan.get("minimum"), fan.get("maximum"), fan.get("rpm")
    if low is None or high is None or rpm is None or high <= low:
        return ""
    filled = round(min(max((rpm - low) / (high - low), 0), 1) * BAR_CELLS)
    return "█" * filled + "░" * (BAR_CELLS - filled)


class View:
    def __init__(self, model, seconds):
        self._model = model
        self._seconds = seconds
        self._terminal = sys.stdout.isatty() and os.environ.get("TERM", "dumb") != "dumb"
        self._block = []  # the lines that stand on the terminal, below all others

    def tell(self, text):
        """One line that stays, above the block."""
        block = self._block
        self._erase()
        print(text)
        self._show(block)

    def draw(self, elapsed, line, reply):
        if not self._terminal:
            print("   ".join([*self._lines(elapsed, line, reply)][1:]), flush=True)
            return
        width = shutil.get_terminal_size().columns - 1
        self._erase()
        self._show([cut(text, width) for text in self._lines(elapsed, line, reply)])

    def close(self):
        """What stands there stays."""
        self._block = []

    def _show(self, block):
        for text in block:
            print(text)
        sys.stdout.flush()
        self._block = block

    def _erase(self):
        if self._block:
            sys.stdout.write(f"\x1b[{len(self._block)}F\x1b[J")
            self._block = []

    def _lines(self, elapsed, line, reply):
        targets = targets_in(reply)
        power = next((row for row in line["common"] if row["id"].startswith("power:")), {})
        yield ""
        yield f"{self._model}   {clock(elapsed)} of {clock(self._seconds)}   Ctrl-C ends it"
        yield (f"mode {mode_text(reply)}   left {remaining_text(reply)}   "
               f"turbo {turbo_text(reply)}{self._protection(reply)}")
        yield (f"CPU {number(line.get('cpuTemperature'), '°C', 1)}   "
               f"GPU {number(line.get('gpuTemperature'), '°C', 1)}   "
               f"machine {number(power.get('value'), 'W', 1)}")
        for fan in line["fans"]:
            yield (f"fan {fan['id']}  {number(fan.get('rpm'), 'RPM'):>8}  {bar(fan)}  "
                   f"target {number(targets.get(fan['id']), 'RPM')}")
        yield f"helper     {reply.get('message', 'no session')}"
        found = "；".join(finding["text"] for finding in line["findings"])
        yield f"new lease  {lease_text(line)}"
        yield f"diagnosis  {line['diagnosis']}{'：' if found else ''}{found}"

    @staticmethod
    def _protection(reply):
        protecting = (reply.get("fanStatus") or {}).get("protectionActive")
        return "   temperature protection" if protecting else ""
