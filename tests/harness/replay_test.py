#!/usr/bin/env python3
"""Tests of the replay property's own parts: interleavings that keep to the rules, and a judge that finds what is wrong."""

import json
import random
import unittest
from collections import Counter

import replay_interleavings as interleavings
import replay_judge
from replay_interleavings import Commit, Generator, Wave

LIST = "policy lists as-path-list a"
MAP = "policy route-policy r"


def lines_of(*messages):
    return [json.dumps({"time": 1, "type": kind, "number": 1, "message": message}) + "\n" for kind, message in messages]


def told(name, **fields):
    return "m_bgp_community_list", {"name": name, **fields}


A1, A2, B1 = told("a", community="1:1"), told("a", community="1:2"), told("b", community="1:1")
A1_GONE = told("a", community="1:1", entry_is_deleted=True)
A_GONE = told("a", list_is_deleted=True)
MAP_1 = "m_route_map", {"name": "r", "sequence": 10, "action_type": 0}
START = "start", {}


def problems(changes, states, **logs):
    """Of logs of bgpd by VPN, "gone" for one that is gone; the other daemons have heard nothing."""
    lives = [life for vpn, messages in logs.items() for life in replay_judge.lives_of(
        vpn.removeprefix("vpn"), "bgpd", "".join(lines_of(*messages)), vpn != "vpngone")]
    lives += [replay_judge.Life("0", daemon, []) for daemon in ("ospfd", "zebra")]
    return list(replay_judge.problems(lives, changes, states))


class InterleavingsTest(unittest.TestCase):
    def test_the_same_seed_gives_the_same_interleavings(self):
        first, second = (Generator(random.Random("1.5"), 3).interleaving() for _ in range(2))
        self.assertEqual(first, second)

    def test_references_are_to_what_is_there_whatever_is_left_out(self):
        for seed in range(30):
            interleaving = Generator(random.Random(seed), 3).interleaving()
            for one in (interleaving, *interleavings.smaller(interleaving)):
                for commit in (commit for wave in one for commits in wave.sessions for commit in commits):
                    for path, kind in interleavings.references(commit.state):
                        self.assertIn(f"policy lists {kind} {commit.state[path]}", commit.state)

    def test_lines_lead_from_one_state_to_the_other(self):
        for old, new, lines in (
                ({}, {LIST: None, f"{LIST} as-path .*": None}, [f"set {LIST}", f"set {LIST} as-path .*"]),
                ({LIST: None, f"{LIST} as-path .*": None}, {}, [f"delete {LIST}"]),
                ({MAP: None, f"{MAP} default-action": "accept"}, {MAP: None}, [f"delete {MAP} default-action"]),
                ({f"{MAP} default-action": "accept"}, {f"{MAP} default-action": "reject"}, [f"set {MAP} default-action reject"]),
        ):
            self.assertEqual(lines, interleavings.lines_between(old, new))

    def test_a_commit_tells_of_each_object_once_and_of_a_list_only_that_it_goes(self):
        clause = f"{MAP} sequence 10"
        full = {LIST: None, f"{LIST} as-path .*": None, MAP: None, clause: None, f"{clause} match metric": "1"}
        member, policy, one = ("m_bgp_as_path_list", "a", ".*"), ("m_route_map", "r", None), ("m_route_map", "r", "10")
        for old, new, changes in (
                ({}, full, [member, policy, one]),
                (full, {}, [("m_bgp_as_path_list", "a", None), policy]),
                (full, {MAP: None, LIST: None}, [member, one]),
                (full, full | {f"{clause} match metric": "2"}, [one]),
                ({LIST: None}, {LIST: None, "vpn vpn-instance 10": None}, []),
        ):
            self.assertEqual(Counter(changes), interleavings.changes_between(old, new))

    def test_what_is_smaller_has_less_in_it(self):
        interleaving = [Wave([[Commit({LIST: None}), Commit({})], [Commit({MAP: None})]]), Wave([[], []])]
        sizes = [sum(len(commit.state) + 1 for wave in one for commits in wave.sessions for commit in commits)
                 for one in interleavings.smaller(interleaving)]
        self.assertTrue(all(size <= 5 for size in sizes))
        self.assertIn([Wave([[Commit({})], [Commit({MAP: None})]]), Wave([[], []])], list(interleavings.smaller(interleaving)))


class JudgeTest(unittest.TestCase):
    STATE = {"policy lists community-list a": None, "policy lists community-list a community 1:2": None}
    CHANGES = Counter({("m_bgp_community_list", "a", "1:1"): 2, ("m_bgp_community_list", "a", "1:2"): 1})
    LOG = (A1, A2, A1_GONE)

    def judged(self, *log, **other):
        return problems(self.CHANGES, [self.STATE], vpn0=log or self.LOG, **other)

    def test_a_replay_at_any_moment_and_what_followed_are_right(self):
        for log in ((A1, A2, A1_GONE), (A2, A1, A1_GONE), (A2,)):
            self.assertEqual([], self.judged(vpn5=log))

    def test_what_is_missing_doubled_or_from_another_moment_is_wrong(self):
        for log in ((), (A1,), (A1, A2), (A2, A2), (A1, A2, A2, A1_GONE), (A2, A1_GONE), (B1, A2), (A1, A2, A1_GONE, A2)):
            self.assertIn("bgpd of VPN 5 is not", self.judged(vpn5=log)[0])

    def test_a_vpn_that_is_gone_may_have_heard_nothing_or_less(self):
        for log in ((), (A1, A2), (A1,), (A2, A1)):
            self.assertEqual([], self.judged(vpngone=log))
        self.assertTrue(self.judged(vpngone=(B1,)))

    def test_each_life_of_a_daemon_is_judged_by_itself(self):
        self.assertEqual([], self.judged(vpn5=(A1, A2, START, A2)))
        self.assertTrue(self.judged(vpn5=(A2, START, A1)))

    def test_the_measure_is_told_each_change_once_and_holds_the_configuration(self):
        self.assertIn("was told 2 times of m_bgp_community_list a 1:2", self.judged(A1, A2, A2, A1_GONE)[0])
        self.assertIn("still holds m_bgp_community_list a 1:1", self.judged(A1, A1, A2)[0])
        self.assertIn("does not hold m_bgp_community_list a 1:2", problems(Counter(), [self.STATE], vpn0=())[0])

    def test_behind_a_new_start_of_the_manager_only_the_end_counts(self):
        log = (A1, START, A2)
        self.assertEqual([], problems(None, [self.STATE], vpn0=log, vpn5=(START, A1, A2, A2, A1_GONE), vpngone=(B1,)))
        self.assertTrue(problems(None, [self.STATE], vpn0=log, vpn5=(START,)))

    def test_policies_go_to_every_daemon(self):
        state = {MAP: None, f"{MAP} sequence 10": None}
        lines = problems(Counter({("m_route_map", "r", "10"): 1}), [state], vpn0=(MAP_1,))
        self.assertEqual({"ospfd", "zebra"}, {line.split()[0] for line in lines if "was told 0 times" in line})


if __name__ == "__main__":
    program = unittest.main(exit=False, verbosity=0)
    failed = len(program.result.failures) + len(program.result.errors)
    print(f"{program.result.testsRun - failed} passed, {failed} failed")
    raise SystemExit(1 if failed else 0)
