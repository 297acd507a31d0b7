"""A simulated Mac in a directory, an owner process, and the helper as a process: what it does, and
what it uses."""

import json
import os
import pathlib
import re
import signal
import subprocess
import sys
import tempfile
import time
import unittest
import uuid

BIN = pathlib.Path(os.environ["FEROVANE_BIN"])
# On macOS the product drives the real fans and settings, whatever machine it is told of; there these
# tests run the helper that is linked with the simulated one.
HELPER = BIN / ("FerovaneHelperSimulated" if sys.platform == "darwin" else "FerovaneHelper")
MONITOR = BIN / ("monitor-example-simulated" if sys.platform == "darwin" else "monitor-example")
TOOL = BIN / "simulated-mac"
OWNER_UID = 24680  # anybody but root
WAIT_SECONDS = 30

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "client"))

from control_client import ControlSession  # noqa: E402

MANAGED = "风扇由系统管理"
CONFIRMED = "控制已确认生效"
CURVE = {"points": [{"temperature": 30, "percent": 40}, {"temperature": 90, "percent": 100}],
         "sensor": "CPU"}
PLAN = {"source": "ac", "scope": "current", "lowPower": False, "displayMinutes": 5,
        "idleMinutes": 10, "disableTurbo": True}
STOPS = (signal.SIGTERM, signal.SIGINT, signal.SIGHUP)

# A shell without job control has them ignored in what it starts in the background, and an ignored
# signal is inherited.
for _inherited in (signal.SIGINT, signal.SIGQUIT):
    if signal.getsignal(_inherited) == signal.SIG_IGN:
        signal.signal(_inherited, signal.SIG_DFL)

needs_root = unittest.skipUnless(os.geteuid() == 0, "changing fans needs root")


def eventually(condition, seconds=WAIT_SECONDS):
    """Waits for something that another process does; tells whether it came true."""
    deadline = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > deadline:
            return False
        time.sleep(0.005)
    return True


class Mac:
    def __init__(self, model, *settings, made_from="--model"):
        self._folder = tempfile.TemporaryDirectory(prefix="ferovane-test-")
        os.chmod(self._folder.name, 0o755)
        self.path = os.path.join(self._folder.name, "mac")
        self.model = model
        self.tool("create", self.path, made_from, model, *settings)

    def __enter__(self):
        return self

    def __exit__(self, *unused):
        self._folder.cleanup()

    @staticmethod
    def tool(*arguments):
        return subprocess.run([TOOL, *map(str, arguments)], check=True, capture_output=True,
                              text=True, start_new_session=True).stdout

    def set(self, *settings):
        self.tool("set", self.path, *settings)

    def fault(self, *words):
        self.tool("fault", self.path, *words)

    def write(self, key, value):
        self.tool("write", self.path, key, value)

    def journal(self):
        return self.tool("journal", self.path).splitlines()

    def writes(self):
        return self.tool("journal", self.path, "--writes").split()

    def log(self):
        """What the helper told the machine's log."""
        return [line.split(" log ", 1)[1] for line in self.journal() if " log " in line]

    def state(self):
        return json.loads(self.tool("show", self.path, "--json"))

    def fans(self):
        return self.state()["fans"]

    def automatic(self):
        state = self.state()
        unlocked = state["keys"].get("Ftst") not in (None, 0)
        return not unlocked and not any(fan["manual"] for fan in state["fans"])

    def held(self):
        return all(fan["manual"] for fan in self.fans())

    def environment(self):
        return {**os.environ, "FEROVANE_SIMULATED_MAC": self.path}

    def run(self, *words, user=None, timeout=WAIT_SECONDS, **options):
        options = {"stdout": subprocess.PIPE, "stderr": subprocess.PIPE, **options}
        return subprocess.run([HELPER, *map(str, words)], env=self.environment(), text=True,
                              timeout=timeout, user=user, **options)

    def spawn(self, command, **options):
        return subprocess.Popen([*map(str, command)], env=self.environment(), **options)

    def start(self, *words, **options):
        return self.spawn([HELPER, *words], text=True, stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, **options)


class Owner:
    """The process on whose behalf the helper acts; a user's, not root's."""

    def __init__(self, seconds=600, uid=OWNER_UID):
        self.process = subprocess.Popen(["sleep", str(seconds)], user=uid)
        self.words = (self.process.pid, uid)

    def kill(self):
        self.process.kill()
        self.process.wait()

    def __enter__(self):
        return self

    def __exit__(self, *unused):
        self.kill()


def lease(command, owner, session=None):
    """The words that start a lease for its owner."""
    words = [command, *owner.words, *([] if command == "serve" else [session or uuid.uuid4()])]
    return words + (["balanced", "-"] if command == "profile" else [])


def session_on(mac, owner, helper=HELPER):
    """A session of the owner's: root by effect, the owner's user by authorisation."""
    def spawn(command, **popen):
        return mac.spawn(command, preexec_fn=lambda: os.setresuid(OWNER_UID, 0, 0), **popen)
    return ControlSession([helper], *owner.words, errors=subprocess.PIPE, spawn=spawn)


def end(session):
    """Ends a session; its exit status."""
    status = session.close()
    session.process.stderr.close()
    return status


def finish(process, timeout=WAIT_SECONDS):
    """Waits for a helper; its exit status and both outputs."""
    output, errors = process.communicate(timeout=timeout)
    return process.returncode, output, errors


def number_of(path, name):
    """The number that stands behind a name in a file of /proc."""
    with open(path, encoding="utf-8", errors="replace") as file:
        return int(re.search(rf"^{name}:\s*(\d+)", file.read(), re.M)[1])


class ProcessFigures:
    """Kibibytes and counts of this moment."""

    def __init__(self, pid):
        memory = f"/proc/{pid}/smaps_rollup"
        self.private = number_of(memory, "Private_Clean") + number_of(memory, "Private_Dirty")
        # What no file stands behind, shared with a guardian or not: all that a leak can add to.
        self.anonymous = number_of(memory, "Anonymous")
        self.descriptors = len(os.listdir(f"/proc/{pid}/fd"))
        self.threads = len(os.listdir(f"/proc/{pid}/task"))
        self.children = len(children_of(pid))


def uses_sanitizer(pid):
    """Their shadow takes terabytes of addresses, and freed memory is kept back for long."""
    return number_of(f"/proc/{pid}/status", "VmSize") > 1 << 30


def wake_ups(pid):
    """Times so far that a thread of the process waited and was woken."""
    return sum(number_of(f"/proc/{pid}/task/{thread}/status", "voluntary_ctxt_switches")
               for thread in os.listdir(f"/proc/{pid}/task"))


def processes_with(files, text):
    """Every process, zombies apart, in one of whose files of /proc the text stands."""
    found = []
    for pid in filter(str.isdigit, os.listdir("/proc")):
        try:
            if any(text.encode() in pathlib.Path("/proc", pid, file).read_bytes()
                   for file in files):
                found.append(int(pid))
        except OSError:
            continue  # gone, or nobody's to read
    return found


def processes_attached(mac):
    return processes_with(["environ"], f"FEROVANE_SIMULATED_MAC={mac.path}\0")


def children_of(pid):
    listed = [pathlib.Path(f"/proc/{pid}/task/{thread}/children").read_text().split()
              for thread in os.listdir(f"/proc/{pid}/task")]
    return [int(child) for children in listed for child in children]
