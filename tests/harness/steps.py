#!/usr/bin/env python3
"""Runs cases written as steps, inside a booted device: the change as the operator types it, and the effects expected.

    steps.py FILE...      prints one line a case, what differs where one failed, and the counts in the last line

A line that is not indented is a step; indented lines below it are its body. "#" begins a comment line.

    case TITLE                 begins a case; its steps run in order, the first that fails ends it
    needs COMMAND              skips the case (the file, before the first case) when the shell command fails
    within SECONDS             how long the expectations that follow may take to come true (5 at first)
    > LINE                     typed in configuration mode; lines that stand together are one change
    restore                    a change: the configuration becomes what the device came up with
    refused: TEXT              the change before must have failed, and TEXT stands in what the CLI said
    run:                       the body is what the daemon ran since the change, in order; COMMAND => STATUS, 0 if left out
    file PATH:                 the body is the file's content
    no file PATH               nothing is there
    oper PATH = VALUE          the operational leaf, its path as words
    no oper PATH               the leaf does not exist
    log: TEXT                  a line since the change holds TEXT
    no log: TEXT               none does
    messages:                  the body is what routing daemons were told since the change, in order; see routing_log.py
    $ COMMAND                  run by a shell; the body is its output; COMMAND => STATUS, 0 if left out
    ! COMMAND                  a change that is no configuration, such as a kill: run once by a shell, must succeed

Expectations are tried again until they hold or the time is over, changes are made once. The shell knows the words of
device.bash. In expected lines "*" stands for any text and a line "..." for any lines. A change that no "refused:"
follows must succeed. What is told as since the change starts anew with each.
"""

import json
import os
import re
import subprocess
import sys
import tempfile
import time
from dataclasses import dataclass, field

import routing_log

RECORD_FILE = "/run/lab/record"
LOG_FILE = "/var/log/device.log"
CLI_LIMIT_S = 120
SHELL_LIMIT_S = 120
FIRST_FILE = "/run/lab/first.cfg"  # the configuration that the device came up with, as commands
SHELL_WORDS = os.path.join(os.path.dirname(os.path.abspath(__file__)), "device.bash")
POLL_S = 0.05
STATUS_PATTERN = re.compile(r"^(.*?)\s+=> (\d+)$")


class Failed(Exception):
    """An expectation that did not hold; the text says what was wanted and what was there."""


class Malformed(Exception):
    """A step file that cannot be read; the text names the line."""


@dataclass
class Step:
    line: int
    word: str
    text: str = ""
    body: list = field(default_factory=list)


@dataclass
class Case:
    title: str
    steps: list = field(default_factory=list)
    needs: list = field(default_factory=list)


# --- reading ---

# The step's word, and the pattern of what stands behind it.
FORMS = (
    ("case", r"case (.+)"),
    ("needs", r"needs (.+)"),
    ("within", r"within (\d+)"),
    ("change", r"> ?(.*)"),
    ("restore", r"restore()"),
    ("refused", r"refused: ?(.*)"),
    ("run", r"run:()"),
    ("file", r"file (\S+):"),
    ("no file", r"no file (\S+)"),
    ("oper", r"oper (.+? = .*)"),
    ("no oper", r"no oper (.+)"),
    ("log", r"log: ?(.+)"),
    ("no log", r"no log: ?(.+)"),
    ("messages", r"messages:()"),
    ("shell", r"\$ (.+)"),
    ("deed", r"! (.+)"),
)
WITH_BODY = ("run", "file", "messages", "shell")


def step_parse(name, number, line):
    for word, pattern in FORMS:
        match = re.fullmatch(pattern, line)
        if match:
            return Step(number, word, match.group(1))
    raise Malformed(f"{name}:{number}: not a step: {line!r}")


def body_add(name, number, line, step):
    if step is None or step.word not in WITH_BODY:
        raise Malformed(f"{name}:{number}: an indented line, but no step above that takes one")
    step.body.append(line[4:] if line.startswith("    ") else line.lstrip())


