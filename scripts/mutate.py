#!/usr/bin/env python3
"""Takes out of a copy of the sources, one at a time, what keeps the safety promises, and looks
which test notices.

The mutants stand in mutants.txt. The tests that are named beside a mutant run first, then all
others, until one has failed twice. Prints a table; fails when a mutant survives without a reason,
does not build, or no longer matches the sources.
"""

import argparse
import concurrent.futures
import functools
import hashlib
import json
import os
import pathlib
import queue
import re
import resource
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time

ROOT = pathlib.Path(__file__).resolve().parents[1]
LIST = ROOT / "scripts" / "mutants.txt"

# Name in mutants.txt -> test program, or script of process tests. In the order in which they run.
PROGRAMS = {
    "fan": "fan_tests",
    "obstacles": "lease_obstacles_tests",
    "hardware": "hardware_tests",
    "control": "control_tests",
    "power": "power_tests",
    "access": "system_power_access_tests",
    "shim": "shim_tests",
    "answers": "shim_foreign_answers_tests",
    "helper": "helper_tests",
    "faults": "fault_tests",
    "one-shot": "tests/endtoend/one_shot_test.py",
    "session": "tests/endtoend/session_process_test.py",
    "guardian": "tests/endtoend/guardian_test.py",
    "start": "tests/endtoend/inherited_state_test.py",
    "sleep": "tests/endtoend/sleep_test.py",
    "crash": "tests/endtoend/crash_test.py",
}
EXECUTABLES = ["FerovaneHelper", "simulated-mac"]  # what the process tests start

# How far below its anchor a mutant's text may begin: a function is not longer than this.
ANCHOR_LINES = 60
# Of processor time, several times what the slowest of them takes; a mutant may loop.
PROGRAM_SECONDS = {"fault_tests": 600}
OTHER_PROGRAM_SECONDS = 60
BLOCKED_SECONDS = 20  # no test program waits so long and does nothing but look at the clock:
IDLE_SECONDS = 0.3  # less processor time than this
WAITING = 3  # so many times as long by the clock: other work may hold the processors
PROCESS_SECONDS = 180  # by the clock, for process tests: their processor time is spent elsewhere
PROGRAM_BYTES = 3 << 30  # of address space: a mutant may ask for ever more
NO_END = "(does not end)"
LOOPS = "(loops)"
BLOCKED = "(waits for ever)"
NAMED_CASES = 3  # so many cases that caught a mutant are named


class ListError(Exception):
    pass


class Mutant:
    def __init__(self, kind, text, line):
        self.kind, self.text, self.line = kind, text, line
        self.file, self.anchor, self.tests, self.reason = None, None, [], None
        self.old, self.new = [], []

    def where(self):
        return f"{self.file}: {self.anchor}" if self.anchor else self.file

    def apply(self, source):
        """The source with this mutant in it. Lines are compared without their indentation."""
        lines = source.split("\n")
        start, end = 0, len(lines)
        if self.anchor:
            places = [n for n, line in enumerate(lines) if self.anchor in line]
            if not places:
                raise ListError(f"{LIST.name}:{self.line}: no “{self.anchor}” in {self.file}")
            start, end = places[0], min(end, places[0] + ANCHOR_LINES)
        stripped = [line.strip() for line in lines]
        size = len(self.old)
        found = [n for n in range(start, end) if stripped[n:n + size] == self.old]
        if not found or (not self.anchor and len(found) > 1):
            raise ListError(f"{LIST.name}:{self.line}: {self.file} has the text of “{self.text}” "
                            f"{len(found)} times")
        lines[found[0]:found[0] + size] = self.new
        return "\n".join(lines)


