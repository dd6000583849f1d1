#!/usr/bin/env python3
"""Runs tables of what routing daemons are told of configuration objects, inside a booted device, through real commits.

    messages.py FILE...      prints one line an object, what differs where one failed, and the counts in the last line

    set LINE                 what the objects of the file need; committed first, as it stands
    object DAEMONS VPNS MESSAGE [KEY FIELDS]
        at PATH              the object, as the operator types it
        needs LINE           committed before
        with LEAF            created with it; LEAF as in a row
        made FIELDS          beside the keys when it is created so; "nothing": there is no message
        gone FIELDS          the same when it is deleted; +entry_is_deleted when left out
        LEAF: VALUE | FIELDS | FIELDS

Messages and fields are written as in routing_log.py. A row is a leaf, without ": VALUE" one that has none, with the fields
that go out beside the keys when it is set, and when it is removed; "nothing" when there is no message then, and no third
column when it cannot be removed. "+" before the leaf: it stays until the rows below are through. "/": it cannot stand
together with the others, or they make something else of it.

An object is created; each leaf is set and removed; the object is deleted; it is created with all leaves at once, which
gives the one message with all their fields; it is deleted again. Each step is a commit of its own, and of all routing
daemons of all VPNs no message may have come since the one before but those that are told.
"""

import sys
import time
from dataclasses import dataclass, field

import routing_log
import steps


@dataclass
class Row:
    path: str
    value: str
    made: dict
    gone: dict
    can_go: bool
    stays: bool
    alone: bool

    def leaf(self):
        return f"{self.path} {self.value}".strip()


NOTHING = None  # for fields: no message


@dataclass
class Object:
    line: int
    target: tuple  # daemons, VPNs, message
    keys: dict
    at: str = ""
    needs: list = field(default_factory=list)
    with_leaves: list = field(default_factory=list)
    made: dict = field(default_factory=dict)
    gone: dict = field(default_factory=lambda: {"entry_is_deleted": True})
    rows: list = field(default_factory=list)

    def title(self):
        return f"{' '.join(self.target)}: {self.at}"

    def create_lines(self, leaves):
        return [f"set {self.at}"] + [f"set {self.at} {leaf}" for leaf in leaves]

    def messages(self, fields):
        """The one message to each daemon, with fields beside the keys."""
        return [] if fields is NOTHING else routing_log.messages_make(*self.target, self.keys | fields)


# --- reading ---

def fields_or_nothing(text):
    return NOTHING if text.strip() == "nothing" else routing_log.fields_read(text)


def row_read(text):
    columns = [column.strip() for column in text.split(" |")]
    if len(columns) not in (2, 3):
        raise routing_log.Unreadable(f"no row: {text!r}")
    signs = {"/": False, "+": False}
    while columns[0][:1] in signs:
        signs[columns[0][0]] = True
        columns[0] = columns[0][1:].lstrip()
    path, _, value = columns[0].partition(": ")
    return Row(path, value, fields_or_nothing(columns[1]), fields_or_nothing(columns[-1]), len(columns) == 3,
               signs["+"], signs["/"])


def object_read(number, text):
    words = text.split(None, 3)
    if len(words) < 3:
        raise routing_log.Unreadable(f"no object: {text!r}")
    return Object(number, tuple(words[:3]), routing_log.fields_read(words[3] if len(words) > 3 else ""))


def object_add(one, text):
    word, _, rest = text.partition(" ")
    if " |" in text:
        one.rows.append(row_read(text))
    elif word == "at":
        one.at = rest
    elif word == "needs":
        one.needs.append(rest)
    elif word == "with":
        one.with_leaves.append(rest)
    elif word in ("made", "gone"):
        setattr(one, word, fields_or_nothing(rest))
    else:
        raise routing_log.Unreadable(f"not understood: {text!r}")


