#!/usr/bin/env python3
"""Tests of the runners of steps and of tables of messages: what they read, and above all that each expectation can fail."""

import io
import json
import os
import pathlib
import re
import tempfile
import unittest

import messages
import routing_log
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


ROOT = pathlib.Path(__file__).resolve().parents[2]
# Fields that the daemon has no use for; the removal of a site's number goes out as 0.
NEVER_SENT = {"m_bgp_instance graceful_restart_helper", "m_bgp_instance log_neighbor_changes",
              "m_bgp_instance site_id_is_deleted", "m_route_map interface", "m_route_map interface_is_deleted",
              "m_route_map tag", "m_route_map tag_is_deleted"}

TABLE = """set first thing
object bgpd 0,5 m_one key=1
    at a b
    with must 1
    made must=1
    leaf: 7     | leaf=7          | +leaf_is_deleted
    / other: 8  | leaf=8          | leaf=0
    + outer     | nothing         | -outer
    deaf: 1     |                 |
    only: 10.0.0.1 | only=10.0.0.1
"""
# What is typed, and the fields that a daemon without faults then gets beside the key.
CREATED = "set a b;set a b must 1"
ANSWERS = {
    CREATED: ["must=1"], "set a b leaf 7": ["leaf=7"], "delete a b leaf": ["+leaf_is_deleted"],
    "set a b other 8": ["leaf=8"], "delete a b other": ["leaf=0"], "set a b outer": [], "delete a b outer": ["-outer"],
    "set a b deaf 1": [""], "delete a b deaf": [""], "set a b only 10.0.0.1": ["only=10.0.0.1"],
    "delete a b": ["+entry_is_deleted"],
    CREATED + ";set a b leaf 7;set a b outer;set a b deaf 1;set a b only 10.0.0.1": ["must=1 leaf=7 only=10.0.0.1"],
}


class ToldDevice(FakeDevice):
    """Tells two daemons at each change what stands in answers; kept in logs as the peers do."""

    def __init__(self, answers, stray=None):
        super().__init__()
        self.answers, self.stray, self.clock = answers, stray, 0

    def restore_lines(self):
        return ["commit"]

    def type(self, lines):
        super().type(lines)
        for fields in self.answers.get(";".join(lines[:-1]), []):
            for vpn in (0, 5):
                self.tell("bgpd", vpn, {"key": 1} | routing_log.fields_read(fields))
        if self.stray and lines[0] == "set a b leaf 7":
            self.tell(*self.stray)
        return (0, "")

    def tell(self, daemon, vpn, fields):
        self.clock += 1
        row = {"time": self.clock, "vpn": vpn, "daemon": daemon, "type": "m_one", "number": 1, "message": fields}
        with open(f"{routing_log.LOG_DIR}/{daemon}.log.{vpn}", "a", encoding="utf-8") as file:
            file.write(json.dumps(row) + "\n")


class MessagesTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        routing_log.LOG_DIR, routing_log.QUIET_S = folder.name, 0

    def outcome(self, table, device):
        for name in os.listdir(routing_log.LOG_DIR):
            os.remove(os.path.join(routing_log.LOG_DIR, name))
        counts, out = steps.Counts(), io.StringIO()
        messages.file_run(device, "f.messages", table, counts, out)
        return counts.line(), out.getvalue()

    def test_a_table_holds(self):
        device = ToldDevice(ANSWERS)
        self.assertEqual("1 passed, 0 failed", self.outcome(TABLE, device)[0], self.outcome(TABLE, device)[1])
        self.assertEqual(["set first thing", "commit"], device.typed[0])

    def test_each_message_is_looked_at(self):
        for change in ANSWERS:
            for answer in (["key=2"], [*ANSWERS[change], "+more"], ["leaf=6"]):
                with self.subTest(change=change, answer=answer):
                    self.assertEqual("0 passed, 1 failed", self.outcome(TABLE, ToldDevice(ANSWERS | {change: answer}))[0])

    def test_a_message_to_anybody_else_fails(self):
        for stray in (("bgpd", 6, {}), ("zebra", 0, {"key": 1, "leaf": 7})):
            self.assertEqual("0 passed, 1 failed", self.outcome(TABLE, ToldDevice(ANSWERS, stray))[0])

    def test_fields_come_back_as_they_are_written(self):
        text = '-off +on a=1 b="x \\"y\\" ú" n=10.0.0.1 p=2001:db8::/32 q={"sub":{"is_ipv4":true}} t="10.0.0.1"'
        fields = routing_log.fields_read(text)
        self.assertEqual({"is_ipv4": False, "prefix": "2001:db8::/32"}, fields["p"])
        line = routing_log.messages_make("bgpd", "0", "m", fields)[0].line()
        self.assertEqual(fields, routing_log.fields_read(line.removeprefix("bgpd 0 m ")))

    def test_malformed_tables_fail_and_name_the_line(self):
        for text in ("object bgpd 0\n", "object bgpd 0 m a\n", "object bgpd 0 m +a=1\n", "object bgpd 0 m a=x\n",
                     "object bgpd 0 m a=1b=2\n", "object bgpd 0 m\n    what\n", "    at a\n", "set a\n", "",
                     "object bgpd 0 m\n    a | b=1 | c=1 | d=1\n"):
            with self.subTest(text):
                self.assertEqual("0 passed, 1 failed", self.outcome(text, ToldDevice({}))[0])

    def test_steps_expect_messages_in_the_order_in_which_they_came(self):
        for body, good in (("bgpd 0,5 m_one key=1 leaf=7\n    zebra 1 m_one", True), ("bgpd 0,5 m_one key=1 leaf=7", False),
                           ("zebra 1 m_one\n    bgpd 0,5 m_one key=1 leaf=7", False), ("", False)):
            device, counts = ToldDevice(ANSWERS, ("zebra", 1, {})), steps.Counts()
            text = f"case c\nwithin 0\n> set a b leaf 7\n> commit\nmessages:\n    {body}\n"
            device.routing.mark()
            steps.file_run(device, "f", text, counts, io.StringIO())
            self.assertEqual(f"{int(good)} passed, {int(not good)} failed", counts.line(), body)

    def test_every_field_of_every_message_of_configuration_is_told_somewhere(self):
        told, cases = {}, ROOT / "tests" / "component"
        for path in cases.glob("*.messages"):
            for one in messages.table_read(path.name, path.read_text())[1]:
                for fields in (one.keys, one.made, one.gone, *(f for row in one.rows for f in (row.made, row.gone))):
                    told.setdefault(one.target[2], set()).update(fields or ())
        for match in re.finditer(r"\n +\w+ \S+ (m_\w+)\??(.*)", (cases / "routing_order.steps").read_text()):
            told.setdefault(match.group(1), set()).update(routing_log.fields_read(match.group(2)))
        protos = "".join(path.read_text() for path in (ROOT / "proto").glob("*.proto"))
        missing = {f"{name} {field}" for name, fields in told.items() for field in re.findall(
            r" (\w+) = \d+;", re.search(rf"message {name} {{(.*?)\n}}", protos, re.DOTALL).group(1)) if field not in fields}
        self.assertEqual(21, len(told), sorted(told))
        self.assertEqual(NEVER_SENT, missing)


if __name__ == "__main__":
    program = unittest.main(exit=False, verbosity=0)
    failed = len(program.result.failures) + len(program.result.errors)
    print(f"{program.result.testsRun - failed} passed, {failed} failed")
    raise SystemExit(1 if failed else 0)
