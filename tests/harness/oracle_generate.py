"""Random edits of a configuration for the restart oracle, which keep to its rules."""

import re

from oracle_config import (
    Commit, Edit, addresses_of_ports, bridges, commit_apply, interfaces, kind_of, members, ports_of_vpn0, tree_at,
    tree_base, vpns)
from oracle_routing import BGP, EMPTY, OSPF, OWN_PORTS, POLICIES, Ref, routing_entries

SERVICE_VPNS = ("1", "5", "7", "30", "511", "600", "65525")
PORTS = ("ge0/0", "ge0/1", "ge0/2", "ge0/3")
TAGS = ("100", "200", "300")
SERVICES = ("FW", "IDS", "netsvc1", "TE")
MTUS = ("576", "1280", "1400", "1496", "1500", "1600", "1996")
NUMBERED = {"loopback": 3, "natpool": 2, "gre": 3, "irb": 3}

LEAVES_OF_KIND = {
    "ge": ("description", "mtu", "mac-address", "arp-timeout", "shutdown", "ip address", "ipv6 address", "secondary"),
    "subif": ("description", "mtu", "mac-address", "arp-timeout", "shutdown", "ip address", "ipv6 address", "secondary"),
    "irb": ("mtu", "mac-address", "shutdown", "ip address", "ipv6 address", "secondary"),
    "loopback": ("mtu", "shutdown", "ip address", "ipv6 address", "secondary"),
    "natpool": ("description", "shutdown", "ip address"),
    "gre": ("mtu", "shutdown", "ip address", "source", "source", "tunnel-destination", "tunnel-destination"),
    "eth": ("mtu", "shutdown", "ip address", "ipv6 address", "secondary"),
}
KEEP_DOWN_LESS_OFTEN = ("false", "false", "true")


def number_of(name):
    """Another one for each interface that there can be, so that their networks do not overlap."""
    kind, digits = kind_of(name), [int(text) for text in re.findall(r"\d+", name)]
    if kind == "subif":
        return 40 + digits[1] * 3 + TAGS.index(str(digits[2]))
    return {"ge": 10, "eth": 20, "loopback": 60, "natpool": 70, "gre": 80, "irb": 90}[kind] + digits[-1]


