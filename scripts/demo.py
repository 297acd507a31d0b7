#!/usr/bin/env python3
"""Shows the helper at work on a simulated Mac that gets busy.

Prints one sample as JSON, then holds a session like any monitor: switches profiles while the
machine heats up, shows temperatures, fans and targets live, applies a power plan and undoes it. At
the end there is a page with the curves of the run, and the samples as a table beside it.
"""

import argparse
import contextlib
import os
import pathlib
import signal
import subprocess
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
sys.path.insert(0, str(ROOT / "tests/endtoend"))
os.environ.setdefault("FEROVANE_BIN", str(ROOT / "build/release/bin"))

from simulated import BIN, HELPER, MONITOR, TOOL, Mac  # noqa: E402
from control_client import ControlSession, SessionError  # noqa: E402
from demo_page import page  # noqa: E402
from demo_recording import DemoFailed, Recording, Sampler, apart  # noqa: E402
from demo_steps import Steps  # noqa: E402
from demo_view import View  # noqa: E402

SPEED = 20  # times faster than the clock: a heat sink that takes a minute takes three seconds
QUIET_LOAD = 15  # percent
SLICE_SECONDS = 0.1  # after which an interrupt is noticed
GUARDIAN_SECONDS = 5.0
INTERRUPTED = 130  # the exit status of what Ctrl-C ended


class Interrupts:
    """Whether the demo was told to stop. A signal only sets a flag, so that no request to the
    helper is ever broken off in the middle."""

    def __init__(self):
        self.asked = False
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            signal.signal(number, self._ask)

    def _ask(self, *unused):
        self.asked = True


def arguments():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--model", default="MacBookPro16,1",
                        help="a name of `simulated-mac models`")
    parser.add_argument("--seconds", type=float, default=50, help="how long the session lives")
    parser.add_argument("--output", type=pathlib.Path, default=ROOT / "build/demo/run.html",
                        help="the page; the table stands beside it")
    options = parser.parse_args()
    if not 5 <= options.seconds <= 3600:
        parser.error("--seconds: 5 to 3600")
    if options.output.suffix == ".csv":
        parser.error("--output: the page; the table gets the same name with .csv")
    return options


def become_root():
    """The helper serves a session only as root. A user namespace in which this user is root will
    do: nothing but the simulated machine is touched."""
    if os.geteuid() == 0:
        return
    with contextlib.suppress(OSError):
        if subprocess.run(["unshare", "--map-root-user", "true"],
                          stderr=subprocess.DEVNULL).returncode == 0:
            os.execvp("unshare", ["unshare", "--map-root-user", sys.executable, *sys.argv])


def open_session(mac, ending, errors):
    if os.geteuid() != 0:
        print("Not started as root, and no user namespace can be had: the session is left out, the "
              "fans stay automatic. Try: sudo scripts/demo\n", flush=True)
        return None
    return ending.enter_context(ControlSession([HELPER], errors=errors, spawn=apart(mac)))


def run(sampler, steps, recording, view, options, interrupts, now):
    """Until the time is over: a sample a second, and each step when it is due."""
    due = [(share * options.seconds, step) for share, step in steps.plan()]
    first = None
    while now() < options.seconds and not interrupts.asked:
        while due and now() >= due[0][0]:
            due.pop(0)[1]()
        line = sampler.next_line(SLICE_SECONDS)
        if line is None:
            if not sampler.alive:
                raise DemoFailed("the example monitor has ended")
            continue
        # Samples come a second apart, however late the pipe was looked at.
        first = now() if first is None else first
        recording.samples.append((first + len(recording.samples), line))
        reply = steps.status()
        view.draw(now(), line, reply)


def hold_session(mac, recording, table, options, interrupts):
    """The whole session, its end included; returns whether there is a table."""
    start = time.monotonic()

    def now():
        return time.monotonic() - start

    view = View(recording.state["model"], options.seconds)
    with tempfile.TemporaryFile() as errors, contextlib.ExitStack() as ending:
        session = open_session(mac, ending, errors)
        steps = Steps(mac, session, recording, view.tell, now)
        recording.modes.append((0.0, "automatic", "系统自动"))
        sampler = Sampler(mac, int(options.seconds) + 60, table)
        try:
            run(sampler, steps, recording, view, options, interrupts, now)
            steps.leave_as_found()
            recording.seconds = now()
            if session is not None:
                view.tell(f"shutdown: {session.shut_down()['message']}")
        finally:
            recording.seconds = recording.seconds or now()
            have_table = sampler.stop()
            ending.close()  # the helper has ended, and with it all that it held
            view.close()
            errors.seek(0)
            sys.stderr.write(errors.read().decode(errors="replace"))
    return have_table


def fans_left_manual(state):
    """The ids of the fans that the system does not drive itself."""
    return [fan["id"] for fan in state["fans"]
            if fan["manual"] or fan["holder"] != "system" or state["unlocked"]
            or state["forcedMask"] >> fan["id"] & 1]


def prove(mac, recording, patience):
    """Says, from the simulator's own books, in what state the machine was left; `patience` seconds
    are for the guardian of a helper that was killed."""
    deadline = time.monotonic() + patience
    state = mac.state()
    while fans_left_manual(state) and time.monotonic() < deadline:
        time.sleep(SLICE_SECONDS)
        state = mac.state()
    recording.still_manual = fans_left_manual(state)
    print()
    if recording.still_manual:
        print(f"NOT AUTOMATIC: fans {recording.still_manual} (simulated-mac show --json)")
    elif state["fans"]:
        speeds = ", ".join(f"{fan['rpm']:.0f} RPM" for fan in state["fans"])
        print(f"Every fan is automatic, held by the system: {len(state['fans'])} of "
              f"{len(state['fans'])} ({speeds}; simulated-mac show --json)")
    else:
        print("This machine has no fans.")


def demonstrate(mac, options, interrupts):
    print(f"$ simulated-mac run MACHINE -- {HELPER.name} probe\n")
    print(mac.tool("run", mac.path, "--", HELPER, "probe"), flush=True)
    recording = Recording(mac.state())
    options.output.parent.mkdir(parents=True, exist_ok=True)
    table = options.output.with_suffix(".csv")
    failure = None
    try:
        have_table = hold_session(mac, recording, table, options, interrupts)
    except (DemoFailed, SessionError) as error:
        failure, have_table = str(error), False
    prove(mac, recording, GUARDIAN_SECONDS if failure else 0)
    if have_table and len(recording.samples) > 1:
        options.output.write_text(page(recording, table.read_text()), encoding="utf-8")
        print(f"Page:  {options.output}\nTable: {table}")
    if failure:
        raise DemoFailed(failure)
    if recording.still_manual:
        return 1
    return INTERRUPTED if interrupts.asked else 0


def main():
    interrupts = Interrupts()
    options = arguments()
    become_root()
    try:
        for program in (TOOL, HELPER, MONITOR):
            if not program.is_file():
                raise DemoFailed(f"{BIN} holds no {program.name}; scripts/build makes it")
        with Mac(options.model, "ac=1", f"load={QUIET_LOAD}", f"speed={SPEED}",
                 "turbo-applications=pro", "extension-approval=approved") as mac:
            return demonstrate(mac, options, interrupts)
    except BrokenPipeError:  # whoever read our output has had enough
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        return 1
    except (DemoFailed, OSError) as error:
        print(f"demo: {error}", file=sys.stderr)
        return 1
    except subprocess.CalledProcessError as error:
        print(f"demo: {error.stderr.strip()}", file=sys.stderr)
        return 1


if __name__ == "__main__":
    sys.exit(main())