def table_read(name, text):
    """Lines to commit first, and the objects."""
    setup, objects = [], []
    for number, line in enumerate(text.split("\n"), 1):
        line = line.rstrip()
        try:
            if not line or line.lstrip().startswith("#"):
                continue
            if line.startswith("set "):
                setup.append(line)
            elif line.startswith("object "):
                objects.append(object_read(number, line.removeprefix("object ")))
            elif line[0] == " " and objects:
                object_add(objects[-1], line.strip())
            else:
                raise routing_log.Unreadable(f"not understood: {line!r}")
        except routing_log.Unreadable as error:
            raise steps.Malformed(f"{name}:{number}: {error}") from None
    if not objects:
        raise steps.Malformed(f"{name}: no object in it")
    return setup, objects


# --- running ---

class Runner:
    """Commits, and notes what differs from what was wanted."""

    def __init__(self, device):
        self.device = device
        self.log = routing_log.RoutingLog()
        self.problems = []
        self.commits = 0

    def prepare(self, lines):
        """A commit whose messages do not count."""
        self._type(lines)
        self.log.settle()

    def expect(self, what, lines, wanted):
        try:
            self._type(lines)
        except steps.Failed as failure:
            self.problems.append(f"{what}: {failure}")
            return
        there = routing_log.without_validations(self.log.take())
        if there != wanted:
            self.problems.append(f"{what}: {routing_log.difference(wanted, there)}")

    def _type(self, lines):
        self.commits += 1
        status, said = self.device.type(lines + ["commit"])
        if status != 0:
            raise steps.Failed("the change was refused:\n" + steps.indented(lines + said.splitlines()))


def whole_fields(one):
    """Of the message when the object is created with all leaves that can stand together."""
    fields = {} if one.made is NOTHING else dict(one.made)
    rows = [row for row in one.rows if not row.alone and row.made is not NOTHING]
    for row in rows:
        fields |= row.made
    return fields if rows or one.made is not NOTHING else NOTHING


def object_run(runner, one):
    """Leaves the device without the object."""
    delete = [f"delete {one.at}"]
    if one.needs:
        runner.prepare(one.needs)
    runner.expect("created", one.create_lines(one.with_leaves), one.messages(one.made))
    staying = []
    for row in one.rows:
        runner.expect(f"set {row.leaf()}", [f"set {one.at} {row.leaf()}"], one.messages(row.made))
        if row.stays:
            staying.append(row)
        elif row.can_go:
            runner.expect(f"removed {row.path}", [f"delete {one.at} {row.path}"], one.messages(row.gone))
    for row in reversed(staying):
        runner.expect(f"removed {row.path}", [f"delete {one.at} {row.path}"], one.messages(row.gone))
    runner.expect("deleted", delete, one.messages(one.gone))
    if one.rows:
        leaves = one.with_leaves + [row.leaf() for row in one.rows if not row.alone]
        runner.expect("created with all leaves", one.create_lines(leaves), one.messages(whole_fields(one)))
        runner.expect("deleted with all leaves", delete, one.messages(one.gone))


def file_run(device, name, text, counts, out):
    """Starts from the configuration that the device came up with, and leaves it so."""
    try:
        setup, objects = table_read(name, text)
        runner = Runner(device)
        runner.prepare(device.restore_lines()[:-1] + setup)
    except (steps.Malformed, steps.Failed) as error:
        counts.failed += 1
        print(f"FAIL {name}: {error}", file=out)
        return
    for one in objects:
        start, runner.problems, runner.commits = time.monotonic(), [], 0
        try:
            object_run(runner, one)
        except steps.Failed as failure:
            runner.problems.append(str(failure))
        counts.passed += not runner.problems
        counts.failed += bool(runner.problems)
        print(f"{'FAIL' if runner.problems else 'ok  '} {name}: {one.title()} ({runner.commits} commits, "
              f"{time.monotonic() - start:.2f} s)", *(f"    line {one.line}: {text}" for text in runner.problems),
              sep="\n", file=out, flush=True)
    device.type(device.restore_lines())


if __name__ == "__main__":
    if len(sys.argv) < 2:
        sys.exit(__doc__)
    sys.exit(steps.main(sys.argv[1:], file_run))
