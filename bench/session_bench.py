#!/usr/bin/env python3
"""What a session costs and how soon its end is over, beside a C echo and a Python server.

    [FEROVANE_BIN=build/release/bin] python3 bench/session_bench.py [--requests 100000]

The client is a C program compiled here, pinned to one processor together with each server in turn:
unpinned, waking the other processor would hide everything. The C server answers every line with the
bytes of the helper's own reply and looks at nothing.
"""

import argparse
import os
import platform
import random
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

from process_bench import MODEL, compile_text, take_processor
from simulated import HELPER, Mac, Owner, number_of, wake_ups

REQUEST = b'{"command":"status"}\n'
ROUNDS = 5
ROUND_REQUESTS = 4000
IDLE_SECONDS = 10
STOPS = 25

# Further arguments are files that it reads for every line, as the stand-in of the platform's process
# information does.
ECHO = r"""
#include <fcntl.h>
#include <string.h>
#include <unistd.h>
int main(int count, char** arguments) {
    char line[16384], content[4096];
    if (count < 2) return 2;
    const size_t length = strlen(arguments[1]);
    arguments[1][length] = '\n';
    for (;;) {
        const ssize_t got = read(0, line, sizeof line);
        if (got <= 0) return 0;
        for (int i = 2; i < count; ++i) {
            const int file = open(arguments[i], O_RDONLY | O_CLOEXEC);
            if (read(file, content, sizeof content) < 0 || close(file) != 0) return 1;
        }
        if (line[got - 1] == '\n' && write(1, arguments[1], length + 1) < 0) return 1;
    }
}
"""

PYTHON_SERVER = """
import json, sys
REPLY = json.loads(sys.argv[1])
for line in sys.stdin.buffer:
    try:
        request = json.loads(line)
        if request.get("command") == "status":
            reply = REPLY
        else:
            reply = {"ok": False, "message": "unknown command"}
    except ValueError:
        reply = {"ok": False, "message": "not JSON"}
    sys.stdout.write(json.dumps(reply, ensure_ascii=False) + "\\n")
    sys.stdout.flush()
"""

# Descriptors 3 and 4 are the server's input and output; tells nanoseconds, one request a line.
CLIENT = r"""
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>
static long now(void) {
    struct timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec * 1000000000L + time.tv_nsec;
}
int main(int count, char** arguments) {
    static char reply[65536];
    if (count < 5) return 2;
    const long requests = atol(arguments[1]);
    const int in = atoi(arguments[3]), out = atoi(arguments[4]);
    const size_t length = strlen(arguments[2]);
    long* taken = malloc(requests * sizeof *taken);
    arguments[2][length] = '\n';
    for (long i = 0; i < requests; ++i) {
        const long start = now();
        if (write(in, arguments[2], length + 1) < 0) return 1;
        for (ssize_t got = 0; got == 0 || reply[got - 1] != '\n';) {
            const ssize_t more = read(out, reply + got, sizeof reply - got);
            if (more <= 0) return 1;
            got += more;
        }
        taken[i] = now() - start;
    }
    for (long i = 0; i < requests; ++i) printf("%ld\n", taken[i]);
    return 0;
}
"""

TWO_THREADS = """#include <condition_variable>
#include <mutex>
#include <thread>
#include <unistd.h>
int main() {
    std::mutex mutex;
    std::condition_variable never;
    std::thread second([&] { std::unique_lock lock(mutex); never.wait(lock); });
    char byte;
    while (read(0, &byte, 1) > 0) {}
    _exit(0);
}
"""

BARE_POLL = "#include <unistd.h>\nint main() { for (;;) usleep(200000); }\n"


class Server:
    def __init__(self, command, environment=None):
        self.process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                        env=environment, bufsize=0)

    def ask(self, request=REQUEST):
        self.process.stdin.write(request)
        reply = b""
        while not reply.endswith(b"\n"):
            more = self.process.stdout.read(65536)
            if not more:
                raise SystemExit("the server has ended")
            reply += more
        return reply

    def ask_often(self, client, requests):
        """Microseconds of each request."""
        pipes = (self.process.stdin.fileno(), self.process.stdout.fileno())
        told = subprocess.run([client, str(requests), REQUEST.decode().strip(), *map(str, pipes)],
                              check=True, pass_fds=pipes, stdout=subprocess.PIPE).stdout
        return [int(line) / 1000 for line in told.split()]

    def resident_and_descriptors(self):
        folder = f"/proc/{self.process.pid}"
        return number_of(f"{folder}/status", "VmRSS"), len(os.listdir(f"{folder}/fd"))

    def processor_seconds(self):
        total = 0
        for thread in os.listdir(f"/proc/{self.process.pid}/task"):
            with open(f"/proc/{self.process.pid}/task/{thread}/schedstat", encoding="ascii") as file:
                total += int(file.read().split()[0])
        return total / 1e9

    def end(self):
        self.process.stdin.close()
        try:
            self.process.wait(0.5)
        except subprocess.TimeoutExpired:
            if self.process.args[0].endswith("poll"):
                self.process.kill()  # it never looks at its input
            self.process.wait(20)
        self.process.stdout.close()


def percentile(values, part):
    return sorted(values)[int(len(values) * part)]


def round_trips(servers, client):
    results = {name: [] for name in servers}
    for name, server in servers.items():
        server.ask_often(client, 1000)
    for _ in range(ROUNDS):
        for name, server in servers.items():
            taken = server.ask_often(client, ROUND_REQUESTS)
            results[name].append((statistics.median(taken), percentile(taken, 0.99)))
    floor = [statistics.median(r[i] for r in results["C echo"]) for i in (0, 1)]
    print(f"{'round trip of status, us':<30}{'median':>8}{'x echo':>8}{'p99':>8}{'x echo':>8}")
    for name, rounds in results.items():
        middle, late = (statistics.median(r[i] for r in rounds) for i in (0, 1))
        print(f"{name:<30}{middle:8.2f}{middle / floor[0]:8.2f}{late:8.2f}{late / floor[1]:8.2f}")


