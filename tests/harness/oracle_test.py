#!/usr/bin/env python3
"""Tests of the restart oracle's own parts: its configurations keep to the rules, a failure gets shorter and stays one, and
what differs on purpose is taken out without its neighbours."""

import json
import random
import unittest

import oracle_config
import oracle_generate
import oracle_state
import oracle_told
import restart_oracle
import routing_objects
from oracle_config import Commit, Edit


def edit(line, value=None):
    verb, *path = line.split()
    return Edit(verb, tuple(path), value)


def commit_of(*lines):
    return Commit([[edit(*line) if isinstance(line, tuple) else edit(line)] for line in lines])


def tree_of(*lines):
    return oracle_config.sequence_end([commit_of(*lines)])


PORT = "set vpn vpn-instance 0 interface ge0/1"
ROUTER = "set vpn vpn-instance 0 router"
BOUND = "set policy lists prefix-list a ip-prefix 10.0.0.0/8"


class ConfigTest(unittest.TestCase):
    def test_what_is_generated_is_accepted_and_can_be_taken_back(self):
        generator = oracle_generate.Generator(random.Random(7))
        for _ in range(100):
            commits = generator.sequence(6)
            self.assertEqual(generator.tree, oracle_config.sequence_end(commits))
            tree = generator.tree
            for edits in oracle_config.edits_to_base(tree):
                tree = oracle_config.commit_apply(tree, edits)
            self.assertEqual(oracle_config.tree_base(), tree)

    def test_the_same_seed_gives_the_same_sequences(self):
        first, second = (oracle_generate.Generator(random.Random("1.5")).sequence(6) for _ in range(2))
        self.assertEqual(first, second)

    def test_edits_between_two_configurations_lead_from_one_to_the_other(self):
        generator = oracle_generate.Generator(random.Random(3))
        for _ in range(50):
            generator.sequence(4)
            old = generator.tree
            generator.sequence(4)
            new = oracle_config.tree_base()
            for tree in (old, generator.tree):
                edits = list(oracle_config.edits_between(new, tree))
                self.assertTrue(all(oracle_config.tree_apply(new, one) for one in edits))
                self.assertEqual(tree, new)

    def test_rules_refuse(self):
        for lines in (
                ["set vpn vpn-instance 5 interface ge0/1.100"],
                [PORT, "set vpn vpn-instance 5 interface ge0/1"],
                ["set vpn vpn-instance 0 interface irb1"],
                ["delete vpn vpn-instance 512"],
                [(PORT + " mtu", "1400"), (PORT + ".100 mtu", "1400")],
                [(PORT + " mtu", "576"), (PORT + " ipv6 address", "2001:db8::1/64")],
                ["set bridge bridge-instance 1 interface ge0/1"],
                [(PORT + " ip address", "10.0.0.1/24"), "set bridge bridge-instance 1 interface ge0/1"],
                [PORT, PORT + ".100", ("set bridge bridge-instance 1 vlan", "100"), "set bridge bridge-instance 1 interface ge0/1"],
                [("set vpn vpn-instance 5 interface gre1 tunnel-destination", "192.0.2.1")],
                ["set vpn vpn-instance 5 host one"],
                [(PORT + " ip address", "10.0.0.1/24"), ROUTER + " bgp 65000 neighbor 10.0.0.1"],
                [ROUTER + " bgp 65000", ROUTER + " bgp 65001"],
                [(ROUTER + " ospf redistribute static route-policy", "a")],
                [ROUTER + " ospf route-policy in"],
                [ROUTER + " ospf default-information always"],
                [ROUTER + " ospf area 0 stub"],
                [ROUTER + " ospf area 1 stub", ROUTER + " ospf area 1 nssa"],
                [ROUTER + " ospf area 1 interface ge0/1", ROUTER + " ospf area 2 interface ge0/1"],
                ["set policy route-policy a sequence 10"],
                [(BOUND + " ge", "24"), (BOUND + " le", "20")],
        ):
            with self.subTest(lines):
                self.assertIsNone(tree_of(*lines))

    def test_rules_accept(self):
        for lines in (
                [(PORT + " mtu", "1404"), (PORT + ".100 mtu", "1400"), ("set bridge bridge-instance 1 vlan", "300"),
                 "set bridge bridge-instance 2"],
                [ROUTER + " ospf area 1 interface ge0/1", ROUTER + " ospf area 1 stub no-summary"],
                [("set policy route-policy a default-action", "accept"), (ROUTER + " ospf redistribute static route-policy", "a")],
                [(BOUND + " ge", "24"), (BOUND + " eq", "20")],
        ):
            with self.subTest(lines):
                self.assertIsNotNone(tree_of(*lines))

    def test_a_deleted_leaf_takes_its_containers_along_and_leaves_the_entry(self):
        tree = tree_of((PORT + " ip address", "10.0.0.1/24"))
        self.assertTrue(oracle_config.tree_apply(tree, edit("delete vpn vpn-instance 0 interface ge0/1 ip address")))
        self.assertEqual(tree_of(PORT), tree)
        self.assertFalse(oracle_config.tree_apply(tree, edit("delete vpn vpn-instance 0 interface ge0/1 ip address")))