def read_list():
    mutants = []
    for number, line in enumerate(LIST.read_text(encoding="utf-8").splitlines(), 1):
        mark, _, rest = line.partition(" ")
        if mark == "*":
            kind, _, text = rest.partition(": ")
            mutants.append(Mutant(kind, text, number))
        elif mark == "file":
            mutants[-1].file = rest
        elif mark == "in":
            mutants[-1].anchor = rest
        elif mark == "tests":
            mutants[-1].tests = rest.split()
        elif mark == "equivalent":
            mutants[-1].reason = rest
        elif mark == "-" and not mutants[-1].new:
            mutants[-1].old.append(rest.strip())
        elif mark == "+":
            mutants[-1].new.append(rest.strip())
        elif mark and not line.startswith("#"):
            raise ListError(f"{LIST.name}:{number}: what is “{line}”?")
    for mutant in mutants:
        unknown = [test for test in mutant.tests if test not in PROGRAMS]
        if unknown or not mutant.old or not mutant.file:
            raise ListError(f"{LIST.name}:{mutant.line}: incomplete, or no such tests: {unknown}")
        mutant.apply((ROOT / mutant.file).read_text(encoding="utf-8"))
    return mutants


def copy_sources(folder):
    listed = subprocess.run(["git", "ls-files", "-z"], cwd=ROOT, check=True, capture_output=True)
    for name in listed.stdout.decode().split("\0")[:-1]:
        source, copy = ROOT / name, folder / name
        if not source.is_file():
            continue
        # A file that is as it was keeps its time, so that only what changed is built again.
        if not copy.exists() or copy.read_bytes() != source.read_bytes():
            copy.parent.mkdir(parents=True, exist_ok=True)
            shutil.copy2(source, copy)
            os.utime(copy)


def prepare_test(seconds):
    """Runs in a test's process before it starts; no seconds for a process test."""
    # A shell lets what it starts in the background ignore these, and tests send them.
    signal.signal(signal.SIGINT, signal.SIG_DFL)
    signal.signal(signal.SIGQUIT, signal.SIG_DFL)
    if seconds:
        resource.setrlimit(resource.RLIMIT_CPU, (seconds, seconds + 1))
        resource.setrlimit(resource.RLIMIT_AS, (PROGRAM_BYTES, PROGRAM_BYTES))


def threads(pid):
    """What the system says of each thread of a process: its state, then its figures."""
    for path in pathlib.Path(f"/proc/{pid}/task").glob("*/stat"):
        try:
            yield path.read_text(encoding="utf-8", errors="replace").rpartition(")")[2].split()
        except OSError:
            pass  # gone by itself


def runs(pid):
    return any(fields[0] == "R" for fields in threads(pid))


def processor_seconds(pid):
    ticks = sum(int(fields[11]) + int(fields[12]) for fields in threads(pid))
    return ticks / os.sysconf("SC_CLK_TCK")


def await_end(run, seconds):
    """Waits for a test, and says why it had to be ended, if it had to."""
    deadline = time.monotonic() + (seconds * WAITING if seconds else PROCESS_SECONDS)
    used = 0
    while True:
        try:
            run.wait(timeout=BLOCKED_SECONDS)
            return None
        except subprocess.TimeoutExpired:
            before, used = used, processor_seconds(run.pid)
            blocked = seconds and not runs(run.pid) and used - before < IDLE_SECONDS
            if blocked or time.monotonic() > deadline:
                os.killpg(run.pid, signal.SIGKILL)
                run.wait()
                return BLOCKED if blocked else NO_END


