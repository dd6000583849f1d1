"""Routing in the configurations of the restart oracle: which objects there are, what they are set to, and their rules.

A row of the tables is a kind of object, below it are those that stand in it. The values are few, so that objects meet
again: names are deleted and come back, two objects refer to one policy.
"""

from dataclasses import dataclass, field


@dataclass(frozen=True)
class Ref:
    """Values that are the keys of a list, which must be there."""
    path: tuple


@dataclass(frozen=True, eq=False)
class Node:
    """A kind of object. One that stands twice below another comes twice as often."""
    words: str
    keys: object                # texts, or OWN_PORTS; None for a container that is there by itself
    leaves: dict = field(default_factory=dict) # words -> texts, a Ref, or EMPTY
    musts: tuple = ()           # leaves that each has
    below: tuple = ()


OWN_PORTS = "interfaces of the VPN"
EMPTY = None
BOOLS = ("true", "false")
FAMILIES = ("ipv4-unicast",)
DIRECTIONS = ("in", "out")
NETWORKS = ("10.1.0.0/16", "10.2.4.0/24", "0.0.0.0/0")
PEERS = ("192.0.2.1", "192.0.2.2", "2001:db8:99::2", "10.10.0.1")
COMMUNITIES = ("65000:1", "65000:2", "no-export", "internet")
POLICY = Ref(("policy", "route-policy"))
NETS = Ref(("policy", "lists", "prefix-list"))


def list_ref(word):
    return Ref(("policy", "lists", word + "-list"))


REDISTRIBUTE = {"route-policy": POLICY}
ROUTES = Node("route-policy", DIRECTIONS, {"pol-name": POLICY}, ("pol-name",))

BGP = Node("bgp", ("65000", "65000", "65001.7"), {
    "shutdown": BOOLS, "router-id": ("10.255.1.1", "10.255.1.2"), "timers keepalive": ("10", "20"), "timers holdtime": ("30", "60"),
    "best-path med always-compare": BOOLS, "best-path med deterministic": BOOLS, "best-path med missing-as-worst": BOOLS,
    "best-path compare-router-id": BOOLS, "best-path multipath-relax": BOOLS, "distance external": ("30", "40"),
    "distance internal": ("50",), "distance local": ("60",), "graceful-shutdown": BOOLS,
}, below=(
    Node("address-family", FAMILIES, {"maximum-paths": ("2", "8")}, below=(
        Node("aggregate-address", NETWORKS, {"as-set": EMPTY, "summary-only": EMPTY}),
        Node("network", NETWORKS),
        Node("redistribute", ("static", "connected", "ospf", "natpool-outside"), REDISTRIBUTE),
    )),
    Node("neighbor", PEERS, {
        "shutdown": BOOLS, "remote-as": ("65000", "65002", "1.10"), "timers keepalive": ("5",), "timers holdtime": ("15", "45"),
        "timers advertisement-interval": ("7",), "timers connect-retry": ("9", "11"), "update-source if-name": ("ge0/1", "loopback1"),
        "update-source ip-address": ("10.10.0.1", "2001:db8:10::1"), "next-hop-self": BOOLS, "send-community": BOOLS,
        "send-ext-community": BOOLS, "ebgp-multihop": ("2", "255"), "capability-negotiate": BOOLS,
        "password": ("secret-1", "secret-2"),
    }, below=(
        Node("address-family", FAMILIES, {
            "maximum-prefixes prefix-num": ("100", "200"), "maximum-prefixes threshold": ("50", "90"),
            "maximum-prefixes warning-only": BOOLS, "maximum-prefixes restart-interval": ("5",),
        }, below=(ROUTES,)),
    )),
))

