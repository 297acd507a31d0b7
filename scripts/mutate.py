#!/usr/bin/env python3
"""Changes a copy of the sources, one place at a time, and looks which test notices.

Either takes out what keeps the safety promises: those mutants stand in mutants.txt. Or, with
--random, makes a small mistake somewhere. The tests that are named beside a mutant, or those of its
folder, run first, then all others. Prints a table; fails when a mutant survives without a reason,
does not build, or no longer matches the sources.
"""

import argparse
import collections
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
import time

import random_mutants

ROOT = pathlib.Path(__file__).resolve().parents[1]
LIST = ROOT / "scripts" / "mutants.txt"
EQUIVALENTS = ROOT / "scripts" / "equivalents.txt"  # FILE | LINE AS CHANGED | REASON

# Name in mutants.txt -> test program, or script of process tests. In the order in which they run.
PROGRAMS = {
    "control": "control_tests",
    "hardware": "hardware_tests",
    "power": "power_tests",
    "shim": "shim_tests",
    "model": "model_tests",
    "analysis": "analysis_tests",
    "fan": "fan_tests",
    "helper": "helper_tests",
    "one-shot": "tests/endtoend/one_shot_test.py",
    "session": "tests/endtoend/session_process_test.py",
    "guardian": "tests/endtoend/guardian_test.py",
    "start": "tests/endtoend/inherited_state_test.py",
    "attacker": "tests/endtoend/attacker_test.py",
    "faults": "fault_tests",
}
EXECUTABLES = ["FerovaneHelper", "simulated-mac", "monitor-example"]  # what the process tests start

# How far below its anchor a mutant's text may begin: a function is not longer than this.
ANCHOR_LINES = 60
# Of processor time, several times what the slowest of them takes; a mutant may loop.
PROGRAM_SECONDS = {"fault_tests": 600}
OTHER_PROGRAM_SECONDS = 200
BLOCKED_SECONDS = 20  # no test program waits so long and does nothing but look at the clock:
IDLE_SECONDS = 0.3  # less processor time than this
WAITING = 3  # so many times as long by the clock: other work may hold the processors
PROCESS_SECONDS = 600  # by the clock, for process tests: their processor time is spent elsewhere
PROGRAM_BYTES = 3 << 30  # of address space: a mutant may ask for ever more
HANGS = ("(does not end)", "(loops)", "(waits for ever)")


class ListError(Exception):
    pass


class Mutant:
    """kind, text: what it does; file: relative to the root; tests: which run first."""

    def __init__(self, kind, text):
        self.kind, self.text = kind, text
        self.file, self.tests, self.reason = None, [], None

    def where(self):
        return self.file


class Named(Mutant):
    def __init__(self, kind, text, line):
        super().__init__(kind, text)
        self.line, self.anchor, self.old, self.new = line, None, [], []

    def where(self):
        return f"{self.file}: {self.anchor}" if self.anchor else self.file

    def variants(self):
        """The source with this mutant in it. Lines are compared without their indentation."""
        lines = (ROOT / self.file).read_text(encoding="utf-8").split("\n")
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
        yield "\n".join(lines)


class Random(Mutant):
    def __init__(self, number, seed, files, reasons):
        super().__init__(None, None)
        self.tests = [pathlib.Path(random_mutants.folder_of(number)).name]
        self.number, self.seed, self.files, self.reasons = number, seed, files, reasons

    def variants(self):
        """Sources with one change after the other, for as long as none can be built."""
        for self.kind, self.file, start, end, new in random_mutants.draw(
                self.files, self.number, self.seed):
            source = self.files[self.file]
            first, last = source.rfind("\n", 0, start) + 1, source.find("\n", end)
            before = " ".join(source[first:last].split())
            after = " ".join((source[first:start] + new + source[end:last]).split())
            self.text = f"{source.count(chr(10), 0, start) + 1}: `{before}` → `{after}`"
            self.reason = self.reasons.get((self.file, after))
            yield source[:start] + new + source[end:]


def read_list():
    mutants = []
    for number, line in enumerate(LIST.read_text(encoding="utf-8").splitlines(), 1):
        mark, _, rest = line.partition(" ")
        if mark == "*":
            mutants.append(Named(*rest.split(": ", 1), number))
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
        next(mutant.variants())
    return mutants


def draw(count, seed):
    rows = EQUIVALENTS.read_text(encoding="utf-8").splitlines() if EQUIVALENTS.exists() else []
    reasons = {(file, after): reason for file, after, reason in
               (row.split(" | ") for row in rows if row and not row.startswith("#"))}
    files = {path: (ROOT / path).read_text(encoding="utf-8") for path in sources()
             if path.startswith(random_mutants.FOLDERS) and path.endswith((".cpp", ".c", ".h"))}
    return [Random(number, seed, files, reasons) for number in range(count)]


def sources():
    listed = subprocess.run(["git", "ls-files", "-z"], cwd=ROOT, check=True, capture_output=True)
    return [name for name in listed.stdout.decode().split("\0")[:-1] if (ROOT / name).is_file()]


