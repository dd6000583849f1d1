#!/usr/bin/env python3
"""Whether the device bears every configuration that it accepts, and refuses the others in promised words.

    random_config.py [--kernel KIND] [--build DIR] [--keep DIR] [--configurations N] [--seed N]
    random_config.py --inside ...       in a booted device: lab/device -- python3 tests/harness/random_config.py --inside

Random changes, made from the models and biased to the edges of the rules, are committed one after the other by the
operator's CLI, in sequences that start from the configuration which the device comes with. After each commit all
processes must be those of before and no log may tell of a failed assertion; a refusal must be one of the texts in
random_refusals.py, and must leave the configuration as it was. A sequence that fails is made as short as it still fails,
and printed as the lines to type. So that a run means something, enough of the commits must be accepted, enough rules must
have refused one and the routing daemons must have been told enough kinds of things. From outside, devices of several personalities are booted, one after the other.
"""

import argparse
import json
import random
import re
import subprocess
import sys
import tempfile
import time
from collections import Counter
from dataclasses import dataclass, field
from pathlib import Path

import random_generate
import random_refusals
import random_schema
import random_values
from restart_oracle import has_read

CHECKOUT = Path(__file__).resolve().parent.parent.parent
COMMITS = 30                # of a sequence
LEAST_ACCEPTED = 0.25       # of all commits
LEAST_RULES = 12            # that have refused something
LEAST_KINDS = 10            # of messages to routing daemons
PROCESSES = ("agentd", "cfgmgr", "chmgrd", "sysmgrd")
LOG_FOLDER = Path("/var/log")
ROUTING_LOGS = "quagga/*.log*"
MESSAGE = re.compile(r'"type":"(m_\w+)"')
LAMENT = re.compile(r"failed assertion|failed aborted|AddressSanitizer|runtime error:|terminate called")
CLI_LIMIT_S = 120
RESTART_LIMIT_S = 60

# Personality, options of its device, share of the configurations.
DEVICES = (
    ("krest", (), 0.7),
    ("lodest", ("--personality", "lodest", "--chassis", "software"), 0.15),
    ("pendry", ("--personality", "pendry", "--chassis", "software"), 0.15),
)


class Problem(Exception):
    """What makes a commit fail; the text is for people."""


@dataclass
class Counts:
    accepted: int = 0
    refused: Counter = field(default_factory=Counter)   # by kind
    rules: Counter = field(default_factory=Counter)     # by text
    messages: Counter = field(default_factory=Counter)  # to routing daemons, by type
    failed: int = 0


# --- the device ---

def run(*command):
    return subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          errors="replace", timeout=CLI_LIMIT_S, check=False)