def steps_parse(name, text):
    """All steps of a file in order; empty lines inside a body belong to it, at its end they do not."""
    steps = []
    for number, line in enumerate(text.split("\n"), 1):
        line = line.rstrip()
        if line.startswith("#"):
            continue
        if line == "":
            if steps and steps[-1].word in WITH_BODY:
                steps[-1].body.append("")
        elif line[0] in " \t":
            body_add(name, number, line, steps[-1] if steps else None)
        else:
            steps.append(step_parse(name, number, line))
    for step in steps:
        while step.body and step.body[-1] == "":
            step.body.pop()
    return steps


def change_join(steps, step):
    """Lines typed one after the other are one change."""
    if step.word == "change":
        if steps and steps[-1].word == "change":
            steps[-1].body.append(step.text)
            return
        step.body.append(step.text)
    steps.append(step)


def cases_parse(name, text):
    """The file's own conditions, and its cases."""
    needs, cases = [], []
    for step in steps_parse(name, text):
        if step.word == "case":
            cases.append(Case(step.text))
        elif step.word == "needs":
            (cases[-1].needs if cases else needs).append(step.text)
        elif not cases:
            raise Malformed(f"{name}:{step.line}: a step before the first case")
        elif step.word == "refused" and (not cases[-1].steps or cases[-1].steps[-1].word != "change"):
            raise Malformed(f"{name}:{step.line}: 'refused' follows a change")
        else:
            change_join(cases[-1].steps, step)
    if not cases:
        raise Malformed(f"{name}: no case in it")
    return needs, cases


# --- matching ---

def line_matches(wanted, line):
    return re.fullmatch(".*".join(map(re.escape, wanted.split("*"))), line) is not None


def lines_match(wanted, lines):
    """Whether the lines are as wanted; "..." takes as many as it needs."""
    ends = {0}  # how many lines the wanted ones so far may have taken
    for want in wanted:
        if want == "...":
            ends = set(range(min(ends), len(lines) + 1)) if ends else set()
        else:
            ends = {end + 1 for end in ends if end < len(lines) and line_matches(want, lines[end])}
    return len(lines) in ends


def indented(lines):
    return "\n".join("        " + line for line in lines) or "        (nothing)"


def require_lines(what, wanted, lines):
    if not lines_match(wanted, lines):
        raise Failed(f"{what}\n      wanted:\n{indented(wanted)}\n      there:\n{indented(lines)}")


def status_split(text):
    """COMMAND => STATUS: both, the status 0 when it is left out."""
    match = STATUS_PATTERN.match(text)
    return (match.group(1), int(match.group(2))) if match else (text, 0)


# --- the device ---