def digest(*texts):
    return hashlib.sha256(b"\0".join(texts)).hexdigest()


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


def await_end(run, seconds):
    """Waits for a test; what it did instead of ending, if it had to be ended."""
    deadline = time.monotonic() + (seconds * WAITING if seconds else PROCESS_SECONDS)
    used = 0
    while True:
        try:
            return HANGS[1] if run.wait(timeout=BLOCKED_SECONDS) == -signal.SIGXCPU else None
        except subprocess.TimeoutExpired:
            now = list(threads(run.pid))
            before, used = used, sum(int(f[11]) + int(f[12]) for f in now) / os.sysconf("SC_CLK_TCK")
            waits = seconds and used - before < IDLE_SECONDS and not any(f[0] == "R" for f in now)
            if waits or time.monotonic() > deadline:
                os.killpg(run.pid, signal.SIGKILL)
                run.wait()
                return HANGS[2] if waits else HANGS[0]


class Workshop:
    """A copy of the sources with its build: not optimised, which compiles one file in seconds."""

    def __init__(self, folder):
        self.folder, self.build = folder, folder / "build" / "dev"
        for name in sources():
            source, copy = ROOT / name, folder / name
            # A file that is as it was keeps its time, so that only what changed is built again.
            if not copy.exists() or copy.read_bytes() != source.read_bytes():
                copy.parent.mkdir(parents=True, exist_ok=True)
                shutil.copy2(source, copy)
                os.utime(copy)
        options = ["-DCMAKE_CXX_COMPILER_LAUNCHER=ccache"] if shutil.which("ccache") else []
        options += ["-DCMAKE_EXE_LINKER_FLAGS=-fuse-ld=mold"] if shutil.which("mold") else []
        subprocess.run(["cmake", "--preset", "dev", *options], cwd=folder, check=True,
                       stdout=subprocess.DEVNULL)

    def make(self, targets):
        done = subprocess.run(["cmake", "--build", self.build, "-j", "1", "--target", *targets],
                              capture_output=True, text=True)
        return None if done.returncode == 0 else (done.stdout + done.stderr)[-3000:]

    @staticmethod
    def targets(program):
        return EXECUTABLES if program.endswith(".py") else [program]

    @functools.lru_cache(maxsize=None)
    def inputs(self, program):
        done = subprocess.run(["ninja", "-C", self.build, "-t", "inputs", *self.targets(program)],
                              check=True, capture_output=True, text=True)
        return set(done.stdout.splitlines())

    def holds(self, program, file):
        return file.endswith(".h") or str(self.folder / file) in self.inputs(program)

    def failures(self, program, cases=()):
        """Names of the cases that fail, up to the first."""
        short = pathlib.Path(program).stem
        if program.endswith(".py"):
            command = [sys.executable, "-B", str(self.folder / program), "-f", *cases]
            pattern = r"^(?:FAIL|ERROR): (test\w+) \(__main__\.(\w+)"
            name = lambda match: f"{match[2]}.{match[1]}"
            seconds = None
        else:
            command = [str(self.build / "bin" / program), "--gtest_brief=1", "--gtest_fail_fast",
                       *([f"--gtest_filter={':'.join(cases)}"] if cases else [])]
            pattern = r"^\[  FAILED  \] ([\w/.]+)(?:,| \()"
            name = lambda match: match[1]
            seconds = PROGRAM_SECONDS.get(program, OTHER_PROGRAM_SECONDS)
        environment = {**os.environ, "FEROVANE_BIN": str(self.build / "bin")}
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

    def caught_by(self, mutant, memory):
        """Names of the program and of the case that fails; nothing if none does."""
        trouble = "no test holds it"
        for source in mutant.variants():
            if known := memory.get(mutant, source):
                return known
            order = [name for name in dict.fromkeys([*mutant.tests, *PROGRAMS])
                     if name in PROGRAMS and self.holds(PROGRAMS[name], mutant.file)]
            path = self.folder / mutant.file
            part = path.with_name(path.name + ".mutant.h")
            try:
                # A mutant may leave something unused behind; a system's header is not warned of.
                part.write_text("#pragma GCC system_header\n" + source, encoding="utf-8")
                path.write_text(f'#include "{mutant.file}.mutant.h"\n', encoding="utf-8")
                if not order or (trouble := self.make(self.targets(PROGRAMS[order[0]]))):
                    continue
                for name in order:
                    if case := self.fails(PROGRAMS[name]):
                        memory.put(mutant, source, name, case)
                        return name, case
                return None
            finally:
                path.write_bytes((ROOT / mutant.file).read_bytes())
                part.unlink()
        raise ListError(f"{mutant.where()}: “{mutant.text}” does not build:\n{trouble}")

    def fails(self, program):
        if self.make(self.targets(program)):
            return f"{program} (does not build)"
        failed = self.failures(program)
        if failed and not failed[0].endswith(HANGS):
            # What fails on a busy machine need not fail again.
            failed = self.failures(program, [case for case in failed if "(" not in case])
        return failed[0] if failed else None