class ShrinkTest(unittest.TestCase):
    def test_the_two_lines_that_matter_are_left(self):
        def fails(commits):
            lines = [one.line() for commit in commits for one in commit.edits()]
            wanted = {"set vpn vpn-instance 5", "set system host-name alpha"}
            return "vpn 5 differs" if wanted <= set(lines) else None
        rest = [commit_of(("set system site-id", "7"), "set vpn vpn-instance 5", "set vpn vpn-instance 7"),
                commit_of(("set system system-ip", "10.0.0.1")),
                commit_of(PORT, ("set system host-name", "alpha"))]
        commits, problem = restart_oracle.shrink(fails, rest, "vpn 5 differs", 200)
        self.assertEqual([["set vpn vpn-instance 5", "set system host-name alpha"]],
                         [[one.line() for one in commit.edits()] for commit in commits])
        self.assertEqual("vpn 5 differs", problem)

    def test_another_failure_is_not_followed(self):
        commits = [commit_of("set vpn vpn-instance 5"), commit_of("set vpn vpn-instance 7")]
        found, _ = restart_oracle.shrink(lambda shorter: "the commit was refused", commits, "vpn 5 differs", 50)
        self.assertEqual(commits, found)


class StateTest(unittest.TestCase):
    def taken(self, state, tree=None, left=()):
        return oracle_state.comparable(dict(state), oracle_state.Configured(tree or {}, frozenset(left)))

    def test_taps_are_named_by_their_part(self):
        self.assertEqual(self.taken({"vpn 5 link loop0.3 mtu": "2000", "vpn 5 link loop0.2003 mtu": "2000"}),
                         self.taken({"vpn 5 link loop0.7 mtu": "2000", "vpn 5 link loop0.2007 mtu": "2000"}))
        self.assertNotEqual(self.taken({"vpn 5 link loop0.3 vlan": "3"}),
                            self.taken({"vpn 5 link loop0.3 vlan": "3", "vpn 5 link loop0.4 vlan": "4"}))

    def test_rows_that_are_taken_out_and_neighbours_that_are_not(self):
        for gone, kept in (
                ("vpn 5 link a address fe80::1/64", "vpn 5 link a address 2001:db8::1/64"),
                ("vpn 5 route local 10.0.0.1 dev a", "vpn 5 route main 10.0.0.0/24 dev a"),
                ("vpn 0 link ge0_1 ipv4/conf/*/arp_announce", "vpn 5 link ge0_1 ipv4/conf/*/arp_announce"),
        ):
            with self.subTest(gone):
                self.assertEqual([kept], list(self.taken({gone: "prefix 1", kept: "prefix 1"})))

    def test_a_label_may_be_another_but_not_absent(self):
        key = "oper vpn vpn-instance 5 label"
        self.assertEqual(self.taken({key: "3"}), self.taken({key: "4"}))
        self.assertNotEqual(self.taken({key: "3"}), self.taken({}))
        self.assertNotEqual(self.taken({key: "3"}), self.taken({key: "0"}))

    def test_a_port_that_left_a_bridge_may_be_up_and_no_other(self):
        up, down = {"vpn 0 link ge0_1 flags": "UP"}, {"vpn 0 link ge0_1 flags": ""}
        self.assertEqual(self.taken(up, left=["ge0/1"]), self.taken(down, left=["ge0/1"]))
        self.assertNotEqual(self.taken(up, left=["ge0/2"]), self.taken(down, left=["ge0/2"]))

    def test_the_management_port_without_a_setting_may_be_up(self):
        key = "vpn 512 link eth0 flags"
        for leaves, may_differ in (({}, True), ({"shutdown": "true"}, False)):
            tree = {"vpn": {"vpn-instance": {"512": {"interface": {"eth0": leaves}}}}}
            self.assertEqual(may_differ, self.taken({key: "UP"}, tree) == self.taken({key: ""}, tree))

    def test_a_tagged_interface_may_be_smaller_than_its_large_port_when_its_size_is_not_set(self):
        lines, rows = [(PORT + " mtu", "1996"), PORT + ".100"], [{"vpn 0 link ge0_1.100 mtu": size} for size in ("1500", "1996", "1400")]
        for tree, may_differ in ((tree_of(*lines), True), (tree_of(*lines, (PORT + ".100 mtu", "1500")), False), (tree_of(PORT + ".100", PORT), False)):
            self.assertEqual(may_differ, self.taken(rows[0], tree) == self.taken(rows[1], tree))
            self.assertNotEqual(self.taken(rows[0], tree), self.taken(rows[2], tree))

    def test_ipv6_addresses_need_a_link_that_is_up(self):
        address = {"vpn 5 link a address 2001:db8::1/64": "global", "vpn 5 route main 2001:db8::/64 dev a": ""}
        down, up = {"vpn 5 link a flags": "PROMISC"}, {"vpn 5 link a flags": "UP"}
        self.assertEqual(self.taken(down), self.taken(down | address))
        self.assertNotEqual(self.taken(up), self.taken(up | address))
        self.assertNotEqual(self.taken(down), self.taken(down | {"vpn 5 link a address 10.0.0.1/24": "global"}))

    def test_what_is_held_of_earlier_configurations_is_to_be_held_exactly(self):
        what = oracle_told.CAUSES[0].what
        configured = oracle_state.Configured({}, stale={what: {"a": ("1", None), "b": (None, "2")}})
        for before, after in (({"a": "1"}, {"b": "2"}), ({"a": "1", "b": "3"}, {"b": "3"}), ({"a": "2", "c": "4"}, {"a": "2", "b": "2", "c": "4"})):
            self.assertEqual(after, oracle_state.comparable(before, configured))

    def test_a_link_of_one_side_is_one_line(self):
        link = {"vpn 5 link a kind": "tun", "vpn 5 link a mtu": "1500"}
        self.assertEqual(["vpn 5 link a only before the restart"], oracle_state.differences(link, {}))
        self.assertEqual(["vpn 5 link a only after it"], oracle_state.differences({}, link))
        self.assertEqual(["vpn 5 link a mtu", "    running:   '1500'", "    restarted: '1400'"],
                         oracle_state.differences(link, link | {"vpn 5 link a mtu": "1400"}))
        self.assertEqual([], oracle_state.differences(link, link))

    def test_operational_leaves_are_named_by_their_keys(self):
        document = {"vpn:vpn": {"vpn-instance": [{"vpn-id": "5", "label": 1, "service": [{"service-type": "FW", "label": 2}]}]}}
        self.assertEqual({"oper vpn vpn-instance 5 label": "1", "oper vpn vpn-instance 5 service FW label": "2"},
                         dict(oracle_state.leaf_rows(document, ["oper"])))


