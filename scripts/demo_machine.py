"""A simulated Mac in a temporary directory, and the programs that run on it."""

import json
import pathlib
import shutil
import subprocess
import sys
import tempfile

# On macOS the product's own programs talk to the real machine; those linked with the simulated one
# have names of their own.
ON_MACOS = sys.platform == "darwin"
HELPER = "FerovaneHelperSimulated" if ON_MACOS else "FerovaneHelper"
MONITOR = "monitor-example-simulated" if ON_MACOS else "monitor-example"
TOOL_SECONDS = 30.0


class DemoFailed(Exception):
    """The demo cannot go on; the text says why."""


def spawn(command, **options):
    """Starts a program that an interrupt typed at the terminal does not reach: the demo alone
    decides when its programs end."""
    return subprocess.Popen([str(word) for word in command], start_new_session=True, **options)


class SimulatedMac:
    """Removed, with all that is in it, at the end of the `with` block."""

    def __init__(self, binaries, model):
        self.binaries = pathlib.Path(binaries)
        for name in ("simulated-mac", HELPER, MONITOR):
            if not (self.binaries / name).is_file():
                raise DemoFailed(f"{self.binaries} holds no {name}; scripts/build makes it")
        self._folder = tempfile.mkdtemp(prefix="ferovane-demo-")
        self.path = pathlib.Path(self._folder) / "mac"
        try:
            self._tool("create", self.path, "--model", model)
        except BaseException:
            self.remove()
            raise

    def set(self, **values):
        """Changes the world: load=60, turbo_applications="pro"."""
        words = [f"{name.replace('_', '-')}={value}" for name, value in values.items()]
        self._tool("set", self.path, *words)

    def state(self):
        """The machine as its simulator knows it, whatever any program reports."""
        return json.loads(self._tool("show", self.path, "--json"))

    def command(self, name, *arguments):
        """The command that runs one of our programs attached to this machine."""
        return [self.binaries / "simulated-mac", "run", self.path, "--", self.binaries / name,
                *arguments]

    def output(self, name, *arguments):
        return self._text(self.command(name, *arguments))

    def _tool(self, *words):
        return self._text([self.binaries / "simulated-mac", *words])

    def _text(self, command):
        process = spawn(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        try:
            output, errors = process.communicate(timeout=TOOL_SECONDS)
        except subprocess.TimeoutExpired:
            process.kill()
            process.communicate()
            raise DemoFailed(f"{pathlib.Path(command[0]).name} does not end") from None
        if process.returncode != 0:
            raise DemoFailed(errors.decode(errors="replace").strip() or f"{command[0]} failed")
        return output.decode()

    def remove(self):
        shutil.rmtree(self._folder, ignore_errors=True)

    def __enter__(self):
        return self

    def __exit__(self, *unused):
        self.remove()


def fans_left_manual(state):
    """The ids of the fans that the system does not drive itself."""
    return [fan["id"] for fan in state["fans"]
            if fan["manual"] or fan["holder"] != "system" or state["unlocked"]
            or state["forcedMask"] >> fan["id"] & 1]