class Workshop:
    """A copy of the sources with its build."""

    def __init__(self, folder, every_case):
        self.folder, self.build, self.every_case = folder, folder / "build", every_case
        copy_sources(folder)
        options = ["-G", "Ninja"] if shutil.which("ninja") else []
        if shutil.which("ccache"):
            options.append("-DCMAKE_CXX_COMPILER_LAUNCHER=ccache")
        # A mutant may leave something unused behind, and is to be built soon.
        subprocess.run(["cmake", "-S", folder, "-B", self.build, *options,
                        "-DCMAKE_BUILD_TYPE=Release", "-DCMAKE_CXX_FLAGS_RELEASE=-O1",
                        "-DFEROVANE_WARNINGS_AS_ERRORS=OFF"],
                       check=True, stdout=subprocess.DEVNULL)

    def make(self, targets):
        done = subprocess.run(["cmake", "--build", self.build, "-j", str(os.cpu_count()),
                               "--target", *targets],
                              capture_output=True, text=True)
        return None if done.returncode == 0 else (done.stdout + done.stderr)[-3000:]

    def targets(self, program):
        return EXECUTABLES if program.endswith(".py") else [program]

    def failures(self, program, cases=()):
        """Names of the cases that fail."""
        short = pathlib.Path(program).stem
        if program.endswith(".py"):
            command = [sys.executable, "-B", str(self.folder / program), "-f", *cases]
            pattern = r"^(?:FAIL|ERROR): (test\w+) \(__main__\.(\w+)"
            name = lambda match: f"{match[2]}.{match[1]}"
        else:
            command = [str(self.build / "bin" / program), "--gtest_brief=1"]
            command += [] if self.every_case else ["--gtest_fail_fast"]
            command += [f"--gtest_filter={':'.join(cases)}"] if cases else []
            pattern = r"^\[  FAILED  \] ([\w/.]+)(?:,| \()"
            name = lambda match: match[1]
        seconds = (None if program.endswith(".py")
                   else PROGRAM_SECONDS.get(program, OTHER_PROGRAM_SECONDS))
        environment = {**os.environ, "FEROVANE_BIN": str(self.build / "bin"),
                       "FEROVANE_KILLS": os.environ.get("FEROVANE_KILLS", "6")}
        # A file and no pipe: what a mutant leaves running may hold on to it.
        with tempfile.TemporaryFile("w+", errors="replace") as told:
            run = subprocess.Popen(command, cwd=self.build, env=environment, stdout=told,
                                   stderr=subprocess.STDOUT, start_new_session=True,
                                   preexec_fn=functools.partial(prepare_test, seconds))
            trouble = await_end(run, seconds)
            self.end_leftovers()
            told.seek(0)
            output = told.read()
        if trouble:
            return [f"{short} {trouble}"]
        if run.returncode == 0:
            return []
        if run.returncode == -signal.SIGXCPU:
            return [f"{short} {LOOPS}"]
        found = list(dict.fromkeys(name(match) for match in re.finditer(pattern, output, re.M)))
        return found or [f"{short} (ends with {run.returncode})"]

    def end_leftovers(self):
        """Ends what a mutated helper or guardian has left running."""
        for entry in pathlib.Path("/proc").glob("[0-9]*/exe"):
            try:
                if pathlib.Path(os.readlink(entry)).is_relative_to(self.build):
                    os.kill(int(entry.parent.name), signal.SIGKILL)
            except OSError:
                pass  # gone by itself

    def caught_by(self, mutant):
        path = self.folder / mutant.file
        original = path.read_text(encoding="utf-8")
        path.write_text(mutant.apply(original), encoding="utf-8")
        try:
            likely = [test for test in mutant.tests if test in PROGRAMS]
            for test in [*likely, *(test for test in PROGRAMS if test not in likely)]:
                program = PROGRAMS[test]
                if error := self.make(self.targets(program)):
                    raise ListError(f"{LIST.name}:{mutant.line}: does not build:\n{error}")
                failed = self.failures(program)
                if not failed:
                    continue
                if LOOPS in failed[0] or BLOCKED in failed[0]:
                    return failed
                # What fails on a busy machine need not fail again.
                again = self.failures(program, [case for case in failed if "(" not in case])
                if again:
                    return [case for case in failed if case in again] or again
            return []
        finally:
            path.write_text(original, encoding="utf-8")


def check_untouched(workshop):
    """Nothing may fail without a mutant: then a failure would mean nothing."""
    targets = {target for program in PROGRAMS.values() for target in workshop.targets(program)}
    if error := workshop.make(sorted(targets)):
        sys.exit(f"the sources do not build:\n{error}")
    for program in PROGRAMS.values():
        failed = workshop.failures(program)
        if failed and workshop.failures(program):
            sys.exit(f"without any mutant {program} fails: {', '.join(failed)}")


