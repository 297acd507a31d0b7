#!/usr/bin/env python3
"""Fails when a file includes what its folder may not know.

The libraries of the build already link only what they may use; this check also covers headers that
would be found by path, such as an Apple header outside the shim.
"""

import pathlib
import re
import sys

# Folder of the including file -> prefixes of project headers it may include, besides its own.
ALLOWED = {
    "shim": [],
    "core/model": [],
    "core/fan": ["core/model/"],
    "core/hardware": [
        "core/model/",
        "shim/fv.h",
        "core/fan/cooling_hardware.h",
        "core/fan/apple_silicon_fan_control.h",
        "core/fan/fan_keys.h",
    ],
    "core/power": ["core/model/", "shim/fv.h"],
    "core/control": ["core/model/", "core/fan/", "core/power/", "shim/fv.h"],
    "core/analysis": [
        "core/model/",
        "shim/fv.h",
        "core/fan/fan_curve.h",
        "core/fan/curve_policy.h",
    ],
    "helper": ["core/", "shim/fv.h"],
    "examples": ["core/", "shim/fv.h"],
    "tools": ["core/"],
    "simulator": ["shim/fv.h"],
}

# Headers that stand for something only certain files may know, wherever they come from.
RESERVED = [
    (re.compile(r"^(CoreFoundation|CoreServices|Foundation|IOKit|dispatch|libkern|mach|mach-o|objc|os"
                r"|servers|xpc)/|^libproc\.h$|^notify\.h$|^sys/sysctl\.h$|^pthread/qos\.h$"
                r"|^TargetConditionals\.h$"),
     ("shim/", "simulator/", "tests/shim/", "tests/simulator/", "fuzz/platform/")),
    (re.compile(r"^nlohmann/"),
     ("core/model/json_codec", "tools/", "simulator/", "tests/model/", "tests/shim/")),
    (re.compile(r"^(gtest|gmock|benchmark)/"), ("tests/", "bench/")),
]

# In core/analysis only these may reach the platform.
SHIM_USERS_IN_ANALYSIS = ("system_telemetry", "sensor_catalog", "process_list")

INCLUDE = re.compile(r'^\s*#\s*(?:include|import)\s*([<"])([^">]+)[">]')


def folder_of(path: str):
    return next((f for f in sorted(ALLOWED, key=len, reverse=True) if path.startswith(f + "/")), None)


def faults_in(path: str, text: str):
    folder = folder_of(path)
    for number, line in enumerate(text.splitlines(), 1):
        match = INCLUDE.match(line)
        if not match:
            continue
        kind, header = match.groups()
        for pattern, owners in RESERVED:
            if pattern.search(header) and not path.startswith(owners):
                yield f"{path}:{number}: {header} may be included only by {' and '.join(owners)}"
        if kind == "<" or folder is None:
            continue
        own = header.startswith(folder + "/")
        if not own and not any(header.startswith(prefix) for prefix in ALLOWED[folder]):
            yield f"{path}:{number}: {folder} may not include {header}"
        elif folder == "core/analysis" and header == "shim/fv.h":
            if not pathlib.PurePath(path).name.startswith(SHIM_USERS_IN_ANALYSIS):
                yield f"{path}:{number}: only telemetry and platform detection may include {header}"


def check(root: pathlib.Path):
    faults = []
    files = 0
    for top in ("shim", "core", "helper", "simulator", "examples", "tools", "tests", "bench", "fuzz"):
        for file in sorted((root / top).rglob("*")):
            if file.suffix in (".h", ".c", ".cpp", ".mm"):
                files += 1
                path = file.relative_to(root).as_posix()
                faults += faults_in(path, file.read_text(encoding="utf-8"))
    return files, faults


def self_test():
    """The check must be able to fail: each line here is a fault it has to see."""
    samples = [
        ("core/fan/a.cpp", '#include "shim/fv.h"'),
        ("core/model/a.h", '#include "core/fan/fan_curve.h"'),
        ("core/hardware/a.cpp", '#include "core/fan/cooling_lease.h"'),
        ("core/power/a.cpp", "#include <IOKit/IOKitLib.h>"),
        ("helper/a.cpp", '#include "simulator/machine/simulated_mac.h"'),
        ("core/control/a.h", "#include <nlohmann/json.hpp>"),
        ("core/analysis/diagnostic_engine.cpp", '#include "shim/fv.h"'),
        ("simulator/machine/a.cpp", '#include "core/model/snapshot.h"'),
    ]
    return [sample for sample in samples if not list(faults_in(*sample))]


def main():
    unseen = self_test()
    if unseen:
        print("The check itself is broken; it does not see:", *unseen, sep="\n  ")
        return 1
    files, faults = check(pathlib.Path(__file__).resolve().parent.parent)
    print(*faults, sep="\n")
    print(f"{files} files, {len(faults)} forbidden includes")
    return 1 if faults or files == 0 else 0


if __name__ == "__main__":
    sys.exit(main())