OSPF = Node("ospf", None, {
    "router-id": ("10.255.2.1", "10.255.2.2"), "compatible-rfc1583": BOOLS, "ignore-bad-lsreq": BOOLS,
    "auto-cost reference-bandwidth": ("1000", "10000"), "default-information originate": EMPTY,
    "default-information always": EMPTY, "default-information metric": ("1", "10"),
    "default-information metric-type": ("type1", "type2"), "default-information originate-policy": POLICY,
    "distance external": ("100", "120"), "distance inter-area": ("101",), "distance intra-area": ("102",),
    "timers spf delay": ("100",), "timers spf initial-hold": ("500",), "timers spf max-hold": ("5000", "6000"),
}, below=(
    ROUTES,
    Node("redistribute", ("static", "connected", "bgp", "nat"), REDISTRIBUTE),
    Node("max-metric router-lsa", ("administrative", "on-startup"), {"time": ("60", "120")}),
    *(Node("area", ("0", "1", "7"), below=(
        Node("stub", None, {"no-summary": EMPTY}),
        Node("nssa", None, {"no-summary": EMPTY, "translate": ("candidate", "always", "default")}),
        *(Node("interface", OWN_PORTS, {
            "hello-interval": ("5", "15"), "dead-interval": ("20", "60"), "retransmit-interval": ("3",), "cost": ("10", "20"),
            "priority": ("0", "5"), "network": ("broadcast", "point-to-point"), "passive-interface": EMPTY,
            "authentication type": ("simple", "message-digest"), "authentication authentication-key": ("key-1", "key-2"),
            "authentication message-digest key-id": ("3", "4"), "authentication message-digest md5": ("digest-1", "digest-2"),
        }),) * 4,
        Node("range", ("10.1.0.0/16", "10.3.5.1/24"), {"cost": ("1", "30"), "no-advertise": EMPTY}),
    )),) * 3,
))

POLICIES = (
    Node("policy lists prefix-list", ("nets-a", "nets-b"), below=(
        Node("ip-prefix", NETWORKS, {"ge": ("16", "20", "24"), "le": ("24", "28", "32"), "eq": ("0", "24", "30")}),
    )),
    Node("policy lists as-path-list", ("paths-a", "paths-b"), below=(Node("as-path", ("^65000$", "_65001_", "^1 [23]$")),)),
    Node("policy lists community-list", ("comm-a", "comm-b"), below=(Node("community", COMMUNITIES),)),
    Node("policy lists ext-community-list", ("ext-a", "ext-b"), below=(
        Node("community", ("rt 65000:1", "soo 65000:2", "rt 10.0.0.1:3")),
    )),
    *(Node("policy route-policy", ("pol-a", "pol-b", "pol-c"), {"default-action": ("accept", "reject")}, below=(
        Node("sequence", ("10", "20", "65534"), {
            "action base-action": ("accept", "reject"),
            "match address": NETS, "match next-hop": NETS, "match as-path": list_ref("as-path"),
            "match community": list_ref("community"), "match ext-community": list_ref("ext-community"),
            "match metric": ("0", "50"), "match origin": ("igp", "incomplete"), "match peer": ("192.0.2.1", "2001:db8::1"),
            "match local-preference": ("0", "200"), "match ovc-tag": ("5",), "match ospf-tag": ("0", "6"),
            "action set atomic-aggregate": BOOLS, "action set next-hop": ("192.0.2.7", "2001:db8::7"),
            "action set local-preference": ("0", "300"), "action set metric": ("0", "70"),
            "action set metric-type": ("type1", "type2"), "action set origin": ("igp", "egp"),
            "action set originator": ("10.0.0.9",), "action set ospf-tag": ("0", "8"), "action set weight": ("0", "9"),
            "action set aggregator-as": ("65003", "65004"), "action set aggregator-address": ("10.0.0.3", "10.0.0.4"),
            "action set as-path-prepend": ("65000 65000.1", "65002"), "action set as-path-exclude": ("65005", "1.1 2.2"),
            "action set ovc-tag": ("0", "11"),
        }, ("action base-action",), below=(Node("action set community", COMMUNITIES),)),
    )),) * 3,
)

