"""What is known of a run: samples, what the session said, and what was done; all in seconds since
the run began."""

import functools
import json
import os
import selectors
import signal
import subprocess

from simulated import MONITOR
LONGEST_LINE = 1 << 20  # bytes; a sample has some two thousand
STOP_SECONDS = 5.0
APPLE_SILICON = "Apple Silicon"  # the controller of such a machine, in the simulator's words


class DemoFailed(Exception):
    """The demo cannot go on; the text says why."""


def apart(mac):
    """Starts programs on the machine that an interrupt typed at the terminal does not reach: the
    demo alone decides when they end."""
    return functools.partial(mac.spawn, start_new_session=True)


class Recording:
    def __init__(self, state):
        self.state = state  # of the machine, as its simulator shows it
        self.samples = []  # (seconds, line of the sampler)
        self.statuses = []  # (seconds, reply of the session)
        self.modes = []  # (seconds, command word, what the user reads)
        self.events = []  # (seconds, what happened, in the user's words)
        self.still_manual = None  # ids of fans, once the session has ended
        self.seconds = 0.0

    def mode_spans(self):
        """(from, to, word, title) of each mode."""
        ends = [start for start, _, _ in self.modes[1:]] + [self.seconds]
        return [(start, end, word, title) for (start, word, title), end in zip(self.modes, ends)]

    def temperatures(self, member):
        return [(t, line[member]) for t, line in self.samples if member in line]

    def fan_ids(self):
        return sorted({fan["id"] for _, line in self.samples for fan in line["fans"]})

    def speeds(self, fan_id):
        return [(t, fan["rpm"]) for t, line in self.samples for fan in line["fans"]
                if fan["id"] == fan_id and "rpm" in fan]

    def targets(self, fan_id):
        """(seconds, rpm), the speed None where the session holds no target."""
        return [(t, targets_in(reply).get(fan_id)) for t, reply in self.statuses]

    def findings(self):
        """(first seconds, last seconds, last text) of all that the diagnosis found."""
        found = {}
        for t, line in self.samples:
            for finding in line["findings"]:
                first = found.get(finding["id"], (t,))[0]
                found[finding["id"]] = (first, t, finding["text"])
        return sorted(found.values())

    def lease_spans(self):
        """(from, to, what a lease would meet) of each stretch in which that was the same."""
        spans = []
        for t, line in self.samples:
            text = lease_text(line)
            if spans and spans[-1][2] == text:
                spans[-1][1] = t
            else:
                spans.append([t, t, text])
        return spans


def obstacle_text(obstacle):
    fan = f"风扇 {obstacle['fan'] + 1}：" if "fan" in obstacle else ""
    read = f"（{obstacle['key']} 为 {obstacle['value']:g}）" if "value" in obstacle else ""
    return f"{fan}{obstacle['title']}{read}"


LEASE_TITLES = {"cooling": "全速散热", "curve": "风扇曲线"}


def lease_text(line):
    """What is in the way of taking the fans, and what either kind of lease would say to it."""
    refused = [lease for lease in line["leases"] if "message" in lease]
    if not refused:
        return "可以控制"
    obstacles, answers = [], []
    for lease in refused:
        obstacles += [text for text in map(obstacle_text, lease["obstacles"])
                      if text not in obstacles]
        answers.append(f"{LEASE_TITLES[lease['lease']]}{'将' if lease['certain'] else '可能'}"
                       f"答复“{lease['message']}”")
    free = "" if len(refused) == len(line["leases"]) else "；另一种会话可以开始"
    return f"{'；'.join(obstacles)}。{'，'.join(answers)}{free}"


def targets_in(reply):
    status = reply.get("fanStatus") or {"targets": []}
    return {target["id"]: target["rpm"] for target in status["targets"]}


class Sampler:
    """The example monitor on the machine: one line of JSON a second, a table at its end."""

    def __init__(self, mac, seconds, table):
        self._process = apart(mac)([MONITOR, seconds, table], stdout=subprocess.PIPE, bufsize=0)
        self._output = self._process.stdout.fileno()
        os.set_blocking(self._output, False)
        self._selector = selectors.DefaultSelector()
        self._selector.register(self._output, selectors.EVENT_READ)
        self._received = b""

    def next_line(self, timeout):
        """The next sample, or None when there is none within `timeout` seconds."""
        if b"\n" not in self._received and self._selector.select(timeout):
            self._received += os.read(self._output, LONGEST_LINE)
        if b"\n" not in self._received:
            return None
        line, _, self._received = self._received.partition(b"\n")
        return json.loads(line)

    @property
    def alive(self):
        return self._process.poll() is None

    def stop(self):
        """Ends it; returns whether it has written its table."""
        if self.alive:
            self._process.send_signal(signal.SIGTERM)
        try:
            status = self._process.wait(STOP_SECONDS)
        except subprocess.TimeoutExpired:
            self._process.kill()
            status = self._process.wait()
        self._selector.close()
        self._process.stdout.close()
        return status == 0