class Generator:
    """Makes sequences; the same random source, the same sequences."""

    def __init__(self, random):
        self.random = random
        self.tree = tree_base()

    def sequence(self, most_commits):
        """One to most_commits changes of a configuration that the first commit has set up."""
        self.tree = tree_base()
        count = self.random.randint(1, most_commits)
        later = [[self.random.choice((GROUPS, ROUTING))] * self.random.choice((1, 1, 2, 3, 4, 6, 9)) for _ in range(count)]
        return [self.commit(choices) for choices in [FIRST] + later]

    def commit(self, choices):
        """A group of each choice, where the rules leave room for one."""
        commit, old = Commit(), self.tree
        for choice in choices:
            for _attempt in range(20):
                group = self.random.choice(choice)(self)
                new = commit_apply(old, commit.edits() + group) if group else None
                if new is not None and new != self.tree:
                    commit.groups.append(group)
                    self.tree = new
                    break
        return commit

    def pick(self, items):
        items = list(items)
        return self.random.choice(items) if items else None

    def pick_interface(self):
        vpn, name, leaves = self.pick(interfaces(self.tree))
        return ("vpn", "vpn-instance", vpn, "interface", name), name, leaves

    # interfaces

    def name(self):
        kind = self.random.choice(("ge", "ge", "subif", "subif", "loopback", "natpool", "gre", "irb"))
        if kind == "ge":
            return self.pick(PORTS)
        if kind == "subif":
            return f"{self.pick(PORTS)}.{self.pick(TAGS)}"
        return f"{kind}{self.random.randint(1, NUMBERED[kind])}"

    def value(self, leaf, name, vpn):
        number = number_of(name)
        networks = {"ip address": (f"10.{number}.0.1/24", f"10.{number}.0.65/26"),
                    "ipv6 address": (f"2001:db8:{number}::1/64", f"2001:db8:{number}::2/64"),
                    "secondary": (f"10.{number}.1.1/24", f"10.{number}.2.1/25")}
        if kind_of(name) == "natpool":
            networks["ip address"] = (f"10.{number}.0.0/24", f"10.{number}.1.0/26")
        if kind_of(name) == "loopback":
            networks["ip address"] = (f"10.{number}.0.1/32", f"10.{number}.0.2/32")
        if leaf in networks:
            return self.pick(networks[leaf])
        return {"description": lambda: f"text-{self.random.randint(1, 9)}", "mtu": lambda: self.pick(MTUS),
                "mac-address": lambda: f"02:aa:00:00:{number:02x}:{self.random.randint(1, 3):02x}",
                "arp-timeout": lambda: self.pick(("60", "1200", "3600")),
                "shutdown": lambda: self.pick(KEEP_DOWN_LESS_OFTEN),
                "tunnel-destination": lambda: f"192.0.2.{number + self.random.randint(0, 1) * 100}",
                "tunnel-source": lambda: self.pick(self.addresses(vpn)),
                "tunnel-source-interface": lambda: self.pick(self.sources(vpn))}[leaf]()

    def addresses(self, vpn):
        return sorted(addresses_of_ports(self.tree, vpn)) or ["10.10.0.1"]

    def sources(self, vpn):
        return [name for at, name, _ in interfaces(self.tree) if at == vpn and kind_of(name) != "gre"] + ["ge0/3"]

    def leaf_edits(self, leaf, path, name, leaves):
        """Gives the leaf a value or, when it has one, at times takes it away."""
        if leaf == "source":
            kept, leaf = self.random.sample(("tunnel-source", "tunnel-source-interface"), 2)
            drop = [Edit("delete", path + (kept,))] if kept in leaves else []
        else:
            drop = []
        there = path + tuple(leaf.split())
        value = self.value(leaf, name, path[2])
        if leaf == "secondary":
            there = path + ("ip", "secondary-address", value)
            has = tree_at(self.tree, there) is not None
            return [Edit("delete" if has else "set", there)]
        if tree_at(self.tree, there) is not None and self.random.random() < 0.3:
            return [Edit("delete", there)]
        return drop + [Edit("set", there, value)]

    def interface_create(self, vpn=None, name=None):
        name = name or self.name()
        vpn = vpn or self.pick([key for key in vpns(self.tree) if key != "512"])
        path = ("vpn", "vpn-instance", vpn, "interface", name)
        kind = kind_of(name)
        choice = sorted(set(LEAVES_OF_KIND[kind]))
        leaves = self.random.sample(choice, min(len(choice), self.random.randint(0, 4)))
        group = [Edit("set", path)]
        if kind == "subif" and name.split(".")[0] not in ports_of_vpn0(self.tree):
            group.insert(0, Edit("set", ("vpn", "vpn-instance", "0", "interface", name.split(".")[0])))
        for leaf in leaves:
            group += self.leaf_edits(leaf, path, name, {})
        return group

    def interface_change(self):
        path, name, leaves = self.pick_interface()
        return self.leaf_edits(self.pick(LEAVES_OF_KIND[kind_of(name)]), path, name, leaves)

    def interface_delete(self):
        return [Edit("delete", self.pick_interface()[0])]

    def interface_move(self):
        path, name, _ = self.pick_interface()
        vpn = self.pick([key for key in vpns(self.tree) if key not in ("512", path[2])])
        return [Edit("delete", path)] + self.interface_create(vpn, name) if vpn else []

    # VPNs

    def vpn_create(self):
        path = ("vpn", "vpn-instance", self.pick(SERVICE_VPNS))
        return [Edit("set", path)] + ([Edit("set", path + ("name",), "blue")] if self.random.random() < 0.3 else [])

    def vpn_delete(self):
        vpn = self.pick(key for key in vpns(self.tree) if key not in ("0", "512"))
        return [Edit("delete", ("vpn", "vpn-instance", vpn))] if vpn else []

    def vpn_list(self):
        path = ("vpn", "vpn-instance", self.pick(vpns(self.tree)))
        word, key, rest, value = self.pick((
            ("dns", self.pick(("10.9.0.53", "2001:db8:9::53", "10.9.1.53")), ("role",), self.pick(("primary", "secondary"))),
            ("host", self.pick(("one.example", "two", "a-3")), ("ip", self.pick(("10.8.0.1", "2001:db8:8::1", "10.8.0.2"))), None),
            ("service", self.pick(SERVICES), ("interface", self.pick(PORTS)) if self.random.random() < 0.5 else (), None)))
        there = path + (word, key)
        if tree_at(self.tree, there) is not None and self.random.random() < 0.5:
            return [Edit("delete", there)]
        return [Edit("set", there + rest, value)]

    # bridges

    def bridge_create(self):
        path = ("bridge", "bridge-instance", str(self.random.randint(1, 3)))
        return [Edit("set", path + ("vlan",), self.pick(TAGS + ("400",)))] if self.random.random() < 0.7 else [Edit("set", path)]

    def bridge_delete(self):
        bridge = self.pick(bridges(self.tree))
        if bridge is None:
            return []
        path = ("bridge", "bridge-instance", bridge)
        has_vlan = tree_at(self.tree, path + ("vlan",)) is not None
        return [Edit("delete", path + ("vlan",) if has_vlan and self.random.random() < 0.3 else path)]

    def member_create(self):
        bridge, port = self.pick(bridges(self.tree)), self.pick(ports_of_vpn0(self.tree))
        if bridge is None or port is None or kind_of(port) != "ge":
            return []
        return [Edit("set", ("bridge", "bridge-instance", bridge, "interface", port))] + self.member_edits(bridge, port)

    def member_edits(self, bridge, port):
        path = ("bridge", "bridge-instance", bridge, "interface", port)
        leaf, values = self.pick((("shutdown", KEEP_DOWN_LESS_OFTEN), ("native-vlan", ("true", "true", "false")),
                                  ("mtu", ("1280", "1400", "1500"))))
        if tree_at(self.tree, path + (leaf,)) is not None and self.random.random() < 0.4:
            return [Edit("delete", path + (leaf,))]
        return [Edit("set", path + (leaf,), self.pick(values))]

    def member_change(self):
        member = self.pick(members(self.tree))
        return self.member_edits(member[0], member[2]) if member else []

    def member_delete(self):
        member = self.pick(members(self.tree))
        return [Edit("delete", ("bridge", "bridge-instance", member[0], "interface", member[2]))] if member else []

    # routing

    def router(self):
        """Something in the routing of a VPN."""
        vpn = self.pick(key for key in vpns(self.tree) if key != "512")
        return self.objects(self.pick((BGP, OSPF)), ("vpn", "vpn-instance", vpn, "router"))

    def policy(self):
        return self.objects(self.pick(POLICIES), ())

    def routing_key(self, node, base):
        """One that is there rather than not."""
        there = list(tree_at(self.tree, base) or ())
        if there and self.random.random() < 0.5 or node.keys is None:
            return self.pick(there)
        own = list(tree_at(self.tree, base[:3] + ("interface",)) or ())
        return self.pick(own * 3 + ["ge0/1", "loopback1"] if node.keys == OWN_PORTS else node.keys)

    def objects(self, node, above):
        """An object and some below it, each made or changed."""
        path = above + tuple(node.words.split())
        if node.keys is not None:
            path += (self.routing_key(node, path),)
        is_new = tree_at(self.tree, path) is None
        group = [Edit("set", path)] if is_new else []
        goes_on = bool(node.below) and self.random.random() < 0.75
        if is_new or not goes_on:
            group += self.setting_edits(node, path)
        return group + (self.objects(self.pick(node.below), path) if goes_on else [])

    def setting_edits(self, node, path):
        """Of an object that is there, rather what it has."""
        entry = tree_at(self.tree, path)
        if entry is None:
            free = [words for words in node.leaves if words not in node.musts]
            chosen = list(node.musts) + self.random.sample(free, min(len(free), self.random.choice((0, 1, 2, 4))))
        else:
            has = [words for words in node.leaves if tree_at(entry, words.split()) is not None]
            chosen = {self.pick(has if has and self.random.random() < 0.6 else node.leaves) for _ in range(self.random.choice((1, 1, 2, 4)))}
        return [edit for words in sorted(filter(None, chosen))
                for edit in self.setting_edit(path, words, node.leaves[words], words in node.musts)]

    def setting_edit(self, path, words, values, is_needed):
        there = path + tuple(words.split())
        if tree_at(self.tree, there) is not None and not is_needed and self.random.random() < 0.5:
            return [Edit("delete", there)]
        if values is EMPTY:
            return [Edit("set", there)]
        value = self.pick(tree_at(self.tree, values.path) or () if isinstance(values, Ref) else values)
        return [Edit("set", there, value)] if value is not None else []

    def routing_change(self):
        found = [(node, path) for node, path, _ in routing_entries(self.tree) if node.leaves]
        return self.setting_edits(*self.pick(found)) if found else []

    def area_port(self):
        """An interface into an area, before or after it is there itself, or a change of its address when it is."""
        vpn = self.pick(key for key in vpns(self.tree) if key != "512")
        areas = tree_at(self.tree, ("vpn", "vpn-instance", vpn, "router", "ospf", "area")) or {}
        placed = [("vpn", "vpn-instance", vpn, "interface", name) for area in areas.values() for name in area.get("interface", {})]
        path = self.pick(path for path in placed if tree_at(self.tree, path) is not None)
        if path is not None and self.random.random() < 0.5:
            return self.leaf_edits("ip address", path, path[-1], tree_at(self.tree, path))
        area = next(node for node in OSPF.below if node.words == "area")
        port = next(node for node in area.below if node.words == "interface")
        base = ("vpn", "vpn-instance", vpn, "router", "ospf", "area")
        return self.objects(port, base + (self.routing_key(area, base),))

    def routing_delete(self):
        found = [path for _, path, _ in routing_entries(self.tree)]
        path = self.pick(found)
        if path is None:
            return []
        # At times with all of its kind, or with all of the VPN's routing.
        return [Edit("delete", path[:-1] if self.random.random() < 0.15 else path)]

    # the device

    def system_leaf(self):
        leaf, values = self.pick((("host-name", ("alpha", "beta-2")), ("system-ip", ("10.255.0.1", "10.255.0.2")),
                                  ("site-id", ("7", "100"))))
        return self.device_leaf(("system", leaf), values)

    def overlay_as(self):
        return self.device_leaf(("ovc", "overlay-as"), ("65010", "65011.3"))

    def device_leaf(self, path, values):
        if tree_at(self.tree, path) is not None and self.random.random() < 0.4:
            return [Edit("delete", path)]
        return [Edit("set", path, self.pick(values))]