LISTS = {"bgp", "address-family", "aggregate-address", "network", "redistribute", "neighbor", "route-policy", "router-lsa",
         "area", "range", "prefix-list", "ip-prefix", "as-path-list", "as-path", "community-list", "ext-community-list",
         "community", "sequence"}
LEAVES_WITHOUT_VALUE = {"as-set", "summary-only", "originate", "always", "no-summary", "passive-interface", "no-advertise"}


def is_container_by_itself(path):
    return path[-2:] == ("router", "ospf") or path[-1] in ("stub", "nssa") and path[-3:-2] == ("area",)


# --- looking at it ---

def at(tree, words):
    for word in words:
        if not isinstance(tree, dict) or word not in tree:
            return None
        tree = tree[word]
    return tree


def entries(tree, node, above=()):
    """(kind, path, settings) of each object of a kind in a configuration, and of those below."""
    base = above + tuple(node.words.split())
    found = at(tree, base)
    if found is None:
        return
    for path, entry in [(base, found)] if node.keys is None else [(base + (key,), found[key]) for key in list(found)]:
        yield node, path, entry
        for below in dict.fromkeys(node.below):
            yield from entries(tree, below, path)


def router_paths(tree):
    return {vpn: ("vpn", "vpn-instance", vpn, "router") for vpn in at(tree, ("vpn", "vpn-instance")) or {}}


def routing_entries(tree):
    for path in router_paths(tree).values():
        for node in (BGP, OSPF):
            yield from entries(tree, node, path)
    for node in dict.fromkeys(POLICIES):
        yield from entries(tree, node)


# --- rules, as in oracle_config.py ---

def rule_references(_, new):
    for node, path, entry in routing_entries(new):
        for words in node.musts:
            if at(entry, words.split()) is None:
                yield f"{' '.join(path)} has no {words}"
        for words, values in node.leaves.items():
            value = at(entry, words.split()) if isinstance(values, Ref) else None
            if value is not None and at(new, values.path + (value,)) is None:
                yield f"{' '.join(path)} refers to {value}, which is not there"


def bgp_texts(vpn, bgp, bgp_before, addresses):
    if len(bgp) > 1:
        yield f"VPN {vpn} is in two systems"
    for number, instance in bgp.items():
        before = at(bgp_before, (number, "neighbor")) or {}
        for peer, leaves in instance.get("neighbor", {}).items():
            if len(leaves.get("update-source", {})) > 1:
                yield f"the session with {peer} has two sources"
            if peer not in before and peer in addresses:
                yield f"{peer} is an address of VPN {vpn} itself"


def ospf_texts(vpn, ospf):
    default = ospf.get("default-information", {})
    if default and "originate" not in default:
        yield f"VPN {vpn} has no default route to announce"
    seen = set()
    for number, area in ospf.get("area", {}).items():
        if {"stub", "nssa"} <= set(area) or number == "0" and {"stub", "nssa"} & set(area):
            yield f"area {number} cannot be that"
        ports = set(area.get("interface", {}))
        yield from (f"{port} is in two areas" for port in ports & seen)
        seen |= ports


def rule_routers(old, new):
    for vpn, path in router_paths(new).items():
        ports = (at(new, path[:-1] + ("interface",)) or {}).values()
        addresses = {at(port, ("ip", "address")).split("/")[0] for port in ports if at(port, ("ip", "address"))}
        yield from bgp_texts(vpn, at(new, path + ("bgp",)) or {}, at(old, path + ("bgp",)), addresses)
        yield from ospf_texts(vpn, at(new, path + ("ospf",)) or {})


def rule_bounds(_, new):
    for name, entry in (at(new, NETS.path) or {}).items():
        for prefix, bounds in entry.get("ip-prefix", {}).items():
            is_empty = "eq" not in bounds and int(bounds.get("ge", "0")) > int(bounds.get("le", "32"))
            if is_empty or any(int(bound) < int(prefix.split("/")[1]) for bound in bounds.values()):
                yield f"nothing matches {prefix} of {name}"


RULES = (rule_references, rule_routers, rule_bounds)
