#!/usr/bin/env python3
"""Shows the helper at work on a simulated Mac that gets busy: one sample, then a live table."""

import argparse
import pathlib
import signal
import subprocess
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent


def tool(binaries, name, *arguments, **options):
    return subprocess.run([binaries / name, *arguments], check=True, **options)


def show_sample(binaries, machine):
    print("$ simulated-mac run MACHINE -- FerovaneHelper probe\n", flush=True)
    tool(binaries, "simulated-mac", "run", machine, "--", binaries / "FerovaneHelper", "probe")


def show_live_table(binaries, machine, seconds):
    tool(binaries, "simulated-mac", "set", machine, "load=90")
    watch = subprocess.Popen([binaries / "simulated-mac", "watch", machine])
    time.sleep(seconds)
    watch.send_signal(signal.SIGINT)
    watch.wait(5)


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--model", default="MacBookPro16,1", help="a name of `simulated-mac models`")
    parser.add_argument("--seconds", type=float, default=12, help="how long the table lives")
    parser.add_argument("--binaries", type=pathlib.Path, default=ROOT / "build/release/bin")
    options = parser.parse_args()
    with tempfile.TemporaryDirectory(prefix="ferovane-demo-") as folder:
        machine = pathlib.Path(folder) / "mac"
        tool(options.binaries, "simulated-mac", "create", machine, "--model", options.model)
        tool(options.binaries, "simulated-mac", "set", machine, "load=20", "speed=20")
        time.sleep(2)
        show_sample(options.binaries, machine)
        show_live_table(options.binaries, machine, options.seconds)


if __name__ == "__main__":
    main()
