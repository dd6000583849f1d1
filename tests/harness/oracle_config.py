"""Random configurations of network objects: the configuration as a tree, its rules, and edits that keep to them.

The tree holds what is configured, a word of the path a level: {"vpn": {"vpn-instance": {"5": {"name": "blue"}}}}. A leaf
is a text, an entry of a list or a leaf-list is a dict. The rules are those that the device would refuse a commit by, so
that every commit made here is accepted, and one that is refused is a failure.
"""

import copy
import re
from dataclasses import dataclass, field

# Words whose next word is a key. A leaf-list counts as a list, its values as entries.
LISTS = {"vpn-instance", "interface", "dns", "host", "service", "secondary-address", "bridge-instance"}

# What every configuration here has, since the device's own validation will not let it go.
BASE_LINES = ("set vpn vpn-instance 0", "set vpn vpn-instance 512 interface eth0 shutdown false")


@dataclass(frozen=True)
class Edit:
    """One line of configuration mode. The value is None for an entry, and with a deletion."""
    verb: str
    path: tuple
    value: str = None

    def line(self):
        return " ".join((self.verb, *self.path) + (() if self.value is None else (self.value,)))


@dataclass
class Commit:
    """Edits that come into force together, in groups that make sense only as a whole."""
    groups: list = field(default_factory=list)

    def edits(self):
        return [edit for group in self.groups for edit in group]


# --- the tree ---

def tree_at(tree, path):
    for word in path:
        if not isinstance(tree, dict) or word not in tree:
            return None
        tree = tree[word]
    return tree


def is_entry(path):
    return len(path) >= 2 and (path[-2] in LISTS or path[-2] == "ip" and path[-4:-3] == ("host",))


def tree_delete(tree, path):
    """False when nothing is there. Containers that lose their last child go too, as in the datastore."""
    if tree_at(tree, path) is None:
        return False
    del tree_at(tree, path[:-1])[path[-1]]
    above = path[:-1]
    while above and not tree_at(tree, above) and not is_entry(above):
        del tree_at(tree, above[:-1])[above[-1]]
        above = above[:-1]
    return True


def tree_apply(tree, edit):
    """False when the device would refuse the line."""
    if edit.verb == "delete":
        return tree_delete(tree, edit.path)
    for word in edit.path[:-1]:
        tree = tree.setdefault(word, {})
    if edit.value is not None:
        tree[edit.path[-1]] = edit.value
    else:
        tree.setdefault(edit.path[-1], {})
    return True


def tree_base():
    tree = {}
    tree_apply(tree, Edit("set", ("vpn", "vpn-instance", "0")))
    tree_apply(tree, Edit("set", ("vpn", "vpn-instance", "512", "interface", "eth0", "shutdown"), "false"))
    return tree


def edits_to_base(tree):
    """The changes, one behind the other, by which the device gets back to the least configuration: MTUs first."""
    mtus = [("vpn", "vpn-instance", vpn, "interface", name, "mtu") for vpn, name, leaves in interfaces(tree) if "mtu" in leaves]
    mtus += [("bridge", "bridge-instance", key, "interface", port, "mtu") for key, _, port, leaves in members(tree)
             if "mtu" in leaves]
    without = copy.deepcopy(tree)
    for path in mtus:
        tree_delete(without, path)
    yield [Edit("delete", path) for path in mtus]
    yield list(edits_between(without, tree_base()))


def edits_between(old, new, path=()):
    """What makes the new tree of the old one."""
    for word in old:
        if word not in new:
            yield Edit("delete", path + (word,))
    for word, value in new.items():
        here = path + (word,)
        if isinstance(value, str):
            if old.get(word) != value:
                yield Edit("set", here, value)
            continue
        if is_entry(here) and word not in old:
            yield Edit("set", here)
        yield from edits_between(old.get(word, {}), value, here)


# --- looking at it ---

def vpns(tree):
    return tree_at(tree, ("vpn", "vpn-instance")) or {}


def bridges(tree):
    return tree_at(tree, ("bridge", "bridge-instance")) or {}


def interfaces(tree):
    """(VPN, name, settings) of each."""
    return [(vpn, name, leaves) for vpn, entry in vpns(tree).items() for name, leaves in entry.get("interface", {}).items()]


def members(tree):
    """(bridge id, bridge, port, settings) of each."""
    return [(key, bridge, name, leaves) for key, bridge in bridges(tree).items()
            for name, leaves in bridge.get("interface", {}).items()]


def untagged_ports(tree):
    return {port for _, bridge, port, _ in members(tree) if "vlan" not in bridge}