def told(kind, number=0, **fields):
    return json.dumps({"type": kind, "number": number, "message": fields}) + "\n"


BGP = {"as_num": 65000}
NEIGHBOR = BGP | {"neighbor": {"is_ipv4": True, "address": "10.0.0.2"}}
AREA = {"area": 1}
PORT_OF_AREA = AREA | {"interface": "ge0_1"}
CLAUSE = {"name": "in", "sequence": 10}
START = told("start")


class ToldTest(unittest.TestCase):
    """Commits, and the rows of which the daemon's peers hold another value than after a start: this and that."""

    def stale(self, *commits):
        tree, held = {}, {}
        for lines in [[]] + list(commits):
            edits = commit_of(*lines).edits()
            new = oracle_config.commit_apply(tree, edits) if tree else oracle_config.tree_base()
            self.assertIsNotNone(new, lines)
            tree, held = new, oracle_told.told_after(held, tree, new)
        return {name: values for rows in oracle_told.stale_rows(held, tree).values() for name, values in rows.items()}

    def test_numbers_that_cannot_be_taken_back(self):
        limit = (ROUTER + " bgp 1.1 neighbor 192.0.2.1 address-family ipv4-unicast maximum-prefixes prefix-num", "9")
        gone = limit[0].replace("set", "delete")
        name = "vpn 0 message bgpd bgp 65537 neighbor 192.0.2.1 family 0 .maximum_prefixes"
        self.assertEqual({name: ("9", None)}, self.stale([limit], [gone]))
        self.assertEqual({}, self.stale([limit], [gone], [limit]))
        self.assertEqual({}, self.stale([limit], [gone, "delete vpn vpn-instance 0 router bgp 1.1 neighbor 192.0.2.1"]))

    def test_addresses_in_areas(self):
        in_area, address = ROUTER + " ospf area 1 interface ge0/1", (PORT + " ip address", "10.0.0.1/24")
        other, row = (PORT + " ip address", "10.0.0.2/24"), "vpn 0 message ospfd ospf area 1 interface ge0_1 address 10.0.0."
        first, second = row + "1/24", row + "2/24"
        for commits, stale in (
                ([[PORT, in_area], [address], [other]], {}),
                ([[in_area], [address]], {first: (None, "there")}), # the interface comes later
                ([[in_area], [PORT, address], ["delete vpn vpn-instance 0 router ospf area 1 interface ge0/1"], [in_area]], {}),
                ([[address, in_area, ROUTER + " ospf area 2"], ["delete vpn vpn-instance 0 router ospf area 2"], [other]],
                 {first: ("there", None), second: (None, "there")}),
                ([[address, in_area, ROUTER + " ospf area 2"],
                  ["delete vpn vpn-instance 0 router ospf area 2", "delete vpn vpn-instance 0 interface ge0/1"]], {}),
                ([[address, in_area], ["delete vpn vpn-instance 0 router ospf"]], {})):
            with self.subTest(commits):
                self.assertEqual(stale, self.stale(*commits))

    def test_policies_of_routes_outlive_the_container(self):
        made = [("set policy route-policy a default-action", "accept"), (ROUTER + " ospf route-policy out pol-name", "a")]
        row = "vpn 0 message zebra ospf-routes 1"
        self.assertEqual({row: ("there", None), row + " .route_policy": ("a", None)},
                         self.stale(made, ["delete vpn vpn-instance 0 router ospf"]))
        self.assertEqual({}, self.stale(made, ["delete vpn vpn-instance 0 router ospf route-policy out"]))
        self.assertEqual({}, self.stale(made, ["delete vpn vpn-instance 0 router ospf"], made, [
            "delete vpn vpn-instance 0 router ospf route-policy out"]))

    def test_parts_of_policies(self):
        ge, le, eq = ((f"{BOUND} {word}", value) for word, value in (("ge", "20"), ("le", "28"), ("eq", "24")))
        no_eq, new_vpn = BOUND.replace("set", "delete") + " eq", "set vpn vpn-instance 5"
        row = "vpn 0 message bgpd prefix-list a 10.0.0.0/8 ."
        clause = "set policy route-policy a sequence 10 action"
        half = [(clause + " base-action", "accept"), (clause + " set aggregator-as", "7"), (clause + " set aggregator-address", "10.0.0.1")]
        for commits, stale in (
                ([[ge, eq], [no_eq]], {row + "ge": (None, "20")}),
                ([[eq], [le]], {row + "le": ("28", "24")}),
                ([[ge, le], [eq]], {}),
                ([[ge, eq], [no_eq, le]], {row + "ge": (None, "20")}),
                ([half, [clause.replace("set", "delete", 1) + " set aggregator-as"]],
                 {"vpn 0 message bgpd route-map a 10 .set_aggr_ip_addr": (None, "10.0.0.1")})):
            with self.subTest(commits):
                found = self.stale(*commits, [new_vpn])
                self.assertEqual(stale, {name: values for name, values in found.items() if name.startswith("vpn 0 message bgpd")})
                self.assertFalse([name for name in found if name.startswith("vpn 5 ")], "a new VPN is told all as it is")