class Device:
    """What a case can do to the device that it runs in, and see of it."""

    def __init__(self):
        self.record_seen = 0
        self.log_seen = 0
        self.routing = routing_log.RoutingLog()
        self.first_keep()

    def mark(self):
        """From here counts what "since the change" means."""
        self.record_seen = len(self._record_lines())
        self.log_seen = os.path.getsize(LOG_FILE) if os.path.exists(LOG_FILE) else 0
        self.routing.mark()

    def type(self, lines):
        """Types lines in configuration mode; the CLI's status and what it said."""
        with tempfile.NamedTemporaryFile("w", suffix=".cfg") as file:
            file.write("\n".join(lines) + "\n")
            file.flush()
            return self._run(["cli", file.name], CLI_LIMIT_S)

    def configuration(self):
        """The configuration as lines that make it."""
        status, text = self._run(["cli", "-c", "show configuration | display set"], CLI_LIMIT_S)
        if status != 0:
            raise Failed(f"show configuration: {text.strip()}")
        return text.splitlines()

    def first_keep(self):
        """Once in the life of the device."""
        if not os.path.exists(FIRST_FILE):
            with open(FIRST_FILE, "w", encoding="utf-8") as file:
                file.writelines(line + "\n" for line in self.configuration())

    def restore_lines(self):
        """Commands of one commit that lead back to the first configuration; what stays is not seen as changed."""
        with open(FIRST_FILE, encoding="utf-8") as file:
            first = file.read().splitlines()
        tops = dict.fromkeys(line.split()[1] for line in self.configuration())
        return [f"delete {top}" for top in tops] + first + ["commit"]

    def shell(self, command):
        return self._run(["bash", "-c", command], SHELL_LIMIT_S)

    def oper(self, path):
        """The operational leaf as text, None when it does not exist."""
        status, text = self._run(["cli", "-c", f"show {path} | display json"], CLI_LIMIT_S)
        if status != 0:
            raise Failed(f"show {path}: {text.strip()}")
        value = json.loads(text) if text.strip() else None
        while isinstance(value, (dict, list)):
            value = leaf_of(value)
        return {True: "true", False: "false"}.get(value, value) if value is None or isinstance(value, bool) else str(value)

    def commands(self):
        """(command line, status) of what has ended since the mark."""
        rows = [line.split("\t", 3) for line in self._record_lines()[self.record_seen:]]
        return [(row[3], int(row[0])) for row in rows if len(row) == 4 and row[0].strip() != "..."]

    def log(self):
        try:
            with open(LOG_FILE, "rb") as file:
                file.seek(self.log_seen)
                return file.read().decode(errors="replace").splitlines()
        except FileNotFoundError:
            return []

    def file(self, path):
        """The content, None when nothing is there."""
        try:
            with open(path, encoding="utf-8", errors="replace") as file:
                return file.read()
        except OSError: # none, or none that can be read, such as a namespace's
            return None

    @staticmethod
    def _record_lines():
        try:
            with open(RECORD_FILE, encoding="utf-8", errors="replace") as file:
                return file.read().splitlines()
        except FileNotFoundError:
            return []

    @staticmethod
    def _run(argv, limit):
        try:
            done = subprocess.run(argv, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                  timeout=limit, check=False, env=os.environ | {"BASH_ENV": SHELL_WORDS})
        except subprocess.TimeoutExpired:
            raise Failed(f"{' '.join(argv)}: not done after {limit} s") from None
        return done.returncode, done.stdout.decode(errors="replace")


def leaf_of(value):
    """One level down towards the one leaf of a document; keys of list entries stand beside it."""
    if isinstance(value, list):
        return value[0] if value else None
    inner = [item for item in value.values() if isinstance(item, (dict, list))]
    return inner[0] if inner else next(reversed(value.values()), None)


# --- expectations; each raises Failed ---

def expect_run(device, step):
    wanted = [line if line == "..." else "{} => {}".format(*status_split(line)) for line in step.body]
    require_lines("commands that the daemon ran", wanted, [f"{line} => {status}" for line, status in device.commands()])


def expect_file(device, step):
    content = device.file(step.text)
    if content is None:
        raise Failed(f"no file {step.text}")
    require_lines(f"file {step.text}", step.body, content.rstrip("\n").split("\n") if content else [])


def expect_no_file(device, step):
    if device.file(step.text) is not None or os.path.lexists(step.text):
        raise Failed(f"{step.text} is there")


def expect_oper(device, step):
    path, wanted = step.text.split(" = ", 1)
    value = device.oper(path)
    if value is None or not line_matches(wanted, value):
        raise Failed(f"operational {path}: wanted {wanted!r}, there is {value!r}")


def expect_no_oper(device, step):
    value = device.oper(step.text)
    if value is not None:
        raise Failed(f"operational {step.text} is {value!r}")


def expect_log(device, step):
    if not any(line_matches(f"*{step.text}*", line) for line in device.log()):
        raise Failed(f"no log line since the change holds {step.text!r}; last ones:\n{indented(device.log()[-8:])}")


def expect_no_log(device, step):
    lines = [line for line in device.log() if line_matches(f"*{step.text}*", line)]
    if lines:
        raise Failed(f"log lines hold {step.text!r}:\n{indented(lines)}")


def expect_messages(device, step):
    wanted = [message for line in step.body for message in routing_log.messages_read(line)]
    there = device.routing.since()
    if not any(message.is_validation() for message in wanted):
        there = routing_log.without_validations(there)
    if there != wanted:
        raise Failed(routing_log.difference(wanted, there))