class Memory:
    """What was caught before, in a scratch folder that is kept: good for as long as the changed
    file and the tests that noticed stay as they are."""

    def __init__(self, folder):
        folder.mkdir(parents=True, exist_ok=True)
        self.path = folder / "caught.json"
        self.caught = json.loads(self.path.read_text()) if self.path.exists() else {}

    @staticmethod
    def key(mutant, source):
        return digest(mutant.file.encode(), source.encode())

    @functools.lru_cache(maxsize=None)
    def tests(self, name):
        files = [PROGRAMS[name]]
        if not files[0].endswith(".py"):
            home = next(path for path in sources() if path.endswith("CMakeLists.txt")
                        and f"ferovane_test({files[0]}\n" in (ROOT / path).read_text())
            files = [path for path in sources() if path.startswith(os.path.dirname(home) + "/")]
        return digest(*((ROOT / path).read_bytes() for path in files))

    def get(self, mutant, source):
        name, case, tests = self.caught.get(self.key(mutant, source), (None, None, None))
        return (name, case) if name in PROGRAMS and tests == self.tests(name) else None

    def put(self, mutant, source, name, case):
        self.caught[self.key(mutant, source)] = (name, case, self.tests(name))
        self.path.write_text(json.dumps(self.caught))


def verdict(mutant, caught):
    return (f"{caught[0]}: `{caught[1]}`" if caught
            else f"equivalent: {mutant.reason}" if mutant.reason else "**SURVIVED**")


def run(mutants, folder, jobs, trust):
    memory = Memory(folder)
    workshops = queue.Queue()
    for number in range(jobs):
        workshops.put(Workshop(folder / str(number)))
    if not trust:  # what fails without a mutant says nothing when it fails with one
        first = workshops.get()
        for name, program in PROGRAMS.items():
            if case := first.fails(program):
                sys.exit(f"without any mutant {name} fails: {case}")
        workshops.put(first)

    def examine(mutant):
        workshop = workshops.get()
        try:
            caught = workshop.caught_by(mutant, memory)
        finally:
            workshops.put(workshop)
        print(f"{mutant.kind}: {mutant.where()}: {mutant.text} – {verdict(mutant, caught)}",
              file=sys.stderr, flush=True)
        return caught

    with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
        return list(pool.map(examine, mutants))


def print_table(mutants, results):
    print("| | kind | without it … | place | caught by |")
    print("|---|---|---|---|---|")
    sums = collections.defaultdict(collections.Counter)
    for number, (mutant, caught) in enumerate(zip(mutants, results), 1):
        print(f"| {number} | {mutant.kind} | {mutant.text} | `{mutant.where()}` "
              f"| {verdict(mutant, caught)} |")
        result = (("caught by own tests" if caught[0] in mutant.tests else "by others") if caught
                  else "equivalent" if mutant.reason else "survived")
        for place in (os.path.dirname(mutant.file), "all"):
            sums[place][result] += 1
    print()
    for place in [*sorted(set(sums) - {"all"}), "all"]:
        counts = sums[place]
        told = ", ".join(f"{counts[result]} {result}" for result in
                         ("caught by own tests", "by others", "equivalent", "survived"))
        print(f"{place}: {sum(counts.values())} mutants, {told}")
    return sums["all"]["survived"]


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--check", action="store_true", help="only compare the list and the sources")
    parser.add_argument("--random", type=int, metavar="N", help="N changes at random places instead")
    parser.add_argument("--seed", type=int, default=1, help="which random places")
    parser.add_argument("--only", default="", help="only mutants whose place or text match")
    parser.add_argument("--jobs", type=int, default=1, help="mutants at the same time")
    parser.add_argument("--scratch", type=pathlib.Path,
                        help="folder for the copies, builds and results, kept for the next run")
    parser.add_argument("--trust", action="store_true", help="do not first test without a mutant")
    parser.add_argument("--programs", help="only these tests, by their names in this script")
    options = parser.parse_args()
    try:
        mutants = (draw(options.random, options.seed) if options.random else
                   [m for m in read_list()
                    if re.search(options.only, f"{m.kind}: {m.text} {m.where()}")])
        for name in set(PROGRAMS) - set((options.programs or ",".join(PROGRAMS)).split(",")):
            del PROGRAMS[name]
        if options.check:
            print(f"{len(mutants)} mutants match the sources.")
            return 0
        with tempfile.TemporaryDirectory(prefix="ferovane-mutants-") as temporary:
            folder = (options.scratch or pathlib.Path(temporary)).resolve()
            results = run(mutants, folder, options.jobs, options.trust)
    except ListError as error:
        print(error, file=sys.stderr)
        return 2
    return 1 if print_table(mutants, results) else 0


if __name__ == "__main__":
    sys.exit(main())
