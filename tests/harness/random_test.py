#!/usr/bin/env python3
"""Tests of the random configurations' own parts: what is made comes from the models, what refuses is told apart, and a run
that means nothing fails."""

import random
import re
import unittest
from collections import Counter

import random_config
import random_generate
import random_refusals
import random_schema
import random_values

ROOT = random_schema.schema_read(random_config.CHECKOUT / "yang")
INTERFACE = "set vpn vpn-instance 0 interface ge0/1"


def generator(seed, world=random_values.EDGE):
    return random_generate.Generator(random.Random(seed), ROOT, world)


def commits(seed, count):
    """Commits, each of which changes what those before have made; now and then from nothing."""
    maker, lines, made = generator(seed), [], []
    for number in range(count):
        lines = lines if number % 20 else []
        made.append(maker.commit(lines))
        lines += [line for line in made[-1] if line.startswith("set") and line not in lines]
    return made


def refusal(said, musts=()):
    return random_refusals.refusal_of(f"cli: {said}\n", "/tmp/x.cfg", musts)


class SchemaTest(unittest.TestCase):
    def test_nodes_are_those_of_the_models(self):
        vpn = ROOT.children["vpn"].children["vpn-instance"]
        mtu = vpn.children["interface"].children["mtu"]
        self.assertEqual((("vpn-id",), "leaf", ((576, 2000),)), (vpn.keys, mtu.kind, mtu.type.ranges))
        self.assertIn("tunnel-source", vpn.children["interface"].children)                  # of a choice in a grouping
        self.assertNotIn("label", vpn.children)                                             # operational data
        self.assertEqual(["role"], [node.name for node in vpn.children["dns"].required()])
        policy = ROOT.children["policy"].children                                           # what a use adds to a grouping
        match = policy["route-policy"].children["sequence"].children["match"].children
        self.assertIn("prefix-list", policy["lists"].children)
        self.assertEqual(("policy", "lists", "prefix-list", "name"), match["address"].type.target)

    def test_every_typedef_ends_at_a_known_type(self):
        for node in random_schema.nodes_below(ROOT):
            if node.type is not None and node.type.base == "unknown":
                known = set(node.type.names) & set(random_values.OF_TYPEDEF) or node.name in random_values.OF_LEAF
                self.assertTrue(known, node.path())


class GenerateTest(unittest.TestCase):
    def test_the_same_seed_makes_the_same_commits(self):
        self.assertEqual(commits("a", 20), commits("a", 20))
        self.assertNotEqual(commits("a", 20), commits("b", 20))

    def test_lines_follow_the_models(self):
        for line in (line for commit in commits("c", 200) for line in commit):
            _words, steps = random_generate.State(ROOT, ()).parsed(line)
            self.assertTrue(steps, line)

    def test_references_are_mostly_to_what_is_there(self):
        lists = [f"set policy lists prefix-list {name} ip-prefix 10.0.0.0/8" for name in ("n1", "n2")]
        maker = generator("e")
        maker.state = random_generate.State(ROOT, [*lists, "set policy route-policy p sequence 1 match address n2"])
        maker.values = random_values.Values(maker.random, maker.world, maker.state)
        leaf = maker.state.paths[-1][1][-1][0]
        drawn = Counter(maker.values.value(leaf, ()) for _ in range(200))
        self.assertGreater(min(drawn["n1"], drawn["n2"]), 50)
        self.assertLess(drawn["n1"] + drawn["n2"], 200)
        self.assertEqual([("policy", "lists", "prefix-list", "n2")], maker.state.referred())

    def test_most_of_the_models_is_reached(self):
        wanted = {node.path() for node in random_schema.nodes_below(ROOT) if node.name not in node.parent.keys}
        state = random_generate.State(ROOT, ())
        found = {tuple(node.name for node, _ in state.parsed(line)[1][:depth + 1])
                 for commit in commits("d", 1000) for line in commit for depth in range(12)}
        self.assertGreater(len(wanted & found), 0.8 * len(wanted), sorted(wanted - found))

    def test_openings_are_built_from_what_the_models_know(self):
        for world in (random_values.EDGE, random_values.NODE):
            for line in (*world.opening, *(line for group in world.more for line in group)):
                random_generate.State(ROOT, ()).parsed(line)

    def test_the_way_back_deletes_what_is_new_once_and_sets_what_is_gone(self):
        old = [INTERFACE + " mtu 1400", "set vpn vpn-instance 5", INTERFACE + " ip address 10.1.1.1/24"]
        new = [INTERFACE + " shutdown false"]
        self.assertEqual(["delete vpn vpn-instance 0 interface ge0/1 mtu", "delete vpn vpn-instance 5",
                          "delete vpn vpn-instance 0 interface ge0/1 ip", INTERFACE + " shutdown false"],
                         random_generate.lines_between(ROOT, old, new))


class RefusalTest(unittest.TestCase):
    def test_texts_of_rules_are_known_with_their_values(self):
        for text in random_refusals.RULES:
            said = re.sub("%l?[dux]", "7", text.replace("%s", "ge0/1"))
            kind, _row = refusal(said)
            self.assertEqual("rule", kind, text)

    def test_the_row_with_the_most_words_counts(self):
        self.assertEqual(("rule", "Invalid Prefix: %s - Natpool interface should be on subnet boundaries."),
                         refusal("Invalid Prefix: 10.0.0.1/24 - Natpool interface should be on subnet boundaries."))

    def test_rules_of_the_models_are_known(self):
        for said, kind in (
                ("'vpn vpn-instance 5 dns 10.1.1.1 role' has to be set", "model"),
                ("'vpn': too many", "model"),
                ("/tmp/x.cfg:1:44: bad value '14000' for 'mtu': 576..2000 bytes", "typed"),
                ("/tmp/x.cfg:3: 'vpn' does not exist", "typed")):
            self.assertEqual(kind, refusal(said, ("too many",))[0], said)

    def test_other_texts_are_not(self):
        for said in ("Interface is part of bridge", "no daemon has registered validation point \"x\"", "'vpn': too few",
                     "/tmp/x.cfg:1: unknown element 'x'", "validation point sysIfAddr refused system system-ip", ""):
            self.assertEqual((None, None), refusal(said, ("too many",)), said)


class RunTest(unittest.TestCase):
    def test_a_run_that_means_little_fails(self):
        rules = Counter({str(number): 1 for number in range(random_config.LEAST_RULES)})
        kinds = Counter({f"m_{number}": 1 for number in range(random_config.LEAST_KINDS)})
        for faults, counts in (
                (0, random_config.Counts(30, Counter({"rule": 70}), rules, kinds)),
                (1, random_config.Counts(20, Counter({"rule": 80}), rules, kinds)),
                (1, random_config.Counts(30, Counter({"typed": 70}), Counter(), kinds)),
                (1, random_config.Counts(30, Counter({"rule": 70}), rules, Counter({"m_0": 99})))):
            self.assertEqual(faults, len(list(random_config.means_something(counts))), counts)

    def test_what_is_tried_to_make_a_sequence_shorter_is_shorter(self):
        made = [["a", "b"], ["c"], ["d", "e"]]
        tries = list(random_config.smaller(made))
        self.assertIn([["d", "e"]], tries)
        self.assertIn([["a", "b"], ["c"], ["d"]], tries)
        for tried in tries:
            self.assertLess(sum(map(len, tried)), 5)


if __name__ == "__main__":
    program = unittest.main(exit=False, verbosity=0)
    failed = len(program.result.failures) + len(program.result.errors)
    print(f"{program.result.testsRun - failed} passed, {failed} failed")
    raise SystemExit(1 if failed else 0)