def ports_of_vpn0(tree):
    return tree_at(tree, ("vpn", "vpn-instance", "0", "interface")) or {}


def kind_of(name):
    return "subif" if "." in name else re.match(r"[a-z]+", name).group()


def mtu_of(leaves):
    return int(leaves.get("mtu", "1500"))


def kernel_name(name):
    return re.sub(r"^irb(\d)", r"irb.\1", name).replace("/", "_")


def member_name(bridge, port):
    """The member's device."""
    return kernel_name(port) + (f".{bridge['vlan']}" if "vlan" in bridge else "")


# --- rules: each gives the texts of what is wrong with the change from the old tree to the new ---

# What a port that carries a bridge's untagged frames cannot have.
ROUTING_LEAVES = {"ip", "ipv6", "mtu", "mac-address", "arp-timeout"}


def rule_fixed_vpns(_, new):
    if "0" not in vpns(new) or tree_at(new, ("vpn", "vpn-instance", "512", "interface", "eth0")) is None:
        yield "VPN 0 and the management VPN with its port cannot go"


def rule_places(_, new):
    seen = set()
    for vpn, name, _leaves in interfaces(new):
        if name in seen:
            yield f"{name} is in two VPNs"
        seen.add(name)
        if kind_of(name) == "subif" and name.split(".")[0] not in ports_of_vpn0(new):
            yield f"{name} has no port in VPN 0"
        if kind_of(name) == "irb" and vpn == "0":
            yield f"{name} in VPN 0"
        if (kind_of(name) == "eth") != (vpn == "512"):
            yield f"{name} in VPN {vpn}"


def rule_mtu(_, new):
    ports = dict(ports_of_vpn0(new))
    ports.update({port: leaves for _, bridge, port, leaves in members(new) if "vlan" not in bridge})
    tagged = [(name, leaves) for _, name, leaves in interfaces(new) if kind_of(name) == "subif"]
    # The kernel makes a tagged device smaller with its port, and not larger again: no port may become too small for one.
    tagged += [(f"{port}.{bridge['vlan']}", leaves) for _, bridge, port, leaves in members(new) if "vlan" in bridge]
    for name, leaves in tagged:
        port = ports.get(name.split(".")[0], {})
        if ("mtu" in leaves or "mtu" in port) and mtu_of(leaves) > mtu_of(port) - 4:
            yield f"{name} is too large for its port"
    for _vpn, name, leaves in interfaces(new):
        if "ipv6" in leaves and mtu_of(leaves) < 1280:
            yield f"{name} is too small for IPv6"


def own_mtus(tree):
    """The paths of MTUs that are set on ports."""
    found = {("vpn", "vpn-instance", vpn, "interface", name, "mtu") for vpn, name, leaves in interfaces(tree)
             if kind_of(name) == "ge" and "mtu" in leaves}
    return found | {("bridge", "bridge-instance", key, "interface", port, "mtu") for key, bridge, port, leaves in members(tree)
                    if "vlan" not in bridge and "mtu" in leaves}


def rule_ports_that_go(old, new):
    """A port keeps its MTU when nothing is configured on it any more, and what is made upon it later takes it over: the
    MTU is to be taken back first. Without this rule a state would depend on what was configured long before."""
    for path in own_mtus(old) - own_mtus(new):
        if tree_at(new, path[:-1]) is None:
            yield f"{path[-2]} goes with an MTU of its own"


def rule_members(_, new):
    placed = {kernel_name(name) for vpn, name, _ in interfaces(new)}
    untagged, tagged = {}, set()
    for key, bridge, port, leaves in members(new):
        entry = ports_of_vpn0(new).get(port)
        if entry is None:
            yield f"{port} of bridge {key} is not in VPN 0"
            continue
        if "vlan" in bridge and ((port, bridge["vlan"]) in tagged or member_name(bridge, port) in placed):
            yield f"{port} has the VLAN of bridge {key} twice"
        tagged.add((port, bridge.get("vlan")))
        is_native = leaves.get("native-vlan") == "true"
        if is_native and "vlan" not in bridge:
            yield f"bridge {key} has no tag to be native for"
        if is_native or "vlan" not in bridge:
            if port in untagged:
                yield f"untagged frames of {port} belong to two bridges"
            untagged[port] = key
            if ROUTING_LEAVES & set(entry):
                yield f"{port} is routed and in bridge {key}"
        # One device with two settings of its state: which one holds is a matter of order.
        if "vlan" not in bridge and "shutdown" in entry:
            yield f"{port} is raised by VPN 0 and by bridge {key}"