# What an edit is drawn from; one that is named more often comes more often.
GROUPS = (
    *(Generator.vpn_create,) * 3, Generator.vpn_delete, *(Generator.vpn_list,) * 2,
    *(Generator.interface_create,) * 7, *(Generator.interface_change,) * 8, *(Generator.interface_delete,) * 3,
    *(Generator.interface_move,) * 2,
    *(Generator.bridge_create,) * 2, Generator.bridge_delete, *(Generator.member_create,) * 6,
    *(Generator.member_change,) * 4, Generator.member_delete, *(Generator.system_leaf,) * 2,
    *(Generator.router,) * 5, *(Generator.area_port,) * 2, *(Generator.policy,) * 3, *(Generator.routing_change,) * 10,
    *(Generator.routing_delete,) * 7,
)
ROUTING = (
    Generator.vpn_create, *(Generator.interface_create,) * 3, Generator.interface_delete, Generator.interface_move,
    *(Generator.system_leaf,) * 3, Generator.overlay_as, *(Generator.router,) * 6, *(Generator.area_port,) * 6,
    *(Generator.policy,) * 4, *(Generator.routing_change,) * 18, *(Generator.routing_delete,) * 12,
)
FIRST = [(Generator.vpn_create,)] * 2 + [(Generator.interface_create,)] * 4 + \
    [(Generator.bridge_create,), (Generator.member_create,)] + [(Generator.policy,)] * 4 + [(Generator.area_port,)] * 2 + \
    [(Generator.router,)] * 5 + [GROUPS]