class Device:
    """The device that the program is in. `lines` is its configuration. What the device is is configured to begin with, as
    it is nothing at all once the setting has been there and gone."""

    def __init__(self, root, personality):
        self.root = root
        self.musts = [text for node in random_schema.nodes_below(root) for text in node.musts if text]
        self.log_sizes = {}
        self.remember()
        self.lines = self.configuration()
        if not self.commit([f"set system personality {personality}"])[0]:
            raise Problem("the device's own personality is refused")
        self.base = self.lines

    @staticmethod
    def configuration():
        done = run("cli", "-c", "show configuration | display set")
        if done.returncode != 0:
            raise Problem(f"the configuration cannot be shown: {done.stdout}")
        return [line for line in done.stdout.splitlines() if line]

    @staticmethod
    def pids():
        found = {}
        for name in PROCESSES:
            try:
                pid = int(Path(f"/run/{name}.0.pid").read_text(encoding="ascii"))
                found[name] = pid if Path(f"/proc/{pid}").exists() else 0
            except (OSError, ValueError):
                found[name] = 0
        return found

    def remember(self):
        """From here counts what has happened."""
        self.processes = self.pids()
        self.laments()

    def laments(self):
        """New lines of the logs that tell of the end of a process."""
        found = []
        for path in LOG_FOLDER.glob("*.log"):
            with open(path, "rb") as file:
                file.seek(self.log_sizes.get(path, 0))
                text = file.read()
                self.log_sizes[path] = self.log_sizes.get(path, 0) + len(text)
            found += [line for line in text.decode(errors="replace").splitlines() if LAMENT.search(line)]
        return found

    @staticmethod
    def messages():
        """What the routing daemons were told since the start, counted by type."""
        return Counter(found.group(1) for path in LOG_FOLDER.glob(ROUTING_LOGS)
                       for found in MESSAGE.finditer(path.read_text(encoding="utf-8", errors="replace")))

    def check_alive(self):
        laments = self.laments()
        ended = [name for name, pid in self.pids().items() if pid != self.processes[name]]
        if laments or ended:
            raise Problem("\n".join([f"ended: {', '.join(ended) or 'nothing yet'}", *laments]))

    def recover(self):
        """Waits until the device has come back from the end of a process."""
        end = time.monotonic() + RESTART_LIMIT_S
        while not all(self.pids().values()) or not has_read(self.pids()["cfgmgr"]):
            if time.monotonic() > end:
                raise SystemExit(f"the device has not come back in {RESTART_LIMIT_S} s: {self.pids()}")
            time.sleep(0.2)
        self.lines = self.configuration()
        self.remember()

    def commit(self, lines):
        """(accepted, kind, row): of a refusal, what told it. Raises Problem."""
        with tempfile.NamedTemporaryFile("w", suffix=".cfg") as file:
            file.write("\n".join(lines) + "\n")
            file.flush()
            done = run("cli", "--commit", file.name)
            self.check_alive()
            before, self.lines = self.lines, self.configuration()
            if done.returncode == 0:
                return True, None, None
            if self.lines != before:
                raise Problem(f"a refused commit has changed the configuration: {done.stdout.strip()}")
            kind, row = random_refusals.refusal_of(done.stdout, file.name, self.musts)
        if kind is None:
            raise Problem(f"refused with a text that nobody has promised: {done.stdout.strip()}")
        return False, kind, row

    def reset(self):
        """Back to the configuration that the device came with: in one commit, or where rules forbid that in several: first leaf
        by leaf, then the entries that are nothing without a leaf. What a rule wants to stay stays, for all sequences after."""
        refusals = []
        for is_fine in (False, True, True, False):
            lines = random_generate.lines_between(self.root, self.lines, self.base, is_fine)
            if not lines or self.commit(lines)[0] and self.lines == self.base:
                return
            refusals = [(line, kind) for line in lines for accepted, kind, _ in [self.commit([line])] if not accepted]
        if any(kind != "rule" for _, kind in refusals):
            raise Problem("the configuration cannot be taken back:\n" + "\n".join(line for line, _ in refusals))
        self.base = self.lines


# --- one sequence ---

def sequence_run(device, world, name, count, counts):
    """Makes, commits and judges; (commits so far, problem or None)."""
    generator = random_generate.Generator(random.Random(name), device.root, world)
    made = []
    try:
        device.reset()
        opening = generator.opening()
        for number in range(count):
            lines = opening[number] if number < len(opening) else generator.commit(device.lines)
            made.append(lines)
            accepted, kind, row = device.commit(lines)
            counts.accepted += accepted
            if not accepted:
                counts.refused[kind] += 1
                counts.rules[row] += kind == "rule"
    except Problem as problem:
        return made, str(problem)
    return made, None


def problem_of(device, commits):
    """The problem of a sequence that is known already, None when it passes. Leaves the device in order."""
    try:
        device.reset()
        for lines in commits:
            device.commit(lines)
        device.reset()
        return None
    except Problem as problem:
        device.recover()
        return str(problem)


def smaller(commits):
    """Sequences with less in them, those that drop most first."""
    size = len(commits)
    while size > 1:
        size = (size + 1) // 2
        for at in range(0, len(commits) - 1, size):
            yield commits[:at] + commits[min(at + size, len(commits) - 1):]
        if size == 1:
            break
    for at, lines in enumerate(commits):
        for line in reversed(range(len(lines) if len(lines) > 1 else 0)):
            yield [*commits[:at], lines[:line] + lines[line + 1:], *commits[at + 1:]]


def same_kind(problem, other):
    def plain(text):
        return re.sub(r"\d+|0x[0-9a-f]+", "N", text.splitlines()[-1])
    return plain(problem) == plain(other)


def shrink(device, commits, problem, tries):
    is_shorter = True
    while is_shorter and tries > 0:
        is_shorter = False
        for candidate in smaller(commits):
            tries -= 1
            found = problem_of(device, candidate)
            if found and same_kind(found, problem):
                commits, problem, is_shorter = candidate, found, True
                break
            if tries <= 0:
                break
    return commits, problem


def failure_tell(commits, problem):
    for lines in commits:
        print("\n".join(f"    {line}" for line in [*lines, "commit"]))
    print("\n".join("    " + line for line in problem.splitlines()), flush=True)