def expect_shell(device, step):
    command, wanted_status = status_split(step.text)
    status, output = device.shell(command)
    if status != wanted_status:
        raise Failed(f"$ {command}\n      status {status}, wanted {wanted_status}; output:\n{indented(output.splitlines())}")
    if step.body or wanted_status == 0 and output.strip():
        require_lines(f"$ {command}", step.body, output.rstrip("\n").split("\n") if output else [])


EXPECTATIONS = {
    "run": expect_run, "file": expect_file, "no file": expect_no_file, "oper": expect_oper,
    "no oper": expect_no_oper, "log": expect_log, "no log": expect_no_log,
    "messages": expect_messages, "shell": expect_shell,
}


# --- running ---

def expect_within(device, step, limit_s):
    """An expectation may need a moment to come true; the failure of the last try is the one reported."""
    end = time.monotonic() + limit_s
    while True:
        try:
            return EXPECTATIONS[step.word](device, step)
        except Failed:
            if time.monotonic() >= end:
                raise
        time.sleep(POLL_S)


def change_make(device, step, following):
    device.mark()
    status, said = device.type(step.body)
    refusal = following.text if following is not None and following.word == "refused" else None
    if refusal is None and status != 0:
        raise Failed(f"the change was refused:\n{indented(said.splitlines())}")
    if refusal is not None and status == 0:
        raise Failed("the change was accepted")
    if refusal is not None and not any(line_matches(f"*{refusal}*", line) for line in said.splitlines()):
        raise Failed(f"refused, but not with {refusal!r}:\n{indented(said.splitlines())}")


def restore_make(device):
    change_make(device, Step(0, "change", body=device.restore_lines()), None)


def deed_do(device, step):
    device.mark()
    status, output = device.shell(step.text)
    if status != 0:
        raise Failed(f"! {step.text}\n      status {status}; output:\n{indented(output.splitlines())}")


def case_run(device, case):
    """None when all steps held, else the text of what did not, after its line."""
    limit_s = 5
    device.mark()
    for index, step in enumerate(case.steps):
        try:
            if step.word == "within":
                limit_s = int(step.text)
            elif step.word == "change":
                change_make(device, step, case.steps[index + 1] if index + 1 < len(case.steps) else None)
            elif step.word == "restore":
                restore_make(device)
            elif step.word == "deed":
                deed_do(device, step)
            elif step.word != "refused":
                expect_within(device, step, limit_s)
        except Failed as failure:
            return f"line {step.line}: {failure}"
    return None


@dataclass
class Counts:
    passed: int = 0
    failed: int = 0
    skipped: int = 0

    def line(self):
        text = f"{self.passed} passed, {self.failed} failed"
        return text + (f", {self.skipped} skipped" if self.skipped else "")


def unmet(device, needs):
    return next((need for need in needs if device.shell(need)[0] != 0), None)


def file_run(device, name, text, counts, out):
    try:
        file_needs, cases = cases_parse(name, text)
    except Malformed as error:
        counts.failed += 1
        print(f"FAIL {error}", file=out)
        return
    missing = unmet(device, file_needs)
    for case in cases:
        lacks = missing or unmet(device, case.needs)
        if lacks:
            counts.skipped += 1
            print(f"skip {name}: {case.title} (needs: {lacks})", file=out)
            continue
        start = time.monotonic()
        problem = case_run(device, case)
        counts.passed += problem is None
        counts.failed += problem is not None
        print(f"{'ok  ' if problem is None else 'FAIL'} {name}: {case.title} ({time.monotonic() - start:.2f} s)"
              + (f"\n    {problem}" if problem else ""), file=out, flush=True)


def main(names, run=file_run):
    counts = Counts()
    device = Device()
    for name in names:
        with open(name, encoding="utf-8") as file:
            run(device, os.path.relpath(name), file.read(), counts, sys.stdout)
    print(counts.line())
    return 1 if counts.failed else 0


if __name__ == "__main__":
    if len(sys.argv) < 2:
        sys.exit(__doc__)
    sys.exit(main(sys.argv[1:]))
