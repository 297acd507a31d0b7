#!/usr/bin/env python3
"""Start-up time and memory of whole helper processes, beside an empty C++ program.

    [FEROVANE_BIN=build/release/bin] python3 bench/process_bench.py [--repeat 21]

The floor is an empty dynamic C++ program that is compiled here; floor and helper take turns, so that
both meet the same machine, and all of it is pinned to one processor. The helper runs on a simulated
Mac, whose own work (opening its state, ageing it) counts as the helper's.
"""

import argparse
import os
import pathlib
import platform
import statistics
import struct
import subprocess
import sys
import tempfile

ROOT = pathlib.Path(__file__).resolve().parent.parent
sys.path.insert(0, str(ROOT / "tests/endtoend"))
os.environ.setdefault("FEROVANE_BIN", str(ROOT / "build/release/bin"))

from simulated import HELPER, Mac  # noqa: E402

PROCESSOR = 1
PROBE_PAUSE_MS = 250.0  # between the two samples of `probe`
MODEL = "MacBookPro16,1"

# The helper sleeps for the first time right after its first write, to read it back. Preloaded, this
# notes the moment of that first sleep in an inherited file.
FIRST_SLEEP = r"""
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>
static int noted;
static void note(void) {
    const char* file = getenv("FIRST_SLEEP_FD");
    struct timespec now;
    if (noted++ || !file) return;
    clock_gettime(CLOCK_MONOTONIC, &now);
    if (write(atoi(file), &now, sizeof now) != sizeof now) abort();
}
int nanosleep(const struct timespec* want, struct timespec* left) {
    note();
    return ((int (*)(const struct timespec*, struct timespec*))dlsym(RTLD_NEXT, "nanosleep"))(
        want, left);
}
int clock_nanosleep(clockid_t clock, int flags, const struct timespec* want,
                    struct timespec* left) {
    note();
    return ((int (*)(clockid_t, int, const struct timespec*, struct timespec*))dlsym(
        RTLD_NEXT, "clock_nanosleep"))(clock, flags, want, left);
}
"""

# Starts a command and tells its status, peak KiB, start and end. A small program does this because
# a child's peak memory begins at that of whoever forked it, which would be all of Python.
LAUNCHER = r"""
#define _GNU_SOURCE
#include <fcntl.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
extern char** environ;
static double now(void) {
    struct timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec + time.tv_nsec / 1e9;
}
int main(int count, char** arguments) {
    posix_spawn_file_actions_t actions;
    struct rusage usage;
    int status = 0;
    pid_t pid;
    if (count < 3) return 2;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    if (*arguments[1]) setenv("LD_PRELOAD", arguments[1], 1);
    const double start = now();
    if (posix_spawn(&pid, arguments[2], &actions, 0, arguments + 2, environ)) return 1;
    wait4(pid, &status, 0, &usage);
    const double end = now();
    printf("%d %ld %.9f %.9f\n", status, usage.ru_maxrss, start, end);
    return 0;
}
"""


def compile_text(directory, name, text, *options):
    source = os.path.join(directory, name)
    with open(source, "w", encoding="utf-8") as file:
        file.write(text)
    result = os.path.splitext(source)[0]
    compiler = ["c++"] if name.endswith(".cpp") else ["cc"]
    subprocess.run([*compiler, "-O2", source, "-o", result, *options], check=True)
    return result


def run(command, environment=None, descriptors=()):
    """Start to reaped in milliseconds, peak resident KiB, and the moment of the start."""
    for descriptor in descriptors:
        os.set_inheritable(descriptor, True)
    told = subprocess.run(command, env=environment, close_fds=False, check=True,
                          stdout=subprocess.PIPE).stdout.split()
    status, kib = int(told[0]), int(told[1])
    start, end = float(told[2]), float(told[3])
    if status != 0:
        raise SystemExit(f"{' '.join(command)}: status {status}")
    return (end - start) * 1000, kib, start


def first_write(launcher, sleeps, helper, environment):
    """Milliseconds from the start of `auto` to the end of its first controller write."""
    reader, writer = os.pipe()
    try:
        with_note = {**environment, "FIRST_SLEEP_FD": str(writer)}
        _, _, start = run([launcher, sleeps, helper, "auto"], with_note, [writer])
        os.set_blocking(reader, False)
        seconds, nanoseconds = struct.unpack("ll", os.read(reader, 16))
        return (seconds + nanoseconds / 1e9 - start) * 1000
    finally:
        os.close(reader)
        os.close(writer)


def take_processor():
    """Pins this process and its children to one processor, before everybody else if that may be."""
    os.sched_setaffinity(0, {PROCESSOR})
    try:
        os.sched_setscheduler(0, os.SCHED_FIFO, os.sched_param(1))
        return "real-time priority"
    except PermissionError:
        return "ordinary priority"


def middle(values):
    return f"{statistics.median(values):8.2f} ({min(values):.2f}-{max(values):.2f})"


def row(name, values, floor, goal):
    ratio = statistics.median(values) / statistics.median(floor)
    verdict = "" if goal is None else f"goal {goal}: {'met' if ratio <= goal else 'MISSED'}"
    print(f"{name:<44}{middle(values):<28}{ratio:6.2f}x  {verdict}")


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--repeat", type=int, default=21)
    options = parser.parse_args()
    scheduling = take_processor()
    helper = str(HELPER)
    times = {name: [] for name in ("empty", "probe", "bare probe", "auto")}
    memory = {name: [] for name in times}
    with tempfile.TemporaryDirectory() as directory, Mac(MODEL) as mac:
        empty = compile_text(directory, "empty.cpp", "#include <string>\n#include <iostream>\n"
                             "int main() { std::cout << std::string(); }\n")
        sleeps = compile_text(directory, "sleeps.c", FIRST_SLEEP, "-shared", "-fPIC", "-ldl")
        launcher = compile_text(directory, "launcher.c", LAUNCHER)
        attached, bare = mac.environment(), dict(os.environ)
        for _ in range(options.repeat):
            for name, command, environment in (("empty", [empty], bare),
                                               ("probe", [helper, "probe"], attached),
                                               ("bare probe", [helper, "probe"], bare)):
                milliseconds, kib, _ = run([launcher, "", *command], environment)
                pause = PROBE_PAUSE_MS if "probe" in name else 0.0
                times[name].append(milliseconds - pause)
                memory[name].append(kib)
            times["auto"].append(first_write(launcher, sleeps, helper, attached))

    print(f"{platform.machine()}, {os.cpu_count()} processors, load {os.getloadavg()[0]:.1f}, {scheduling}, "
          f"{helper}, {MODEL}, median of {options.repeat} (smallest-largest)\n")
    print("milliseconds")
    row("empty C++ program, start to exit", times["empty"], times["empty"], None)
    row("probe less its 250 ms, simulated Mac", times["probe"], times["empty"], 5)
    row("probe less its 250 ms, no controller", times["bare probe"], times["empty"], 5)
    row("auto, start to first write", times["auto"], times["empty"], 3)
    print("\npeak resident KiB")
    row("empty C++ program", memory["empty"], memory["empty"], None)
    row("probe, simulated Mac", memory["probe"], memory["empty"], 2)
    row("probe, no controller", memory["bare probe"], memory["empty"], 2)
    print(f"under 6 MiB: {'met' if max(memory['probe']) < 6 * 1024 else 'MISSED'}")


if __name__ == "__main__":
    main()