def inside(arguments):
    """Prints what happens, and the counts as JSON in the last line."""
    device = Device(random_schema.schema_read(CHECKOUT / "yang"), arguments.personality)
    world = random_values.WORLDS.get(arguments.personality, random_values.NODE)
    counts, left, number = Counts(), arguments.configurations, arguments.only or 0
    while left > 0 and counts.failed < arguments.most_failures:
        start = time.monotonic()
        name = f"{arguments.personality} {arguments.seed}.{number}"
        made, problem = sequence_run(device, world, name, min(left, COMMITS), counts)
        print(f"{'FAIL' if problem else 'ok  '} sequence {name} ({len(made)} commits, "
              f"{sum(map(len, made))} lines, {time.monotonic() - start:.1f} s)", flush=True)
        if problem:
            counts.failed += 1
            device.recover()
            print(f"{problem}\nmade shorter ({arguments.shrink_tries} tries at most):", flush=True)
            failure_tell(*shrink(device, made, problem, arguments.shrink_tries))
        left, number = 0 if arguments.only is not None else left - COMMITS, number + 1
    counts.messages = device.messages()
    print(json.dumps(vars(counts)))
    return 1 if counts.failed else 0


# --- the devices, from outside ---

def device_run(name, options, count, arguments):
    """Boots a device for so many configurations; its counts, a device that fails being one failure."""
    command = [str(CHECKOUT / "lab" / "device"), "--kernel", arguments.kernel, "--timeout", "0", *options]
    if arguments.build:
        command += ["--build", arguments.build]
    if arguments.keep:
        command += ["--keep", str(Path(arguments.keep) / name)]
    command += ["--", "python3", __file__, "--inside", "--personality", name, "--configurations", str(count), "--seed",
                str(arguments.seed), "--most-failures", str(arguments.most_failures), "--shrink-tries", str(arguments.shrink_tries)]
    last = ""
    with subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True,
                          errors="replace") as process:
        for line in process.stdout:
            last = line
            if not line.startswith("{"):
                print(line, end="", flush=True)
    try:
        told = json.loads(last)
        return Counts(told["accepted"], *(Counter(told[name]) for name in ("refused", "rules", "messages")), told["failed"])
    except ValueError:
        print(f"FAIL the device {name} ended with status {process.returncode}", flush=True)
        return Counts(failed=1)


def means_something(total):
    """What is wrong with the run as a whole, as lines."""
    commits = total.accepted + sum(total.refused.values())
    if total.accepted < LEAST_ACCEPTED * commits:
        yield f"FAIL only {total.accepted} of {commits} commits were accepted"
    if len(total.rules) < LEAST_RULES:
        yield f"FAIL only {len(total.rules)} rules have refused something"
    if len(total.messages) < LEAST_KINDS:
        yield f"FAIL the routing daemons were told {len(total.messages)} kinds of things only"


def outside(arguments):
    total = Counts()
    for name, options, share in DEVICES:
        counts = device_run(name, options, round(share * arguments.configurations), arguments)
        total.accepted += counts.accepted
        total.refused += counts.refused
        total.rules += counts.rules
        total.messages += counts.messages
        total.failed += counts.failed
    for text, count in total.rules.most_common():
        print(f"{count:5} {text.strip()!r}")
    print(*(f"{count:5} {kind}" for kind, count in total.messages.most_common()), sep="\n")
    print(f"{total.messages.total()} messages of {len(total.messages)} kinds to routing daemons")
    print(f"{total.accepted} accepted; refused: {total.refused['rule']} by {len(total.rules)} rules, {total.refused['model']} by the "
          f"models, {total.refused['typed']} as they were typed")
    meagre = list(means_something(total))
    print(*meagre, sep="\n" if meagre else "", end="\n" if meagre else "")
    failed = total.failed + len(meagre)
    print(f"{total.accepted + sum(total.refused.values())} passed, {failed} failed")
    return 1 if failed else 0


def arguments_parse():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--kernel", default="auto")
    parser.add_argument("--build")
    parser.add_argument("--keep")
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--configurations", type=int, default=200)
    parser.add_argument("--most-failures", type=int, default=3, help="of a device; it stops after so many")
    parser.add_argument("--shrink-tries", type=int, default=40, help="sequences to run to make a failing one shorter")
    parser.add_argument("--inside", action="store_true", help="run here, in a booted device")
    parser.add_argument("--personality", default="krest", help="inside: what the device is")
    parser.add_argument("--only", type=int, help="inside: the one sequence of this number")
    return parser.parse_args()


if __name__ == "__main__":
    ARGUMENTS = arguments_parse()
    sys.exit(inside(ARGUMENTS) if ARGUMENTS.inside else outside(ARGUMENTS))