def system_calls(start_helper):
    """The slope between two sessions of different length, so that starting and ending cancel: the
    session's own calls, and those of the platform's stand-in, which reads files of /proc and asks for its
    user where the platform answers with one call. strace -y shows which file a descriptor is."""
    totals = []
    for requests in (100, 1100):
        with tempfile.NamedTemporaryFile() as log:
            server = start_helper(["strace", "-f", "-y", "-o", log.name])
            for _ in range(requests):
                server.ask()
            server.end()
            calls = [line for line in log if b"resumed>" not in line and b"(" in line]
            stand_in = sum(1 for line in calls if b"/proc/" in line or b"geteuid()" in line)
            totals.append((len(calls) - stand_in, stand_in))
    return [(more - less) / 1000 for less, more in zip(*totals)]


def idle(name, server):
    time.sleep(0.5)
    pid = server.process.pid
    wakes, seconds, start = wake_ups(pid), server.processor_seconds(), time.monotonic()
    time.sleep(IDLE_SECONDS)
    passed = time.monotonic() - start
    resident, descriptors = server.resident_and_descriptors()
    print(f"{name:<30}{(wake_ups(pid) - wakes) / passed:10.2f}"
          f"{(server.processor_seconds() - seconds) / passed * 1e6:12.0f}"
          f"{resident:10}{descriptors:8}")


def milliseconds_until_automatic(start_helper, mac, end):
    """From the cause to fans that are automatic, once; the look itself takes a few milliseconds."""
    with Owner(uid=os.getuid()) as owner:
        session = start_helper(owner.process.pid)
        session.ask(b'{"command":"profile","profile":"performance"}\n')
        if mac.automatic():
            raise SystemExit("the profile holds no fan")
        time.sleep(random.uniform(0.5, 1.0))  # any moment between two looks of the watchdog
        start = time.monotonic()
        end(session, owner)
        while not mac.automatic():
            pass
        taken = time.monotonic() - start
        session.process.wait(20)
        session.process.stdin.close()
        session.process.stdout.close()
    return taken * 1000


def stopping(start_helper, mac):
    causes = {"SIGTERM to automatic": lambda session, _: session.process.terminate(),
              "owner's death to automatic": lambda _, owner: owner.kill()}
    print(f"\n{'milliseconds':<30}{'median':>8}{'least':>8}{'most':>8}")
    for name, end in causes.items():
        taken = [milliseconds_until_automatic(start_helper, mac, end) for _ in range(STOPS)]
        print(f"{name:<30}{statistics.median(taken):8.0f}{min(taken):8.0f}{max(taken):8.0f}")
    looks = []
    for _ in range(STOPS):
        start = time.monotonic()
        mac.automatic()
        looks.append((time.monotonic() - start) * 1000)
    print(f"{'one look at the fans':<30}{statistics.median(looks):8.0f}")


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--requests", type=int, default=100000, help="of the long session")
    options = parser.parse_args()
    helper = str(HELPER)
    print(f"{platform.machine()}, {os.cpu_count()} processors, load {os.getloadavg()[0]:.1f}, "
          f"{take_processor()}, {helper}, {MODEL}\n")
    with tempfile.TemporaryDirectory() as directory, Mac(MODEL) as mac:
        echo = compile_text(directory, "echo.c", ECHO)
        client = compile_text(directory, "client.c", CLIENT)
        threads = compile_text(directory, "threads.cpp", TWO_THREADS, "-pthread")
        poll = compile_text(directory, "poll.cpp", BARE_POLL)
        def start_helper(before=(), owner=os.getpid()):
            return Server([*before, helper, "serve", str(owner), str(os.getuid())],
                          mac.environment())

        session = start_helper()
        reply = session.ask().decode().strip()
        print(f"reply, {len(reply) + 1} bytes: {reply}\n")
        files = [f"/proc/{os.getpid()}/{name}" for name in ("stat", "status")]
        servers = {"C echo": Server([echo, reply]),
                   "C echo, reading /proc": Server([echo, reply, *files]),
                   "FerovaneHelper serve": session,
                   "Python server": Server([sys.executable, "-c", PYTHON_SERVER, reply])}
        round_trips(servers, client)
        for server in servers.values():
            server.end()

        session = start_helper()
        session.ask_often(client, 1000)
        time.sleep(1)  # until every thread has done all that it ever does
        before = session.resident_and_descriptors()
        session.ask_often(client, options.requests - 1000)
        after = session.resident_and_descriptors()
        print(f"\nresident KiB and descriptors after 1 000 requests {before}, "
              f"after {options.requests} {after}")
        session.end()
        if shutil.which("strace"):
            own, stand_in = system_calls(start_helper)
            print(f"system calls per request: {own:.2f}, and {stand_in:.2f} of the stand-in")
        else:
            print("system calls per request: not measured, strace is not installed")

        print(f"\n{'idle':<30}{'wakes/s':>10}{'CPU us/s':>12}{'RSS KiB':>10}{'files':>8}")
        for name, server in (("bare 0.2 s poll", Server([poll])),
                             ("two waiting threads", Server([threads])),
                             ("FerovaneHelper serve", start_helper())):
            idle(name, server)
            server.end()

        stopping(lambda owner: start_helper(owner=owner), mac)


if __name__ == "__main__":
    main()
