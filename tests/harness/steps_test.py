#!/usr/bin/env python3
"""Tests of the step runner: what it reads, and above all that each kind of expectation can fail."""

import io
import unittest

import steps


class FakeDevice(steps.Device):
    """A device whose state is given; what is typed is kept."""

    def first_keep(self):
        pass

    def __init__(self, **state):
        super().__init__()
        self.state = {"commands": [], "log": [], "files": {}, "oper": {}, "shell": (0, ""), "cli": (0, "")} | state
        self.typed = []

    def mark(self):
        pass

    def type(self, lines):
        self.typed.append(list(lines))
        return self.state["cli"]

    def shell(self, command):
        return self.state["shell"]

    def oper(self, path):
        return self.state["oper"].get(path)

    def commands(self):
        return self.state["commands"]

    def log(self):
        return self.state["log"]

    def file(self, path):
        return self.state["files"].get(path)


def outcome(text, **state):
    counts, out = steps.Counts(), io.StringIO()
    steps.file_run(FakeDevice(**state), "f.steps", "case c\nwithin 0\n" + text, counts, out)
    return counts.line(), out.getvalue()


# An expectation, a state in which it holds, one in which it does not.
ROWS = (
    ("run:\n    ip netns add 5\n", {"commands": [("ip netns add 5", 0)]}, {"commands": [("ip netns add 5", 1)]}),
    ("run:\n    a => 2\n", {"commands": [("a", 2)]}, {"commands": [("a", 0)]}),
    ("run:\n    a\n    b\n", {"commands": [("a", 0), ("b", 0)]}, {"commands": [("b", 0), ("a", 0)]}),
    ("run:\n    ...\n    b *\n    ...\n", {"commands": [("a", 0), ("b 1", 0)]}, {"commands": [("a", 0)]}),
    ("run:\n", {}, {"commands": [("a", 0)]}),
    ("file /f:\n    a\n\n    b\n", {"files": {"/f": "a\n\nb\n"}}, {"files": {"/f": "a\nb\n"}}),
    ("file /f:\n", {"files": {"/f": ""}}, {}),
    ("no file /nosuch/f\n", {}, {"files": {"/nosuch/f": ""}}),
    ("oper vpn vpn-instance 5 label = 1\n", {"oper": {"vpn vpn-instance 5 label": "1"}}, {}),
    ("oper a = 1\n", {"oper": {"a": "1"}}, {"oper": {"a": "11"}}),
    ("oper a 2001:db8:: b = 7\n", {"oper": {"a 2001:db8:: b": "7"}}, {"oper": {"a 2001:db8:: b": "8"}}),
    ("no oper a\n", {}, {"oper": {"a": "1"}}),
    ("log: add [5]\n", {"log": ["x add [5] y"]}, {"log": ["x add 5 y"]}),
    ("no log: ERROR\n", {"log": ["fine"]}, {"log": ["an ERROR"]}),
    ("$ true\n", {}, {"shell": (1, "")}),
    ("$ true\n", {}, {"shell": (0, "unexpected")}),
    ("$ false => 1\n", {"shell": (1, "")}, {}),
    ("$ ip\n    5*\n", {"shell": (0, "5 (id: 0)\n")}, {"shell": (0, "6\n")}),
    ("! kill 1\n", {"shell": (0, "words")}, {"shell": (1, "")}),
    ("> set a\n", {}, {"cli": (1, "no such node")}),
    ("> set a\nrefused: no such\n", {"cli": (1, "no such node")}, {}),
    ("> set a\nrefused: other\n", {"cli": (1, "an other text")}, {"cli": (1, "no such node")}),
)


class StepsTest(unittest.TestCase):
    def test_each_expectation_holds_and_fails(self):
        for text, good, bad in ROWS:
            with self.subTest(text):
                self.assertEqual("1 passed, 0 failed", outcome(text, **good)[0], outcome(text, **good)[1])
                self.assertEqual("0 passed, 1 failed", outcome(text, **bad)[0])

    def test_lines_typed_together_are_one_change(self):
        device = FakeDevice()
        steps.file_run(device, "f", "case c\n> set a\n> commit\n$ true\n> delete a\n", steps.Counts(), io.StringIO())
        self.assertEqual([["set a", "commit"], ["delete a"]], device.typed)

    def test_a_failed_step_ends_its_case_only(self):
        device, counts = FakeDevice(oper={}), steps.Counts()
        steps.file_run(device, "f", "case one\nwithin 0\noper a = 1\n> set a\ncase two\n> set b\n", counts, io.StringIO())
        self.assertEqual("1 passed, 1 failed", counts.line())
        self.assertEqual([["set b"]], device.typed)

    def test_unmet_needs_skip_and_are_counted(self):
        counts = steps.Counts()
        steps.file_run(FakeDevice(shell=(1, "")), "f", "needs x\ncase c\n> set a\n", counts, io.StringIO())
        self.assertEqual("0 passed, 0 failed, 1 skipped", counts.line())

    def test_malformed_files_fail_and_name_the_line(self):
        for text in ("case c\nwhat is this\n", "case c\n> a\n    body\n", "oper a = 1\n", "", "case c\nrefused: x\n"):
            with self.subTest(text):
                counts, out = steps.Counts(), io.StringIO()
                steps.file_run(FakeDevice(), "f.steps", text, counts, out)
                self.assertEqual("0 passed, 1 failed", counts.line())
                self.assertIn("FAIL f.steps", out.getvalue())

    def test_dots_take_any_lines_anywhere(self):
        for wanted, lines, match in ((["..."], [], True), (["...", "b"], ["a", "b"], True),
                                     (["a", "...", "c"], ["a", "c"], True), (["a", "...", "..."], ["a"], True),
                                     (["a", "..."], ["b"], False), (["...", "a", "..."], ["b", "b"], False)):
            with self.subTest(wanted=wanted, lines=lines):
                self.assertEqual(match, steps.lines_match(wanted, lines))

    def test_the_leaf_of_a_document_is_found_beside_its_keys(self):
        value = {"vpn:vpn": {"vpn-instance": [{"vpn-id": 5, "label": 1}]}}
        while isinstance(value, (dict, list)):
            value = steps.leaf_of(value)
        self.assertEqual(1, value)


if __name__ == "__main__":
    program = unittest.main(exit=False, verbosity=0)
    failed = len(program.result.failures) + len(program.result.errors)
    print(f"{program.result.testsRun - failed} passed, {failed} failed")
    raise SystemExit(1 if failed else 0)