def rule_bridge_vlan(old, new):
    tags = [bridge["vlan"] for bridge in bridges(new).values() if "vlan" in bridge]
    if len(tags) != len(set(tags)):
        yield "two bridges of one VLAN"
    for key, bridge in bridges(new).items():
        before = bridges(old).get(key)
        if before and before.get("interface") and bridge.get("interface") and before.get("vlan") != bridge.get("vlan"):
            yield f"bridge {key} has members, its VLAN stays"


def rule_tunnels(old, new):
    for vpn, name, leaves in interfaces(new):
        before = tree_at(old, ("vpn", "vpn-instance", vpn, "interface", name)) or {}
        if kind_of(name) != "gre" or leaves.get("tunnel-destination") in (None, before.get("tunnel-destination")):
            continue
        source = leaves.get("tunnel-source-interface")
        if source is None and "tunnel-source" not in leaves:
            yield f"{name} has no source"
        if source is not None and source not in vpns(new)[vpn]["interface"]:
            yield f"{name} starts at {source}, which is not there"


def rule_lists(_, new):
    for vpn, entry in vpns(new).items():
        roles = [dns.get("role") for dns in entry.get("dns", {}).values()]
        if None in roles or len(roles) != len(set(roles)):
            yield f"VPN {vpn} has two resolvers of one role"
        if not all(host.get("ip") for host in entry.get("host", {}).values()):
            yield f"VPN {vpn} has a host without an address"
        for service in entry.get("service", {}).values():
            if set(service.get("interface", {})) - set(ports_of_vpn0(new)):
                yield f"a service of VPN {vpn} has an interface that is not in VPN 0"


RULES = (rule_fixed_vpns, rule_places, rule_mtu, rule_ports_that_go, rule_members, rule_bridge_vlan, rule_tunnels, rule_lists)


def violations(old, new):
    return [text for rule in RULES for text in rule(old, new)]


def commit_apply(tree, edits):
    """The tree after the commit, None when the device would refuse it."""
    new = copy.deepcopy(tree)
    if not all(tree_apply(new, edit) for edit in edits) or violations(tree, new):
        return None
    return new


def sequence_end(commits):
    """The tree after all of them, None when one would be refused."""
    tree = tree_base()
    for commit in commits:
        tree = commit_apply(tree, commit.edits())
        if tree is None:
            return None
    return tree


# --- random edits: each function gives one group, empty when there is nothing to edit ---

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
        return [self.commit(FIRST)] + [self.commit([GROUPS] * self.random.choice((1, 1, 2, 3, 4, 6))) for _ in range(count)]

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
        found = [leaves["ip"]["address"] for at, name, leaves in interfaces(self.tree)
                 if at == vpn and kind_of(name) in ("ge", "subif") and "address" in leaves.get("ip", {})]
        return [address.split("/")[0] for address in found] or ["10.10.0.1"]

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

    # the device

    def system_leaf(self):
        leaf, values = self.pick((("host-name", ("alpha", "beta-2")), ("system-ip", ("10.255.0.1", "10.255.0.2")),
                                  ("site-id", ("7", "100"))))
        path = ("system", leaf)
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
)
FIRST = [(Generator.vpn_create,)] * 2 + [(Generator.interface_create,)] * 4 + \
    [(Generator.bridge_create,), (Generator.member_create,), GROUPS]


# --- the devices that a configuration has ---

def devices_of(tree):
    """(VPN, device) of what the daemon makes or moves for it; tunnels are left out, which need both of their ends."""
    found = {(vpn, kernel_name(name)) for vpn, name, _ in interfaces(tree) if kind_of(name) != "gre"}
    found |= {("0", key) for key in bridges(tree)}
    legs = [member_name(bridge, port) for _, bridge, port, _ in members(tree)]
    found |= {("0", leg) for leg in legs}
    tagged = legs + [kernel_name(name) for _, name, _ in interfaces(tree) if kind_of(name) == "subif"]
    found |= {("0", name.replace("ge", "sim", 1)) for name in tagged if "." in name}
    if tree_at(tree, ("system", "system-ip")) is not None:
        found.add(("0", "system"))
    return found


def raised_ports(tree):
    """(VPN, device) of the ports that are to come up, which takes the device a while."""
    found = {(vpn, kernel_name(name)) for vpn, name, leaves in interfaces(tree)
             if kind_of(name) == "ge" and leaves.get("shutdown") == "false"}
    return found | {("0", kernel_name(port)) for _, bridge, port, leaves in members(tree)
                    if "vlan" not in bridge and leaves.get("shutdown") == "false"}
