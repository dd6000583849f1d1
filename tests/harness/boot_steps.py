#!/usr/bin/env python3
"""Runs step files and tables of messages in devices that it boots, one for all files that ask for the same device.

    boot_steps.py [--kernel KIND] [--build DIR] [--keep DIR] FILE|FOLDER...

A folder stands for the *.steps and *.messages below it. A file asks for its device by a first line "# boot: OPTIONS",
options of lab/device such as --personality tarn or --kernel uml; without one it gets the usual device. A file that leaves
the device other than it was, such as with services that have died often, asks for one that no other file gets: "# boot
alone: OPTIONS". The last line printed is the sum of the counts. How such files read is told in steps.py and messages.py.
"""

import argparse
import re
import shlex
import subprocess
import sys
from pathlib import Path

HARNESS = Path(__file__).resolve().parent
LAUNCHER = HARNESS.parent.parent / "lab" / "device"
RUNNERS = {".steps": "steps.py", ".messages": "messages.py"}
COUNTS = re.compile(r"(\d+) passed, (\d+) failed(?:, (\d+) skipped)?")


def files_find(names):
    for name in map(Path, names):
        yield from sorted(path for path in name.rglob("*") if path.suffix in RUNNERS) if name.is_dir() else [name]


def boot_wish(path):
    """The options of the file's device, and the path itself when it is to be alone in it."""
    with open(path, encoding="utf-8") as file:
        match = re.match(r"# boot( alone)?:(.*)", file.readline())
    return (tuple(shlex.split(match.group(2))), path if match.group(1) else None) if match else ((), None)


def groups_make(paths):
    groups = {}
    for path in paths:
        groups.setdefault((*boot_wish(path), path.suffix), []).append(str(path.resolve()))
    return groups


def group_run(number, options, suffix, paths, arguments):
    """Boots one device for the paths; (passed, failed, skipped), a boot that fails counting as one failure."""
    command = [str(LAUNCHER), "--record", "--kernel", arguments.kernel, *options]
    for folder in sorted({str(Path(path).parent) for path in paths}):
        command += ["--view", folder]
    if arguments.build:
        command += ["--build", arguments.build]
    if arguments.keep:
        command += ["--keep", str(Path(arguments.keep) / f"boot-{number}")]
    command += ["--", "python3", str(HARNESS / RUNNERS[suffix]), *paths]
    last = ""
    with subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True,
                          errors="replace") as process:
        for line in process.stdout:
            match = COUNTS.fullmatch(line.strip())
            last = match or last
            if not match:
                print(line, end="", flush=True)
    if last and process.returncode in (0, 1):
        return tuple(int(count or 0) for count in last.groups())
    print(f"FAIL the device of {len(paths)} files ended with status {process.returncode}", flush=True)
    return (0, 1, 0)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--kernel", default="auto")
    parser.add_argument("--build")
    parser.add_argument("--keep")
    parser.add_argument("names", nargs="+", metavar="FILE")
    arguments = parser.parse_args()
    sums = [0, 0, 0]
    for number, ((options, _, suffix), paths) in enumerate(groups_make(files_find(arguments.names)).items()):
        sums = [total + count for total, count in zip(sums, group_run(number, options, suffix, paths, arguments))]
    print(f"{sums[0]} passed, {sums[1]} failed" + (f", {sums[2]} skipped" if sums[2] else ""))
    return 1 if sums[1] else 0


if __name__ == "__main__":
    sys.exit(main())