def verdict(mutant, cases):
    if cases:
        more = len(cases) - NAMED_CASES
        named = [f"`{case}`" for case in cases[:NAMED_CASES]]
        return ", ".join(named) + (f" and {more} more" if more > 0 else "")
    return f"equivalent: {mutant.reason}" if mutant.reason else "**SURVIVED**"


class Remembered:
    """What was caught before, in a scratch folder that is kept; good for as long as the mutant and
    the file it is made of stay as they are."""

    def __init__(self, folder):
        self.path = folder / "caught.json"
        self.caught = json.loads(self.path.read_text()) if self.path.exists() else {}
        self.lock = threading.Lock()

    @staticmethod
    def key(mutant):
        changed = mutant.apply((ROOT / mutant.file).read_text(encoding="utf-8"))
        return hashlib.sha256(changed.encode()).hexdigest()

    def get(self, mutant):
        return self.caught.get(self.key(mutant))

    def put(self, mutant, cases):
        with self.lock:
            self.caught[self.key(mutant)] = cases
            self.path.write_text(json.dumps(self.caught))


def run(mutants, folder, jobs, trust, every_case):
    workshops = queue.Queue()
    for number in range(jobs):
        workshops.put(Workshop(folder / str(number), every_case))
    remembered = Remembered(folder)
    if not trust:
        first = workshops.get()
        check_untouched(first)
        workshops.put(first)

    def examine(mutant):
        if cases := remembered.get(mutant):
            return cases
        workshop = workshops.get()
        try:
            cases = workshop.caught_by(mutant)
            if cases:
                remembered.put(mutant, cases)
            print(f"{mutant.kind}: {mutant.text} – {verdict(mutant, cases)}", file=sys.stderr,
                  flush=True)
            return cases
        finally:
            workshops.put(workshop)

    with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
        return list(pool.map(examine, mutants))


def print_table(mutants, results):
    print("| | kind | without it … | place | caught by |")
    print("|---|---|---|---|---|")
    for number, (mutant, cases) in enumerate(zip(mutants, results), 1):
        print(f"| {number} | {mutant.kind} | {mutant.text} | `{mutant.file}`"
              f"{' (`' + mutant.anchor + '`)' if mutant.anchor else ''} "
              f"| {verdict(mutant, cases)} |")
    caught = sum(1 for cases in results if cases)
    equivalent = sum(1 for m, cases in zip(mutants, results) if not cases and m.reason)
    survived = len(mutants) - caught - equivalent
    print(f"\n{len(mutants)} mutants: {caught} caught, {equivalent} equivalent, "
          f"{survived} survived.")
    return survived


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--check", action="store_true", help="only compare the list and the sources")
    parser.add_argument("--only", default="", help="only mutants whose place or text match")
    parser.add_argument("--jobs", type=int, default=1, help="mutants at the same time")
    parser.add_argument("--scratch", help="folder for the copies and builds, kept for the next run")
    parser.add_argument("--every-case", action="store_true",
                        help="name every case that fails, not only the first")
    parser.add_argument("--trust", action="store_true", help="do not first test without a mutant")
    parser.add_argument("--programs", help="only these tests, by their names in this script")
    options = parser.parse_args()
    try:
        mutants = [m for m in read_list()
                   if re.search(options.only, f"{m.kind}: {m.text} {m.where()}")]
        for name in set(PROGRAMS) - set((options.programs or ",".join(PROGRAMS)).split(",")):
            del PROGRAMS[name]
        if options.check:
            print(f"{len(mutants)} mutants match the sources.")
            return 0
        with tempfile.TemporaryDirectory(prefix="ferovane-mutants-") as temporary:
            folder = pathlib.Path(options.scratch or temporary).resolve()
            results = run(mutants, folder, options.jobs, options.trust, options.every_case)
    except ListError as error:
        print(error, file=sys.stderr)
        return 2
    return 1 if print_table(mutants, results) else 0


if __name__ == "__main__":
    sys.exit(main())