class FoldTest(unittest.TestCase):
    """Lines of a log, and the objects that the daemon holds then."""

    def folds(self, rows):
        for name, lines, objects in rows:
            with self.subTest(name):
                self.assertEqual(objects, routing_objects.fold(lines))

    def test_fields(self):
        bgp, area, port = ("bgp", "65000"), ("ospf", "area", "1"), ("ospf", "area", "1", "interface", "ge0_1")
        neighbor, clause, top = bgp + ("neighbor", "10.0.0.2"), ("route-map", "in", "10"), ("route-map", "in")
        self.folds((
            ("told anew", [told("m_bgp_instance", **BGP, holdtime=9), told("m_bgp_instance", **BGP, holdtime=12)],
             {bgp: {"holdtime": 12}}),
            ("0 and false", [told("m_bgp_instance", **BGP, holdtime=9, shutdown=True),
                             told("m_bgp_instance", **BGP, holdtime=0, shutdown=False)], {bgp: {}}),
            ("taken back", [told("m_bgp_neighbor", **NEIGHBOR, password="a", holdtime=9),
                            told("m_bgp_neighbor", **NEIGHBOR, password_is_deleted=True)], {neighbor: {"holdtime": 9}}),
            ("0 as a value", [told("m_route_map", **CLAUSE, action_type=0, metric=0)],
             {top: {}, clause: {"action_type": 0, "metric": 0}}),
            ("one flag for two", [told("m_route_map", **CLAUSE, action_type=0, set_aggr_as_num=1, set_weight=2),
                                  told("m_route_map", **CLAUSE, set_aggregator_is_deleted=True)],
             {top: {}, clause: {"action_type": 0, "set_weight": 2}}),
            ("a stub that is none", [told("m_ospf_area", **AREA, stub=True, stub_no_summary=True),
                                     told("m_ospf_area", **AREA, stub=False, nssa=True, translate_role=1)],
             {area: {"nssa": True, "translate_role": 1}}),
            ("the down bit alone", [told("m_ospf_instance", ignore_down_bit=True), told("m_ospf_instance", router_id=None),
                                    told("m_ospf_instance", entry_is_deleted=True)],
             {("ospf-down-bit",): {"ignore_down_bit": True}}),
            ("a map without clauses", [told("m_route_map", name="in")], {top: {}}),
            ("a router id taken back", [told("m_system_routerid", router_id={"is_ipv4": True, "prefix": "10.0.0.1/32"}),
                                        told("m_system_routerid", router_id_is_deleted=True)], {}),
            ("questions", [told("m_ospf_instance", 1, validate_only=True), told("m_bgp_as_path_list", 15, name="", regex="1")],
             {}),
            ("an earlier start", [told("m_ospf_area_interface", **PORT_OF_AREA), START,
                                  told("m_ospf_area_interface", **PORT_OF_AREA, cost=3)], {port: {"cost": 3}}),
            ("a line being written", [told("m_bgp_instance", **BGP), told("m_bgp_neighbor", **NEIGHBOR)[:-9]], {bgp: {}}),
        ))

    def test_what_goes_takes_along_what_lies_below_it_and_nothing_else(self):
        prefix = {"is_ipv4": True, "prefix": "10.1.0.0/16"}
        lines = [
            told("m_bgp_instance", **BGP), told("m_bgp_address_family", **BGP, address_family=0),
            told("m_bgp_address_family_network", **BGP, address_family=0, ipv4_prefix=prefix),
            told("m_bgp_neighbor", **NEIGHBOR), told("m_bgp_neighbor_address_family", **NEIGHBOR, address_family=0),
            told("m_bgp_neighbor_address_family_route_map", **NEIGHBOR, address_family=0, direction=1, route_policy="in"),
            told("m_ospf_area", **AREA), told("m_ospf_area", area=11), told("m_ospf_area_interface", **PORT_OF_AREA),
            told("m_ospf_area_interface_address", **PORT_OF_AREA, prefix=prefix),
            told("m_rtm_route_map_ospf", direction=0, route_policy="in"),
            told("m_prefix_list", name="a", prefix=prefix, ge=20), told("m_prefix_list", name="b", prefix=prefix),
            told("m_route_map", **CLAUSE, action_type=0), told("m_route_map", name="in", sequence=65535, action_type=0)]
        for kind, fields, flag, gone in (
                ("m_bgp_instance", BGP, "entry", "bgp 65000"),
                ("m_bgp_neighbor", NEIGHBOR, "entry", "bgp 65000 neighbor 10.0.0.2"),
                ("m_bgp_address_family", BGP | {"address_family": 0}, "entry", "bgp 65000 family 0"),
                ("m_ospf_area", AREA, "entry", "ospf area 1"),
                ("m_ospf_instance", {}, "entry", "ospf"),
                ("m_rtm_route_map_ospf", {"direction": 0}, "entry", "ospf-routes 0"),
                ("m_prefix_list", {"name": "a"}, "list", "prefix-list a"),
                ("m_prefix_list", {"name": "a", "prefix": prefix}, "prefix", "prefix-list a 10.1.0.0/16"),
                ("m_route_map", CLAUSE, "seq", "route-map in 10"),
                ("m_route_map", {"name": "in"}, "route_map", "route-map in")):
            with self.subTest(gone):
                before, words = routing_objects.fold(lines), tuple(gone.split())
                left = {key: value for key, value in before.items() if key[:len(words)] != words}
                self.assertNotEqual(before, left)
                self.assertEqual(left, routing_objects.fold(lines + [told(kind, **fields, **{flag + "_is_deleted": True})]))

    def test_a_message_that_nobody_knows_is_not_passed_over(self):
        self.assertRaises(KeyError, routing_objects.fold, [told("not-understood")])


if __name__ == "__main__":
    program = unittest.main(exit=False, verbosity=0)
    failed = len(program.result.failures) + len(program.result.errors)
    print(f"{program.result.testsRun - failed} passed, {failed} failed")
    raise SystemExit(1 if failed else 0)
