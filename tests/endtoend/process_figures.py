"""What a running process uses, from /proc."""

import os
import re


def _text(path):
    with open(path, encoding="utf-8", errors="replace") as file:
        return file.read()


def _number(text, name):
    return int(re.search(rf"^{name}:\s*(\d+)", text, re.M)[1])


class ProcessFigures:
    """Kibibytes and counts of this moment."""

    def __init__(self, pid):
        memory = _text(f"/proc/{pid}/smaps_rollup")
        self.resident = _number(memory, "Rss")
        self.proportional = _number(memory, "Pss")
        self.private = _number(memory, "Private_Clean") + _number(memory, "Private_Dirty")
        # What no file stands behind, shared with a guardian or not: all that a leak can add to.
        self.anonymous = _number(memory, "Anonymous")
        self.descriptors = len(os.listdir(f"/proc/{pid}/fd"))
        self.threads = _number(_text(f"/proc/{pid}/status"), "Threads")
        self.children = len(children_of(pid))


def address_space(pid):
    """In bytes."""
    return _number(_text(f"/proc/{pid}/status"), "VmSize") << 10


def uses_sanitizer(pid):
    """Their shadow takes terabytes of addresses, and freed memory is kept back for long."""
    return address_space(pid) > 1 << 40


def is_running(pid):
    return os.path.exists(f"/proc/{pid}")


def wake_ups(pid):
    """Times so far that a thread of the process waited and was woken."""
    return sum(_number(_text(f"/proc/{pid}/task/{thread}/status"), "voluntary_ctxt_switches")
               for thread in os.listdir(f"/proc/{pid}/task"))


def processes_attached(machine_path):
    """Every process, zombies apart, whose environment names that simulated Mac."""
    wanted = f"FEROVANE_SIMULATED_MAC={machine_path}".encode()
    found = []
    for name in filter(str.isdigit, os.listdir("/proc")):
        try:
            with open(f"/proc/{name}/environ", "rb") as file:
                if wanted in file.read().split(b"\0"):
                    found.append(int(name))
        except OSError:
            continue  # gone, or nobody's to read
    return found


def children_of(pid):
    """By number, which is by age as long as numbers are not used again."""
    listed = [_text(f"/proc/{pid}/task/{thread}/children").split()
              for thread in os.listdir(f"/proc/{pid}/task")]
    return sorted(int(child) for children in listed for child in children)
